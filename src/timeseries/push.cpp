#include "timeseries/push.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

#include "base/alias_hash.hpp"
#include "base/api_exception.hpp"
#include "base/make_error.hpp"
#include "entries/batch.hpp"
#include "log/logger.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/shard_write.hpp"

namespace zlk::timeseries
{

namespace
{

using boost::system::error_code;
using wide = __int128;

constexpr wide ns_per_ms = 1000000;
constexpr wide ns_per_s = 1000000000;

// A chunk in a send: the shards map's slot, and the chunk's position in the slot's vector. Slots don't
// move while a push runs (nothing is inserted into the maps).
struct shard_send_info
{
    chunk_list * slot = nullptr;
    std::int64_t shard_start = 0;
    std::size_t position = 0;

    shard_chunk & chunk() const noexcept { return *(*slot)[position]; }
};

struct send_group
{
    std::size_t writer = 0;
    std::vector<shard_send_info> chunks;
};

// How each request of a send ended.
struct request_outcome
{
    error_code error;
    bool answered = false;

    bool failed() const noexcept { return !answered || static_cast<bool>(error); }
};

// Reads the status of each shard write into its record; the replies carry nothing else.
class outcome_reader
{
public:
    static constexpr bool has_content = false;

    explicit outcome_reader(std::vector<request_outcome> & outcomes) noexcept
        : _outcomes(outcomes)
    {
    }

    error_code on_reply(const client::request_record & record, const chord::chord_carrier_reply & reply)
    {
        if (record.slot < _outcomes.size())
        {
            _outcomes[record.slot].answered = true;
            _outcomes[record.slot].error = reply.result.error;
        }
        return reply.result.error;
    }

private:
    std::vector<request_outcome> & _outcomes;
};

// The synchronous modes: all failed leaves everything; some failed empties the chunks written, so
// that a later push sends only the others.
struct remove_succeeded_batch_policy : outcome_reader
{
    using outcome_reader::outcome_reader;
};

// The asynchronous mode: the failed requests, split in two halves for the next rounds.
struct split_batch_policy : outcome_reader
{
    using outcome_reader::outcome_reader;
};

wide to_ns(const zlk_timespec_t & t) noexcept
{
    return static_cast<wide>(t.tv_sec) * ns_per_s + t.tv_nsec;
}

zlk_timespec_t from_ns(wide ns) noexcept
{
    wide s = ns / ns_per_s;
    wide n = ns % ns_per_s;
    if (n < 0)
    {
        n += ns_per_s;
        --s;
    }
    return zlk_timespec_t{static_cast<std::int64_t>(s), static_cast<std::int64_t>(n)};
}

timespec ms_to_timespec(std::int64_t ms) noexcept
{
    const zlk_timespec_t t = from_ns(static_cast<wide>(ms) * ns_per_ms);
    return timespec{t.tv_sec, t.tv_nsec};
}

std::span<const std::int64_t> first_offsets(const shard_chunk & chunk) noexcept
{
    if (chunk.columns.empty())
    {
        return {};
    }
    return chunk.offsets_of(chunk.columns.front());
}

// Every row of every column must lie in one of the ranges.
void check_rows_covered(const table_writer & w, std::span<const zlk_ts_range_t> ranges)
{
    for (const auto & [start, chunks] : w.shards())
    {
        const wide base = static_cast<wide>(start) * ns_per_ms;
        for (const auto & chunk : chunks)
        {
            for (const column_chunk & col : chunk->columns)
            {
                for (const std::int64_t o : chunk->offsets_of(col))
                {
                    const wide t = base + o;
                    const bool covered = std::any_of(ranges.begin(), ranges.end(),
                                                     [t](const zlk_ts_range_t & r)
                                                     { return to_ns(r.begin) <= t && t < to_ns(r.end); });
                    if (!covered)
                    {
                        const zlk_timespec_t at = from_ns(o);
                        throw api_exception(zlk_e_invalid_argument,
                                            "No given range covers the row with timestamp {}",
                                            time_text(timespec{at.tv_sec, at.tv_nsec}));
                    }
                }
            }
        }
    }
}

// The part of the ranges inside the chunk's window: from the shard's start (the chunk's lowest row when
// it isn't the shard's first), to the next chunk's lowest row or the shard's end.
std::vector<zlk_ts_range_t> clip_ranges(const chunk_list & chunks, std::size_t position,
                                        std::int64_t shard_start, std::uint64_t shard_size,
                                        std::span<const zlk_ts_range_t> ranges)
{
    const wide base = static_cast<wide>(shard_start) * ns_per_ms;
    const wide shard_end = base + static_cast<wide>(shard_size) * ns_per_ms;
    const auto lowest = [&](const shard_chunk & c) -> std::optional<wide>
    {
        const std::span<const std::int64_t> o = first_offsets(c);
        if (o.empty())
        {
            return std::nullopt;
        }
        return base + o.front();
    };
    wide lo = base;
    wide hi = shard_end;
    const std::optional<wide> own = lowest(*chunks[position]);
    if (chunks.size() > 1 && own)
    {
        bool first = true;
        for (std::size_t i = 0; i < chunks.size(); ++i)
        {
            const std::optional<wide> other = lowest(*chunks[i]);
            if (i == position || !other)
            {
                continue;
            }
            if (*other < *own || (*other == *own && i < position))
            {
                first = false;
            }
            else if (*other < hi)
            {
                hi = *other;
            }
        }
        // Rows before the epoch lie before their bucket's start: the first chunk reaches down to them.
        lo = first ? std::min(base, *own) : *own;
    }
    else if (own)
    {
        lo = std::min(base, *own);
    }
    std::vector<zlk_ts_range_t> out;
    for (const zlk_ts_range_t & r : ranges)
    {
        const wide b = std::max(to_ns(r.begin), lo);
        const wide e = std::min(to_ns(r.end), hi);
        if (b < e)
        {
            out.push_back(zlk_ts_range_t{from_ns(b), from_ns(e)});
        }
    }
    return out;
}

bool is_try_again(const request_outcome & o) noexcept
{
    return o.answered && o.error == boost::system::errc::resource_unavailable_try_again;
}

class pusher
{
public:
    pusher(chord::cluster & c, batch_columns & columns, const push_settings & settings)
        : _cluster(c)
        , _columns(columns)
        , _settings(settings)
    {
    }

