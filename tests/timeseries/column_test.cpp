// Column reads and writes as a caller sees them: rows of every type go in out of order and across
// shard boundaries and come back in time order; erasure, truncating inserts, timestamps, removal of
// the table and expiry by size.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/timeseries/ts_test_support.hpp"

namespace zlk::ts_test
{
namespace
{

const zlk_ts_column_info columns[] = {{"d", zlk_ts_column_double},
                                      {"i", zlk_ts_column_int64},
                                      {"t", zlk_ts_column_timestamp},
                                      {"b", zlk_ts_column_blob},
                                      {"s", zlk_ts_column_string}};

bool operator==(const zlk_timespec_t & a, const zlk_timespec_t & b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

struct ts_columns : ::testing::TestWithParam<std::size_t>
{
    ts_columns()
        : c(GetParam(), replicated(GetParam() > 1 ? 2 : 1))
    {
        EXPECT_EQ(zlk_ts_create(c.h, "table", 1000, columns, 5), zlk_e_ok) << c.last_error_text();
    }

    std::vector<zlk_ts_double_point> doubles(const std::vector<zlk_ts_range_t> & ranges,
                                             zlk_error_t expected = zlk_e_ok)
    {
        zlk_ts_double_point * points = nullptr;
        size_t count = 0;
        EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", ranges.data(), ranges.size(), &points, &count),
                  expected);
        std::vector<zlk_ts_double_point> out(points, points + count);
        zlk_release(c.h, points);
        return out;
    }

    std::vector<double> values(const std::vector<zlk_ts_range_t> & ranges)
    {
        std::vector<double> out;
        for (const auto & p : doubles(ranges))
        {
            out.push_back(p.value);
        }
        return out;
    }

    ts_cluster c;
};

TEST_P(ts_columns, rows_out_of_order_and_across_shards_read_back_in_time_order)
{
    // Both sides of the boundaries at 0 and 1 s, before the epoch too; two rows at the same time.
    const zlk_ts_double_point points[] = {
        {at(1, 0), 4.0},   {at(0, 999999999), 3.0}, {at(-1, 999000000), 1.0}, {at(0, 0), 2.0},
        {at(5, 500), 6.0}, {at(1, 0), 5.0},         {at(-3, 0), 0.0},
    };
    ASSERT_EQ(zlk_ts_double_insert(c.h, "table", "d", points, std::size(points)), zlk_e_ok);
    EXPECT_EQ(values({all_time()}), (std::vector<double>{0.0, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0}));

    const auto read = doubles({range(at(0, 999999999), at(5, 501))});
    ASSERT_EQ(read.size(), 4u);
    EXPECT_TRUE(read[0].timestamp == at(0, 999999999));
    EXPECT_TRUE(read[1].timestamp == at(1, 0));
    EXPECT_TRUE(read[3].timestamp == at(5, 500));
    EXPECT_TRUE(doubles({all_time()})[1].timestamp == at(-1, 999000000));

    // Ranges are read one after the other, each in time order.
    EXPECT_EQ(values({range(at(5), at(6)), range(at(-1), at(0, 1))}), (std::vector<double>{6.0, 1.0, 2.0}));
}

TEST_P(ts_columns, every_column_type_keeps_its_values)
{
    const zlk_ts_int64_point ints[] = {{at(2), INT64_MIN}, {at(1), 42}};
    ASSERT_EQ(zlk_ts_int64_insert(c.h, "table", "i", ints, 2), zlk_e_ok);
    const zlk_ts_timestamp_point stamps[] = {{at(3), at(-7, 5)}};
    ASSERT_EQ(zlk_ts_timestamp_insert(c.h, "table", "t", stamps, 1), zlk_e_ok);
    const std::string big(100000, 'x');
    const zlk_ts_blob_point blobs[] = {
        {at(1), big.data(), big.size()}, {at(2), nullptr, 0}, {at(0), "\0z", 2}};
    ASSERT_EQ(zlk_ts_blob_insert(c.h, "table", "b", blobs, 3), zlk_e_ok);
    const zlk_ts_string_point strings[] = {{at(4), "", 0}, {at(3), "three", 5}};
    ASSERT_EQ(zlk_ts_string_insert(c.h, "table", "s", strings, 2), zlk_e_ok);

    const zlk_ts_range_t r[] = {all_time()};
    zlk_ts_int64_point * ip = nullptr;
    size_t n = 0;
    ASSERT_EQ(zlk_ts_int64_get_ranges(c.h, "table", "i", r, 1, &ip, &n), zlk_e_ok);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(ip[0].value, 42);
    EXPECT_EQ(ip[1].value, INT64_MIN);
    zlk_release(c.h, ip);

    zlk_ts_timestamp_point * tp = nullptr;
    ASSERT_EQ(zlk_ts_timestamp_get_ranges(c.h, "table", "t", r, 1, &tp, &n), zlk_e_ok);
    ASSERT_EQ(n, 1u);
    EXPECT_TRUE(tp[0].value == at(-7, 5));
    zlk_release(c.h, tp);

    zlk_ts_blob_point * bp = nullptr;
    ASSERT_EQ(zlk_ts_blob_get_ranges(c.h, "table", "b", r, 1, &bp, &n), zlk_e_ok);
    ASSERT_EQ(n, 3u);
    EXPECT_EQ(std::string(static_cast<const char *>(bp[0].content), bp[0].content_length),
              std::string("\0z", 2));
    EXPECT_EQ(std::string(static_cast<const char *>(bp[1].content), bp[1].content_length), big);
    EXPECT_EQ(bp[2].content_length, 0u);
    zlk_release(c.h, bp);

    zlk_ts_string_point * sp = nullptr;
    ASSERT_EQ(zlk_ts_string_get_ranges(c.h, "table", "s", r, 1, &sp, &n), zlk_e_ok);
    ASSERT_EQ(n, 2u);
    EXPECT_STREQ(sp[0].content, "three");
    EXPECT_EQ(sp[1].content_length, 0u);
    zlk_release(c.h, sp);
}

TEST_P(ts_columns, a_column_of_another_type_or_name_is_refused)
{
    const zlk_ts_double_point p[] = {{at(1), 1.0}};
    EXPECT_EQ(zlk_ts_double_insert(c.h, "table", "i", p, 1), zlk_e_incompatible_type);
    const zlk_ts_blob_point b[] = {{at(1), "x", 1}};
    EXPECT_EQ(zlk_ts_blob_insert(c.h, "table", "s", b, 1), zlk_e_incompatible_type);

    EXPECT_EQ(zlk_ts_double_insert(c.h, "table", "nope", p, 1), zlk_e_column_not_found);
    EXPECT_EQ(c.last_error_text(), "The timeseries does not contain this column.");
    doubles({all_time()});
    const zlk_ts_range_t r[] = {all_time()};
    zlk_timespec_t * times = nullptr;
    size_t n = 0;
    EXPECT_EQ(zlk_ts_get_timestamps(c.h, "table", "nope", r, 1, &times, &n), zlk_e_column_not_found);
    EXPECT_EQ(zlk_ts_double_insert(c.h, "no table", "d", p, 1), zlk_e_alias_not_found);
}

TEST_P(ts_columns, bad_arguments_fail_with_their_words)
{
    zlk_ts_double_point * points = nullptr;
    size_t n = 0;
    const zlk_ts_range_t backwards[] = {range(at(1), at(2)), range(at(2, 5), at(2, 5))};
    EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", backwards, 2, &points, &n), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Invalid range: [2.5, 2.5)");
    EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", nullptr, 1, &points, &n), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Got NULL ranges with size > 0");
    EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", nullptr, 0, nullptr, &n), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_double_insert(c.h, "table", "d", nullptr, 3), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Got NULL points with size > 0");
    EXPECT_EQ(zlk_ts_double_insert(c.h, "table", nullptr, nullptr, 0), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_erase_ranges(c.h, "table", "d", backwards, 1, nullptr), zlk_e_invalid_argument);
    const zlk_ts_range_t huge[] = {range(at(-100000000000), at(100000000000))};
    EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", huge, 1, &points, &n), zlk_e_invalid_argument);

    // Nothing to read is a success with nothing.
    points = reinterpret_cast<zlk_ts_double_point *>(1);
    n = 5;
    EXPECT_EQ(zlk_ts_double_get_ranges(c.h, "table", "d", nullptr, 0, &points, &n), zlk_e_ok);
    EXPECT_EQ(points, nullptr);
    EXPECT_EQ(n, 0u);
}

