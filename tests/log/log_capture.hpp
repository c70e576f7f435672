// A log callback that keeps what it receives, for tests to read after a flush.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log/logger.hpp"

namespace zlk::log::testing
{

struct captured_line
{
    zlk_log_level_t level;
    std::array<std::uint64_t, 6> date;
    std::uint64_t pid;
    std::uint64_t tid;
    std::string text;
};

// Process-wide, as callbacks are plain functions.
inline std::mutex capture_mutex;
inline std::condition_variable capture_arrived;
inline std::vector<captured_line> captured;

inline void capture(zlk_log_level_t level, const std::uint64_t * d, std::uint64_t pid, std::uint64_t tid,
                    const char * text, std::size_t size)
{
    std::lock_guard lock(capture_mutex);
    captured.push_back({level, {d[0], d[1], d[2], d[3], d[4], d[5]}, pid, tid, std::string(text, size)});
    capture_arrived.notify_all();
}

// Flushes, then hands over everything captured; the capture starts afresh.
inline std::vector<captured_line> flushed()
{
    flush();
    std::lock_guard lock(capture_mutex);
    return std::exchange(captured, {});
}

inline std::vector<std::string> flushed_texts()
{
    std::vector<std::string> texts;
    for (auto & l : flushed())
    {
        texts.push_back(std::move(l.text));
    }
    return texts;
}

// For lines the logger's own task delivers: waits, with a generous bound, until one has this text.
inline bool wait_for(std::string_view text)
{
    std::unique_lock lock(capture_mutex);
    return capture_arrived.wait_for(lock, std::chrono::seconds(60),
                                    [&] {
                                        return std::any_of(captured.begin(), captured.end(),
                                                           [&](const auto & l) { return l.text == text; });
                                    });
}

} // namespace zlk::log::testing
