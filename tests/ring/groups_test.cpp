// Groups of requests, in one frame per node: synchronous, in parallel over the ring, and broadcast.
#include <gtest/gtest.h>

#include <atomic>

#include "base/alias_hash.hpp"
#include "cluster_test_support.hpp"
#include "scripted_peer.hpp"
#include "wire/frame.hpp"

namespace zlk::ring_test
{
namespace
{

using chord::chord_carrier_reply;
using client::request_record;

// Reads each reply's value into the slot its record names.
struct value_policy
{
    static constexpr bool has_content = false;

    explicit value_policy(std::size_t n)
        : values(n, ~std::uint64_t{0})
        , reads(n, 0)
    {
    }

    boost::system::error_code on_reply(const request_record & r, const chord_carrier_reply & reply)
    {
        if (r.slot >= values.size())
        {
            return client::group_size_error(r.slot, values.size());
        }
        values[r.slot] = reply.result.value;
        ++reads[r.slot];
        return reply.result.error;
    }

    std::vector<std::uint64_t> values;
    std::vector<int> reads;
};

// Two no-ops per node, keyed on the node, numbered on from next_client_id.
struct two_per_node
{
    std::vector<std::uint16_t> access_seen;

    boost::system::error_code operator()(const chord::node_info & node, std::uint16_t access_bits,
                                         std::uint64_t next_client_id, client::node_group & group)
    {
        access_seen.push_back(access_bits);
        for (std::uint64_t k = 0; k < 2; ++k)
        {
            request_record r;
            r.request = chord::make_carrier(node.id, next_client_id + k, access_bits, no_op_body());
            r.slot = static_cast<std::size_t>(next_client_id + k);
            group.records.push_back(std::move(r));
        }
        return {};
    }
};

TEST(groups, a_walk_over_the_nodes_sends_one_group_per_node_and_fills_every_record)
{
    for (const std::size_t n : {1u, 3u})
    {
        node::local_cluster cluster(n);
        handle_guard handle;
        ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);

        two_per_node make;
        std::vector<client::node_group> groups;
        ASSERT_EQ(chord::collect_node_groups(handle.cluster(), make, groups), zlk_e_ok);
        ASSERT_EQ(groups.size(), n) << "the follower of the last node is the first: the walk stops";
        EXPECT_EQ(make.access_seen.front(), chord::access_first_node);
        EXPECT_EQ(std::count(make.access_seen.begin(), make.access_seen.end(), 0), static_cast<long>(n - 1));
        EXPECT_EQ(groups.back().records.back().request.client_id, 2 * n - 1) << "ids run on across groups";

        value_policy policy(2 * n);
        ASSERT_EQ(chord::run_groups(handle.cluster(), groups, policy), zlk_e_ok);
        EXPECT_EQ(policy.values, std::vector<std::uint64_t>(2 * n, 1));
        EXPECT_EQ(policy.reads, std::vector<int>(2 * n, 1));

        // The same group on the calling thread.
        two_per_node again;
        client::node_group group{cluster.info(0), {}};
        again(group.node, 0, 0, group);
        value_policy sync_policy(2);
        EXPECT_EQ(chord::request_group(handle.cluster(), group, "test group", sync_policy), zlk_e_ok);
        EXPECT_EQ(sync_policy.values, (std::vector<std::uint64_t>{1, 1}));
    }
}

TEST(groups, the_first_failure_in_order_is_the_result_once_every_group_has_answered)
{
    node::local_cluster cluster(3);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(protocol::operation::get_config)};
    faults.operation_error = make_error_code(kernel::error::already_exists);
    cluster.set_faults(2, faults);
    cluster.stop_node(1);

    two_per_node make;
    std::vector<client::node_group> groups;
    ASSERT_EQ(chord::collect_node_groups(handle.cluster(), make, groups), zlk_e_ok);
    value_policy policy(6);
    const zlk_error_t status = chord::run_groups(handle.cluster(), groups, policy);
    EXPECT_EQ(ZLK_ERROR_ORIGIN(status), zlk_eo_connection) << "node 1's group comes before node 2's";
    EXPECT_EQ(policy.reads, (std::vector<int>{1, 1, 0, 0, 1, 1})) << "node 2 answered all the same";
    EXPECT_EQ(handle.map().ring_size(), 2u) << "the dead node is forgotten";
}

TEST(groups, a_group_whose_node_stays_silent_is_closed_at_the_time_out_and_fails)
{
    node::local_cluster cluster(1);
    handle_guard handle;
    ASSERT_EQ(zlk_option_set_timeout(handle.h, 1000), zlk_e_ok);
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    cluster.set_faults(0, node::fault_settings{.hold_replies = true});

    two_per_node make;
    std::vector<client::node_group> groups;
    ASSERT_EQ(chord::collect_node_groups(handle.cluster(), make, groups), zlk_e_ok);
    value_policy policy(2);
    EXPECT_TRUE(ZLK_FAILURE(chord::run_groups(handle.cluster(), groups, policy)));
    EXPECT_EQ(policy.reads, (std::vector<int>{0, 0}));
    cluster.clear_faults(0);
    cluster.release_held_replies(0);
}

