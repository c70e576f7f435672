// A node behind real sockets: concurrent connections, frames that aren't requests, another protocol
// version, stopping with connections open.
#include <gtest/gtest.h>

#include <thread>

#include "base/error_categories.hpp"
#include "node/local_cluster.hpp"
#include "node_test_support.hpp"

namespace zlk::node
{
namespace
{

using node_test::raw_client;

TEST(node_server, serves_many_connections_at_once)
{
    local_cluster cluster(2);
    const chord::arc expected = cluster.at(0).ring()->arc_at(0);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&]
            {
                raw_client c(cluster.endpoint(0));
                for (int i = 0; i < 25; ++i)
                {
                    if (c.ask_for<chord::arc>(chord::chord_request_ping{}) == expected)
                    {
                        ++good;
                    }
                }
            });
    }
    for (auto & t : threads)
    {
        t.join();
    }
    EXPECT_EQ(good.load(), 100);
    EXPECT_GE(cluster.at(0).counters().count, 100u);
    EXPECT_GT(cluster.at(0).counters().in_bytes, 0u);
    EXPECT_GT(cluster.at(0).counters().out_bytes, 0u);
}

TEST(node_server, listens_on_ipv6_and_names_itself_by_its_ipv6_endpoint)
{
    node_settings s;
    s.listen = {asio::ip::address_v6::loopback(), 0};
    node n(s);
    if (n.start())
    {
        GTEST_SKIP() << "no IPv6 loopback here";
    }
    raw_client c(n.endpoint());
    const chord::arc & a = c.ask_for<chord::arc>(chord::chord_request_ping{});
    EXPECT_TRUE(a.node.endpoint.address().is_v6());
    EXPECT_EQ(a.node.endpoint, n.endpoint());
    EXPECT_TRUE(chord::arc_is_valid(a));
}

TEST(node_server, a_bad_frame_closes_its_connection_and_no_other)
{
    local_cluster cluster(1);
    raw_client bystander(cluster.endpoint(0));
    ASSERT_TRUE(std::holds_alternative<chord::arc>(bystander.ask(chord::chord_request_ping{})));

    const node_test::bytes noise = {'h', 'e', 'l', 'l', 'o', ' ', 'n', 'o', 'd', 'e', '!', '!', '!'};
    node_test::bytes undecodable = node_test::frame_of(chord::chord_request_get_successor_of{});
    undecodable[12] = 18;
    node_test::bytes short_body = node_test::frame_of(chord::chord_request_get_successor_of{});
    short_body[4] = 5; // the 32-byte position no longer fits in the body
    node_test::bytes cut = node_test::frame_of(chord::chord_request_get_successor_of{});
    cut.resize(20);
    const std::vector<node_test::bytes> frames = {noise, undecodable, short_body, cut};
    for (std::size_t i = 0; i < frames.size(); ++i)
    {
        SCOPED_TRACE(i);
        raw_client c(cluster.endpoint(0));
        ASSERT_FALSE(c.client.send_bytes(frames[i]));
        if (i == 3)
        {
            // The rest never comes.
            c.client.socket().shutdown(asio::socket_base::shutdown_send);
        }
        std::size_t received = 1;
        EXPECT_FALSE(c.client.wait_closed(&received));
        EXPECT_EQ(received, 0u);
    }
    EXPECT_TRUE(std::holds_alternative<chord::arc>(bystander.ask(chord::chord_request_ping{})));
}

TEST(node_server, a_client_of_another_version_reads_why_before_the_connection_closes)
{
    local_cluster cluster(1);
    raw_client c(cluster.endpoint(0));
    node_test::bytes foreign = node_test::frame_of(chord::chord_request_get_successor_of{});
    foreign[2] = 30;
    ASSERT_FALSE(c.client.send_bytes(foreign));
    node_test::bytes frame;
    ASSERT_FALSE(c.client.receive_frame(frame));
    protocol::message reply;
    ASSERT_FALSE(protocol::read_frame(frame, reply, {}));
    ASSERT_TRUE(std::holds_alternative<protocol::result>(reply));
    EXPECT_EQ(std::get<protocol::result>(reply).error, make_error_code(protocol::error::invalid_version));
    EXPECT_FALSE(c.client.wait_closed());
}

