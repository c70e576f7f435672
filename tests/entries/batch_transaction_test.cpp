// Batches and transactions end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "api/handle.hpp"
#include "base/alias_hash.hpp"
#include "base/error_categories.hpp"
#include "entries/entry_requests.hpp"
#include "entries_test_support.hpp"

namespace zlk::entries_test
{
namespace
{

using ::testing::HasSubstr;

std::vector<zlk_operation_t> records(std::size_t n)
{
    std::vector<zlk_operation_t> ops(n);
    EXPECT_EQ(zlk_init_operations(ops.data(), ops.size()), zlk_e_ok);
    return ops;
}

TEST(operation_records, start_uninitialised_and_a_null_array_is_refused)
{
    auto ops = records(2);
    EXPECT_EQ(ops[1].type, zlk_op_uninitialized);
    EXPECT_EQ(ops[1].error, zlk_e_uninitialized);
    EXPECT_EQ(ops[1].alias, nullptr);
    EXPECT_EQ(zlk_init_operations(nullptr, 1), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_init_operations(nullptr, 0), zlk_e_invalid_argument);
}

TEST(batches, mixed_records_across_all_nodes_each_get_their_own_status_and_the_count_of_successes)
{
    connected_cluster c(3);
    ASSERT_EQ(zlk_int_put(c.h, "taken", 1, 0), zlk_e_ok);
    std::vector<std::string> aliases;
    for (int i = 0; i < 30; ++i)
    {
        aliases.push_back("k" + std::to_string(i));
    }
    auto ops = records(33);
    for (int i = 0; i < 30; ++i)
    {
        ops[i].type = zlk_op_blob_put;
        ops[i].alias = aliases[i].c_str();
        ops[i].fields.blob_put.content = aliases[i].data();
        ops[i].fields.blob_put.content_length = aliases[i].size();
    }
    ops[30].type = zlk_op_int_put;
    ops[30].alias = "taken";
    ops[31].type = zlk_op_int_update;
    ops[31].alias = "fresh";
    ops[31].fields.int_update.value = 9;
    ops[32].type = zlk_op_int_add;
    ops[32].alias = "taken";
    ops[32].fields.int_add.addend = 4;

    EXPECT_EQ(zlk_run_batch(c.h, ops.data(), ops.size()), 32u);
    EXPECT_EQ(ops[30].error, zlk_e_alias_already_exists);
    EXPECT_EQ(ops[31].error, zlk_e_ok_created);
    EXPECT_EQ(ops[32].fields.int_add.result, 5);

    auto reads = records(31);
    for (int i = 0; i < 30; ++i)
    {
        reads[i].type = zlk_op_blob_get;
        reads[i].alias = aliases[i].c_str();
    }
    reads[30].type = zlk_op_blob_get;
    reads[30].alias = "nowhere";
    EXPECT_EQ(zlk_run_batch(c.h, reads.data(), reads.size()), 30u);
    for (int i = 0; i < 30; ++i)
    {
        ASSERT_EQ(reads[i].error, zlk_e_ok);
        EXPECT_EQ(std::string(static_cast<const char *>(reads[i].fields.blob_get.content),
                              reads[i].fields.blob_get.content_length),
                  aliases[i]);
        zlk_release(c.h, reads[i].fields.blob_get.content);
    }
    EXPECT_EQ(reads[30].error, zlk_e_alias_not_found);
}

// Read records hand out views of the reply that brought them (raw content) or their own decompressed
// bytes: each stays readable until its own release, whatever happens to the others and to later
// batches, and all of them are freed by their releases.
TEST(batches, contents_read_stay_readable_until_each_is_released)
{
    connected_cluster c(1);
    const std::string raw = "short enough to go uncompressed";
    const std::string packed(4096, 'z');
    ASSERT_EQ(zlk_blob_put(c.h, "raw.1", raw.data(), raw.size(), 0), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "raw.2", raw.data(), raw.size(), 0), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "packed", packed.data(), packed.size(), 0), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "empty", nullptr, 0, 0), zlk_e_ok);

    auto reads = records(4);
    const char * names[] = {"raw.1", "raw.2", "packed", "empty"};
    for (int i = 0; i < 4; ++i)
    {
        reads[i].type = zlk_op_blob_get;
        reads[i].alias = names[i];
    }
    ASSERT_EQ(zlk_run_batch(c.h, reads.data(), reads.size()), 4u);
    auto text = [](const zlk_operation_t & op)
    {
        return std::string(static_cast<const char *>(op.fields.blob_get.content),
                           op.fields.blob_get.content_length);
    };
    EXPECT_EQ(reads[3].fields.blob_get.content, nullptr);
    EXPECT_EQ(reads[3].fields.blob_get.content_length, 0u);
    EXPECT_EQ(text(reads[1]), raw);
    EXPECT_EQ(text(reads[2]), packed);
    EXPECT_EQ(c.h->objects_tracker.key_count(), 3u);

    // Another batch in between, then the siblings go first: the first view still reads right.
    auto again = records(1);
    again[0].type = zlk_op_blob_get;
    again[0].alias = "raw.2";
    ASSERT_EQ(zlk_run_batch(c.h, again.data(), again.size()), 1u);
    EXPECT_EQ(text(again[0]), raw);
    zlk_release(c.h, again[0].fields.blob_get.content);
    zlk_release(c.h, reads[2].fields.blob_get.content);
    zlk_release(c.h, reads[1].fields.blob_get.content);
    EXPECT_EQ(text(reads[0]), raw);
    zlk_release(c.h, reads[0].fields.blob_get.content);
    EXPECT_EQ(c.h->objects_tracker.key_count(), 0u);
}

