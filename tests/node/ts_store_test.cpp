// The bucket store of a node: rows merged in time order, equal times in arrival order, erasure by
// offset, and the drops by table prefix and by size.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/error_categories.hpp"
#include "node/ts_store.hpp"

namespace zlk::node
{
namespace
{

using kernel::column_type;

std::vector<std::uint8_t> int64_bytes(const std::vector<std::int64_t> & values)
{
    std::vector<std::uint8_t> out(values.size() * 8);
    std::size_t i = 0;
    for (const std::int64_t v : values)
    {
        std::memcpy(out.data() + 8 * i++, &v, 8);
    }
    return out;
}

boost::system::error_code merge_int64(ts_bucket & b, const std::vector<std::int64_t> & offsets,
                                      const std::vector<std::int64_t> & values)
{
    const auto v = int64_bytes(values);
    return b.merge(0, column_type::int64, offsets, ts_incoming_values{v, {}});
}

TEST(ts_bucket, rows_merge_in_time_order_and_equal_times_keep_their_arrival_order)
{
    ts_bucket b;
    ASSERT_FALSE(merge_int64(b, {30, 10, 20, 10}, {1, 2, 3, 4}));
    ASSERT_FALSE(merge_int64(b, {10, 40, 5, 30}, {5, 6, 7, 8}));
    const ts_column_data & c = b.columns.at(0);
    EXPECT_EQ(c.offsets, (std::vector<std::int64_t>{5, 10, 10, 10, 20, 30, 30, 40}));
    EXPECT_EQ(c.integers, (std::vector<std::int64_t>{7, 2, 4, 5, 3, 1, 8, 6}));
}

TEST(ts_bucket, rows_after_the_last_are_appended_and_negative_offsets_sort_first)
{
    ts_bucket b;
    ASSERT_FALSE(merge_int64(b, {1, 2}, {1, 2}));
    ASSERT_FALSE(merge_int64(b, {2, 3}, {3, 4}));
    ASSERT_FALSE(merge_int64(b, {-9}, {5}));
    const ts_column_data & c = b.columns.at(0);
    EXPECT_EQ(c.offsets, (std::vector<std::int64_t>{-9, 1, 2, 2, 3}));
    EXPECT_EQ(c.integers, (std::vector<std::int64_t>{5, 1, 2, 3, 4}));
}

// The same rows through merge_received, their offsets one byte off alignment as in a request.
boost::system::error_code merge_received_int64(ts_bucket & b, const std::vector<std::int64_t> & offsets,
                                               const std::vector<std::int64_t> & values)
{
    const auto bytes = int64_bytes(offsets);
    std::vector<std::uint8_t> shifted(bytes.size() + 1);
    std::copy(bytes.begin(), bytes.end(), shifted.begin() + 1);
    const auto v = int64_bytes(values);
    return b.merge_received(0, column_type::int64, std::span(shifted).subspan(1), ts_incoming_values{v, {}});
}

TEST(ts_bucket, offsets_as_received_merge_like_aligned_ones_in_order_or_not)
{
    using rows = std::vector<std::int64_t>;
    const std::vector<std::vector<std::pair<rows, rows>>> sequences = {
        {{{1, 2}, {1, 2}}, {{2, 3}, {3, 4}}, {{-9}, {5}}},
        {{{30, 10, 20, 10}, {1, 2, 3, 4}}, {{10, 40, 5, 30}, {5, 6, 7, 8}}},
        {{{5, 6, 7}, {1, 2, 3}}, {{7, 7, 9}, {4, 5, 6}}, {{}, {}}},
    };
    for (const auto & sequence : sequences)
    {
        ts_bucket aligned;
        ts_bucket received;
        for (const auto & [o, v] : sequence)
        {
            ASSERT_FALSE(merge_int64(aligned, o, v));
            ASSERT_FALSE(merge_received_int64(received, o, v));
        }
        EXPECT_EQ(received.columns.at(0).offsets, aligned.columns.at(0).offsets);
        EXPECT_EQ(received.columns.at(0).integers, aligned.columns.at(0).integers);
    }
    ts_bucket b;
    ASSERT_FALSE(merge_received_int64(b, {1}, {1}));
    const auto bytes = int64_bytes({2});
    EXPECT_EQ(b.merge_received(0, column_type::double_, bytes, ts_incoming_values{bytes, {}}),
              make_error_code(kernel::error::incompatible_type));
    EXPECT_EQ(b.merge_received(0, column_type::int64, bytes, ts_incoming_values{{bytes.data(), 4}, {}}),
              make_error_code(kernel::error::unexpected_value));
    EXPECT_EQ(b.columns.at(0).size(), 1u);
}

TEST(ts_bucket, byte_strings_merge_with_their_rows)
{
    ts_bucket b;
    const std::vector<std::int64_t> first{20, 10};
    const std::string x = "x";
    const std::span<const std::uint8_t> v1[] = {{reinterpret_cast<const std::uint8_t *>(x.data()), 1}, {}};
    ASSERT_FALSE(b.merge(2, column_type::string, first, ts_incoming_values{{}, v1}));
    const std::vector<std::int64_t> second{15};
    const std::string long_value(1000, 'z');
    const std::span<const std::uint8_t> v2[] = {
        {reinterpret_cast<const std::uint8_t *>(long_value.data()), long_value.size()}};
    ASSERT_FALSE(b.merge(2, column_type::string, second, ts_incoming_values{{}, v2}));
    const ts_column_data & c = b.columns.at(2);
    EXPECT_EQ(c.offsets, (std::vector<std::int64_t>{10, 15, 20}));
    EXPECT_EQ(c.bytes, (std::vector<std::string>{"", long_value, "x"}));
}

TEST(ts_bucket, a_merge_that_does_not_fit_the_column_changes_nothing)
{
    ts_bucket b;
    ASSERT_FALSE(merge_int64(b, {1}, {1}));
    const std::vector<std::int64_t> o{2};
    const auto v = int64_bytes({2});
    EXPECT_EQ(b.merge(0, column_type::double_, o, ts_incoming_values{v, {}}),
              make_error_code(kernel::error::incompatible_type));
    EXPECT_EQ(b.merge(0, column_type::int64, o, ts_incoming_values{{v.data(), 4}, {}}),
              make_error_code(kernel::error::unexpected_value));
    EXPECT_EQ(b.columns.at(0).size(), 1u);
}

TEST(ts_column_data, rows_between_and_erase_between_use_half_open_offsets)
{
    ts_bucket b;
    ASSERT_FALSE(merge_int64(b, {1, 2, 2, 3, 4}, {1, 2, 3, 4, 5}));
    ts_column_data & c = b.columns.at(0);
    EXPECT_EQ(c.rows_between(2, 4), (std::pair<std::size_t, std::size_t>{1, 4}));
    EXPECT_EQ(c.rows_between(4, 2), (std::pair<std::size_t, std::size_t>{0, 0}));
    EXPECT_EQ(c.erase_between(2, 3), 2u);
    EXPECT_EQ(c.erase_between(2, 3), 0u);
    EXPECT_EQ(c.offsets, (std::vector<std::int64_t>{1, 3, 4}));
    EXPECT_EQ(c.integers, (std::vector<std::int64_t>{1, 4, 5}));
}

struct store_with_buckets : ::testing::Test
{
    void add(const std::string & key, std::int64_t start, std::size_t rows)
    {
        chord::ring_id id;
        id.words = {std::hash<std::string>{}(key), 1, 2, 3};
        std::vector<std::int64_t> offsets(rows, 0);
        std::vector<std::uint8_t> values(rows * 8, 0);
        ASSERT_FALSE(store.with_bucket(
            id, true,
            [&](ts_bucket & b)
            {
                b.key = key;
                b.shard_start = start;
            },
            [&](ts_bucket * b) {
                return b->merge(0, column_type::double_, offsets, ts_incoming_values{values, {}});
            }));
    }

