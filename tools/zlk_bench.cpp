// zlk-bench: load and latency figures of a running cluster, seen through the public C interface only,
// so that it measures what an application gets. Run `zlk-bench --help` for the flags.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <latch>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zlk/zlk.h"

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr const char * help_text =
    R"(usage: zlk-bench --uri URI [-t TESTS] [-n N] [-d SIZE] [-c THREADS] [--keys K] [-b BATCH] [--keep]

Runs each test in turn against the cluster at URI and prints, per test, the throughput (operations per
second), the 50th, 99th and 99.9th percentile of the latency in microseconds, and the number of
operations that failed.

  --uri URI        the cluster, e.g. zlk://127.0.0.1:2836 (required)
  -t TESTS         comma-separated tests, run in the order given (default put,get,update,int_add,batch):
                     put      zlk_blob_put; each key is put once, later rounds over the same keys
                              (when N > K) use zlk_blob_update
                     get      zlk_blob_get (zlk_release'd right away)
                     update   zlk_blob_update
                     int_add  zlk_int_add of 1 on integer entries
                     batch    zlk_run_batch of BATCH blob puts each (updates after the first round);
                              throughput counts records, latency is per batch
                     prefix   zlk_prefix_get of the run's blob keys, at most 100 aliases a call
                     ts_push  rows of one timestamp and four double columns, BATCH rows a
                              zlk_ts_batch_push into a table per thread (one-hour shards, a row
                              a millisecond); throughput counts rows, latency is per push
                     ts_aggregate
                              N / BATCH calls (at least one a thread) of zlk_ts_double_aggregate
                              of count, mean and max over all the rows of the thread's table (N rows
                              are pushed first when ts_push didn't run)
  -n N             operations per test (default 10000): the threads of put, get, update, int_add and
                   prefix draw them from one count until N are done; those of batch, ts_push and
                   ts_aggregate split them evenly
  -d SIZE          bytes of content per blob (default 100)
  -c THREADS       client threads; each opens, connects and uses its own handle, so the threads share
                   nothing and the figures are those of THREADS independent clients (default 1)
  --keys K         distinct keys per test, K >= THREADS (default N). Operation j of put, get, update
                   and int_add works on key j modulo K, whichever thread runs it; in the batch test
                   thread i works on the keys congruent to i modulo THREADS, in turn.
  -b BATCH         records per zlk_run_batch in the batch test (default 1000)
  --keep           leave the entries in the cluster (by default they are removed at the end)
  -h, --help       this text

Keys are "zlk-bench.PID.<kind>.<k>", so a run never meets the entries of another one. Entries that a
test reads or adds to (get, update, int_add) are written beforehand, outside the measurement, unless an
earlier test of the run wrote them. Latency is measured around each call on the calling thread.

Exit status: 0 when every operation succeeded, 1 when an operation failed or a handle couldn't
connect, 2 on a usage error.
)";

struct settings
{
    std::string uri;
    std::vector<std::string> tests;
    std::size_t operations = 10000;
    std::size_t size = 100;
    std::size_t threads = 1;
    std::size_t keys = 0;
    std::size_t batch = 1000;
    bool keep = false;
};

bool parse_count(std::string_view text, std::size_t & out, bool allow_zero)
{
    std::size_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc{} || end != text.data() + text.size() || (!allow_zero && value == 0))
    {
        return false;
    }
    out = value;
    return true;
}

bool known_test(std::string_view name)
{
    return name == "put" || name == "get" || name == "update" || name == "int_add" || name == "batch" ||
           name == "prefix" || name == "ts_push" || name == "ts_aggregate";
}

