// The batch table writer end to end against in-process nodes: staging through the exported functions,
// the push modes, and reading the rows back with the column reads.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "node/local_cluster.hpp"
#include "zlk/zlk.h"

namespace
{

constexpr std::uint64_t minute_ms = 60 * 1000;

zlk_timespec_t at_ms(std::int64_t ms)
{
    return zlk_timespec_t{ms / 1000, (ms % 1000) * 1000000};
}

zlk_ts_range_t everything()
{
    return zlk_ts_range_t{{0, 0}, {1000000, 0}};
}

struct pushed_table
{
    explicit pushed_table(std::size_t nodes, zlk::node::cluster_options options = {})
        : cluster(nodes, std::move(options))
    {
        EXPECT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        EXPECT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
        EXPECT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
        const zlk_ts_column_info columns[] = {
            {"price", zlk_ts_column_double}, {"volume", zlk_ts_column_int64}, {"note", zlk_ts_column_string}};
        EXPECT_EQ(zlk_ts_create(h, "ticks", minute_ms, columns, 3), zlk_e_ok);
        const zlk_ts_batch_column_info batch[] = {
            {"ticks", "price", 0}, {"ticks", "volume", 0}, {"ticks", "note", 0}};
        EXPECT_EQ(zlk_ts_batch_table_init(h, batch, 3, &table), zlk_e_ok);
    }

    ~pushed_table()
    {
        zlk_ts_batch_table_release(h, table);
        zlk_close(h);
    }

    std::string last_error_text() const
    {
        zlk_error_t e = 0;
        zlk_string_t text{nullptr, 0};
        zlk_get_last_error(h, &e, &text);
        return std::string(text.data, text.length);
    }

    void row(std::int64_t ms, double price)
    {
        const zlk_timespec_t t = at_ms(ms);
        ASSERT_EQ(zlk_ts_batch_start_row(table, &t), zlk_e_ok);
        ASSERT_EQ(zlk_ts_batch_row_set_double(table, 0, price), zlk_e_ok);
    }

    std::vector<zlk_ts_double_point> prices(zlk_ts_range_t range = everything()) const
    {
        zlk_ts_double_point * points = nullptr;
        size_t count = 0;
        EXPECT_EQ(zlk_ts_double_get_ranges(h, "ticks", "price", &range, 1, &points, &count), zlk_e_ok);
        std::vector<zlk_ts_double_point> out(points, points + count);
        zlk_release(h, points);
        return out;
    }

    std::vector<double> price_values(zlk_ts_range_t range = everything()) const
    {
        std::vector<double> out;
        for (const zlk_ts_double_point & p : prices(range))
        {
            out.push_back(p.value);
        }
        return out;
    }

    zlk::node::local_cluster cluster;
    zlk_handle_t h = nullptr;
    zlk_batch_table_t table = nullptr;
};

zlk::node::cluster_options small_frames(std::size_t nodes_max_in)
{
    zlk::node::cluster_options o;
    o.node.max_in_buffer_size = nodes_max_in;
    return o;
}

TEST(batch_push, a_push_without_rows_sends_nothing_and_succeeds_twice)
{
    pushed_table t(1);
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok);
    const zlk_timespec_t now = at_ms(1000);
    ASSERT_EQ(zlk_ts_batch_start_row(t.table, &now), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok);
    EXPECT_TRUE(t.prices().empty());
}

TEST(batch_push, rows_out_of_order_arrive_sorted_with_equal_times_in_order_and_fillers_in_the_gaps)
{
    pushed_table t(1);
    t.row(3000, 3);
    t.row(1000, 1);
    t.row(2000, 2.1);
    t.row(2000, 2.2);
    const zlk_timespec_t when = at_ms(500);
    ASSERT_EQ(zlk_ts_batch_start_row(t.table, &when), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_row_set_int64(t.table, 1, 42), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_row_set_string(t.table, 2, "copied", 6), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();

    const std::vector<zlk_ts_double_point> p = t.prices();
    ASSERT_EQ(p.size(), 5u);
    EXPECT_TRUE(std::isnan(p[0].value));
    EXPECT_EQ(p[0].timestamp.tv_nsec, 500000000);
    EXPECT_EQ((std::vector<double>{p[1].value, p[2].value, p[3].value, p[4].value}),
              (std::vector<double>{1, 2.1, 2.2, 3}));

    zlk_ts_string_point * notes = nullptr;
    size_t count = 0;
    const zlk_ts_range_t all = everything();
    ASSERT_EQ(zlk_ts_string_get_ranges(t.h, "ticks", "note", &all, 1, &notes, &count), zlk_e_ok);
    ASSERT_EQ(count, 5u);
    EXPECT_EQ(std::string(notes[0].content, notes[0].content_length), "copied");
    zlk_release(t.h, notes);

    // A push resets the table: pushing again adds nothing.
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok);
    EXPECT_EQ(t.prices().size(), 5u);
}

