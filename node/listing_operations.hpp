// The operations that read a node's entries in ring order: listings by prefix or suffix and their
// counts, listings by type, content scans, the entry walk (iterator_next, iterator_previous) and the
// direct prefix listing; and the tag links (link_tag, link_tag_back). Layouts: docs/protocol.md, "Tags,
// listings and iterators".
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "node/entry_store.hpp"
#include "node/operation_table.hpp"

namespace zlk::node
{

// The flag byte of list_chunk and count_chunk: aliases alone, or each followed by its type.
inline constexpr std::uint8_t listing_aliases = 0x04;
inline constexpr std::uint8_t listing_with_types = 0x80;

// The kind byte of list_chunk and count_chunk, and of scan.
inline constexpr std::uint8_t affix_prefix = 0;
inline constexpr std::uint8_t affix_suffix = 1;
inline constexpr std::uint8_t scan_plain = 0;
inline constexpr std::uint8_t scan_regex = 1;

void add_listing_operations(operation_registry & registry, std::shared_ptr<entry_store> store);
void add_tag_operations(operation_registry & registry, std::shared_ptr<entry_store> store);

// The part of the ring this node answers for in a listing: its arc by its own membership (the whole
// ring when it isn't a member of it).
entry_store::key_arc own_arc(const operation_context & ctx);

// Reply content, written straight into the handler's buffer.
void append_varint(std::vector<std::uint8_t> & out, std::uint64_t v);
void append_bytes(std::vector<std::uint8_t> & out, std::string_view bytes);

} // namespace zlk::node
