#include <gtest/gtest.h>

#include "api/handle.hpp"
#include "frame_support.hpp"
#include "log/logger.hpp"

namespace
{

using zlk::test::last_error;
using zlk::test::log_capture;
using zlk::test::scoped_handle;

TEST(handle, open_refuses_a_null_out_pointer_and_unknown_protocols_leaving_the_handle_null)
{
    EXPECT_EQ(zlk_open(nullptr, zlk_p_tcp), zlk_e_invalid_argument);

    zlk_handle_t h = reinterpret_cast<zlk_handle_t>(0x1);
    EXPECT_EQ(zlk_open(&h, 1), zlk_e_invalid_protocol);
    EXPECT_EQ(h, nullptr);
}

TEST(handle, the_first_open_starts_the_logger_and_the_last_close_stops_it)
{
    const auto before = zlk::api::handle_count.load();
    ASSERT_EQ(before, 0u) << "another test left a handle open";
    EXPECT_FALSE(zlk::log::enabled(zlk::log::level::panic));
    {
        scoped_handle a;
        scoped_handle b;
        EXPECT_EQ(zlk::api::handle_count.load(), 2u);
        EXPECT_TRUE(zlk::log::enabled(zlk::log::level::detailed));
    }
    EXPECT_EQ(zlk::api::handle_count.load(), 0u);
    EXPECT_FALSE(zlk::log::enabled(zlk::log::level::panic));
}

TEST(handle, open_and_close_log_the_handle_address)
{
    scoped_handle keeper;
    log_capture log;
    zlk_handle_t h = zlk_open_tcp();
    ASSERT_NE(h, nullptr);
    const std::string address = fmt::format("{}", static_cast<const void *>(h));
    EXPECT_EQ(log.lines_starting_with("created new handle: " + address).size(), 1u);
    ASSERT_EQ(zlk_close(h), zlk_e_ok);
    EXPECT_EQ(log.lines_starting_with("destroyed handle " + address).size(), 1u);
}

TEST(handle, close_refuses_a_wrong_magic_and_leaves_every_record_untouched)
{
    scoped_handle h;
    scoped_handle other;
    int timeout = 0;
    ASSERT_EQ(zlk_option_get_timeout(h, &timeout), zlk_e_ok);
    ASSERT_EQ(zlk_option_set_timeout(other, 1), zlk_e_invalid_argument);
    const auto record_h = last_error(h);
    const auto record_other = last_error(other);

    EXPECT_EQ(zlk_close(nullptr), zlk_e_invalid_handle);
    zlk_session & session = *static_cast<zlk_handle_t>(h);
    session.magic = zlk::api::dead_magic;
    EXPECT_EQ(zlk_close(h), zlk_e_invalid_handle);
    EXPECT_EQ(zlk_option_get_timeout(h, &timeout), zlk_e_invalid_handle);
    session.magic = zlk::api::live_magic;

    EXPECT_EQ(last_error(h), record_h);
    EXPECT_EQ(last_error(other), record_other);
}

TEST(handle, the_last_error_names_the_call_after_success_and_after_failure)
{
    scoped_handle h;
    zlk_string_t empty{"x", 1};
    EXPECT_EQ(zlk_get_last_error(h, nullptr, &empty), zlk_e_ok);
    EXPECT_EQ(empty.data, nullptr);
    EXPECT_EQ(empty.length, 0u);

    int timeout = 0;
    ASSERT_EQ(zlk_option_get_timeout(h, &timeout), zlk_e_ok);
    EXPECT_EQ(last_error(h),
              std::make_pair(
                  zlk_e_ok, std::string{"at zlk_option_get_timeout: The operation completed successfully."}));

    ASSERT_EQ(zlk_option_set_timeout(h, 999), zlk_e_invalid_argument);
    EXPECT_EQ(last_error(h),
              std::make_pair(zlk_e_invalid_argument,
                             std::string{"at zlk_option_set_timeout: The argument is invalid."}));
}

TEST(handle, get_last_error_checks_its_outputs_before_the_handle)
{
    EXPECT_EQ(zlk_get_last_error(nullptr, nullptr, nullptr), zlk_e_ok);
    zlk_error_t code = 0;
    EXPECT_EQ(zlk_get_last_error(nullptr, &code, nullptr), zlk_e_invalid_handle);
}

TEST(handle, version_is_the_project_version_and_build_names_a_commit_and_a_date)
{
    EXPECT_STREQ(zlk_version(), ZLK_EXPECTED_VERSION);
    EXPECT_NE(std::string{zlk_build()}.find(__DATE__), std::string::npos);
}

} // namespace
