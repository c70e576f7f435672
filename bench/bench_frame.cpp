// The frame's overhead: handle test, call trace, try block, last-error record, sync-flag test.
// "allocs" counts global operator new calls per iteration; in the steady state it must stay 0.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "allocation_counting.hpp"
#include "zlk/zlk.h"

namespace
{

using zlk::bench::allocation_counter;

struct open_handle
{
    open_handle()
        : h(zlk_open_tcp())
    {
    }
    ~open_handle() { zlk_close(h); }
    zlk_handle_t h;
};

void get_timeout(benchmark::State & state)
{
    open_handle handle;
    int timeout = 0;
    // Warm-up: the trace and the last-error text reach their capacity.
    zlk_option_get_timeout(handle.h, &timeout);
    allocation_counter counter{state};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(zlk_option_get_timeout(handle.h, &timeout));
        benchmark::DoNotOptimize(timeout);
    }
}
BENCHMARK(get_timeout);

void refused_set_timeout(benchmark::State & state)
{
    open_handle handle;
    zlk_option_set_timeout(handle.h, 1);
    allocation_counter counter{state};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(zlk_option_set_timeout(handle.h, 1));
    }
}
BENCHMARK(refused_set_timeout);

void invalid_handle(benchmark::State & state)
{
    int timeout = 0;
    allocation_counter counter{state};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(zlk_option_get_timeout(nullptr, &timeout));
    }
}
BENCHMARK(invalid_handle);

void get_timeout_threads(benchmark::State & state)
{
    static zlk_handle_t shared = nullptr;
    if (state.thread_index() == 0)
    {
        shared = zlk_open_tcp();
    }
    int timeout = 0;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(zlk_option_get_timeout(shared, &timeout));
    }
    if (state.thread_index() == 0)
    {
        zlk_close(shared);
    }
}
BENCHMARK(get_timeout_threads)->Threads(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
