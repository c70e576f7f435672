// The staging of the batch writer without a network: rows into shards and chunks, fillers, the sort at
// push time, and the shard-write codec that both sides share.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "base/error_categories.hpp"
#include "staging_test_support.hpp"
#include "timeseries/batch_columns.hpp"
#include "timeseries/codec/shard_write.hpp"

namespace zlk::timeseries
{
namespace
{

using kernel::column_type;

using staging_test::at_ms;
using staging_test::entry;
using staging_test::hour_ms;

template <typename Payload>
const Payload & payload(const shard_chunk & chunk, std::size_t column)
{
    return std::get<Payload>(chunk.columns.at(column).payload);
}

std::vector<std::int64_t> offsets(const shard_chunk & chunk, std::size_t column)
{
    const auto o = chunk.offsets_of(chunk.columns.at(column));
    return {o.begin(), o.end()};
}

const chunk_list & shard(const table_writer & w, std::int64_t start)
{
    return w.shards().at(start);
}

struct three_columns : ::testing::Test
{
    batch_columns staged{1 << 20};

    void SetUp() override
    {
        const column_entry entries[] = {entry("t", "price", column_type::double_, 0),
                                        entry("t", "volume", column_type::int64, 1),
                                        entry("t", "note", column_type::string, 2)};
        staged.add(entries);
    }

    table_writer & writer() { return staged.writers().front(); }
};

TEST_F(three_columns, a_row_that_sets_one_column_gives_the_others_fillers_at_its_offset)
{
    ASSERT_EQ(staged.start_row(at_ms(1000)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1.5), zlk_e_ok);
    ASSERT_EQ(staged.start_row(at_ms(2000)), zlk_e_ok);
    ASSERT_EQ(staged.set_int64(1, 7), zlk_e_ok);
    writer().finish(false);

    const shard_chunk & c = *shard(writer(), 0).front();
    const std::vector<std::int64_t> expected{1000000000, 2000000000};
    EXPECT_EQ(offsets(c, 0), expected);
    EXPECT_EQ(offsets(c, 1), expected);
    EXPECT_EQ(offsets(c, 2), expected);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(payload<double_payload>(c, 0).values[1]), double_filler_bits);
    EXPECT_EQ(payload<int64_payload>(c, 1).values[0], int64_filler);
    EXPECT_EQ(payload<bytes_payload>(c, 2).values[0].data, nullptr);
    EXPECT_EQ(payload<bytes_payload>(c, 2).values[1].size, 0u);
}

TEST_F(three_columns, setters_check_the_index_then_the_type_and_need_a_started_row)
{
    EXPECT_EQ(staged.set_double(0, 1.0), zlk_e_invalid_argument);
    ASSERT_EQ(staged.start_row(at_ms(0)), zlk_e_ok);
    EXPECT_EQ(staged.set_double(3, 1.0), zlk_e_out_of_bounds);
    const std::uint64_t before = writer().approx_size();
    EXPECT_EQ(staged.set_int64(0, 1), zlk_e_incompatible_type);
    // The estimate counts the attempt, before the type is known.
    EXPECT_EQ(writer().approx_size(), before + 16);
    EXPECT_EQ(staged.set_timestamp(1, at_ms(5)), zlk_e_incompatible_type);
    EXPECT_EQ(staged.set_double(2, 1.0), zlk_e_incompatible_type);
    EXPECT_EQ(staged.set_bytes(2, nullptr, 0), zlk_e_ok);
}

TEST_F(three_columns, a_blob_of_any_length_raises_the_estimate_by_24_until_the_shard_changes)
{
    ASSERT_EQ(staged.start_row(at_ms(0)), zlk_e_ok);
    const std::uint64_t before = writer().approx_size();
    const std::string big(100000, 'x');
    ASSERT_EQ(staged.set_bytes(2, reinterpret_cast<const std::uint8_t *>(big.data()), big.size()), zlk_e_ok);
    EXPECT_EQ(writer().approx_size(), before + 24);
    ASSERT_EQ(staged.start_row(at_ms(hour_ms)), zlk_e_ok);
    ASSERT_EQ(staged.start_row(at_ms(1)), zlk_e_ok);
    EXPECT_GT(writer().approx_size(), big.size());
}

TEST_F(three_columns, rows_in_reverse_order_come_out_sorted_and_equal_times_keep_their_order)
{
    const std::int64_t times[] = {5000, 3000, 3000, 1000, 3000};
    for (std::size_t i = 0; i < std::size(times); ++i)
    {
        ASSERT_EQ(staged.start_row(at_ms(times[i])), zlk_e_ok);
        ASSERT_EQ(staged.set_int64(1, static_cast<std::int64_t>(i)), zlk_e_ok);
    }
    writer().finish(false);
    const auto & p = payload<int64_payload>(*shard(writer(), 0).front(), 1);
    EXPECT_EQ(offsets(*shard(writer(), 0).front(), 1),
              (std::vector<std::int64_t>{1000000000, 3000000000, 3000000000, 3000000000, 5000000000}));
    EXPECT_EQ(p.values, (std::vector<std::int64_t>{3, 1, 2, 4, 0}));
}

TEST_F(three_columns, rows_of_two_shards_make_two_chunks_and_going_back_finds_the_first_again)
{
    ASSERT_EQ(staged.start_row(at_ms(10)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1), zlk_e_ok);
    ASSERT_EQ(staged.start_row(at_ms(hour_ms + 10)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 2), zlk_e_ok);
    ASSERT_EQ(staged.start_row(at_ms(20)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 3), zlk_e_ok);
    writer().finish(false);
    ASSERT_EQ(writer().shards().size(), 2u);
    ASSERT_EQ(shard(writer(), 0).size(), 1u);
    EXPECT_EQ(payload<double_payload>(*shard(writer(), 0).front(), 0).values, (std::vector<double>{1, 3}));
    const shard_chunk & second = *shard(writer(), hour_ms).front();
    EXPECT_EQ(second.shard_start, hour_ms);
    EXPECT_EQ(payload<double_payload>(second, 0).shard_start, hour_ms);
    EXPECT_EQ(offsets(second, 0), (std::vector<std::int64_t>{10000000}));
}

TEST_F(three_columns, times_before_the_epoch_keep_negative_offsets_in_the_bucket_at_zero)
{
    ASSERT_EQ(staged.start_row(timespec{0, -1000000}), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1), zlk_e_ok);
    EXPECT_EQ(writer().row_shard(), 0);
    EXPECT_EQ(writer().row_offset(), -1000000);
}

