// Several threads on one handle: options, tracked copies, profiles, the last-error record and logging
// all at once. The assertions are loose; the point is a clean run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "api/handle.hpp"
#include "api/perf_profiles.hpp"
#include "frame_support.hpp"
#include "log/logger.hpp"

namespace
{

using zlk::test::scoped_handle;

std::atomic<std::size_t> delivered{0};

void count_message(zlk_log_level_t, const uint64_t *, uint64_t, uint64_t, const char *, size_t)
{
    ++delivered;
}

TEST(frame_stress, threads_sharing_a_handle_keep_it_consistent)
{
    constexpr int threads = 4;
    constexpr int rounds = 300;
    scoped_handle h;
    zlk_log_callback_id id = 0;
    ASSERT_EQ(zlk_log_add_callback(&count_message, &id), zlk_e_ok);
    ASSERT_EQ(zlk_perf_enable_client_tracking(h), zlk_e_ok);

    std::atomic<int> failures{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
    {
        workers.emplace_back(
            [&, t]
            {
                for (int i = 0; i < rounds; ++i)
                {
                    int timeout = 0;
                    const void * copy = nullptr;
                    zlk_error_t code = 0;
                    zlk_string_t text{};
                    failures += zlk_option_set_timeout(h, 1000 + 1000 * t) != zlk_e_ok;
                    failures += zlk_option_get_timeout(h, &timeout) != zlk_e_ok;
                    failures += timeout % 1000 != 0;
                    failures += zlk_option_set_compression(h, i % 2) != zlk_e_ok;
                    failures += zlk_copy_alloc_buffer(h, &i, sizeof(i), &copy) != zlk_e_ok;
                    failures += zlk_get_last_error(h, &code, &text) != zlk_e_ok;
                    zlk_release(h, copy);
                    zlk::api::add_profile(*static_cast<zlk_handle_t>(h), {"stress", {{"round", i}}});
                    if (i % 50 == 0)
                    {
                        zlk_perf_profile_t * profiles = nullptr;
                        size_t count = 0;
                        failures += zlk_perf_get_profiles(h, &profiles, &count) != zlk_e_ok;
                        zlk_release(h, profiles);
                        if (t == 0)
                        {
                            zlk_perf_clear_all_profiles(h);
                        }
                        zlk_log_option_set_sync(i % 100 == 0);
                    }
                    zlk::log::log(zlk::log::level::info, "thread {} round {}", t, i);
                }
            });
    }
    for (auto & w : workers)
    {
        w.join();
    }
    zlk_log_option_set_sync(0);
    zlk::log::flush();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(static_cast<zlk_handle_t>(h)->objects_tracker.key_count(), 0u);
    EXPECT_GT(delivered.load(), 0u);
    EXPECT_EQ(zlk_log_remove_callback(id), zlk_e_ok);
}

} // namespace
