// Many threads on one handle: routing, walks and forgetting at once.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "cluster_test_support.hpp"
#include "base/alias_hash.hpp"

namespace zlk::ring_test
{
namespace
{

TEST(concurrency, requests_from_many_threads_succeed_while_the_map_is_walked_and_pruned_under_them)
{
    node::local_cluster cluster(3);
    handle_guard handle;
    ASSERT_EQ(zlk_connect(handle.h, cluster.uri().c_str()), zlk_e_ok);

    constexpr int threads = 4;
    constexpr int requests = 150;
    std::atomic<int> failures{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
    {
        workers.emplace_back(
            [&, t]
            {
                for (int i = 0; i < requests; ++i)
                {
                    const auto key =
                        chord::alias_hash("entry " + std::to_string(t) + "." + std::to_string(i));
                    if (routed_no_op(handle.cluster(), key) != zlk_e_ok)
                    {
                        ++failures;
                    }
                }
            });
    }
    // Groups over the whole ring go out on the event loop meanwhile; their records are read only
    // once the futures say the completions have run.
    workers.emplace_back(
        [&]
        {
            for (int round = 0; round < 20; ++round)
            {
                std::vector<client::node_group> groups;
                std::vector<std::uint64_t> values(3, 0);
                struct policy
                {
                    std::vector<std::uint64_t> & values;
                    boost::system::error_code on_reply(const client::request_record & r,
                                                       const chord::chord_carrier_reply & reply)
                    {
                        values.at(r.slot) = reply.result.value;
                        return reply.result.error;
                    }
                } p{values};
                auto make = [](const chord::node_info & node, std::uint16_t bits, std::uint64_t next,
                               client::node_group & g)
                {
                    g.records.push_back(
                        client::request_record{chord::make_carrier(node.id, next, bits, no_op_body()),
                                               static_cast<std::size_t>(next)});
                    return boost::system::error_code{};
                };
                if (chord::walk_nodes(handle.cluster(), make, p) != zlk_e_ok ||
                    values != std::vector<std::uint64_t>(3, 1))
                {
                    ++failures;
                }
            }
        });
    // Walks and forgets race with the look-ups: a miss must learn again, never fail.
    std::thread churn(
        [&]
        {
            const auto members = cluster.members();
            for (std::size_t round = 0; !done.load(); ++round)
            {
                handle.map().forget_node(members[round % members.size()]);
                if (round % 8 == 0)
                {
                    auto [ec, arcs] = handle.map().node_list(true);
                    if (ec)
                    {
                        ++failures;
                    }
                }
                std::this_thread::yield();
            }
        });
    for (auto & w : workers)
    {
        w.join();
    }
    done = true;
    churn.join();

    EXPECT_EQ(failures.load(), 0);
    auto [ec, arcs] = handle.map().node_list(false);
    EXPECT_FALSE(ec);
    EXPECT_EQ(arcs.size(), 3u);
}

} // namespace
} // namespace zlk::ring_test
