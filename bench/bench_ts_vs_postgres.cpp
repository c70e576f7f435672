// Time-series push and hourly aggregation, zlk against PostgreSQL, on the same generated rows: one
// timestamp and four double columns, one row a millisecond.
//
//     bench_ts_vs_postgres ZLK_URI PG_CONNINFO [ROWS]
//
// Push: zlk through the batch table (staging then zlk_ts_batch_push), PostgreSQL through a binary COPY.
// Aggregate: hourly count, mean and max of c0, each side run twice and the second run timed.
// scripts/bench-ts-vs-postgres.sh starts both servers and runs this.
#include <libpq-fe.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

#include "zlk/zlk.h"

namespace
{

using clock_type = std::chrono::steady_clock;

// 2026-11-22T00:00:00Z, on an hour boundary so the hourly buckets of both sides match.
constexpr std::int64_t start_seconds = 1795305600;
constexpr std::int64_t step_ns = 1000000;
constexpr std::int64_t hour_ns = 3600LL * 1000000000LL;
// PostgreSQL's binary timestamps count microseconds from 2000-01-01T00:00:00Z.
constexpr std::int64_t pg_epoch_seconds = 946684800;
constexpr std::size_t copy_buffer_bytes = 1 << 20;

// CPU time of this process, all threads: on a shared machine it shows what the client itself spends.
double cpu_seconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double seconds_since(clock_type::time_point since)
{
    return std::chrono::duration<double>(clock_type::now() - since).count();
}

struct rows
{
    std::vector<std::int64_t> ns; // from start_seconds
    std::vector<double> c[4];
};

// Sensor-like values: a slow wave with noise, a sawtooth, a step and a decaying voltage.
rows generate(std::size_t n)
{
    rows r;
    r.ns.resize(n);
    for (auto & c : r.c)
    {
        c.resize(n);
    }
    std::uint64_t state = 0x9E3779B97F4A7C15ULL;
    for (std::size_t i = 0; i < n; ++i)
    {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        const double noise = static_cast<double>(state >> 11) / 9007199254740992.0 - 0.5;
        const std::int64_t ns = static_cast<std::int64_t>(i) * step_ns;
        const double hours = static_cast<double>(ns) / static_cast<double>(hour_ns);
        r.ns[i] = ns;
        r.c[0][i] = 15.0 + 8.0 * std::sin(hours / 24.0 * 6.283185307179586) + noise;
        r.c[1][i] = 40.0 + static_cast<double>(i % 200) / 10.0;
        r.c[2][i] = 1013.0 + static_cast<double>(i % 7) + noise * 0.1;
        r.c[3][i] = 3.3 - static_cast<double>(i % 1000) / 1e4;
    }
    return r;
}

struct hour_result
{
    std::uint64_t count = 0;
    double mean = 0;
    double max = 0;
};

// Keyed by the hour's start in seconds since the Unix epoch.
using hourly = std::map<std::int64_t, hour_result>;

struct zlk_figures
{
    double stage_s = 0;
    double push_s = 0;
    double stage_cpu_s = 0;
    double push_cpu_s = 0;
    double aggregate_first_s = 0;
    double aggregate_s = 0;
    hourly hours;
};

bool zlk_ok(const char * what, zlk_error_t e)
{
    if (ZLK_FAILURE(e))
    {
        std::fprintf(stderr, "zlk: %s: %s\n", what, zlk_error(e));
        return false;
    }
    return true;
}

bool run_zlk(const char * uri, const rows & r, std::size_t hour_count, zlk_figures & out)
{
    const std::size_t n = r.ns.size();
    zlk_handle_t h = nullptr;
    if (!zlk_ok("zlk_open", zlk_open(&h, zlk_p_tcp)))
    {
        return false;
    }
    const std::string table = "bench.ts_vs_postgres." + std::to_string(getpid());
    const char * names[4] = {"c0", "c1", "c2", "c3"};
    zlk_ts_column_info columns[4];
    zlk_ts_batch_column_info batch_columns[4];
    for (int i = 0; i < 4; ++i)
    {
        columns[i] = {names[i], zlk_ts_column_double};
        batch_columns[i] = {table.c_str(), names[i], n};
    }
    bool ok = zlk_ok("zlk_connect", zlk_connect(h, uri)) &&
              zlk_ok("zlk_ts_create", zlk_ts_create(h, table.c_str(), 3600 * 1000, columns, 4));
    const bool created = ok;
    zlk_batch_table_t batch = nullptr;
    ok = ok && zlk_ok("zlk_ts_batch_table_init", zlk_ts_batch_table_init(h, batch_columns, 4, &batch));

    if (ok)
    {
        const auto started = clock_type::now();
        const double cpu_started = cpu_seconds();
        zlk_error_t e = zlk_e_ok;
        for (std::size_t i = 0; i < n && ZLK_SUCCESS(e); ++i)
        {
            const std::int64_t ns = r.ns[i];
            const zlk_timespec_t t{start_seconds + ns / 1000000000LL, ns % 1000000000LL};
            e = zlk_ts_batch_start_row(batch, &t);
            for (std::size_t c = 0; c < 4 && ZLK_SUCCESS(e); ++c)
            {
                e = zlk_ts_batch_row_set_double(batch, c, r.c[c][i]);
            }
        }
        out.stage_s = seconds_since(started);
        out.stage_cpu_s = cpu_seconds() - cpu_started;
        ok = zlk_ok("staging", e);
        if (ok)
        {
            const auto pushed = clock_type::now();
            const double cpu_pushed = cpu_seconds();
            ok = zlk_ok("zlk_ts_batch_push", zlk_ts_batch_push(batch));
            out.push_s = seconds_since(pushed);
            out.push_cpu_s = cpu_seconds() - cpu_pushed;
        }
    }
    if (batch != nullptr)
    {
        zlk_ts_batch_table_release(h, batch);
    }

    if (ok)
    {
        std::vector<zlk_ts_double_aggregation> aggregations(3 * hour_count);
        const zlk_ts_aggregation_type types[3] = {zlk_agg_count, zlk_agg_arithmetic_mean, zlk_agg_max};
        for (int run = 0; run < 2 && ok; ++run)
        {
            for (std::size_t hour = 0; hour < hour_count; ++hour)
            {
                for (std::size_t k = 0; k < 3; ++k)
                {
                    zlk_ts_double_aggregation & a = aggregations[3 * hour + k];
                    std::memset(&a, 0, sizeof a);
                    a.type = types[k];
                    a.range.begin.tv_sec = start_seconds + static_cast<std::int64_t>(hour) * 3600;
                    a.range.end.tv_sec = a.range.begin.tv_sec + 3600;
                }
            }
            const auto started = clock_type::now();
            ok = zlk_ok(
                "zlk_ts_double_aggregate",
                zlk_ts_double_aggregate(h, table.c_str(), "c0", aggregations.data(), aggregations.size()));
            (run == 0 ? out.aggregate_first_s : out.aggregate_s) = seconds_since(started);
        }
        for (std::size_t hour = 0; ok && hour < hour_count; ++hour)
        {
            const auto begin = aggregations[3 * hour].range.begin.tv_sec;
            out.hours[begin] = {aggregations[3 * hour].count, aggregations[3 * hour + 1].result.value,
                                aggregations[3 * hour + 2].result.value};
        }
    }
    if (created)
    {
        zlk_ok("zlk_remove", zlk_remove(h, table.c_str()));
    }
    zlk_close(h);
    return ok;
}

struct pg_figures
{
    double copy_s = 0;
    double copy_cpu_s = 0;
    double aggregate_first_s = 0;
    double aggregate_s = 0;
    hourly hours;
    std::string settings;
};

bool pg_ok(PGconn * conn, PGresult * res, const char * what)
{
    const auto status = PQresultStatus(res);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_COPY_IN)
    {
        std::fprintf(stderr, "postgres: %s: %s", what, PQerrorMessage(conn));
        PQclear(res);
        return false;
    }
    PQclear(res);
    return true;
}