    ts_store store;
};

TEST_F(store_with_buckets, dropping_a_prefix_takes_only_that_tables_buckets)
{
    add("A.1", 1, 1);
    add("A.2", 2, 1);
    add("B.1", 1, 1);
    EXPECT_EQ(store.drop_prefix("A."), 2u);
    EXPECT_EQ(store.bucket_count(), 1u);
}

TEST_F(store_with_buckets, expiry_by_size_drops_the_oldest_buckets_first)
{
    add("A.3", 3000, 100);
    add("A.1", 1000, 100);
    add("A.2", 2000, 100);
    add("B.0", 0, 100);
    // Each bucket holds some 1600 bytes: keeping under 2000 leaves the newest only.
    EXPECT_EQ(store.expire_by_size("A.", 2000), 2u);
    EXPECT_EQ(store.bucket_count(), 2u);
    bool newest_kept = false;
    chord::ring_id id;
    id.words = {std::hash<std::string>{}("A.3"), 1, 2, 3};
    store.with_bucket(id, false, {},
                      [&](ts_bucket * b)
                      {
                          newest_kept = b != nullptr;
                          return boost::system::error_code{};
                      });
    EXPECT_TRUE(newest_kept);
    EXPECT_EQ(store.expire_by_size("A.", 1u << 30), 0u);
}

TEST(ts_store, schemas_are_cached_by_table_until_forgotten)
{
    ts_store store;
    EXPECT_EQ(store.cached_schema("t"), nullptr);
    auto s = std::make_shared<ts_table_schema>();
    s->columns.push_back({"c", column_type::blob, 4});
    store.cache_schema("t", s);
    ASSERT_NE(store.cached_schema("t"), nullptr);
    EXPECT_EQ(store.cached_schema("t")->find(4)->name, "c");
    EXPECT_EQ(store.cached_schema("t")->find("c")->index, 4u);
    store.forget_schema("t");
    EXPECT_EQ(store.cached_schema("t"), nullptr);
}

TEST(ts_store, writers_of_one_bucket_and_a_dropper_of_others_keep_every_row)
{
    ts_store store;
    chord::ring_id shared;
    shared.words = {7, 7, 7, 7};
    constexpr int writers = 4;
    constexpr int rounds = 200;
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w)
    {
        threads.emplace_back(
            [&, w]
            {
                for (int r = 0; r < rounds; ++r)
                {
                    const std::vector<std::int64_t> offsets{(r * 31 + w) % 97};
                    const auto values = int64_bytes({w});
                    store.with_bucket(
                        shared, true, [](ts_bucket & b) { b.key = "keep.1"; },
                        [&](ts_bucket * b) {
                            return b->merge(0, column_type::int64, offsets, ts_incoming_values{values, {}});
                        });
                    chord::ring_id other;
                    other.words = {static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(r), 1, 1};
                    store.with_bucket(
                        other, true, [](ts_bucket & b) { b.key = "drop.1"; },
                        [](ts_bucket *) { return boost::system::error_code{}; });
                }
            });
    }
    threads.emplace_back(
        [&]
        {
            for (int r = 0; r < rounds; ++r)
            {
                store.drop_prefix("drop.");
                store.expire_by_size("drop.", 0);
            }
        });
    for (auto & t : threads)
    {
        t.join();
    }
    store.drop_prefix("drop.");
    EXPECT_EQ(store.bucket_count(), 1u);
    store.with_bucket(
        shared, false, {},
        [&](ts_bucket * b)
        {
            EXPECT_EQ(b->columns.at(0).size(), static_cast<std::size_t>(writers * rounds));
            EXPECT_TRUE(std::is_sorted(b->columns.at(0).offsets.begin(), b->columns.at(0).offsets.end()));
            return boost::system::error_code{};
        });
}

} // namespace
} // namespace zlk::node