TEST_P(ts_columns, erasure_counts_rows_and_truncating_inserts_replace_their_ranges)
{
    std::vector<zlk_ts_double_point> points;
    for (int i = 0; i < 30; ++i)
    {
        points.push_back({at(i / 10, (i % 10) * 100000000), double(i)});
    }
    ASSERT_EQ(zlk_ts_double_insert(c.h, "table", "d", points.data(), points.size()), zlk_e_ok);
    const zlk_ts_int64_point other[] = {{at(1, 5), 9}};
    ASSERT_EQ(zlk_ts_int64_insert(c.h, "table", "i", other, 1), zlk_e_ok);

    const zlk_ts_range_t erase[] = {range(at(0, 500000000), at(1, 500000000)),
                                    range(at(2, 900000000), at(9))};
    uint64_t erased = 0;
    ASSERT_EQ(zlk_ts_erase_ranges(c.h, "table", "d", erase, 2, &erased), zlk_e_ok);
    EXPECT_EQ(erased, 11u);
    ASSERT_EQ(zlk_ts_erase_ranges(c.h, "table", "d", erase, 2, &erased), zlk_e_ok);
    EXPECT_EQ(erased, 0u);
    EXPECT_EQ(doubles({all_time()}).size(), 19u);

    // Another column of the same buckets keeps its rows.
    zlk_timespec_t * times = nullptr;
    size_t n = 0;
    const zlk_ts_range_t r[] = {all_time()};
    ASSERT_EQ(zlk_ts_get_timestamps(c.h, "table", "i", r, 1, &times, &n), zlk_e_ok);
    ASSERT_EQ(n, 1u);
    EXPECT_TRUE(times[0] == at(1, 5));
    zlk_release(c.h, times);

    const zlk_ts_range_t replace[] = {range(at(0), at(1))};
    const zlk_ts_double_point fresh[] = {{at(0, 1), -1.0}, {at(7), 7.0}};
    ASSERT_EQ(zlk_ts_double_insert_truncate(c.h, "table", "d", replace, 1, fresh, 2), zlk_e_ok);
    EXPECT_EQ(values({range(at(0), at(1))}), (std::vector<double>{-1.0}));
    EXPECT_EQ(values({range(at(6), at(8))}), (std::vector<double>{7.0}));

    ASSERT_EQ(zlk_ts_get_timestamps(c.h, "table", "d", r, 1, &times, &n), zlk_e_ok);
    EXPECT_EQ(n, 1u + 5u + 9u + 1u);
    EXPECT_TRUE(times[0] == at(0, 1));
    zlk_release(c.h, times);
}

