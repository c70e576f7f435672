// Aggregate requests: the split of ranges by bucket, the request and reply forms, and what a bucket
// node answers from its store.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include "base/alias_hash.hpp"
#include "node/ts_aggregate_operations.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/bucket.hpp"

namespace
{

using namespace zlk::timeseries;
using zlk::aggregation_type;
using zlk::protocol::operation;
using ct = zlk::kernel::column_type;
using fn = aggregation_type;

constexpr std::int64_t hour_ms = 3600000;

zlk_ts_range_t range(std::int64_t begin_s, std::int64_t end_s)
{
    return zlk_ts_range_t{{begin_s, 0}, {end_s, 0}};
}

aggregate_sub_request sub(aggregation_type f, zlk_ts_range_t r)
{
    return aggregate_sub_request{static_cast<std::uint64_t>(f), r};
}

TEST(aggregate_requests, overlapping_aggregations_share_the_request_of_a_common_bucket)
{
    const auto table = table_id("metrics");
    // Hours 0-2.5 and 2-3.9: the bucket of hour 2 carries both, in caller order.
    const std::vector<aggregate_sub_request> asked = {sub(fn::count, range(0, 9000)),
                                                      sub(fn::sum, range(7200, 14000))};
    std::vector<bucket_aggregates> buckets;
    ASSERT_FALSE(plan_bucket_aggregates(table, hour_ms, asked, buckets));
    ASSERT_EQ(buckets.size(), 4u);
    const std::vector<std::vector<std::size_t>> carried = {{0}, {0}, {0, 1}, {1}};
    for (std::size_t b = 0; b < buckets.size(); ++b)
    {
        EXPECT_EQ(buckets[b].start_ms, static_cast<std::int64_t>(b) * hour_ms);
        EXPECT_EQ(buckets[b].aggregations, carried[b]);
        EXPECT_EQ(buckets[b].key, zlk::chord::alias_hash(bucket_key(table, buckets[b].start_ms)));
    }
}

TEST(aggregate_requests, a_range_of_too_many_buckets_is_refused_before_anything_is_built)
{
    const std::vector<aggregate_sub_request> asked = {
        sub(fn::count, zlk_ts_range_t{{0, 0}, {std::int64_t{1} << 40, 0}})};
    std::vector<bucket_aggregates> buckets;
    EXPECT_TRUE(plan_bucket_aggregates(table_id("t"), 1, asked, buckets));
    EXPECT_TRUE(buckets.empty());
}

// One bucket of a node's store, starting at hour 1, and the requests a client sends it.
struct node_bucket
{
    zlk::node::ts_store store;
    zlk::chord::ring_id id = zlk::chord::alias_hash(bucket_key(table_id("metrics"), hour_ms));

    template <typename T>
    void put(std::uint64_t index, ct type, const std::vector<std::int64_t> & offsets,
             const std::vector<T> & values)
    {
        const auto ec = store.with_bucket(
            id, true,
            [](zlk::node::ts_bucket & b)
            {
                b.shard_start = hour_ms;
                b.shard_size = hour_ms;
            },
            [&](zlk::node::ts_bucket * b)
            {
                zlk::node::ts_incoming_values v;
                std::vector<std::span<const std::uint8_t>> views;
                if constexpr (std::is_same_v<T, std::string>)
                {
                    for (const std::string & s : values)
                    {
                        views.emplace_back(reinterpret_cast<const std::uint8_t *>(s.data()), s.size());
                    }
                    v.bytes = views;
                }
                else
                {
                    v.fixed = std::span(reinterpret_cast<const std::uint8_t *>(values.data()),
                                        values.size() * sizeof(T));
                }
                return b->merge(index, type, offsets, v);
            });
        ASSERT_FALSE(ec);
    }

