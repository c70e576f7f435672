// Where a row lives: the arithmetic from a timestamp to the start of its shard (its bucket) and its
// offset inside it, the key of a bucket entry, and the text of times and ranges.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/ring_id.hpp"
#include "base/time_value.hpp"

namespace zlk::timeseries
{

struct bucket_position
{
    // Start of the shard, milliseconds since the epoch.
    std::int64_t start_ms = 0;
    // Time of the row inside the shard, nanoseconds; negative before the epoch (see docs).
    std::int64_t offset_ns = 0;
};

namespace detail
{

inline constexpr std::int64_t ns_per_ms = 1000000;

// Wrapping arithmetic: a caller may hand any 64-bit time, and a silly one must give a silly bucket,
// not undefined behaviour.
constexpr std::int64_t wrap_mul(std::int64_t a, std::int64_t b) noexcept
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

constexpr std::int64_t wrap_add(std::int64_t a, std::int64_t b) noexcept
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

} // namespace detail

// shard_size in milliseconds, positive.
bucket_position locate(const timespec & t, std::int64_t shard_size) noexcept;

// The same as locate(), without its division when t falls into the shard that starts at
// `guess_start_ms` (from an earlier locate): rows staged in time order mostly stay in one shard.
inline bucket_position locate_near(const timespec & t, std::int64_t shard_size,
                                   std::int64_t guess_start_ms) noexcept
{
    using namespace detail;
    const std::int64_t ms_of_ns = t.tv_nsec / ns_per_ms;
    const std::int64_t ms = wrap_add(wrap_mul(t.tv_sec, 1000), ms_of_ns);
    // Only at or after the epoch: there the truncating remainder of locate() is the plain distance
    // from the shard's start.
    if (shard_size > 0 && guess_start_ms >= 0 && ms >= guess_start_ms && ms - guess_start_ms < shard_size)
    {
        return {guess_start_ms,
                wrap_add(t.tv_nsec - ms_of_ns * ns_per_ms, wrap_mul(ms - guess_start_ms, ns_per_ms))};
    }
    return locate(t, shard_size);
}

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
