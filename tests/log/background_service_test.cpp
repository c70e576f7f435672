#include "log/background_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>

#include "log_capture.hpp"

namespace zlk::log
{
namespace
{

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using error_code = boost::system::error_code;

class fake_service final : public background_service
{
public:
    fake_service()
        : background_service("fake")
    {
    }
    ~fake_service() override { stop(); }

    std::function<error_code()> on_start = [] { return error_code{}; };
    std::function<void()> on_stop = [] {};
    int starts = 0;
    int stops = 0;

protected:
    error_code do_start() override
    {
        ++starts;
        return on_start();
    }
    void do_stop() override
    {
        ++stops;
        on_stop();
    }
};

class BackgroundServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        start_logger(level::detailed, std::chrono::hours(1));
        add_callback(&testing::capture);
        testing::flushed();
    }
    void TearDown() override { stop_logger(); }

    // The service's lines since the last call. Lines of one thread may leave the queues in any
    // order, so each step is checked on its own.
    static std::vector<std::pair<zlk_log_level_t, std::string>> logged()
    {
        std::vector<std::pair<zlk_log_level_t, std::string>> lines;
        for (auto & l : testing::flushed())
        {
            if (l.text.find("fake") != std::string::npos)
            {
                lines.emplace_back(l.level, l.text);
            }
        }
        return lines;
    }

    fake_service service_;
};

TEST_F(BackgroundServiceTest, RunAndStopLogEveryStepAndARepeatedRequestOnlyItsRequest)
{
    EXPECT_FALSE(service_.run());
    EXPECT_TRUE(service_.running());
    EXPECT_THAT(logged(), UnorderedElementsAre(Pair(zlk_log_detailed, "requested fake service run"),
                                               Pair(zlk_log_debug, "starting up fake service"),
                                               Pair(zlk_log_info, "fake service started")));
    EXPECT_FALSE(service_.run());
    EXPECT_THAT(logged(), ElementsAre(Pair(zlk_log_detailed, "requested fake service run")));

    service_.stop();
    EXPECT_FALSE(service_.running());
    EXPECT_THAT(logged(), UnorderedElementsAre(Pair(zlk_log_detailed, "requested fake service stop"),
                                               Pair(zlk_log_debug, "stopping fake service"),
                                               Pair(zlk_log_info, "fake service stopped")));
    service_.stop();
    EXPECT_THAT(logged(), UnorderedElementsAre(Pair(zlk_log_detailed, "requested fake service stop"),
                                               Pair(zlk_log_detailed, "fake service already stopped")));
    EXPECT_EQ(service_.starts, 1);
    EXPECT_EQ(service_.stops, 1);
}

TEST_F(BackgroundServiceTest, AStartThatFailsIsLoggedUndoneAndReportedToTheCaller)
{
    const auto refused = boost::system::errc::make_error_code(boost::system::errc::address_in_use);
    service_.on_start = [&] { return refused; };
    EXPECT_EQ(service_.run(), refused);
    EXPECT_THAT(logged(),
                Contains(Pair(zlk_log_panic, "could not start fake service: " + refused.message())));

    service_.on_start = []() -> error_code { throw std::bad_alloc(); };
    EXPECT_THROW(service_.run(), std::bad_alloc);
    EXPECT_THAT(logged(), Contains(Pair(zlk_log_panic, "cannot start fake service: not enough memory")));

    service_.on_start = []() -> error_code { throw std::runtime_error("no thread left"); };
    EXPECT_THROW(service_.run(), std::runtime_error);
    EXPECT_THAT(logged(),
                Contains(Pair(zlk_log_panic, "cannot start fake service, caught exception: no thread left")));

    // Each failed start was undone at once, and nothing is left running to stop.
    EXPECT_EQ(service_.stops, 3);
    EXPECT_FALSE(service_.running());
    service_.stop();
    EXPECT_EQ(service_.stops, 3);
}

TEST_F(BackgroundServiceTest, AFailingStopIsLoggedSwallowedAndLeavesTheServiceStopped)
{
    ASSERT_FALSE(service_.run());
    logged();
    service_.on_stop = [] { throw std::runtime_error("stuck"); };
    service_.stop();
    EXPECT_FALSE(service_.running());
    EXPECT_THAT(logged(),
                UnorderedElementsAre(
                    Pair(zlk_log_detailed, "requested fake service stop"),
                    Pair(zlk_log_debug, "stopping fake service"),
                    Pair(zlk_log_error, "cannot properly stop fake service, caught exception: stuck")));
    service_.stop();
    EXPECT_EQ(service_.stops, 1);
}

} // namespace
} // namespace zlk::log