TEST_F(three_columns, finishing_puts_empty_chunks_aside_and_reuses_them_for_the_next_shard)
{
    ASSERT_EQ(staged.start_row(at_ms(0)), zlk_e_ok);
    writer().finish(false);
    EXPECT_TRUE(writer().shards().empty());
    EXPECT_EQ(writer().spare_count(), 1u);
    ASSERT_EQ(staged.start_row(at_ms(3 * hour_ms)), zlk_e_ok);
    EXPECT_EQ(writer().spare_count(), 0u);
    EXPECT_EQ(writer().current_chunk()->shard_start, 3 * hour_ms);
}

TEST_F(three_columns, under_truncate_a_lone_empty_chunk_stays_to_carry_the_erasure)
{
    ASSERT_EQ(staged.start_row(at_ms(0)), zlk_e_ok);
    writer().finish(true);
    EXPECT_EQ(writer().shards().size(), 1u);
}

TEST(batch_staging, a_shard_past_max_chunk_size_starts_a_second_chunk_of_the_same_shard)
{
    batch_columns staged(4096);
    const column_entry e[] = {entry("t", "v", column_type::double_, 0)};
    staged.add(e);
    for (int i = 0; i < 1000; ++i)
    {
        ASSERT_EQ(staged.start_row(at_ms(i)), zlk_e_ok);
        ASSERT_EQ(staged.set_double(0, i), zlk_e_ok);
    }
    table_writer & w = staged.writers().front();
    w.finish(false);
    const chunk_list & chunks = shard(w, 0);
    ASSERT_GT(chunks.size(), 2u);
    std::size_t rows = 0;
    for (const auto & c : chunks)
    {
        EXPECT_LE(chunk_estimate(*c, 1), 4096u + 16);
        rows += c->columns[0].rows();
    }
    EXPECT_EQ(rows, 1000u);
}

TEST(batch_staging, columns_of_two_tables_get_a_writer_each_and_a_late_column_joins_existing_chunks)
{
    batch_columns staged(1 << 20);
    const column_entry first[] = {entry("a", "x", column_type::double_, 0),
                                  entry("b", "y", column_type::int64, 0)};
    staged.add(first);
    ASSERT_EQ(staged.writers().size(), 2u);
    ASSERT_EQ(staged.start_row(at_ms(0)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1), zlk_e_ok);
    ASSERT_EQ(staged.set_int64(1, 2), zlk_e_ok);

    const column_entry late[] = {entry("a", "z", column_type::timestamp, 1),
                                 entry("a", "x", column_type::double_, 0)};
    staged.add(late);
    EXPECT_EQ(staged.writers()[0].columns().size(), 2u);
    // The same column declared again writes where the first declaration does.
    EXPECT_EQ(staged.place(3)->position, staged.place(0)->position);
    ASSERT_EQ(staged.set_timestamp(2, at_ms(9)), zlk_e_ok);
    staged.writers()[0].finish(false);
    const shard_chunk & c = *shard(staged.writers()[0], 0).front();
    ASSERT_EQ(c.columns.size(), 2u);
    EXPECT_EQ(payload<timestamp_payload>(c, 1).values.size(), 1u);
}

