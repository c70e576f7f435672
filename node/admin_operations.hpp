// The node-wide operations: purge_all (20), trim_all (22), purge_cache (24), range_updater (25),
// interrupt_partition (26), and direct_get (170), the read of a key the node holds whatever its owner.
//
// The entry operations are registered here over a store that purge_all can replace as a whole: each
// request takes the current store (and the handlers bound to it) and runs on it, so a purge never waits
// for requests in flight, nor they for it.
#pragma once

#include <atomic>
#include <cstdint>

#include "node/operation_table.hpp"

namespace zlk::node
{

// What the node-wide operations share, for tests and the status record.
struct admin_state
{
    // Cleared by range_updater's stop, set again by its restart.
    std::atomic<bool> migration_running{true};
    std::atomic<std::uint64_t> purges{0};
};

inline constexpr std::uint8_t range_updater_stop = 0;
inline constexpr std::uint8_t range_updater_restart = 1;

// Registers the entry operations over a purgeable store, and the node-wide operations. A null state
// gets one of its own.
void add_admin_operations(operation_registry & registry, std::shared_ptr<admin_state> state = nullptr);

} // namespace zlk::node
