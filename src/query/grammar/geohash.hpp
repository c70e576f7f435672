// GEOHASH64(latitude, longitude): the two coordinates quantised to 32 bits each and interleaved,
// longitude first, so that nearby places share leading bits.
#pragma once

#include <cstdint>
#include <optional>

namespace zlk::query
{

// Empty outside [-90, 90] x [-180, 180].
std::optional<std::int64_t> geohash64(double latitude, double longitude) noexcept;

} // namespace zlk::query
