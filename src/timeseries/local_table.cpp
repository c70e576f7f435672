#include "timeseries/local_table.hpp"

#include <limits>
#include <map>

#include "base/alias_hash.hpp"
#include "base/make_error.hpp"
#include "log/logger.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/bucket.hpp"

namespace zlk::timeseries
{

namespace
{

constexpr std::size_t no_row = std::numeric_limits<std::size_t>::max();

timespec absolute(std::int64_t start_ms, std::int64_t offset_ns) noexcept
{
    const __int128 ns = static_cast<__int128>(start_ms) * 1000000 + offset_ns;
    __int128 s = ns / 1000000000;
    __int128 n = ns % 1000000000;
    if (n < 0)
    {
        n += 1000000000;
        --s;
    }
    return timespec{static_cast<std::int64_t>(s), static_cast<std::int64_t>(n)};
}

// Keeps a copy of each bucket's reply: the rows are read from it until the next fetch.
class ts_table_get_ranges_batch_policy
{
public:
    explicit ts_table_get_ranges_batch_policy(std::vector<std::vector<std::uint8_t>> & replies) noexcept
        : _replies(replies)
    {
    }

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply)
    {
        if (record.slot >= _replies.size())
        {
            log::log(log::level::error, "client id out of bound for table_get_ranges: {}/{}", record.slot,
                     _replies.size());
            return make_error_code(serialization::error::inconsistent_result);
        }
        if (reply.result.error)
        {
            return reply.result.error;
        }
        const std::span<const std::uint8_t> content = reply.result.content_view();
        _replies[record.slot].assign(content.begin(), content.end());
        return {};
    }

private:
    std::vector<std::vector<std::uint8_t>> & _replies;
};

} // namespace

void fetched_rows::assign(std::vector<std::int64_t> starts, std::vector<std::vector<std::uint8_t>> replies,
                          std::vector<std::vector<column_rows>> columns)
{
    _starts = std::move(starts);
    _replies = std::move(replies);
    _columns = std::move(columns);
    _bucket = 0;
    const std::size_t n = _columns.empty() ? 0 : _columns.front().size();
    _next.assign(n, 0);
    _current.assign(n, no_row);
    _current_bytes.assign(n, {});
    _byte_cursors.assign(n, {});
    rewind_bytes();
    _has_row = false;
}

void fetched_rows::rewind_bytes() noexcept
{
    if (_bucket >= _columns.size())
    {
        return;
    }
    const std::vector<column_rows> & cols = _columns[_bucket];
    for (std::size_t c = 0; c < cols.size() && c < _byte_cursors.size(); ++c)
    {
        _byte_cursors[c] = serialization::cursor(cols[c].values);
    }
}

void fetched_rows::clear() noexcept
{
    _starts.clear();
    _replies.clear();
    _columns.clear();
    _next.clear();
    _current.clear();
    _byte_cursors.clear();
    _current_bytes.clear();
    _bucket = 0;
    _has_row = false;
}

bool fetched_rows::next(timespec & t) noexcept
{
    while (_bucket < _columns.size())
    {
        const std::vector<column_rows> & cols = _columns[_bucket];
        bool any = false;
        std::int64_t lowest = 0;
        for (std::size_t c = 0; c < cols.size() && c < _next.size(); ++c)
        {
            if (_next[c] < cols[c].rows)
            {
                const std::int64_t o = cols[c].offset(_next[c]);
                if (!any || o < lowest)
                {
                    lowest = o;
                    any = true;
                }
            }
        }
        if (!any)
        {
            ++_bucket;
            std::fill(_next.begin(), _next.end(), 0);
            rewind_bytes();
            continue;
        }
        for (std::size_t c = 0; c < _current.size(); ++c)
        {
            if (c < cols.size() && _next[c] < cols[c].rows && cols[c].offset(_next[c]) == lowest)
            {
                _current[c] = _next[c]++;
                if (kernel::holds_bytes(cols[c].type))
                {
                    _current_bytes[c] = next_bytes(_byte_cursors[c]);
                }
            }
            else
            {
                _current[c] = no_row;
            }
        }
        t = absolute(_starts[_bucket], lowest);
        _has_row = true;
        return true;
    }
    _has_row = false;
    return false;
}

const column_rows * fetched_rows::at(std::size_t column, std::size_t & row) const noexcept
{
    if (!_has_row || column >= _current.size() || _current[column] == no_row)
    {
        return nullptr;
    }
    row = _current[column];
    return &_columns[_bucket][column];
}

