// The node's entry store: expiry on its own clock, and the visibility rules of staged transactions.
#include <gtest/gtest.h>

#include "api/error_categories.hpp"
#include "node/entry_store.hpp"

namespace zlk::node
{
namespace
{

using boost::system::error_code;

struct store_fixture : ::testing::Test
{
    timespec now{1000, 0};
    entry_store store{entry_store_limits{}, [this] { return now; }};
    chord::ring_id key{{1, 2, 3, 4}};

    error_code write(const zlk::uuid & stamp, std::int64_t value)
    {
        return store.apply(key, stamp, true,
                           [&](entry_store::view & v)
                           {
                               v.entry.emplace();
                               v.entry->type = kernel::entry_type::integer;
                               v.entry->set_integer(value);
                               v.changed = true;
                               return error_code{};
                           });
    }

    // The value the stamp sees, or -1 for no entry.
    std::int64_t read(const zlk::uuid & stamp = {})
    {
        std::int64_t out = -1;
        const error_code ec = store.apply(key, stamp, false,
                                          [&](entry_store::view & v)
                                          {
                                              out = v.entry ? v.entry->integer() : -1;
                                              return error_code{};
                                          });
        return ec ? -2 : out;
    }

    static zlk::uuid stamp(std::uint32_t n)
    {
        zlk::uuid u;
        u.time = timespec{5, 0};
        u.id.words[0] = 9;
        u.number = n;
        return u;
    }
};

TEST_F(store_fixture, an_entry_is_gone_from_the_moment_its_expiry_is_reached)
{
    ASSERT_FALSE(store.apply(key, {}, true,
                             [](entry_store::view & v)
                             {
                                 v.entry.emplace();
                                 v.entry->expiry = timespec{1010, 500};
                                 v.changed = true;
                                 return error_code{};
                             }));
    EXPECT_EQ(store.size(), 1u);
    now = timespec{1010, 499};
    EXPECT_EQ(read(), 0);
    now = timespec{1010, 500};
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(store.size(), 0u);
}

TEST_F(store_fixture, a_staged_write_is_seen_only_by_its_own_transaction_until_commit)
{
    ASSERT_FALSE(write({}, 1));
    ASSERT_FALSE(write(stamp(1), 2));
    EXPECT_EQ(read(), 1);
    EXPECT_EQ(read(stamp(1)), 2);

    // Others can't write it, nor read it inside a transaction, nor precommit it.
    EXPECT_EQ(write({}, 3), make_error_code(kernel::error::conflict));
    EXPECT_EQ(write(stamp(2), 3), make_error_code(kernel::error::conflict));
    EXPECT_EQ(read(stamp(2)), -2);
    EXPECT_EQ(store.set_transaction_state(key, stamp(2), transaction_step::precommit),
              make_error_code(kernel::error::conflict));

    ASSERT_FALSE(store.set_transaction_state(key, stamp(1), transaction_step::precommit));
    EXPECT_EQ(read(), 1);
    ASSERT_FALSE(store.set_transaction_state(key, stamp(1), transaction_step::commit));
    EXPECT_EQ(read(), 2);
    EXPECT_FALSE(write(stamp(2), 4));
}

TEST_F(store_fixture, rollback_discards_and_a_staged_removal_commits_in_one_step)
{
    ASSERT_FALSE(write({}, 1));
    ASSERT_FALSE(write(stamp(1), 2));
    ASSERT_FALSE(store.set_transaction_state(key, stamp(1), transaction_step::rollback));
    EXPECT_EQ(read(), 1);
    EXPECT_FALSE(write({}, 5));

    ASSERT_FALSE(store.apply(key, stamp(3), true,
                             [](entry_store::view & v)
                             {
                                 v.entry.reset();
                                 v.changed = true;
                                 return error_code{};
                             }));
    EXPECT_EQ(read(), 5);
    ASSERT_FALSE(store.set_transaction_state(key, stamp(3), transaction_step::commit_single));
    EXPECT_EQ(read(), -1);
    // A key the stamp never touched accepts any step.
    EXPECT_FALSE(store.set_transaction_state(key, stamp(4), transaction_step::commit));
}

TEST_F(store_fixture, a_transaction_that_never_ends_releases_its_keys_after_a_while)
{
    ASSERT_FALSE(write(stamp(1), 2));
    now.tv_sec += store.limits().abandoned_after_seconds - 1;
    EXPECT_EQ(write({}, 3), make_error_code(kernel::error::conflict));
    now.tv_sec += 1;
    EXPECT_FALSE(write({}, 3));
    EXPECT_EQ(read(), 3);
    // Its commit, arriving late, finds nothing to apply.
    EXPECT_FALSE(store.set_transaction_state(key, stamp(1), transaction_step::commit));
    EXPECT_EQ(read(), 3);
}

// A read is lent the stored entry: whatever it answers, the entry is there as before for the next one.
TEST_F(store_fixture, reads_leave_the_entry_as_they_found_it)
{
    ASSERT_FALSE(write({}, 5));
    for (const bool fail : {false, true, false})
    {
        const error_code ec =
            store.apply(key, {}, false,
                        [&](entry_store::view & v)
                        {
                            EXPECT_TRUE(v.entry.has_value());
                            return fail ? make_error_code(kernel::error::incompatible_type) : error_code{};
                        });
        EXPECT_EQ(ec.failed(), fail);
        EXPECT_EQ(read(), 5);
    }
    // A read of a key that holds nothing leaves nothing behind either.
    const chord::ring_id other{{9, 9, 9, 9}};
    bool seen = true;
    ASSERT_FALSE(store.apply(other, {}, false,
                             [&](entry_store::view & v)
                             {
                                 seen = v.entry.has_value();
                                 return error_code{};
                             }));
    EXPECT_FALSE(seen);
    EXPECT_EQ(store.size(), 1u);
}

TEST_F(store_fixture, a_failed_operation_changes_nothing)
{
    ASSERT_FALSE(write({}, 1));
    const error_code ec = store.apply(key, {}, true,
                                      [](entry_store::view & v)
                                      {
                                          v.entry->set_integer(99);
                                          v.changed = true;
                                          return make_error_code(kernel::error::overflow);
                                      });
    EXPECT_EQ(ec, make_error_code(kernel::error::overflow));
    EXPECT_EQ(read(), 1);
}

} // namespace
} // namespace zlk::node
