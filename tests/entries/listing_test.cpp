// Listings walk the whole ring: every node's entries are found, max_count bounds the walk, and the
// checks refuse what can't be listed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "entries_test_support.hpp"

namespace
{

using testing::EndsWith;
using testing::UnorderedElementsAreArray;
using zlk::entries_test::connected_cluster;

std::string node_uri(const zlk::node::local_cluster & c, std::size_t i)
{
    const auto ep = c.endpoint(i);
    return "zlk://" + ep.address().to_string() + ":" + std::to_string(ep.port());
}

// A list given by the library, copied out and released.
std::vector<std::string> take_list(zlk_handle_t h, const char ** list, size_t count)
{
    std::vector<std::string> out(list, list + count);
    zlk_release(h, list);
    return out;
}

void put(zlk_handle_t h, const std::string & alias, const std::string & content)
{
    ASSERT_EQ(zlk_blob_put(h, alias.c_str(), content.data(), content.size(), 0), zlk_e_ok) << alias;
}

std::vector<std::string> prefix_get(zlk_handle_t h, const char * prefix, int64_t max_count,
                                    zlk_error_t expected = zlk_e_ok)
{
    const char ** list = nullptr;
    size_t count = 0;
    EXPECT_EQ(zlk_prefix_get(h, prefix, max_count, &list, &count), expected);
    return take_list(h, list, count);
}

struct three_nodes : ::testing::Test
{
    connected_cluster c{3};
    std::vector<std::string> users;

    void SetUp() override
    {
        for (int i = 0; i < 120; ++i)
        {
            users.push_back("user." + std::to_string(i) + ".profile");
            put(c.h, users.back(), "name " + std::to_string(i) + (i % 3 == 0 ? " admin" : " guest"));
        }
        put(c.h, "other.1", "x");
        ASSERT_EQ(zlk_int_put(c.h, "user.counter", 7, 0), zlk_e_ok);
    }
};

TEST_F(three_nodes, PrefixAndSuffixListingsFindTheEntriesOfEveryNode)
{
    std::vector<std::string> expected = users;
    expected.push_back("user.counter");
    EXPECT_THAT(prefix_get(c.h, "user.", 1000), UnorderedElementsAreArray(expected));

    const char ** list = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_suffix_get(c.h, ".profile", 1000, &list, &count), zlk_e_ok);
    EXPECT_THAT(take_list(c.h, list, count), UnorderedElementsAreArray(users));

    // Each node holds a part of them: the walk has been to all three.
    std::size_t total = 0;
    for (std::size_t i = 0; i < 3; ++i)
    {
        zlk_direct_handle_t d = zlk_direct_connect(c.h, node_uri(c.cluster, i).c_str());
        ASSERT_NE(d, nullptr);
        ASSERT_EQ(zlk_direct_prefix_get(d, "user.", 1000, &list, &count), zlk_e_ok);
        EXPECT_GT(count, 0u) << "node " << i;
        total += take_list(c.h, list, count).size();
        zlk_direct_close(d);
    }
    EXPECT_EQ(total, expected.size());
}

TEST_F(three_nodes, CountsAddUpOverTheRing)
{
    using count_function = zlk_error_t (*)(zlk_handle_t, const char *, uint64_t *);
    const struct
    {
        count_function count;
        const char * affix;
        uint64_t expected;
    } cases[] = {
        {zlk_prefix_count, "user.", 121},
        {zlk_suffix_count, ".profile", 120},
        {zlk_prefix_count, "nothing.", 0},
        // Affixes longer than a word, whose word (first or last eight bytes) many aliases share, and
        // shorter ones.
        {zlk_suffix_count, "0.profile", 12}, // 0, 10, ..., 110
        {zlk_prefix_count, "user.10.", 1},
        {zlk_prefix_count, "user.10.profile", 1},
        {zlk_prefix_count, "user.10.profile.", 0},
        {zlk_prefix_count, "user.1", 31}, // 1, 10 to 19, 100 to 119
        {zlk_suffix_count, "r.1", 1},     // other.1
    };
    for (const auto & k : cases)
    {
        uint64_t n = 0;
        ASSERT_EQ(k.count(c.h, k.affix, &n), zlk_e_ok) << k.affix;
        EXPECT_EQ(n, k.expected) << k.affix;
    }
}

TEST_F(three_nodes, MaxCountBoundsTheListWithoutDuplicates)
{
    for (const int64_t max : {1, 7, 40, 121, 500})
    {
        const auto got = prefix_get(c.h, "user.", max);
        EXPECT_EQ(got.size(), static_cast<std::size_t>(std::min<int64_t>(max, 121))) << max;
        EXPECT_EQ(std::set<std::string>(got.begin(), got.end()).size(), got.size()) << max;
    }
    EXPECT_TRUE(prefix_get(c.h, "user.", 0).empty());
    EXPECT_TRUE(prefix_get(c.h, "nothing.", 10).empty());
}

