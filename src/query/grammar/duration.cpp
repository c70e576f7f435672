#include "query/grammar/duration.hpp"

#include <date/date.h>

#include <limits>

namespace zlk::time
{

namespace
{

constexpr std::int64_t ns_per_second = 1'000'000'000;

bool checked_add(std::int64_t a, std::int64_t b, std::int64_t & out) noexcept
{
    return !__builtin_add_overflow(a, b, &out);
}

bool checked_mul(std::int64_t a, std::int64_t b, std::int64_t & out) noexcept
{
    return !__builtin_mul_overflow(a, b, &out);
}

} // namespace

duration & duration::operator+=(const duration & other) noexcept
{
    // Parts saturate rather than wrap: a duration that large is refused later by the ranges it builds.
    auto add_part = [](auto & a, auto b)
    {
        using T = std::remove_reference_t<decltype(a)>;
        T r;
        a = __builtin_add_overflow(a, static_cast<T>(b), &r)
                ? (b < 0 ? std::numeric_limits<T>::min() : std::numeric_limits<T>::max())
                : r;
    };
    add_part(years, other.years);
    add_part(months, other.months);
    add_part(days, other.days);
    add_part(seconds, other.seconds);
    add_part(nanoseconds, other.nanoseconds);
    add_part(seconds, nanoseconds / ns_per_second);
    nanoseconds %= ns_per_second;
    return *this;
}

duration duration::operator-() const noexcept
{
    auto neg = [](auto v)
    { return v == std::numeric_limits<decltype(v)>::min() ? std::numeric_limits<decltype(v)>::max() : -v; };
    return duration{neg(years), neg(months), neg(days), neg(seconds), neg(nanoseconds)};
}

std::optional<std::int64_t> civil_seconds(std::int64_t year, unsigned month, unsigned day) noexcept
{
    if (year < -32767 || year > 32767)
    {
        return std::nullopt;
    }
    const date::year_month_day ymd{date::year{static_cast<int>(year)}, date::month{month}, date::day{day}};
    if (!ymd.ok())
    {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(date::sys_days{ymd}.time_since_epoch().count()) * 86400;
}

std::optional<timespec> add(const timespec & t, const duration & d) noexcept
{
    std::int64_t sec = t.tv_sec;
    std::int64_t nsec = t.tv_nsec;

    const std::int64_t total_months = static_cast<std::int64_t>(d.years) * 12 + d.months;
    if (total_months != 0)
    {
        std::int64_t day_number = sec / 86400;
        std::int64_t time_of_day = sec % 86400;
        if (time_of_day < 0)
        {
            time_of_day += 86400;
            --day_number;
        }
        if (day_number < -4'000'000 || day_number > 4'000'000 || total_months < -200'000 ||
            total_months > 200'000)
        {
            return std::nullopt;
        }
        const date::year_month_day ymd{date::sys_days{date::days{day_number}}};
        std::int64_t month_index =
            static_cast<int>(ymd.year()) * 12LL + static_cast<unsigned>(ymd.month()) - 1 + total_months;
        std::int64_t year = month_index >= 0 ? month_index / 12 : (month_index - 11) / 12;
        unsigned month = static_cast<unsigned>(month_index - year * 12) + 1;
        if (year < -32767 || year > 32767)
        {
            return std::nullopt;
        }
        // An impossible day of the month is taken as it comes: February 30 is March 2.
        const date::year_month_day moved{date::year{static_cast<int>(year)}, date::month{month}, ymd.day()};
        const std::int64_t days = date::sys_days{moved}.time_since_epoch().count();
        sec = days * 86400 + time_of_day;
    }

    std::int64_t day_seconds = 0;
    if (!checked_mul(d.days, 86400, day_seconds) || !checked_add(sec, day_seconds, sec) ||
        !checked_add(sec, d.seconds, sec))
    {
        return std::nullopt;
    }
    std::int64_t ns = 0;
    if (!checked_add(nsec, d.nanoseconds, ns))
    {
        return std::nullopt;
    }
    std::int64_t carry = ns / ns_per_second;
    ns %= ns_per_second;
    if (ns < 0)
    {
        ns += ns_per_second;
        --carry;
    }
    if (!checked_add(sec, carry, sec))
    {
        return std::nullopt;
    }
    return timespec{sec, ns};
}

std::optional<timespec> subtract_clamped(const timespec & t, const duration & d) noexcept
{
    const auto r = add(t, -d);
    if (!r)
    {
        // Only a subtraction far into the past overflows; it lands before the epoch all the same.
        return d.has_date_part() || d.seconds > 0 || d.nanoseconds > 0
                   ? std::optional<timespec>{timespec{0, 0}}
                   : std::nullopt;
    }
    if (r->tv_sec < 0)
    {
        return timespec{0, 0};
    }
    return r;
}

} // namespace zlk::time
