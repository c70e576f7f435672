// The in-process cluster: membership changes, restarts, each fault as a raw client sees it, and
// replication through a test operation.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <thread>

#include "node/local_cluster.hpp"
#include "node/ring_math.hpp"
#include "node_test_support.hpp"

namespace zlk::node
{
namespace
{

using chord::ring_id;
using node_test::carrier;
using node_test::raw_client;

chord::arc arc_of(const local_cluster & cluster, std::size_t i)
{
    raw_client c(cluster.endpoint(i));
    return c.ask_for<chord::arc>(chord::chord_request_ping{});
}

TEST(local_cluster, starts_evenly_spaced_nodes_that_know_each_other)
{
    local_cluster cluster(3);
    EXPECT_EQ(cluster.uri(),
              fmt::format("zlk://127.0.0.1:{},127.0.0.1:{},127.0.0.1:{}", cluster.endpoint(0).port(),
                          cluster.endpoint(1).port(), cluster.endpoint(2).port()));
    for (std::size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(cluster.id(i), evenly_spaced_id(i, 3));
        const chord::arc a = arc_of(cluster, i);
        EXPECT_EQ(a.node, cluster.info(i));
        EXPECT_EQ(a.predecessor, cluster.info((i + 2) % 3));
        EXPECT_EQ(a.successor, cluster.info((i + 1) % 3));
    }
}

TEST(local_cluster, added_and_removed_nodes_change_the_arcs_every_node_answers)
{
    local_cluster cluster(2);
    const std::size_t added = cluster.add_node();
    ASSERT_EQ(added, 2u);
    // The widest arc was the one from node 1 round to node 0: the new node sits on it.
    EXPECT_EQ(arc_of(cluster, 1).successor, cluster.info(added));
    EXPECT_EQ(arc_of(cluster, 0).predecessor, cluster.info(added));
    raw_client c(cluster.endpoint(0));
    EXPECT_EQ(c.ask_for<chord::arc>(chord::chord_request_get_successor_of{cluster.id(added)}).node,
              cluster.info(added));

    cluster.remove_node(1);
    EXPECT_FALSE(cluster.is_member(1));
    EXPECT_EQ(arc_of(cluster, 0).successor, cluster.info(added));
    EXPECT_EQ(arc_of(cluster, added).predecessor, cluster.info(0));
    EXPECT_EQ(cluster.uri().find(std::to_string(cluster.endpoint(0).port())), 16u);
    EXPECT_THROW(cluster.at(1), std::out_of_range);
    EXPECT_THROW(cluster.add_node(cluster.id(0)), std::invalid_argument);
}

TEST(local_cluster, a_stopped_node_refuses_connections_and_comes_back_on_its_port)
{
    local_cluster cluster(2);
    const auto endpoint = cluster.endpoint(1);
    cluster.stop_node(1);
    EXPECT_FALSE(cluster.is_running(1));
    raw_client refused(endpoint);
    EXPECT_TRUE(refused.connect_error);
    // Still a member: the others route its arc to it.
    EXPECT_EQ(arc_of(cluster, 0).successor, cluster.info(1));

    cluster.restart_node(1);
    EXPECT_EQ(cluster.endpoint(1), endpoint);
    EXPECT_EQ(arc_of(cluster, 1).node, cluster.info(1));
}

class faults_test : public ::testing::Test
{
protected:
    local_cluster cluster{1};
};

TEST_F(faults_test, refusing_connections_until_cleared)
{
    cluster.set_faults(0, {.refuse_connections = true});
    raw_client refused(cluster.endpoint(0));
    EXPECT_EQ(refused.connect_error, boost::system::errc::connection_refused);
    cluster.clear_faults(0);
    raw_client welcome(cluster.endpoint(0));
    EXPECT_TRUE(std::holds_alternative<chord::arc>(welcome.ask(chord::chord_request_ping{})));
}

TEST_F(faults_test, closing_at_accept_or_after_the_request_sends_nothing)
{
    for (const fault_settings & f :
         {fault_settings{.close_on_accept = true}, fault_settings{.close_after_request = true}})
    {
        cluster.set_faults(0, f);
        raw_client c(cluster.endpoint(0));
        ASSERT_FALSE(c.connect_error);
        (void)c.client.send(chord::chord_request_ping{});
        std::size_t received = 1;
        EXPECT_FALSE(c.client.wait_closed(&received));
        EXPECT_EQ(received, 0u);
    }
}

TEST_F(faults_test, held_replies_go_out_only_when_released)
{
    cluster.set_faults(0, {.hold_replies = true});
    raw_client c(cluster.endpoint(0));
    ASSERT_FALSE(c.client.send(chord::chord_request_timestamp{}));
    ASSERT_TRUE(cluster.wait_for_held_replies(0, 1));
    EXPECT_EQ(c.client.available(), 0u);
    cluster.release_held_replies(0);
    node_test::bytes frame;
    ASSERT_FALSE(c.client.receive_frame(frame));
    protocol::message reply;
    ASSERT_FALSE(protocol::read_frame(frame, reply, {}));
    EXPECT_TRUE(std::holds_alternative<zlk::uuid>(reply));

    // A fixed delay only makes the reply late.
    cluster.set_faults(0, {.reply_delay = std::chrono::milliseconds(1)});
    EXPECT_TRUE(std::holds_alternative<chord::arc>(c.ask(chord::chord_request_ping{})));
}

TEST_F(faults_test, garbage_truncated_and_foreign_replies_are_what_the_client_reads)
{
    node_test::bytes got;
    {
        cluster.set_faults(0, {.garbage_replies = true});
        raw_client c(cluster.endpoint(0));
        ASSERT_FALSE(c.client.send(chord::chord_request_ping{}));
        ASSERT_FALSE(c.client.receive_exactly(sizeof(garbage_reply), got));
        EXPECT_EQ(protocol::check_header(got), protocol::error::invalid_header);
    }
    {
        cluster.set_faults(0, {.truncated_replies = true});
        raw_client c(cluster.endpoint(0));
        ASSERT_FALSE(c.client.send(chord::chord_request_ping{}));
        EXPECT_TRUE(c.client.receive_frame(got));
        EXPECT_GE(got.size(), protocol::frame_header_size);
        EXPECT_FALSE(c.client.is_open());
    }
    {
        cluster.set_faults(0, {.reply_version = 30});
        raw_client c(cluster.endpoint(0));
        ASSERT_FALSE(c.client.send(chord::chord_request_ping{}));
        ASSERT_FALSE(c.client.receive_frame(got));
        EXPECT_EQ(protocol::check_header(got), protocol::error::invalid_version);
    }
}

TEST_F(faults_test, chosen_operations_fail_with_the_chosen_error_and_others_do_not)
{
    fault_settings f;
    f.failing_operations = {23};
    f.operation_error = make_error_code(kernel::error::write_protected);
    cluster.set_faults(0, f);
    raw_client c(cluster.endpoint(0));
    EXPECT_EQ(c.ask_for<chord::chord_carrier_reply>(node_test::get_config(2)).result.error,
              make_error_code(kernel::error::write_protected));
    EXPECT_FALSE(c.ask_for<chord::chord_carrier_reply>(carrier(21)).result.error);
}

// A write that stores its fields on the node that runs it, then on the replicas; a read that tells
// whether this node holds them.
struct replicated_store
{
    static constexpr std::uint16_t write = 240;
    static constexpr std::uint16_t read = 241;

