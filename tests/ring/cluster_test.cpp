// The ring against real nodes: connecting, walking, routing, and the failures a live ring shows.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

#include "api/cluster_functions.hpp"
#include "api/retry_frame.hpp"
#include "base/alias_hash.hpp"
#include "cluster_test_support.hpp"

namespace zlk::ring_test
{
namespace
{

using chord::ring_id;

class connected : public ::testing::TestWithParam<std::size_t>
{
};

TEST_P(connected, a_uri_naming_one_node_ends_with_the_whole_ring_walked_in_n_plus_one_round_trips)
{
    const std::size_t n = GetParam();
    node::local_cluster cluster(n);
    handle_guard handle;
    const std::string one = "zlk://" + network::format_endpoint(cluster.endpoint(n - 1));

    ASSERT_EQ(zlk_connect(handle.h, one.c_str()), zlk_e_ok);
    // The walk, then the three settings.
    EXPECT_EQ(replies_of(cluster), n + 1 + 3);
    EXPECT_EQ(handle.map().ring_size(), n);
    EXPECT_TRUE(handle.map().is_consistent());
    EXPECT_EQ(handle.map().known_endpoints().size(), n) << "each endpoint met is remembered";

    zlk_remote_node_t * nodes = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_cluster_endpoints(handle.h, &nodes, &count), zlk_e_ok);
    ASSERT_EQ(count, n);
    const auto members = cluster.members();
    for (std::size_t i = 0; i < n; ++i)
    {
        EXPECT_STREQ(nodes[i].address, "127.0.0.1");
        EXPECT_EQ(nodes[i].port, members[i].endpoint.port()) << "in ring order";
    }
    zlk_release(handle.h, nodes);

    // Every routed request goes straight to its owner: one reply each, no chord conversation.
    const std::uint64_t before = replies_of(cluster);
    for (std::size_t i = 0; i < n; ++i)
    {
        EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(i)), zlk_e_ok);
        EXPECT_EQ(routed_no_op(handle.cluster(), chord::alias_hash("key " + std::to_string(i))), zlk_e_ok);
    }
    EXPECT_EQ(replies_of(cluster), before + 2 * n);
    EXPECT_EQ(zlk_wait_for_stabilization(handle.h, 0), zlk_e_ok) << "a settled ring reads at once";
}

INSTANTIATE_TEST_SUITE_P(rings, connected, ::testing::Values(1, 3, 5));

TEST(cluster_connection, refuses_what_it_cannot_use_and_connects_through_any_endpoint_that_answers)
{
    handle_guard handle;
    EXPECT_EQ(zlk_connect(handle.h, nullptr), zlk_e_invalid_argument);
    zlk_string_t text{};
    zlk_get_last_error(handle.h, nullptr, &text);
    EXPECT_NE(std::string(text.data, text.length).find("Got NULL uri"), std::string::npos);
    EXPECT_NE(zlk_connect(handle.h, "http://127.0.0.1:1"), zlk_e_ok);
    EXPECT_EQ(zlk_wait_for_stabilization(handle.h, 0), zlk_e_not_connected);

    node::local_cluster cluster(2);
    cluster.stop_node(0);
    const std::string dead = "zlk://" + network::format_endpoint(cluster.endpoint(0));
    const zlk_error_t refused = zlk_connect(handle.h, dead.c_str());
    EXPECT_EQ(ZLK_ERROR_ORIGIN(refused), zlk_eo_connection) << "the walk reached no node";
    EXPECT_EQ(zlk_wait_for_stabilization(handle.h, 0), zlk_e_timeout);

    // The dead endpoint is asked first or second, whatever: the live one answers.
    const std::string both = dead + "," + network::format_endpoint(cluster.endpoint(1));
    EXPECT_EQ(zlk_connect(handle.h, both.c_str()), zlk_e_ok);
    // Both arcs were walked; the settings are read from the first node, the dead one, which that
    // failure makes the client forget.
    EXPECT_EQ(handle.map().ring_size(), 1u);
    EXPECT_EQ(handle.map().arcs().front().node.id, cluster.id(1));
}