// 0 to go on, otherwise the exit status.
int parse_command_line(int argc, char ** argv, settings & s)
{
    std::string tests = "put,get,update,int_add,batch";
    bool keys_given = false;
    for (int i = 1; i < argc; ++i)
    {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help")
        {
            std::fputs(help_text, stdout);
            return -1;
        }
        if (arg == "--keep")
        {
            s.keep = true;
            continue;
        }
        if (i + 1 >= argc)
        {
            std::fprintf(stderr, "zlk-bench: %s needs a value (see --help)\n", argv[i]);
            return 2;
        }
        const std::string_view value = argv[++i];
        bool ok = true;
        if (arg == "--uri")
        {
            s.uri = value;
        }
        else if (arg == "-t")
        {
            tests = value;
        }
        else if (arg == "-n")
        {
            ok = parse_count(value, s.operations, false);
        }
        else if (arg == "-d")
        {
            ok = parse_count(value, s.size, true);
        }
        else if (arg == "-c")
        {
            ok = parse_count(value, s.threads, false) && s.threads <= 1024;
        }
        else if (arg == "--keys")
        {
            ok = parse_count(value, s.keys, false);
            keys_given = true;
        }
        else if (arg == "-b")
        {
            ok = parse_count(value, s.batch, false);
        }
        else
        {
            std::fprintf(stderr, "zlk-bench: unknown flag %s (see --help)\n", argv[i - 1]);
            return 2;
        }
        if (!ok)
        {
            std::fprintf(stderr, "zlk-bench: bad value for %s: %s\n", argv[i - 1], argv[i]);
            return 2;
        }
    }
    if (s.uri.empty())
    {
        std::fputs("zlk-bench: --uri is required (see --help)\n", stderr);
        return 2;
    }
    std::string_view rest = tests;
    while (!rest.empty())
    {
        const auto comma = rest.find(',');
        const std::string_view name = rest.substr(0, comma);
        if (!known_test(name))
        {
            std::fprintf(stderr, "zlk-bench: unknown test \"%.*s\" (see --help)\n",
                         static_cast<int>(name.size()), name.data());
            return 2;
        }
        s.tests.emplace_back(name);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
    }
    if (s.tests.empty())
    {
        std::fputs("zlk-bench: -t names no test\n", stderr);
        return 2;
    }
    if (!keys_given)
    {
        s.keys = s.operations;
    }
    if (s.keys < s.threads)
    {
        std::fputs("zlk-bench: --keys (or -n) must be at least the number of threads\n", stderr);
        return 2;
    }
    return 0;
}

enum class kind
{
    blob,
    integer,
    batched
};

// One client thread: its handle, its keys and what it measured.
struct alignas(64) worker
{
    zlk_handle_t handle = nullptr;
    std::vector<std::string> blob_keys;
    std::vector<std::string> int_keys;
    std::vector<std::string> batch_keys;
    // The time series tests' table, its batch table and the rows it holds.
    std::string table;
    zlk_batch_table_t batch = nullptr;
    std::size_t rows = 0;
    std::vector<std::int64_t> latencies_ns;
    std::size_t errors = 0;
    zlk_error_t first_error = zlk_e_ok;

    const std::vector<std::string> & keys(kind k) const
    {
        return k == kind::blob ? blob_keys : k == kind::integer ? int_keys : batch_keys;
    }

    void count(zlk_error_t r)
    {
        if (ZLK_FAILURE(r))
        {
            if (errors++ == 0)
            {
                first_error = r;
            }
        }
    }
};

struct test_result
{
    std::size_t operations = 0;
    double seconds = 0;
    std::vector<std::int64_t> latencies_ns;
    std::size_t errors = 0;
    zlk_error_t first_error = zlk_e_ok;
};

class bench
{
public:
    explicit bench(const settings & s)
        : _s(s)
        , _content(s.size)
        , _workers(s.threads)
    {
        for (std::size_t i = 0; i < _content.size(); ++i)
        {
            _content[i] = static_cast<char>('a' + i % 26);
        }
        const auto pid = static_cast<unsigned>(::getpid());
        for (std::size_t k = 0; k < s.keys; ++k)
        {
            worker & w = _workers[k % s.threads];
            const std::string suffix = std::to_string(pid) + "." + std::to_string(k);
            w.blob_keys.push_back("zlk-bench." + suffix);
            w.int_keys.push_back("zlk-bench.int." + suffix);
            w.batch_keys.push_back("zlk-bench.batch." + suffix);
        }
        _blob_prefix = "zlk-bench." + std::to_string(pid) + ".";
        for (std::size_t i = 0; i < _workers.size(); ++i)
        {
            _workers[i].table = "zlk-bench.ts." + std::to_string(pid) + "." + std::to_string(i);
        }
    }

