#include <gtest/gtest.h>

#include <poll.h>

#include <cerrno>
#include <numeric>

#include "base/error_categories.hpp"
#include "base/make_error.hpp"
#include "network/broker_service.hpp"
#include "network/request.hpp"
#include "network/socket_errors.hpp"
#include "network_test_support.hpp"

namespace zlk::network
{
namespace
{

using testing::bytes;
using testing::contains_line;
using testing::log_lines;
using testing::scripted_peer;
using testing::step;

const ::testing::Environment * const logging =
    ::testing::AddGlobalTestEnvironment(new testing::logging_environment);

class sync_path : public ::testing::Test
{
protected:
    sync_path()
    {
        settings->timeout_ms = 60000;
        service.run();
        log_lines::take();
    }

    boost::system::error_code request(client::received_frame & reply)
    {
        return client::request_sync(service.sync_side(), peer.endpoint(), "client request",
                                    protocol::message{chord::chord_request_ping{}}, reply);
    }

    std::uint64_t value_of(const client::received_frame & reply)
    {
        const auto * r = std::get_if<protocol::result>(&reply.message);
        return r ? r->value : ~0ull;
    }

    std::shared_ptr<network_settings> settings = std::make_shared<network_settings>();
    broker_service service{settings};
    scripted_peer peer;
};

TEST_F(sync_path, sends_the_frame_decodes_the_reply_and_pools_the_connection)
{
    peer.set_default(step::answer(testing::result_frame(42)));
    client::received_frame reply;
    endpoint from;
    ASSERT_FALSE(client::request_sync(service.sync_side(), peer.endpoint(), "client request",
                                      protocol::message{chord::chord_request_ping{}}, reply, &from));
    EXPECT_EQ(value_of(reply), 42u);
    EXPECT_EQ(from, peer.endpoint());
    EXPECT_EQ(peer.last_request(), testing::ping_frame());
    EXPECT_EQ(service.sync_side().idle(peer.endpoint()), 1u);
    EXPECT_EQ(service.async_side().idle(peer.endpoint()), 0u);

    ASSERT_FALSE(request(reply));
    EXPECT_EQ(value_of(reply), 42u);
    EXPECT_EQ(peer.connections(), 1u);
}

TEST_F(sync_path, reads_a_reply_larger_than_the_first_buffer_into_one_frame)
{
    std::vector<std::uint8_t> content(3 * 1024 * 1024 + 17);
    std::iota(content.begin(), content.end(), std::uint8_t{0});
    peer.set_default(step::answer(testing::result_frame(7, content)));
    client::received_frame reply;
    ASSERT_FALSE(request(reply));
    const auto & r = std::get<protocol::result>(reply.message);
    ASSERT_EQ(r.content_size(), content.size());
    EXPECT_TRUE(std::equal(content.begin(), content.end(), r.content_view().begin()));
}

TEST_F(sync_path, replays_once_on_a_fresh_connection_when_the_pooled_one_is_dead)
{
    peer.set_default(step::answer(testing::result_frame(1)));
    client::received_frame reply;
    ASSERT_FALSE(request(reply));

    // The node drops the pooled connection at the next request: the caller doesn't see it.
    peer.push(step::close_after_read());
    ASSERT_FALSE(request(reply));
    EXPECT_EQ(value_of(reply), 1u);
    EXPECT_EQ(peer.connections(), 2u);
    EXPECT_EQ(service.sync_side().idle(peer.endpoint()), 1u);

    // Both attempts fail: the second failure is the caller's, and nothing is pooled.
    peer.push(step::close_after_read());
    peer.push(step::close_after_read());
    log_lines::take();
    const auto ec = request(reply);
    EXPECT_EQ(ec, end_of_file());
    EXPECT_EQ(peer.connections(), 3u);
    EXPECT_EQ(service.sync_side().idle(peer.endpoint()), 0u);
    EXPECT_TRUE(std::holds_alternative<chord::chord_request_ping>(reply.message));
    EXPECT_EQ(reply.buffer, nullptr);
    EXPECT_TRUE(
        contains_line(log_lines::take(), "could not receive response to synchronous request sent to"));
}

TEST_F(sync_path, does_not_replay_a_new_connection_nor_a_final_error)
{
    peer.push(step::close_after_read());
    client::received_frame reply;
    EXPECT_EQ(request(reply), end_of_file());
    EXPECT_EQ(peer.connections(), 1u);

    // A pooled connection answered by another protocol version: a new connection wouldn't help.
    peer.push(step::answer(testing::result_frame(1)));
    ASSERT_FALSE(request(reply));
    peer.push(step::answer(testing::frame_head(30, 100)));
    EXPECT_EQ(request(reply), protocol::error::invalid_version);
    EXPECT_EQ(peer.connections(), 2u);
}

TEST_F(sync_path, refuses_replies_that_are_not_frames_of_this_protocol)
{
    struct
    {
        bytes reply;
        protocol::error expected;
    } const cases[] = {
        {testing::frame_head(30, 100), protocol::error::invalid_version},
        {bytes{'H', 'T', 'T', 'P', '/', '1', '.', '1', ' ', '2', '0', '0', ' ', 'O', 'K'},
         protocol::error::invalid_header},
        // The size of an empty frame is no reply.
        {testing::frame_head(35, 0xFFFFFFFFFFFFFFF8ull), protocol::error::invalid_header},
        // A frame of version 35 with nothing in it.
        {testing::frame_head(35, 0), protocol::error::invalid_header},
    };
    for (const auto & c : cases)
    {
        peer.push(step::answer_then_hold(c.reply));
        client::received_frame reply;
        EXPECT_EQ(request(reply), c.expected);
        EXPECT_EQ(service.sync_side().idle(peer.endpoint()), 0u);
    }
    peer.release();
}

TEST_F(sync_path, refuses_a_head_that_did_not_arrive_whole_without_waiting_for_the_rest)
{
    peer.push(step::answer_then_hold(bytes{0x51, 0x7E, 0x23, 0x00, 0x01}));
    client::received_frame reply;
    EXPECT_EQ(request(reply), protocol::error::invalid_header);
    peer.release();
}

TEST_F(sync_path, refuses_a_reply_beyond_the_input_maximum_before_reading_its_body)
{
    settings->max_input_size = 1024;
    // One byte over the maximum, and the body never comes: reading it would wait for the time-out.
    peer.push(step::answer_then_hold(testing::frame_head(35, 1024 - 12 + 1)));
    client::received_frame reply;
    const auto ec = request(reply);
    EXPECT_EQ(ec, network::error::input_buffer_too_small);
    EXPECT_EQ(make_error_from_code(ec, local_origin), zlk_e_network_inbuf_too_small);
    EXPECT_TRUE(
        contains_line(log_lines::take(), "received a 1.0 KiB request - the configured maximum is 1 KiB"));
    peer.release();
}

TEST_F(sync_path, a_silent_node_times_out_as_zlk_e_timeout)
{
    settings->timeout_ms = 1000;
    peer.push(step::silent());
    client::received_frame reply;
    const auto ec = request(reply);
    EXPECT_EQ(make_error_from_code(ec, local_origin), zlk_e_timeout) << ec.message();
    EXPECT_TRUE(contains_line(log_lines::take(), "could not receive the data"));
    peer.release();
}

TEST_F(sync_path, a_refused_connection_is_reported_and_logged)
{
    endpoint closed;
    {
        // A port that was just free: nothing listens on it.
        scripted_peer gone;
        closed = gone.endpoint();
    }
    client::received_frame reply;
    const auto ec = client::request_sync(service.sync_side(), closed, "client request",
                                         protocol::message{chord::chord_request_ping{}}, reply);
    EXPECT_EQ(ec, boost::system::errc::connection_refused);
    EXPECT_TRUE(contains_line(log_lines::take(), "client could not connect to " + format_endpoint(closed)));
}

TEST_F(sync_path, gathers_more_entries_than_one_writev_takes)
{
    peer.set_default(step::answer(testing::result_frame(5)));
    auto [ec, c] = service.sync_side().get_client(peer.endpoint(), "client request");
    ASSERT_FALSE(c->connect());

    // A frame of 300 separate pieces: the head, then 299 bodies of 3 bytes, each in memory of its own.
    std::vector<bytes> pieces(299, bytes{1, 2, 3});
    bytes head = testing::frame_head(35, 299 * 3);
    serialization::small_scatter<4> frame;
    frame.append(head.data(), head.size());
    bytes expected = head;
    for (const auto & piece : pieces)
    {
        frame.append(piece.data(), piece.size());
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    ASSERT_GT(frame.size(), client::client::max_write_entries * 2);

    client::received_frame reply;
    ASSERT_FALSE(client::exchange(*c, frame, reply));
    EXPECT_EQ(peer.last_request(), expected);
    EXPECT_EQ(value_of(reply), 5u);
}

TEST_F(sync_path, a_node_that_closed_the_connection_under_a_large_request_is_an_error_not_a_signal)
{
    // The node answers once and closes; the pooled client learns of it only by writing.
    peer.push(step{testing::result_frame(1), step::then::close});
    auto [ec, c] = service.sync_side().get_client(peer.endpoint(), "client request");
    ASSERT_FALSE(c->connect());
    client::received_frame reply;
    serialization::small_scatter<4> ping;
    const bytes ping_frame = testing::ping_frame();
    ping.append(ping_frame.data(), ping_frame.size());
    ASSERT_FALSE(client::exchange(*c, ping, reply));
    ::pollfd closed{c->native_handle(), POLLIN, 0};
    ASSERT_EQ(::poll(&closed, 1, 60000), 1);

    // More than the socket buffers take at once: the writes go on after the node's reset came back.
    constexpr std::size_t piece = 1 << 20;
    constexpr std::size_t pieces = 64;
    const bytes body(piece, 0);
    const bytes head = testing::frame_head(35, piece * pieces);
    serialization::small_scatter<4> frame;
    frame.append(head.data(), head.size());
    for (std::size_t i = 0; i < pieces; ++i)
    {
        frame.append(body.data(), body.size());
    }
    log_lines::take();
    const auto failed = client::exchange(*c, frame, reply);
    EXPECT_TRUE(failed == boost::system::errc::broken_pipe || failed == boost::system::errc::connection_reset)
        << failed.message();
    EXPECT_FALSE(c->connected());
    EXPECT_TRUE(contains_line(log_lines::take(), "could not send the data"));
}

TEST_F(sync_path, a_connection_refuses_a_zero_timeout_and_closes_idempotently)
{
    auto [ec, c] = service.sync_side().get_client(peer.endpoint(), "client request");
    EXPECT_EQ(c->native_handle(), -1);
    ASSERT_FALSE(c->connect());
    EXPECT_TRUE(c->connected());
    EXPECT_NE(c->native_handle(), -1);
    EXPECT_EQ(c->set_timeout(0), boost::system::errc::invalid_argument);
    EXPECT_FALSE(c->set_timeout(1500));
    EXPECT_TRUE(contains_line(log_lines::take(), "set client timeout to 1500"));

    c->close();
    c->close();
    EXPECT_FALSE(c->connected());
    EXPECT_EQ(c->native_handle(), -1);

    // A client made with a zero time-out can't connect at all.
    settings->timeout_ms = 0;
    auto [made, untimed] = service.sync_side().get_client(peer.endpoint(), "client request");
    EXPECT_EQ(untimed->connect(), boost::system::errc::invalid_argument);
    EXPECT_FALSE(untimed->connected());
    EXPECT_EQ(untimed->native_handle(), -1);
}

TEST(is_final_error, names_the_errors_a_second_attempt_could_not_help)
{
    using boost::system::error_code;
    const auto sys = [](int v) { return error_code(v, boost::system::system_category()); };
    const auto gen = [](int v) { return error_code(v, boost::system::generic_category()); };

    for (const error_code & final :
         {error_code(), sys(ECANCELED), sys(EOPNOTSUPP), sys(EPERM), sys(EAFNOSUPPORT), sys(ENOMEM),
          gen(ENOMEM), sys(EINVAL), gen(EINVAL), error_code(crypto::error::invalid_key),
          error_code(crypto::error::authentication_failed), error_code(protocol::error::invalid_version),
          error_code(protocol::error::not_implemented), error_code(protocol::error::invalid_header)})
    {
        EXPECT_TRUE(client::is_final_error(final)) << final.what();
    }
    for (const error_code & passing :
         {sys(ECONNRESET), sys(ECONNABORTED), sys(ETIMEDOUT), sys(EPIPE), gen(ECANCELED), end_of_file(),
          error_code(crypto::error::security_disabled), error_code(protocol::error::unknown),
          error_code(network::error::input_buffer_too_small),
          error_code(serialization::error::unexpected_end)})
    {
        EXPECT_FALSE(client::is_final_error(passing)) << passing.what();
    }
}

} // namespace
} // namespace zlk::network