TEST_F(three_nodes, ScansSearchTheContentPlainOrByExpression)
{
    const char ** list = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_blob_scan(c.h, "admin", 5, 1000, &list, &count), zlk_e_ok);
    EXPECT_EQ(take_list(c.h, list, count).size(), 40u);

    ASSERT_EQ(zlk_blob_scan_regex(c.h, "^name 1[0-9] ", 1000, &list, &count), zlk_e_ok);
    EXPECT_EQ(take_list(c.h, list, count).size(), 10u);

    ASSERT_EQ(zlk_blob_scan(c.h, "guest", 5, 3, &list, &count), zlk_e_ok);
    EXPECT_EQ(take_list(c.h, list, count).size(), 3u);

    EXPECT_EQ(zlk_blob_scan_regex(c.h, "([", 10, &list, &count), zlk_e_invalid_regex);
}

TEST(Listings, ReplicasAreNotListedTwice)
{
    connected_cluster c{3, zlk::entries_test::replicated(2)};
    std::vector<std::string> expected;
    for (int i = 0; i < 30; ++i)
    {
        expected.push_back("r." + std::to_string(i));
        put(c.h, expected.back(), "x");
    }
    ASSERT_EQ(zlk_attach_tag(c.h, "r.0", "t"), zlk_e_ok);
    EXPECT_THAT(prefix_get(c.h, "r.", 100), UnorderedElementsAreArray(expected));
    uint64_t n = 0;
    ASSERT_EQ(zlk_prefix_count(c.h, "r.", &n), zlk_e_ok);
    EXPECT_EQ(n, 30u);
    ASSERT_EQ(zlk_get_tagged_count(c.h, "t", &n), zlk_e_ok);
    EXPECT_EQ(n, 1u);
    zlk_const_iterator_t it;
    std::size_t walked = 0;
    for (zlk_error_t r = zlk_iterator_begin(c.h, &it); r == zlk_e_ok; r = zlk_iterator_next(&it))
    {
        ++walked;
    }
    EXPECT_EQ(zlk_iterator_close(&it), zlk_e_ok);
    // The entries, the tag and its link.
    EXPECT_EQ(walked, 32u);
}

TEST(Listings, CompressedContentIsScannedAsItStands)
{
    connected_cluster c{1};
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_fast), zlk_e_ok);
    const std::string content = std::string(300, 'a') + "needle" + std::string(300, 'b');
    put(c.h, "compressed", content);
    const char ** list = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_blob_scan(c.h, "needle", 6, 10, &list, &count), zlk_e_ok);
    EXPECT_THAT(take_list(c.h, list, count), testing::ElementsAre("compressed"));
}

TEST(Listings, AnExpressionOverALargeBlobDoesNotExhaustTheNode)
{
    connected_cluster c{1};
    put(c.h, "large", std::string(1 << 20, 'a') + "b");
    const char ** list = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_blob_scan_regex(c.h, "a.*b", 10, &list, &count), zlk_e_ok);
    EXPECT_THAT(take_list(c.h, list, count), testing::ElementsAre("large"));
    // Back-references would need the matcher that recurses.
    EXPECT_EQ(zlk_blob_scan_regex(c.h, "(a)\\1", 10, &list, &count), zlk_e_invalid_regex);
}

TEST(Listings, ChecksRefuseWhatCannotBeListed)
{
    connected_cluster c{1};
    const char ** list = nullptr;
    size_t count = 0;
    uint64_t n = 0;

    EXPECT_EQ(zlk_prefix_get(c.h, nullptr, 10, &list, &count), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL prefix"));
    EXPECT_EQ(zlk_prefix_count(c.h, "", &n), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got empty prefix"));
    EXPECT_EQ(zlk_prefix_get(c.h, "\xC0\x80tag.", 10, &list, &count), zlk_e_reserved_alias);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got prefix with reserved alias name"));
    const std::string too_long(1025, 'p');
    EXPECT_EQ(zlk_prefix_get(c.h, too_long.c_str(), 10, &list, &count), zlk_e_alias_too_long);

    // A suffix may begin with the mark.
    EXPECT_EQ(zlk_suffix_get(c.h, "\xC0\x80tag", 10, &list, &count), zlk_e_ok);
    EXPECT_EQ(zlk_suffix_count(c.h, nullptr, &n), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL suffix"));

    EXPECT_EQ(zlk_blob_scan(c.h, "x", 0, 10, &list, &count), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got zero pattern"));
    EXPECT_EQ(zlk_blob_scan(c.h, nullptr, 3, 10, &list, &count), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL pattern"));
    EXPECT_EQ(zlk_blob_scan_regex(c.h, "", 10, &list, &count), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got empty pattern"));
}

TEST(Listings, DirectPrefixGetSeesOnlyWhatTheNodeHolds)
{
    connected_cluster c{1};
    put(c.h, "d.1", "a");
    put(c.h, "d.2", "b");
    zlk_direct_handle_t d = zlk_direct_connect(c.h, node_uri(c.cluster, 0).c_str());
    ASSERT_NE(d, nullptr);
    const char ** list = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_direct_prefix_get(d, "d.", 1, &list, &count), zlk_e_ok);
    EXPECT_EQ(take_list(c.h, list, count).size(), 1u);
    ASSERT_EQ(zlk_direct_prefix_get(d, "d.", 10, &list, &count), zlk_e_ok);
    EXPECT_THAT(take_list(c.h, list, count), UnorderedElementsAreArray({"d.1", "d.2"}));
    EXPECT_EQ(zlk_direct_prefix_get(d, "\xC0\x80x", 10, &list, &count), zlk_e_reserved_alias);
    zlk_direct_close(d);
}

} // namespace
