// Aggregations of one column over ranges, as the cluster computes them: each range is split by bucket,
// every bucket that some aggregation touches gets one request carrying all the aggregations that touch
// it (ts_blob_aggregate 113 for blob and string, ts_double_aggregate 114, ts_int64_aggregate 121,
// ts_timestamp_aggregate 123), the bucket nodes answer one partial state per aggregation, and the
// partials are combined in bucket order into one state per aggregation.
//
// Request fields after the operation number: the bucket's 256-bit id, varint column index, varint shard
// size (ms), then a vector of sub-requests, each a varint function and a range (four varints, absolute
// times). Reply content: varint count of states (one per sub-request, same order), then each state in
// the form of encode_state.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "ring/cluster.hpp"
#include "ring/ring_id.hpp"
#include "ring/routing.hpp"
#include "timeseries/aggregation_state.hpp"
#include "timeseries/column_type.hpp"
#include "wire/marshal.hpp"
#include "wire/operation_body.hpp"
#include "zlk/types.h"

namespace zlk::timeseries
{

// One aggregation of a request: the function's number as the caller gave it (a node refuses what it
// can't compute) and an absolute range.
struct aggregate_sub_request
{
    std::uint64_t type = 0;
    zlk_ts_range_t range{};
};

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

// 113 for blob and string, 114 double, 121 int64, 123 timestamp.
protocol::operation aggregate_operation(kernel::column_type t) noexcept;
// The column type an aggregate operation reads (blob for 113, which serves strings too); nullopt for
// another operation.
std::optional<kernel::column_type> aggregate_column_type(std::uint16_t operation) noexcept;

protocol::operation_body build_aggregate(protocol::operation op, const chord::ring_id & bucket,
                                         std::uint64_t column_index, std::uint64_t shard_size,
                                         std::span<const aggregate_sub_request> subs) noexcept;

struct decoded_aggregate
{
    chord::ring_id bucket{};
    std::uint64_t column_index = 0;
    std::uint64_t shard_size = 0;
    std::vector<aggregate_sub_request> subs;
};

// Every read checked; a short or malformed body is a serialization error.
boost::system::error_code decode_aggregate(serialization::cursor & c, decoded_aggregate & out);

// Reads the states of a reply into `out`, whose size is the number of sub-requests sent: another count
// is chord code 4 (an invalid reply), so is a state that doesn't decode.
boost::system::error_code decode_aggregate_reply(std::span<const std::uint8_t> content,
                                                 kernel::column_type column,
                                                 std::span<aggregation_state> out);

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
