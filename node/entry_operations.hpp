// The entry operations of the development node: blobs, integers, removal, expiry, entry information
// and transaction states, over one entry_store per registry. Writes reach the replicas through
// operation_context::replicate() once they have succeeded on the owner.
#pragma once

#include <memory>

#include "node/entry_store.hpp"
#include "node/operation_table.hpp"

namespace zlk::node
{

// The layout of get_entry_info's content (docs/protocol.md): key, type, size, modification time,
// expiry, in fixed-width little-endian words.
inline constexpr std::size_t entry_info_size = 32 + 1 + 8 + 4 * 8;

// Registers the entry operations, all served from `store`.
void add_entry_operations(operation_registry & registry, std::shared_ptr<entry_store> store);

} // namespace zlk::node
