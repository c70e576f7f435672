// Integers and the operations common to all entries, end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <thread>

#include <cstring>

#include "api/handle.hpp"
#include "base/alias_hash.hpp"
#include "entries/entry_requests.hpp"
#include "entries_test_support.hpp"
#include "ring/ring_map.hpp"

namespace zlk::entries_test
{
namespace
{

using ::testing::HasSubstr;

class entries : public ::testing::TestWithParam<std::size_t>
{
protected:
    connected_cluster c{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(nodes, entries, ::testing::Values(1, 3));

TEST_P(entries, integers_put_get_update_and_add)
{
    std::int64_t value = 0;
    ASSERT_EQ(zlk_int_put(c.h, "n", -1, 0), zlk_e_ok);
    EXPECT_EQ(zlk_int_put(c.h, "n", 3, 0), zlk_e_alias_already_exists);
    ASSERT_EQ(zlk_int_get(c.h, "n", &value), zlk_e_ok);
    EXPECT_EQ(value, -1);
    EXPECT_EQ(zlk_int_add(c.h, "n", 11, &value), zlk_e_ok);
    EXPECT_EQ(value, 10);
    EXPECT_EQ(zlk_int_add(c.h, "n", 1, nullptr), zlk_e_ok);
    EXPECT_EQ(zlk_int_update(c.h, "n", 7, 0), zlk_e_ok);
    EXPECT_EQ(zlk_int_update(c.h, "m", 7, 0), zlk_e_ok_created);
    ASSERT_EQ(zlk_int_get(c.h, "n", &value), zlk_e_ok);
    EXPECT_EQ(value, 7);

    EXPECT_EQ(zlk_int_get(c.h, "n", nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_int_get(c.h, "none", &value), zlk_e_alias_not_found);
    EXPECT_EQ(zlk_int_add(c.h, "none", 1, &value), zlk_e_alias_not_found);
}

TEST_P(entries, integer_add_refuses_to_wrap_and_leaves_the_value)
{
    constexpr auto max = std::numeric_limits<std::int64_t>::max();
    constexpr auto min = std::numeric_limits<std::int64_t>::min();
    ASSERT_EQ(zlk_int_put(c.h, "big", max, 0), zlk_e_ok);
    ASSERT_EQ(zlk_int_put(c.h, "small", min, 0), zlk_e_ok);
    std::int64_t value = 0;
    EXPECT_EQ(zlk_int_add(c.h, "big", 1, &value), zlk_e_overflow);
    EXPECT_EQ(zlk_int_add(c.h, "small", -1, &value), zlk_e_underflow);
    ASSERT_EQ(zlk_int_get(c.h, "big", &value), zlk_e_ok);
    EXPECT_EQ(value, max);

    ASSERT_EQ(zlk_blob_put(c.h, "blob", "x", 1, 0), zlk_e_ok);
    EXPECT_EQ(zlk_int_add(c.h, "blob", 1, &value), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_int_get(c.h, "blob", &value), zlk_e_incompatible_type);
}

TEST_P(entries, remove_takes_any_type_once)
{
    ASSERT_EQ(zlk_int_put(c.h, "i", 1, 0), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "b", "x", 1, 0), zlk_e_ok);
    EXPECT_EQ(zlk_remove(c.h, "i"), zlk_e_ok);
    EXPECT_EQ(zlk_remove(c.h, "b"), zlk_e_ok);
    EXPECT_EQ(zlk_remove(c.h, "b"), zlk_e_alias_not_found);
    std::int64_t value = 0;
    EXPECT_EQ(zlk_int_get(c.h, "i", &value), zlk_e_alias_not_found);
    // Removed means free again.
    EXPECT_EQ(zlk_blob_put(c.h, "i", "y", 1, 0), zlk_e_ok);
}

TEST_P(entries, expiry_is_kept_read_back_and_ends_the_entry_once_past)
{
    const zlk_time_t future = 4102444800123; // 2100-01-01, and 123 ms
    ASSERT_EQ(zlk_blob_put(c.h, "e", "x", 1, future), zlk_e_ok);
    zlk_time_t expiry = 0;
    ASSERT_EQ(zlk_get_expiry_time(c.h, "e", &expiry), zlk_e_ok);
    EXPECT_EQ(expiry, future);
    // -1 keeps it; 0 clears it.
    ASSERT_EQ(zlk_blob_update(c.h, "e", "y", 1, zlk_preserve_expiration), zlk_e_ok);
    ASSERT_EQ(zlk_get_expiry_time(c.h, "e", &expiry), zlk_e_ok);
    EXPECT_EQ(expiry, future);
    ASSERT_EQ(zlk_expires_at(c.h, "e", zlk_never_expires), zlk_e_ok);
    ASSERT_EQ(zlk_get_expiry_time(c.h, "e", &expiry), zlk_e_ok);
    EXPECT_EQ(expiry, 0);

    ASSERT_EQ(zlk_int_put(c.h, "counter", 1, future), zlk_e_ok);
    ASSERT_EQ(zlk_int_add(c.h, "counter", 1, nullptr), zlk_e_ok);
    ASSERT_EQ(zlk_get_expiry_time(c.h, "counter", &expiry), zlk_e_ok);
    EXPECT_EQ(expiry, future);

    // A time already past, absolute or relative, ends the entry at once.
    ASSERT_EQ(zlk_expires_at(c.h, "e", 1000), zlk_e_ok);
    zlk_error_t status = 0;
    c.get("e", &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
    ASSERT_EQ(zlk_expires_from_now(c.h, "counter", -60000), zlk_e_ok);
    EXPECT_EQ(zlk_get_expiry_time(c.h, "counter", &expiry), zlk_e_alias_not_found);
    EXPECT_EQ(zlk_expires_at(c.h, "counter", future), zlk_e_alias_not_found);
    EXPECT_EQ(zlk_get_expiry_time(c.h, "counter", nullptr), zlk_e_invalid_argument);
}

TEST_P(entries, type_and_metadata_describe_the_entry)
{
    std::vector<std::uint8_t> content(200, 'z');
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_none), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "b", content.data(), content.size(), 0), zlk_e_ok);
    ASSERT_EQ(zlk_int_put(c.h, "i", 1, 0), zlk_e_ok);