TEST(node_server, stopping_closes_open_connections_even_mid_frame_or_with_a_reply_held)
{
    node_settings s;
    node n(s);
    ASSERT_FALSE(n.start());
    raw_client idle(n.endpoint());
    raw_client mid_frame(n.endpoint());
    ASSERT_FALSE(mid_frame.client.send_bytes(node_test::hex_frame_header(100)));
    n.set_faults(fault_settings{.hold_replies = true});
    raw_client held(n.endpoint());
    ASSERT_FALSE(held.client.send(chord::chord_request_ping{}));
    ASSERT_TRUE(n.wait_for_held_replies(1, std::chrono::seconds(30)));

    n.stop();
    for (raw_client * c : {&idle, &mid_frame, &held})
    {
        std::size_t received = 1;
        EXPECT_FALSE(c->client.wait_closed(&received));
        EXPECT_EQ(received, 0u);
    }
    EXPECT_EQ(n.open_connections(), 0u);
    raw_client late(n.endpoint());
    EXPECT_TRUE(late.connect_error);
}

// Frames arrive as the network cuts them: several in one segment, one across many, a large one after
// small ones. Each is answered in turn, whatever the cut.
TEST(node_server, answers_frames_however_they_are_cut_into_reads)
{
    local_cluster cluster(1);
    const chord::arc expected = cluster.at(0).ring()->arc_at(0);
    raw_client c(cluster.endpoint(0));
    const node_test::bytes ping = node_test::frame_of(chord::chord_request_ping{});

    auto read_pings = [&](std::size_t n)
    {
        for (std::size_t i = 0; i < n; ++i)
        {
            node_test::bytes frame;
            ASSERT_FALSE(c.client.receive_frame(frame));
            protocol::message reply;
            ASSERT_FALSE(protocol::read_frame(frame, reply, {}));
            ASSERT_TRUE(std::holds_alternative<chord::arc>(reply));
            EXPECT_EQ(std::get<chord::arc>(reply), expected);
        }
    };

    // Three whole frames and an empty one (answered with nothing) in one write.
    node_test::bytes three;
    for (int i = 0; i < 3; ++i)
    {
        three.insert(three.end(), ping.begin(), ping.end());
        if (i == 1)
        {
            const node_test::bytes empty = node_test::hex_frame_header(protocol::empty_frame_size);
            three.insert(three.end(), empty.begin(), empty.end());
        }
    }
    ASSERT_FALSE(c.client.send_bytes(three));
    read_pings(3);

    // Two thousand frames in one write, each answered in turn (about 40 KB: within what a socket
    // takes before anyone reads, so that the write ends before the replies are read).
    node_test::bytes many;
    for (int i = 0; i < 2000; ++i)
    {
        many.insert(many.end(), ping.begin(), ping.end());
    }
    ASSERT_FALSE(c.client.send_bytes(many));
    read_pings(2000);

    // One frame a byte at a time, its head included.
    for (const std::uint8_t b : ping)
    {
        ASSERT_FALSE(c.client.send_bytes(std::span(&b, 1)));
    }
    read_pings(1);

    // A frame far larger than the connection's first buffer, then a small one in the same write.
    const node_test::bytes big_content(300000, 0x5A);
    chord::chord_carrier_request unknown =
        node_test::carrier(0xFFF0, {}, node_test::bytes(big_content.begin(), big_content.end()), 1);
    node_test::bytes two = node_test::frame_of(protocol::message{unknown});
    two.insert(two.end(), ping.begin(), ping.end());
    ASSERT_FALSE(c.client.send_bytes(two));
    node_test::bytes frame;
    ASSERT_FALSE(c.client.receive_frame(frame));
    protocol::message reply;
    ASSERT_FALSE(protocol::read_frame(frame, reply, {}));
    ASSERT_TRUE(std::holds_alternative<chord::chord_carrier_reply>(reply));
    EXPECT_EQ(std::get<chord::chord_carrier_reply>(reply).result.error,
              make_error_code(kernel::error::unknown_message));
    read_pings(1);
    EXPECT_EQ(cluster.at(0).open_connections(), 1u);
}

TEST(node_server, node_stop_stops_a_node_that_allows_it)
{
    cluster_options options;
    options.node.enable_stop = true;
    local_cluster cluster(2, options);
    std::atomic<bool> told{false};
    cluster.at(1).on_stop([&] { told = true; });
    raw_client c(cluster.endpoint(1));
    EXPECT_FALSE(c.ask_for<protocol::result>(chord::chord_request_node_stop{"maintenance"}).error);
    EXPECT_FALSE(c.client.wait_closed());
    EXPECT_TRUE(cluster.at(1).stopping());
    EXPECT_TRUE(told);
    // The other node goes on.
    raw_client other(cluster.endpoint(0));
    EXPECT_TRUE(std::holds_alternative<chord::arc>(other.ask(chord::chord_request_ping{})));
}

} // namespace
} // namespace zlk::node
