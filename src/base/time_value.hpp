// A point in time as the wire carries it: signed seconds and nanoseconds since the epoch, both full
// 64-bit words. Nothing normalises them: -1 nanoseconds ("keep the expiry") travels as it stands.
#pragma once

#include <cstdint>

#include "zlk/types.h"

namespace zlk
{

struct timespec
{
    std::int64_t tv_sec = 0;
    std::int64_t tv_nsec = 0;

    timespec() = default;
    constexpr timespec(std::int64_t sec, std::int64_t nsec) noexcept
        : tv_sec(sec)
        , tv_nsec(nsec)
    {
    }
    constexpr explicit timespec(const zlk_timespec_t & t) noexcept
        : tv_sec(t.tv_sec)
        , tv_nsec(t.tv_nsec)
    {
    }

    constexpr zlk_timespec_t to_c() const noexcept { return zlk_timespec_t{tv_sec, tv_nsec}; }

    friend constexpr bool operator==(const timespec &, const timespec &) noexcept = default;
};

} // namespace zlk
