#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <regex>

#include "network/received_buffer.hpp"
#include "api/handle.hpp"
#include "api/objects_tracker.hpp"
#include "frame_support.hpp"
#include "log/logger.hpp"

namespace
{

using zlk::api::objects_tracker;
using zlk::test::last_error;
using zlk::test::log_capture;
using zlk::test::scoped_handle;

struct counted
{
    explicit counted(int & live)
        : live(live)
    {
        ++live;
    }
    ~counted() { --live; }
    int & live;
};

TEST(objects_tracker, copies_are_owned_by_the_handle_until_released_once)
{
    scoped_handle h;
    const char source[] = "payload";
    const void * copy = nullptr;
    ASSERT_EQ(zlk_copy_alloc_buffer(h, source, sizeof(source), &copy), zlk_e_ok);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, static_cast<const void *>(source));
    EXPECT_EQ(std::memcmp(copy, source, sizeof(source)), 0);

    zlk_release(h, copy);
    zlk_release(h, copy);
    zlk_release(h, nullptr);
    zlk_release(nullptr, source);
    EXPECT_EQ(static_cast<zlk_handle_t>(h)->objects_tracker.key_count(), 0u);
    // Release never touches the record.
    EXPECT_EQ(last_error(h).second, "at zlk_copy_alloc_buffer: The operation completed successfully.");
}

TEST(objects_tracker, copy_checks_its_source_before_its_destination_and_copies_nothing_for_size_zero)
{
    scoped_handle h;
    const void * copy = reinterpret_cast<const void *>(0x1);
    EXPECT_EQ(zlk_copy_alloc_buffer(h, nullptr, 0, &copy), zlk_e_ok);
    EXPECT_EQ(copy, nullptr);

    EXPECT_EQ(zlk_copy_alloc_buffer(h, nullptr, 4, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(last_error(h).second, "at zlk_copy_alloc_buffer: Got NULL source buffer with size > 0");
    EXPECT_EQ(zlk_copy_alloc_buffer(h, "x", 1, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(last_error(h).second, "at zlk_copy_alloc_buffer: The argument is invalid.");
    EXPECT_EQ(static_cast<zlk_handle_t>(h)->objects_tracker.key_count(), 0u);
}

TEST(objects_tracker, objects_under_one_key_die_together_and_a_shared_buffer_outlives_its_release)
{
    int live = 0;
    auto received = zlk::received_buffer::make(16);
    {
        objects_tracker tracker;
        const int key = 0;
        auto first = std::make_unique<counted>(live);
        auto second = std::make_unique<counted>(live);
        tracker.track(&key, first, "associated buffer");
        tracker.track(&key, second, "associated buffer");
        tracker.track(received->data(), received, "associated buffer");
        EXPECT_EQ(first, nullptr);
        EXPECT_EQ(tracker.key_count(), 2u);
        EXPECT_EQ(received.use_count(), 2);

        tracker.release(&key);
        EXPECT_EQ(live, 0);
        tracker.release(received->data());
        EXPECT_EQ(received.use_count(), 1);
    }
    EXPECT_EQ(received->size(), 16u);
}

TEST(objects_tracker, close_reports_101_unreleased_keys_as_100_lines_and_one_more_and_frees_them)
{
    scoped_handle keeper;
    log_capture log;
    zlk_handle_t h = zlk_open_tcp();
    for (int i = 0; i < 101; ++i)
    {
        const void * copy = nullptr;
        ASSERT_EQ(zlk_copy_alloc_buffer(h, &i, sizeof(i), &copy), zlk_e_ok);
    }
    ASSERT_EQ(zlk_close(h), zlk_e_ok);

    const auto header = log.lines_starting_with("At objects tracker destructor");
    ASSERT_EQ(header.size(), 1u);
    EXPECT_EQ(header[0],
              "At objects tracker destructor, got 101 tracked pointers with 101 associated objects:");
    const auto entries = log.lines_starting_with(" | objects tracked at ");
    ASSERT_EQ(entries.size(), 100u);
    const std::regex entry{R"( \| objects tracked at 0x[0-9a-f]+: copied buffer)"};
    for (const auto & line : entries)
    {
        EXPECT_TRUE(std::regex_match(line, entry)) << line;
    }
    EXPECT_EQ(log.lines_starting_with(" | got "), std::vector<std::string>{" | got 1 more objects..."});
}

TEST(objects_tracker, an_entry_beyond_the_budget_is_cut_and_exactly_100_objects_need_no_tail)
{
    scoped_handle keeper;
    log_capture log;
    int live = 0;
    const int key = 0;
    {
        objects_tracker tracker;
        for (int i = 0; i < 102; ++i)
        {
            auto o = std::make_unique<counted>(live);
            // A short label keeps the line within the logger's 512 bytes.
            tracker.track(&key, o, "x");
        }
    }
    zlk::log::flush();
    EXPECT_EQ(live, 0);
    std::string labels = "x";
    for (int i = 1; i < 100; ++i)
    {
        labels += ", x";
    }
    const auto entries = log.lines_starting_with(" | objects tracked at ");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0],
              fmt::format(" | objects tracked at {}: {}, ...", static_cast<const void *>(&key), labels));
    EXPECT_EQ(log.lines_starting_with(" | got "), std::vector<std::string>{" | got 2 more objects..."});

    {
        objects_tracker tracker;
        for (int i = 0; i < 100; ++i)
        {
            auto o = std::make_unique<counted>(live);
            tracker.track(&labels[i], o, "local table");
        }
    }
    zlk::log::flush();
    EXPECT_EQ(live, 0);
    EXPECT_EQ(log.lines_starting_with(" | objects tracked at ").size(), 101u);
    EXPECT_EQ(log.lines_starting_with(" | got ").size(), 1u);
}

} // namespace
