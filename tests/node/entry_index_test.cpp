// The store's ordered view: ring order within an arc, walks that start at the arc's edge, and only
// committed live entries.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "node/entry_store.hpp"

namespace zlk::node
{
namespace
{

using boost::system::error_code;

chord::ring_id id(std::uint64_t top)
{
    return chord::ring_id{{0, 0, 0, top}};
}

struct index_fixture : ::testing::Test
{
    timespec now{1000, 0};
    entry_store store{entry_store_limits{}, [this] { return now; }};

    void write(std::uint64_t top, const std::string & alias, const zlk::uuid & stamp = {},
               std::int64_t expiry = 0)
    {
        const error_code ec = store.apply(id(top), stamp, true,
                                          [&](entry_store::view & v)
                                          {
                                              v.entry.emplace();
                                              v.entry->alias = alias;
                                              v.entry->content.assign(alias.begin(), alias.end());
                                              v.entry->expiry = timespec{expiry, 0};
                                              v.changed = true;
                                              return error_code{};
                                          });
        ASSERT_FALSE(ec);
    }

    std::vector<std::string> listed(const entry_store::key_arc & arc)
    {
        std::vector<std::string> out;
        store.visit(arc,
                    [&](const entry_store::summary & s)
                    {
                        out.emplace_back(s.alias);
                        return true;
                    });
        return out;
    }

    // The aliases of a step walk from the arc's edge, to its end.
    std::vector<std::string> stepped(const entry_store::key_arc & arc, bool backward)
    {
        std::vector<std::string> out;
        chord::ring_id at = arc.predecessor;
        chord::ring_id key;
        stored_entry e;
        while (store.step(arc, at, backward, key, e))
        {
            out.push_back(e.alias);
            at = key;
            if (out.size() > 100)
            {
                break;
            }
        }
        return out;
    }
};

TEST_F(index_fixture, AnArcIsListedInRingOrderRoundThroughZero)
{
    for (const std::uint64_t top : {5u, 10u, 50u, 90u, 95u})
    {
        write(top, "k" + std::to_string(top));
    }
    // (80, 20]: the top of the ring first, then from zero.
    const entry_store::key_arc wrapping{id(80), id(20)};
    EXPECT_EQ(listed(wrapping), (std::vector<std::string>{"k90", "k95", "k5", "k10"}));
    EXPECT_EQ(stepped(wrapping, false), (std::vector<std::string>{"k90", "k95", "k5", "k10"}));
    EXPECT_EQ(stepped(wrapping, true), (std::vector<std::string>{"k10", "k5", "k95", "k90"}));

    const entry_store::key_arc plain{id(10), id(90)};
    EXPECT_EQ(listed(plain), (std::vector<std::string>{"k50", "k90"}));
    EXPECT_EQ(stepped(plain, false), (std::vector<std::string>{"k50", "k90"}));
    EXPECT_EQ(stepped(plain, true), (std::vector<std::string>{"k90", "k50"}));

    // One node: the whole ring, from just after its own id.
    const entry_store::key_arc whole{id(60), id(60)};
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"k90", "k95", "k5", "k10", "k50"}));
    EXPECT_EQ(stepped(whole, false), (std::vector<std::string>{"k90", "k95", "k5", "k10", "k50"}));
    EXPECT_EQ(stepped(whole, true), (std::vector<std::string>{"k50", "k10", "k5", "k95", "k90"}));
}

TEST_F(index_fixture, AStepFromOutsideTheArcStartsAtItsEdge)
{
    write(30, "a");
    write(40, "b");
    const entry_store::key_arc arc{id(20), id(60)};
    chord::ring_id key;
    stored_entry e;
    ASSERT_TRUE(store.step(arc, id(99), false, key, e));
    EXPECT_EQ(e.alias, "a");
    ASSERT_TRUE(store.step(arc, id(99), true, key, e));
    EXPECT_EQ(e.alias, "b");
    EXPECT_FALSE(store.step(arc, id(40), false, key, e));
    EXPECT_FALSE(store.step(arc, id(30), true, key, e));
    EXPECT_FALSE(store.step(arc, id(60), false, key, e));
    EXPECT_FALSE(store.step({id(60), id(20)}, id(60), false, key, e));
}