    ~bench()
    {
        for (worker & w : _workers)
        {
            if (w.batch)
            {
                zlk_ts_batch_table_release(w.handle, w.batch);
            }
            zlk_close(w.handle);
        }
    }

    bench(const bench &) = delete;
    bench & operator=(const bench &) = delete;

    bool connect()
    {
        bool ok = true;
        for (worker & w : _workers)
        {
            w.handle = zlk_open_tcp();
            const zlk_error_t r = w.handle ? zlk_connect(w.handle, _s.uri.c_str()) : zlk_e_no_memory_local;
            if (ZLK_FAILURE(r))
            {
                std::fprintf(stderr, "zlk-bench: cannot connect to %s: %s\n", _s.uri.c_str(), zlk_error(r));
                ok = false;
                break;
            }
        }
        return ok;
    }

    test_result run(const std::string & test)
    {
        if (test == "put")
        {
            const bool existing = _blobs_written;
            test_result r = measure(
                _s.operations,
                [this, existing](worker & w, std::size_t g)
                { return put_blob(w, key_of(kind::blob, g), existing || g >= _s.keys); },
                true);
            _blobs_written = true;
            return r;
        }
        if (test == "get")
        {
            fill(kind::blob);
            return measure(
                _s.operations,
                [this](worker & w, std::size_t g)
                {
                    const void * content = nullptr;
                    std::size_t length = 0;
                    const zlk_error_t r =
                        zlk_blob_get(w.handle, key_of(kind::blob, g).c_str(), &content, &length);
                    zlk_release(w.handle, content);
                    return r;
                },
                true);
        }
        if (test == "update")
        {
            fill(kind::blob);
            return measure(
                _s.operations,
                [this](worker & w, std::size_t g)
                {
                    return zlk_blob_update(w.handle, key_of(kind::blob, g).c_str(), _content.data(),
                                           _content.size(), zlk_never_expires);
                },
                true);
        }
        if (test == "int_add")
        {
            fill(kind::integer);
            return measure(
                _s.operations,
                [this](worker & w, std::size_t g)
                { return zlk_int_add(w.handle, key_of(kind::integer, g).c_str(), 1, nullptr); },
                true);
        }
        if (test == "prefix")
        {
            fill(kind::blob);
            return measure(
                _s.operations,
                [this](worker & w, std::size_t)
                {
                    const char ** aliases = nullptr;
                    std::size_t count = 0;
                    const zlk_error_t r =
                        zlk_prefix_get(w.handle, _blob_prefix.c_str(), 100, &aliases, &count);
                    zlk_release(w.handle, aliases);
                    return r;
                },
                true);
        }
        if (test == "ts_push")
        {
            return run_ts_push();
        }
        if (test == "ts_aggregate")
        {
            if (!_rows_pushed)
            {
                test_result unmeasured = run_ts_push();
                if (unmeasured.errors != 0)
                {
                    std::fprintf(stderr, "zlk-bench: pushing the rows to aggregate: %zu failures (%s)\n",
                                 unmeasured.errors, zlk_error(unmeasured.first_error));
                }
            }
            const std::size_t calls = std::max(_workers.size(), _s.operations / _s.batch);
            return measure(calls,
                           [](worker & w, std::size_t)
                           {
                               zlk_ts_double_aggregation a[3] = {};
                               const zlk_ts_aggregation_type types[3] = {
                                   zlk_agg_count, zlk_agg_arithmetic_mean, zlk_agg_max};
                               for (std::size_t k = 0; k < 3; ++k)
                               {
                                   a[k].type = types[k];
                                   a[k].range.begin = ts_row_time(0);
                                   a[k].range.end = ts_row_time(w.rows);
                               }
                               return zlk_ts_double_aggregate(w.handle, w.table.c_str(), "c0", a, 3);
                           });
        }
        return run_batches();
    }