    std::mutex mutex;
    std::map<ring_id, std::vector<node_test::bytes>> held;

    std::size_t copies_on(const ring_id & node)
    {
        std::lock_guard lock(mutex);
        return held[node].size();
    }

    std::shared_ptr<const operation_registry> operations()
    {
        auto r = std::make_shared<operation_registry>(standard_operations());
        r->add(
            write,
            [this](operation_context & ctx, protocol::result & out)
            {
                const auto fields = ctx.request().body.subspan(2);
                {
                    std::lock_guard lock(mutex);
                    held[ctx.self().id].emplace_back(fields.begin(), fields.end());
                }
                out.error = ctx.replicate();
            },
            handler_mode::may_wait);
        r->add(read, [this](operation_context & ctx, protocol::result & out)
               { out.value = copies_on(ctx.self().id); });
        return r;
    }
};

TEST(replication, a_write_reaches_the_next_successors_and_a_replica_serves_reads)
{
    replicated_store store;
    cluster_options options;
    options.node.replication_factor = 2;
    options.operations = store.operations();
    local_cluster cluster(3, options);

    // Node 0 owns its own id; its replica is node 1.
    const ring_id key = cluster.id(0);
    raw_client owner(cluster.endpoint(0));
    EXPECT_FALSE(
        owner.ask_for<chord::chord_carrier_reply>(carrier(replicated_store::write, key, {7})).result.error);
    EXPECT_EQ(store.copies_on(cluster.id(0)), 1u);
    EXPECT_EQ(store.copies_on(cluster.id(1)), 1u);
    EXPECT_EQ(store.copies_on(cluster.id(2)), 0u);

    raw_client replica(cluster.endpoint(1));
    EXPECT_EQ(replica.ask_for<chord::chord_carrier_reply>(carrier(replicated_store::read, key, {}, 0x02))
                  .result.value,
              1u);
    EXPECT_EQ(replica.ask_for<protocol::result>(carrier(replicated_store::read, key)).error,
              make_error_code(chord::error::wrong_peer));
    raw_client outsider(cluster.endpoint(2));
    EXPECT_EQ(outsider.ask_for<protocol::result>(carrier(replicated_store::read, key, {}, 0x02)).error,
              make_error_code(chord::error::wrong_peer));

    // An unreachable replica fails the write as an unstable ring; once back, writes succeed again.
    cluster.stop_node(1);
    EXPECT_EQ(
        owner.ask_for<chord::chord_carrier_reply>(carrier(replicated_store::write, key, {8})).result.error,
        make_error_code(chord::error::unstable_ring));
    cluster.restart_node(1);
    EXPECT_FALSE(
        owner.ask_for<chord::chord_carrier_reply>(carrier(replicated_store::write, key, {9})).result.error);
    EXPECT_EQ(store.copies_on(cluster.id(1)), 2u);
}

TEST(replication, two_nodes_forwarding_to_each_other_at_once_do_not_wait_on_each_other)
{
    replicated_store store;
    cluster_options options;
    options.node.replication_factor = 2;
    options.node.threads = 1;
    options.operations = store.operations();
    local_cluster cluster(2, options);

    constexpr int writes = 20;
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (std::size_t i = 0; i < 2; ++i)
    {
        for (int w = 0; w < 2; ++w)
        {
            writers.emplace_back(
                [&, i]
                {
                    raw_client c(cluster.endpoint(i));
                    for (int k = 0; k < writes; ++k)
                    {
                        if (c.ask_for<chord::chord_carrier_reply>(
                                 carrier(replicated_store::write, cluster.id(i), {1}))
                                .result.error)
                        {
                            ++failures;
                        }
                    }
                });
        }
    }
    for (auto & t : writers)
    {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(store.copies_on(cluster.id(0)), 4u * writes);
    EXPECT_EQ(store.copies_on(cluster.id(1)), 4u * writes);
}

} // namespace
} // namespace zlk::node
