#include "timeseries/column_requests.hpp"

#include <algorithm>

#include "base/alias_hash.hpp"
#include "base/make_error.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/ts_messages.hpp"

namespace zlk::timeseries
{

namespace
{

// What a column insert or erase asks of the node serving a bucket.
constexpr std::uint16_t access_bucket_write = 0x30;

// Most buckets one call reads or erases: beyond it a range is surely a mistake (a year at a shard size
// of one millisecond), and the requests alone would not fit in memory.
constexpr std::uint64_t max_buckets_per_call = 1u << 20;

struct outgoing
{
    chord::ring_id key;
    protocol::operation_body body;
};

template <typename Policy>
zlk_error_t send_per_bucket(chord::cluster & c, const std::vector<outgoing> & requests, std::uint16_t access,
                            Policy & policy)
{
    if (requests.empty())
    {
        return zlk_e_ok;
    }
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    for (const outgoing & r : requests)
    {
        if (r.body.error)
        {
            return make_error_from_code(r.body.error, local_origin);
        }
    }
    if (requests.size() == 1)
    {
        chord::owner_request request;
        request.key = requests[0].key;
        request.required_access = access;
        request.has_content = chord::detail::policy_has_content<Policy>();
        auto body = [&] { return requests[0].body; };
        chord::owner_reply reply;
        const zlk_error_t r = chord::request_owner(c, request, body, reply);
        if (ZLK_FAILURE(r))
        {
            return r;
        }
        if (!reply.reply())
        {
            return zlk_e_invalid_reply;
        }
        client::request_record record;
        record.slot = 0;
        if (const boost::system::error_code ec = policy.on_reply(record, *reply.reply()))
        {
            return make_error_from_code(ec, remote_origin);
        }
        return zlk_e_ok;
    }
    std::vector<client::node_group> groups;
    for (std::size_t i = 0; i < requests.size(); ++i)
    {
        chord::node_info owner;
        if (c.map().find_owner(requests[i].key, 0, false, owner) || owner.is_unset())
        {
            return zlk_e_unstable_cluster;
        }
        auto at = std::find_if(groups.begin(), groups.end(),
                               [&](const client::node_group & g) { return g.node.id == owner.id; });
        if (at == groups.end())
        {
            groups.push_back(client::node_group{owner, {}});
            at = groups.end() - 1;
        }
        client::request_record record;
        record.request = chord::make_carrier(requests[i].key, i, access, requests[i].body);
        record.slot = i;
        at->records.push_back(std::move(record));
    }
    return chord::run_groups(c, groups, policy);
}

// Keeps a copy of each reply's content in its bucket's slot, decoded once all have come; runs on the
// event-loop thread and writes only its own slot.
struct bucket_content_policy
{
    bucket_replies * out;

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply)
    {
        if (reply.result.error)
        {
            return reply.result.error;
        }
        if (record.slot >= out->contents.size())
        {
            return client::group_size_error(record.slot, out->contents.size());
        }
        const auto content = reply.result.content_view();
        out->contents[record.slot].assign(content.begin(), content.end());
        return {};
    }
};

struct ts_get_timestamps_batch_policy : bucket_content_policy
{
};

// One per column type, so that a read names what it expects.
template <kernel::column_type Type>
struct ts_get_ranges_batch_policy : bucket_content_policy
{
};

template <kernel::column_type Type>
zlk_error_t send_reads(chord::cluster & c, const std::vector<outgoing> & requests, bucket_replies & out)
{
    ts_get_ranges_batch_policy<Type> policy{{&out}};
    return send_per_bucket(c, requests, 0, policy);
}

struct ts_erase_range_batch_policy
{
    static constexpr bool has_content = false;
    std::vector<std::uint64_t> * erased;

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply)
    {
        if (reply.result.error)
        {
            return reply.result.error;
        }
        if (record.slot >= erased->size())
        {
            return client::group_size_error(record.slot, erased->size());
        }
        (*erased)[record.slot] = reply.result.value;
        return {};
    }
};

struct insert_policy
{
    static constexpr bool has_content = false;

    boost::system::error_code on_reply(const client::request_record &,
                                       const chord::chord_carrier_reply & reply)
    {
        return reply.result.error;
    }
};

// The bucket's key text and its id, into `key` (reused).
chord::ring_id bucket_id(const column_target & target, std::int64_t start, std::string & key)
{
    bucket_key_into(table_id(target.alias), start, key);
    return chord::alias_hash(key);
}

} // namespace

zlk_error_t insert_buckets(chord::cluster & c, const column_target & target,
                           std::vector<staged_bucket> & buckets)
{
    std::vector<outgoing> requests;
    requests.reserve(buckets.size());
    std::string key;
    for (const staged_bucket & b : buckets)
    {
        outgoing o;
        o.key = bucket_id(target, b.start, key);
        column_insert_fields f;
        f.alias = target.alias;
        f.bucket_key = key;
        f.column = target.column;
        f.index = target.info.index;
        f.shard_size = target.info.shard_size;
        f.shard_start = b.start;
        f.offsets = b.offsets;
        f.fixed = b.fixed;
        f.bytes = b.bytes;
        o.body = build_column_insert(target.info.type, f);
        requests.push_back(std::move(o));
    }
    insert_policy policy;
    return send_per_bucket(c, requests, access_bucket_write, policy);
}