    // Removes what the run wrote; failures here are reported, not counted.
    void clean_up()
    {
        run_threads(
            [this](worker & w)
            {
                for (kind k : {kind::blob, kind::integer, kind::batched})
                {
                    if (!written(k))
                    {
                        continue;
                    }
                    for (const std::string & key : w.keys(k))
                    {
                        const zlk_error_t r = zlk_remove(w.handle, key.c_str());
                        if (ZLK_FAILURE(r) && r != zlk_e_alias_not_found)
                        {
                            w.count(r);
                        }
                    }
                }
            });
        if (_tables_created)
        {
            run_threads(
                [](worker & w)
                {
                    const zlk_error_t r = zlk_remove(w.handle, w.table.c_str());
                    if (ZLK_FAILURE(r) && r != zlk_e_alias_not_found)
                    {
                        w.count(r);
                    }
                });
        }
        std::size_t failed = 0;
        for (worker & w : _workers)
        {
            failed += w.errors;
        }
        if (failed != 0)
        {
            std::fprintf(stderr, "zlk-bench: %zu entries could not be removed\n", failed);
        }
    }

private:
    bool & written(kind k)
    {
        return k == kind::blob ? _blobs_written : k == kind::integer ? _ints_written : _batch_written;
    }

    // The first visit of a key puts it, the next ones update it.
    zlk_error_t put_blob(worker & w, const std::string & key, bool update)
    {
        if (update)
        {
            return zlk_blob_update(w.handle, key.c_str(), _content.data(), _content.size(),
                                   zlk_never_expires);
        }
        return zlk_blob_put(w.handle, key.c_str(), _content.data(), _content.size(), zlk_never_expires);
    }

    // The key of operation g of a test whose threads share one count: key g modulo the keys, whichever
    // thread draws it (handles are interchangeable), so that a run of N >= K visits each key first
    // once.
    const std::string & key_of(kind k, std::size_t g) const
    {
        const std::size_t key = g % _s.keys;
        return _workers[key % _workers.size()].keys(k)[key / _workers.size()];
    }

    template <typename Body>
    void run_threads(Body body)
    {
        std::vector<std::thread> threads;
        threads.reserve(_workers.size());
        try
        {
            for (worker & w : _workers)
            {
                w.errors = 0;
                w.first_error = zlk_e_ok;
                threads.emplace_back([&w, &body] { body(w); });
            }
        }
        catch (...)
        {
            join(threads);
            throw;
        }
        join(threads);
    }

    static void join(std::vector<std::thread> & threads)
    {
        for (std::thread & t : threads)
        {
            t.join();
        }
    }