TEST(batch_staging, the_start_hash_spreads_consecutive_shards)
{
    shard_start_hash h;
    EXPECT_NE(h(0), h(hour_ms));
    EXPECT_NE(h(hour_ms) & 0xFF, h(2 * hour_ms) & 0xFF);
}

// The codec both sides share: what the client writes, a node reads back with the types it knows.
struct shard_write_codec : three_columns
{
    std::vector<std::uint8_t> encode(const shard_write & m)
    {
        const protocol::operation_body body = build_shard_write_body(m);
        EXPECT_FALSE(body.error);
        return protocol::flat_bytes(body);
    }

    boost::system::error_code decode(const std::vector<std::uint8_t> & bytes, shard_write_view & out)
    {
        serialization::cursor c(bytes.data(), bytes.size());
        std::uint16_t op = 0;
        EXPECT_FALSE(serialization::read_u16(c, op));
        const auto known = [](std::string_view) { return boost::system::error_code{}; };
        const auto type_of = [](std::uint64_t index, column_type & t) -> boost::system::error_code
        {
            static constexpr column_type types[] = {column_type::double_, column_type::int64,
                                                    column_type::string};
            if (index >= 3)
            {
                return make_error_code(kernel::error::column_not_found);
            }
            t = types[index];
            return {};
        };
        return decode_shard_write(c, op, known, type_of, out);
    }

    shard_write message(protocol::operation op)
    {
        writer().finish(false);
        const shard_chunk & c = *shard(writer(), 0).front();
        shard_write m;
        m.op = op;
        m.table = "t";
        m.bucket_key = key;
        m.chunk = &c;
        m.shard_size = c.shard_size;
        m.shard_start = c.shard_start;
        return m;
    }

    std::string key = "bucket-key";
};

TEST_F(shard_write_codec, a_chunk_decodes_to_the_rows_that_were_staged)
{
    const std::string text = "hello";
    ASSERT_EQ(staged.start_row(at_ms(7)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 2.5), zlk_e_ok);
    ASSERT_EQ(staged.set_bytes(2, reinterpret_cast<const std::uint8_t *>(text.data()), text.size()),
              zlk_e_ok);
    ASSERT_EQ(staged.start_row(at_ms(3)), zlk_e_ok);
    ASSERT_EQ(staged.set_int64(1, -4), zlk_e_ok);
    shard_write m = message(protocol::operation::ts_batch_push);
    m.fast = true;
    const std::vector<std::uint8_t> bytes = encode(m);

    shard_write_view v;
    ASSERT_FALSE(decode(bytes, v));
    EXPECT_EQ(v.table, "t");
    EXPECT_EQ(v.bucket_key, "bucket-key");
    EXPECT_TRUE(v.has_chunk);
    EXPECT_TRUE(v.fast);
    EXPECT_EQ(v.shard_size, static_cast<std::uint64_t>(hour_ms));
    ASSERT_EQ(v.columns.size(), 3u);
    EXPECT_EQ(v.columns[0].name, "price");
    EXPECT_EQ(v.columns[1].rows, 2u);
    std::int64_t second = 0;
    std::memcpy(&second, v.columns[1].fixed.data() + 8, 8);
    EXPECT_EQ(second, int64_filler);
    std::int64_t first_offset = 0;
    std::memcpy(&first_offset, v.columns[2].offsets.data(), 8);
    EXPECT_EQ(first_offset, 3000000);
    ASSERT_EQ(v.columns[2].bytes.size(), 2u);
    EXPECT_TRUE(v.columns[2].bytes[0].empty());
    EXPECT_EQ(std::string(v.columns[2].bytes[1].begin(), v.columns[2].bytes[1].end()), text);
}

