#include "base/alias_hash.hpp"

#include "known_answers.hpp"
#include "base/skein256.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

namespace zlk::chord
{
namespace
{

ring_id expected_position(const std::string & vector_name)
{
    const auto & a = kat::known_answer_named(vector_name);
    return ring_id{{a.words[0], a.words[1], a.words[2], a.words[3]}};
}

TEST(alias_hash, position_of_an_alias_is_the_hash_of_its_bytes_and_terminating_zero)
{
    const std::pair<std::string, std::string> cases[] = {
        {"a", "str_a_nul"},
        {"b", "str_b_nul"},
        {"alias", "str_alias_nul"},
        {"hello world", "str_hello_world_nul"},
        {"ts_test_table", "str_ts_test_table_nul"},
        {std::string(1024, 'x'), "str_x1024_nul"},
    };
    for (const auto & [alias, vector_name] : cases)
    {
        SCOPED_TRACE(vector_name);
        const ring_id expected = expected_position(vector_name);
        EXPECT_EQ(alias_hash(alias), expected);
        EXPECT_EQ(alias_hash(alias.c_str(), alias.size() + 1), expected);
    }
}

TEST(alias_hash, the_text_form_of_a_position_is_the_one_nodes_log)
{
    EXPECT_EQ(fmt::format("{}", alias_hash("alias")), kat::known_answer_named("str_alias_nul").text);
}

TEST(alias_hash, both_forms_agree_when_the_zero_fills_or_starts_a_block)
{
    // 31 characters: the zero completes the only block; 32: the zero alone starts a second block.
    for (std::size_t n : {30u, 31u, 32u, 33u, 63u, 64u})
    {
        SCOPED_TRACE(n);
        const std::string alias(n, 'k');
        const ring_id by_length = alias_hash(alias.c_str(), n + 1);
        EXPECT_EQ(alias_hash(alias), by_length);
        EXPECT_EQ(by_length.words, skein256_hash_words(alias.c_str(), n + 1));
        EXPECT_NE(by_length.words, skein256_hash_words(alias.c_str(), n))
            << "the terminating zero was dropped";
    }
}

TEST(alias_hash, a_view_into_a_longer_string_hashes_only_the_view)
{
    const std::string text = "alias-and-more";
    EXPECT_EQ(alias_hash(std::string_view(text).substr(0, 5)), expected_position("str_alias_nul"));
}

} // namespace
} // namespace zlk::chord