TEST(batch_push, rows_of_many_shards_reach_every_node_and_read_back_whole)
{
    pushed_table t(3);
    std::vector<double> expected;
    for (int i = 0; i < 300; ++i)
    {
        t.row(static_cast<std::int64_t>(i) * 7000, i);
        expected.push_back(i);
    }
    ASSERT_EQ(zlk_ts_batch_push_fast(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), expected);
}

TEST(batch_push, with_two_copies_a_push_is_written_through_the_replicas_and_reads_back_whole)
{
    zlk::node::cluster_options o;
    o.node.replication_factor = 2;
    pushed_table t(3, o);
    std::vector<double> expected;
    for (int i = 0; i < 60; ++i)
    {
        t.row(static_cast<std::int64_t>(i) * minute_ms, i);
        expected.push_back(i);
    }
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), expected);
}

TEST(batch_push, a_shard_larger_than_a_send_goes_in_chunks_of_its_own)
{
    // A send may carry 3/4 of 64 KiB: 20000 rows of one shard take several.
    pushed_table t(1, small_frames(64 * 1024));
    std::vector<double> expected;
    for (int i = 0; i < 20000; ++i)
    {
        t.row(i, i);
        expected.push_back(i);
    }
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    // Read back in slices: a reply too must fit in the nodes' small frames.
    std::vector<double> read;
    for (std::int64_t from = 0; from < 20000; from += 1000)
    {
        const std::vector<double> slice = t.price_values({at_ms(from), at_ms(from + 1000)});
        read.insert(read.end(), slice.begin(), slice.end());
    }
    EXPECT_EQ(read, expected);
}

TEST(batch_push, after_a_push_that_failed_in_part_the_next_one_sends_only_the_rest)
{
    pushed_table t(3);
    auto busy = std::make_shared<std::atomic<std::uint32_t>>(1);
    zlk::node::fault_settings f;
    f.busy_shard_writes = busy;
    t.cluster.set_faults(1, f);
    std::vector<double> expected;
    for (int i = 0; i < 120; ++i)
    {
        t.row(static_cast<std::int64_t>(i) * minute_ms, i);
        expected.push_back(i);
    }
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_try_again);
    EXPECT_EQ(busy->load(), 0u);
    EXPECT_LT(t.price_values().size(), expected.size());
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    // Each row once: what was written the first time wasn't sent again.
    EXPECT_EQ(t.price_values(), expected);
}

TEST(batch_push, an_asynchronous_push_waits_for_a_node_that_said_try_again)
{
    pushed_table t(1);
    ASSERT_EQ(zlk_option_set_ts_batch_push_async_timeout(t.h, 50), zlk_e_ok);
    auto busy = std::make_shared<std::atomic<std::uint32_t>>(1);
    zlk::node::fault_settings f;
    f.busy_shard_writes = busy;
    t.cluster.set_faults(0, f);
    t.row(1000, 1);
    t.row(minute_ms + 1000, 2);
    ASSERT_EQ(zlk_ts_batch_push_async(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), (std::vector<double>{1, 2}));
}

