// The bodies of entry operations, byte for byte where the layout matters to the node.
#include <gtest/gtest.h>

#include <vector>

#include "entries/batch.hpp"
#include "entries/entry_requests.hpp"

namespace zlk::client
{
namespace
{

std::vector<std::uint8_t> bytes_of(const protocol::operation_body & b)
{
    EXPECT_FALSE(b.error);
    return {b.data, b.data + b.size};
}

TEST(expiry_on_the_wire, zero_and_minus_one_are_reserved_and_other_times_split_toward_zero)
{
    EXPECT_EQ(wire_expiry(0), (timespec{0, 0}));
    EXPECT_EQ(wire_expiry(-1), (timespec{0, -1}));
    EXPECT_EQ(wire_expiry(1500), (timespec{1, 500000000}));
    EXPECT_EQ(wire_expiry(-1500), (timespec{-1, -500000000}));
    EXPECT_EQ(wire_expiry(-2), (timespec{0, -2000000}));
}

TEST(entry_bodies, integers_travel_as_fixed_words_and_the_alias_keeps_its_zero)
{
    const char alias[] = "a";
    const auto body = bytes_of(int_write_body(protocol::operation::int_put, wire_alias(alias, 2), -1, -1));
    const std::vector<std::uint8_t> expected = {70,   0,    2,    'a',  0,    0xFF, 0xFF, 0xFF,
                                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0,    0xFF, 0xFF,
                                                0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};
    EXPECT_EQ(body, expected);
    // int_add always keeps the expiry.
    const auto add = bytes_of(int_add_body(1));
    EXPECT_EQ(add.size(), 2u + 8 + 1 + 10);
    EXPECT_EQ(add[10], 0);
}

TEST(entry_bodies, a_negative_relative_expiry_is_a_ten_byte_varint_and_fixed_bodies_are_tiny)
{
    EXPECT_EQ(bytes_of(expires_from_now_body(-1)).size(), 2u + 10);
    EXPECT_EQ(bytes_of(entry_info_body()), (std::vector<std::uint8_t>{2, 0}));
    EXPECT_EQ(bytes_of(typed_body(protocol::operation::remove, kernel::any_entry_type)),
              (std::vector<std::uint8_t>{12, 0, 0xFF}));
    EXPECT_EQ(bytes_of(transaction_state_body(4)), (std::vector<std::uint8_t>{8, 0, 4}));
    EXPECT_EQ(bytes_of(get_body(0, 0, kernel::entry_type::integer)),
              (std::vector<std::uint8_t>{1, 0, 0, 0, 1}));
}

TEST(content_compression, applies_from_64_bytes_only_when_it_shrinks)
{
    const std::vector<std::uint8_t> small(63, 0);
    EXPECT_FALSE(prepare_content(small.data(), small.size(), true).compressed);
    const std::vector<std::uint8_t> zeros(64, 0);
    const outgoing_content out = prepare_content(zeros.data(), zeros.size(), true);
    ASSERT_TRUE(out.compressed);
    ASSERT_GE(out.bytes.size(), 6u);
    EXPECT_EQ(out.bytes[0], 0x42);
    EXPECT_EQ(out.bytes[1], 0x42);
    EXPECT_EQ(out.bytes[2], 64);
    EXPECT_EQ(out.bytes[3] | out.bytes[4] | out.bytes[5], 0);
    EXPECT_FALSE(prepare_content(zeros.data(), zeros.size(), false).compressed);
}

TEST(entry_info, only_the_exact_layout_is_read)
{
    std::vector<std::uint8_t> content(entry_info_size, 0);
    content[32] = 1;
    content[33] = 8;
    content[57] = 10;
    entry_info info;
    ASSERT_EQ(decode_entry_info(content, info), zlk_e_ok);
    EXPECT_EQ(info.type, 1);
    EXPECT_EQ(info.size, 8u);
    EXPECT_EQ(expiry_milliseconds(info.expiry), 10000);
    content.pop_back();
    EXPECT_EQ(decode_entry_info(content, info), zlk_e_invalid_reply);
}

TEST(batch_preparation, kinds_outside_the_table_and_bad_aliases_are_refused)
{
    zlk_operation_t op{};
    batch_item item;
    op.alias = "a";
    for (const zlk_operation_type_t kind : {-1, 3, 6, 7, 14})
    {
        op.type = kind;
        EXPECT_EQ(prepare_batch_record(op, 0, false, 0, item), zlk_e_invalid_argument) << kind;
    }
    op.type = zlk_op_int_get;
    op.alias = "";
    EXPECT_EQ(prepare_batch_record(op, 0, false, 0, item), zlk_e_invalid_argument);
    const std::string long_alias(1025, 'x');
    op.alias = long_alias.c_str();
    EXPECT_EQ(prepare_batch_record(op, 0, false, 0, item), zlk_e_alias_too_long);
    op.alias = "ok";
    op.type = zlk_op_int_put;
    ASSERT_EQ(prepare_batch_record(op, 0, false, access_transaction, item), zlk_e_ok);
    EXPECT_EQ(item.required_access, access_transaction | access_put);
}

TEST(batch_shuffle, every_order_is_a_permutation_and_the_generator_moves_on)
{
    std::vector<node_group> groups(5);
    for (std::size_t i = 0; i < groups.size(); ++i)
    {
        groups[i].node.id.words[0] = i;
    }
    std::atomic<std::uint64_t> state{12345};
    shuffle_groups(groups, state);
    EXPECT_NE(state.load(), 12345u);
    std::vector<std::uint64_t> seen;
    for (const auto & g : groups)
    {
        seen.push_back(g.node.id.words[0]);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::uint64_t>{0, 1, 2, 3, 4}));
}

} // namespace
} // namespace zlk::client
