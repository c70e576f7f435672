#include "node/parallel_fill.hpp"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

#include "timeseries/codec/pod_vector.hpp"

namespace zlk::node
{

namespace
{

// Below this in all, a fill stays on the calling thread: handing work over costs more than it saves.
constexpr std::size_t parallel_threshold = std::size_t{8} << 20;
// A share of work: large enough that populating it is one call into the kernel worth making.
constexpr std::size_t stripe = std::size_t{4} << 20;

void fill(const fill_job & f, std::size_t begin, std::size_t end) noexcept
{
    timeseries::pod_memory::populate(f.to + begin, end - begin, f.capacity_bytes);
    if (f.from)
    {
        std::memcpy(f.to + begin, f.from + begin, end - begin);
    }
}

} // namespace

void run_fills(std::span<const fill_job> fills)
{
    std::size_t total = 0;
    for (const fill_job & f : fills)
    {
        total += f.size;
    }
    if (total < parallel_threshold)
    {
        for (const fill_job & f : fills)
        {
            if (f.size != 0)
            {
                fill(f, 0, f.size);
            }
        }
        return;
    }
    struct piece
    {
        const fill_job * fill;
        std::size_t begin;
        std::size_t end;
    };
    std::vector<piece> pieces;
    pieces.reserve(total / stripe + fills.size());
    for (const fill_job & f : fills)
    {
        for (std::size_t at = 0; at < f.size; at += stripe)
        {
            pieces.push_back({&f, at, std::min(f.size, at + stripe)});
        }
    }
    // Threads of their own rather than a pool: a fill this large takes milliseconds, against tens of
    // microseconds to start a thread, and nothing stays behind between writes.
    std::atomic<std::size_t> next{0};
    const auto work = [&]() noexcept
    {
        for (std::size_t i = next.fetch_add(1, std::memory_order_relaxed); i < pieces.size();
             i = next.fetch_add(1, std::memory_order_relaxed))
        {
            fill(*pieces[i].fill, pieces[i].begin, pieces[i].end);
        }
    };
    const unsigned helpers = std::min(std::max(std::thread::hardware_concurrency(), 1u), 4u) - 1;
    std::vector<std::thread> threads;
    threads.reserve(helpers);
    for (unsigned i = 0; i < helpers; ++i)
    {
        try
        {
            threads.emplace_back(work);
        }
        catch (const std::system_error &)
        {
            break; // the calling thread does the rest
        }
    }
    work();
    for (std::thread & t : threads)
    {
        t.join();
    }
}

} // namespace zlk::node