    zlk_entry_type_t type = 99;
    ASSERT_EQ(zlk_get_type(c.h, "b", &type), zlk_e_ok);
    EXPECT_EQ(type, zlk_entry_blob);
    ASSERT_EQ(zlk_get_type(c.h, "i", &type), zlk_e_ok);
    EXPECT_EQ(type, zlk_entry_integer);
    EXPECT_EQ(zlk_get_type(c.h, "none", &type), zlk_e_alias_not_found);
    EXPECT_EQ(type, zlk_entry_uninitialized);
    EXPECT_EQ(zlk_get_type(c.h, "b", nullptr), zlk_e_invalid_argument);

    zlk_entry_metadata_t m{};
    ASSERT_EQ(zlk_get_metadata(c.h, "b", &m), zlk_e_ok);
    EXPECT_EQ(m.type, zlk_entry_blob);
    EXPECT_EQ(m.size, content.size());
    EXPECT_GT(m.modification_time.tv_sec, 1600000000);
    EXPECT_EQ(m.expiry_time.tv_sec, 0);
    EXPECT_NE(std::vector<std::uint8_t>(m.reference, m.reference + 32), std::vector<std::uint8_t>(32, 0));
    EXPECT_EQ(zlk_get_metadata(c.h, "b", nullptr), zlk_e_invalid_argument);
}

TEST_P(entries, location_names_a_node_of_the_ring_without_asking_about_the_entry)
{
    zlk_remote_node_t where{};
    ASSERT_EQ(zlk_get_location(c.h, "never written", &where), zlk_e_ok);
    EXPECT_STREQ(where.address, "127.0.0.1");
    bool known = false;
    for (std::size_t i = 0; i < c.cluster.slots(); ++i)
    {
        known = known || c.cluster.endpoint(i).port() == where.port;
    }
    EXPECT_TRUE(known);
    zlk_release(c.h, where.address);
    EXPECT_EQ(zlk_get_location(c.h, "x", nullptr), zlk_e_invalid_argument);
}

TEST_P(entries, many_threads_adding_on_one_handle_lose_no_update)
{
    ASSERT_EQ(zlk_int_put(c.h, "shared", 0, 0), zlk_e_ok);
    constexpr int threads = 4;
    constexpr int rounds = 50;
    std::vector<std::thread> workers;
    std::atomic<int> failures{0};
    for (int t = 0; t < threads; ++t)
    {
        workers.emplace_back(
            [&, t]
            {
                const std::string own = "own" + std::to_string(t);
                for (int i = 0; i < rounds; ++i)
                {
                    failures += zlk_int_add(c.h, "shared", 1, nullptr) != zlk_e_ok;
                    failures +=
                        zlk_blob_update(c.h, own.c_str(), own.data(), own.size(), 0) > zlk_e_ok_created;
                }
            });
    }
    for (auto & w : workers)
    {
        w.join();
    }
    EXPECT_EQ(failures.load(), 0);
    std::int64_t value = 0;
    ASSERT_EQ(zlk_int_get(c.h, "shared", &value), zlk_e_ok);
    EXPECT_EQ(value, threads * rounds);
}

// Reads an integer from one chosen node, as a replica read (any holder of the key may answer).
chord::node_info chosen_node;

boost::system::error_code at_chosen_node(chord::cluster &, const chord::ring_id &, std::uint16_t, bool,
                                         chord::node_info & out)
{
    out = chosen_node;
    return {};
}

zlk_error_t read_at(connected_cluster & c, std::size_t node, const char * alias, std::int64_t & value)
{
    chosen_node = c.cluster.info(node);
    chord::owner_request request;
    request.key = chord::alias_hash(alias, std::strlen(alias) + 1);
    request.required_access = chord::access_any_replica;
    request.has_content = false;
    request.locate = &at_chosen_node;
    chord::owner_reply reply;
    const zlk_error_t r = chord::request_owner(
        c.h->cluster, request, [] { return client::get_body(0, 0, kernel::entry_type::integer); }, reply);
    if (ZLK_SUCCESS(r))
    {
        value = static_cast<std::int64_t>(reply.reply()->result.value);
    }
    return r;
}

TEST(replicated_entries, writes_and_commits_reach_every_replica)
{
    connected_cluster c(3, replicated(3));
    ASSERT_EQ(zlk_int_put(c.h, "plain", 5, 0), zlk_e_ok);
    ASSERT_EQ(zlk_int_add(c.h, "plain", 2, nullptr), zlk_e_ok);
    std::vector<zlk_operation_t> ops(2);
    ASSERT_EQ(zlk_init_operations(ops.data(), ops.size()), zlk_e_ok);
    ops[0].type = zlk_op_int_put;
    ops[0].alias = "tx0";
    ops[0].fields.int_put.value = 8;
    ops[1].type = zlk_op_int_put;
    ops[1].alias = "tx1";
    ops[1].fields.int_put.value = 9;
    size_t failed = 0;
    ASSERT_EQ(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_ok);
    for (std::size_t node = 0; node < 3; ++node)
    {
        std::int64_t v = 0;
        ASSERT_EQ(read_at(c, node, "plain", v), zlk_e_ok) << node;
        EXPECT_EQ(v, 7);
        ASSERT_EQ(read_at(c, node, "tx1", v), zlk_e_ok) << node;
        EXPECT_EQ(v, 9);
    }
}

TEST(replicated_entries, without_replication_only_the_owner_holds_the_entry)
{
    connected_cluster c(3);
    ASSERT_EQ(zlk_int_put(c.h, "single", 5, 0), zlk_e_ok);
    int holders = 0;
    for (std::size_t node = 0; node < 3; ++node)
    {
        std::int64_t v = 0;
        holders += read_at(c, node, "single", v) == zlk_e_ok ? 1 : 0;
    }
    EXPECT_EQ(holders, 1);
}

TEST(restarted_node, a_call_made_while_its_node_is_down_succeeds_once_the_node_is_back)
{
    connected_cluster c(1);
    ASSERT_EQ(zlk_option_set_stabilization_max_wait(c.h, 60000), zlk_e_ok);
    ASSERT_EQ(zlk_int_put(c.h, "before", 1, 0), zlk_e_ok);
    c.cluster.stop_node(0);
    std::atomic<bool> done{false};
    zlk_error_t result = zlk_e_uninitialized;
    std::thread caller(
        [&]
        {
            result = zlk_int_put(c.h, "after", 2, 0);
            done = true;
        });
    c.cluster.restart_node(0);
    caller.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(result, zlk_e_ok);
}

} // namespace
} // namespace zlk::entries_test