TEST(batch_push, an_asynchronous_push_sends_the_refused_requests_again_in_halves)
{
    pushed_table t(1);
    ASSERT_EQ(zlk_option_set_ts_batch_push_async_timeout(t.h, 50), zlk_e_ok);
    // Both shard writes of the first send are refused; each half then goes alone.
    auto busy = std::make_shared<std::atomic<std::uint32_t>>(2);
    zlk::node::fault_settings f;
    f.busy_shard_writes = busy;
    t.cluster.set_faults(0, f);
    for (int i = 0; i < 4; ++i)
    {
        t.row(static_cast<std::int64_t>(i) * minute_ms, i);
    }
    ASSERT_EQ(zlk_ts_batch_push_async(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(busy->load(), 0u);
    EXPECT_EQ(t.price_values(), (std::vector<double>{0, 1, 2, 3}));
}

TEST(batch_push, a_push_to_a_table_dropped_since_the_init_fails_with_the_nodes_status)
{
    pushed_table t(3);
    t.row(1000, 1);
    ASSERT_EQ(zlk_remove(t.h, "ticks"), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_alias_not_found);
    // The rows stay staged, and the nodes keep serving.
    const zlk_ts_column_info fewer[] = {{"price", zlk_ts_column_double}};
    ASSERT_EQ(zlk_ts_create(t.h, "ticks", minute_ms, fewer, 1), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_push(t.table), zlk_e_column_not_found);
    const zlk_ts_column_info more[] = {{"volume", zlk_ts_column_int64}, {"note", zlk_ts_column_string}};
    ASSERT_EQ(zlk_ts_insert_columns(t.h, "ticks", more, 2), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), (std::vector<double>{1}));
}

TEST(batch_push, a_truncating_push_of_a_shard_in_several_chunks_keeps_every_new_row)
{
    pushed_table t(1, small_frames(64 * 1024));
    for (int i = 0; i < 5000; ++i)
    {
        t.row(i, -1);
    }
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    std::vector<double> expected;
    for (int i = 0; i < 5000; ++i)
    {
        t.row(4999 - i, 4999 - i);
        expected.push_back(i);
    }
    const zlk_ts_range_t range{at_ms(0), at_ms(5000)};
    ASSERT_EQ(zlk_ts_batch_push_truncate(t.table, &range, 1), zlk_e_ok) << t.last_error_text();
    std::vector<double> read;
    for (std::int64_t from = 0; from < 5000; from += 1000)
    {
        const std::vector<double> slice = t.price_values({at_ms(from), at_ms(from + 1000)});
        read.insert(read.end(), slice.begin(), slice.end());
    }
    EXPECT_EQ(read, expected);
}

TEST(batch_push, an_asynchronous_push_with_no_time_to_wait_fails_at_the_first_refusal_and_keeps_the_rows)
{
    pushed_table t(1);
    ASSERT_EQ(zlk_option_set_ts_batch_push_async_timeout(t.h, 0), zlk_e_ok);
    auto busy = std::make_shared<std::atomic<std::uint32_t>>(1);
    zlk::node::fault_settings f;
    f.busy_shard_writes = busy;
    t.cluster.set_faults(0, f);
    t.row(1000, 1);
    EXPECT_EQ(zlk_ts_batch_push_async(t.table), zlk_e_try_again);
    ASSERT_EQ(zlk_ts_batch_push_async(t.table), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), (std::vector<double>{1}));
}

TEST(batch_push, a_truncating_push_replaces_the_rows_of_its_ranges_and_only_those)
{
    pushed_table t(3);
    for (int i = 0; i < 6; ++i)
    {
        t.row(static_cast<std::int64_t>(i) * 30000, i);
    }
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok);

    // [30 s, 120 s) holds rows 1 to 3; it gets one new row.
    const zlk_ts_range_t range{at_ms(30000), at_ms(120000)};
    t.row(130000, 99);
    EXPECT_EQ(zlk_ts_batch_push_truncate(t.table, &range, 1), zlk_e_invalid_argument);
    EXPECT_NE(t.last_error_text().find("No given range covers the row with timestamp 10.0"),
              std::string::npos)
        << t.last_error_text();
    zlk_ts_batch_table_release(t.h, t.table);
    const zlk_ts_batch_column_info batch[] = {{"ticks", "price", 0}};
    ASSERT_EQ(zlk_ts_batch_table_init(t.h, batch, 1, &t.table), zlk_e_ok);
    t.row(45000, 10);
    ASSERT_EQ(zlk_ts_batch_push_truncate(t.table, &range, 1), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), (std::vector<double>{0, 10, 4, 5}));

    // Without rows it only erases.
    const zlk_ts_range_t tail{at_ms(120000), at_ms(200000)};
    ASSERT_EQ(zlk_ts_batch_push_truncate(t.table, &tail, 1), zlk_e_ok) << t.last_error_text();
    EXPECT_EQ(t.price_values(), (std::vector<double>{0, 10}));
}

