// Placing nodes on the ring, answering who owns what, and reading zlkd's command line.
#include <gtest/gtest.h>

#include "node/command_line.hpp"
#include "node/membership.hpp"
#include "node/ring_math.hpp"
#include "node_test_support.hpp"

namespace zlk::node
{
namespace
{

using chord::ring_id;
using node_test::id_of;

constexpr std::uint64_t all = ~0ull;

chord::node_info member(const ring_id & id, unsigned short port)
{
    return chord::node_info{id, {asio::ip::address_v4::loopback(), port}};
}

TEST(ring_math, evenly_spaced_ids_split_the_circle_and_a_power_of_two_ring_ends_on_the_largest_id)
{
    EXPECT_EQ(evenly_spaced_id(0, 1), ring_id::max());
    EXPECT_EQ(evenly_spaced_id(0, 2), (ring_id{{all, all, all, all >> 1}}));
    EXPECT_EQ(evenly_spaced_id(1, 2), ring_id::max());
    const std::uint64_t third = 0x5555555555555555ull;
    EXPECT_EQ(evenly_spaced_id(0, 3), (ring_id{{third - 1, third, third, third}}));
    EXPECT_EQ(evenly_spaced_id(2, 3), (ring_id{{all - 1, all, all, all}}));
    for (std::size_t n : {5u, 7u, 64u})
    {
        for (std::size_t i = 1; i < n; ++i)
        {
            EXPECT_LT(evenly_spaced_id(i - 1, n), evenly_spaced_id(i, n)) << i << " of " << n;
        }
    }
}

TEST(ring_math, subtraction_borrows_across_words_and_the_middle_of_an_arc_lies_inside_it)
{
    EXPECT_EQ(ring_sub(ring_id{}, id_of(1)), ring_id::max());
    EXPECT_EQ(ring_sub(id_of(0, 1), id_of(1)), (ring_id{{all, all, all, 0}}));
    EXPECT_EQ(ring_add(ring_id::max(), id_of(2)), id_of(1));
    EXPECT_EQ(arc_middle(id_of(10), id_of(20)), id_of(15));
    // Round through zero: from near the top to 4.
    const ring_id from = ring_sub(ring_id{}, id_of(6));
    EXPECT_EQ(arc_middle(from, id_of(4)), ring_sub(ring_id{}, id_of(1)));
    // A lone node's arc is the whole circle: the middle is half way round.
    EXPECT_EQ(arc_middle(ring_id{}, ring_id{}), (ring_id{{all, all, all, all >> 1}}));
}

TEST(membership, a_position_belongs_to_the_first_member_not_below_it_round_through_zero)
{
    const membership ring({member(id_of(300), 3), member(id_of(100), 1), member(id_of(200), 2)});
    ASSERT_FALSE(ring.error());
    EXPECT_EQ(ring.members().front().id, id_of(100));
    EXPECT_EQ(ring.owner_index(id_of(100)), 0u);
    EXPECT_EQ(ring.owner_index(id_of(101)), 1u);
    EXPECT_EQ(ring.owner_index(id_of(300)), 2u);
    EXPECT_EQ(ring.owner_index(id_of(301)), 0u);
    EXPECT_EQ(ring.owner_index(ring_id{}), 0u);
    EXPECT_EQ(ring.owner_index(ring_id::max()), 0u);

    const chord::arc wrap = ring.arc_owning(ring_id::max());
    EXPECT_EQ(wrap.predecessor.id, id_of(300));
    EXPECT_EQ(wrap.node.id, id_of(100));
    EXPECT_EQ(wrap.successor.id, id_of(200));
    EXPECT_TRUE(chord::arc_is_valid(wrap));
    EXPECT_TRUE(chord::arc_contains(wrap.predecessor.id, wrap.node.id, ring_id::max()));
    EXPECT_EQ(ring.closest_preceding(id_of(150)).id, id_of(100));
    EXPECT_EQ(ring.closest_preceding(id_of(100)).id, id_of(300));
}

TEST(membership, a_lone_member_owns_everything_with_an_arc_of_three_equal_ids)
{
    const membership ring({member(id_of(42), 1)});
    const chord::arc a = ring.arc_owning(id_of(7, 9));
    EXPECT_EQ(a.predecessor, a.node);
    EXPECT_EQ(a.successor, a.node);
    EXPECT_TRUE(chord::arc_is_valid(a));
    EXPECT_TRUE(ring.holds_replica(ring_id{}, id_of(42), 4));
}

TEST(membership, replicas_are_the_owner_and_its_successors_each_once)
{
    const membership ring({member(id_of(100), 1), member(id_of(200), 2), member(id_of(300), 3)});
    std::vector<ring_id> seen;
    ring.for_each_replica(id_of(250), 2, [&](const chord::node_info & n) { seen.push_back(n.id); });
    EXPECT_EQ(seen, (std::vector<ring_id>{id_of(300), id_of(100)}));
    seen.clear();
    ring.for_each_replica(id_of(250), 4, [&](const chord::node_info & n) { seen.push_back(n.id); });
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_TRUE(ring.holds_replica(id_of(250), id_of(100), 2));
    EXPECT_FALSE(ring.holds_replica(id_of(250), id_of(200), 2));
    EXPECT_FALSE(ring.holds_replica(id_of(250), id_of(100), 1));
}

TEST(membership, a_duplicate_id_or_no_member_at_all_is_an_error)
{
    EXPECT_EQ(membership({member(id_of(1), 1), member(id_of(1), 2)}).error(),
              make_error_code(chord::error::duplicate_node_id));
    EXPECT_EQ(membership({}).error(), make_error_code(chord::error::node_not_found));
}

command_line_outcome parse(std::initializer_list<std::string_view> args)
{
    const std::vector<std::string_view> v(args);
    return parse_command_line(v);
}

TEST(command_line, a_lone_node_takes_its_id_endpoint_peers_and_settings)
{
    const auto r = parse({"--listen", "[::1]:7001", "--node-id=1-0-0-ff", "--peer", "2-0-0-0@127.0.0.1:7002",
                          "--replication", "3", "--enable-stop", "--log-level", "debug"});
    ASSERT_TRUE(r.options) << r.error;
    ASSERT_EQ(r.options->nodes.size(), 1u);
    const node_settings & s = r.options->nodes[0];
    EXPECT_EQ(s.listen, asio::ip::tcp::endpoint(asio::ip::make_address("::1"), 7001));
    EXPECT_EQ(s.id, (ring_id{{0xff, 0, 0, 1}}));
    ASSERT_EQ(s.peers.size(), 1u);
    EXPECT_EQ(s.peers[0].id, (ring_id{{0, 0, 0, 2}}));
    EXPECT_EQ(s.replication_factor, 3u);
    EXPECT_TRUE(s.enable_stop);
    EXPECT_EQ(r.options->log_level, log::level::debug);
}

TEST(command_line, a_cluster_gets_consecutive_ports_and_evenly_spaced_ids_that_know_each_other)
{
    const auto r = parse({"--cluster", "3", "--base-port", "9000"});
    ASSERT_TRUE(r.options) << r.error;
    ASSERT_EQ(r.options->nodes.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(r.options->nodes[i].listen.port(), 9000 + i);
        EXPECT_EQ(r.options->nodes[i].id, evenly_spaced_id(i, 3));
        EXPECT_EQ(r.options->nodes[i].peers.size(), 3u);
    }
    // One member of that ring, for a process of its own.
    const auto one = parse({"--cluster", "3", "--base-port", "9000", "--member", "2"});
    ASSERT_TRUE(one.options) << one.error;
    ASSERT_EQ(one.options->nodes.size(), 1u);
    EXPECT_EQ(one.options->nodes[0].id, evenly_spaced_id(2, 3));
    EXPECT_EQ(one.options->nodes[0].listen.port(), 9002);
    EXPECT_EQ(one.options->nodes[0].peers, r.options->nodes[0].peers);
}

TEST(command_line, bad_input_is_refused_with_a_sentence)
{
    for (const auto & args : std::vector<std::vector<std::string_view>>{
             {"--bogus"},
             {"--listen"},
             {"--listen", "nowhere"},
             {"--listen", "127.0.0.1:70000"},
             {"--node-id", "0x12"},
             {"--peer", "1-0-0-0"},
             {"--peer", "1-0-0-0@127.0.0.1:0"},
             {"--replication", "5"},
             {"--replication", "0"},
             {"--cluster", "0"},
             {"--cluster", "2", "--node-id", "1-0-0-0"},
             {"--cluster", "2", "--base-port", "65535"},
             {"--max-in-buffer", "10"},
             {"--enable-stop=yes"},
             {"--log-level", "loud"},
             {"--cluster", "2", "--member", "2"},
             {"--member", "0"},
             {"--node-id", "1-0-0-0", "--peer", "1-0-0-0@127.0.0.1:5"},
         })
    {
        const auto r = parse_command_line(args);
        EXPECT_FALSE(r.options) << args[0];
        EXPECT_FALSE(r.error.empty());
    }
}

} // namespace
} // namespace zlk::node