TEST(batches, preparation_stops_at_a_bad_record_and_leaves_the_rest_skipped)
{
    connected_cluster c(1);
    EXPECT_EQ(zlk_run_batch(c.h, nullptr, 0), 0u);
    EXPECT_EQ(zlk_run_batch(c.h, nullptr, 2), 0u);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got NULL operations with size > 0"));

    const char reserved[] = "\xC0\x80sys";
    auto ops = records(4);
    ops[0].type = zlk_op_blob_get;
    ops[0].alias = reserved;
    ops[1].type = zlk_op_blob_put;
    ops[1].alias = reserved;
    ops[2].type = zlk_op_int_put;
    ops[2].alias = "after";
    EXPECT_EQ(zlk_run_batch(c.h, ops.data(), ops.size()), 0u);
    EXPECT_EQ(ops[0].error, zlk_e_alias_not_found);
    EXPECT_EQ(ops[1].error, zlk_e_reserved_alias);
    EXPECT_EQ(ops[2].error, zlk_e_operation_skipped);
    EXPECT_EQ(ops[3].error, zlk_e_operation_skipped);

    auto unset = records(2);
    unset[0].alias = "a";
    EXPECT_EQ(zlk_run_batch(c.h, unset.data(), unset.size()), 0u);
    EXPECT_EQ(unset[0].error, zlk_e_invalid_argument);
    EXPECT_EQ(unset[1].error, zlk_e_operation_skipped);
}

TEST(transactions, records_on_several_nodes_commit_together)
{
    connected_cluster c(3);
    auto ops = records(3);
    const char * names[] = {"t0", "t1", "t2"};
    for (int i = 0; i < 3; ++i)
    {
        ops[i].type = zlk_op_int_put;
        ops[i].alias = names[i];
        ops[i].fields.int_put.value = i + 10;
    }
    size_t failed = 99;
    ASSERT_EQ(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_ok);
    EXPECT_EQ(failed, 0u);
    for (int i = 0; i < 3; ++i)
    {
        std::int64_t v = 0;
        ASSERT_EQ(zlk_int_get(c.h, names[i], &v), zlk_e_ok);
        EXPECT_EQ(v, i + 10);
    }
    EXPECT_EQ(zlk_run_transaction(c.h, ops.data(), 0, &failed), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_run_transaction(c.h, ops.data(), 1, nullptr), zlk_e_invalid_argument);
}

