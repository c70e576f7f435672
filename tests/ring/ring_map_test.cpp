#include <gtest/gtest.h>

#include <boost/system/errc.hpp>

#include "ring/conversations.hpp"
#include "ring/ring_map.hpp"
#include "ring_test_support.hpp"

namespace zlk::ring_test
{
namespace
{

using chord::ring_map;
namespace errc = boost::system::errc;

const boost::system::error_code unstable = make_error_code(chord::error::unstable_ring);

// Three nodes at 100, 200, 300 (ports 1001..1003), learnt into the map without a conversation.
struct three_node_map : ::testing::Test
{
    fake_ring ring{{node_of(100, 1001), node_of(200, 1002), node_of(300, 1003)}};
    ring_map map{ring};

    void SetUp() override
    {
        for (std::size_t i = 0; i < 3; ++i)
        {
            map.insert_arc(arc_of(ring.members(), i));
        }
    }

    ring_id owner(const ring_id & position)
    {
        node_info out;
        EXPECT_FALSE(map.find_owner(position, 0, false, out));
        return out.id;
    }
};

TEST_F(three_node_map, a_position_belongs_to_the_first_node_whose_id_is_not_below_it)
{
    EXPECT_EQ(owner(id_of(100)), id_of(100));
    EXPECT_EQ(owner(id_of(101)), id_of(200));
    EXPECT_EQ(owner(id_of(200)), id_of(200));
    EXPECT_EQ(owner(id_of(201)), id_of(300));
    EXPECT_EQ(ring.calls, 0) << "every answer came from the cache";
}

TEST_F(three_node_map, positions_past_the_last_node_and_below_the_first_wrap_to_the_first)
{
    EXPECT_EQ(owner(id_of(0)), id_of(100));
    EXPECT_EQ(owner(id_of(301)), id_of(100));
    EXPECT_EQ(owner(ring_id::max()), id_of(100));
    EXPECT_EQ(owner(id_of(0, 1)), id_of(100)) << "the high word decides first";
}

TEST_F(three_node_map, the_map_closes_into_a_ring_and_stops_doing_so_when_an_arc_is_forgotten)
{
    EXPECT_TRUE(map.is_consistent());
    EXPECT_EQ(map.ring_size(), 3u);

    map.forget_node(node_of(999, 1)); // unknown: nothing happens
    EXPECT_EQ(map.ring_size(), 3u);

    map.forget_node(node_of(200, 0)); // by id, whatever the endpoint
    EXPECT_EQ(map.ring_size(), 2u);
    EXPECT_FALSE(map.is_consistent());
}

TEST_F(three_node_map, a_forgotten_arc_is_asked_for_and_learnt_again)
{
    map.forget_node(node_of(200, 1002));
    map.bootstrap({endpoint_of(1003)}); // walks: 4 round trips for 3 nodes
    EXPECT_EQ(ring.calls, 4);
    ring.calls = 0;

    map.forget_node(node_of(200, 1002));
    EXPECT_EQ(owner(id_of(150)), id_of(200));
    EXPECT_EQ(ring.calls, 1);
    EXPECT_EQ(owner(id_of(150)), id_of(200));
    EXPECT_EQ(ring.calls, 1) << "learnt on the first miss";
    EXPECT_TRUE(map.is_consistent());
}

TEST_F(three_node_map, inserting_an_arc_replaces_the_one_of_the_same_node)
{
    arc changed = arc_of(ring.members(), 1);
    changed.predecessor = node_of(150, 1009);
    map.insert_arc(changed);
    EXPECT_EQ(map.ring_size(), 3u);
    EXPECT_EQ(map.arcs()[1], changed);
    EXPECT_FALSE(map.is_consistent()) << "its predecessor is no longer the node before it";
    EXPECT_EQ(owner(id_of(160)), id_of(200));
}

TEST(ring_map, a_one_node_ring_has_an_arc_of_three_equal_ids_that_takes_every_position)
{
    fake_ring ring{{node_of(42, 1001)}};
    ring_map map{ring};
    ASSERT_FALSE(map.bootstrap({endpoint_of(1001)}));
    EXPECT_EQ(ring.calls, 2) << "the first answer's id is met again on the second round";
    ASSERT_EQ(map.ring_size(), 1u);
    EXPECT_TRUE(chord::arc_is_valid(map.arcs().front()));
    EXPECT_TRUE(map.is_consistent());

    for (const ring_id & p : {id_of(0), id_of(42), id_of(43), ring_id::max()})
    {
        node_info out;
        ASSERT_FALSE(map.find_owner(p, 0, false, out));
        EXPECT_EQ(out.id, id_of(42));
    }
    EXPECT_EQ(ring.calls, 2);
}

TEST(ring_map, in_a_ring_of_two_both_ends_of_the_circle_land_on_the_arc_that_crosses_zero)
{
    fake_ring ring{{node_of(1000, 1001), node_of(5000, 1002)}};
    ring_map map{ring};
    ASSERT_FALSE(map.bootstrap({endpoint_of(1002)}));
    EXPECT_EQ(ring.calls, 3);
    for (const ring_id & p : {id_of(0), ring_id::max(), id_of(5001)})
    {
        node_info out;
        ASSERT_FALSE(map.find_owner(p, 0, false, out));
        EXPECT_EQ(out.id, id_of(1000));
    }
}

TEST(ring_map, a_miss_asks_the_known_endpoints_in_order_until_one_answers)
{
    fake_ring ring{{node_of(100, 1001), node_of(200, 1002)}};
    ring_map map{ring};
    ring.failing[endpoint_of(1001)] = errc::make_error_code(errc::connection_refused);
    ring.failing[endpoint_of(1002)] = errc::make_error_code(errc::connection_reset);
    ring.failing[endpoint_of(1003)] = errc::make_error_code(errc::timed_out);

    // All fail: the last failure is the result.
    EXPECT_EQ(map.bootstrap({endpoint_of(1003), endpoint_of(1001), endpoint_of(1002)}),
              errc::make_error_code(errc::timed_out));
    EXPECT_EQ(ring.asked, (std::vector{endpoint_of(1001), endpoint_of(1002), endpoint_of(1003)}));

    // The second answers.
    ring.failing.erase(endpoint_of(1002));
    ring.asked.clear();
    node_info out;
    ASSERT_FALSE(map.find_owner(id_of(150), 0, false, out));
    EXPECT_EQ(out, node_of(200, 1002));
    EXPECT_EQ(ring.asked, (std::vector{endpoint_of(1001), endpoint_of(1002)}));

    // A node that is down but still in the ring, asked first on every round, doesn't lose the arc that
    // the others describe: the walk closes.
    EXPECT_FALSE(map.walk_ring());
    EXPECT_TRUE(map.is_consistent());
    EXPECT_EQ(map.ring_size(), 2u);
}

TEST(ring_map, an_arc_that_is_invalid_or_misses_the_position_is_an_unstable_ring_and_is_not_learnt)
{
    fake_ring ring;
    ring_map map{ring};
    map.bootstrap({endpoint_of(1001)}); // fails: nobody in the ring yet

    // Two equal ids out of three: a half-built ring.
    ring.answer_override = [](const ring_id &) {
        return arc{node_of(100, 1001), node_of(100, 1001), node_of(200, 1002)};
    };
    node_info out;
    EXPECT_EQ(map.find_owner(id_of(50), 0, false, out), unstable);
    // Valid, but it doesn't own the position.
    ring.answer_override = [](const ring_id &) {
        return arc{node_of(100, 1001), node_of(200, 1002), node_of(300, 1003)};
    };
    EXPECT_EQ(map.find_owner(id_of(250), 0, false, out), unstable);
    // An unset endpoint makes the arc invalid too.
    ring.answer_override = [](const ring_id &) {
        return arc{node_of(100, 1001), node_info{id_of(200), network::endpoint{}}, node_of(300, 1003)};
    };
    map.find_owner(id_of(150), 0, false, out);
    EXPECT_EQ(map.ring_size(), 0u);
}

TEST(ring_map, with_no_endpoint_to_ask_a_miss_succeeds_with_an_unset_node)
{
    fake_ring ring;
    ring_map map{ring};
    node_info out = node_of(1, 1);
    EXPECT_FALSE(map.find_owner(id_of(5), 0, false, out));
    EXPECT_TRUE(out.is_unset());
    EXPECT_EQ(ring.calls, 0);
}

TEST(ring_map, any_node_takes_the_first_arc_but_an_empty_map_still_asks_the_cluster)
{
    fake_ring ring{{node_of(100, 1001), node_of(200, 1002)}};
    ring_map map{ring};
    ring.answer_override = [&ring](const ring_id & p) { return ring.arc_owning(p); };
    map.bootstrap({endpoint_of(1001)});
    ring.calls = 0;

    node_info out;
    ASSERT_FALSE(map.find_owner(id_of(150), chord::access_any_node, false, out));
    EXPECT_EQ(out.id, id_of(100));
    EXPECT_EQ(ring.calls, 0);

    map.clear();
    ASSERT_FALSE(map.find_owner(id_of(150), chord::access_any_node, false, out));
    EXPECT_EQ(out.id, id_of(200));
    EXPECT_EQ(ring.calls, 1);

    ASSERT_FALSE(map.find_owner(id_of(150), 0, true, out));
    EXPECT_EQ(ring.calls, 2) << "force_remote asks even when the cache knows";
}

TEST(ring_map, a_ring_that_changes_between_walks_leaves_stale_arcs_that_stabilize_refuses_and_clears)
{
    fake_ring ring{{node_of(100, 1001), node_of(200, 1002), node_of(300, 1003)}};
    ring_map map{ring};
    ASSERT_FALSE(map.bootstrap({endpoint_of(1001)}));
    ASSERT_TRUE(map.is_consistent());

    // Node 200 leaves: a walk relearns 100 and 300 and never meets 200, whose old arc stays.
    ring.set_members({node_of(100, 1001), node_of(300, 1003)});
    ASSERT_FALSE(map.walk_ring()) << "the walk itself closes";
    EXPECT_EQ(map.ring_size(), 3u);
    EXPECT_FALSE(map.is_consistent());

    EXPECT_EQ(map.stabilize(), unstable);
    EXPECT_EQ(map.ring_size(), 0u);

    // The next reader walks an empty map, which learns the new ring whole.
    auto [ec, arcs] = map.node_list(false);
    EXPECT_FALSE(ec);
    EXPECT_EQ(arcs.size(), 2u);
}

TEST(ring_map, node_list_walks_again_when_asked_to_and_gives_unstable_when_the_ring_stays_open)
{
    fake_ring ring{{node_of(100, 1001), node_of(200, 1002)}};
    ring_map map{ring};
    ASSERT_FALSE(map.bootstrap({endpoint_of(1001)}));
    ring.calls = 0;
    EXPECT_EQ(map.node_list(false).second.size(), 2u);
    EXPECT_EQ(ring.calls, 0);
    EXPECT_EQ(map.node_list(true).second.size(), 2u);
    EXPECT_EQ(ring.calls, 3);

    // Node 100 names a successor, 150, that the walk never meets: the walk closes, the ring doesn't.
    ring.answer_override = [](const ring_id & p)
    {
        return p <= id_of(100) || p > id_of(200)
                   ? arc{node_of(200, 1002), node_of(100, 1001), node_of(150, 1005)}
                   : arc{node_of(100, 1001), node_of(200, 1002), node_of(100, 1001)};
    };
    auto [ec, arcs] = map.node_list(true);
    EXPECT_EQ(ec, unstable);
    EXPECT_TRUE(arcs.empty());
    EXPECT_EQ(map.ring_size(), 0u) << "an open ring is cleared";
}

// Seven nodes, ids 10, 20, ... 70.
struct replica_walk : ::testing::Test
{
    fake_ring ring{{node_of(10, 1001), node_of(20, 1002), node_of(30, 1003), node_of(40, 1004),
                    node_of(50, 1005), node_of(60, 1006), node_of(70, 1007)}};
    ring_map map{ring};

