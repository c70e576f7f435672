// The codec of table and column messages: what the client builds, the node reads back; what the node
// answers, the client reads back; and a body cut short anywhere is refused, not misread.
#include <gtest/gtest.h>

#include <cstring>

#include "timeseries/codec/ts_messages.hpp"

namespace zlk::timeseries
{
namespace
{

namespace ser = zlk::serialization;

// The fields after the operation number.
ser::cursor fields_of(const protocol::operation_body & body)
{
    EXPECT_FALSE(body.error);
    return ser::cursor(body.data + 2, body.size - 2);
}

// Every strict prefix of the fields fails to decode.
template <typename Decode>
void expect_every_prefix_refused(const protocol::operation_body & body, Decode && decode)
{
    for (std::size_t n = 0; n + 2 < body.size; ++n)
    {
        ser::cursor c(body.data + 2, n);
        EXPECT_TRUE(decode(c)) << "prefix of " << n << " bytes";
    }
}

TEST(ts_messages, a_create_request_carries_alias_shard_size_and_columns)
{
    const column_description columns[] = {{"price", kernel::column_type::double_},
                                          {"label", kernel::column_type::string}};
    const auto body = build_create_table("trades", 3600000, columns);
    ser::cursor c = fields_of(body);
    table_columns_fields f;
    ASSERT_FALSE(decode_create_table(c, f));
    EXPECT_EQ(f.alias, "trades");
    EXPECT_EQ(f.shard_size, 3600000u);
    ASSERT_EQ(f.columns.size(), 2u);
    EXPECT_EQ(f.columns[1].name, "label");
    EXPECT_EQ(f.columns[1].type, kernel::column_type::string);
    EXPECT_EQ(c.remaining, 0u);
    expect_every_prefix_refused(body,
                                [](ser::cursor & at)
                                {
                                    table_columns_fields g;
                                    return decode_create_table(at, g);
                                });
}

TEST(ts_messages, a_column_type_above_four_is_refused_by_the_node)
{
    const column_description columns[] = {{"x", static_cast<kernel::column_type>(5)}};
    const auto body = build_insert_columns("t", columns);
    ser::cursor c = fields_of(body);
    table_columns_fields f;
    EXPECT_TRUE(decode_insert_columns(c, f));
}

TEST(ts_messages, a_listing_reads_back_with_or_without_terminated_names)
{
    const listed_column columns[] = {{"a", kernel::column_type::blob, 0},
                                     {"bb", kernel::column_type::int64, 7}};
    std::vector<std::uint8_t> content;
    encode_table_listing(content, 42, 1000, columns);
    table_listing listing;
    ASSERT_FALSE(decode_table_listing(content, listing));
    EXPECT_EQ(listing.tag, 42u);
    EXPECT_EQ(listing.shard_size, 1000u);
    ASSERT_EQ(listing.columns.size(), 2u);
    EXPECT_EQ(listing.columns[1].name, "bb");
    EXPECT_EQ(listing.columns[1].index, 7u);

    const listed_column terminated[] = {{std::string_view("a\0", 2), kernel::column_type::blob, 0}};
    content.clear();
    encode_table_listing(content, 1, 1, terminated);
    ASSERT_FALSE(decode_table_listing(content, listing));
    EXPECT_EQ(listing.columns[0].name, "a");

    content.pop_back();
    EXPECT_TRUE(decode_table_listing(content, listing));
    EXPECT_TRUE(decode_table_listing({}, listing));
}

TEST(ts_messages, an_insert_carries_offsets_and_values_of_its_type)
{
    const std::int64_t offsets[] = {5, -3, 5};
    const double values[] = {1.5, -2.0, 3.25};
    column_insert_fields f;
    f.alias = "t";
    f.bucket_key = "key";
    f.column = "c";
    f.index = 3;
    f.shard_size = 1000;
    f.shard_start = -2000;
    f.offsets = offsets;
    f.fixed = {reinterpret_cast<const std::uint8_t *>(values), sizeof values};
    const auto body = build_column_insert(kernel::column_type::double_, f);
    ser::cursor c = fields_of(body);
    decoded_column_insert d;
    ASSERT_FALSE(decode_column_insert(c, kernel::column_type::double_, d));
    EXPECT_EQ(d.shard_start, -2000);
    EXPECT_EQ(d.offsets, (std::vector<std::int64_t>{5, -3, 5}));
    ASSERT_EQ(d.value_count, 3u);
    double back[3];
    std::memcpy(back, d.fixed.data(), sizeof back);
    EXPECT_EQ(back[2], 3.25);
    expect_every_prefix_refused(body,
                                [](ser::cursor & at)
                                {
                                    decoded_column_insert g;
                                    return decode_column_insert(at, kernel::column_type::double_, g);
                                });
}

TEST(ts_messages, a_byte_string_insert_keeps_empty_values)
{
    const std::int64_t offsets[] = {1, 2};
    const std::uint8_t hello[] = {'h', 'i'};
    const std::span<const std::uint8_t> values[] = {{hello, 2}, {}};
    column_insert_fields f;
    f.alias = "t";
    f.bucket_key = "key";
    f.column = "c";
    f.offsets = offsets;
    f.bytes = values;
    const auto body = build_column_insert(kernel::column_type::blob, f);
    EXPECT_EQ(body.bytes()[0], 111);
    ser::cursor c = fields_of(body);
    decoded_column_insert d;
    ASSERT_FALSE(decode_column_insert(c, kernel::column_type::blob, d));
    ASSERT_EQ(d.bytes.size(), 2u);
    EXPECT_EQ(d.bytes[0].size(), 2u);
    EXPECT_TRUE(d.bytes[1].empty());
}

TEST(ts_messages, a_read_request_and_its_reply_go_both_ways)
{
    const zlk_ts_range_t ranges[] = {{{1, 0}, {2, 0}}, {{-5, 3}, {-4, 0}}};
    const wire_column columns[] = {{4, kernel::column_type::string}};
    get_ranges_fields f;
    f.bucket.words = {1, 2, 3, 4};
    f.shard_size = 60000;
    f.shard_start = -60000;
    f.ranges = ranges;
    f.columns = columns;
    const auto body = build_get_ranges(f);
    ser::cursor c = fields_of(body);
    decoded_get_ranges d;
    ASSERT_FALSE(decode_get_ranges(c, d));
    EXPECT_EQ(d.bucket, f.bucket);
    EXPECT_EQ(d.shard_start, -60000);
    ASSERT_EQ(d.ranges.size(), 2u);
    EXPECT_EQ(d.ranges[1].begin.tv_sec, -5);
    ASSERT_EQ(d.columns.size(), 1u);
    EXPECT_EQ(d.columns[0].index, 4u);
    expect_every_prefix_refused(body,
                                [](ser::cursor & at)
                                {
                                    decoded_get_ranges g;
                                    return decode_get_ranges(at, g);
                                });

    std::vector<std::uint8_t> reply;
    encode_rows_count(reply, 2);
    encode_rows_head(reply, {4, kernel::column_type::string}, 2);
    content_writer w(reply);
    w.put_i64(-7);
    w.put_i64(9);
    w.put_bytes("ab", 2);
    w.put_bytes("", 0);
    encode_rows_head(reply, {0, kernel::column_type::timestamp}, 1);
    w.put_i64(1);
    w.put_i64(100);
    w.put_i64(200);
    std::vector<column_rows> rows;
    ASSERT_FALSE(decode_rows_reply(reply, rows));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].offset(0), -7);
    ser::cursor values(rows[0].values);
    EXPECT_EQ(next_bytes(values).size(), 2u);
    EXPECT_EQ(next_bytes(values).size(), 0u);
    EXPECT_EQ(rows[1].timestamp_at(0), timespec(100, 200));
    for (std::size_t n = 0; n < reply.size(); ++n)
    {
        EXPECT_TRUE(decode_rows_reply({reply.data(), n}, rows)) << n;
    }
}