zlk_error_t local_table_init(chord::cluster & c, zlk_local_table & t,
                             std::span<const zlk_ts_column_info> columns)
{
    const zlk_error_t fetched = get_table(c, t.alias, t.schema);
    if (ZLK_FAILURE(fetched))
    {
        return fetched;
    }
    if (!t.schema)
    {
        return zlk_e_invalid_reply;
    }
    std::vector<column_entry> entries;
    std::vector<wire_column> chosen;
    for (const zlk_ts_column_info & info : columns)
    {
        const column_record * record = t.schema->find(info.name);
        if (!record)
        {
            return zlk_e_column_not_found;
        }
        const std::optional<kernel::column_type> asked =
            kernel::column_type_of(static_cast<std::uint32_t>(info.type));
        if (asked && *asked != record->type)
        {
            return zlk_e_incompatible_type;
        }
        column_entry e;
        e.table = t.alias;
        e.column = record->name;
        e.shard_size = t.schema->shard_size;
        e.type = record->type;
        e.index = record->index;
        entries.push_back(std::move(e));
        chosen.push_back(wire_column{record->index, record->type});
    }
    t.columns.add(entries);
    t.chosen = std::move(chosen);
    t.row.assign(t.chosen.size(), row_value{});
    return zlk_e_ok;
}

zlk_error_t local_table_append(zlk_local_table & t, const timespec & at)
{
    const zlk_error_t started = t.columns.start_row(at);
    if (ZLK_FAILURE(started))
    {
        return started;
    }
    zlk_error_t result = zlk_e_ok;
    for (std::size_t i = 0; i < t.row.size() && ZLK_SUCCESS(result); ++i)
    {
        result = std::visit(
            [&t, i](const auto & v) -> zlk_error_t
            {
                using value_type = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<value_type, double>)
                {
                    return t.columns.set_double(i, v);
                }
                else if constexpr (std::is_same_v<value_type, std::int64_t>)
                {
                    return t.columns.set_int64(i, v);
                }
                else if constexpr (std::is_same_v<value_type, timespec>)
                {
                    return t.columns.set_timestamp(i, v);
                }
                else if constexpr (std::is_same_v<value_type, byte_view>)
                {
                    return t.columns.set_bytes(i, v.data, v.size);
                }
                else
                {
                    return zlk_e_ok;
                }
            },
            t.row[i]);
    }
    std::fill(t.row.begin(), t.row.end(), row_value{});
    if (ZLK_SUCCESS(result))
    {
        ++t.appended;
    }
    return result;
}

zlk_error_t local_table_get_ranges(chord::cluster & c, zlk_local_table & t,
                                   std::span<const zlk_ts_range_t> ranges)
{
    t.fetched.clear();
    const std::int64_t shard_size = static_cast<std::int64_t>(t.schema->shard_size);
    std::map<std::int64_t, std::vector<zlk_ts_range_t>> buckets;
    for (const zlk_ts_range_t & r : ranges)
    {
        for (const std::int64_t start : buckets_of(timespec(r.begin), timespec(r.end), shard_size))
        {
            buckets[start].push_back(r);
        }
    }
    if (buckets.empty())
    {
        return zlk_e_ok;
    }
    const chord::ring_id table = table_id(t.alias);
    std::vector<std::int64_t> starts;
    std::vector<client::node_group> groups;
    std::string key;
    for (const auto & [start, in_bucket] : buckets)
    {
        bucket_key_into(table, start, key);
        const chord::ring_id id = chord::alias_hash(key);
        get_ranges_fields f;
        f.bucket = id;
        f.shard_size = t.schema->shard_size;
        f.shard_start = start;
        f.ranges = in_bucket;
        f.columns = t.chosen;
        const protocol::operation_body body = build_get_ranges(f);
        if (body.error)
        {
            return make_error_from_code(body.error, local_origin);
        }
        chord::node_info owner;
        if (c.map().find_owner(id, 0, false, owner))
        {
            return zlk_e_unstable_cluster;
        }
        auto at = std::find_if(groups.begin(), groups.end(),
                               [&owner](const client::node_group & g) { return g.node.id == owner.id; });
        if (at == groups.end())
        {
            groups.push_back(client::node_group{owner, {}});
            at = groups.end() - 1;
        }
        client::request_record r;
        r.request = chord::make_carrier(id, starts.size(), 0, body);
        r.slot = starts.size();
        at->records.push_back(std::move(r));
        starts.push_back(start);
    }
    std::vector<std::vector<std::uint8_t>> replies(starts.size());
    ts_table_get_ranges_batch_policy policy(replies);
    const zlk_error_t sent = chord::run_groups(c, groups, policy);
    if (ZLK_FAILURE(sent))
    {
        return sent;
    }
    std::vector<std::vector<column_rows>> columns(starts.size());
    for (std::size_t i = 0; i < replies.size(); ++i)
    {
        if (decode_rows_reply(replies[i], columns[i]) || columns[i].size() != t.chosen.size())
        {
            return zlk_e_invalid_reply;
        }
    }
    t.fetched.assign(std::move(starts), std::move(replies), std::move(columns));
    return zlk_e_ok;
}

} // namespace zlk::timeseries