    void SetUp() override { ASSERT_FALSE(map.bootstrap({endpoint_of(1001)})); }

    std::vector<ring_id> ids(const chord::replica_list & list)
    {
        std::vector<ring_id> out;
        for (const auto & w : list)
        {
            out.push_back(w.node.id);
        }
        return out;
    }
};

TEST_F(replica_walk, takes_the_owner_and_its_followers_up_to_the_factor_and_never_more_than_five)
{
    chord::replica_list list;
    ASSERT_FALSE(map.replicas(id_of(25), 0, false, 3, list));
    EXPECT_EQ(ids(list), (std::vector{id_of(30), id_of(40), id_of(50)}));

    ASSERT_FALSE(map.replicas(id_of(65), 0, false, 7, list));
    EXPECT_EQ(ids(list), (std::vector{id_of(70), id_of(10), id_of(20), id_of(30), id_of(40)}));

    ASSERT_FALSE(map.replicas(id_of(65), 0, false, 0, list));
    EXPECT_EQ(ids(list), std::vector{id_of(70)}) << "the owner at least";
}

TEST_F(replica_walk, stops_when_the_ring_closes_and_returns_what_it_has_when_a_follower_is_lost)
{
    fake_ring small{{node_of(10, 1001), node_of(20, 1002)}};
    ring_map two{small};
    ASSERT_FALSE(two.bootstrap({endpoint_of(1001)}));
    chord::replica_list list;
    ASSERT_FALSE(two.replicas(id_of(15), 0, false, 3, list));
    EXPECT_EQ(ids(list), (std::vector{id_of(20), id_of(10)}));

    // 40 is gone from the cache and every endpoint fails: the walk ends after 30.
    map.forget_node(node_of(40, 1004));
    for (std::uint16_t port = 1001; port <= 1007; ++port)
    {
        ring.failing[endpoint_of(port)] = errc::make_error_code(errc::connection_refused);
    }
    ASSERT_FALSE(map.replicas(id_of(25), 0, false, 4, list));
    EXPECT_EQ(ids(list), (std::vector{id_of(30)}));

    // Losing the owner itself is the failure.
    map.forget_node(node_of(30, 1003));
    EXPECT_TRUE(map.replicas(id_of(25), 0, false, 4, list));
}

TEST(proximity, weights_grow_with_the_octets_shared_with_the_local_address)
{
    const std::uint32_t local = 0x0A010203; // 10.1.2.3
    const auto at = [](const char * a) { return network::endpoint{asio::ip::make_address(a), 1}; };
    EXPECT_EQ(chord::proximity_weight(local, at("10.1.2.3")), 625u);
    EXPECT_EQ(chord::proximity_weight(local, at("10.1.2.200")), 64u);
    EXPECT_EQ(chord::proximity_weight(local, at("10.1.9.3")), 27u);
    EXPECT_EQ(chord::proximity_weight(local, at("10.7.2.3")), 8u);
    EXPECT_EQ(chord::proximity_weight(local, at("11.1.2.3")), 1u);
    EXPECT_EQ(chord::proximity_weight(local, at("::1")), 0u);
    EXPECT_EQ(chord::proximity_weight(std::nullopt, at("10.1.2.3")), 0u);
}

TEST(proximity, the_draw_falls_on_the_first_node_that_takes_the_running_number_below_zero)
{
    chord::replica_list list{{node_of(1, 1), 625}, {node_of(2, 2), 1}, {node_of(3, 3), 64}};
    EXPECT_EQ(chord::weighted_choice(list, 0).id, id_of(1));
    EXPECT_EQ(chord::weighted_choice(list, 624).id, id_of(1));
    EXPECT_EQ(chord::weighted_choice(list, 625).id, id_of(2));
    EXPECT_EQ(chord::weighted_choice(list, 626).id, id_of(3));
    EXPECT_EQ(chord::weighted_choice(list, 689).id, id_of(3));

    // A seeded generator repeats itself, stays in bounds, and prefers the heavy node 625 to 1.
    std::atomic<std::uint64_t> a{12345}, b{12345};
    std::array<int, 3> hits{};
    for (int i = 0; i < 6900; ++i)
    {
        const std::uint32_t r = chord::draw_uniform(a, 690);
        ASSERT_EQ(r, chord::draw_uniform(b, 690));
        ASSERT_LT(r, 690u);
        ++hits[static_cast<std::size_t>(chord::weighted_choice(list, r).id.words[0] - 1)];
    }
    EXPECT_GT(hits[0], 5500);
    EXPECT_LT(hits[1], 50);
    EXPECT_GT(hits[2], 400);

    std::atomic<std::uint64_t> zero{0};
    EXPECT_LT(chord::draw_uniform(zero, 7), 7u) << "a zero state doesn't stick";
    EXPECT_NE(zero.load(), 0u);
}

TEST(proximity, a_single_replica_is_picked_without_a_draw)
{
    fake_ring ring{{node_of(10, 1001), node_of(20, 1002)}};
    ring_map map{ring};
    ASSERT_FALSE(map.bootstrap({endpoint_of(1001)}));
    std::atomic<std::uint64_t> random{99};
    node_info out;
    ASSERT_FALSE(map.pick_replica(id_of(15), 0, false, 1, random, out));
    EXPECT_EQ(out.id, id_of(20));
    EXPECT_EQ(random.load(), 99u);

    ASSERT_FALSE(map.pick_replica(id_of(15), 0, false, 2, random, out));
    EXPECT_TRUE(out.id == id_of(20) || out.id == id_of(10));
}

TEST(refusal, an_error_forgets_the_node_and_only_wrong_peer_asks_for_a_retry)
{
    const network::endpoint from = endpoint_of(1001);
    protocol::result r;
    r.error = make_error_code(chord::error::wrong_peer);
    chord::chord_outcome o = chord::refusal(r, from, {});
    EXPECT_TRUE(o.forget && o.retry && o.remote);
    EXPECT_EQ(o.error, r.error);

    r.error = make_error_code(kernel::error::not_found);
    o = chord::refusal(r, from, {});
    EXPECT_TRUE(o.forget && !o.retry);

    const std::uint8_t bytes[] = {1, 2};
    r.error = {};
    r.content.emplace_back(bytes, 2);
    o = chord::refusal(r, from, {});
    EXPECT_EQ(o.error, make_error_code(chord::error::unexpected_reply));
    EXPECT_TRUE(o.forget && !o.remote);

    int filed = 0;
    r.content.clear();
    r.profile_name = "node step";
    o = chord::refusal(r, from, [&filed](const protocol::result &) { ++filed; });
    EXPECT_FALSE(o.error);
    EXPECT_FALSE(o.forget);
    EXPECT_EQ(filed, 1) << "the profile is filed first";
}

TEST(refusal, only_failures_that_make_a_node_suspect_are_chord_visible)
{
    EXPECT_TRUE(chord::is_chord_visible(errc::make_error_code(errc::connection_refused)));
    EXPECT_TRUE(chord::is_chord_visible(errc::make_error_code(errc::connection_reset)));
    EXPECT_TRUE(chord::is_chord_visible(errc::make_error_code(errc::connection_aborted)));
    EXPECT_TRUE(
        chord::is_chord_visible(boost::system::error_code{EHOSTUNREACH, boost::system::system_category()}));
    EXPECT_TRUE(chord::is_chord_visible(make_error_code(network::error::input_buffer_too_small)));
    EXPECT_TRUE(chord::is_chord_visible(make_error_code(protocol::error::invalid_version)));
    EXPECT_FALSE(chord::is_chord_visible(errc::make_error_code(errc::timed_out)));
    EXPECT_FALSE(chord::is_chord_visible(make_error_code(kernel::error::not_found)));
    EXPECT_FALSE(chord::is_chord_visible({}));
}

} // namespace
} // namespace zlk::ring_test
