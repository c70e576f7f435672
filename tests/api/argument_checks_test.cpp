#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "api/argument_checks.hpp"
#include "api/handle.hpp"

namespace
{

using namespace zlk::api;

// Runs check and returns the code and message it threw, or 0 and "" when it passed.
std::pair<zlk_error_t, std::string> outcome(const std::function<void()> & check)
{
    try
    {
        check();
        return {zlk_e_ok, ""};
    }
    catch (const zlk::api_exception & e)
    {
        return {e.code(), e.what()};
    }
}

TEST(argument_checks, an_alias_of_1024_bytes_passes_with_its_terminating_zero_counted_and_1025_fails)
{
    const std::string longest(1024, 'a');
    const checked_alias a = check_alias(longest.c_str());
    EXPECT_EQ(a.data, longest.c_str());
    EXPECT_EQ(a.length, 1025u);
    EXPECT_EQ(check_alias("x").length, 2u);

    const std::string too_long(1025, 'a');
    EXPECT_EQ(outcome([&] { check_alias(too_long.c_str()); }),
              std::make_pair(zlk_e_alias_too_long, std::string{"Got too big alias (max 1024 characters)"}));
}

TEST(argument_checks, a_string_is_measured_no_further_than_one_byte_past_its_limit)
{
    // No terminating zero: reading past limit + 1 bytes would leave the allocation.
    auto unterminated = std::make_unique<char[]>(9);
    std::fill_n(unterminated.get(), 9, 'z');
    EXPECT_EQ(outcome([&] { check_string(unterminated.get(), "pattern", 8); }),
              std::make_pair(zlk_e_alias_too_long, std::string{"Got too big pattern (max 8 characters)"}));
    unterminated[8] = '\0';
    EXPECT_EQ(check_string(unterminated.get(), "pattern", 8).length, 8u);
}

TEST(argument_checks, null_and_empty_strings_fail_with_their_label)
{
    EXPECT_EQ(outcome([] { check_alias(nullptr); }),
              std::make_pair(zlk_e_invalid_argument, std::string{"Got NULL alias"}));
    EXPECT_EQ(outcome([] { check_alias(""); }),
              std::make_pair(zlk_e_invalid_argument, std::string{"Got empty alias"}));
    EXPECT_EQ(outcome([] { check_prefix("", "prefix"); }),
              std::make_pair(zlk_e_invalid_argument, std::string{"Got empty prefix"}));
}

TEST(argument_checks, only_the_full_reserved_mark_is_refused_and_only_for_aliases_and_prefixes)
{
    const char reserved[] = "\xC0\x80system";
    EXPECT_EQ(outcome([&] { check_alias(reserved); }),
              std::make_pair(zlk_e_reserved_alias, std::string{"Got alias with reserved alias name"}));
    EXPECT_EQ(outcome([&] { check_prefix(reserved); }),
              std::make_pair(zlk_e_reserved_alias, std::string{"Got prefix with reserved alias name"}));
    // The reserved functions check the string alone.
    EXPECT_EQ(check_string(reserved, "alias", max_alias_length).length, 8u);

    EXPECT_EQ(outcome([] { check_alias("\xC0"); }).first, zlk_e_ok);
    EXPECT_EQ(outcome([] { check_alias("\xC0\x81"); }).first, zlk_e_ok);
    EXPECT_EQ(outcome([] { check_alias("\x80\xC0"); }).first, zlk_e_ok);
}

TEST(argument_checks, pointer_count_handle_and_iterator_checks_use_their_exact_messages)
{
    const int value = 0;
    zlk_session * no_session = nullptr;
    const std::vector<std::pair<std::function<void()>, std::pair<zlk_error_t, std::string>>> cases = {
        {[] { check_not_null(nullptr, "alias list"); }, {zlk_e_invalid_argument, "Got NULL alias list"}},
        {[&] { check_not_null(&value, "alias list"); }, {zlk_e_ok, ""}},
        {[] { check_content(nullptr, 3, "blob"); }, {zlk_e_invalid_argument, "Got NULL blob with size > 0"}},
        {[] { check_content(nullptr, 0, "blob"); }, {zlk_e_ok, ""}},
        {[] { check_not_zero(0, "blob length"); }, {zlk_e_invalid_argument, "Got zero blob length"}},
        {[&] { check_owner_handle(no_session); }, {zlk_e_invalid_handle, "Got NULL handle"}},
        {[] { check_iterator(nullptr, true); }, {zlk_e_invalid_iterator, "Got NULL iterator"}},
        {[&] { check_iterator(&value, false); }, {zlk_e_invalid_iterator, "Got invalid iterator"}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(i);
        EXPECT_EQ(outcome(cases[i].first), cases[i].second);
    }
}

} // namespace
