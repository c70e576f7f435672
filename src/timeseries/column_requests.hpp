// The requests of the column functions: points split by bucket and sent as one insert per bucket,
// ranges split by bucket and read or erased per bucket. One bucket goes as a single request to its
// owner; several go as one group per node, all groups at once. Replies are kept in request order.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "base/column_type.hpp"
#include "ring/cluster.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/table_metadata.hpp"
#include "zlk/error.h"
#include "zlk/types.h"

namespace zlk::timeseries
{

// The column a request is about, as find_column gave it.
struct column_target
{
    std::string_view alias;  // without terminator
    std::string_view column; // without terminator
    column_lookup info;
};

// The rows of one bucket, ready to be sent: offsets with their values laid out as on the wire (fixed
// types) or as views of the caller's byte strings.
struct staged_bucket
{
    std::int64_t start = 0;
    std::vector<std::int64_t> offsets;
    std::vector<std::uint8_t> fixed;
    std::vector<std::span<const std::uint8_t>> bytes;
};

// Splits rows by bucket, in order of the buckets' starts; inside a bucket rows keep the caller's order.
// time_of(i) gives row i's time; add(bucket, i) appends row i's value.
template <typename TimeOf, typename AddValue>
std::vector<staged_bucket> stage_rows(std::size_t count, std::int64_t shard_size, TimeOf && time_of,
                                      AddValue && add)
{
    struct placed
    {
        std::int64_t start;
        std::int64_t offset;
        std::size_t row;
    };
    std::vector<placed> rows;
    rows.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        const bucket_position p = locate(time_of(i), shard_size);
        rows.push_back({p.start_ms, p.offset_ns, i});
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const placed & a, const placed & b) { return a.start < b.start; });
    std::vector<staged_bucket> buckets;
    for (const placed & r : rows)
    {
        if (buckets.empty() || buckets.back().start != r.start)
        {
            buckets.emplace_back().start = r.start;
        }
        buckets.back().offsets.push_back(r.offset);
        add(buckets.back(), r.row);
    }
    return buckets;
}

// One insert per bucket.
zlk_error_t insert_buckets(chord::cluster & c, const column_target & target,
                           std::vector<staged_bucket> & buckets);

// The buckets a set of ranges touches, each with the ranges that reach into it, in the order in which
// the ranges first reach them. Refuses (zlk_e_invalid_argument) a set that touches too many buckets to
// be read at once.
struct bucket_ranges
{
    std::int64_t start = 0;
    std::vector<zlk_ts_range_t> ranges;
};
zlk_error_t split_ranges(std::span<const zlk_ts_range_t> ranges, std::int64_t shard_size,
                         std::vector<bucket_ranges> & out);

// Copies of the replies' contents, one per bucket in the order of `buckets`.
struct bucket_replies
{
    std::vector<std::int64_t> starts;
    std::vector<std::vector<std::uint8_t>> contents;
};

// ts_get_ranges of the target column in each bucket.
zlk_error_t read_ranges(chord::cluster & c, const column_target & target,
                        const std::vector<bucket_ranges> & buckets, bucket_replies & out);
// ts_get_timestamps of the target column in each bucket.
zlk_error_t read_timestamps(chord::cluster & c, const column_target & target,
                            const std::vector<bucket_ranges> & buckets, bucket_replies & out);
// ts_erase_ranges in each bucket; `every_column` erases the rows of all columns.
zlk_error_t erase_ranges(chord::cluster & c, const column_target & target,
                         const std::vector<bucket_ranges> & buckets, bool every_column,
                         std::uint64_t & erased);

} // namespace zlk::timeseries