TEST(cluster_connection, a_request_connecting_again_checks_the_credentials_as_zlk_connect_does)
{
    node::local_cluster cluster(1);
    handle_guard handle;
    // A cluster key without a user key can't make a secure channel nor a clear one.
    handle.h->cluster_public_key.emplace();
    EXPECT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_login_failed);
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(0)), zlk_e_login_failed);
    EXPECT_EQ(handle.map().ring_size(), 0u) << "nothing was sent in the clear";

    handle.h->cluster_public_key.reset();
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(0)), zlk_e_ok);
    EXPECT_EQ(handle.map().ring_size(), 1u);
}

// A node that is told a ring in which another node, at its own endpoint, owns part of its arc: it
// refuses the keys of that part with "wrong peer", and it tells the client that the other node owns them.
TEST(routing, a_node_that_always_answers_wrong_peer_is_asked_anew_three_times_then_given_up)
{
    node::local_cluster cluster(1);
    const ring_id phantom_id = chord::alias_hash("phantom");
    ASSERT_NE(phantom_id, cluster.id(0));
    ASSERT_FALSE(
        cluster.at(0).set_members({cluster.info(0), chord::node_info{phantom_id, cluster.endpoint(0)}}));

    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    const std::uint64_t refused_before = cluster.at(0).counters().failures;
    EXPECT_EQ(routed_no_op(handle.cluster(), phantom_id), zlk_e_unstable_cluster);
    EXPECT_EQ(cluster.at(0).counters().failures - refused_before, 3u);

    // A key the node does own still goes through.
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(0)), zlk_e_ok);
}

TEST(routing, a_dead_node_is_forgotten_and_its_arc_learnt_again_once_it_is_back)
{
    node::local_cluster cluster(3);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    cluster.stop_node(1);

    const zlk_error_t status = routed_no_op(handle.cluster(), cluster.id(1));
    EXPECT_EQ(ZLK_ERROR_ORIGIN(status), zlk_eo_connection);
    EXPECT_EQ(handle.map().ring_size(), 2u);
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(0)), zlk_e_ok) << "the others still serve";

    cluster.restart_node(1);
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(1)), zlk_e_ok);
    EXPECT_EQ(handle.map().ring_size(), 3u);
    EXPECT_TRUE(handle.map().is_consistent());
}

TEST(routing, a_node_added_under_the_client_takes_its_keys_at_the_first_refusal)
{
    node::local_cluster cluster(3);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    const std::size_t added = cluster.add_node();
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(added)), zlk_e_ok);
    auto [ec, arcs] = handle.map().node_list(true);
    EXPECT_FALSE(ec);
    EXPECT_EQ(arcs.size(), 4u);
}

// A clock whose sleeps are where the world changes: the frame's waits run at once and in order.
struct scripted_clock final : api::retry_clock
{
    time_point t{};
    int sleeps = 0;
    time_point now() noexcept override { return t; }
    void sleep_for(std::chrono::nanoseconds d) override
    {
        ++sleeps;
        t += d;
    }
};

TEST(routing, a_node_removed_under_the_client_is_recovered_by_the_connection_retry)
{
    node::local_cluster cluster(3);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    ASSERT_EQ(zlk_option_set_stabilization_max_wait(handle.h, 20000), zlk_e_ok);
    const ring_id key = cluster.id(1);
    cluster.stop_node(1); // still a member: the others send its keys to it

    int bodies = 0;
    scripted_clock clock;
    const zlk_error_t status = api::run_with_retries(
        *handle.h,
        [&]
        {
            const zlk_error_t s = routed_no_op(handle.cluster(), key);
            if (++bodies == 1)
            {
                EXPECT_EQ(ZLK_ERROR_ORIGIN(s), zlk_eo_connection);
                cluster.remove_node(1); // now it leaves the ring for good
            }
            return s;
        },
        api::default_cluster_steps(), clock);
    EXPECT_EQ(status, zlk_e_ok);
    EXPECT_EQ(bodies, 2);
    EXPECT_EQ(handle.map().ring_size(), 2u);
    EXPECT_TRUE(handle.map().is_consistent());
}