bool pg_exec(PGconn * conn, const char * sql)
{
    return pg_ok(conn, PQexec(conn, sql), sql);
}

void put_be16(char *& p, std::uint16_t v)
{
    v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
    p += 2;
}

void put_be32(char *& p, std::uint32_t v)
{
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
    p += 4;
}

void put_be64(char *& p, std::uint64_t v)
{
    v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
    p += 8;
}

bool pg_copy(PGconn * conn, const rows & r)
{
    if (!pg_ok(conn, PQexec(conn, "COPY t FROM STDIN (FORMAT binary)"), "COPY"))
    {
        return false;
    }
    constexpr std::size_t row_bytes = 2 + 5 * (4 + 8);
    std::vector<char> buffer(copy_buffer_bytes);
    char * p = buffer.data();
    static const char header[] = "PGCOPY\n\377\r\n\0";
    std::memcpy(p, header, 11);
    p += 11;
    put_be32(p, 0); // flags
    put_be32(p, 0); // header extension length
    const std::int64_t start_us = (start_seconds - pg_epoch_seconds) * 1000000LL;
    const auto flush = [&]()
    {
        const auto length = static_cast<int>(p - buffer.data());
        p = buffer.data();
        return length == 0 || PQputCopyData(conn, buffer.data(), length) == 1;
    };
    for (std::size_t i = 0; i < r.ns.size(); ++i)
    {
        if (static_cast<std::size_t>(buffer.data() + buffer.size() - p) < row_bytes + 2 && !flush())
        {
            std::fprintf(stderr, "postgres: PQputCopyData: %s", PQerrorMessage(conn));
            return false;
        }
        put_be16(p, 5);
        put_be32(p, 8);
        put_be64(p, static_cast<std::uint64_t>(start_us + r.ns[i] / 1000));
        for (const auto & c : r.c)
        {
            put_be32(p, 8);
            put_be64(p, std::bit_cast<std::uint64_t>(c[i]));
        }
    }
    put_be16(p, 0xFFFF); // trailer
    if (!flush() || PQputCopyEnd(conn, nullptr) != 1)
    {
        std::fprintf(stderr, "postgres: end of COPY: %s", PQerrorMessage(conn));
        return false;
    }
    bool ok = true;
    while (PGresult * res = PQgetResult(conn))
    {
        ok = pg_ok(conn, res, "COPY") && ok;
    }
    return ok;
}

