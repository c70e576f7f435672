// Filling fresh memory: received column bytes copied into bucket memory, or a large input buffer
// faulted in before the socket fills it. Most of the cost is the kernel faulting pages in and zeroing
// them, not the copy, and it spreads over cores: a large set of fills is split between threads, which
// take the other cores while the client that sent the bytes waits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zlk::node
{

struct fill_job
{
    std::uint8_t * to = nullptr;
    // Null: the pages are only faulted in.
    const std::uint8_t * from = nullptr;
    std::size_t size = 0;
    // Of the buffer `to` points into, for pod_memory::populate.
    std::size_t capacity_bytes = 0;
};

// Runs the fills, side by side when they are large enough to gain from it.
void run_fills(std::span<const fill_job> fills);

} // namespace zlk::node
