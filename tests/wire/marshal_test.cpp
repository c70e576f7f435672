#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <limits>
#include <string>

#include "wire/category_table.hpp"
#include "wire/marshal.hpp"
#include "wire/node_info.hpp"
#include "wire_test_support.hpp"

namespace zlk::serialization
{
namespace
{

using wire_test::bytes;
using wire_test::encode;
using wire_test::hex;

error_code code(error e)
{
    return make_error_code(e);
}

TEST(scatter_list, merges_contiguous_ranges_and_skips_empty_ones)
{
    std::array<std::uint8_t, 8> memory{};
    std::array<std::uint8_t, 4> other{};
    fixed_scatter<3> scatter;
    scatter.append(memory.data(), 2);
    scatter.append(memory.data() + 2, 3);
    scatter.append(other.data(), 0);
    ASSERT_EQ(scatter.size(), 1u);
    EXPECT_EQ(scatter[0].size, 5u);

    scatter.append(other.data(), 4);
    scatter.append(memory.data() + 6, 1);
    EXPECT_EQ(scatter.size(), 3u);
    EXPECT_EQ(scatter.total_size(), 10u);
}

TEST(scatter_list, fixed_list_throws_bad_alloc_past_its_capacity_and_small_list_spills)
{
    std::array<std::uint8_t, 16> memory{};
    fixed_scatter<2> fixed;
    fixed.append(memory.data(), 1);
    fixed.append(memory.data() + 2, 1);
    EXPECT_THROW(fixed.append(memory.data() + 4, 1), std::bad_alloc);
    // A range that extends the last entry needs no new slot.
    EXPECT_NO_THROW(fixed.append(memory.data() + 3, 1));

    small_scatter<2> small;
    for (std::size_t i = 0; i < 16; i += 2)
    {
        small.append(memory.data() + i, 1);
    }
    ASSERT_EQ(small.size(), 8u);
    for (std::size_t i = 0; i < 8; ++i)
    {
        EXPECT_EQ(small[i].data, memory.data() + 2 * i);
    }
}

TEST(writer, refers_to_bulk_data_and_copies_only_small_fields)
{
    const std::string content(100, 'x');
    small_scatter<4> scatter;
    std::vector<std::uint8_t> scratch(bytes_bound + 8);
    writer w(scatter, scratch);
    w.put_string(content);
    w.put_u64(7);
    ASSERT_EQ(scatter.size(), 3u);
    EXPECT_EQ(scatter[1].data, reinterpret_cast<const std::uint8_t *>(content.data()));
    EXPECT_EQ(scatter.total_size(), 1 + 100 + 8u);
}

TEST(writer, throws_bad_alloc_when_the_scratch_bound_was_too_small)
{
    small_scatter<4> scatter;
    std::vector<std::uint8_t> scratch(3);
    writer w(scatter, scratch);
    w.put_u16(1);
    EXPECT_THROW(w.put_u16(2), std::bad_alloc);
}

struct varint_case
{
    std::uint64_t value;
    const char * wire;
};

TEST(varint, encodes_as_leb128_with_negatives_as_ten_bytes)
{
    const varint_case cases[] = {
        {0, "00"},
        {127, "7F"},
        {128, "80 01"},
        {300, "AC 02"},
        {0xFFFFFFFFull, "FF FF FF FF 0F"},
        {~0ull, "FF FF FF FF FF FF FF FF FF 01"},
        {static_cast<std::uint64_t>(-1000000ll), "C0 FB C2 FF FF FF FF FF FF 01"},
    };
    for (const varint_case & c : cases)
    {
        const bytes wire = hex(c.wire);
        EXPECT_EQ(encode(varint_bound, [&](writer & w) { w.put_varint(c.value); }), wire) << c.value;
        EXPECT_EQ(varint_size(c.value), wire.size());
        cursor in(wire);
        std::uint64_t read = 1;
        ASSERT_FALSE(read_varint(in, read));
        EXPECT_EQ(read, c.value);
        EXPECT_EQ(in.remaining, 0u);
    }
}

TEST(varint, fails_without_moving_when_no_terminator_within_ten_bytes_or_the_input)
{
    const bytes eleven = wire_test::repeat(0x80, 11);
    cursor in(eleven);
    std::uint64_t v = 0;
    EXPECT_EQ(read_varint(in, v), code(error::unexpected_end));
    EXPECT_EQ(in.data, eleven.data());
    EXPECT_EQ(in.remaining, 11u);

    const bytes cut = hex("AC");
    cursor short_in(cut);
    EXPECT_EQ(read_varint(short_in, v), code(error::unexpected_end));
    EXPECT_EQ(short_in.remaining, 1u);

    // Non-minimal forms pass, and a tenth byte beyond bit 63 loses its bits.
    const bytes padded = hex("80 80 00");
    cursor p(padded);
    ASSERT_FALSE(read_varint(p, v));
    EXPECT_EQ(v, 0u);
    const bytes overlong = hex("FF FF FF FF FF FF FF FF FF 7F");
    cursor o(overlong);
    ASSERT_FALSE(read_varint(o, v));
    EXPECT_EQ(v, ~0ull);
}

TEST(varint32, stops_at_five_bytes_and_rejects_a_continued_fifth_byte)
{
    std::uint32_t v = 0;
    const bytes max = hex("FF FF FF FF 0F");
    cursor in(max);
    ASSERT_FALSE(read_varint32(in, v));
    EXPECT_EQ(v, 0xFFFFFFFFu);

    const bytes continued = hex("80 80 80 80 80 00 00");
    cursor c(continued);
    EXPECT_EQ(read_varint32(c, v), code(error::unexpected_end));
    EXPECT_EQ(c.remaining, continued.size());

    // Bits above 32 in the fifth byte are dropped.
    const bytes wide = hex("FF FF FF FF 7F");
    cursor w(wide);
    ASSERT_FALSE(read_varint32(w, v));
    EXPECT_EQ(v, 0xFFFFFFFFu);
}

TEST(fixed_fields, are_little_endian_and_need_all_their_bytes)
{
    const bytes wire = encode(2 + 4 + 8 + 8 + 8 + 1,
                              [](writer & w)
                              {
                                  w.put_u16(0x0102);
                                  w.put_u32(0x03040506);
                                  w.put_u64(0x0708090A0B0C0D0Eull);
                                  w.put_i64(-2);
                                  w.put_double(1.5);
                                  w.put_bool(true);
                              });
    EXPECT_EQ(wire, hex("02 01 06 05 04 03 0E 0D 0C 0B 0A 09 08 07 FE FF FF FF FF FF FF FF "
                        "00 00 00 00 00 00 F8 3F 01"));
    cursor in(wire);
    std::uint16_t a = 0;
    std::uint32_t b = 0;
    std::uint64_t c = 0;
    std::int64_t d = 0;
    double e = 0;
    bool f = false;
    ASSERT_FALSE(read_u16(in, a) || read_u32(in, b) || read_u64(in, c) || read_i64(in, d) ||
                 read_double(in, e) || read_bool(in, f));
    EXPECT_EQ(a, 0x0102);
    EXPECT_EQ(b, 0x03040506u);
    EXPECT_EQ(c, 0x0708090A0B0C0D0Eull);
    EXPECT_EQ(d, -2);
    EXPECT_EQ(e, 1.5);
    EXPECT_TRUE(f);

    const bytes seven = wire_test::repeat(0, 7);
    cursor short_in(seven);
    EXPECT_EQ(read_u64(short_in, c), code(error::unexpected_end));
    EXPECT_EQ(short_in.remaining, 7u);
}

TEST(byte_buffer, empty_buffer_string_and_vector_are_the_single_byte_zero)
{
    EXPECT_EQ(encode(bytes_bound, [](writer & w) { w.put_bytes(nullptr, 0); }), hex("00"));
    EXPECT_EQ(encode(bytes_bound, [](writer & w) { w.put_string(""); }), hex("00"));
    EXPECT_EQ(encode(bytes_bound, [](writer & w) { w.put_varint(0); }), hex("00"));

    const bytes zero = hex("00");
    cursor a(zero);
    std::span<const std::uint8_t> view;
    ASSERT_FALSE(read_bytes(a, view));
    EXPECT_TRUE(view.empty());
    EXPECT_EQ(a.remaining, 0u);
    cursor b(zero);
    std::string s = "old";
    ASSERT_FALSE(read_bytes(b, s));
    EXPECT_EQ(s, "");
    cursor c(zero);
    std::vector<zlk_ts_range_t> ranges(3);
    ASSERT_FALSE(unmarshal(c, ranges));
    EXPECT_TRUE(ranges.empty());
}

TEST(byte_buffer, reads_as_a_view_into_the_received_bytes_unless_the_destination_owns)
{
    const bytes wire = hex("03 61 62 63 FF");
    cursor in(wire);
    std::string_view view;
    ASSERT_FALSE(read_bytes(in, view));
    EXPECT_EQ(view, "abc");
    EXPECT_EQ(reinterpret_cast<const std::uint8_t *>(view.data()), wire.data() + 1);
    EXPECT_EQ(in.remaining, 1u);

    cursor again(wire);
    std::vector<std::uint8_t> owned;
    ASSERT_FALSE(read_bytes(again, owned));
    EXPECT_EQ(owned, hex("61 62 63"));

    const bytes too_long = hex("04 61 62 63");
    cursor bad(too_long);
    EXPECT_EQ(read_bytes(bad, view), code(error::unexpected_end));
}

TEST(short_string, keeps_the_length_modulo_256_and_checks_it_on_reading)
{
    const std::string source(300, 'q');
    const bytes wire = encode(short_string_bound, [&](writer & w) { w.put_short_string(source); });
    ASSERT_EQ(wire.size(), 2 + 44u);
    EXPECT_EQ(wire[0], 44);
    EXPECT_EQ(wire[1], 0);

    cursor in(wire);
    std::string_view read;
    ASSERT_FALSE(read_short_string(in, read));
    EXPECT_EQ(read, std::string(44, 'q'));

    const bytes cut = hex("03 00 61 62");
    cursor c(cut);
    EXPECT_EQ(read_short_string(c, read), code(error::unexpected_end));
}

TEST(vector, refuses_a_count_beyond_ten_times_the_remaining_bytes_before_allocating)
{
    std::vector<zlk_ts_range_t> ranges(2);
    const bytes eleven = hex("0B 00");
    cursor a(eleven);
    EXPECT_EQ(unmarshal(a, ranges), code(error::unexpected_end));
    EXPECT_EQ(ranges.size(), 2u);

    // Ten passes the count test, and the read fails at an element with the vector at full size.
    const bytes ten = hex("0A 00");
    cursor b(ten);
    EXPECT_EQ(unmarshal(b, ranges), code(error::unexpected_end));
    EXPECT_EQ(ranges.size(), 10u);
}

TEST(vector, round_trips_time_ranges_and_shrinks_to_the_count)
{
    const std::vector<zlk_ts_range_t> sent = {{{1, 2}, {3, 4}}, {{-5, 999999999}, {0, -1}}};
    const bytes wire =
        encode(varint_bound + 2 * time_range_bound, [&](writer & w) { marshal(w, std::span(sent)); });
    EXPECT_EQ(wire.size(), 1 + 4 + 26u);
    std::vector<zlk_ts_range_t> read(5);
    cursor in(wire);
    ASSERT_FALSE(unmarshal(in, read));
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[1].begin.tv_sec, -5);
    EXPECT_EQ(read[1].begin.tv_nsec, 999999999);
    EXPECT_EQ(read[1].end.tv_nsec, -1);
}

TEST(ids_and_stamps, an_id_is_32_bytes_word_0_first_and_a_none_stamp_is_35_zero_bytes)
{
    chord::ring_id id;
    id.words = {0x0807060504030201ull, 0, 0, 0xFF00000000000000ull};
    const bytes wire = encode(ring_id_size, [&](writer & w) { marshal(w, id); });
    EXPECT_EQ(wire, wire_test::concat({hex("01 02 03 04 05 06 07 08"), wire_test::repeat(0, 16),
                                       hex("00 00 00 00 00 00 00 FF")}));
    cursor in(wire);
    chord::ring_id read;
    ASSERT_FALSE(unmarshal(in, read));
    EXPECT_EQ(read, id);
    cursor cut(wire.data(), 31);
    EXPECT_EQ(unmarshal(cut, read), code(error::unexpected_end));

    EXPECT_EQ(encode(uuid_bound, [](writer & w) { marshal(w, zlk::uuid{}); }),
              wire_test::repeat(0, none_uuid_size));

    zlk::uuid stamp{{1700000000, -1}, id, 0xFFFFFFFF};
    const bytes stamp_wire = encode(uuid_bound, [&](writer & w) { marshal(w, stamp); });
    cursor s(stamp_wire);
    zlk::uuid stamp_read;
    ASSERT_FALSE(unmarshal(s, stamp_read));
    EXPECT_EQ(stamp_read, stamp);
}

TEST(endpoint, writes_ipv4_as_little_endian_host_value_and_ipv6_in_network_order)
{
    const asio::ip::tcp::endpoint v4(asio::ip::make_address("127.0.0.1"), 7000);
    EXPECT_EQ(encode(endpoint_bound, [&](writer & w) { marshal(w, v4); }), hex("80 01 00 00 7F 58 1B"));

    const asio::ip::tcp::endpoint v6(asio::ip::make_address("2001:db8::1"), 1);
    const bytes wire6 = encode(endpoint_bound, [&](writer & w) { marshal(w, v6); });
    EXPECT_EQ(wire6, hex("04 20 01 0D B8 00 00 00 00 00 00 00 00 00 00 00 01 01 00"));

    for (const bytes & wire : {hex("80 01 00 00 7F 58 1B"), wire6})
    {
        cursor in(wire);
        asio::ip::tcp::endpoint read;
        ASSERT_FALSE(unmarshal(in, read));
        EXPECT_EQ(read, wire.size() == 7 ? v4 : v6);
    }
}

TEST(endpoint, rejects_an_unknown_form_byte_with_code_1_and_missing_bytes_with_code_2)
{
    asio::ip::tcp::endpoint read;
    for (const char * form : {"00", "06", "81", "FF"})
    {
        const bytes wire = wire_test::concat({hex(form), wire_test::repeat(0, 18)});
        cursor in(wire);
        EXPECT_EQ(unmarshal(in, read), code(error::unexpected_byte)) << form;
    }
    for (const char * cut : {"", "80 01 00 00", "80 01 00 00 7F 58", "04 00"})
    {
        const bytes wire = hex(cut);
        cursor in(wire);
        EXPECT_EQ(unmarshal(in, read), code(error::unexpected_end)) << cut;
    }
}

TEST(node_info, the_unset_node_is_32_zero_bytes_then_an_ipv4_any_endpoint)
{
    chord::node_info unset;
    EXPECT_TRUE(unset.is_unset());
    EXPECT_EQ(encode(node_info_bound, [&](writer & w) { marshal(w, unset); }),
              wire_test::concat({wire_test::repeat(0, 32), hex("80 00 00 00 00 00 00")}));
}

TEST(error_code, travels_as_value_and_category_index)
{
    struct category_case
    {
        const boost::system::error_category * category;
        std::uint8_t index;
    };
    const category_case cases[] = {
        {&boost::system::generic_category(), 0},
        {&boost::system::system_category(), 1},
        {&network::netdb_category(), 2},
        {&network::addrinfo_category(), 3},
        {&network::misc_category(), 4},
        {&network::network_category(), 5},
        {&chord::chord_category(), 6},
        {&kernel::kernel_category(), 7},
        {&persistence::persistence_category(), 8},
        {&protocol::protocol_category(), 9},
        {&serialization_category(), 10},
        {&client_category(), 12},
        {&crypto::crypto_category(), 13},
        {&query::query_category(), 14},
    };
    for (const category_case & c : cases)
    {
        const boost::system::error_code sent(300, *c.category);
        const bytes wire = encode(error_code_bound, [&](writer & w) { marshal(w, sent); });
        EXPECT_EQ(wire, wire_test::concat({hex("AC 02"), bytes{c.index}})) << c.category->name();
        cursor in(wire);
        boost::system::error_code read;
        ASSERT_FALSE(unmarshal(in, read));
        EXPECT_EQ(read, sent) << c.category->name();
    }
    // A category outside the table goes as generic.
    EXPECT_EQ(category_index(json::json_category()), 0);
}

TEST(error_code, an_unassigned_or_out_of_range_index_reads_as_generic_with_the_value_intact)
{
    for (std::uint8_t index : {11, 15, 200})
    {
        const bytes wire = {0x2A, index};
        cursor in(wire);
        boost::system::error_code read;
        ASSERT_FALSE(unmarshal(in, read));
        EXPECT_EQ(read.value(), 42);
        EXPECT_EQ(read.category(), boost::system::generic_category());
    }
    const bytes missing_index = hex("2A");
    cursor in(missing_index);
    boost::system::error_code read;
    EXPECT_EQ(unmarshal(in, read), code(error::unexpected_end));
}

TEST(error_code, socket_library_errors_map_onto_boost_categories_of_the_table)
{
    EXPECT_EQ(network::to_error_code(asio::error::eof).category(), network::misc_category());
    EXPECT_EQ(network::to_error_code(asio::error::host_not_found).category(), network::netdb_category());
    EXPECT_EQ(network::to_error_code(asio::error::service_not_found).category(),
              network::addrinfo_category());
    const boost::system::error_code refused = network::to_error_code(asio::error::connection_refused);
    EXPECT_EQ(refused.category(), boost::system::system_category());
    EXPECT_EQ(refused.value(), ECONNREFUSED);
    EXPECT_EQ(network::to_error_code(std::make_error_code(std::errc::invalid_argument)),
              boost::system::errc::make_error_code(boost::system::errc::invalid_argument));
}

// A record of every kind of field, written as its reader expects it.
struct every_field
{
    std::uint8_t u8 = 0;
    std::uint16_t u16 = 0;
    std::uint64_t varint = 0;
    std::uint32_t varint32 = 0;
    std::int64_t i64 = 0;
    double dbl = 0;
    std::string_view bytes;
    chord::ring_id id{};
    timespec time{};
    std::uint64_t custom = 0;
};

error_code read_doubled(cursor & c, std::uint64_t & out) noexcept
{
    std::uint64_t v = 0;
    const error_code ec = read_varint(c, v);
    if (!ec)
    {
        out = v * 2;
    }
    return ec;
}

error_code read_every_field(cursor & c, every_field & f)
{
    return read_fields(c, f.u8, f.u16, as_varint(f.varint), as_varint(f.varint32), as_fixed(f.i64),
                       as_fixed(f.dbl), f.bytes, f.id, f.time, with_reader(read_doubled, f.custom));
}

TEST(read_fields, reads_each_kind_of_field_with_its_own_reader)
{
    const chord::ring_id id{1, 2, 3, 4};
    const bytes wire = encode(256,
                              [&](writer & w)
                              {
                                  w.put_u8(7);
                                  w.put_u16(0x1234);
                                  w.put_varint(300);
                                  w.put_varint(70000);
                                  w.put_u64(static_cast<std::uint64_t>(-5));
                                  w.put_u64(std::bit_cast<std::uint64_t>(2.5));
                                  w.put_string("abc");
                                  marshal(w, id);
                                  marshal(w, timespec{9, 10});
                                  w.put_varint(21);
                              });
    cursor c(wire.data(), wire.size());
    every_field f;
    ASSERT_FALSE(read_every_field(c, f));
    EXPECT_EQ(c.remaining, 0u);
    EXPECT_EQ(f.u8, 7);
    EXPECT_EQ(f.u16, 0x1234);
    EXPECT_EQ(f.varint, 300u);
    EXPECT_EQ(f.varint32, 70000u);
    EXPECT_EQ(f.i64, -5);
    EXPECT_EQ(f.dbl, 2.5);
    EXPECT_EQ(f.bytes, "abc");
    EXPECT_EQ(f.id, id);
    EXPECT_EQ(f.time, (timespec{9, 10}));
    EXPECT_EQ(f.custom, 42u);

    // Cut anywhere, the record fails with the end of input of the field that ran short, and the fields
    // after it are left alone.
    for (std::size_t cut = 0; cut < wire.size(); ++cut)
    {
        cursor short_input(wire.data(), cut);
        every_field g;
        g.custom = 99;
        const error_code ec = read_every_field(short_input, g);
        EXPECT_EQ(ec, code(error::unexpected_end)) << cut;
        EXPECT_EQ(g.custom, 99u) << cut;
    }
}

TEST(read_fields, the_first_failure_wins_and_nothing_after_it_is_read)
{
    // A varint that never ends (ten continued bytes) fails before the u8 that follows could be read.
    std::vector<std::uint8_t> wire(11, 0x80);
    wire.push_back(5);
    cursor c(wire.data(), wire.size());
    std::uint64_t v = 0;
    std::uint8_t after = 0;
    const error_code ec = read_fields(c, as_varint(v), after);
    EXPECT_TRUE(ec);
    EXPECT_EQ(after, 0);
    EXPECT_EQ(c.remaining, wire.size());
}

} // namespace
} // namespace zlk::serialization