    // Thread i runs its share of `total` operations; op(w, j) is its j-th (with `shared`, j is the
    // operation's number among all). Latencies go to the thread's
    // own vector, reserved beforehand, so the measured loop neither locks nor allocates (beyond twice
    // its share, with `shared`).
    //
    // With `shared`, the threads draw operations from one count until `total` are done, as a load
    // generator keeps its connections busy until the requests run out: a thread the scheduler favours
    // does more, and the run doesn't end on a tail of the slowest threads alone. Otherwise each thread
    // does exactly its share (the batch and push tests number their calls per thread).
    template <typename Op>
    test_result measure(std::size_t total, Op op, bool shared = false)
    {
        const std::size_t n = _workers.size();
        std::atomic<std::ptrdiff_t> left{static_cast<std::ptrdiff_t>(total)};
        std::latch ready(static_cast<std::ptrdiff_t>(n + 1));
        std::latch go(1);
        std::vector<std::thread> threads;
        threads.reserve(n);
        // Out of threads or memory: let those already started run, then give up.
        try
        {
            for (std::size_t i = 0; i < n; ++i)
            {
                worker & w = _workers[i];
                const std::size_t share = total / n + (i < total % n ? 1 : 0);
                w.latencies_ns.clear();
                w.latencies_ns.reserve(shared ? 2 * share + 64 : share);
                w.errors = 0;
                w.first_error = zlk_e_ok;
                threads.emplace_back(
                    [&w, &op, &ready, &go, &left, shared, share, total]
                    {
                        ready.count_down();
                        go.wait();
                        for (std::size_t j = 0;; ++j)
                        {
                            // With a shared count, the operation's number among all the threads'.
                            std::size_t number = j;
                            if (shared)
                            {
                                const std::ptrdiff_t before = left.fetch_sub(1, std::memory_order_relaxed);
                                if (before <= 0)
                                {
                                    break;
                                }
                                number = total - static_cast<std::size_t>(before);
                            }
                            else if (j >= share)
                            {
                                break;
                            }
                            const auto start = clock_type::now();
                            const zlk_error_t r = op(w, number);
                            const auto stop = clock_type::now();
                            w.latencies_ns.push_back(
                                std::chrono::duration_cast<std::chrono::nanoseconds>(stop - start).count());
                            w.count(r);
                        }
                    });
            }
        }
        catch (...)
        {
            go.count_down();
            join(threads);
            throw;
        }
        ready.arrive_and_wait();
        const auto start = clock_type::now();
        go.count_down();
        for (std::thread & t : threads)
        {
            t.join();
        }
        const auto stop = clock_type::now();

        test_result result;
        result.operations = total;
        result.seconds = std::chrono::duration<double>(stop - start).count();
        for (worker & w : _workers)
        {
            result.latencies_ns.insert(result.latencies_ns.end(), w.latencies_ns.begin(),
                                       w.latencies_ns.end());
            if (w.errors != 0 && result.errors == 0)
            {
                result.first_error = w.first_error;
            }
            result.errors += w.errors;
        }
        return result;
    }

    // Each thread runs ceil(share / BATCH) batches of puts over its batch keys; a latency is a batch.
    test_result run_batches()
    {
        const std::size_t n = _workers.size();
        const std::size_t batch = _s.batch;
        std::vector<std::size_t> batches(n);
        std::vector<std::vector<zlk_operation_t>> records(n);
        std::size_t total_batches = 0;
        for (std::size_t i = 0; i < n; ++i)
        {
            const std::size_t share = _s.operations / n + (i < _s.operations % n ? 1 : 0);
            batches[i] = (share + batch - 1) / batch;
            total_batches = std::max(total_batches, batches[i]);
            records[i].resize(std::min(batch, std::max<std::size_t>(share, 1)));
        }
        const bool existing = _batch_written;
        std::vector<std::size_t> next(n, 0);
        test_result result = measure(total_batches * n,
                                     [&](worker & w, std::size_t j) -> zlk_error_t
                                     {
                                         const auto i = static_cast<std::size_t>(&w - _workers.data());
                                         if (j >= batches[i])
                                         {
                                             return zlk_e_ok;
                                         }
                                         const std::size_t share =
                                             _s.operations / n + (i < _s.operations % n ? 1 : 0);
                                         const std::size_t count = std::min(batch, share - j * batch);
                                         zlk_operation_t * ops = records[i].data();
                                         zlk_init_operations(ops, count);
                                         for (std::size_t r = 0; r < count; ++r)
                                         {
                                             const std::size_t k = next[i]++;
                                             const bool update = existing || k >= w.batch_keys.size();
                                             ops[r].type = update ? zlk_op_blob_update : zlk_op_blob_put;
                                             ops[r].alias = w.batch_keys[k % w.batch_keys.size()].c_str();
                                             ops[r].fields.blob_put.content = _content.data();
                                             ops[r].fields.blob_put.content_length = _content.size();
                                             ops[r].fields.blob_put.expiry_time = zlk_never_expires;
                                         }
                                         zlk_run_batch(w.handle, ops, count);
                                         zlk_error_t failure = zlk_e_ok;
                                         for (std::size_t r = 0; r < count; ++r)
                                         {
                                             if (ZLK_FAILURE(ops[r].error))
                                             {
                                                 // All but the last failure of the batch are counted here,
                                                 // the last by the caller.
                                                 if (failure != zlk_e_ok)
                                                 {
                                                     w.count(failure);
                                                 }
                                                 failure = ops[r].error;
                                             }
                                         }
                                         return failure;
                                     });
        // measure() counted one latency per batch slot; drop the empty slots of threads with fewer batches.
        result.latencies_ns.clear();
        for (std::size_t i = 0; i < n; ++i)
        {
            const auto & l = _workers[i].latencies_ns;
            result.latencies_ns.insert(result.latencies_ns.end(), l.begin(),
                                       l.begin() + static_cast<std::ptrdiff_t>(batches[i]));
        }
        result.operations = _s.operations;
        _batch_written = true;
        return result;
    }

