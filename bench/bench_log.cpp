// A log call from a hot path: below the minimum it is one comparison; above it, a formatted copy
// into a pooled packet and a queue push. "allocs" counts global operator new calls per iteration
// and must stay 0; "dropped" counts messages the pool had no packet for.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

#include "log/logger.hpp"

namespace
{

std::atomic<std::uint64_t> allocations{0};

class allocation_counter
{
public:
    explicit allocation_counter(benchmark::State & state)
        : state_(state)
        , allocations_(allocations.load(std::memory_order_relaxed))
        , dropped_(zlk::log::dropped_messages())
    {
    }
    // Both counts are process-wide: only the first thread reports them, over all threads' iterations.
    ~allocation_counter()
    {
        if (state_.thread_index() != 0)
        {
            return;
        }
        const auto allocs = allocations.load(std::memory_order_relaxed) - allocations_;
        const auto dropped = zlk::log::dropped_messages() - dropped_;
        state_.counters["allocs"] =
            benchmark::Counter(static_cast<double>(allocs), benchmark::Counter::kAvgIterations);
        state_.counters["dropped"] =
            benchmark::Counter(static_cast<double>(dropped), benchmark::Counter::kAvgIterations);
    }

private:
    benchmark::State & state_;
    std::uint64_t allocations_;
    std::uint64_t dropped_;
};

// The logger's own task flushes too, but on a loaded machine it may not be scheduled in time: each
// thread flushes what it made, so that the pool doesn't run dry and the cheap drop isn't measured.
constexpr std::int64_t flush_every = 1024;

void flush_now_and_then(benchmark::State & state, std::int64_t i)
{
    if (i % flush_every == 0)
    {
        state.PauseTiming();
        zlk::log::flush();
        state.ResumeTiming();
    }
}

void log_below_minimum(benchmark::State & state)
{
    allocation_counter counter(state);
    std::int64_t i = 0;
    for (auto _ : state)
    {
        zlk::log::log(zlk::log::level::detailed, "could not find successor for {}", ++i);
    }
}
BENCHMARK(log_below_minimum);
BENCHMARK(log_below_minimum)->Threads(2);

void log_above_minimum(benchmark::State & state)
{
    const std::string endpoint = "127.0.0.1:2836";
    zlk::log::flush();
    allocation_counter counter(state);
    std::int64_t i = 0;
    for (auto _ : state)
    {
        zlk::log::log(zlk::log::level::warning, "request {} to {} timed out after {} ms", ++i, endpoint,
                      3000);
        flush_now_and_then(state, i);
    }
}
BENCHMARK(log_above_minimum);
BENCHMARK(log_above_minimum)->Threads(2);

void log_message_cut_at_512_bytes(benchmark::State & state)
{
    const std::string long_text(2000, 'x');
    zlk::log::flush();
    allocation_counter counter(state);
    std::int64_t i = 0;
    for (auto _ : state)
    {
        zlk::log::log(zlk::log::level::warning, "{} {}", ++i, long_text);
        flush_now_and_then(state, i);
    }
}
BENCHMARK(log_message_cut_at_512_bytes);

} // namespace

void * operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void * p = std::malloc(size == 0 ? 1 : size))
    {
        return p;
    }
    throw std::bad_alloc();
}

// Out of line, so that the compiler doesn't pair an inlined free() with a new-expression and warn.
[[gnu::noinline]] void release_memory(void * p) noexcept
{
    std::free(p);
}

void operator delete(void * p) noexcept
{
    release_memory(p);
}

void operator delete(void * p, std::size_t) noexcept
{
    release_memory(p);
}

int main(int argc, char ** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    // As a handle starts it, with the minimum raised so that "detailed" is below it.
    zlk::log::start_logger(zlk::log::level::info, std::chrono::milliseconds(3000));
    benchmark::RunSpecifiedBenchmarks();
    zlk::log::stop_logger();
    benchmark::Shutdown();
    return 0;
}