TEST(routing, the_wait_for_a_stable_cluster_sleeps_until_the_ring_can_be_walked_again)
{
    node::local_cluster cluster(1);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    cluster.stop_node(0);

    scripted_clock clock;
    struct restarting_clock final : api::retry_clock
    {
        scripted_clock & inner;
        std::function<void()> on_first_sleep;
        explicit restarting_clock(scripted_clock & c)
            : inner(c)
        {
        }
        time_point now() noexcept override { return inner.now(); }
        void sleep_for(std::chrono::nanoseconds d) override
        {
            inner.sleep_for(d);
            if (auto f = std::exchange(on_first_sleep, nullptr))
            {
                f();
            }
        }
    } restarting{clock};
    restarting.on_first_sleep = [&] { cluster.restart_node(0); };

    EXPECT_EQ(api::wait_for_stabilization(*handle.h, std::chrono::milliseconds(60000), restarting), zlk_e_ok);
    EXPECT_EQ(clock.sleeps, 1);
    EXPECT_EQ(routed_no_op(handle.cluster(), cluster.id(0)), zlk_e_ok);

    // A cluster that stays away: zlk_e_timeout once the time is out, not before.
    cluster.stop_node(0);
    scripted_clock never;
    EXPECT_EQ(api::wait_for_stabilization(*handle.h, std::chrono::milliseconds(2000), never), zlk_e_timeout);
    EXPECT_GE(never.t.time_since_epoch(), std::chrono::milliseconds(2000));
    EXPECT_GT(never.sleeps, 1);
}

// get_config that answers a chosen replication factor.
std::shared_ptr<const node::operation_registry> replication_factor_of(std::uint64_t factor)
{
    auto registry = std::make_shared<node::operation_registry>(node::standard_operations());
    registry->add(static_cast<std::uint16_t>(protocol::operation::get_config),
                  [factor](node::operation_context & ctx, protocol::result & r)
                  {
                      serialization::cursor c = ctx.fields();
                      std::uint8_t item = 0;
                      serialization::read_u8(c, item);
                      r.value = item == 2 ? factor : item == 3 ? 0x1000 : 0;
                  });
    return registry;
}

TEST(cluster_settings, a_replication_factor_outside_one_to_four_is_stored_as_one_and_the_rest_as_given)
{
    for (const auto & [answered, stored] : {std::pair{0u, 1u}, {5u, 1u}, {4u, 4u}, {2u, 2u}})
    {
        node::cluster_options options;
        options.operations = replication_factor_of(answered);
        node::local_cluster cluster(1, options);
        handle_guard handle;
        handle.h->replication_factor.store(3);
        ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok) << answered;
        EXPECT_EQ(handle.cluster().replication_factor(), stored) << answered;
        size_t limit = 0;
        ASSERT_EQ(zlk_option_get_cluster_max_in_buf_size(handle.h, &limit), zlk_e_ok);
        EXPECT_EQ(limit, 0x1000u);
    }
}

TEST(routing, a_read_asks_a_replica_then_the_owner_when_the_factor_allows)
{
    // Each key on two nodes, so that whichever replica is drawn serves the read.
    node::cluster_options options;
    options.node.replication_factor = 2;
    node::local_cluster cluster(3, options);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    ASSERT_EQ(handle.cluster().replication_factor(), 2u);
    handle.h->replication_factor.store(1);
    // Every read fails with "not found", wherever it is sent.
    node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(protocol::operation::get_config)};
    faults.operation_error = make_error_code(kernel::error::not_found);
    for (std::size_t i = 0; i < 3; ++i)
    {
        cluster.set_faults(i, faults);
    }

    chord::owner_request read;
    read.key = cluster.id(2);
    read.has_content = false;
    chord::owner_reply reply;
    const std::uint64_t before = replies_of(cluster);
    EXPECT_EQ(chord::request_read(handle.cluster(), read, no_op_body, reply), zlk_e_alias_not_found);
    EXPECT_EQ(replies_of(cluster) - before, 1u) << "factor 1: the replica's answer is final";

    handle.h->replication_factor.store(2);
    EXPECT_EQ(chord::request_read(handle.cluster(), read, no_op_body, reply), zlk_e_alias_not_found);
    EXPECT_EQ(replies_of(cluster) - before, 3u) << "factor 2: asked again, at the owner";
    ASSERT_NE(reply.reply(), nullptr);
    EXPECT_EQ(reply.node.id, cluster.id(2));
}

} // namespace
} // namespace zlk::ring_test
