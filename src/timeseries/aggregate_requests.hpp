// Aggregations of one column over ranges, as the cluster computes them: each range is split by bucket,
// every bucket that some aggregation touches gets one request carrying all the aggregations that touch
// it, the bucket nodes answer one partial state per aggregation, and the partials are combined in
// bucket order into one state per aggregation. The messages are in timeseries/codec/aggregate_messages.hpp.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/column_type.hpp"
#include "base/ring_id.hpp"
#include "ring/cluster.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/aggregate_messages.hpp"
#include "wire/marshal.hpp"
#include "wire/operation_body.hpp"
#include "zlk/types.h"

namespace zlk::timeseries
{

// The request to one bucket: the bucket, its routing key (the id of its bucket key) and the positions of
// the aggregations it carries, in the order of its sub-requests.
struct bucket_aggregates
{
    std::int64_t start_ms = 0;
    chord::ring_id key{};
    std::vector<std::size_t> aggregations;
};

// More bucket requests than this in one call are refused as a silly range rather than attempted.
inline constexpr std::uint64_t max_aggregate_buckets = std::uint64_t{1} << 22;

// The buckets of all aggregations, sorted by start; each aggregation appears, in caller order, in every
// bucket its range touches. REQUIRES: each range has begin before end, shard_size positive. Code
// too_large of the serialization category beyond max_aggregate_buckets.
boost::system::error_code plan_bucket_aggregates(const chord::ring_id & table, std::int64_t shard_size,
                                                 std::span<const aggregate_sub_request> aggregations,
                                                 std::vector<bucket_aggregates> & out);

// Reads the reply of one bucket into that bucket's partials (slot = the bucket's position). Runs on the
// event-loop thread and writes only the slot of its record.
struct ts_aggregate_batch_policy
{
    kernel::column_type column = kernel::column_type::double_;
    std::vector<std::vector<aggregation_state>> * partials = nullptr;

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply);
};

// Combines the partials of the buckets, in bucket order, into out[i] for aggregation i.
boost::system::error_code fold_partials(std::span<const aggregate_sub_request> aggregations,
                                        std::span<const bucket_aggregates> buckets,
                                        std::vector<std::vector<aggregation_state>> & partials,
                                        std::vector<aggregation_state> & out);

// The column an aggregation reads: the table's id and what find_column told of the column.
struct aggregate_target
{
    chord::ring_id table{};
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t column_index = 0;
    std::int64_t shard_size = 0;
};

// Plans, sends one group per node, waits, folds: out[i] is the state of aggregation i. The first failure
// of a bucket ends the call with its status; the states are then undefined.
zlk_error_t run_aggregates(chord::cluster & c, const aggregate_target & target,
                           std::span<const aggregate_sub_request> aggregations,
                           std::vector<aggregation_state> & out);

} // namespace zlk::timeseries
