#include <gtest/gtest.h>

#include <string>

#include "api/call_frame.hpp"
#include "api/handle.hpp"
#include "api/perf_profiles.hpp"
#include "frame_support.hpp"

namespace
{

using zlk::test::log_capture;
using zlk::test::scoped_handle;

std::string text(const zlk_string_t & s)
{
    return std::string(s.data, s.length);
}

TEST(perf_profiles, are_recorded_while_tracking_is_on_and_copied_as_one_tracked_block)
{
    scoped_handle h;
    zlk_session & s = *static_cast<zlk_handle_t>(h);
    zlk_perf_profile_t * profiles = reinterpret_cast<zlk_perf_profile_t *>(0x1);
    size_t count = 7;
    EXPECT_EQ(zlk_perf_get_profiles(h, nullptr, &count), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_perf_get_profiles(h, &profiles, nullptr), zlk_e_invalid_argument);
    zlk::api::add_profile(s, {"ignored", {{"sent", 1}}});
    ASSERT_EQ(zlk_perf_get_profiles(h, &profiles, &count), zlk_e_ok);
    EXPECT_EQ(profiles, nullptr);
    EXPECT_EQ(count, 0u);

    ASSERT_EQ(zlk_perf_enable_client_tracking(h), zlk_e_ok);
    zlk::api::add_profile(s, {"zlk_blob_put", {{"serialized", 120}, {"sent", 4000}, {"received", 9000}}});
    zlk::api::add_profile(s, {"zlk_int_get", {}});
    ASSERT_EQ(zlk_perf_disable_client_tracking(h), zlk_e_ok);
    zlk::api::add_profile(s, {"ignored too", {}});

    ASSERT_EQ(zlk_perf_get_profiles(h, &profiles, &count), zlk_e_ok);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(text(profiles[0].name), "zlk_blob_put");
    ASSERT_EQ(profiles[0].count, 3u);
    EXPECT_EQ(text(profiles[0].measurements[2].label), "received");
    EXPECT_EQ(profiles[0].measurements[2].elapsed, 9000);
    EXPECT_EQ(text(profiles[1].name), "zlk_int_get");
    EXPECT_EQ(profiles[1].count, 0u);
    EXPECT_EQ(s.objects_tracker.key_count(), 1u);
    zlk_release(h, profiles);
    EXPECT_EQ(s.objects_tracker.key_count(), 0u);
}

TEST(perf_profiles, clearing_empties_the_list_and_leaves_it_usable)
{
    scoped_handle h;
    zlk_session & s = *static_cast<zlk_handle_t>(h);
    ASSERT_EQ(zlk_perf_enable_client_tracking(h), zlk_e_ok);
    zlk::api::add_profile(s, {"before clear", {}});
    ASSERT_EQ(zlk_perf_clear_all_profiles(h), zlk_e_ok);
    zlk_perf_profile_t * profiles = nullptr;
    size_t count = 0;
    ASSERT_EQ(zlk_perf_get_profiles(h, &profiles, &count), zlk_e_ok);
    EXPECT_EQ(count, 0u);
    // The cleared slots are reused: a new profile must not be mistaken for, or hidden by, an old one.
    zlk::api::add_profile(s, {"after clear", {}});
    ASSERT_EQ(zlk_perf_get_profiles(h, &profiles, &count), zlk_e_ok);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(text(profiles[0].name), "after clear");
}

TEST(log_functions, callbacks_need_a_logger_and_a_function)
{
    zlk_log_callback_id id = 0;
    EXPECT_EQ(zlk_log_add_callback([](auto...) {}, &id), zlk_e_ok);
    EXPECT_EQ(id, static_cast<zlk_log_callback_id>(-1));
    EXPECT_EQ(zlk_log_remove_callback(id), zlk_e_invalid_argument);

    scoped_handle h;
    EXPECT_EQ(zlk_log_add_callback(nullptr, &id), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_log_add_callback([](auto...) {}, nullptr), zlk_e_ok);
    ASSERT_EQ(zlk_log_add_callback([](auto...) {}, &id), zlk_e_ok);
    EXPECT_EQ(zlk_log_remove_callback(id), zlk_e_ok);
    EXPECT_EQ(zlk_log_remove_callback(id), zlk_e_invalid_argument);
}

TEST(log_functions, with_sync_logging_a_call_has_delivered_its_lines_when_it_returns)
{
    scoped_handle h;
    log_capture log;
    EXPECT_EQ(zlk_log_option_is_sync(), 1);
    zlk::api::api_call(h, "zlk_test", [] { zlk::log::log(zlk::log::level::info, "inside {}", 42); });
    EXPECT_EQ(log.lines_starting_with("inside 42").size(), 1u);

    zlk_log_option_set_sync(0);
    EXPECT_EQ(zlk_log_option_is_sync(), 0);
}

} // namespace
