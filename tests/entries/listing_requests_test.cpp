// Tag-link aliases, and the reading of list and walk replies as a node might send them, well formed or
// not.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "entries/listing_requests.hpp"

namespace zlk::client
{
namespace
{

TEST(TagLinks, AliasesParseBackFromEitherSide)
{
    const std::string link = tag_link_alias("colour", "doc.1");
    EXPECT_EQ(link, std::string("\xC0\x80tag.colour.doc.1.tag", 2 + 20));
    EXPECT_TRUE(link.starts_with(tag_links_prefix("colour")));
    EXPECT_TRUE(link.ends_with(entry_links_suffix("doc.1")));

    std::string part;
    ASSERT_TRUE(entry_of_link(link, "colour", part));
    EXPECT_EQ(part, "doc.1");
    ASSERT_TRUE(tag_of_link(link, "doc.1", part));
    EXPECT_EQ(part, "colour");

    // Links that don't fit: another tag, no ".tag" end, nothing between the parts, no mark.
    EXPECT_FALSE(entry_of_link(link, "col", part));
    EXPECT_FALSE(entry_of_link(tag_links_prefix("colour") + "doc", "colour", part));
    EXPECT_FALSE(entry_of_link(tag_links_prefix("colour") + ".tag", "colour", part));
    EXPECT_FALSE(tag_of_link("tag.colour.doc.1.tag", "doc.1", part));
    EXPECT_FALSE(tag_of_link(std::string("\xC0\x80tag.") + ".doc.1.tag", "doc.1", part));
}

TEST(ListReplies, ListsDecodeWithAndWithoutTypes)
{
    const std::vector<std::uint8_t> plain{2, 1, 'a', 2, 'b', 'c'};
    std::vector<std::string> aliases{"kept"};
    ASSERT_EQ(decode_alias_list(plain, false, aliases, nullptr), zlk_e_ok);
    EXPECT_EQ(aliases, (std::vector<std::string>{"kept", "a", "bc"}));

    const std::vector<std::uint8_t> typed{2, 1, 'a', 5, 0, 1};
    aliases.clear();
    std::vector<std::uint8_t> types;
    ASSERT_EQ(decode_alias_list(typed, true, aliases, &types), zlk_e_ok);
    EXPECT_EQ(aliases, (std::vector<std::string>{"a", ""}));
    EXPECT_EQ(types, (std::vector<std::uint8_t>{5, 1}));
}

TEST(ListReplies, MalformedListsAreInvalidRepliesAndAddNothing)
{
    const std::vector<std::vector<std::uint8_t>> bad{
        {},                             // no count
        {3, 1, 'a'},                    // fewer elements than counted
        {1, 5, 'a'},                    // an alias longer than what is left
        {0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, // a count no reply could hold
        {1, 1, 'a'},                    // a type missing (read with types)
    };
    for (std::size_t i = 0; i < bad.size(); ++i)
    {
        std::vector<std::string> aliases{"kept"};
        std::vector<std::uint8_t> types{9};
        EXPECT_EQ(decode_alias_list(bad[i], true, aliases, &types), zlk_e_invalid_reply) << i;
        EXPECT_EQ(aliases.size(), 1u) << i;
        EXPECT_EQ(types.size(), 1u) << i;
    }
}

TEST(WalkReplies, TheAliasComesBeforeTheContent)
{
    const std::vector<std::uint8_t> reply{2, 'i', 'd', 'x', 'y', 'z'};
    std::string_view alias;
    std::span<const std::uint8_t> stored;
    ASSERT_EQ(decode_walk_reply(reply, alias, stored), zlk_e_ok);
    EXPECT_EQ(alias, "id");
    EXPECT_EQ(std::string(stored.begin(), stored.end()), "xyz");

    const std::vector<std::uint8_t> cut{9, 'i'};
    EXPECT_EQ(decode_walk_reply(cut, alias, stored), zlk_e_invalid_reply);
}

TEST(ListBodies, FieldsFollowTheOperationNumber)
{
    const protocol::operation_body body = list_chunk_body("ab", affix_kind::suffix, 3, 1024, list_aliases);
    ASSERT_FALSE(body.error);
    const std::vector<std::uint8_t> expected{10, 0, 2, 'a', 'b', 1, 3, 0x80, 0x08, 0x04};
    EXPECT_EQ(std::vector<std::uint8_t>(body.bytes().begin(), body.bytes().end()), expected);

    const protocol::operation_body back = link_tag_back_body(std::string_view("l\0", 2), 1);
    const std::vector<std::uint8_t> expected_back{150, 0, 2, 'l', 0, 1};
    EXPECT_EQ(std::vector<std::uint8_t>(back.bytes().begin(), back.bytes().end()), expected_back);
    EXPECT_EQ(iterator_body(true).size, 2u);
}

} // namespace
} // namespace zlk::client
