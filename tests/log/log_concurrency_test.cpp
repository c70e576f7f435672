#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "log/log_packet.hpp"
#include "log/logger.hpp"
#include "log_capture.hpp"

namespace zlk::log
{
namespace
{

TEST(PacketQueueConcurrency, EveryPacketFromManyProducersIsDrainedExactlyOnce)
{
    constexpr int producers = 4;
    constexpr int per_producer = 20000;
    // Small, so that producers keep finding the pool empty while the consumer gives packets back.
    packet_pool pool(64);
    packet_queue q(pool);
    std::vector<int> seen(producers * per_producer, 0);
    std::atomic<int> producing{producers};

    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
    {
        threads.emplace_back(
            [&, p]
            {
                for (int i = 0; i < per_producer; ++i)
                {
                    log_packet * packet = nullptr;
                    while (!(packet = pool.acquire()))
                    {
                        std::this_thread::yield();
                    }
                    packet->length = static_cast<std::uint64_t>(p * per_producer + i);
                    q.push(packet);
                }
                --producing;
            });
    }
    const auto count = [&](const log_packet & packet) { ++seen[packet.length]; };
    while (producing > 0)
    {
        q.drain(count);
        std::this_thread::yield();
    }
    q.drain(count);
    for (auto & t : threads)
    {
        t.join();
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), producers * per_producer);
    for (std::size_t i = 0; i < pool.capacity(); ++i)
    {
        EXPECT_NE(pool.acquire(), nullptr);
    }
}

void ignore(zlk_log_level_t, const std::uint64_t *, std::uint64_t, std::uint64_t, const char *, std::size_t)
{
}

TEST(LoggerConcurrency, MessagesFromManyThreadsAreDeliveredOnceOrCountedAsDroppedWhileSinksChange)
{
    constexpr int loggers = 4;
    constexpr int per_logger = 5000;
    // The churn's own lines are below the minimum: every drop counted is one of the messages below.
    start_logger(level::warning, std::chrono::milliseconds(1));
    add_callback(&testing::capture);
    const std::uint64_t dropped_before = dropped_messages();

    std::atomic<int> logging{loggers};
    std::vector<std::thread> threads;
    for (int t = 0; t < loggers; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < per_logger; ++i)
                {
                    log(level::warning, "t{} m{}", t, i);
                }
                --logging;
            });
    }
    // Sinks come and go and flushes run on another thread while the task flushes too.
    threads.emplace_back(
        [&]
        {
            while (logging > 0)
            {
                const auto id = add_callback(&ignore);
                flush();
                EXPECT_TRUE(id && remove_callback(*id));
            }
        });
    for (auto & t : threads)
    {
        t.join();
    }

    std::vector<int> seen(loggers * per_logger, 0);
    for (const auto & line : testing::flushed())
    {
        int t = 0;
        int i = 0;
        if (std::sscanf(line.text.c_str(), "t%d m%d", &t, &i) == 2)
        {
            ++seen.at(t * per_logger + i);
        }
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 2), 0);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1) + (dropped_messages() - dropped_before),
              std::uint64_t(loggers * per_logger));
    stop_logger();
}

TEST(LoggerConcurrency, LogCallsRacingWithStartsAndStopsNeverTouchAFreedLogger)
{
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                for (int i = 1; !done; ++i)
                {
                    log(level::info, "racing {} {}", t, i);
                    if (i % 64 == 0)
                    {
                        // Each of these finds the logger or doesn't; either answer is fine.
                        if (const auto id = add_callback(&ignore))
                        {
                            remove_callback(*id);
                        }
                        flush();
                    }
                }
            });
    }
    for (int cycle = 0; cycle < 50; ++cycle)
    {
        start_logger(level::detailed, std::chrono::milliseconds(cycle % 2));
        if (cycle % 3 == 0)
        {
            start_logger(level::warning, std::chrono::hours(1));
            stop_logger();
        }
        stop_logger();
    }
    done = true;
    for (auto & t : threads)
    {
        t.join();
    }
    EXPECT_FALSE(enabled(level::panic));
}

} // namespace
} // namespace zlk::log
