// The batch table writer: staging rows of one timestamp and four double columns through the C setters
// (and, beside it, through the staging itself, which shows what the call frame adds), in rows per
// second; and zlk_ts_batch_push of ten million such rows to a one-node ring, end to end. The staging
// benchmarks also report the memory the staged rows hold against their size on the wire.
#include <benchmark/benchmark.h>

#include <string>
#include <variant>
#include <vector>

#include "allocation_counting.hpp"
#include "node/local_cluster.hpp"
#include "timeseries/batch_table.hpp"
#include "zlk/zlk.h"

namespace
{

using namespace zlk;

constexpr std::uint64_t hour_ms = 3600 * 1000;
constexpr std::size_t rows_per_table = 1 << 20;

struct four_doubles
{
    node::local_cluster cluster{1};
    zlk_handle_t h = nullptr;
    zlk_batch_table_t table = nullptr;
    bool ready = false;

    explicit four_doubles(benchmark::State & state)
    {
        const zlk_ts_column_info columns[] = {{"a", zlk_ts_column_double},
                                              {"b", zlk_ts_column_double},
                                              {"c", zlk_ts_column_double},
                                              {"d", zlk_ts_column_double}};
        if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok || zlk_connect(h, cluster.uri().c_str()) != zlk_e_ok ||
            zlk_ts_create(h, "bench", hour_ms, columns, 4) != zlk_e_ok || !make_table())
        {
            state.SkipWithError("could not set up the table");
            return;
        }
        ready = true;
    }

    bool make_table()
    {
        const zlk_ts_batch_column_info batch[] = {
            {"bench", "a", 0}, {"bench", "b", 0}, {"bench", "c", 0}, {"bench", "d", 0}};
        return zlk_ts_batch_table_init(h, batch, 4, &table) == zlk_e_ok;
    }

    void renew()
    {
        zlk_ts_batch_table_release(h, table);
        make_table();
    }

    ~four_doubles()
    {
        zlk_ts_batch_table_release(h, table);
        zlk_close(h);
    }

    void stage(std::int64_t first_row, std::size_t rows)
    {
        for (std::size_t i = 0; i < rows; ++i)
        {
            const std::int64_t ns = (first_row + static_cast<std::int64_t>(i)) * 1000;
            const zlk_timespec_t t{ns / 1000000000, ns % 1000000000};
            zlk_ts_batch_start_row(table, &t);
            zlk_ts_batch_row_set_double(table, 0, 1.0);
            zlk_ts_batch_row_set_double(table, 1, 2.0);
            zlk_ts_batch_row_set_double(table, 2, 3.0);
            zlk_ts_batch_row_set_double(table, 3, 4.0);
        }
    }
};

// Bytes the staged vectors hold, and the bytes of offsets and values they put on the wire (where
// each column carries the offsets its chunk may keep once).
void report_memory(benchmark::State & state, const zlk_batch_table & t)
{
    double held = 0;
    double wire = 0;
    for (const timeseries::table_writer & w : t.columns.writers())
    {
        for (const auto & [start, chunks] : w.shards())
        {
            for (const auto & chunk : chunks)
            {
                held += static_cast<double>(chunk->rows.capacity() * 8);
                for (const timeseries::column_chunk & col : chunk->columns)
                {
                    const double offset_bytes = static_cast<double>(chunk->offsets_of(col).size() * 8);
                    std::visit(
                        [&](const auto & p)
                        {
                            held += static_cast<double>(p.offsets.capacity() * 8 +
                                                        p.values.capacity() * sizeof(p.values[0]));
                            wire += offset_bytes + static_cast<double>(p.values.size() * sizeof(p.values[0]));
                        },
                        col.payload);
                }
            }
        }
    }
    if (wire > 0)
    {
        state.counters["memory_to_wire"] = held / wire;
    }
}

// Stages rows 1024 at a time; after every million, `between` runs untimed and may stop the run.
template <typename Between>
void stage_in_rounds(benchmark::State & state, four_doubles & f, Between between)
{
    std::int64_t row = 0;
    std::size_t in_table = 0;
    for (auto _ : state)
    {
        f.stage(row, 1024);
        row += 1024;
        in_table += 1024;
        if (in_table >= rows_per_table)
        {
            state.PauseTiming();
            if (!between())
            {
                break;
            }
            in_table = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * 1024);
}

// The steady state of a writer that stages and pushes in turn: every million rows are pushed (not
// timed), and the next rows reuse the chunks the push left as spares.
void row_staging(benchmark::State & state)
{
    four_doubles f(state);
    if (!f.ready)
    {
        return;
    }
    stage_in_rounds(state, f,
                    [&]
                    {
                        report_memory(state, *f.table);
                        if (zlk_ts_batch_push(f.table) != zlk_e_ok)
                        {
                            state.SkipWithError("push failed");
                            return false;
                        }
                        return true;
                    });
}
BENCHMARK(row_staging)->Unit(benchmark::kMicrosecond);

// A new table every million rows: the staging pays the first touch of all its memory, as a one-off
// load into a fresh table does.
void row_staging_new_table(benchmark::State & state)
{
    four_doubles f(state);
    if (!f.ready)
    {
        return;
    }
    stage_in_rounds(state, f,
                    [&]
                    {
                        f.renew();
                        return true;
                    });
}
BENCHMARK(row_staging_new_table)->Unit(benchmark::kMicrosecond);

// The same rows through the staging alone, without the exported functions' frame.
void row_staging_core(benchmark::State & state)
{
    timeseries::batch_columns staged(0x10000000 / 4 * 3);
    std::vector<timeseries::column_entry> entries;
    for (std::uint64_t i = 0; i < 4; ++i)
    {
        timeseries::column_entry e;
        e.table = "bench";
        e.column = std::string(1, static_cast<char>('a' + i));
        e.shard_size = hour_ms;
        e.index = i;
        entries.push_back(e);
    }
    staged.add(entries);
    std::int64_t row = 0;
    std::size_t in_table = 0;
    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        for (int i = 0; i < 1024; ++i, ++row)
        {
            const std::int64_t ns = row * 1000;
            staged.start_row(zlk::timespec{ns / 1000000000, ns % 1000000000});
            staged.set_double(0, 1.0);
            staged.set_double(1, 2.0);
            staged.set_double(2, 3.0);
            staged.set_double(3, 4.0);
        }
        in_table += 1024;
        if (in_table >= rows_per_table)
        {
            state.PauseTiming();
            staged.reset();
            in_table = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * 1024);
}
BENCHMARK(row_staging_core)->Unit(benchmark::kMicrosecond);

void push_ten_million(benchmark::State & state)
{
    constexpr std::size_t rows = 10000000;
    four_doubles f(state);
    if (!f.ready)
    {
        return;
    }
    std::int64_t first = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        f.stage(first, rows);
        first += static_cast<std::int64_t>(rows);
        state.ResumeTiming();
        if (zlk_ts_batch_push(f.table) != zlk_e_ok)
        {
            state.SkipWithError("push failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rows));
}
BENCHMARK(push_ten_million)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
