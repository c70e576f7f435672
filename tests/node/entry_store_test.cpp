// The node's entry store: expiry on its own clock, and the visibility rules of staged transactions.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "base/error_categories.hpp"
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

// Listing by a prefix or suffix of the kind tag links have is answered from an index of its own; the
// plain walk with a filter is the reference, over writes, removals, renamed aliases and expiries merged both
// ways (a few changes in place, many in one pass), for arcs that do and don't go round through zero.
TEST_F(store_fixture, an_affix_listing_sees_what_the_whole_walk_sees)
{
    std::mt19937_64 random(7);
    // Enough that ".tag" matches more than the index sorts before it walks instead.
    std::vector<chord::ring_id> keys(1500);
    for (auto & k : keys)
    {
        k = chord::ring_id{{random(), random(), random(), random()}};
    }
    const auto alias_for = [&](std::size_t n)
    {
        const std::string entry = "e" + std::to_string(n % 23);
        switch (n % 4)
        {
        case 0:
            return std::string("\xC0\x80tag.t") + std::to_string(n % 5) + "." + entry + ".tag";
        case 1:
            return entry + ".tag";
        case 2:
            return entry;
        default:
            return std::string("\xC0\x80tag.t1.x.") + entry + ".tag";
        }
    };
    const auto put = [&](const chord::ring_id & k, std::string alias, timespec expiry)
    {
        ASSERT_FALSE(store.apply(k, {}, true,
                                 [&](entry_store::view & v)
                                 {
                                     v.entry.emplace();
                                     v.entry->alias = alias;
                                     v.entry->expiry = expiry;
                                     v.changed = true;
                                     return error_code{};
                                 }));
    };
    const auto remove = [&](const chord::ring_id & k)
    {
        ASSERT_FALSE(store.apply(k, {}, true,
                                 [](entry_store::view & v)
                                 {
                                     v.entry.reset();
                                     v.changed = true;
                                     return error_code{};
                                 }));
    };
    const std::vector<entry_store::key_arc> arcs = {
        {keys[0], keys[0]},                                                             // the whole ring
        {chord::ring_id{{0, 0, 0, 1ull << 62}}, chord::ring_id{{0, 0, 0, 3ull << 62}}}, // no wrap
        {chord::ring_id{{0, 0, 0, 3ull << 62}}, chord::ring_id{{0, 0, 0, 1ull << 62}}}, // round zero
    };
    // (affix, suffix?) pairs: indexed ones (the links' mark at the front, ".tag" at the end) and walked
    // ones, which must agree as well.
    const std::vector<std::pair<std::string, bool>> affixes = {
        {".e3.tag", true},          {".tag", true},         {"3.tag", true},
        {"e13.tag", true},          {".nothing.tag", true}, {".e3", true},
        {"\xC0\x80tag.t1.", false}, {"\xC0\x80", false},    {"\xC0\x80tag.t1.x.e1", false},
        {"\xC0\x80tag.t9.", false}, {"e1", false},          {"", false},
    };
    const auto check = [&](const char * stage)
    {
        for (const auto & arc : arcs)
        {
            for (const auto & [affix, suffix] : affixes)
            {
                for (std::size_t stop_after : {std::size_t{0}, std::size_t{2}})
                {
                    std::vector<std::string> walked;
                    store.visit(arc,
                                [&, &affix = affix, suffix = suffix](const entry_store::summary & s)
                                {
                                    if (!(suffix ? s.alias.ends_with(affix) : s.alias.starts_with(affix)))
                                    {
                                        return true;
                                    }
                                    walked.emplace_back(s.alias);
                                    return stop_after == 0 || walked.size() < stop_after;
                                });
                    std::vector<std::string> indexed;
                    store.visit_affix(arc, affix, suffix,
                                      [&](const entry_store::summary & s)
                                      {
                                          indexed.emplace_back(s.alias);
                                          return stop_after == 0 || indexed.size() < stop_after;
                                      });
                    EXPECT_EQ(indexed, walked)
                        << stage << (suffix ? " suffix " : " prefix ") << affix << " stop " << stop_after;
                }
            }
        }
    };

    for (std::size_t i = 0; i < keys.size(); ++i)
    {
        put(keys[i], alias_for(i), i % 7 == 0 ? timespec{1010, 0} : timespec{});
    }
    check("written in bulk");
    // A few changes at a time: merged in place.
    put(keys[4], alias_for(9), {});
    remove(keys[8]);
    put(keys[12], "renamed", {});
    check("a few changes");
    for (std::size_t i = 0; i < keys.size(); i += 3)
    {
        if (i % 2 == 0)
        {
            remove(keys[i]);
        }
        else
        {
            put(keys[i], alias_for(i + 1), {});
        }
    }
    check("many changes");
    now = timespec{1010, 0};
    check("after the expiry");
}

} // namespace
} // namespace zlk::node