// The bytes of one frame.
network::testing::bytes frame_of(const protocol::message & m)
{
    serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(m, scatter, scratch);
    network::testing::bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

TEST(groups, a_reply_echoing_the_wrong_client_id_fails_that_request_alone)
{
    network::testing::scripted_peer peer;
    chord::chord_carrier_reply_batch replies(2);
    replies[0].client_id = 4;
    replies[0].result.value = 7;
    replies[1].client_id = 9; // the request said 5
    replies[1].result.value = 8;
    peer.set_default(network::testing::step::answer(frame_of(protocol::message{replies})));

    node::local_cluster cluster(1);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);
    const chord::node_info node{cluster.id(0), peer.endpoint()};
    client::node_group group{node, {}};
    for (std::uint64_t id : {4u, 5u})
    {
        group.records.push_back(request_record{chord::make_carrier(node.id, id, 0, no_op_body()), id - 4});
    }

    value_policy sync_policy(2);
    EXPECT_EQ(chord::request_group(handle.cluster(), group, "test group", sync_policy),
              zlk_e_invalid_protocol);
    EXPECT_EQ(sync_policy.values, (std::vector<std::uint64_t>{7, ~std::uint64_t{0}}));

    std::vector<client::node_group> groups{group};
    value_policy async_policy(2);
    EXPECT_EQ(chord::run_groups(handle.cluster(), groups, async_policy), zlk_e_invalid_protocol);
    EXPECT_EQ(async_policy.reads, (std::vector<int>{1, 0}));

    // The record's own view of the failure: protocol code 3, "the packet header is invalid".
    const client::error_detail d = chord::detail::treat_carrier_reply(
        handle.cluster(), group.records[1], replies[1], false,
        [](const request_record &, const chord_carrier_reply &) { return boost::system::error_code{}; });
    EXPECT_EQ(d.error.message(), "the packet header is invalid");
}

// Counts the trim_all requests a node is sent.
std::shared_ptr<const node::operation_registry> counting_trim(std::atomic<int> & count)
{
    auto registry = std::make_shared<node::operation_registry>(node::standard_operations());
    registry->add(static_cast<std::uint16_t>(protocol::operation::trim_all),
                  [&count](node::operation_context &, protocol::result &) { ++count; });
    return registry;
}

protocol::operation_body trim_all_body()
{
    return protocol::build_operation_body(protocol::operation::trim_all, 0, [](serialization::writer &) {});
}

TEST(broadcast, reaches_every_live_node_and_fails_when_one_is_dead)
{
    std::atomic<int> trims{0};
    node::cluster_options options;
    options.operations = counting_trim(trims);
    node::local_cluster cluster(3, options);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);

    client::empty_batch_policy policy;
    EXPECT_EQ(chord::request_all_nodes(handle.cluster(), trim_all_body, policy), zlk_e_ok);
    EXPECT_EQ(trims.load(), 3);

    cluster.stop_node(1);
    const zlk_error_t status = chord::request_all_nodes(handle.cluster(), trim_all_body, policy);
    EXPECT_EQ(ZLK_ERROR_ORIGIN(status), zlk_eo_connection);
    EXPECT_EQ(trims.load(), 5) << "the live ones ran";

    // A node that answers with a failure fails the broadcast with its own status.
    cluster.restart_node(1);
    node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(protocol::operation::trim_all)};
    faults.operation_error = make_error_code(kernel::error::operation_disabled);
    cluster.set_faults(2, faults);
    EXPECT_EQ(chord::request_all_nodes(handle.cluster(), trim_all_body, policy), zlk_e_operation_disabled);
    EXPECT_EQ(trims.load(), 7);
}

TEST(node_arc, a_refused_ping_forgets_the_node_and_is_a_local_failure)
{
    // A chord code past the known ones translates to the internal status of the origin it is given.
    protocol::result refused;
    refused.error = make_error_code(static_cast<chord::error>(99));
    network::testing::scripted_peer peer;
    peer.set_default(network::testing::step::answer(frame_of(protocol::message{refused})));

    handle_guard handle;
    const chord::node_info node{chord::alias_hash("refusing"), peer.endpoint()};
    handle.map().insert_arc(chord::arc{node, node, node});
    chord::arc out;
    EXPECT_EQ(handle.cluster().get_node_arc(peer.endpoint(), out), zlk_e_internal_local);
    EXPECT_EQ(handle.map().ring_size(), 0u);
}

} // namespace
} // namespace zlk::ring_test