TEST(ts_messages, an_erase_request_refuses_an_unknown_flag)
{
    const zlk_ts_range_t ranges[] = {{{1, 0}, {2, 0}}};
    erase_ranges_fields f;
    f.alias = "t";
    f.bucket_key = "k";
    f.ranges = ranges;
    f.flag = erase_every_column;
    auto body = build_erase_ranges(f);
    ser::cursor c = fields_of(body);
    decoded_erase_ranges d;
    ASSERT_FALSE(decode_erase_ranges(c, d));
    EXPECT_EQ(d.flag, erase_every_column);
    f.flag = 2;
    body = build_erase_ranges(f);
    c = fields_of(body);
    EXPECT_TRUE(decode_erase_ranges(c, d));
}

TEST(ts_messages, a_timestamps_request_and_its_reply_go_both_ways)
{
    const zlk_ts_range_t ranges[] = {{{1, 0}, {2, 0}}};
    get_timestamps_fields f;
    f.shard_start = 1000;
    f.index = 2;
    f.ranges = ranges;
    f.shard_size = 1000;
    f.column = {2, kernel::column_type::int64};
    const auto body = build_get_timestamps(f);
    ser::cursor c = fields_of(body);
    decoded_get_timestamps d;
    ASSERT_FALSE(decode_get_timestamps(c, d));
    EXPECT_EQ(d.indexes, (std::vector<std::uint64_t>{2}));
    EXPECT_EQ(d.columns.size(), 1u);
    expect_every_prefix_refused(body,
                                [](ser::cursor & at)
                                {
                                    decoded_get_timestamps g;
                                    return decode_get_timestamps(at, g);
                                });

    const std::int64_t offsets[] = {3, -4};
    std::vector<std::uint8_t> reply;
    encode_offsets(reply, offsets);
    offsets_view v;
    ASSERT_FALSE(decode_offsets_reply(reply, v));
    ASSERT_EQ(v.count, 2u);
    EXPECT_EQ(v[1], -4);
    reply.pop_back();
    EXPECT_TRUE(decode_offsets_reply(reply, v));
}

