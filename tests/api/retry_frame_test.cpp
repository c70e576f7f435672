#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "api/retry_frame.hpp"
#include "frame_support.hpp"

namespace
{

using namespace std::chrono_literals;
using namespace zlk::api;
using zlk::test::scoped_handle;

class fake_clock final : public retry_clock
{
public:
    time_point now() noexcept override { return _now; }
    void sleep_for(std::chrono::nanoseconds d) override
    {
        sleeps.push_back(d);
        _now += d;
    }
    std::chrono::nanoseconds elapsed() const { return _now - time_point{}; }

    std::vector<std::chrono::nanoseconds> sleeps;

private:
    time_point _now{};
};

// A body that fails with `failure` for its first `failures` runs, then succeeds.
struct scripted_body
{
    zlk_error_t failure;
    int failures;
    int runs = 0;
    zlk_error_t operator()() { return ++runs <= failures ? failure : zlk_e_ok; }
};

class retry_frame : public ::testing::Test
{
protected:
    zlk_session & session() { return *static_cast<zlk_handle_t>(h); }
    void connect() { session().connected_uri.assign({"zlk://127.0.0.1:2836"}); }

    scoped_handle h;
    fake_clock clock;
    cluster_steps unreachable{[](zlk_session &) { return zlk_e_connection_refused; },
                              [](zlk_session &) { return zlk_e_ok; }};
};

TEST(retry_delay, draws_50_to_250_ms_from_the_stored_generator_state)
{
    std::atomic<std::uint64_t> state{7};
    std::uint64_t s = 7;
    for (int i = 0; i < 300; ++i)
    {
        do
        {
            s = s * 214013u + 2531011u;
        } while ((s & 255u) > 200u);
        const auto d = draw_retry_delay(state);
        ASSERT_EQ(state.load(), s);
        ASSERT_EQ(d, std::chrono::milliseconds(50 + (s & 255u)));
        ASSERT_LE(d, 250ms);
    }
    EXPECT_EQ(scaled_delay(100ms, 3), 300ms);
    EXPECT_EQ(scaled_delay(250ms, std::numeric_limits<std::uint64_t>::max()).count(),
              std::numeric_limits<std::int64_t>::max());
}

TEST_F(retry_frame, a_conflict_is_retried_with_growing_sleeps_until_it_clears)
{
    scripted_body body{zlk_e_conflict, 3};
    EXPECT_EQ(run_with_retries(session(), std::ref(body), unreachable, clock), zlk_e_ok);
    EXPECT_EQ(body.runs, 4);
    ASSERT_EQ(clock.sleeps.size(), 3u);
    EXPECT_EQ(clock.sleeps[1], 2 * clock.sleeps[0]);
    EXPECT_EQ(clock.sleeps[2], 3 * clock.sleeps[0]);
    EXPECT_GE(clock.sleeps[0], 50ms);
    EXPECT_LE(clock.sleeps[0], 250ms);
}

TEST_F(retry_frame, a_lasting_clock_skew_is_retried_until_the_transaction_wait_runs_out)
{
    session().transaction_max_wait = 2000;
    scripted_body body{zlk_e_clock_skew, 1000};
    EXPECT_EQ(run_with_retries(session(), std::ref(body), unreachable, clock), zlk_e_clock_skew);
    // Every sleep but the last started before the limit; the last one crossed it.
    const auto last = clock.sleeps.back();
    EXPECT_GE(clock.elapsed(), 2000ms);
    EXPECT_LT(clock.elapsed() - last, 2000ms);
    EXPECT_EQ(body.runs, static_cast<int>(clock.sleeps.size()) + 1);
}

TEST_F(retry_frame, each_retry_is_off_while_its_option_is_zero)
{
    connect();
    session().transaction_max_wait = 0;
    scripted_body conflict{zlk_e_conflict, 1};
    EXPECT_EQ(run_with_retries(session(), std::ref(conflict), unreachable, clock), zlk_e_conflict);
    EXPECT_EQ(conflict.runs, 1);

    ASSERT_EQ(session().stabilization_max_wait.load(), 0);
    scripted_body reset{zlk_e_connection_reset, 1};
    EXPECT_EQ(run_with_retries(session(), std::ref(reset), unreachable, clock), zlk_e_connection_reset);
    EXPECT_EQ(reset.runs, 1);
    EXPECT_TRUE(clock.sleeps.empty());
}

TEST_F(retry_frame, a_cluster_that_never_returns_costs_three_waits_each_bounded_by_the_option)
{
    connect();
    session().stabilization_max_wait = 1000;
    int reconnects = 0;
    const cluster_steps never{[&](zlk_session &)
                              {
                                  ++reconnects;
                                  return zlk_e_unstable_cluster;
                              },
                              [](zlk_session &) { return zlk_e_ok; }};
    scripted_body body{zlk_e_timeout, 1000};

    EXPECT_EQ(run_with_retries(session(), std::ref(body), never, clock), zlk_e_unstable_cluster);
    EXPECT_EQ(body.runs, 1);
    EXPECT_EQ(reconnects, static_cast<int>(clock.sleeps.size()));
    // A wait ends with the first sleep that reaches its limit; the longest such sleep is 3 * 250 ms.
    EXPECT_GE(clock.elapsed(), 3 * 1000ms);
    EXPECT_LT(clock.elapsed(), 3 * (1000ms + 750ms));
}

TEST_F(retry_frame, a_restored_cluster_runs_the_body_again_three_times_at_most)
{
    connect();
    session().stabilization_max_wait = 1000;
    const cluster_steps restored{[](zlk_session &) { return zlk_e_ok; },
                                 [](zlk_session &) { return zlk_e_ok; }};
    scripted_body recovers{zlk_e_connection_refused, 2};
    EXPECT_EQ(run_with_retries(session(), std::ref(recovers), restored, clock), zlk_e_ok);
    EXPECT_EQ(recovers.runs, 3);

    scripted_body never{zlk_e_connection_refused, 1000};
    EXPECT_EQ(run_with_retries(session(), std::ref(never), restored, clock), zlk_e_connection_refused);
    EXPECT_EQ(never.runs, 4);
    EXPECT_TRUE(clock.sleeps.empty());
}

TEST_F(retry_frame, waiting_for_the_cluster_ends_at_the_first_status_that_is_not_a_connection_failure)
{
    EXPECT_EQ(wait_for_stable_cluster(nullptr, unreachable, clock), zlk_e_invalid_handle);
    EXPECT_EQ(wait_for_stable_cluster(&session(), unreachable, clock), zlk_e_not_connected);

    connect();
    session().stabilization_max_wait = 5000;
    const cluster_steps denied{[](zlk_session &) { return zlk_e_ok; },
                               [](zlk_session &) { return zlk_e_access_denied; }};
    EXPECT_EQ(wait_for_stable_cluster(&session(), denied, clock), zlk_e_access_denied);
    EXPECT_TRUE(clock.sleeps.empty());
}

} // namespace
