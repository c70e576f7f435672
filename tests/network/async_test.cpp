#include <gtest/gtest.h>

#include <asio/post.hpp>

#include <future>
#include <thread>

#include "network/async_query.hpp"
#include "network/broker_service.hpp"
#include "network/socket_errors.hpp"
#include "network_test_support.hpp"

namespace zlk::network
{
namespace
{

using testing::contains_line;
using testing::log_lines;
using testing::scripted_peer;
using testing::step;

const ::testing::Environment * const logging =
    ::testing::AddGlobalTestEnvironment(new testing::logging_environment);

// What one request's handler saw, once the request is over.
struct outcome
{
    boost::system::error_code error;
    std::uint64_t value = ~0ull;
    std::thread::id thread;
};

class async_path : public ::testing::Test
{
protected:
    async_path()
    {
        service.run();
        peer.set_default(step::answer(testing::result_frame(9)));
    }

    // Starts a ping and returns the future of its outcome. While the loop runs, the outcome is set by a
    // handler posted from the reply handler: it runs after the request is over, the client back in its
    // pool or dropped.
    std::future<outcome> send(std::shared_ptr<client::client> c = nullptr,
                              boost::system::error_code handler_result = {})
    {
        if (!c)
        {
            c = service.async_side().get_client(peer.endpoint(), "grouped requests on ring").second;
        }
        auto done = std::make_shared<std::promise<outcome>>();
        auto future = done->get_future();
        auto query =
            make_async_query(protocol::message{chord::chord_request_ping{}},
                             [this, done, handler_result](operation_result r)
                             {
                                 outcome o{r.error, ~0ull, std::this_thread::get_id()};
                                 if (const auto * result = std::get_if<protocol::result>(&r.message))
                                 {
                                     o.value = result->value;
                                 }
                                 if (service.mux().accepting())
                                 {
                                     asio::post(service.mux().io(), [done, o] { done->set_value(o); });
                                 }
                                 else
                                 {
                                     done->set_value(o);
                                 }
                                 return handler_result;
                             });
        async_send(std::move(c), std::move(query));
        return future;
    }

