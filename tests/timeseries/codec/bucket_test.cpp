// The arithmetic from a time to its bucket, the bucket keys and the text of times.
#include <gtest/gtest.h>

#include <string>

#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/ts_messages.hpp"

namespace zlk::timeseries
{
namespace
{

constexpr std::int64_t day_ms = 86400000;

std::string key_text(std::int64_t start)
{
    const std::string key = bucket_key(table_id("table"), start);
    return key.substr(key.rfind(".bucket.") + 8);
}

TEST(bucket_position, a_time_on_an_exact_multiple_of_the_shard_size_starts_a_bucket)
{
    const bucket_position p = locate(timespec(86400, 0), day_ms);
    EXPECT_EQ(p.start_ms, day_ms);
    EXPECT_EQ(p.offset_ns, 0);
    const bucket_position before_it = locate(timespec(86399, 999999999), day_ms);
    EXPECT_EQ(before_it.start_ms, 0);
    EXPECT_EQ(before_it.offset_ns, 86399999999999);
}

TEST(bucket_position, the_nanoseconds_below_a_millisecond_stay_in_the_offset)
{
    const bucket_position p = locate(timespec(10, 1500000), 1000);
    EXPECT_EQ(p.start_ms, 10000);
    EXPECT_EQ(p.offset_ns, 1500000);
    const bucket_position q = locate(timespec(10, 1500001), 1000);
    EXPECT_LT(p.offset_ns, q.offset_ns);
}

TEST(bucket_position, times_before_the_epoch_fall_into_the_bucket_nearer_zero)
{
    // -1 ms with a shard of one second: the bucket at 0, one millisecond before its start.
    const bucket_position p = locate(timespec(-1, 999000000), 1000);
    EXPECT_EQ(p.start_ms, 0);
    EXPECT_EQ(p.offset_ns, -1000000);
    const bucket_position q = locate(timespec(-2, 0), 1000);
    EXPECT_EQ(q.start_ms, -2000);
    EXPECT_EQ(q.offset_ns, 0);
    // Less than a millisecond of nanoseconds doesn't move the millisecond.
    const bucket_position r = locate(timespec(-2, 500000), 1000);
    EXPECT_EQ(r.start_ms, -2000);
    EXPECT_EQ(r.offset_ns, 500000);
}

TEST(bucket_position, a_time_rebuilt_from_start_and_offset_is_the_time_located)
{
    for (const timespec t : {timespec(0, 0), timespec(-1, 999000000), timespec(-5, 123456789),
                             timespec(86400, 1), timespec(1700000000, 999999999)})
    {
        const bucket_position p = locate(t, 3600000);
        EXPECT_EQ(time_of(p.start_ms, p.offset_ns), t) << time_text(t);
        EXPECT_EQ(offset_of(p.start_ms, t.to_c()), p.offset_ns) << time_text(t);
    }
}

TEST(bucket_position, absurd_times_do_not_trap)
{
    const bucket_position p = locate(timespec(INT64_MAX, INT64_MAX), 1);
    (void)p;
    (void)bucket_count_of(timespec(INT64_MIN, 0), timespec(INT64_MAX, 0), 1);
    (void)buckets_of(timespec(INT64_MAX, 0), timespec(INT64_MAX, 5), 7);
}

TEST(bucket_position, a_guessed_shard_gives_what_the_full_arithmetic_gives)
{
    const std::int64_t shard = 3600000;
    const timespec times[] = {timespec(0, 0),          timespec(3599, 999999999),
                              timespec(3600, 0),       timespec(7199, 5),
                              timespec(-1, 999000000), timespec(-3600, 0),
                              timespec(0, -1),         timespec(0, 1999999999),
                              timespec(1700000000, 7), timespec(INT64_MAX, INT64_MAX),
                              timespec(INT64_MIN, 0)};
    const std::int64_t guesses[] = {-1, 0, shard, 2 * shard, 472222 * shard, -shard, INT64_MAX - 5};
    for (const timespec t : times)
    {
        const bucket_position full = locate(t, shard);
        for (const std::int64_t guess : guesses)
        {
            const bucket_position near = locate_near(t, shard, guess);
            EXPECT_EQ(near.start_ms, full.start_ms) << time_text(t) << " guess " << guess;
            EXPECT_EQ(near.offset_ns, full.offset_ns) << time_text(t) << " guess " << guess;
        }
    }
}

TEST(bucket_key, a_day_shard_prints_its_start_in_eighteen_digits)
{
    const bucket_position p = locate(timespec(86400, 0), day_ms);
    EXPECT_EQ(key_text(p.start_ms), "000000000086400000");
    EXPECT_EQ(key_text(-1000), "-00000000000001000");
    EXPECT_EQ(key_text(0), "000000000000000000");
}

TEST(bucket_key, keys_begin_with_the_reserved_mark_and_name_their_table)
{
    const chord::ring_id id = table_id("table");
    const std::string key = bucket_key(id, 5000);
    EXPECT_EQ(key.substr(0, 5), std::string("\xC0\x80ts.", 5));
    EXPECT_TRUE(key.starts_with(bucket_prefix(id)));
    EXPECT_EQ(table_of_bucket_key(key), id);
    std::string reused = "leftovers";
    bucket_key_into(id, 5000, reused);
    EXPECT_EQ(reused, key);
}

TEST(bucket_key, keys_that_are_not_bucket_keys_name_no_table)
{
    EXPECT_TRUE(table_of_bucket_key("short").is_zero());
    EXPECT_TRUE(table_of_bucket_key(std::string("\xC0\x80ts.1-2-3-4.other.5", 20)).is_zero());
    EXPECT_TRUE(table_of_bucket_key(std::string("\xC0\x80ts.zz-2-3-4.bucket.5", 21)).is_zero());
    EXPECT_FALSE(table_of_bucket_key(std::string("\xC0\x80ts.1-2-3-4.bucket.5", 20)).is_zero());
}

TEST(bucket_key, an_id_prints_its_words_from_the_highest_without_leading_zeros)
{
    chord::ring_id id;
    id.words = {0x1, 0x0, 0xabc, 0xff00000000000000};
    EXPECT_EQ(id_text(id), "ff00000000000000-abc-0-1");
}

TEST(bucket_range, a_range_lists_every_bucket_it_touches_and_no_other)
{
    EXPECT_EQ(buckets_of(timespec(0, 0), timespec(3, 0), 1000), (std::vector<std::int64_t>{0, 1000, 2000}));
    EXPECT_EQ(buckets_of(timespec(0, 0), timespec(3, 1), 1000),
              (std::vector<std::int64_t>{0, 1000, 2000, 3000}));
    EXPECT_EQ(buckets_of(timespec(1, 500), timespec(1, 600), 1000), (std::vector<std::int64_t>{1000}));
    EXPECT_TRUE(buckets_of(timespec(1, 0), timespec(1, 0), 1000).empty());
    // Before the epoch the bucket at 0 reaches back to -999 ms.
    EXPECT_EQ(buckets_of(timespec(-2, 0), timespec(0, 0), 1000),
              (std::vector<std::int64_t>{-2000, -1000, 0}));
    EXPECT_EQ(bucket_count_of(timespec(-2, 0), timespec(0, 0), 1000), 3u);
}

TEST(bucket_text, times_and_ranges_print_as_plain_numbers)
{
    EXPECT_EQ(time_text(timespec(12, 5)), "12.5");
    EXPECT_EQ(time_text(timespec(-1, 999000000)), "-1.999000000");
    EXPECT_EQ(range_text(timespec(1, 0), timespec(0, 7)), "[1.0, 0.7)");
}

} // namespace
} // namespace zlk::timeseries
