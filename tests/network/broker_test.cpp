#include <gtest/gtest.h>

#include <pthread.h>

#include <asio/post.hpp>

#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "network/broker_service.hpp"
#include "network_test_support.hpp"

namespace zlk::network
{
namespace
{

using testing::contains_line;
using testing::log_lines;

const ::testing::Environment * const logging =
    ::testing::AddGlobalTestEnvironment(new testing::logging_environment);

class broker : public ::testing::Test
{
protected:
    broker() { service.run(); }

    std::shared_ptr<network_settings> settings = std::make_shared<network_settings>();
    broker_service service{settings};
    const endpoint node{asio::ip::make_address("127.0.0.1"), 7000};
};

TEST_F(broker, keeps_no_pool_for_an_endpoint_until_a_client_comes_back)
{
    clients_broker & side = service.sync_side();
    EXPECT_EQ(side.idle(node), 0u);
    auto [ec, first] = side.get_client(node, "find successor");
    ASSERT_FALSE(ec);
    ASSERT_TRUE(first);
    EXPECT_STREQ(first->context(), "find successor");
    EXPECT_FALSE(first->connected());
    EXPECT_EQ(side.idle(node), 0u);

    client::client * const pooled = first.get();
    side.return_client(std::move(first));
    side.return_client(nullptr);
    EXPECT_EQ(side.idle(node), 1u);

    // A pool hit hands out the same client, under its new user's name.
    auto [ec2, again] = side.get_client(node, "chord ping");
    EXPECT_EQ(again.get(), pooled);
    EXPECT_STREQ(again->context(), "chord ping");
    EXPECT_EQ(side.idle(node), 0u);

    // The other side has a pool of its own.
    EXPECT_EQ(service.async_side().idle(node), 0u);
}

TEST_F(broker, never_hands_out_a_pooled_client_for_an_unset_endpoint)
{
    clients_broker & side = service.sync_side();
    for (const endpoint & unset : {endpoint(asio::ip::address_v4::any(), 7000), endpoint(node.address(), 0)})
    {
        auto [ec, c] = side.get_client(unset, "client request");
        client::client * const returned = c.get();
        side.return_client(std::move(c));
        EXPECT_EQ(side.idle(unset), 1u);
        auto [ec2, other] = side.get_client(unset, "client request");
        EXPECT_NE(other.get(), returned);
    }
}

TEST_F(broker, closes_a_client_returned_to_a_full_pool_and_logs_it)
{
    clients_broker & side = service.sync_side();
    std::vector<clients_broker::client_ptr> clients;
    for (int i = 0; i < clients_broker::pool_capacity + 1; ++i)
    {
        clients.push_back(side.get_client(node, "client request").second);
    }
    std::weak_ptr<client::client> last = clients.back();
    log_lines::take();
    for (auto & c : clients)
    {
        side.return_client(std::move(c));
    }
    EXPECT_EQ(side.idle(node), 250u);
    EXPECT_TRUE(last.expired());
    const auto lines = log_lines::take();
    EXPECT_TRUE(contains_line(
        lines, "sync - client pool size maximum reached for 127.0.0.1:7000 (250), not returning client from "
               "context client request"));
}

TEST_F(broker, logs_statistics_with_every_hundredth_creation)
{
    clients_broker & side = service.async_side();
    log_lines::take();
    for (int i = 0; i < 100; ++i)
    {
        side.get_client(node, i % 2 ? "chord ping" : "client request");
    }
    const auto lines = log_lines::take();
    EXPECT_TRUE(
        contains_line(lines, "async - creating a new client for 127.0.0.1:7000 - context client request"));
    EXPECT_TRUE(
        contains_line(lines, "async - created 100th client (now for 127.0.0.1:7000 - context chord ping)"));
    EXPECT_TRUE(contains_line(lines, "async - context chord ping - 50 creations"));
    EXPECT_TRUE(contains_line(lines, "async - context client request - 50 creations"));
    EXPECT_TRUE(contains_line(lines, "async - endpoint 127.0.0.1:7000 - 0 entries"));
}

TEST_F(broker, stopping_drops_every_idle_client)
{
    auto c = service.sync_side().get_client(node, "client request").second;
    std::weak_ptr<client::client> watch = c;
    service.sync_side().return_client(std::move(c));
    ASSERT_FALSE(watch.expired());
    service.stop();
    EXPECT_TRUE(watch.expired());
}

TEST(multiplexer, runs_handlers_on_one_thread_named_after_the_service)
{
    multiplexer mux("client broker");
    EXPECT_EQ(mux.name(), "client broker multiplexer");
    mux.start();
    std::promise<std::string> name;
    asio::post(mux.io(),
               [&]
               {
                   char text[32] = {};
                   ::pthread_getname_np(::pthread_self(), text, sizeof text);
                   name.set_value(text);
               });
    EXPECT_EQ(name.get_future().get(), "client broker m");
    mux.stop();
}

TEST(multiplexer, survives_a_throwing_handler_and_runs_queued_handlers_at_stop)
{
    multiplexer mux("client broker");
    mux.start();
    log_lines::take();
    asio::post(mux.io(), [] { throw std::runtime_error("boom"); });
    std::promise<void> after;
    asio::post(mux.io(), [&] { after.set_value(); });
    after.get_future().get();
    EXPECT_TRUE(contains_line(log_lines::take(), "caught exception in client broker multiplexer: boom"));

    // Handlers queued behind a blocked one are run by stop(), not dropped.
    std::promise<void> blocker_started;
    std::promise<void> unblock;
    int ran = 0;
    asio::post(mux.io(),
               [&]
               {
                   blocker_started.set_value();
                   unblock.get_future().wait();
               });
    blocker_started.get_future().get();
    asio::post(mux.io(), [&] { ++ran; });
    asio::post(mux.io(), [&] { ++ran; });
    std::thread stopper([&] { mux.stop(); });
    // stop() has to get the loop out of the blocked handler before it can join.
    unblock.set_value();
    stopper.join();
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(mux.accepting());

    // And it starts again.
    mux.start();
    std::promise<void> restarted;
    asio::post(mux.io(), [&] { restarted.set_value(); });
    restarted.get_future().get();
    mux.stop();
}

} // namespace
} // namespace zlk::network
