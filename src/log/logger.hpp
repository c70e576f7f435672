// The process-wide asynchronous logger: a log call formats into a pooled packet and pushes it on a
// queue; the "async logger task" thread hands the packets to the sinks on a period, or at once on flush.
//
// The logger exists while at least one handle does (start_logger/stop_logger); a message made while
// it doesn't is dropped. No log call throws, and after start-up none allocates.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "zlk/log.h"

namespace zlk::log
{

enum class level : std::uint8_t
{
    detailed = 0,
    debug = 1,
    info = 2,
    warning = 3,
    error = 4,
    panic = 5,
};

namespace detail
{
// Above every level while no logger exists.
inline constexpr std::uint8_t logger_off = 0xFF;
// The minimum level of the running logger, or logger_off.
extern std::atomic<std::uint8_t> minimum_level;
} // namespace detail

// The one comparison a message below the minimum costs. A true answer is only a hint: write()
// checks again against the logger it finds.
inline bool enabled(level l) noexcept
{
    return static_cast<std::uint8_t>(l) >= detail::minimum_level.load(std::memory_order_relaxed);
}

// Formats into a packet taken from the pool and queues it. Drops the message silently when the
// logger doesn't exist, the level is below the minimum, the pool is exhausted or formatting fails.
// Text beyond 512 bytes is cut. An empty message is not queued.
void write(level l, fmt::string_view format, fmt::format_args args) noexcept;

template <typename... Args>
void log(level l, fmt::format_string<Args...> format, Args &&... args) noexcept
{
    if (!enabled(l))
    {
        return;
    }
    write(l, format, fmt::make_format_args(args...));
}

// Starts the logger with the first caller, counts further starts. period: how often the task
// flushes; below one millisecond the task flushes without pausing. Throws when the logger or its
// thread can't be made; the count is then unchanged.
void start_logger(level minimum, std::chrono::milliseconds period);
// Counts down; the last stop stops the task, flushes a last time and frees the logger. A stop
// without a matching start does nothing.
void stop_logger() noexcept;
// Hands every queued packet to every sink, on the calling thread. An exception from a sink is
// swallowed (the task's own flushes log it). Called from within a sink, does nothing.
void flush() noexcept;

// Sinks. Each one gets an id from a process-wide sequence, so that an id never names a later sink.
// Every function below answers nullopt (or false) when no logger exists, and also when called from
// within a sink during a flush: the sinks can't change while they are being walked.
using sink_id = zlk_log_callback_id;

// A null callback isn't added.
std::optional<sink_id> add_callback(zlk_log_callback callback);
// Removes a sink of any kind. Once it returns true, the sink is called no more.
bool remove_callback(sink_id id) noexcept;
// Appends one line per message to the file. Throws std::invalid_argument for an empty path and
// std::system_error when the file can't be opened.
std::optional<sink_id> log_to_file(std::string_view path);
// One line per message on the standard error stream.
std::optional<sink_id> log_to_console();
// One syslog() call per message, with the level mapped to a syslog priority.
std::optional<sink_id> log_to_syslog();

// The level that callbacks receive: level * 100 + 100, and zlk_log_error for an unknown level.
zlk_log_level_t public_level(std::uint32_t level) noexcept;

// Messages lost since the process started: the pool was exhausted or the formatting failed.
std::uint64_t dropped_messages() noexcept;

// The synchronous flag that the call frame tests on the way out of every exported function.
void set_sync(bool sync) noexcept;

namespace detail
{
extern std::atomic<std::uint8_t> sync_flag;
}

inline bool is_sync() noexcept
{
    return detail::sync_flag.load(std::memory_order_relaxed) != 0;
}

} // namespace zlk::log