std::int64_t be64_at(const char * p)
{
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return static_cast<std::int64_t>(__builtin_bswap64(v));
}

// The hourly query, with binary results: timestamptz, bigint, and the mean and max as float8.
bool pg_aggregate(PGconn * conn, hourly & out)
{
    PGresult * res =
        PQexecParams(conn, "SELECT date_trunc('hour', ts), count(*), avg(c0), max(c0) FROM t GROUP BY 1", 0,
                     nullptr, nullptr, nullptr, nullptr, 1);
    if (PQresultStatus(res) != PGRES_TUPLES_OK)
    {
        return pg_ok(conn, res, "aggregate");
    }
    out.clear();
    for (int row = 0; row < PQntuples(res); ++row)
    {
        const std::int64_t hour_us = be64_at(PQgetvalue(res, row, 0));
        out[hour_us / 1000000 + pg_epoch_seconds] = {
            static_cast<std::uint64_t>(be64_at(PQgetvalue(res, row, 1))),
            std::bit_cast<double>(be64_at(PQgetvalue(res, row, 2))),
            std::bit_cast<double>(be64_at(PQgetvalue(res, row, 3)))};
    }
    PQclear(res);
    return true;
}

std::string pg_settings(PGconn * conn)
{
    std::string text;
    PGresult * res =
        PQexec(conn, "SELECT name || '=' || current_setting(name) FROM pg_settings WHERE "
                     "name IN ('server_version', 'shared_buffers', 'max_parallel_workers_per_gather', "
                     "'jit', 'synchronous_commit', 'fsync', 'wal_level') ORDER BY name");
    if (PQresultStatus(res) == PGRES_TUPLES_OK)
    {
        for (int row = 0; row < PQntuples(res); ++row)
        {
            text += (row == 0 ? "" : " ");
            text += PQgetvalue(res, row, 0);
        }
    }
    PQclear(res);
    return text;
}

bool run_pg(const char * conninfo, const rows & r, pg_figures & out)
{
    PGconn * conn = PQconnectdb(conninfo);
    if (PQstatus(conn) != CONNECTION_OK)
    {
        std::fprintf(stderr, "postgres: connect: %s", PQerrorMessage(conn));
        PQfinish(conn);
        return false;
    }
    out.settings = pg_settings(conn);
    // date_trunc of a timestamptz follows the session's time zone.
    bool ok = pg_exec(conn, "SET TimeZone = 'UTC'") && pg_exec(conn, "SET client_min_messages = warning") &&
              pg_exec(conn, "DROP TABLE IF EXISTS t") &&
              pg_exec(conn, "CREATE TABLE t (ts timestamptz, c0 double precision, c1 double precision, "
                            "c2 double precision, c3 double precision)");
    if (ok)
    {
        const auto started = clock_type::now();
        const double cpu_started = cpu_seconds();
        ok = pg_copy(conn, r);
        out.copy_s = seconds_since(started);
        out.copy_cpu_s = cpu_seconds() - cpu_started;
    }
    for (int run = 0; run < 2 && ok; ++run)
    {
        const auto started = clock_type::now();
        ok = pg_aggregate(conn, out.hours);
        (run == 0 ? out.aggregate_first_s : out.aggregate_s) = seconds_since(started);
    }
    if (ok)
    {
        pg_exec(conn, "DROP TABLE t");
    }
    PQfinish(conn);
    return ok;
}