// A chunk that keeps its offsets once puts on the wire exactly the bytes of one whose columns have
// their own: each column carries the offsets.
TEST_F(shard_write_codec, shared_row_offsets_encode_as_offsets_of_each_column)
{
    for (std::int64_t ms = 1; ms <= 5; ++ms)
    {
        ASSERT_EQ(staged.start_row(at_ms(ms)), zlk_e_ok);
        ASSERT_EQ(staged.set_double(0, static_cast<double>(ms)), zlk_e_ok);
        if (ms != 3)
        {
            ASSERT_EQ(staged.set_int64(1, ms), zlk_e_ok);
        }
    }
    const shard_write m = message(protocol::operation::ts_batch_push);
    ASSERT_TRUE(m.chunk->shared_rows);
    const std::vector<std::uint8_t> shared = encode(m);
    shard(writer(), 0).front()->unshare();
    ASSERT_FALSE(m.chunk->shared_rows);
    EXPECT_EQ(encode(m), shared);

    shard_write_view v;
    ASSERT_FALSE(decode(shared, v));
    ASSERT_EQ(v.columns.size(), 3u);
    for (const auto & column : v.columns)
    {
        EXPECT_EQ(column.rows, 5u) << column.name;
        EXPECT_TRUE(std::equal(column.offsets.begin(), column.offsets.end(), v.columns[0].offsets.begin(),
                               v.columns[0].offsets.end()))
            << column.name;
    }
}

TEST_F(shard_write_codec, the_asynchronous_form_has_no_flag_and_the_truncating_form_carries_its_ranges)
{
    ASSERT_EQ(staged.start_row(at_ms(1)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1), zlk_e_ok);
    shard_write async = message(protocol::operation::ts_batch_push_async);
    shard_write_view v;
    const std::vector<std::uint8_t> a = encode(async);
    ASSERT_FALSE(decode(a, v));
    EXPECT_FALSE(v.fast);

    const zlk_ts_range_t ranges[] = {{{0, 0}, {1, 0}}, {{5, 0}, {6, 500}}};
    shard_write truncating = async;
    truncating.op = protocol::operation::ts_batch_push_truncate;
    truncating.ranges = ranges;
    const std::vector<std::uint8_t> t = encode(truncating);
    // The fast flag, the range count and the eight varints of the two ranges.
    EXPECT_EQ(t.size(), a.size() + 1 + 1 + 4 + 5);
    ASSERT_FALSE(decode(t, v));
    ASSERT_EQ(v.ranges.size(), 2u);
    EXPECT_EQ(v.ranges[1].end.tv_nsec, 500);
}

TEST_F(shard_write_codec, the_scratch_bound_holds_for_many_rows_of_every_type)
{
    batch_columns all(1 << 30);
    const column_entry e[] = {
        entry("t", "d", column_type::double_, 0), entry("t", "i", column_type::int64, 1),
        entry("t", "s", column_type::timestamp, 2), entry("t", "b", column_type::blob, 3)};
    all.add(e);
    const std::string blob(300, 'b');
    for (int i = 0; i < 2000; ++i)
    {
        ASSERT_EQ(all.start_row(at_ms(i)), zlk_e_ok);
        ASSERT_EQ(all.set_bytes(3, reinterpret_cast<const std::uint8_t *>(blob.data()), blob.size()),
                  zlk_e_ok);
    }
    table_writer & w = all.writers().front();
    w.finish(false);
    shard_write m;
    m.table = "t";
    m.bucket_key = key;
    m.chunk = w.shards().at(0).front().get();
    const shard_write_bound b = shard_write_bounds(m);
    std::vector<std::uint8_t> scratch(b.scratch);
    serialization::small_scatter<4> scatter;
    serialization::writer out(scatter, scratch);
    EXPECT_NO_THROW(encode_shard_write(out, m));
    EXPECT_GT(scatter.total_size(), 2000u * 300);
}

TEST_F(shard_write_codec, damaged_messages_are_refused_without_reading_past_the_end)
{
    ASSERT_EQ(staged.start_row(at_ms(1)), zlk_e_ok);
    ASSERT_EQ(staged.set_double(0, 1), zlk_e_ok);
    const std::vector<std::uint8_t> bytes = encode(message(protocol::operation::ts_batch_push));
    for (std::size_t cut = 2; cut < bytes.size(); ++cut)
    {
        const std::vector<std::uint8_t> part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cut));
        shard_write_view v;
        EXPECT_TRUE(decode(part, v)) << "cut at " << cut;
    }
    // A column index the table lacks is the reader's verdict.
    std::vector<std::uint8_t> wrong = bytes;
    const std::size_t index_at = 2 + 2 + 12 + 1 + serialization::varint_size(hour_ms) + 1 + 1;
    ASSERT_EQ(wrong[index_at], 0);
    wrong[index_at] = 9;
    shard_write_view v;
    EXPECT_EQ(decode(wrong, v), make_error_code(kernel::error::column_not_found));
}

} // namespace
} // namespace zlk::timeseries
