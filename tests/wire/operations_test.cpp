#include <gtest/gtest.h>

#include <set>
#include <string>

#include "wire/messages.hpp"
#include "wire/operation_body.hpp"
#include "wire/operations.hpp"
#include "wire_test_support.hpp"

namespace zlk::protocol
{
namespace
{

using serialization::bytes_bound;

TEST(operation_table, looks_up_numbers_and_recognises_unknown_ones)
{
    struct row
    {
        std::uint16_t number;
        operation_class cls;
        const char * name;
    };
    const row rows[] = {
        {1, operation_class::single_read, "get"},
        {12, operation_class::write, "remove"},
        {19, operation_class::administrative, "table_statement"},
        {30, operation_class::single_write, "put"},
        {128, operation_class::write, "ts_batch_push"},
        {171, operation_class::single_read, "direct_prefix_get"},
    };
    for (const row & r : rows)
    {
        const operation_info * info = find_operation(r.number);
        ASSERT_NE(info, nullptr) << r.number;
        EXPECT_EQ(info->cls, r.cls);
        EXPECT_EQ(info->name, r.name);
    }
    for (std::uint16_t unknown : {0, 3, 7, 9, 27, 37, 69, 137, 138, 172, 255, 256, 0xFFFF})
    {
        EXPECT_EQ(find_operation(unknown), nullptr) << unknown;
        EXPECT_EQ(name_of(static_cast<operation>(unknown)), "unknown") << unknown;
    }
    std::set<std::string_view> names;
    for (const operation_info & info : operation_table)
    {
        EXPECT_TRUE(names.insert(info.name).second) << info.name;
        EXPECT_EQ(find_operation(static_cast<std::uint16_t>(info.number)), &info);
    }
    EXPECT_EQ(operation_table.size(), 66u);
}

TEST(operation_body, is_one_buffer_of_exactly_its_size_whether_or_not_bulk_fields_were_referenced)
{
    const operation_body get = build_operation_body(operation::get, 23,
                                                    [](serialization::writer & w)
                                                    {
                                                        w.put_varint(0);
                                                        w.put_varint(0);
                                                        w.put_u8(0);
                                                    });
    ASSERT_FALSE(get.error);
    EXPECT_EQ(get.operation_class, 6u);
    EXPECT_EQ(std::vector<std::uint8_t>(get.data, get.data + get.size), wire_test::hex("01 00 00 00 00"));
    EXPECT_EQ(get.owner.get(), get.data);

    // Large enough a bound to need a scratch area off the stack, and content referenced on the way.
    std::vector<std::string> pieces(40, std::string(100, 'c'));
    const operation_body big = build_operation_body(operation::ts_blob_insert, 40 * bytes_bound,
                                                    [&](serialization::writer & w)
                                                    {
                                                        for (const std::string & p : pieces)
                                                        {
                                                            w.put_string(p);
                                                        }
                                                    });
    ASSERT_FALSE(big.error);
    EXPECT_EQ(big.operation_class, 1u);
    EXPECT_EQ(big.size, 2 + 40 * 101u);
    EXPECT_EQ(big.owner.get(), big.data);
    pieces.assign(40, std::string(100, 'x'));
    EXPECT_EQ(big.data[3], 'c');
    EXPECT_EQ(big.data[big.size - 1], 'c');

    chord::chord_carrier_request carrier;
    carrier.body = big.bytes();
    EXPECT_EQ(carrier.operation(), 111);
    carrier.body = carrier.body.first(1);
    EXPECT_EQ(carrier.operation(), 0);
}

TEST(operation_body, a_builder_that_overruns_its_bound_fails_with_out_of_memory)
{
    const operation_body body =
        build_operation_body(operation::remove_if, 1, [](serialization::writer & w) { w.put_u64(1); });
    EXPECT_EQ(body.error, boost::system::errc::make_error_code(boost::system::errc::not_enough_memory));
    EXPECT_EQ(body.operation_class, 0u);
    EXPECT_EQ(body.data, nullptr);
    EXPECT_EQ(body.size, 0u);
}

} // namespace
} // namespace zlk::protocol
