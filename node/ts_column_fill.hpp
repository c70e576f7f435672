// Copies of received column bytes into bucket memory. Into a fresh bucket, most of their cost is the
// kernel faulting in and zeroing pages, not the copy: a large set of them is split between threads,
// which takes the other cores while the client that sent the rows waits for the reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zlk::node
{

struct ts_column_fill
{
    std::uint8_t * to = nullptr;
    const std::uint8_t * from = nullptr;
    std::size_t size = 0;
    // Of the vector `to` points into, for pod_memory::populate.
    std::size_t capacity_bytes = 0;
};

// Runs the copies, side by side when they are large enough to gain from it.
void run_column_fills(std::span<const ts_column_fill> fills);

} // namespace zlk::node