    boost::system::error_code ask(operation op, std::uint64_t index,
                                  const std::vector<aggregate_sub_request> & subs,
                                  std::vector<aggregation_state> & out)
    {
        const auto body = build_aggregate(op, id, index, hour_ms, subs);
        std::vector<std::uint8_t> content;
        if (auto ec =
                zlk::node::answer_aggregates(store, static_cast<std::uint16_t>(op),
                                             zlk::serialization::cursor(body.bytes().subspan(2)), content))
        {
            EXPECT_TRUE(content.empty());
            return ec;
        }
        out.assign(subs.size(), aggregation_state{});
        return decode_aggregate_reply(content, *aggregate_column_type(static_cast<std::uint16_t>(op)), out);
    }
};

constexpr std::int64_t s_ns = 1000000000;

TEST(aggregate_requests, a_node_folds_the_rows_of_each_range_inside_its_bucket)
{
    node_bucket n;
    // Rows at 1 h + 0 s, 10 s, ..., 50 s; the filler at 30 s is a null.
    const double filler = std::bit_cast<double>(0x7FF8000000000000ULL);
    n.put<double>(4, ct::double_, {0, 10 * s_ns, 20 * s_ns, 30 * s_ns, 40 * s_ns, 50 * s_ns},
                  {1.0, 2.0, 4.0, filler, 8.0, 16.0});
    std::vector<aggregation_state> states;
    ASSERT_FALSE(n.ask(operation::ts_double_aggregate, 4,
                       {sub(fn::count, range(3600, 3640)), sub(fn::sum, range(3610, 3700)),
                        sub(fn::max, range(0, 3630)), sub(fn::count, range(3651, 3700)),
                        sub(fn::first, range(3615, 3625))},
                       states));
    EXPECT_EQ(std::get<count_state>(states[0]).count, 3u); // the filler doesn't count
    EXPECT_EQ(std::get<sum_state>(states[1]).sum, 30.0);
    EXPECT_EQ(std::get<sum_state>(states[1]).count, 4u);
    const auto & max = std::get<extreme_state>(states[2]);
    EXPECT_EQ(std::get<double>(max.point.value), 4.0);
    EXPECT_EQ(max.point.time, (zlk::timespec{3620, 0}));
    EXPECT_TRUE(std::holds_alternative<no_data_state>(states[3]));
    EXPECT_EQ(std::get<double>(std::get<extreme_state>(states[4]).point.value), 4.0);
}

TEST(aggregate_requests, a_missing_bucket_or_column_answers_no_data)
{
    node_bucket n;
    std::vector<aggregation_state> states;
    ASSERT_FALSE(n.ask(operation::ts_double_aggregate, 0,
                       {sub(fn::count, range(0, 99999)), sub(fn::sum, range(0, 1))}, states));
    EXPECT_TRUE(std::holds_alternative<no_data_state>(states[0]));
    EXPECT_TRUE(std::holds_alternative<no_data_state>(states[1]));
    n.put<std::int64_t>(1, ct::int64, {0}, {5});
    ASSERT_FALSE(n.ask(operation::ts_int64_aggregate, 2, {sub(fn::count, range(0, 99999))}, states));
    EXPECT_TRUE(std::holds_alternative<no_data_state>(states[0]));
}

TEST(aggregate_requests, a_node_refuses_functions_its_column_type_doesnt_accept_for_the_whole_request)
{
    node_bucket n;
    n.put<std::string>(0, ct::string, {0, 1}, {"a", "b"});
    n.put<double>(1, ct::double_, {0}, {1.0});
    std::vector<aggregation_state> states;
    const auto incompatible = make_error_code(zlk::kernel::error::incompatible_type);
    const auto unexpected = make_error_code(zlk::kernel::error::unexpected_value);
    EXPECT_EQ(n.ask(operation::ts_blob_aggregate, 0,
                    {sub(fn::count, range(0, 9999)), sub(fn::sum, range(0, 9999))}, states),
              incompatible);
    EXPECT_EQ(n.ask(operation::ts_timestamp_aggregate, 5, {sub(fn::arithmetic_mean, range(0, 9999))}, states),
              incompatible);
    // The operation reads another type than the column holds.
    EXPECT_EQ(n.ask(operation::ts_int64_aggregate, 1, {sub(fn::sum, range(0, 9999))}, states), incompatible);
    EXPECT_EQ(n.ask(operation::ts_double_aggregate, 1, {sub(fn::moving_average, range(0, 9999))}, states),
              unexpected);
    EXPECT_EQ(n.ask(operation::ts_double_aggregate, 1, {sub(fn::none, range(0, 9999))}, states), unexpected);
    EXPECT_EQ(n.ask(operation::ts_double_aggregate, 1, {aggregate_sub_request{300, range(0, 9999)}}, states),
              unexpected);
    // Strings are read by the blob operation, and compare by bytes.
    ASSERT_FALSE(n.ask(operation::ts_blob_aggregate, 0, {sub(fn::max, range(0, 9999))}, states));
    EXPECT_EQ(std::get<std::string>(std::get<extreme_state>(states[0]).point.value), "b");
}

TEST(aggregate_requests, truncated_requests_and_replies_are_errors_not_crashes)
{
    node_bucket n;
    n.put<double>(0, ct::double_, {0, 1}, {1.0, 2.0});
    const std::vector<aggregate_sub_request> subs = {sub(fn::max, range(0, 9999)),
                                                     sub(fn::count, range(0, 9999))};
    const auto body = build_aggregate(operation::ts_double_aggregate, n.id, 0, hour_ms, subs);
    const auto fields = body.bytes().subspan(2);
    for (std::size_t cut = 0; cut < fields.size(); ++cut)
    {
        std::vector<std::uint8_t> content;
        EXPECT_TRUE(zlk::node::answer_aggregates(n.store,
                                                 static_cast<std::uint16_t>(operation::ts_double_aggregate),
                                                 zlk::serialization::cursor(fields.data(), cut), content))
            << "cut at " << cut;
    }

    std::vector<std::uint8_t> reply;
    ASSERT_FALSE(zlk::node::answer_aggregates(n.store,
                                              static_cast<std::uint16_t>(operation::ts_double_aggregate),
                                              zlk::serialization::cursor(fields), reply));
    std::vector<aggregation_state> out(2);
    EXPECT_FALSE(decode_aggregate_reply(reply, ct::double_, out));
    const auto invalid = make_error_code(zlk::chord::error::unexpected_reply);
    for (std::size_t cut = 0; cut < reply.size(); ++cut)
    {
        EXPECT_EQ(decode_aggregate_reply(std::span(reply).first(cut), ct::double_, out), invalid)
            << "cut at " << cut;
    }
    // One state more or less than asked.
    std::vector<aggregation_state> three(3);
    EXPECT_EQ(decode_aggregate_reply(reply, ct::double_, three), invalid);
}

TEST(aggregate_requests, partials_of_the_wrong_kind_are_an_invalid_reply_when_folded)
{
    const std::vector<aggregate_sub_request> asked = {sub(fn::count, range(0, 10))};
    const std::vector<bucket_aggregates> buckets = {{0, {}, {0}}, {hour_ms, {}, {0}}};
    std::vector<std::vector<aggregation_state>> partials(2);
    partials[0].push_back(count_state{2});
    partials[1].push_back(count_state{3});
    std::vector<aggregation_state> out;
    ASSERT_FALSE(fold_partials(asked, buckets, partials, out));
    EXPECT_EQ(std::get<count_state>(out[0]).count, 5u);

    partials[0][0] = count_state{2};
    partials[1][0] = sum_state{1, 1.0, 0};
    EXPECT_TRUE(fold_partials(asked, buckets, partials, out));
}

} // namespace
