// The aggregates a bucket node computes (ts_blob_aggregate, ts_double_aggregate, ts_int64_aggregate,
// ts_timestamp_aggregate): one partial state per sub-request over the rows of the bucket's column that
// lie in its range. Layouts in timeseries/aggregate_requests.hpp and docs/protocol.md.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <vector>

#include "node/ts_store.hpp"
#include "wire/marshal.hpp"

namespace zlk::node
{

// Answers one request: the fields after the operation number in, the reply's content appended to
// `content`. A missing bucket or column answers no data for every sub-request. Kernel code 6 for a
// function that isn't an aggregation, 12 for one the column type doesn't accept (or a column of another
// type than the operation's), for the whole request; a body that doesn't decode is a serialization
// error. Takes the bucket's lock for the computation.
boost::system::error_code answer_aggregates(ts_store & store, std::uint16_t operation,
                                            serialization::cursor fields,
                                            std::vector<std::uint8_t> & content);

} // namespace zlk::node
