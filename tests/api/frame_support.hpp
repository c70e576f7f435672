// Helpers shared by the frame tests: a handle that closes itself, the last-error record as values, and
// a log callback that keeps what it receives.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zlk/zlk.h"

namespace zlk::test
{

class scoped_handle
{
public:
    scoped_handle()
        : _h(zlk_open_tcp())
    {
        EXPECT_NE(_h, nullptr);
    }
    ~scoped_handle()
    {
        if (_h)
        {
            EXPECT_EQ(zlk_close(_h), zlk_e_ok);
        }
    }
    scoped_handle(const scoped_handle &) = delete;
    scoped_handle & operator=(const scoped_handle &) = delete;

    operator zlk_handle_t() const noexcept { return _h; }
    zlk_handle_t release() noexcept { return std::exchange(_h, nullptr); }

private:
    zlk_handle_t _h;
};

inline std::pair<zlk_error_t, std::string> last_error(zlk_handle_t h)
{
    zlk_error_t code = zlk_e_uninitialized;
    zlk_string_t text{nullptr, 0};
    EXPECT_EQ(zlk_get_last_error(h, &code, &text), zlk_e_ok);
    return {code, text.data ? std::string(text.data, text.length) : std::string{}};
}

// Records every message while alive, with logging made synchronous so that a call's lines have arrived
// when it returns. REQUIRES: a handle is open (the logger exists) for as long as it lives.
class log_capture
{
public:
    log_capture()
    {
        zlk_log_option_set_sync(1);
        EXPECT_EQ(zlk_log_add_callback(&log_capture::receive, &_id), zlk_e_ok);
        EXPECT_NE(_id, static_cast<zlk_log_callback_id>(-1));
    }
    ~log_capture()
    {
        zlk_log_remove_callback(_id);
        zlk_log_option_set_sync(0);
        std::lock_guard lock{mutex()};
        lines_store().clear();
    }

    std::vector<std::string> lines_starting_with(const std::string & prefix) const
    {
        std::lock_guard lock{mutex()};
        std::vector<std::string> found;
        for (auto & line : lines_store())
        {
            if (line.rfind(prefix, 0) == 0)
            {
                found.push_back(line);
            }
        }
        return found;
    }

private:
    static void receive(zlk_log_level_t, const uint64_t *, uint64_t, uint64_t, const char * text, size_t size)
    {
        std::lock_guard lock{mutex()};
        lines_store().emplace_back(text, size);
    }
    static std::mutex & mutex()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<std::string> & lines_store()
    {
        static std::vector<std::string> lines;
        return lines;
    }

    zlk_log_callback_id _id = 0;
};

} // namespace zlk::test
