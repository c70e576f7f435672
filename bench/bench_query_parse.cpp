// Parse rates of typical statements. The grammar is built once per thread; what is measured is the
// parse itself: tokens, records, and the allocations of the records.
#include <benchmark/benchmark.h>

#include <string>

#include "allocation_counting.hpp"
#include "query/grammar/parse_query.hpp"

namespace
{

using namespace zlk::query;

// About 200 bytes: a select list with aggregates, a time range, a WHERE, a GROUP BY.
const std::string typical_select =
    "SELECT $timestamp, avg(temperature), max(pressure), count(*) FROM sensors "
    "IN RANGE(2024-01-01, +7d) WHERE region = 'eu-west' AND temperature > 12.5 OR status != 3 "
    "GROUP BY 1h ORDER BY $timestamp LIMIT 100";

const std::string small_select = "SELECT * FROM t";

const std::string insert_rows = []
{
    std::string s = "INSERT INTO t ($timestamp, a, b) VALUES ";
    for (int i = 0; i < 100; ++i)
    {
        s += (i ? ", " : "") + std::string("(2024-01-01T00:00:") + (i % 60 < 10 ? "0" : "") +
             std::to_string(i % 60) + ", 1.5, 'x')";
    }
    return s;
}();

void parse_statement(benchmark::State & state, const std::string & text)
{
    ast::statement s;
    std::string message;
    if (parse_query(text, s, message))
    {
        state.SkipWithError(message.c_str());
        return;
    }
    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        parse_query(text, s, message);
        benchmark::DoNotOptimize(s);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["bytes"] = static_cast<double>(text.size());
}

void BM_parse_typical_select(benchmark::State & state)
{
    parse_statement(state, typical_select);
}
BENCHMARK(BM_parse_typical_select);

void BM_parse_small_select(benchmark::State & state)
{
    parse_statement(state, small_select);
}
BENCHMARK(BM_parse_small_select);

void BM_parse_insert_100_rows(benchmark::State & state)
{
    parse_statement(state, insert_rows);
}
BENCHMARK(BM_parse_insert_100_rows);

void BM_parse_find(benchmark::State & state)
{
    const std::string text = "FIND(TAG='sensors' AND NOT TAG='retired' AND PREFIX='eu.' AND TYPE=TS)";
    find_request f;
    std::string message;
    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        parse_find(text, f, message);
        benchmark::DoNotOptimize(f);
    }
}
BENCHMARK(BM_parse_find);

} // namespace

BENCHMARK_MAIN();
