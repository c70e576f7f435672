// A byte count for a log line, in binary units: "512 B", "1.5 KiB", "256 MiB".
//
// The count is divided by 1024 while it is at least 1024 (up to EiB). Whole numbers print without a
// fraction; others print with one decimal, rounded to nearest (1536 is "1.5 KiB", 1025 is "1.0 KiB").
#pragma once

#include <fmt/format.h>

#include <cstdint>

namespace zlk::network
{

struct binary_size
{
    std::uint64_t bytes;
};

} // namespace zlk::network

template <>
struct fmt::formatter<zlk::network::binary_size>
{
    constexpr auto parse(fmt::format_parse_context & ctx) -> decltype(ctx.begin()) { return ctx.begin(); }

    template <typename FormatContext>
    auto format(const zlk::network::binary_size & size, FormatContext & ctx) const -> decltype(ctx.out())
    {
        static constexpr const char * units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
        std::uint64_t whole = size.bytes;
        std::uint64_t divisor = 1;
        std::size_t unit = 0;
        while (whole >= 1024 && unit + 1 < std::size(units))
        {
            divisor *= 1024;
            whole /= 1024;
            ++unit;
        }
        const std::uint64_t rest = size.bytes - whole * divisor;
        if (unit == 0 || rest == 0)
        {
            return fmt::format_to(ctx.out(), "{} {}", whole, units[unit]);
        }
        // One decimal of rest / divisor, rounded to nearest; a carry into the whole part is kept.
        std::uint64_t tenths =
            static_cast<std::uint64_t>((static_cast<long double>(rest) * 10 / divisor) + 0.5L);
        if (tenths >= 10)
        {
            whole += 1;
            tenths -= 10;
        }
        return fmt::format_to(ctx.out(), "{}.{} {}", whole, tenths, units[unit]);
    }
};
