// Where a row lives: the arithmetic from a timestamp to the start of its shard (its bucket) and its
// offset inside it, the key of a bucket entry, and the text of times and ranges.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ring/ring_id.hpp"
#include "wire/time_value.hpp"

namespace zlk::timeseries
{

struct bucket_position
{
    // Start of the shard, milliseconds since the epoch.
    std::int64_t start_ms = 0;
    // Time of the row inside the shard, nanoseconds; negative before the epoch (see docs).
    std::int64_t offset_ns = 0;
};

// shard_size in milliseconds, positive.
bucket_position locate(const timespec & t, std::int64_t shard_size) noexcept;

// The table's id: Skein-256 over the alias and its terminating zero.
chord::ring_id table_id(std::string_view alias) noexcept;

// "w3-w2-w1-w0", lower-case hexadecimal without leading zeros.
std::string id_text(const chord::ring_id & id);

// The two reserved-mark bytes and "ts.{id}.bucket.{start:018}" (no terminator in the string).
std::string bucket_key(const chord::ring_id & table, std::int64_t start_ms);
// Writes the same into `out` (cleared first), so that a hot path reuses its buffer.
void bucket_key_into(const chord::ring_id & table, std::int64_t start_ms, std::string & out);
// The prefix all buckets of the table share.
std::string bucket_prefix(const chord::ring_id & table);
// The table id a bucket key names; the all-zero id for a key that isn't one.
chord::ring_id table_of_bucket_key(std::string_view key) noexcept;

// The starts of the buckets a range touches, in order, for a positive shard size.
// bucket_count_of says how many without making the list, so that a caller can refuse a silly range.
std::uint64_t bucket_count_of(const timespec & begin, const timespec & end, std::int64_t shard_size) noexcept;
std::vector<std::int64_t> buckets_of(const timespec & begin, const timespec & end, std::int64_t shard_size);

// "{}.{}" and "[{}, {})".
std::string time_text(const timespec & t);
std::string range_text(const timespec & begin, const timespec & end);

// begin < end, comparing seconds then nanoseconds.
constexpr bool before(const timespec & a, const timespec & b) noexcept
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

} // namespace zlk::timeseries