    // Row r of a thread's table: a millisecond after row r - 1, from a fixed day.
    static zlk_timespec_t ts_row_time(std::size_t r)
    {
        constexpr std::int64_t day = 1795305600;
        return zlk_timespec_t{day + static_cast<std::int64_t>(r / 1000),
                              static_cast<std::int64_t>(r % 1000) * 1000000};
    }

    // Creates each thread's table (one-hour shards, double columns c0..c3) and its batch table.
    bool create_tables()
    {
        if (_tables_created)
        {
            return true;
        }
        run_threads(
            [](worker & w)
            {
                static const char * names[4] = {"c0", "c1", "c2", "c3"};
                zlk_ts_column_info columns[4];
                zlk_ts_batch_column_info batch_columns[4];
                for (std::size_t c = 0; c < 4; ++c)
                {
                    columns[c] = zlk_ts_column_info{names[c], zlk_ts_column_double};
                    batch_columns[c] = zlk_ts_batch_column_info{w.table.c_str(), names[c], 0};
                }
                zlk_error_t r = zlk_ts_create(w.handle, w.table.c_str(), 3600 * 1000, columns, 4);
                if (ZLK_SUCCESS(r))
                {
                    r = zlk_ts_batch_table_init(w.handle, batch_columns, 4, &w.batch);
                }
                w.count(r);
            });
        _tables_created = true;
        for (worker & w : _workers)
        {
            if (w.errors != 0)
            {
                std::fprintf(stderr, "zlk-bench: creating the tables: %s\n", zlk_error(w.first_error));
                return false;
            }
        }
        return true;
    }

    // Each thread stages BATCH rows and pushes them, ceil(share / BATCH) times; a latency is a push.
    test_result run_ts_push()
    {
        if (!create_tables())
        {
            test_result failed;
            failed.errors = 1;
            failed.first_error = zlk_e_invalid_argument;
            return failed;
        }
        const std::size_t n = _workers.size();
        const std::size_t batch = _s.batch;
        std::vector<std::size_t> pushes(n);
        std::size_t most = 0;
        for (std::size_t i = 0; i < n; ++i)
        {
            const std::size_t share = _s.operations / n + (i < _s.operations % n ? 1 : 0);
            pushes[i] = (share + batch - 1) / batch;
            most = std::max(most, pushes[i]);
        }
        test_result result =
            measure(most * n,
                    [&](worker & w, std::size_t j) -> zlk_error_t
                    {
                        const auto i = static_cast<std::size_t>(&w - _workers.data());
                        if (j >= pushes[i])
                        {
                            return zlk_e_ok;
                        }
                        const std::size_t share = _s.operations / n + (i < _s.operations % n ? 1 : 0);
                        const std::size_t count = std::min(batch, share - j * batch);
                        for (std::size_t r = 0; r < count; ++r)
                        {
                            const std::size_t row = w.rows + r;
                            const zlk_timespec_t t = ts_row_time(row);
                            zlk_ts_batch_start_row(w.batch, &t);
                            for (std::size_t c = 0; c < 4; ++c)
                            {
                                zlk_ts_batch_row_set_double(w.batch, c, static_cast<double>(row % 1000 + c));
                            }
                        }
                        const zlk_error_t r = zlk_ts_batch_push(w.batch);
                        if (ZLK_SUCCESS(r))
                        {
                            w.rows += count;
                        }
                        return r;
                    });
        result.latencies_ns.clear();
        for (std::size_t i = 0; i < n; ++i)
        {
            const auto & l = _workers[i].latencies_ns;
            result.latencies_ns.insert(result.latencies_ns.end(), l.begin(),
                                       l.begin() + static_cast<std::ptrdiff_t>(pushes[i]));
        }
        result.operations = _s.operations;
        _rows_pushed = true;
        return result;
    }