TEST_P(ts_columns, a_removed_table_takes_its_buckets_and_a_new_one_reads_empty)
{
    const zlk_ts_double_point points[] = {{at(1), 1.0}, {at(100), 2.0}, {at(-50), 3.0}};
    ASSERT_EQ(zlk_ts_double_insert(c.h, "table", "d", points, 3), zlk_e_ok);
    ASSERT_EQ(zlk_remove(c.h, "table"), zlk_e_ok);
    EXPECT_EQ(zlk_ts_shard_size(c.h, "table", nullptr), zlk_e_invalid_argument);
    ASSERT_EQ(zlk_ts_create(c.h, "table", 1000, columns, 5), zlk_e_ok);
    EXPECT_TRUE(doubles({all_time()}).empty());
}

TEST_P(ts_columns, expiry_by_size_drops_the_oldest_buckets)
{
    std::vector<zlk_ts_double_point> points;
    for (int i = 0; i < 20; ++i)
    {
        points.push_back({at(i), double(i)});
    }
    ASSERT_EQ(zlk_ts_double_insert(c.h, "table", "d", points.data(), points.size()), zlk_e_ok);
    ASSERT_EQ(zlk_ts_expire_by_size(c.h, "table", 1u << 30), zlk_e_ok);
    EXPECT_EQ(doubles({all_time()}).size(), 20u);
    ASSERT_EQ(zlk_ts_expire_by_size(c.h, "table", 0), zlk_e_ok);
    EXPECT_TRUE(doubles({all_time()}).empty());
}

INSTANTIATE_TEST_SUITE_P(nodes, ts_columns, ::testing::Values(1, 3),
                         [](const ::testing::TestParamInfo<std::size_t> & info)
                         { return info.param == 1 ? std::string("one_node") : std::string("three_nodes"); });

} // namespace
} // namespace zlk::ts_test
