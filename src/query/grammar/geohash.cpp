#include "query/grammar/geohash.hpp"

#include <cmath>

namespace zlk::query
{

namespace
{

std::uint64_t quantise(double v, double lo, double hi) noexcept
{
    const double unit = (v - lo) / (hi - lo);
    const double scaled = std::floor(unit * 4294967296.0);
    return scaled >= 4294967295.0 ? 0xFFFFFFFFull : static_cast<std::uint64_t>(scaled);
}

std::uint64_t spread_bits(std::uint64_t x) noexcept
{
    x &= 0xFFFFFFFFull;
    x = (x | (x << 16)) & 0x0000FFFF0000FFFFull;
    x = (x | (x << 8)) & 0x00FF00FF00FF00FFull;
    x = (x | (x << 4)) & 0x0F0F0F0F0F0F0F0Full;
    x = (x | (x << 2)) & 0x3333333333333333ull;
    x = (x | (x << 1)) & 0x5555555555555555ull;
    return x;
}

} // namespace

std::optional<std::int64_t> geohash64(double latitude, double longitude) noexcept
{
    if (!(latitude >= -90.0 && latitude <= 90.0 && longitude >= -180.0 && longitude <= 180.0))
    {
        return std::nullopt;
    }
    const std::uint64_t lat = spread_bits(quantise(latitude, -90.0, 90.0));
    const std::uint64_t lon = spread_bits(quantise(longitude, -180.0, 180.0));
    return static_cast<std::int64_t>((lon << 1) | lat);
}

} // namespace zlk::query
