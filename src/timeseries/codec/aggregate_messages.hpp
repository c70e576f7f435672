// The messages of column aggregation: ts_blob_aggregate 113 for blob and string, ts_double_aggregate 114,
// ts_int64_aggregate 121, ts_timestamp_aggregate 123. A client builds them and reads their replies, a
// node reads them and answers.
//
// Request fields after the operation number: the bucket's 256-bit id, varint column index, varint shard
// size (ms), then a vector of sub-requests, each a varint function and a range (four varints, absolute
// times). Reply content: varint count of states (one per sub-request, same order), then each state in
// the form of encode_state.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/column_type.hpp"
#include "base/ring_id.hpp"
#include "timeseries/codec/aggregation_state.hpp"
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

} // namespace zlk::timeseries