zlk_error_t split_ranges(std::span<const zlk_ts_range_t> ranges, std::int64_t shard_size,
                         std::vector<bucket_ranges> & out)
{
    out.clear();
    std::uint64_t total = 0;
    for (const zlk_ts_range_t & r : ranges)
    {
        total += bucket_count_of(timespec(r.begin), timespec(r.end), shard_size);
        if (total > max_buckets_per_call)
        {
            return zlk_e_invalid_argument;
        }
    }
    // Bucket start to its place in `out`.
    boost::unordered_flat_map<std::int64_t, std::size_t> place;
    place.reserve(static_cast<std::size_t>(total));
    for (const zlk_ts_range_t & r : ranges)
    {
        for (const std::int64_t start : buckets_of(timespec(r.begin), timespec(r.end), shard_size))
        {
            const auto [it, added] = place.try_emplace(start, out.size());
            if (added)
            {
                out.emplace_back().start = start;
            }
            out[it->second].ranges.push_back(r);
        }
    }
    return zlk_e_ok;
}

zlk_error_t read_ranges(chord::cluster & c, const column_target & target,
                        const std::vector<bucket_ranges> & buckets, bucket_replies & out)
{
    out.starts.clear();
    out.contents.assign(buckets.size(), {});
    std::vector<outgoing> requests;
    requests.reserve(buckets.size());
    std::string key;
    const wire_column column{target.info.index, target.info.type};
    for (const bucket_ranges & b : buckets)
    {
        out.starts.push_back(b.start);
        outgoing o;
        get_ranges_fields f;
        f.bucket = o.key = bucket_id(target, b.start, key);
        f.shard_size = target.info.shard_size;
        f.shard_start = b.start;
        f.ranges = b.ranges;
        f.columns = std::span<const wire_column>(&column, 1);
        o.body = build_get_ranges(f);
        requests.push_back(std::move(o));
    }
    switch (target.info.type)
    {
    case kernel::column_type::double_:
        return send_reads<kernel::column_type::double_>(c, requests, out);
    case kernel::column_type::blob:
        return send_reads<kernel::column_type::blob>(c, requests, out);
    case kernel::column_type::int64:
        return send_reads<kernel::column_type::int64>(c, requests, out);
    case kernel::column_type::timestamp:
        return send_reads<kernel::column_type::timestamp>(c, requests, out);
    case kernel::column_type::string:
        break;
    }
    return send_reads<kernel::column_type::string>(c, requests, out);
}

zlk_error_t read_timestamps(chord::cluster & c, const column_target & target,
                            const std::vector<bucket_ranges> & buckets, bucket_replies & out)
{
    out.starts.clear();
    out.contents.assign(buckets.size(), {});
    std::vector<outgoing> requests;
    requests.reserve(buckets.size());
    std::string key;
    for (const bucket_ranges & b : buckets)
    {
        out.starts.push_back(b.start);
        outgoing o;
        get_timestamps_fields f;
        f.bucket = o.key = bucket_id(target, b.start, key);
        f.shard_start = b.start;
        f.index = target.info.index;
        f.ranges = b.ranges;
        f.shard_size = target.info.shard_size;
        f.column = {target.info.index, target.info.type};
        o.body = build_get_timestamps(f);
        requests.push_back(std::move(o));
    }
    ts_get_timestamps_batch_policy policy{{&out}};
    return send_per_bucket(c, requests, 0, policy);
}

zlk_error_t erase_ranges(chord::cluster & c, const column_target & target,
                         const std::vector<bucket_ranges> & buckets, bool every_column,
                         std::uint64_t & erased)
{
    erased = 0;
    std::vector<outgoing> requests;
    requests.reserve(buckets.size());
    std::string key;
    for (const bucket_ranges & b : buckets)
    {
        outgoing o;
        erase_ranges_fields f;
        f.alias = target.alias;
        f.bucket = o.key = bucket_id(target, b.start, key);
        f.bucket_key = key;
        f.index = target.info.index;
        f.ranges = b.ranges;
        f.flag = every_column ? erase_every_column : erase_one_column;
        o.body = build_erase_ranges(f);
        requests.push_back(std::move(o));
    }
    std::vector<std::uint64_t> counts(requests.size(), 0);
    ts_erase_range_batch_policy policy{&counts};
    const zlk_error_t r = send_per_bucket(c, requests, access_bucket_write, policy);
    for (const std::uint64_t n : counts)
    {
        erased += n;
    }
    return r;
}

} // namespace zlk::timeseries