TEST(transactions, a_failed_record_rolls_back_what_came_before_it)
{
    connected_cluster c(3);
    auto ops = records(3);
    ops[0].type = zlk_op_blob_put;
    ops[0].alias = "staged";
    ops[0].fields.blob_put.content = "x";
    ops[0].fields.blob_put.content_length = 1;
    ops[1].type = zlk_op_int_add;
    ops[1].alias = "missing";
    ops[2].type = zlk_op_int_put;
    ops[2].alias = "never";
    size_t failed = 0;
    EXPECT_EQ(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_alias_not_found);
    EXPECT_EQ(failed, 1u);
    EXPECT_EQ(ops[2].error, zlk_e_operation_skipped);
    zlk_error_t status = 0;
    c.get("staged", &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
}

TEST(transactions, a_refused_precommit_leaves_nothing_behind)
{
    connected_cluster c(3);
    for (std::size_t i = 0; i < 3; ++i)
    {
        node::fault_settings f;
        f.failing_operations = {static_cast<std::uint16_t>(protocol::operation::transaction_state)};
        f.operation_error = make_error_code(kernel::error::internal_error);
        c.cluster.set_faults(i, f);
    }
    auto ops = records(2);
    ops[0].type = zlk_op_int_put;
    ops[0].alias = "p0";
    ops[1].type = zlk_op_int_put;
    ops[1].alias = "p1";
    size_t failed = 0;
    EXPECT_NE(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_ok);
    for (std::size_t i = 0; i < 3; ++i)
    {
        c.cluster.clear_faults(i);
    }
    std::int64_t v = 0;
    EXPECT_EQ(zlk_int_get(c.h, "p0", &v), zlk_e_alias_not_found);
    EXPECT_EQ(zlk_int_get(c.h, "p1", &v), zlk_e_alias_not_found);
}

TEST(transactions, a_key_held_by_another_transaction_is_a_conflict_until_that_one_ends)
{
    connected_cluster c(1);
    // Another client's transaction stages a write on "held" and hasn't ended.
    const char alias[] = "held";
    const chord::ring_id key = chord::alias_hash(alias, sizeof(alias));
    zlk::uuid other;
    other.time = timespec{1, 0};
    other.id.words[0] = 1;
    other.number = 7;
    auto stage = [&]
    {
        return client::int_write_body(protocol::operation::int_put, client::wire_alias(alias, sizeof(alias)),
                                      1, 0);
    };
    chord::owner_request request;
    request.key = key;
    request.transaction = other;
    request.has_content = false;
    chord::owner_reply reply;
    ASSERT_EQ(chord::request_owner(c.h->cluster, request, stage, reply), zlk_e_ok);

    ASSERT_EQ(zlk_option_set_transaction_max_wait(c.h, 0), zlk_e_ok);
    auto ops = records(2);
    ops[0].type = zlk_op_int_put;
    ops[0].alias = "free";
    ops[1].type = zlk_op_int_put;
    ops[1].alias = alias;
    size_t failed = 0;
    EXPECT_EQ(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_conflict);
    EXPECT_EQ(failed, 1u);
    std::int64_t v = 0;
    EXPECT_EQ(zlk_int_get(c.h, "free", &v), zlk_e_alias_not_found);
    // Plain reads don't see the staged write either.
    EXPECT_EQ(zlk_int_get(c.h, alias, &v), zlk_e_alias_not_found);

    auto rollback = [] { return client::transaction_state_body(3); };
    ASSERT_EQ(chord::request_owner(c.h->cluster, request, rollback, reply), zlk_e_ok);
    EXPECT_EQ(zlk_run_transaction(c.h, ops.data(), ops.size(), &failed), zlk_e_ok);
    EXPECT_EQ(zlk_int_get(c.h, alias, &v), zlk_e_ok);
}

TEST(transactions, a_conflict_runs_the_whole_transaction_again_once_the_other_one_has_ended)
{
    connected_cluster c(1);
    const char alias[] = "contended";
    zlk::uuid other;
    other.time = timespec{1, 0};
    other.id.words[0] = 2;
    other.number = 1;
    chord::owner_request request;
    request.key = chord::alias_hash(alias, sizeof(alias));
    request.transaction = other;
    request.has_content = false;
    chord::owner_reply reply;
    auto stage = [&]
    {
        return client::int_write_body(protocol::operation::int_put, client::wire_alias(alias, sizeof(alias)),
                                      1, 0);
    };
    ASSERT_EQ(chord::request_owner(c.h->cluster, request, stage, reply), zlk_e_ok);

    const std::uint64_t failures_before = c.cluster.at(0).counters().failures;
    auto ops = records(1);
    ops[0].type = zlk_op_int_update;
    ops[0].alias = alias;
    ops[0].fields.int_update.value = 42;
    size_t failed = 0;
    zlk_error_t result = zlk_e_uninitialized;
    std::thread runner([&] { result = zlk_run_transaction(c.h, ops.data(), ops.size(), &failed); });

    // Once the node has refused the first attempt, the other transaction ends.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (c.cluster.at(0).counters().failures == failures_before &&
           std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::yield();
    }
    auto rollback = [] { return client::transaction_state_body(3); };
    EXPECT_EQ(chord::request_owner(c.h->cluster, request, rollback, reply), zlk_e_ok);
    runner.join();

    EXPECT_EQ(result, zlk_e_ok);
    std::int64_t v = 0;
    ASSERT_EQ(zlk_int_get(c.h, alias, &v), zlk_e_ok);
    EXPECT_EQ(v, 42);
}

} // namespace
} // namespace zlk::entries_test