TEST_F(index_fixture, OnlyCommittedLiveEntriesAreSeen)
{
    zlk::uuid stamp;
    stamp.time = timespec{5, 0};
    stamp.number = 1;
    write(10, "staged", stamp);
    write(20, "expiring", {}, 1500);
    write(30, "kept");
    const entry_store::key_arc whole{id(0), id(0)};
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"expiring", "kept"}));
    now = timespec{2000, 0};
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"kept"}));
    EXPECT_EQ(stepped(whole, false), (std::vector<std::string>{"kept"}));

    ASSERT_FALSE(store.set_transaction_state(id(10), stamp, transaction_step::commit_single));
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"staged", "kept"}));

    // A removal leaves the index too.
    ASSERT_FALSE(store.apply(id(30), {}, true,
                             [](entry_store::view & v)
                             {
                                 v.entry.reset();
                                 v.changed = true;
                                 return error_code{};
                             }));
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"staged"}));
}

// A rewrite that keeps the alias, type, listed type and expiry leaves the index as it is; any of those
// changing must still show in the next walk.
TEST_F(index_fixture, ARewriteShowsInTheIndexExactlyWhenWhatItListsChanges)
{
    const entry_store::key_arc whole{id(0), id(0)};
    const auto rewrite = [&](kernel::entry_type type, std::vector<std::uint8_t> content, std::int64_t expiry)
    {
        ASSERT_FALSE(store.apply(id(5), {}, true,
                                 [&](entry_store::view & v)
                                 {
                                     v.entry->type = type;
                                     v.entry->content = content;
                                     v.entry->expiry = timespec{expiry, 0};
                                     v.changed = true;
                                     return error_code{};
                                 }));
    };
    struct shown
    {
        std::string alias;
        kernel::entry_type type;
        std::uint8_t listed_type;
        bool operator==(const shown &) const = default;
    };
    const auto walk = [&]
    {
        std::vector<shown> out;
        store.visit(whole,
                    [&](const entry_store::summary & s)
                    {
                        out.push_back({std::string(s.alias), s.type, s.listed_type});
                        return true;
                    });
        return out;
    };
    const auto blob = static_cast<std::uint8_t>(kernel::entry_type::blob);
    const auto integer = static_cast<std::uint8_t>(kernel::entry_type::integer);

    write(5, "entry");
    ASSERT_EQ(walk(), (std::vector<shown>{{"entry", kernel::entry_type::blob, blob}}));
    rewrite(kernel::entry_type::blob, {1, 2, 3}, 0);
    EXPECT_EQ(walk(), (std::vector<shown>{{"entry", kernel::entry_type::blob, blob}}));

    // A new time of expiry: gone once it passes, back when a rewrite lifts it.
    rewrite(kernel::entry_type::blob, {1, 2, 3}, 1500);
    now = timespec{1600, 0};
    EXPECT_TRUE(walk().empty());
    write(5, "entry");
    EXPECT_EQ(walk().size(), 1u);

    rewrite(kernel::entry_type::integer, {0, 0, 0, 0, 0, 0, 0, 0}, 0);
    EXPECT_EQ(walk(), (std::vector<shown>{{"entry", kernel::entry_type::integer, integer}}));

    // A tag link is listed under the type its content names: from a blob to a link to blobs, only the
    // type changes.
    rewrite(kernel::entry_type::blob, {1}, 0);
    rewrite(kernel::entry_type::tag_link, {blob}, 0);
    EXPECT_EQ(walk(), (std::vector<shown>{{"entry", kernel::entry_type::tag_link, blob}}));
    rewrite(kernel::entry_type::tag_link, {integer}, 0);
    EXPECT_EQ(walk(), (std::vector<shown>{{"entry", kernel::entry_type::tag_link, integer}}));
}

