#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <mutex>

#include "base/alias_hash.hpp"
#include "log/logger.hpp"
#include "wire/frame.hpp"
#include "wire/operation_body.hpp"
#include "wire/replies.hpp"
#include "wire_test_support.hpp"

namespace zlk::protocol
{
namespace
{

using serialization::cursor;
using serialization::writer;
using ::testing::Contains;
using ::testing::IsSupersetOf;
using wire_test::bytes;
using wire_test::concat;
using wire_test::hex;
using wire_test::repeat;

const frame_origin test_origin{nullptr, "client request", "127.0.0.1:2836"};

// Runs the process logger for one test and collects its lines; flush() hands them over on the
// calling thread, so nothing waits on the logger's own task. The logger adds lines of its own and
// doesn't keep the order of its queues: tests look for their lines as a set.
class log_capture
{
public:
    log_capture()
    {
        log::start_logger(log::level::detailed, std::chrono::hours(1));
        _id = log::add_callback(&collect);
    }
    ~log_capture()
    {
        if (_id)
        {
            log::remove_callback(*_id);
        }
        log::stop_logger();
        std::lock_guard lock(_mutex);
        _lines.clear();
    }

    std::vector<std::string> lines()
    {
        log::flush();
        std::lock_guard lock(_mutex);
        return _lines;
    }

private:
    static void collect(zlk_log_level_t, const uint64_t *, uint64_t, uint64_t, const char * text, size_t size)
    {
        std::lock_guard lock(_mutex);
        _lines.emplace_back(text, size);
    }

