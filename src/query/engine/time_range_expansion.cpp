#include "query/engine/time_range_expansion.hpp"

#include <date/date.h>

#include <algorithm>
#include <cstdint>

namespace zlk::query
{

namespace
{

constexpr std::int64_t ns_per_second = 1'000'000'000;
constexpr std::int64_t ns_per_day = 86400 * ns_per_second;

// Whether v lies in the half-open [begin, end), wrapping when begin > end.
template <typename T>
bool in_cycle(T v, T begin, T end) noexcept
{
    return begin <= end ? (v >= begin && v < end) : (v >= begin || v < end);
}

template <typename Pairs, typename T>
bool allowed(const Pairs & ranges, T v) noexcept
{
    return ranges.empty() || std::any_of(ranges.begin(), ranges.end(),
                                         [v](const auto & r) { return in_cycle<T>(v, r.first, r.second); });
}

std::int64_t floor_div(std::int64_t a, std::int64_t b) noexcept
{
    return a / b - (a % b != 0 && (a < 0) != (b < 0) ? 1 : 0);
}

// Nanoseconds since the epoch; times of this language lie within a few thousand years of it.
__int128 to_ns(const timespec & t) noexcept
{
    return static_cast<__int128>(t.tv_sec) * ns_per_second + t.tv_nsec;
}

timespec from_ns(__int128 ns) noexcept
{
    std::int64_t sec = static_cast<std::int64_t>(ns / ns_per_second);
    std::int64_t rest = static_cast<std::int64_t>(ns % ns_per_second);
    if (rest < 0)
    {
        rest += ns_per_second;
        --sec;
    }
    return timespec{sec, rest};
}

// The allowed parts of one day, as nanoseconds since its midnight.
std::vector<std::pair<std::int64_t, std::int64_t>> day_parts(const time_ranges_spec & clauses)
{
    std::vector<std::pair<std::int64_t, std::int64_t>> parts;
    if (clauses.times.empty())
    {
        parts.emplace_back(0, ns_per_day);
        return parts;
    }
    auto ns_of = [](const time::duration & d)
    { return std::clamp<std::int64_t>(d.seconds * ns_per_second + d.nanoseconds, 0, ns_per_day); };
    for (const auto & [first, second] : clauses.times)
    {
        const std::int64_t b = ns_of(first);
        const std::int64_t e = ns_of(second);
        if (b < e)
        {
            parts.emplace_back(b, e);
        }
        else if (b > e)
        {
            parts.emplace_back(0, e);
            parts.emplace_back(b, ns_per_day);
        }
    }
    std::sort(parts.begin(), parts.end());
    return parts;
}

// Sorted by begin, with parts that overlap or touch made one.
std::vector<time::interval> merged(std::vector<std::pair<__int128, __int128>> parts)
{
    std::sort(parts.begin(), parts.end());
    std::vector<time::interval> out;
    __int128 end = 0;
    for (const auto & [b, e] : parts)
    {
        if (!out.empty() && b <= end)
        {
            end = std::max(end, e);
            out.back().end = from_ns(end);
            continue;
        }
        out.push_back(time::interval{from_ns(b), from_ns(e)});
        end = e;
    }
    return out;
}

} // namespace

std::vector<time::interval> expand_time_ranges(const time_ranges_spec & clauses)
{
    if (clauses.times.empty() && clauses.days.empty() && clauses.months.empty())
    {
        return clauses.ranges;
    }
    const auto parts = day_parts(clauses);
    std::vector<std::pair<__int128, __int128>> pieces;
    for (const time::interval & base : clauses.ranges)
    {
        const __int128 begin = to_ns(base.begin);
        const __int128 end = to_ns(base.end);
        if (begin >= end)
        {
            continue;
        }
        const std::int64_t first_day = floor_div(base.begin.tv_sec, 86400);
        const std::int64_t last_day = floor_div(static_cast<std::int64_t>((end - 1) / ns_per_second), 86400);
        for (std::int64_t day = first_day; day <= last_day; ++day)
        {
            const date::year_month_day ymd{date::sys_days{date::days{day}}};
            const auto weekday =
                static_cast<std::uint8_t>(date::weekday{date::sys_days{date::days{day}}}.c_encoding());
            const auto month = static_cast<std::uint8_t>(static_cast<unsigned>(ymd.month()));
            if (!allowed(clauses.days, weekday) || !allowed(clauses.months, month))
            {
                continue;
            }
            const __int128 midnight = static_cast<__int128>(day) * ns_per_day;
            for (const auto & [b, e] : parts)
            {
                const __int128 from = std::max(begin, midnight + b);
                const __int128 to = std::min(end, midnight + e);
                if (from < to)
                {
                    pieces.emplace_back(from, to);
                }
            }
        }
    }
    return merged(std::move(pieces));
}

} // namespace zlk::query