// Both sides must have seen the same rows: equal counts and maxima, means within rounding.
bool same_results(const hourly & a, const hourly & b)
{
    if (a.size() != b.size())
    {
        std::printf("  MISMATCH: %zu hours from zlk, %zu from PostgreSQL\n", a.size(), b.size());
        return false;
    }
    bool same = true;
    for (const auto & [hour, x] : a)
    {
        const auto it = b.find(hour);
        if (it == b.end())
        {
            std::printf("  MISMATCH: hour %lld missing from PostgreSQL\n", static_cast<long long>(hour));
            same = false;
            continue;
        }
        const hour_result & y = it->second;
        if (x.count != y.count || x.max != y.max || std::fabs(x.mean - y.mean) > 1e-9 * std::fabs(y.mean))
        {
            std::printf("  MISMATCH at hour %lld: zlk %llu %.12g %.12g, PostgreSQL %llu %.12g %.12g\n",
                        static_cast<long long>(hour), static_cast<unsigned long long>(x.count), x.mean, x.max,
                        static_cast<unsigned long long>(y.count), y.mean, y.max);
            same = false;
        }
    }
    return same;
}

} // namespace

int main(int argc, char ** argv)
{
    if (argc < 3 || argc > 4)
    {
        std::fprintf(stderr, "usage: %s ZLK_URI PG_CONNINFO [ROWS (default 10000000)]\n", argv[0]);
        return 2;
    }
    const long long requested = argc == 4 ? std::atoll(argv[3]) : 10000000LL;
    if (requested <= 0)
    {
        std::fprintf(stderr, "ROWS must be positive\n");
        return 2;
    }
    const auto n = static_cast<std::size_t>(requested);

    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) != 3)
    {
        load[0] = load[1] = load[2] = -1;
    }
    std::printf("load average at start: %.2f %.2f %.2f (%ld cores online)\n", load[0], load[1], load[2],
                sysconf(_SC_NPROCESSORS_ONLN));

    const auto generating = clock_type::now();
    const rows r = generate(n);
    const std::size_t hour_count =
        static_cast<std::size_t>((r.ns.back() + hour_ns) / hour_ns); // hours the rows touch
    std::printf("rows: %zu (ts + 4 doubles, one a millisecond, %zu hours), generated in %.2f s, untimed\n", n,
                hour_count, seconds_since(generating));

    zlk_figures z;
    if (!run_zlk(argv[1], r, hour_count, z))
    {
        return 1;
    }
    pg_figures pg;
    if (!run_pg(argv[2], r, pg))
    {
        return 1;
    }
    std::printf("postgres settings: %s\n\n", pg.settings.c_str());

    const double rows_n = static_cast<double>(n);
    const double zlk_total_s = z.stage_s + z.push_s;
    std::printf("push of %zu rows\n", n);
    std::printf("                              wall          rows/s   client CPU\n");
    std::printf("  zlk staging                 %8.3f s  %12.0f  %8.3f s\n", z.stage_s, rows_n / z.stage_s,
                z.stage_cpu_s);
    std::printf("  zlk zlk_ts_batch_push       %8.3f s  %12.0f  %8.3f s\n", z.push_s, rows_n / z.push_s,
                z.push_cpu_s);
    std::printf("  zlk end to end              %8.3f s  %12.0f  %8.3f s\n", zlk_total_s, rows_n / zlk_total_s,
                z.stage_cpu_s + z.push_cpu_s);
    std::printf("  PostgreSQL COPY binary      %8.3f s  %12.0f  %8.3f s\n", pg.copy_s, rows_n / pg.copy_s,
                pg.copy_cpu_s);
    std::printf("  ratio zlk/PostgreSQL: end to end %.2fx, push alone %.2fx\n\n", pg.copy_s / zlk_total_s,
                pg.copy_s / z.push_s);

    std::printf("hourly count, avg, max of c0 (%zu hours, %zu aggregations for zlk)\n", hour_count,
                3 * hour_count);
    std::printf("  zlk first run               %8.3f s  %12.0f points/s\n", z.aggregate_first_s,
                rows_n / z.aggregate_first_s);
    std::printf("  zlk second run              %8.3f s  %12.0f points/s\n", z.aggregate_s,
                rows_n / z.aggregate_s);
    std::printf("  PostgreSQL first run        %8.3f s  %12.0f points/s\n", pg.aggregate_first_s,
                rows_n / pg.aggregate_first_s);
    std::printf("  PostgreSQL second run       %8.3f s  %12.0f points/s\n", pg.aggregate_s,
                rows_n / pg.aggregate_s);
    std::printf("  ratio zlk/PostgreSQL (second runs): %.2fx\n", pg.aggregate_s / z.aggregate_s);

    const bool same = same_results(z.hours, pg.hours);
    std::printf("  results %s\n", same ? "identical on both sides (count, max; mean within 1e-9)" : "DIFFER");
    return same ? 0 : 1;
}
