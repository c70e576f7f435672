// Tags: links made and taken away in transactions, listed from either side, and cleaned up with the
// entries they join.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "entries_test_support.hpp"

namespace
{

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using zlk::entries_test::connected_cluster;

std::vector<std::string> take_list(zlk_handle_t h, const char ** list, size_t count)
{
    std::vector<std::string> out(list, list + count);
    zlk_release(h, list);
    return out;
}

std::vector<std::string> tagged(zlk_handle_t h, const char * tag)
{
    const char ** list = nullptr;
    size_t count = 0;
    EXPECT_EQ(zlk_get_tagged(h, tag, &list, &count), zlk_e_ok);
    return take_list(h, list, count);
}

std::vector<std::string> tags_of(zlk_handle_t h, const char * alias)
{
    const char ** list = nullptr;
    size_t count = 0;
    EXPECT_EQ(zlk_get_tags(h, alias, &list, &count), zlk_e_ok);
    return take_list(h, list, count);
}

void put(zlk_handle_t h, const std::string & alias)
{
    ASSERT_EQ(zlk_blob_put(h, alias.c_str(), "v", 1, 0), zlk_e_ok) << alias;
}

struct tags : ::testing::Test
{
    connected_cluster c{3};
};

TEST_F(tags, AttachedTagsAreSeenFromBothSides)
{
    put(c.h, "doc.1");
    put(c.h, "doc.2");
    ASSERT_EQ(zlk_int_put(c.h, "counter", 3, 0), zlk_e_ok);
    EXPECT_EQ(zlk_attach_tag(c.h, "doc.1", "red"), zlk_e_ok);
    EXPECT_EQ(zlk_attach_tag(c.h, "doc.2", "red"), zlk_e_ok);
    EXPECT_EQ(zlk_attach_tag(c.h, "counter", "red"), zlk_e_ok);
    const char * both[] = {"blue", "green"};
    EXPECT_EQ(zlk_attach_tags(c.h, "doc.1", both, 2), zlk_e_ok);

    EXPECT_THAT(tagged(c.h, "red"), UnorderedElementsAre("doc.1", "doc.2", "counter"));
    EXPECT_THAT(tags_of(c.h, "doc.1"), UnorderedElementsAre("red", "blue", "green"));
    uint64_t n = 0;
    ASSERT_EQ(zlk_get_tagged_count(c.h, "red", &n), zlk_e_ok);
    EXPECT_EQ(n, 3u);

    EXPECT_EQ(zlk_has_tag(c.h, "doc.2", "red"), zlk_e_ok);
    EXPECT_EQ(zlk_has_tag(c.h, "doc.2", "blue"), zlk_e_tag_not_set);
    // The tag is an entry of its own, of the tag type.
    zlk_entry_type_t type = zlk_entry_uninitialized;
    ASSERT_EQ(zlk_get_type(c.h, "red", &type), zlk_e_ok);
    EXPECT_EQ(type, 3);

    // Entries tagged both red and blue: an intersection of two listings.
    const auto red = tagged(c.h, "red");
    const auto blue = tagged(c.h, "blue");
    std::vector<std::string> common;
    std::set<std::string> in_blue(blue.begin(), blue.end());
    std::copy_if(red.begin(), red.end(), std::back_inserter(common),
                 [&](const std::string & a) { return in_blue.count(a) != 0; });
    EXPECT_THAT(common, ElementsAre("doc.1"));
}

TEST_F(tags, SettingATagTwiceOrRemovingAMissingOneIsToldApart)
{
    put(c.h, "a");
    ASSERT_EQ(zlk_attach_tag(c.h, "a", "t"), zlk_e_ok);
    const zlk_error_t again = zlk_attach_tag(c.h, "a", "t");
    EXPECT_EQ(again, zlk_e_tag_already_set);
    EXPECT_TRUE(ZLK_SUCCESS(again));
    const char * same[] = {"t", "t"};
    EXPECT_EQ(zlk_attach_tags(c.h, "a", same, 2), zlk_e_tag_already_set);

    EXPECT_EQ(zlk_detach_tag(c.h, "a", "t"), zlk_e_ok);
    EXPECT_EQ(zlk_detach_tag(c.h, "a", "t"), zlk_e_tag_not_set);
    EXPECT_EQ(zlk_has_tag(c.h, "a", "t"), zlk_e_tag_not_set);
    EXPECT_THAT(tagged(c.h, "t"), IsEmpty());

    const char * two[] = {"x", "y"};
    ASSERT_EQ(zlk_attach_tags(c.h, "a", two, 2), zlk_e_ok);
    EXPECT_EQ(zlk_detach_tags(c.h, "a", two, 2), zlk_e_ok);
    EXPECT_EQ(zlk_detach_tags(c.h, "a", two, 2), zlk_e_tag_not_set);
    EXPECT_THAT(tags_of(c.h, "a"), IsEmpty());
}

TEST_F(tags, ATagNameTakenByABlobIsIncompatible)
{
    put(c.h, "a");
    put(c.h, "not-a-tag");
    EXPECT_EQ(zlk_attach_tag(c.h, "a", "not-a-tag"), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_has_tag(c.h, "a", "not-a-tag"), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_detach_tag(c.h, "a", "not-a-tag"), zlk_e_incompatible_type);
    // The failed attach left no link behind.
    EXPECT_THAT(tags_of(c.h, "a"), IsEmpty());
    EXPECT_EQ(zlk_attach_tag(c.h, "missing", "t"), zlk_e_alias_not_found);
}

TEST_F(tags, RemovingATaggedEntryRemovesItsLinks)
{
    put(c.h, "e.1");
    put(c.h, "e.2");
    const char * both[] = {"t1", "t2"};
    ASSERT_EQ(zlk_attach_tags(c.h, "e.1", both, 2), zlk_e_ok);
    ASSERT_EQ(zlk_attach_tag(c.h, "e.2", "t1"), zlk_e_ok);

    ASSERT_EQ(zlk_remove(c.h, "e.1"), zlk_e_ok);
    EXPECT_THAT(tagged(c.h, "t1"), ElementsAre("e.2"));
    EXPECT_THAT(tagged(c.h, "t2"), IsEmpty());
    // Made again, the entry has no tags from its former life.
    put(c.h, "e.1");
    EXPECT_THAT(tags_of(c.h, "e.1"), IsEmpty());
}

TEST_F(tags, RemovingATagRemovesItsLinksButNotItsEntries)
{
    put(c.h, "e.1");
    put(c.h, "e.2");
    ASSERT_EQ(zlk_attach_tag(c.h, "e.1", "gone"), zlk_e_ok);
    ASSERT_EQ(zlk_attach_tag(c.h, "e.2", "gone"), zlk_e_ok);
    ASSERT_EQ(zlk_attach_tag(c.h, "e.2", "kept"), zlk_e_ok);

    ASSERT_EQ(zlk_remove(c.h, "gone"), zlk_e_ok);
    EXPECT_THAT(tagged(c.h, "gone"), IsEmpty());
    EXPECT_THAT(tags_of(c.h, "e.2"), ElementsAre("kept"));
    EXPECT_EQ(zlk_has_tag(c.h, "e.1", "gone"), zlk_e_tag_not_set);
    EXPECT_EQ(c.get("e.1"), zlk::entries_test::bytes("v"));
}

TEST_F(tags, ATagWithThousandsOfEntriesIsListedWhole)
{
    constexpr int count = 2500;
    std::vector<std::string> expected;
    for (int i = 0; i < count; ++i)
    {
        expected.push_back("many." + std::to_string(i));
        put(c.h, expected.back());
        ASSERT_EQ(zlk_attach_tag(c.h, expected.back().c_str(), "big"), zlk_e_ok);
    }
    EXPECT_THAT(tagged(c.h, "big"), UnorderedElementsAreArray(expected));
    uint64_t n = 0;
    ASSERT_EQ(zlk_get_tagged_count(c.h, "big", &n), zlk_e_ok);
    EXPECT_EQ(n, static_cast<uint64_t>(count));

    // The tag iterator goes through the same chunks.
    zlk_const_tag_iterator_t it;
    std::set<std::string> walked;
    zlk_error_t r = zlk_tag_iterator_begin(c.h, "big", &it);
    for (; r == zlk_e_ok; r = zlk_tag_iterator_next(&it))
    {
        walked.insert(it.alias);
        EXPECT_EQ(it.type, 0);
    }
    EXPECT_EQ(r, zlk_e_iterator_end);
    EXPECT_EQ(it.alias, nullptr);
    EXPECT_EQ(it.type, -1);
    EXPECT_EQ(walked.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(zlk_tag_iterator_close(&it), zlk_e_ok);
}

TEST(Tags, TagIteratorsAndChecksGiveClearErrors)
{
    connected_cluster c{1};
    ASSERT_EQ(zlk_blob_put(c.h, "a", "v", 1, 0), zlk_e_ok);
    ASSERT_EQ(zlk_int_put(c.h, "i", 1, 0), zlk_e_ok);
    ASSERT_EQ(zlk_attach_tag(c.h, "i", "t"), zlk_e_ok);

    zlk_const_tag_iterator_t it;
    ASSERT_EQ(zlk_tag_iterator_begin(c.h, "t", &it), zlk_e_ok);
    EXPECT_STREQ(it.alias, "i");
    EXPECT_EQ(it.type, 1);
    EXPECT_EQ(it.magic, ZLK_TAG_ITERATOR_LIVE);
    EXPECT_EQ(zlk_tag_iterator_previous(&it), zlk_e_not_implemented);
    EXPECT_EQ(zlk_tag_iterator_next(&it), zlk_e_iterator_end);
    EXPECT_EQ(zlk_tag_iterator_next(&it), zlk_e_iterator_end);
    EXPECT_EQ(zlk_tag_iterator_close(&it), zlk_e_ok);
    EXPECT_EQ(it.magic, ZLK_TAG_ITERATOR_DEAD);
    EXPECT_EQ(zlk_tag_iterator_next(&it), zlk_e_invalid_iterator);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got invalid iterator"));

    EXPECT_EQ(zlk_tag_iterator_begin(c.h, "empty", &it), zlk_e_iterator_end);
    EXPECT_EQ(zlk_tag_iterator_close(&it), zlk_e_ok);
    EXPECT_EQ(zlk_tag_iterator_begin(c.h, "t", nullptr), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL iterator"));

    EXPECT_EQ(zlk_attach_tags(c.h, "a", nullptr, 0), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got zero tags"));
    const char * with_null[] = {"ok", nullptr};
    EXPECT_EQ(zlk_attach_tags(c.h, "a", with_null, 2), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL tag"));
    EXPECT_EQ(zlk_attach_tag(c.h, "a", "\xC0\x80t"), zlk_e_reserved_alias);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got tag with reserved alias name"));
    EXPECT_EQ(zlk_has_tag(c.h, nullptr, "t"), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), EndsWith("Got NULL alias"));
}

} // namespace
