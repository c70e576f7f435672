#include "node/read_mostly.hpp"

#include <array>
#include <cstddef>

namespace zlk::node::detail
{

namespace
{

// A thread serves one node in zlkd; a process running several nodes (a test's local cluster) moves its
// threads between a few values at most. Beyond that, slots are taken round.
constexpr std::size_t slots_per_thread = 8;

struct local_references
{
    std::array<local_reference, slots_per_thread> slots;
    std::size_t next = 0;
};

thread_local local_references this_thread;

std::atomic<std::uint64_t> versions{0};

} // namespace

local_reference & local_reference_for(const void * owner) noexcept
{
    for (local_reference & slot : this_thread.slots)
    {
        if (slot.owner == owner)
        {
            return slot;
        }
    }
    local_reference & slot = this_thread.slots[this_thread.next];
    this_thread.next = (this_thread.next + 1) % slots_per_thread;
    return slot;
}

std::uint64_t next_version() noexcept
{
    return versions.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace zlk::node::detail
