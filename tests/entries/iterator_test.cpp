// Entry iterators walk every entry of the ring once, forward and backward, across node boundaries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "entries_test_support.hpp"

namespace
{

using testing::EndsWith;
using zlk::entries_test::connected_cluster;

std::string content_of(const zlk_const_iterator_t & it)
{
    return std::string(static_cast<const char *>(it.content), it.content_size);
}

// The aliases a walk gives, until the end.
std::vector<std::string> walk(zlk_const_iterator_t & it, zlk_error_t first, bool backward)
{
    std::vector<std::string> out;
    for (zlk_error_t r = first; r != zlk_e_iterator_end;
         r = backward ? zlk_iterator_previous(&it) : zlk_iterator_next(&it))
    {
        EXPECT_EQ(r, zlk_e_ok);
        if (r != zlk_e_ok)
        {
            break;
        }
        out.emplace_back(it.alias);
    }
    return out;
}

struct iterators : ::testing::TestWithParam<std::size_t>
{
    connected_cluster c{GetParam()};
    std::map<std::string, std::string> entries;

    void SetUp() override
    {
        for (int i = 0; i < 60; ++i)
        {
            const std::string alias = "it." + std::to_string(i);
            entries[alias] = "content " + std::to_string(i * 7);
            ASSERT_EQ(zlk_blob_put(c.h, alias.c_str(), entries[alias].data(), entries[alias].size(), 0),
                      zlk_e_ok);
        }
    }
};

TEST_P(iterators, ForwardAndBackwardWalksSeeEveryEntryOnceInOppositeOrders)
{
    zlk_const_iterator_t it;
    std::vector<std::string> forward;
    zlk_error_t r = zlk_iterator_begin(c.h, &it);
    for (; r == zlk_e_ok; r = zlk_iterator_next(&it))
    {
        forward.emplace_back(it.alias);
        EXPECT_EQ(content_of(it), entries[it.alias]);
        EXPECT_NE(it.node, nullptr);
        EXPECT_NE(it.ref, nullptr);
    }
    EXPECT_EQ(r, zlk_e_iterator_end);
    EXPECT_EQ(zlk_iterator_next(&it), zlk_e_iterator_end);
    ASSERT_EQ(zlk_iterator_close(&it), zlk_e_ok);
    EXPECT_EQ(it.token, nullptr);

    std::vector<std::string> sorted = forward;
    std::sort(sorted.begin(), sorted.end());
    ASSERT_EQ(sorted.size(), entries.size());
    EXPECT_TRUE(std::equal(sorted.begin(), sorted.end(), entries.begin(),
                           [](const auto & a, const auto & e) { return a == e.first; }));

    const std::vector<std::string> backward = walk(it, zlk_iterator_rbegin(c.h, &it), true);
    ASSERT_EQ(zlk_iterator_close(&it), zlk_e_ok);
    EXPECT_TRUE(std::equal(forward.rbegin(), forward.rend(), backward.begin(), backward.end()));
}

TEST_P(iterators, AfterTheEndPreviousComesBackAndACopyWalksOnItsOwn)
{
    zlk_const_iterator_t it;
    const std::vector<std::string> forward = walk(it, zlk_iterator_begin(c.h, &it), false);
    ASSERT_FALSE(forward.empty());

    // A finished iterator copies into a finished one.
    zlk_const_iterator_t done;
    ASSERT_EQ(zlk_iterator_copy(&it, &done), zlk_e_ok);
    EXPECT_EQ(zlk_iterator_next(&done), zlk_e_iterator_end);
    ASSERT_EQ(zlk_iterator_close(&done), zlk_e_ok);

    ASSERT_EQ(zlk_iterator_previous(&it), zlk_e_ok);
    EXPECT_EQ(it.alias, forward.back());
    ASSERT_EQ(zlk_iterator_previous(&it), zlk_e_ok);
    EXPECT_EQ(it.alias, forward[forward.size() - 2]);

    zlk_const_iterator_t copy;
    ASSERT_EQ(zlk_iterator_copy(&it, &copy), zlk_e_ok);
    EXPECT_EQ(zlk_iterator_next(&copy), zlk_e_ok);
    EXPECT_EQ(copy.alias, forward.back());
    // The original hasn't moved.
    EXPECT_EQ(it.alias, forward[forward.size() - 2]);
    ASSERT_EQ(zlk_iterator_close(&copy), zlk_e_ok);
    ASSERT_EQ(zlk_iterator_close(&it), zlk_e_ok);
}

INSTANTIATE_TEST_SUITE_P(OneAndThreeNodes, iterators, ::testing::Values(1u, 3u));

TEST(Iterators, AnEmptyClusterEndsAtOnce)
{
    connected_cluster c{3};
    zlk_const_iterator_t it;
    EXPECT_EQ(zlk_iterator_begin(c.h, &it), zlk_e_iterator_end);
    EXPECT_EQ(it.alias, nullptr);
    EXPECT_EQ(zlk_iterator_previous(&it), zlk_e_iterator_end);
    EXPECT_EQ(zlk_iterator_close(&it), zlk_e_ok);
}

TEST(Iterators, BadIteratorsGiveClearErrors)
{
    connected_cluster c{1};
    ASSERT_EQ(zlk_int_put(c.h, "n", 5, 0), zlk_e_ok);
    EXPECT_EQ(zlk_iterator_begin(c.h, nullptr), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL iterator"));

    zlk_const_iterator_t it;
    ASSERT_EQ(zlk_iterator_begin(c.h, &it), zlk_e_ok);
    EXPECT_STREQ(it.alias, "n");
    ASSERT_EQ(it.content_size, 8u);
    ASSERT_EQ(zlk_iterator_close(&it), zlk_e_ok);
    EXPECT_EQ(zlk_iterator_close(&it), zlk_e_invalid_iterator);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got invalid iterator"));
    EXPECT_EQ(zlk_iterator_next(nullptr), zlk_e_invalid_iterator);

    zlk_const_iterator_t orphan{};
    EXPECT_EQ(zlk_iterator_next(&orphan), zlk_e_invalid_handle);
}

} // namespace