    static inline std::mutex _mutex;
    static inline std::vector<std::string> _lines;
    std::optional<log::sink_id> _id;
};

bytes frame_bytes(const message & m)
{
    serialization::small_scatter<8> scatter;
    std::vector<std::uint8_t> scratch;
    encode_frame(m, scatter, scratch);
    EXPECT_EQ(scratch.size(), frame_bound(m));
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

bytes le64(std::uint64_t v)
{
    bytes out(8);
    serialization::detail::store_le(out.data(), v);
    return out;
}

chord::ring_id sample_id(std::uint64_t seed)
{
    chord::ring_id id;
    id.words = {seed, seed * 3 + 1, ~seed, seed << 40};
    return id;
}

chord::node_info sample_node(std::uint64_t seed, const char * address)
{
    return chord::node_info{sample_id(seed), asio::ip::tcp::endpoint(asio::ip::make_address(address), 2836)};
}

const std::string body_bytes = "\x1E\x00payload";
const std::string content_a = "first piece;";
const std::string content_b = "second piece";

// One sample of every kind, in tag order, with fields away from their defaults.
std::vector<message> sample_messages()
{
    chord::chord_carrier_request request;
    request.from = sample_node(1, "10.0.0.1");
    request.key = sample_id(2);
    request.client_id = 300;
    request.transaction = zlk::uuid{{1700000000, 5}, sample_id(3), 7};
    request.required_access = 0x30;
    request.operation_class = 5;
    request.body = std::span(reinterpret_cast<const std::uint8_t *>(body_bytes.data()), body_bytes.size());

    result r;
    r.error = make_error_code(kernel::error::already_exists);
    r.content = {std::span(reinterpret_cast<const std::uint8_t *>(content_a.data()), content_a.size()),
                 std::span(reinterpret_cast<const std::uint8_t *>(content_b.data()), content_b.size())};
    r.value = 0xFFFFFFFFFFull;
    r.stamp = zlk::uuid{{-1, 0}, sample_id(4), 1};
    r.profile_name = "blob put";
    r.profile = {{1, 10}, {2, 100000}};

    chord::chord_carrier_reply reply{sample_node(5, "::1"), zlk::uuid{}, 300, r};
    const chord::arc a{sample_node(6, "10.0.0.6"), sample_node(7, "10.0.0.7"), sample_node(8, "fe80::8")};

    return {
        chord::chord_request_ping{},
        chord::chord_request_timestamp{},
        chord::chord_request_config{},
        chord::chord_request_predecessor_changed{sample_node(9, "192.168.1.9")},
        chord::chord_request_get_successor_of{sample_id(10)},
        chord::chord_request_new_range{a, zlk::uuid{{2, 3}, sample_id(11), 4}},
        chord::chord_request_node_stop{"maintenance"},
        chord::chord_request_closest_preceding_finger{sample_id(12)},
        request,
        chord::chord_carrier_request_batch{request, request, chord::chord_carrier_request{}},
        reply,
        chord::chord_carrier_reply_batch{reply, chord::chord_carrier_reply{}},
        zlk::uuid{{9, 9}, sample_id(13), 9},
        a,
        sample_node(14, "10.1.2.3"),
        chord::config_directory_placeholder{},
        r,
    };
}

TEST(frame, a_put_request_for_alias_a_and_content_b_is_laid_out_byte_for_byte)
{
    const char alias[] = "a";
    const char content[] = "b";
    const operation_body body = build_operation_body(operation::put, 42,
                                                     [&](writer & w)
                                                     {
                                                         w.put_bytes(alias, sizeof alias);
                                                         w.put_bytes(content, 1);
                                                         w.put_varint(0);
                                                         w.put_varint(0);
                                                     });
    ASSERT_FALSE(body.error);
    EXPECT_EQ(body.operation_class, 5u);

    chord::chord_carrier_request request;
    request.key = chord::alias_hash(alias, sizeof alias);
    request.required_access = 0x10;
    request.operation_class = body.operation_class;
    request.body = body.bytes();
    request.body_owner = body.owner;

    bytes key;
    for (std::uint64_t word : request.key.words)
    {
        const bytes w = le64(word);
        key.insert(key.end(), w.begin(), w.end());
    }
    const bytes expected =
        concat({hex("51 7E 23 00"), le64(122), hex("08"), repeat(0, 32), hex("80 00 00 00 00 00 00"), key,
                hex("00"), repeat(0, 35), hex("10 00 01 05 09"), hex("1E 00 02 61 00 01 62 00 00")});

    serialization::fixed_scatter<3> scatter;
    std::vector<std::uint8_t> scratch;
    encode_frame(message{request}, scatter, scratch);
    // The body goes by reference: header and carrier fields in one entry, the body in a second.
    ASSERT_EQ(scatter.size(), 2u);
    EXPECT_EQ(scatter[1].data, body.data);
    bytes wire;
    serialization::flatten_into(scatter, wire);
    EXPECT_EQ(wire, expected);
}

TEST(frame, a_sealed_frame_counts_the_varint_and_the_sealed_bytes_in_its_size)
{
    const bytes sealed(200, 0xEE);
    serialization::fixed_scatter<3> scatter;
    std::array<std::uint8_t, sealed_frame_scratch> scratch;
    encode_sealed_frame(sealed, scatter, scratch);
    ASSERT_EQ(scatter.size(), 2u);
    EXPECT_EQ(scatter[1].data, sealed.data());
    bytes wire;
    serialization::flatten_into(scatter, wire);
    EXPECT_EQ(wire, concat({hex("51 7E 23 00"), le64(202), hex("C8 01"), sealed}));
}

TEST(frame, every_kind_round_trips_through_its_frame)
{
    const std::vector<message> samples = sample_messages();
    ASSERT_EQ(samples.size(), message_kind_count);
    for (std::size_t tag = 0; tag < samples.size(); ++tag)
    {
        ASSERT_EQ(samples[tag].index(), tag);
        const bytes wire = frame_bytes(samples[tag]);
        EXPECT_EQ(wire[12], tag);
        message read = chord::node_info{};
        bool empty = true;
        ASSERT_FALSE(read_frame(wire, read, test_origin, &empty)) << message_kind_name(tag);
        EXPECT_FALSE(empty);
        EXPECT_EQ(read, samples[tag]) << message_kind_name(tag);
    }
}

TEST(frame, a_message_cut_anywhere_fails_with_end_of_input_and_a_frame_cut_anywhere_fails)
{
    for (const message & m : sample_messages())
    {
        const bytes wire = frame_bytes(m);
        const bytes body(wire.begin() + frame_header_size, wire.end());
        for (std::size_t n = 0; n < body.size(); ++n)
        {
            cursor c(body.data(), n);
            message read;
            EXPECT_EQ(decode_message(c, read), serialization::end_of_input())
                << message_kind_name(m) << " cut at " << n;
        }
        for (std::size_t n = 0; n < wire.size(); ++n)
        {
            message read;
            EXPECT_TRUE(read_frame(std::span(wire.data(), n), read, test_origin))
                << message_kind_name(m) << " cut at " << n;
        }
    }
}

TEST(frame, forged_counts_fail_before_sizing_anything)
{
    // A batch of 2^63 requests announced in a frame of a dozen bytes.
    const bytes wire = concat({hex("51 7E 23 00"), le64(11), hex("09 FF FF FF FF FF FF FF FF 7F 00")});
    message read;
    EXPECT_EQ(read_frame(wire, read, test_origin), serialization::end_of_input());
    // A profile vector whose count is just past the bound.
    result r;
    bytes result_wire = frame_bytes(message{r});
    result_wire.back() = 11;
    EXPECT_EQ(read_frame(result_wire, read, test_origin), serialization::end_of_input());
}

TEST(frame, tags_from_18_are_inconsistent_and_tag_17_leaves_the_message_as_it_was)
{
    for (std::uint8_t tag : {18, 19, 0x80, 0xFF})
    {
        const bytes wire = concat({hex("51 7E 23 00"), le64(1), bytes{tag}});
        message read;
        EXPECT_EQ(read_frame(wire, read, test_origin), serialization::inconsistent_result()) << int(tag);
    }
    const bytes seventeen = concat({hex("51 7E 23 00"), le64(1), hex("11")});
    message fresh;
    ASSERT_FALSE(read_frame(seventeen, fresh, test_origin));
    EXPECT_TRUE(std::holds_alternative<chord::chord_request_ping>(fresh));
    message held = sample_node(1, "10.0.0.1");
    ASSERT_FALSE(read_frame(seventeen, held, test_origin));
    EXPECT_EQ(held, message{sample_node(1, "10.0.0.1")});
}

struct header_case
{
    const char * bytes;
    int code; // 0: accepted, else a protocol category value
    const char * what;
};

TEST(check_header, tells_our_version_from_other_generations_and_from_noise)
{
    const header_case cases[] = {
        {"", 3, "empty"},
        {"51 7E 23 00", 3, "only four bytes"},
        {"51 7E 23 00 00", 0, "our version"},
        {"50 7E 23 00 00", 3, "bad magic"},
        {"7E 51 23 00 00", 3, "magic in network order"},
        {"51 7E 1E 00 0A 00 00 00 00 00 00 00", 1, "version 30, plausible size"},
        {"51 7E 1E 00 F8 FF FF FF FF FF FF FF", 3, "version 30, size -8"},
        {"51 7E 1E 00 0A 00 00 00 00 00 00", 3, "version 30, size cut"},
        {"51 7E 14 00 00 00 00 00 00 00 00 00", 1, "version 20"},
        {"51 7E FF 00 00 00 00 00 00 00 00 00", 1, "version 255"},
        {"51 7E 13 00 0A 00 00 00 00 00 00 00", 3, "version 19"},
        {"51 7E 00 01 0A 00 00 00 00 00 00 00", 3, "version 256"},
        {"51 7E 2C 01 0A 00 00 00 00 00 00 00", 3, "version 300"},
    };
    for (const header_case & c : cases)
    {
        const bytes wire = hex(c.bytes);
        const error_code got = check_header(wire);
        if (c.code == 0)
        {
            EXPECT_FALSE(got) << c.what;
        }
        else
        {
            EXPECT_EQ(got, make_error_code(static_cast<error>(c.code))) << c.what;
        }
    }
}

TEST(read_frame, rejects_size_zero_and_sizes_beyond_the_received_bytes_and_accepts_the_empty_frame)
{
    message read = sample_node(3, "10.0.0.3");
    const bytes zero = concat({hex("51 7E 23 00"), le64(0), hex("00")});
    EXPECT_EQ(read_frame(zero, read, test_origin), make_error_code(error::invalid_header));

    const bytes beyond = concat({hex("51 7E 23 00"), le64(3), hex("00 00")});
    EXPECT_EQ(read_frame(beyond, read, test_origin), serialization::end_of_input());

    const bytes short_head = hex("51 7E 23 00 01 00 00 00 00 00 00");
    EXPECT_EQ(read_frame(short_head, read, test_origin), make_error_code(error::invalid_header));

    bool empty = false;
    const bytes empty_frame = concat({hex("51 7E 23 00"), le64(empty_frame_size)});
    ASSERT_FALSE(read_frame(empty_frame, read, test_origin, &empty));
    EXPECT_TRUE(empty);
    EXPECT_EQ(read, message{sample_node(3, "10.0.0.3")});
}

TEST(read_frame, leftover_bytes_after_the_message_do_not_fail_it)
{
    bytes wire = frame_bytes(message{sample_node(5, "10.0.0.5")});
    wire.insert(wire.end(), {0xAA, 0xBB, 0xCC});
    serialization::detail::store_le(wire.data() + 4, std::uint64_t{wire.size() - frame_header_size});
    log_capture log;
    message read;
    ASSERT_FALSE(read_frame(wire, read, test_origin));
    EXPECT_EQ(read, message{sample_node(5, "10.0.0.5")});
    EXPECT_THAT(log.lines(), Contains("client 0x0 - context client request - cannot decode reply from peer "
                                      "127.0.0.1:2836: spurious data (3 bytes)"));
}

TEST(replies, a_tag_10_reply_with_a_zero_error_and_empty_content_closes_the_request)
{
    const bytes result_bytes = concat({hex("00 00 00"), repeat(0, 8), repeat(0, 35), hex("00 00 00")});
    const bytes body = concat(
        {hex("0A"), repeat(0, 32), hex("80 00 00 00 00 00 00"), repeat(0, 35), hex("00"), result_bytes});
    const bytes wire = concat({hex("51 7E 23 00"), le64(body.size()), body});
    message read;
    ASSERT_FALSE(read_frame(wire, read, test_origin));
    const chord::chord_carrier_reply * reply = nullptr;
    const reply_check check = expect_carrier_reply(read, reply);
    EXPECT_FALSE(check.error);
    ASSERT_NE(reply, nullptr);
    EXPECT_FALSE(reply->result.error);
    EXPECT_EQ(reply->result.content_size(), 0u);
}

TEST(replies, a_result_in_place_of_a_reply_is_a_refusal_with_its_own_error_or_an_invalid_reply)
{
    log_capture log;
    const chord::chord_carrier_reply * reply = nullptr;
    result refused;
    refused.error = make_error_code(kernel::error::access_denied);
    reply_check check = expect_carrier_reply(message{refused}, reply);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(check.error, refused.error);
    EXPECT_TRUE(check.remote);

    check = expect_carrier_reply(message{result{}}, reply);
    EXPECT_EQ(check.error, make_error_code(chord::error::unexpected_reply));
    EXPECT_FALSE(check.remote);

    check = expect_carrier_reply(message{chord::arc{}}, reply);
    EXPECT_EQ(check.error, make_error_code(chord::error::unexpected_reply));

    EXPECT_THAT(
        log.lines(),
        IsSupersetOf({"got an unexpected result from a carrier request. Error: access to the entry has been "
                      "denied, Value: 0, Content size: 0",
                      "got an unexpected result from a carrier request. Error: Success, Value: 0, "
                      "Content size: 0",
                      "got an unexpected arc message"}));
}

TEST(replies, a_batch_needs_a_batched_reply_with_one_reply_per_request)
{
    log_capture log;
    const chord::chord_carrier_reply_batch * replies = nullptr;
    const message two = chord::chord_carrier_reply_batch(2);

    EXPECT_FALSE(expect_batch_reply(two, 2, replies).error);
    EXPECT_EQ(replies, std::get_if<chord::chord_carrier_reply_batch>(&two));

    reply_check check = expect_batch_reply(two, 3, replies);
    EXPECT_EQ(check.error, make_error_code(chord::error::unexpected_reply));
    EXPECT_EQ(replies, nullptr);

    chord::chord_carrier_reply single;
    single.result.error = make_error_code(kernel::error::conflict);
    check = expect_batch_reply(message{single}, 2, replies);
    EXPECT_EQ(check.error, single.result.error);
    EXPECT_TRUE(check.remote);

    check = expect_batch_reply(message{result{}}, 2, replies);
    EXPECT_EQ(check.error, make_error_code(chord::error::unexpected_reply));
    check = expect_batch_reply(message{chord::chord_request_ping{}}, 2, replies);
    EXPECT_EQ(check.error, make_error_code(chord::error::unexpected_reply));
    EXPECT_EQ(replies, nullptr);

    EXPECT_THAT(log.lines(), IsSupersetOf({"got a reply count of 2 and expected a count of 3",
                                           "error did not get a batched carrier reply"}));
}

} // namespace
} // namespace zlk::protocol