    std::shared_ptr<network_settings> settings = std::make_shared<network_settings>();
    broker_service service{settings};
    scripted_peer peer;
};

TEST_F(async_path, completes_on_the_event_loop_and_returns_the_client_to_its_pool)
{
    const outcome o = send().get();
    ASSERT_FALSE(o.error) << o.error.message();
    EXPECT_EQ(o.value, 9u);
    EXPECT_NE(o.thread, std::this_thread::get_id());
    EXPECT_EQ(service.async_side().idle(peer.endpoint()), 1u);
    EXPECT_EQ(service.sync_side().idle(peer.endpoint()), 0u);

    EXPECT_EQ(send().get().value, 9u);
    EXPECT_EQ(peer.connections(), 1u);
    EXPECT_EQ(service.mux().tracked(), 0u);
}

TEST_F(async_path, replays_a_request_whose_pooled_connection_died_once)
{
    ASSERT_FALSE(send().get().error);

    peer.push(step::close_after_read());
    const outcome replayed = send().get();
    ASSERT_FALSE(replayed.error) << replayed.error.message();
    EXPECT_EQ(replayed.value, 9u);
    EXPECT_EQ(peer.connections(), 2u);
    EXPECT_EQ(service.async_side().idle(peer.endpoint()), 1u);

    peer.push(step::close_after_read());
    peer.push(step::close_after_read());
    log_lines::take();
    const outcome failed = send().get();
    EXPECT_EQ(failed.error, end_of_file());
    EXPECT_EQ(peer.connections(), 3u);
    EXPECT_EQ(service.async_side().idle(peer.endpoint()), 0u);
    const auto lines = log_lines::take();
    EXPECT_TRUE(contains_line(lines, "gracefully closed by peer"));
    EXPECT_TRUE(contains_line(lines, "because we got an error (replay): "));
}

TEST_F(async_path, does_not_replay_a_new_connection_nor_a_final_error)
{
    peer.push(step::close_after_read());
    log_lines::take();
    EXPECT_EQ(send().get().error, end_of_file());
    EXPECT_EQ(peer.connections(), 1u);
    EXPECT_TRUE(contains_line(log_lines::take(), "because we could not receive the data: "));

    ASSERT_FALSE(send().get().error);
    peer.push(step::answer_then_hold(testing::frame_head(30, 100)));
    EXPECT_EQ(send().get().error, protocol::error::invalid_version);
    EXPECT_EQ(peer.connections(), 2u);
    peer.release();
}

TEST_F(async_path, refuses_an_oversize_reply_before_its_body)
{
    settings->max_input_size = 4096;
    peer.push(step::answer_then_hold(testing::frame_head(35, 4096)));
    log_lines::take();
    EXPECT_EQ(send().get().error, network::error::input_buffer_too_small);
    EXPECT_TRUE(
        contains_line(log_lines::take(), "received a 4.0 KiB request - the configured maximum is 4 KiB"));
    peer.release();
}

TEST_F(async_path, drops_the_client_when_the_handler_reports_a_failure)
{
    log_lines::take();
    const outcome o = send(nullptr, boost::system::error_code(client_error::unknown)).get();
    EXPECT_FALSE(o.error);
    EXPECT_EQ(service.async_side().idle(peer.endpoint()), 0u);
    EXPECT_TRUE(contains_line(log_lines::take(), "because completion notification failed (replay): "));
}

TEST_F(async_path, flattens_a_frame_of_many_pieces_into_one_buffer)
{
    // A batch of 40 carriers, each body in memory of its own: more than 64 scatter entries.
    std::vector<std::vector<std::uint8_t>> bodies(40, std::vector<std::uint8_t>{30, 0, 'a', 0});
    chord::chord_carrier_request_batch batch(bodies.size());
    for (std::size_t i = 0; i < bodies.size(); ++i)
    {
        batch[i].client_id = i;
        batch[i].body = bodies[i];
    }
    auto done = std::make_shared<std::promise<boost::system::error_code>>();
    auto query = make_async_query(protocol::message{std::move(batch)},
                                  [done](operation_result r)
                                  {
                                      done->set_value(r.error);
                                      return boost::system::error_code{};
                                  });
    ASSERT_GT(query->frame.size(), async_request_state::max_gather_entries);
    std::vector<std::uint8_t> expected;
    serialization::flatten_into(query->frame, expected);

    async_send(service.async_side().get_client(peer.endpoint(), "grouped requests on ring").second, query);
    ASSERT_FALSE(done->get_future().get());
    EXPECT_EQ(peer.last_request(), expected);
}

TEST_F(async_path, stopping_completes_a_request_in_flight_with_an_aborted_error_silently)
{
    peer.push(step::silent());
    auto future = send();
    ASSERT_TRUE(peer.wait_for_requests(1));
    log_lines::take();

    service.stop();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    const outcome o = future.get();
    EXPECT_EQ(o.error, boost::system::errc::operation_canceled);
    EXPECT_EQ(o.thread, std::this_thread::get_id());
    const auto lines = log_lines::take();
    EXPECT_FALSE(contains_line(lines, "cannot receive data"));
    EXPECT_TRUE(contains_line(lines, "executed "));

    // Once stopped, a request completes at once, aborted.
    const outcome late = send().get();
    EXPECT_EQ(late.error, boost::system::errc::operation_canceled);
    peer.release();
}

TEST_F(async_path, a_refused_connection_completes_with_its_error)
{
    endpoint closed;
    {
        scripted_peer gone;
        closed = gone.endpoint();
    }
    log_lines::take();
    const outcome o = send(service.async_side().get_client(closed, "grouped requests on ring").second).get();
    EXPECT_EQ(o.error, boost::system::errc::connection_refused);
    EXPECT_TRUE(contains_line(log_lines::take(),
                              "context grouped requests on ring could not asynchronously connect: "));
}

} // namespace
} // namespace zlk::network
