// A bucket node answering aggregate requests over one bucket of ten million rows of a double column
// (a row every 10 ms, about 28 hours): one request with a sub-request per hour for count, mean and
// maximum, as a GROUP BY 1h asks it. "points/s" counts the rows scanned per second, each row serving
// the three functions; the per-function cases show each loop alone. "allocs" counts heap allocations
// per request (the decoded sub-requests and the bucket look-up's callable; the reply's storage is reused).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "allocation_counting.hpp"
#include "base/alias_hash.hpp"
#include "node/ts_aggregate_operations.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/bucket.hpp"

namespace
{

using namespace zlk;
namespace ts = zlk::timeseries;

constexpr std::size_t row_count = 10000000;
constexpr std::int64_t row_step_ns = 10000000;
constexpr std::int64_t shard_ms = 2 * 86400000;
constexpr std::int64_t hour_s = 3600;

struct bench_bucket
{
    node::ts_store store;
    chord::ring_id id = chord::alias_hash(ts::bucket_key(ts::table_id("bench"), 0));

    bench_bucket()
    {
        std::vector<std::int64_t> offsets(row_count);
        std::vector<double> values(row_count);
        std::mt19937_64 random(1);
        std::normal_distribution<double> d(20.0, 5.0);
        for (std::size_t i = 0; i < row_count; ++i)
        {
            offsets[i] = static_cast<std::int64_t>(i) * row_step_ns;
            values[i] = d(random);
        }
        store.with_bucket(
            id, true,
            [](node::ts_bucket & b)
            {
                b.shard_start = 0;
                b.shard_size = shard_ms;
            },
            [&](node::ts_bucket * b)
            {
                node::ts_incoming_values v;
                v.fixed = std::span(reinterpret_cast<const std::uint8_t *>(values.data()), values.size() * 8);
                return b->merge(0, kernel::column_type::double_, offsets, v);
            });
    }
};

bench_bucket & bucket()
{
    static bench_bucket b;
    return b;
}

void run(benchmark::State & state, const std::vector<aggregation_type> & functions)
{
    bench_bucket & b = bucket();
    const std::int64_t hours =
        (static_cast<std::int64_t>(row_count) * row_step_ns / 1000000000 + hour_s - 1) / hour_s;
    std::vector<ts::aggregate_sub_request> subs;
    for (std::int64_t h = 0; h < hours; ++h)
    {
        for (const aggregation_type f : functions)
        {
            subs.push_back(
                {static_cast<std::uint64_t>(f), zlk_ts_range_t{{h * hour_s, 0}, {(h + 1) * hour_s, 0}}});
        }
    }
    const auto body = ts::build_aggregate(protocol::operation::ts_double_aggregate, b.id, 0, shard_ms, subs);
    const auto fields = body.bytes().subspan(2);
    std::vector<std::uint8_t> content;
    content.reserve(64 * subs.size());
    std::uint64_t allocations = 0;
    for (auto _ : state)
    {
        content.clear();
        const std::uint64_t before = bench::allocations();
        const auto ec = node::answer_aggregates(
            b.store, static_cast<std::uint16_t>(protocol::operation::ts_double_aggregate),
            serialization::cursor(fields), content);
        allocations += bench::allocations() - before;
        if (ec)
        {
            state.SkipWithError(ec.message().c_str());
            break;
        }
        benchmark::DoNotOptimize(content.data());
    }
    state.counters["points/s"] =
        benchmark::Counter(static_cast<double>(row_count) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
}

void hourly_count_mean_max(benchmark::State & state)
{
    run(state, {aggregation_type::count, aggregation_type::arithmetic_mean, aggregation_type::max});
}
void hourly_count(benchmark::State & state)
{
    run(state, {aggregation_type::count});
}
void hourly_mean(benchmark::State & state)
{
    run(state, {aggregation_type::arithmetic_mean});
}
void hourly_max(benchmark::State & state)
{
    run(state, {aggregation_type::max});
}

BENCHMARK(hourly_count_mean_max)->Unit(benchmark::kMillisecond);
BENCHMARK(hourly_count)->Unit(benchmark::kMillisecond);
BENCHMARK(hourly_mean)->Unit(benchmark::kMillisecond);
BENCHMARK(hourly_max)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
