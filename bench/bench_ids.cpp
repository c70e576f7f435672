// The alias hash runs once per routed request (goal: under 250 ns for a 16-byte alias), the id
// comparison once per step of every ring map look-up. Long messages report cycles per byte as well.
#include "base/alias_hash.hpp"
#include "base/ring_id.hpp"
#include "base/skein256.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define ZLK_BENCH_HAVE_TSC 1
#endif

namespace
{

using namespace zlk::chord;

// Counts cycles with the time-stamp counter where there is one; elsewhere the counter stays absent.
class cycle_counter
{
public:
    void start() noexcept
    {
#ifdef ZLK_BENCH_HAVE_TSC
        begin_ = __rdtsc();
#endif
    }
    void stop() noexcept
    {
#ifdef ZLK_BENCH_HAVE_TSC
        total_ += __rdtsc() - begin_;
#endif
    }
    void report(benchmark::State & state, double bytes) const
    {
#ifdef ZLK_BENCH_HAVE_TSC
        if (bytes > 0)
        {
            state.counters["cycles/byte"] = static_cast<double>(total_) / bytes;
        }
#else
        (void)state;
        (void)bytes;
#endif
    }

private:
    std::uint64_t begin_ = 0;
    std::uint64_t total_ = 0;
};

void bm_alias_hash_16_bytes(benchmark::State & state)
{
    // "0123456789abcdef" and its zero: the length the ring sees from check_alias.
    char alias[] = "0123456789abcdef";
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(alias);
        benchmark::DoNotOptimize(alias_hash(alias, sizeof alias));
    }
}
BENCHMARK(bm_alias_hash_16_bytes);

void bm_alias_hash_view_16_bytes(benchmark::State & state)
{
    std::string alias = "0123456789abcdef";
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(alias.data());
        benchmark::DoNotOptimize(alias_hash(std::string_view(alias)));
    }
}
BENCHMARK(bm_alias_hash_view_16_bytes);

void bm_skein256_long_message(benchmark::State & state)
{
    std::vector<std::uint8_t> message(static_cast<std::size_t>(state.range(0)));
    std::mt19937 random(1);
    for (auto & b : message)
    {
        b = static_cast<std::uint8_t>(random());
    }
    cycle_counter cycles;
    for (auto _ : state)
    {
        cycles.start();
        benchmark::DoNotOptimize(skein256_hash_words(message.data(), message.size()));
        cycles.stop();
    }
    const double bytes = static_cast<double>(state.iterations()) * static_cast<double>(message.size());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    cycles.report(state, bytes);
}
BENCHMARK(bm_skein256_long_message)->Arg(1024)->Arg(64 * 1024);

void bm_skein256_streaming_4k_chunks(benchmark::State & state)
{
    std::vector<std::uint8_t> message(64 * 1024, 0x5A);
    for (auto _ : state)
    {
        skein256 h;
        for (std::size_t at = 0; at < message.size(); at += 4096)
        {
            h.update(message.data() + at, 4096);
        }
        benchmark::DoNotOptimize(h.final_words());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * message.size()));
}
BENCHMARK(bm_skein256_streaming_4k_chunks);

// Ids that share their top words, as neighbouring positions on a busy ring do, so that the comparison
// has to go down to word 0.
void bm_ring_id_compare(benchmark::State & state)
{
    std::mt19937_64 random(3);
    std::vector<ring_id> ids(1024);
    for (auto & id : ids)
    {
        id = ring_id{{random(), random() % 4, 7, 0xFFFF}};
    }
    std::size_t i = 0;
    for (auto _ : state)
    {
        const ring_id & a = ids[i & 1023];
        const ring_id & b = ids[(i + 1) & 1023];
        benchmark::DoNotOptimize(a < b);
        ++i;
    }
}
BENCHMARK(bm_ring_id_compare);

void bm_ring_id_to_chars(benchmark::State & state)
{
    const ring_id id = alias_hash("alias");
    char text[ring_id_text_max];
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(to_chars(text, id));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(bm_ring_id_to_chars);

} // namespace

BENCHMARK_MAIN();