TEST(batch_push, pinned_columns_are_filled_in_place_and_sorted_at_push)
{
    pushed_table t(1);
    const zlk_timespec_t shard = at_ms(0);
    std::int64_t * offsets = nullptr;
    double * values = nullptr;
    ASSERT_EQ(zlk_ts_batch_pin_double_column(t.table, 0, 3, &shard, &offsets, &values), zlk_e_ok);
    const std::int64_t second = 1000000000;
    offsets[0] = 2 * second;
    values[0] = 2;
    offsets[1] = second;
    values[1] = 1;
    EXPECT_EQ(zlk_ts_batch_shrink_pinned_column(t.table, 0, 2), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_shrink_pinned_column(t.table, 0, 2), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_shrink_pinned_column(t.table, 0, 3), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_batch_unsafe_resize_pinned_column(t.table, 0, 3), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_shrink_pinned_column(t.table, 0, 2), zlk_e_ok);

    std::int64_t * int_offsets = nullptr;
    std::int64_t * ints = nullptr;
    EXPECT_EQ(zlk_ts_batch_pin_int64_column(t.table, 0, 1, &shard, &int_offsets, &ints),
              zlk_e_incompatible_type);
    EXPECT_EQ(zlk_ts_batch_pin_int64_column(t.table, 7, 1, &shard, &int_offsets, &ints), zlk_e_out_of_bounds);
    EXPECT_EQ(zlk_ts_batch_shrink_pinned_column(t.table, 7, 0), zlk_e_out_of_bounds);

    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok) << t.last_error_text();
    const std::vector<zlk_ts_double_point> p = t.prices();
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p[0].timestamp.tv_sec, 1);
    EXPECT_EQ(p[0].value, 1);
    EXPECT_EQ(p[1].value, 2);
}

TEST(batch_push, bad_arguments_are_refused_with_their_words)
{
    pushed_table t(1);
    zlk_batch_table_t other = nullptr;
    EXPECT_EQ(zlk_ts_batch_table_init(t.h, nullptr, 0, &other), zlk_e_invalid_argument);
    EXPECT_NE(t.last_error_text().find("Got zero columns info"), std::string::npos);
    const zlk_ts_batch_column_info missing_column[] = {{"ticks", "nothing", 0}};
    EXPECT_EQ(zlk_ts_batch_table_init(t.h, missing_column, 1, &other), zlk_e_column_not_found);
    const zlk_ts_batch_column_info missing_table[] = {{"no-such-table", "price", 0}};
    EXPECT_NE(zlk_ts_batch_table_init(t.h, missing_table, 1, &other), zlk_e_ok);
    EXPECT_EQ(other, nullptr);

    EXPECT_EQ(zlk_ts_batch_start_row(nullptr, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_batch_start_row(t.table, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_batch_row_set_blob(t.table, 2, nullptr, 3), zlk_e_invalid_argument);
    EXPECT_NE(t.last_error_text().find("Got NULL blob with size > 0"), std::string::npos);
    const zlk_timespec_t now = at_ms(0);
    ASSERT_EQ(zlk_ts_batch_start_row(t.table, &now), zlk_e_ok);
    EXPECT_EQ(zlk_ts_batch_row_set_double(t.table, 3, 1), zlk_e_out_of_bounds);
    EXPECT_EQ(zlk_ts_batch_row_set_double(t.table, 1, 1), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_ts_batch_row_set_blob(t.table, 0, "abc", 3), zlk_e_incompatible_type);
    const zlk_ts_range_t reversed{at_ms(5), at_ms(1)};
    EXPECT_EQ(zlk_ts_batch_push_truncate(t.table, &reversed, 1), zlk_e_invalid_argument);
    EXPECT_NE(t.last_error_text().find("Invalid range: [0.5000000, 0.1000000)"), std::string::npos);
}

TEST(batch_push, columns_added_later_take_the_next_indexes)
{
    pushed_table t(1);
    const zlk_ts_batch_column_info extra[] = {{"ticks", "volume", 0}};
    ASSERT_EQ(zlk_ts_batch_table_extra_columns(t.table, extra, 1), zlk_e_ok);
    const zlk_timespec_t now = at_ms(1000);
    ASSERT_EQ(zlk_ts_batch_start_row(t.table, &now), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_row_set_int64(t.table, 3, 5), zlk_e_ok);
    ASSERT_EQ(zlk_ts_batch_push(t.table), zlk_e_ok);
    zlk_ts_int64_point * points = nullptr;
    size_t count = 0;
    const zlk_ts_range_t all = everything();
    ASSERT_EQ(zlk_ts_int64_get_ranges(t.h, "ticks", "volume", &all, 1, &points, &count), zlk_e_ok);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(points[0].value, 5);
    zlk_release(t.h, points);
}

} // namespace
