// Counts calls of the global operator new, for the "allocs" counters of the benchmarks: a hot path
// proves that it doesn't allocate by reporting 0. Linking zlk_bench_support replaces the global
// operator new and delete of the benchmark program.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace zlk::bench
{

// Since the program started, in all threads.
std::uint64_t allocations() noexcept;
// Since the calling thread started: for benchmarks whose helper threads (a peer, a node) allocate too.
std::uint64_t thread_allocations() noexcept;

// Reports the allocations per iteration as the counter `name` when stopped or, at the latest, when it
// goes out of scope.
class allocation_counter
{
public:
    enum class scope
    {
        // All threads; in a multi-threaded benchmark only the first thread reports.
        process,
        this_thread,
    };

    explicit allocation_counter(benchmark::State & state, scope s = scope::process,
                                const char * name = "allocs");
    ~allocation_counter();

    // Reports now: what the benchmark does after its loop isn't counted.
    void stop() noexcept;

    allocation_counter(const allocation_counter &) = delete;
    allocation_counter & operator=(const allocation_counter &) = delete;

private:
    std::uint64_t count() const noexcept;

    benchmark::State & _state;
    scope _scope;
    const char * _name;
    std::uint64_t _start;
    bool _stopped = false;
};

} // namespace zlk::bench
