// A log call from a hot path: below the minimum it is one comparison; above it, a formatted copy
// into a pooled packet and a queue push. "allocs" counts global operator new calls per iteration
// and must stay 0; "dropped" counts messages the pool had no packet for.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>

#include "allocation_counting.hpp"
#include "log/logger.hpp"

namespace
{

class log_counters
{
public:
    explicit log_counters(benchmark::State & state)
        : state_(state)
        , allocations_(state)
        , dropped_(zlk::log::dropped_messages())
    {
    }
    // Both counts are process-wide: only the first thread reports them, over all threads' iterations.
    // "allocs" comes from the shared counter, "dropped" from the logger.
    ~log_counters()
    {
        if (state_.thread_index() != 0)
        {
            return;
        }
        const auto dropped = zlk::log::dropped_messages() - dropped_;
        state_.counters["dropped"] =
            benchmark::Counter(static_cast<double>(dropped), benchmark::Counter::kAvgIterations);
    }

private:
    benchmark::State & state_;
    zlk::bench::allocation_counter allocations_;
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
    log_counters counter(state);
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
    log_counters counter(state);
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
    log_counters counter(state);
    std::int64_t i = 0;
    for (auto _ : state)
    {
        zlk::log::log(zlk::log::level::warning, "{} {}", ++i, long_text);
        flush_now_and_then(state, i);
    }
}
BENCHMARK(log_message_cut_at_512_bytes);

} // namespace

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
