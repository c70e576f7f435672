#include "log/log_packet.hpp"
#include "log/logger.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "log_capture.hpp"

namespace zlk::log
{
namespace
{

using namespace testing;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

constexpr auto a_long_time = std::chrono::hours(1);

// Read from the clock the logger reads: time() may lag behind it by a tick.
std::array<std::uint64_t, 6> utc_now()
{
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    std::tm tm{};
    gmtime_r(&ts.tv_sec, &tm);
    return {std::uint64_t(tm.tm_year + 1900), std::uint64_t(tm.tm_mon + 1), std::uint64_t(tm.tm_mday),
            std::uint64_t(tm.tm_hour),        std::uint64_t(tm.tm_min),     std::uint64_t(tm.tm_sec)};
}

std::atomic<int> counted{0};
void count(zlk_log_level_t, const std::uint64_t *, std::uint64_t, std::uint64_t, const char *, std::size_t)
{
    ++counted;
}

// A running logger whose task doesn't flush by itself within a test, with the capture attached.
class LoggerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        start_logger(level::detailed, a_long_time);
        capture_id_ = *add_callback(&capture);
        flushed();
    }
    void TearDown() override { stop_logger(); }

    sink_id capture_id_ = 0;
};

TEST_F(LoggerTest, CallbacksReceiveThePublicLevelTheUtcDateTheProcessAndTheThreadInThatOrder)
{
    const auto before = utc_now();
    for (int l : {0, 1, 2, 3, 4, 5, 9})
    {
        log(static_cast<level>(l), "at {}", l);
    }
    const auto after = utc_now();

    std::map<std::string, zlk_log_level_t> levels;
    for (const auto & line : flushed())
    {
        levels[line.text] = line.level;
        EXPECT_EQ(line.pid, std::uint64_t(::getpid()));
        EXPECT_EQ(line.tid, std::uint64_t(::syscall(SYS_gettid)));
        EXPECT_GE(line.date, before);
        EXPECT_LE(line.date, after);
    }
    // A level that doesn't exist still reaches the callbacks, as an error.
    EXPECT_EQ(levels, (std::map<std::string, zlk_log_level_t>{{"at 0", zlk_log_detailed},
                                                              {"at 1", zlk_log_debug},
                                                              {"at 2", zlk_log_info},
                                                              {"at 3", zlk_log_warning},
                                                              {"at 4", zlk_log_error},
                                                              {"at 5", zlk_log_panic},
                                                              {"at 9", zlk_log_error}}));
}

TEST_F(LoggerTest, MessagesAreCutAt512BytesAndEmptyOnesAreNotDelivered)
{
    log(level::info, "{}", std::string(max_message_size + 100, 'x'));
    log(level::info, "{}", std::string(max_message_size, 'e'));
    log(level::info, "{}{}", std::string(max_message_size - 1, 'y'), "z!");
    // Far more empty messages than the pool holds: each must give its packet back.
    for (std::size_t i = 0; i < 3 * packet_pool::default_capacity; ++i)
    {
        log(level::info, "{}", "");
    }
    log(level::info, "after the empty ones");

    EXPECT_THAT(flushed_texts(),
                UnorderedElementsAre(std::string(max_message_size, 'x'), std::string(max_message_size, 'e'),
                                     std::string(max_message_size - 1, 'y') + "z", "after the empty ones"));
}

TEST_F(LoggerTest, EveryCallbackGetsEveryMessageOnceAndARemovedOneNothingMore)
{
    const auto id = add_callback(&count);
    ASSERT_TRUE(id);
    EXPECT_NE(*id, capture_id_);
    EXPECT_THAT(flushed_texts(),
                Contains(fmt::format("will log to callback {} with id {}", fmt::ptr(&count), *id)));

    counted = 0;
    std::vector<std::string> expected;
    for (int i = 0; i < 100; ++i)
    {
        log(level::debug, "message {}", i);
        expected.push_back(fmt::format("message {}", i));
    }
    EXPECT_THAT(flushed_texts(), UnorderedElementsAreArray(expected));
    EXPECT_EQ(counted, 100);

    EXPECT_TRUE(remove_callback(*id));
    EXPECT_FALSE(remove_callback(*id));
    EXPECT_FALSE(add_callback(nullptr));
    counted = 0;
    log(level::info, "after the removal");
    std::vector<std::pair<zlk_log_level_t, std::string>> lines;
    for (auto & l : flushed())
    {
        lines.emplace_back(l.level, l.text);
    }
    EXPECT_EQ(counted, 0);
    EXPECT_THAT(lines,
                UnorderedElementsAre(
                    Pair(zlk_log_info, fmt::format("callback with id {} was successfully removed", *id)),
                    Pair(zlk_log_warning, fmt::format("callback with id {} could not be removed", *id)),
                    Pair(zlk_log_info, "after the removal")));
}

TEST_F(LoggerTest, AnExhaustedPoolDropsMessagesAndCountsThemWithoutLosingAny)
{
    const std::uint64_t dropped_before = dropped_messages();
    const std::size_t sent = 3 * packet_pool::default_capacity;
    for (std::size_t i = 0; i < sent; ++i)
    {
        log(level::info, "burst {}", i);
    }
    const auto received = flushed().size();
    // The task may have flushed some of the burst in between; what it didn't take was dropped.
    EXPECT_GE(received, packet_pool::default_capacity);
    EXPECT_EQ(received + (dropped_messages() - dropped_before), sent);
}