TEST(ts_messages, the_small_table_requests_go_both_ways)
{
    auto body = build_drop_buckets("gone");
    EXPECT_EQ(body.bytes()[0], 200);
    ser::cursor c = fields_of(body);
    std::string_view alias;
    ASSERT_FALSE(decode_drop_buckets(c, alias));
    EXPECT_EQ(alias, "gone");

    body = build_expire_by_size("t", std::uint64_t{1} << 40);
    c = fields_of(body);
    std::uint64_t limit = 0;
    ASSERT_FALSE(decode_expire_by_size(c, alias, limit));
    EXPECT_EQ(limit, std::uint64_t{1} << 40);

    body = build_shard_info("col");
    c = fields_of(body);
    ASSERT_FALSE(decode_shard_info(c, alias));
    EXPECT_EQ(alias, "col");
    std::vector<std::uint8_t> reply;
    encode_shard_info(reply, 86400000, kernel::column_type::timestamp, 9);
    shard_info info;
    ASSERT_FALSE(decode_shard_info_reply(reply, info));
    EXPECT_EQ(info.shard_size, 86400000u);
    EXPECT_EQ(info.type, kernel::column_type::timestamp);
    EXPECT_EQ(info.index, 9u);
    reply.pop_back();
    EXPECT_TRUE(decode_shard_info_reply(reply, info));
}

TEST(ts_messages, a_name_without_its_terminator_is_refused)
{
    const auto body = build_list_columns("t");
    std::vector<std::uint8_t> fields(body.data + 2, body.data + body.size);
    fields.back() = 'x';
    ser::cursor c(fields.data(), fields.size());
    std::string_view alias;
    EXPECT_TRUE(decode_list_columns(c, alias));
}

} // namespace
} // namespace zlk::timeseries
