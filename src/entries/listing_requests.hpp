// The requests of listings, tags and the entry walk: the bodies of list_chunk, count_chunk, scan,
// node_listing, direct_prefix_get, link_tag and link_tag_back, the decoding of their replies, and the
// aliases of tag links. Layouts: docs/protocol.md, "Tags, listings and iterators".
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/entry_type.hpp"
#include "base/ring_id.hpp"
#include "wire/operation_body.hpp"
#include "zlk/error.h"

namespace zlk::client
{

// required_access of listings and counts, of tag membership tests and of tag-link maintenance; bit 0
// lets any node answer a key (the entry walk names keys the node may not own).
inline constexpr std::uint16_t access_listing = 0x08;
inline constexpr std::uint16_t access_tag_test = 0x04;
inline constexpr std::uint16_t access_any_node = 0x01;

enum class affix_kind : std::uint8_t
{
    prefix = 0,
    suffix = 1,
};

enum class scan_kind : std::uint8_t
{
    plain = 0,
    regex = 1,
};

// The flag of list_chunk and count_chunk: aliases alone, or each with its kernel type.
inline constexpr std::uint8_t list_aliases = 0x04;
inline constexpr std::uint8_t list_with_types = 0x80;

// Elements per list_chunk request.
inline constexpr std::uint64_t chunk_size = 1024;

protocol::operation_body list_chunk_body(std::string_view affix, affix_kind kind, std::uint64_t offset,
                                         std::uint64_t limit, std::uint8_t flag) noexcept;
protocol::operation_body count_chunk_body(std::string_view affix, affix_kind kind,
                                          std::uint64_t limit) noexcept;
protocol::operation_body scan_body(std::span<const std::uint8_t> pattern, std::uint64_t limit,
                                   scan_kind kind) noexcept;
protocol::operation_body node_listing_body(std::uint8_t kernel_type, std::uint64_t offset,
                                           std::uint64_t limit) noexcept;
protocol::operation_body direct_prefix_body(std::string_view prefix, std::uint64_t offset,
                                            std::uint64_t limit) noexcept;
protocol::operation_body iterator_body(bool backward) noexcept;
// link_tag: an alias (with its terminating zero) and a kernel type; link_tag_back: the link's alias
// and the tagged entry's kernel type.
protocol::operation_body link_tag_body(std::string_view alias_with_zero, std::uint8_t type) noexcept;
protocol::operation_body link_tag_back_body(std::string_view link_with_zero,
                                            std::uint8_t tagged_type) noexcept;

// A list reply: varint count, then each alias as a byte buffer, followed by a u8 kernel type when the
// list carries types. Appends; zlk_e_invalid_reply for anything malformed (nothing appended then).
zlk_error_t decode_alias_list(std::span<const std::uint8_t> content, bool with_types,
                              std::vector<std::string> & aliases, std::vector<std::uint8_t> * types);

// A reply of the entry walk: the alias as a byte buffer, then the entry's stored content.
zlk_error_t decode_walk_reply(std::span<const std::uint8_t> content, std::string_view & alias,
                              std::span<const std::uint8_t> & stored) noexcept;

// Tag links: the reserved mark, then "tag.{tag}.{alias}.tag".
using kernel::tag_link_mark;
using kernel::tag_link_tail;
std::string tag_link_alias(std::string_view tag, std::string_view alias);
// The prefix of all links of a tag, and the suffix of all links of an entry.
std::string tag_links_prefix(std::string_view tag);
std::string entry_links_suffix(std::string_view alias);
// The entry's alias in a link of the tag (after the tag's prefix, before ".tag"); false when the link
// doesn't fit.
bool entry_of_link(std::string_view link, std::string_view tag, std::string & alias);
// The tag's alias in a link of the entry; false when the link doesn't fit.
bool tag_of_link(std::string_view link, std::string_view alias, std::string & tag);

} // namespace zlk::client