    // Writes every key of the kind, unmeasured, when no earlier test did.
    void fill(kind k)
    {
        if (written(k))
        {
            return;
        }
        run_threads(
            [this, k](worker & w)
            {
                const auto & keys = w.keys(k);
                std::vector<zlk_operation_t> ops(std::min(_s.batch, keys.size()));
                for (std::size_t first = 0; first < keys.size(); first += ops.size())
                {
                    const std::size_t count = std::min(ops.size(), keys.size() - first);
                    zlk_init_operations(ops.data(), count);
                    for (std::size_t r = 0; r < count; ++r)
                    {
                        ops[r].alias = keys[first + r].c_str();
                        if (k == kind::integer)
                        {
                            ops[r].type = zlk_op_int_update;
                            ops[r].fields.int_update.value = 0;
                            ops[r].fields.int_update.expiry_time = zlk_never_expires;
                        }
                        else
                        {
                            ops[r].type = zlk_op_blob_update;
                            ops[r].fields.blob_update.content = _content.data();
                            ops[r].fields.blob_update.content_length = _content.size();
                            ops[r].fields.blob_update.expiry_time = zlk_never_expires;
                        }
                    }
                    zlk_run_batch(w.handle, ops.data(), count);
                    for (std::size_t r = 0; r < count; ++r)
                    {
                        w.count(ops[r].error);
                    }
                }
            });
        for (worker & w : _workers)
        {
            if (w.errors != 0)
            {
                std::fprintf(stderr, "zlk-bench: preparing the keys: %zu failures (%s)\n", w.errors,
                             zlk_error(w.first_error));
            }
        }
        written(k) = true;
    }

    const settings & _s;
    std::vector<char> _content;
    std::vector<worker> _workers;
    bool _blobs_written = false;
    bool _ints_written = false;
    bool _batch_written = false;
    std::string _blob_prefix;
    bool _tables_created = false;
    bool _rows_pushed = false;
};

double percentile_us(const std::vector<std::int64_t> & sorted, double p)
{
    if (sorted.empty())
    {
        return 0;
    }
    // Nearest rank.
    auto rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
    rank = std::clamp<std::size_t>(rank, 1, sorted.size());
    return static_cast<double>(sorted[rank - 1]) / 1000.0;
}

void print(const std::string & test, test_result & r)
{
    std::sort(r.latencies_ns.begin(), r.latencies_ns.end());
    const double rate = r.seconds > 0 ? static_cast<double>(r.operations) / r.seconds : 0;
    std::printf("%-8s %9zu ops %11.0f ops/s   p50 %9.1f us   p99 %9.1f us   p99.9 %9.1f us   errors %zu",
                test.c_str(), r.operations, rate, percentile_us(r.latencies_ns, 50),
                percentile_us(r.latencies_ns, 99), percentile_us(r.latencies_ns, 99.9), r.errors);
    if (r.errors != 0)
    {
        std::printf(" (first: %s)", zlk_error(r.first_error));
    }
    std::printf("\n");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char ** argv)
{
    settings s;
    const int parsed = parse_command_line(argc, argv, s);
    if (parsed != 0)
    {
        return parsed < 0 ? 0 : parsed;
    }
    try
    {
        bench b(s);
        if (!b.connect())
        {
            return 1;
        }
        std::printf("zlk-bench %s: %zu ops per test, %zu bytes, %zu threads (one handle each), %zu keys\n",
                    s.uri.c_str(), s.operations, s.size, s.threads, s.keys);
        std::size_t errors = 0;
        for (const std::string & test : s.tests)
        {
            test_result r = b.run(test);
            print(test, r);
            errors += r.errors;
        }
        if (!s.keep)
        {
            b.clean_up();
        }
        return errors == 0 ? 0 : 1;
    }
    catch (const std::exception & e)
    {
        std::fprintf(stderr, "zlk-bench: %s\n", e.what());
        return 1;
    }
}
