#include <gtest/gtest.h>

#include <asio/post.hpp>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "network/async_query.hpp"
#include "network/broker_service.hpp"
#include "network/request.hpp"
#include "network_test_support.hpp"

namespace zlk::network
{
namespace
{

using testing::scripted_peer;
using testing::step;

const ::testing::Environment * const logging =
    ::testing::AddGlobalTestEnvironment(new testing::logging_environment);

constexpr int threads = 8;
constexpr int requests_per_thread = 100;

TEST(broker_concurrency, many_threads_share_one_broker_for_synchronous_requests)
{
    auto settings = std::make_shared<network_settings>();
    broker_service service(settings);
    service.run();
    scripted_peer peer;
    peer.set_default(step::answer(testing::result_frame(3)));

    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
    {
        workers.emplace_back(
            [&]
            {
                for (int i = 0; i < requests_per_thread; ++i)
                {
                    client::received_frame reply;
                    const auto ec =
                        client::request_sync(service.sync_side(), peer.endpoint(), "client request",
                                             protocol::message{chord::chord_request_ping{}}, reply);
                    const auto * r = std::get_if<protocol::result>(&reply.message);
                    if (ec || !r || r->value != 3)
                    {
                        failures.fetch_add(1);
                    }
                }
            });
    }
    for (auto & w : workers)
    {
        w.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(peer.requests(), std::size_t{threads * requests_per_thread});
    // A connection is made only when every other one is in use.
    EXPECT_LE(peer.connections(), std::size_t{threads});
    EXPECT_EQ(service.sync_side().idle(peer.endpoint()), peer.connections());
}

TEST(broker_concurrency, asynchronous_requests_from_many_threads_all_complete_before_stop_returns)
{
    auto settings = std::make_shared<network_settings>();
    broker_service service(settings);
    service.run();
    scripted_peer peer;
    peer.set_default(step::answer(testing::result_frame(4)));

    std::atomic<int> completed{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
    {
        workers.emplace_back(
            [&]
            {
                for (int i = 0; i < requests_per_thread / 4; ++i)
                {
                    auto done = std::make_shared<std::promise<void>>();
                    auto query = make_async_query(protocol::message{chord::chord_request_ping{}},
                                                  [&, done](operation_result r)
                                                  {
                                                      if (r.error)
                                                      {
                                                          failures.fetch_add(1);
                                                      }
                                                      completed.fetch_add(1);
                                                      done->set_value();
                                                      return boost::system::error_code{};
                                                  });
                    auto c =
                        service.async_side().get_client(peer.endpoint(), "grouped requests on ring").second;
                    async_send(std::move(c), std::move(query));
                    done->get_future().wait();
                }
            });
    }
    for (auto & w : workers)
    {
        w.join();
    }
    service.stop();
    EXPECT_EQ(completed.load(), threads * requests_per_thread / 4);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(service.mux().tracked(), 0u);
}

} // namespace
} // namespace zlk::network