    zlk_error_t run();

private:
    protocol::operation message() const noexcept
    {
        switch (_settings.mode)
        {
        case push_mode::async:
            return protocol::operation::ts_batch_push_async;
        case push_mode::truncate:
            return protocol::operation::ts_batch_push_truncate;
        case push_mode::normal:
        case push_mode::fast:
            break;
        }
        return protocol::operation::ts_batch_push;
    }

    // Builds one request per chunk, one group per node, and sends. outcomes[i] answers chunks[i].
    template <typename Policy>
    zlk_error_t send(const send_group & g, std::vector<request_outcome> & outcomes);

    zlk_error_t send_removing_succeeded(const send_group & g);
    zlk_error_t run_async(std::vector<send_group> & groups);
    void empty_written(const send_group & g, const std::vector<request_outcome> & outcomes) noexcept;

    chord::cluster & _cluster;
    batch_columns & _columns;
    const push_settings & _settings;
    std::vector<chord::ring_id> _table_ids;
    // Truncate: each chunk's part of the ranges, worked out before anything is sent (a chunk written
    // and emptied mustn't change the windows of the others).
    boost::unordered_flat_map<const shard_chunk *, std::vector<zlk_ts_range_t>> _windows;
};

template <typename Policy>
zlk_error_t pusher::send(const send_group & g, std::vector<request_outcome> & outcomes)
{
    const table_writer & w = _columns.writers()[g.writer];
    const std::size_t n = g.chunks.size();
    outcomes.assign(n, request_outcome{});
    std::vector<std::string> keys(n);
    std::vector<client::node_group> groups;
    for (std::size_t i = 0; i < n; ++i)
    {
        const shard_send_info & info = g.chunks[i];
        const shard_chunk & chunk = info.chunk();
        bucket_key_into(_table_ids[g.writer], info.shard_start, keys[i]);
        shard_write m;
        m.op = message();
        m.table = w.table();
        m.bucket_key = keys[i];
        m.chunk = &chunk;
        m.shard_size = chunk.shard_size;
        m.shard_start = chunk.shard_start;
        m.fast = _settings.mode == push_mode::fast;
        if (_settings.mode == push_mode::truncate)
        {
            const auto found = _windows.find(&chunk);
            if (found != _windows.end())
            {
                m.ranges = found->second;
            }
        }
        const protocol::operation_body body = build_shard_write_body(m);
        if (body.error)
        {
            return make_error_from_code(body.error, local_origin);
        }
        const chord::ring_id key = chord::alias_hash(keys[i]);
        chord::node_info owner;
        if (_cluster.map().find_owner(key, 0, false, owner))
        {
            return zlk_e_unstable_cluster;
        }
        auto at = std::find_if(groups.begin(), groups.end(),
                               [&owner](const client::node_group & ng) { return ng.node.id == owner.id; });
        if (at == groups.end())
        {
            groups.push_back(client::node_group{owner, {}});
            at = groups.end() - 1;
        }
        client::request_record r;
        r.request = chord::make_carrier(key, i, 0, body);
        r.slot = i;
        at->records.push_back(std::move(r));
    }
    if (_settings.shuffle_state && groups.size() > 1)
    {
        client::shuffle_groups(groups, *_settings.shuffle_state);
    }
    Policy policy(outcomes);
    return chord::run_groups(_cluster, groups, policy);
}

void pusher::empty_written(const send_group & g, const std::vector<request_outcome> & outcomes) noexcept
{
    for (std::size_t i = 0; i < g.chunks.size(); ++i)
    {
        if (!outcomes[i].failed())
        {
            g.chunks[i].chunk().clear();
        }
    }
}

zlk_error_t pusher::send_removing_succeeded(const send_group & g)
{
    std::vector<request_outcome> outcomes;
    const zlk_error_t sent = send<remove_succeeded_batch_policy>(g, outcomes);
    std::size_t failed = 0;
    zlk_error_t last = zlk_e_ok;
    for (const request_outcome & o : outcomes)
    {
        if (o.failed())
        {
            ++failed;
            last = o.answered ? make_error_from_code(o.error, remote_origin) : sent;
        }
    }
    if (failed == 0)
    {
        // A later group may still fail: what this one wrote mustn't go again with the caller's retry.
        empty_written(g, outcomes);
        return ZLK_FAILURE(sent) ? sent : zlk_e_ok;
    }
    if (failed == outcomes.size())
    {
        return ZLK_FAILURE(sent) ? sent : last;
    }
    empty_written(g, outcomes);
    return ZLK_FAILURE(last) ? last : sent;
}

zlk_error_t pusher::run_async(std::vector<send_group> & groups)
{
    const async_delays d = draw_async_delays(
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    const std::int64_t timeout = _settings.async_timeout_ms;
    std::int64_t waited = 0;
    std::int64_t delay = d.min_delay;
    std::vector<send_group> stack(groups.rbegin(), groups.rend());
    std::vector<request_outcome> outcomes;
    while (!stack.empty())
    {
        send_group g = std::move(stack.back());
        stack.pop_back();
        const zlk_error_t sent = send<split_batch_policy>(g, outcomes);
        std::vector<shard_send_info> failed;
        const request_outcome * first_failure = nullptr;
        for (std::size_t i = 0; i < outcomes.size(); ++i)
        {
            if (outcomes[i].failed())
            {
                failed.push_back(g.chunks[i]);
                first_failure = first_failure ? first_failure : &outcomes[i];
            }
        }
        // What was written needn't go again, in this push or the caller's next one.
        empty_written(g, outcomes);
        if (!first_failure && ZLK_SUCCESS(sent))
        {
            delay = std::max(d.min_delay, delay * 80 / 100);
            continue;
        }
        const zlk_error_t status = first_failure && first_failure->answered
                                       ? make_error_from_code(first_failure->error, remote_origin)
                                       : (ZLK_FAILURE(sent) ? sent : zlk_e_internal_local);
        if (!first_failure || !is_try_again(*first_failure) || waited >= timeout)
        {
            return status;
        }
        const std::size_t half = failed.size() / 2;
        if (half == 0)
        {
            stack.push_back(send_group{g.writer, std::move(failed)});
        }
        else
        {
            send_group second{g.writer, {failed.begin() + static_cast<std::ptrdiff_t>(half), failed.end()}};
            send_group first{g.writer, {failed.begin(), failed.begin() + static_cast<std::ptrdiff_t>(half)}};
            stack.push_back(std::move(second));
            stack.push_back(std::move(first));
        }
        const std::chrono::milliseconds pause{std::min(delay, timeout - waited)};
        log::log(log::level::info, "waiting {} for resource to be available", pause);
        if (_settings.sleep)
        {
            _settings.sleep(pause);
        }
        else
        {
            // sleep_for counts nanoseconds: a pause beyond their range saturates.
            constexpr std::int64_t max_ms = std::numeric_limits<std::int64_t>::max() / 1000000;
            std::this_thread::sleep_for(pause.count() >= max_ms ? std::chrono::nanoseconds::max()
                                                                : std::chrono::nanoseconds(pause));
        }
        waited += pause.count();
        delay = std::min(d.max_delay, delay * 200 / 100);
    }
    return zlk_e_ok;
}

zlk_error_t pusher::run()
{
    std::vector<table_writer> & writers = _columns.writers();
    if (writers.empty())
    {
        return zlk_e_invalid_argument;
    }
    for (const table_writer & w : writers)
    {
        if (w.columns().empty())
        {
            return zlk_e_invalid_argument;
        }
    }
    const bool truncate = _settings.mode == push_mode::truncate;
    if (truncate)
    {
        // Every shard a range touches gets a chunk, empty if need be, so that its erasure is sent.
        for (table_writer & w : writers)
        {
            for (const zlk_ts_range_t & r : _settings.ranges)
            {
                for (const std::int64_t start :
                     buckets_of(timespec(r.begin), timespec(r.end), w.shard_size()))
                {
                    const zlk_error_t e = w.start_row(ms_to_timespec(start));
                    if (ZLK_FAILURE(e))
                    {
                        return e;
                    }
                }
            }
        }
    }
    std::size_t shard_total = 0;
    for (table_writer & w : writers)
    {
        w.finish(truncate);
        shard_total += w.shards().size();
    }
    if (truncate)
    {
        for (const table_writer & w : writers)
        {
            check_rows_covered(w, _settings.ranges);
        }
    }
    if (shard_total == 0)
    {
        return zlk_e_ok;
    }
    if (truncate)
    {
        for (table_writer & w : writers)
        {
            for (auto & [start, chunks] : w.shards())
            {
                for (std::size_t pos = 0; pos < chunks.size(); ++pos)
                {
                    _windows[chunks[pos].get()] =
                        clip_ranges(chunks, pos, start, chunks[pos]->shard_size, _settings.ranges);
                }
            }
        }
    }

    _table_ids.clear();
    for (const table_writer & w : writers)
    {
        _table_ids.push_back(table_id(w.table()));
    }
    const std::uint64_t budget = _settings.budget;
    std::vector<send_group> async_groups;
    const auto dispatch = [&](send_group & g, std::uint64_t accumulated) -> zlk_error_t
    {
        if (g.chunks.empty())
        {
            return zlk_e_ok;
        }
        log::log(log::level::debug, "sending {} shards of table {} for an approximate size of {}",
                 g.chunks.size(), writers[g.writer].table(), readable_size(accumulated));
        zlk_error_t e = zlk_e_ok;
        if (_settings.mode == push_mode::async)
        {
            async_groups.push_back(std::move(g));
        }
        else
        {
            e = send_removing_succeeded(g);
        }
        g = send_group{g.writer, {}};
        return e;
    };
    for (std::size_t wi = 0; wi < writers.size(); ++wi)
    {
        table_writer & w = writers[wi];
        send_group group{wi, {}};
        std::uint64_t accumulated = 0;
        for (auto & [start, chunks] : w.shards())
        {
            for (std::size_t pos = 0; pos < chunks.size(); ++pos)
            {
                std::uint64_t chunk_size = 0;
                for (const column_chunk & col : chunks[pos]->columns)
                {
                    chunk_size += col.name.size() + 80 + payload_estimate(col.payload);
                }
                const std::uint64_t cost = w.table().size() + chunk_size + 140;
                if (accumulated + cost > budget)
                {
                    if (const zlk_error_t e = dispatch(group, accumulated); ZLK_FAILURE(e))
                    {
                        return e;
                    }
                    accumulated = 0;
                }
                group.chunks.push_back(shard_send_info{&chunks, start, pos});
                if (cost >= budget)
                {
                    // Alone, and without resetting the running figure: it can only make the next
                    // group smaller.
                    if (const zlk_error_t e = dispatch(group, accumulated); ZLK_FAILURE(e))
                    {
                        return e;
                    }
                }
                else
                {
                    accumulated += cost;
                }
            }
        }
        if (const zlk_error_t e = dispatch(group, accumulated); ZLK_FAILURE(e))
        {
            return e;
        }
    }
    if (_settings.mode == push_mode::async)
    {
        if (const zlk_error_t e = run_async(async_groups); ZLK_FAILURE(e))
        {
            return e;
        }
    }
    _columns.reset();
    return zlk_e_ok;
}

} // namespace

zlk_error_t push(chord::cluster & c, batch_columns & columns, const push_settings & settings)
{
    pusher p(c, columns, settings);
    return p.run();
}

std::string readable_size(std::uint64_t bytes)
{
    static constexpr const char * units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
    {
        return fmt::format("{} B", bytes);
    }
    double v = static_cast<double>(bytes);
    std::size_t u = 0;
    while (v >= 1024 && u + 1 < std::size(units))
    {
        v /= 1024;
        ++u;
    }
    return fmt::format("{:.2f} {}", v, units[u]);
}

async_delays draw_async_delays(std::uint64_t seed) noexcept
{
    std::uint64_t s = seed;
    const auto draw = [&s]() -> std::int64_t
    {
        std::uint64_t r = 0;
        do
        {
            s = s * 214013 + 2531011;
            r = (s >> 16) & 1023;
        } while (r > 1000);
        return static_cast<std::int64_t>(r);
    };
    async_delays d;
    d.min_delay = 1000 + draw();
    d.max_delay = 30000 + draw();
    return d;
}

} // namespace zlk::timeseries