TEST_F(LoggerTest, FileAndConsoleSinksWriteOneLinePerMessage)
{
    try
    {
        log_to_file("");
        ADD_FAILURE() << "an empty path was accepted";
    }
    catch (const std::invalid_argument & e)
    {
        EXPECT_STREQ(e.what(), "An empty path is not a valid log output");
    }
    EXPECT_THROW(log_to_file("/nonexistent-directory/zlk.log"), std::system_error);

    const std::string path = ::testing::TempDir() + "zlk_log_" + std::to_string(::getpid()) + ".log";
    std::remove(path.c_str());
    const auto file_id = log_to_file(path);
    log(level::warning, "into the file");
    flush();
    ::testing::internal::CaptureStderr();
    const auto console_id = log_to_console();
    log(level::panic, "onto the console");
    flush();
    const std::string console = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(remove_callback(*console_id));
    EXPECT_TRUE(remove_callback(*file_id));

    std::stringstream file;
    file << std::ifstream(path).rdbuf();
    std::remove(path.c_str());
    EXPECT_THAT(file.str(), HasSubstr(" info     " + std::to_string(::getpid())));
    EXPECT_THAT(file.str(), HasSubstr(" will log to the file " + path + "\n"));
    EXPECT_THAT(file.str(), HasSubstr(" into the file\n"));
    EXPECT_THAT(file.str(), HasSubstr(" onto the console\n"));
    EXPECT_THAT(console, HasSubstr(" panic    "));
    EXPECT_THAT(console, HasSubstr(" onto the console\n"));
    EXPECT_THAT(console, Not(HasSubstr("into the file")));
}

TEST(LoggerLifecycle, MessagesBelowTheMinimumLevelAreDropped)
{
    start_logger(level::warning, a_long_time);
    add_callback(&capture);
    EXPECT_FALSE(enabled(level::info));
    for (int l = 0; l <= 5; ++l)
    {
        log(static_cast<level>(l), "at {}", l);
    }
    // The callback's own "will log to callback" line was below the minimum too.
    EXPECT_THAT(flushed_texts(), UnorderedElementsAre("at 3", "at 4", "at 5"));
    stop_logger();
}

TEST(LoggerLifecycle, WithoutALoggerMessagesAreDroppedAndSinksCannotBeAdded)
{
    EXPECT_FALSE(enabled(level::panic));
    log(level::panic, "into the void");
    flush();
    EXPECT_FALSE(add_callback(&capture));
    EXPECT_FALSE(remove_callback(1));
    EXPECT_FALSE(log_to_console());

    start_logger(level::detailed, a_long_time);
    add_callback(&capture);
    EXPECT_THAT(flushed_texts(), Not(Contains("into the void")));
    stop_logger();
}

TEST(LoggerLifecycle, OnlyTheLastOfSeveralStopsFreesTheLoggerAfterAFinalFlush)
{
    start_logger(level::detailed, a_long_time);
    // A second start only counts: its level is not taken.
    start_logger(level::panic, a_long_time);
    add_callback(&capture);
    stop_logger();
    EXPECT_TRUE(enabled(level::detailed));
    log(level::info, "still logging");

    // The final flush hands out what was still queued, the task's last lines included.
    stop_logger();
    EXPECT_FALSE(enabled(level::panic));
    EXPECT_FALSE(add_callback(&capture));
    const auto texts = flushed_texts();
    for (const char * line :
         {"still logging", "requested async logger task service stop", "stopping async logger task service",
          "exiting async logger task thread", "async logger task service stopped"})
    {
        EXPECT_THAT(texts, Contains(line));
    }

    // A stop too many is ignored: the next start still makes a logger.
    stop_logger();
    start_logger(level::detailed, a_long_time);
    EXPECT_TRUE(add_callback(&capture));
    stop_logger();
}

TEST(LoggerLifecycle, AProcessThatExitsWithTheLoggerRunningStillFlushesIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            start_logger(level::detailed, a_long_time);
            log_to_console();
            log(level::info, "the last words");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "the last words");
}

void throwing(zlk_log_level_t, const std::uint64_t *, std::uint64_t, std::uint64_t, const char * text,
              std::size_t size)
{
    if (std::string_view(text, size) == "throw a standard exception")
    {
        throw std::runtime_error("boom");
    }
    if (std::string_view(text, size) == "throw something else")
    {
        throw 42;
    }
}

TEST(LoggerTask, ExceptionsFromASinkAreLoggedByTheTaskWhichGoesOnFlushing)
{
    start_logger(level::detailed, std::chrono::milliseconds(1));
    add_callback(&capture);
    add_callback(&throwing);
    log(level::info, "throw a standard exception");
    EXPECT_TRUE(wait_for("exception caught in async logger task: boom"));
    log(level::info, "throw something else");
    EXPECT_TRUE(wait_for("unknown exception caught in async logger task"));
    log(level::info, "after the exceptions");
    EXPECT_TRUE(wait_for("after the exceptions"));
    stop_logger();
    flushed();
}

} // namespace
} // namespace zlk::log
