#include "timeseries/aggregate_requests.hpp"

#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <string>

#include "base/alias_hash.hpp"
#include "base/error_categories.hpp"
#include "base/make_error.hpp"
#include "timeseries/codec/bucket.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
namespace ser = serialization;

namespace
{

error_code invalid_reply() noexcept
{
    return make_error_code(chord::error::unexpected_reply);
}

} // namespace

error_code plan_bucket_aggregates(const chord::ring_id & table, std::int64_t shard_size,
                                  std::span<const aggregate_sub_request> aggregations,
                                  std::vector<bucket_aggregates> & out)
{
    out.clear();
    std::uint64_t total = 0;
    for (const aggregate_sub_request & a : aggregations)
    {
        total += bucket_count_of(timespec(a.range.begin), timespec(a.range.end), shard_size);
        if (total > max_aggregate_buckets)
        {
            return ser::make_error_code(ser::error::too_large);
        }
    }

    boost::unordered_flat_map<std::int64_t, std::size_t> by_start;
    for (std::size_t i = 0; i < aggregations.size(); ++i)
    {
        const zlk_ts_range_t & r = aggregations[i].range;
        for (const std::int64_t start : buckets_of(timespec(r.begin), timespec(r.end), shard_size))
        {
            const auto [at, inserted] = by_start.try_emplace(start, out.size());
            if (inserted)
            {
                out.push_back(bucket_aggregates{start, {}, {}});
            }
            out[at->second].aggregations.push_back(i);
        }
    }
    std::sort(out.begin(), out.end(),
              [](const bucket_aggregates & a, const bucket_aggregates & b)
              { return a.start_ms < b.start_ms; });
    std::string key;
    for (bucket_aggregates & b : out)
    {
        bucket_key_into(table, b.start_ms, key);
        b.key = chord::alias_hash(key);
    }
    return {};
}

error_code ts_aggregate_batch_policy::on_reply(const client::request_record & record,
                                               const chord::chord_carrier_reply & reply)
{
    if (reply.result.error)
    {
        return reply.result.error;
    }
    if (record.slot >= partials->size())
    {
        return client::group_size_error(record.slot, partials->size());
    }
    return decode_aggregate_reply(reply.result.content_view(), column, (*partials)[record.slot]);
}

error_code fold_partials(std::span<const aggregate_sub_request> aggregations,
                         std::span<const bucket_aggregates> buckets,
                         std::vector<std::vector<aggregation_state>> & partials,
                         std::vector<aggregation_state> & out)
{
    out.assign(aggregations.size(), aggregation_state{});
    for (std::size_t b = 0; b < buckets.size() && b < partials.size(); ++b)
    {
        const std::vector<std::size_t> & carried = buckets[b].aggregations;
        for (std::size_t j = 0; j < carried.size() && j < partials[b].size(); ++j)
        {
            const std::size_t i = carried[j];
            const auto f = static_cast<aggregation_type>(aggregations[i].type);
            aggregation_state & partial = partials[b][j];
            // A node that answers with another kind of state for the function answered nonsense.
            if (!std::holds_alternative<no_data_state>(partial) && kind_of(partial) != kind_of(f))
            {
                return invalid_reply();
            }
            if (error_code ec = combine(f, out[i], std::move(partial)))
            {
                return invalid_reply();
            }
        }
    }
    return {};
}

zlk_error_t run_aggregates(chord::cluster & c, const aggregate_target & target,
                           std::span<const aggregate_sub_request> aggregations,
                           std::vector<aggregation_state> & out)
{
    out.assign(aggregations.size(), aggregation_state{});
    std::vector<bucket_aggregates> buckets;
    if (plan_bucket_aggregates(target.table, target.shard_size, aggregations, buckets))
    {
        return zlk_e_invalid_argument;
    }

    const protocol::operation op = aggregate_operation(target.type);
    std::vector<client::node_group> groups;
    std::vector<aggregate_sub_request> subs;
    std::vector<std::vector<aggregation_state>> partials(buckets.size());
    for (std::size_t b = 0; b < buckets.size(); ++b)
    {
        const bucket_aggregates & bucket = buckets[b];
        subs.clear();
        for (const std::size_t i : bucket.aggregations)
        {
            subs.push_back(aggregations[i]);
        }
        partials[b].resize(subs.size());
        const protocol::operation_body body = build_aggregate(
            op, bucket.key, target.column_index, static_cast<std::uint64_t>(target.shard_size), subs);
        if (body.error)
        {
            return make_error_from_code(body.error, local_origin);
        }
        chord::node_info owner;
        if (chord::find_owner(c, bucket.key, 0, false, owner) || owner.is_unset())
        {
            return zlk_e_unstable_cluster;
        }
        // Sorted by node id, found by binary search.
        auto at = std::lower_bound(groups.begin(), groups.end(), owner.id,
                                   [](const client::node_group & g, const chord::ring_id & id)
                                   { return g.node.id < id; });
        if (at == groups.end() || at->node.id != owner.id)
        {
            at = groups.insert(at, client::node_group{owner, {}});
        }
        client::request_record r;
        r.request = chord::make_carrier(bucket.key, b, 0, body);
        r.slot = b;
        at->records.push_back(std::move(r));
    }

    ts_aggregate_batch_policy policy{target.type, &partials};
    const zlk_error_t sent = chord::run_groups(c, groups, policy);
    if (ZLK_FAILURE(sent))
    {
        return sent;
    }
    if (fold_partials(aggregations, buckets, partials, out))
    {
        return zlk_e_invalid_reply;
    }
    return zlk_e_ok;
}

} // namespace zlk::timeseries
