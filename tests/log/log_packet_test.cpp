#include "log/log_packet.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace zlk::log
{
namespace
{

void push_numbered(packet_pool & pool, packet_queue & q, std::uint64_t n)
{
    log_packet * p = pool.acquire();
    ASSERT_NE(p, nullptr);
    p->length = n;
    q.push(p);
}

std::vector<std::uint64_t> drained(packet_queue & q)
{
    std::vector<std::uint64_t> out;
    q.drain([&](const log_packet & p) { out.push_back(p.length); });
    return out;
}

TEST(PacketQueue, DrainsOldestFirstAndGivesEveryPacketBackToThePool)
{
    packet_pool pool(4);
    packet_queue q(pool);
    EXPECT_TRUE(drained(q).empty());
    // Many rounds through a small pool: a packet not given back, or given back twice, shows.
    for (std::uint64_t round = 0; round < 100; ++round)
    {
        for (std::uint64_t i = 0; i < 4; ++i)
        {
            push_numbered(pool, q, round * 10 + i);
        }
        EXPECT_EQ(pool.acquire(), nullptr);
        EXPECT_EQ(drained(q),
                  (std::vector<std::uint64_t>{round * 10, round * 10 + 1, round * 10 + 2, round * 10 + 3}));
    }
}

TEST(PacketQueue, AThrowingDeliveryKeepsTheRestForTheNextDrain)
{
    packet_pool pool(4);
    packet_queue q(pool);
    for (std::uint64_t i = 1; i <= 4; ++i)
    {
        push_numbered(pool, q, i);
    }
    std::vector<std::uint64_t> seen;
    const auto fail_on_2 = [&](const log_packet & p)
    {
        seen.push_back(p.length);
        if (p.length == 2)
        {
            throw std::runtime_error("sink failed");
        }
    };
    EXPECT_THROW(q.drain(fail_on_2), std::runtime_error);
    EXPECT_EQ(seen, (std::vector<std::uint64_t>{1, 2}));

    // The failed packet is back in the pool; the two after it are still queued.
    push_numbered(pool, q, 5);
    auto rest = drained(q);
    std::sort(rest.begin(), rest.end());
    EXPECT_EQ(rest, (std::vector<std::uint64_t>{3, 4, 5}));
}

} // namespace
} // namespace zlk::log
