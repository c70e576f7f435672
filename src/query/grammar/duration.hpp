// Lengths of time as the query language writes them. A month has no fixed length, so a duration keeps
// its parts apart and they are added to a time one by one; a year is kept as twelve months.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "base/time_value.hpp"

namespace zlk::time
{

struct duration
{
    std::int32_t years = 0;
    std::int32_t months = 0;
    std::int64_t days = 0;
    std::int64_t seconds = 0;
    std::int64_t nanoseconds = 0;

    // Terms add up part by part; nanoseconds carry into seconds.
    duration & operator+=(const duration & other) noexcept;
    duration operator-() const noexcept;

    bool has_date_part() const noexcept { return years != 0 || months != 0 || days != 0; }
    bool has_time_part() const noexcept { return seconds != 0 || nanoseconds != 0; }
    bool is_zero() const noexcept { return !has_date_part() && !has_time_part(); }

    friend bool operator==(const duration &, const duration &) noexcept = default;
};

// A half-open range of instants.
struct interval
{
    timespec begin;
    timespec end;
    friend bool operator==(const interval &, const interval &) noexcept = default;
};

// A range of times of day, in nanoseconds since midnight.
struct ns_interval
{
    std::int64_t begin = 0;
    std::int64_t end = 0;
    friend bool operator==(const ns_interval &, const ns_interval &) noexcept = default;
};

// Weekdays numbered from Sunday, 0, to Saturday, 6.
struct days_interval
{
    std::uint8_t begin = 0;
    std::uint8_t end = 0;
    friend bool operator==(const days_interval &, const days_interval &) noexcept = default;
};

// Months numbered from January, 1, to December, 12.
struct months_interval
{
    std::uint8_t begin = 1;
    std::uint8_t end = 1;
    friend bool operator==(const months_interval &, const months_interval &) noexcept = default;
};

// t + d: the months move the UTC year and month and keep the day of the month and the time of day (an
// impossible date such as February 30 rolls into the next month); days are 86400 seconds; the clock
// part is added with carry. Empty when the result leaves the 64-bit range of seconds.
std::optional<timespec> add(const timespec & t, const duration & d) noexcept;

// t - d, clamped at the epoch.
std::optional<timespec> subtract_clamped(const timespec & t, const duration & d) noexcept;

// Seconds since the epoch of a proleptic Gregorian date at midnight; empty for an invalid date.
std::optional<std::int64_t> civil_seconds(std::int64_t year, unsigned month, unsigned day) noexcept;

} // namespace zlk::time