// Writes reach the index in batches: many writes, rewrites and removals of the same keys between two
// walks, and more than one batch's worth between others, must read as the store holds them.
TEST_F(index_fixture, AWalkSeesEveryWriteSinceTheLastOneWhateverTheirNumber)
{
    const entry_store::key_arc whole{id(0), id(0)};
    write(7, "first");
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"first"}));
    write(7, "renamed");
    write(3, "gone");
    ASSERT_FALSE(store.apply(id(3), {}, true,
                             [](entry_store::view & v)
                             {
                                 v.entry.reset();
                                 v.changed = true;
                                 return error_code{};
                             }));
    write(3, "back");
    EXPECT_EQ(listed(whole), (std::vector<std::string>{"back", "renamed"}));

    // Enough keys, in no order, to merge several times on the way.
    constexpr std::uint64_t n = 20000;
    for (std::uint64_t i = 0; i < n; ++i)
    {
        const std::uint64_t top = (i * 7919) % n + 100;
        write(top, std::to_string(top));
    }
    const std::vector<std::string> all = listed(whole);
    ASSERT_EQ(all.size(), n + 2);
    EXPECT_EQ(all[0], "back");
    EXPECT_EQ(all[1], "renamed");
    for (std::uint64_t i = 0; i < n; ++i)
    {
        ASSERT_EQ(all[i + 2], std::to_string(i + 100));
    }
    EXPECT_EQ(listed({id(150), id(152)}), (std::vector<std::string>{"151", "152"}));
    EXPECT_EQ(stepped({id(n + 97), id(n + 99)}, true),
              (std::vector<std::string>{std::to_string(n + 99), std::to_string(n + 98)}));
}

// Writes, renames and removals in runs of every length between walks (a few changes are merged in
// place, many in one pass), against an ordered model; each walk also hands out the alias's first and
// last eight bytes.
TEST_F(index_fixture, WalksAgreeWithAnOrderedModelWhateverTheRunsOfChangesBetweenThem)
{
    std::mt19937_64 random(4242);
    std::map<std::uint64_t, std::string> model;
    const entry_store::key_arc whole{id(0), id(0)};
    for (int round = 0; round < 300; ++round)
    {
        const std::size_t changes = round % 3 == 0 ? 1 + random() % 3 : random() % 40;
        for (std::size_t c = 0; c < changes; ++c)
        {
            const std::uint64_t top = 1 + random() % 200;
            if (random() % 3 == 0)
            {
                ASSERT_FALSE(store.apply(id(top), {}, true,
                                         [](entry_store::view & v)
                                         {
                                             v.entry.reset();
                                             v.changed = true;
                                             return error_code{};
                                         }));
                model.erase(top);
            }
            else
            {
                // Aliases from 1 to 20 bytes, so that some are shorter than a word.
                const std::string alias =
                    std::to_string(top) + std::string(random() % 18, 'x') + "." + std::to_string(round);
                write(top, alias);
                model[top] = alias;
            }
        }
        std::vector<std::string> expected;
        for (const auto & [top, alias] : model)
        {
            expected.push_back(alias);
        }
        std::vector<std::string> seen;
        store.visit(whole,
                    [&](const entry_store::summary & s)
                    {
                        seen.emplace_back(s.alias);
                        const std::size_t word = std::min<std::size_t>(s.alias.size(), 8);
                        std::uint64_t head = 0;
                        std::uint64_t tail = 0;
                        std::memcpy(&head, s.alias.data(), word);
                        std::memcpy(&tail, s.alias.data() + s.alias.size() - word, word);
                        EXPECT_EQ(s.alias_head, head) << s.alias;
                        EXPECT_EQ(s.alias_tail, tail) << s.alias;
                        return true;
                    });
        ASSERT_EQ(seen, expected) << "round " << round;
    }
}

TEST_F(index_fixture, WalksRunSafelyWhileOtherThreadsWriteAndRemove)
{
    const entry_store::key_arc whole{id(0), id(0)};
    std::atomic<bool> done{false};
    auto churn = [&](std::uint64_t first)
    {
        for (int round = 0; round < 200; ++round)
        {
            for (std::uint64_t top = first; top < first + 20; ++top)
            {
                write(top, "k" + std::to_string(top));
                ASSERT_FALSE(store.apply(id(top), {}, true,
                                         [&](entry_store::view & v)
                                         {
                                             v.entry.reset();
                                             v.changed = round % 2 == 0 || top % 2 == 0;
                                             return error_code{};
                                         }));
            }
        }
    };
    std::thread a(churn, 1);
    std::thread b(churn, 100);
    std::size_t seen = 0;
    std::thread reader(
        [&]
        {
            while (!done.load())
            {
                seen += listed(whole).size();
                seen += stepped(whole, false).size();
                store.visit_entries(whole, [](const chord::ring_id &, const stored_entry & e)
                                    { return !e.alias.empty(); });
            }
        });
    a.join();
    b.join();
    done = true;
    reader.join();
    // Each thread's last round (odd) kept its odd keys.
    EXPECT_EQ(listed(whole).size(), 20u);
    EXPECT_EQ(stepped(whole, true).size(), 20u);
}

} // namespace
} // namespace zlk::node
