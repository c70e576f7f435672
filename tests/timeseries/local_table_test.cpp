// The local table against in-process nodes: rows built and pushed, then fetched and walked.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "node/local_cluster.hpp"
#include "zlk/zlk.h"

namespace
{

constexpr std::uint64_t minute_ms = 60 * 1000;

zlk_timespec_t at_s(std::int64_t s)
{
    return zlk_timespec_t{s, 0};
}

struct local_table : ::testing::Test
{
    local_table()
        : cluster(3)
    {
        EXPECT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        EXPECT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
        EXPECT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
        const zlk_ts_column_info columns[] = {
            {"value", zlk_ts_column_double}, {"count", zlk_ts_column_int64}, {"tag", zlk_ts_column_blob}};
        EXPECT_EQ(zlk_ts_create(h, "sensor", minute_ms, columns, 3), zlk_e_ok);
        EXPECT_EQ(zlk_ts_local_table_init(h, "sensor", columns, 3, &table), zlk_e_ok);
    }

    ~local_table() override
    {
        zlk_ts_local_table_release(h, table);
        zlk_close(h);
    }

    zlk::node::local_cluster cluster;
    zlk_handle_t h = nullptr;
    zlk_local_table_t table = nullptr;
};

TEST_F(local_table, appended_rows_are_pushed_and_read_back_row_by_row_in_time_order)
{
    std::size_t index = 99;
    for (std::int64_t s : {150, 10, 70, 20})
    {
        ASSERT_EQ(zlk_ts_row_set_double(table, 0, static_cast<double>(s) / 10), zlk_e_ok);
        ASSERT_EQ(zlk_ts_row_set_int64(table, 1, s), zlk_e_ok);
        const std::string tag = "t" + std::to_string(s);
        ASSERT_EQ(zlk_ts_row_set_blob(table, 2, tag.data(), tag.size()), zlk_e_ok);
        const zlk_timespec_t when = at_s(s);
        ASSERT_EQ(zlk_ts_table_row_append(table, &when, &index), zlk_e_ok);
    }
    EXPECT_EQ(index, 3u);
    ASSERT_EQ(zlk_ts_push(table), zlk_e_ok);

    const zlk_ts_range_t range{at_s(0), at_s(200)};
    ASSERT_EQ(zlk_ts_table_get_ranges(table, &range, 1), zlk_e_ok);
    std::vector<std::int64_t> times;
    std::vector<std::string> tags;
    zlk_timespec_t t{};
    while (zlk_ts_table_next_row(table, &t) == zlk_e_ok)
    {
        times.push_back(t.tv_sec);
        std::int64_t count = 0;
        ASSERT_EQ(zlk_ts_row_get_int64(table, 1, &count), zlk_e_ok);
        EXPECT_EQ(count, t.tv_sec);
        double value = 0;
        ASSERT_EQ(zlk_ts_row_get_double(table, 0, &value), zlk_e_ok);
        EXPECT_EQ(value, static_cast<double>(t.tv_sec) / 10);
        const void * tag = nullptr;
        size_t length = 0;
        ASSERT_EQ(zlk_ts_row_get_blob(table, 2, &tag, &length), zlk_e_ok);
        tags.emplace_back(static_cast<const char *>(tag), length);
        zlk_release(h, tag);
    }
    EXPECT_EQ(times, (std::vector<std::int64_t>{10, 20, 70, 150}));
    EXPECT_EQ(tags, (std::vector<std::string>{"t10", "t20", "t70", "t150"}));
    EXPECT_EQ(zlk_ts_table_next_row(table, &t), zlk_e_iterator_end);
    double value = 0;
    EXPECT_EQ(zlk_ts_row_get_double(table, 0, &value), zlk_e_iterator_end);
}

TEST_F(local_table, a_column_without_a_value_at_a_row_says_so_and_no_copy_views_point_into_the_fetch)
{
    const zlk_ts_double_point points[] = {{at_s(5), 1.0}};
    ASSERT_EQ(zlk_ts_double_insert(h, "sensor", "value", points, 1), zlk_e_ok);
    const zlk_ts_blob_point blobs[] = {{at_s(6), "abc", 3}};
    ASSERT_EQ(zlk_ts_blob_insert(h, "sensor", "tag", blobs, 1), zlk_e_ok);

    const zlk_ts_range_t range{at_s(0), at_s(60)};
    ASSERT_EQ(zlk_ts_table_get_ranges(table, &range, 1), zlk_e_ok);
    zlk_timespec_t t{};
    ASSERT_EQ(zlk_ts_table_next_row(table, &t), zlk_e_ok);
    EXPECT_EQ(t.tv_sec, 5);
    std::int64_t count = 0;
    EXPECT_EQ(zlk_ts_row_get_int64(table, 1, &count), zlk_e_element_not_found);
    ASSERT_EQ(zlk_ts_table_next_row(table, &t), zlk_e_ok);
    EXPECT_EQ(t.tv_sec, 6);
    const void * tag = nullptr;
    size_t length = 0;
    ASSERT_EQ(zlk_ts_row_get_blob_no_copy(table, 2, &tag, &length), zlk_e_ok);
    EXPECT_EQ(std::string(static_cast<const char *>(tag), length), "abc");
}

TEST_F(local_table, wrong_types_and_indexes_are_refused)
{
    EXPECT_EQ(zlk_ts_row_set_int64(table, 0, 1), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_ts_row_set_double(table, 3, 1), zlk_e_out_of_bounds);
    EXPECT_EQ(zlk_ts_row_set_string(table, 2, "x", 1), zlk_e_incompatible_type);
    double v = 0;
    EXPECT_EQ(zlk_ts_row_get_double(table, 1, &v), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_ts_row_set_double(nullptr, 0, 1), zlk_e_invalid_argument);

    zlk_local_table_t other = nullptr;
    EXPECT_EQ(zlk_ts_local_table_init(h, "sensor", nullptr, 0, &other), zlk_e_invalid_argument);
    const zlk_ts_column_info wrong_type[] = {{"value", zlk_ts_column_int64}};
    EXPECT_EQ(zlk_ts_local_table_init(h, "sensor", wrong_type, 1, &other), zlk_e_incompatible_type);
    const zlk_ts_column_info missing[] = {{"nothing", zlk_ts_column_double}};
    EXPECT_EQ(zlk_ts_local_table_init(h, "sensor", missing, 1, &other), zlk_e_column_not_found);
    EXPECT_EQ(other, nullptr);
}

} // namespace
