// The type of a time series column as the wire carries it, and what a node keeps for each.
#pragma once

#include <cstdint>
#include <optional>

namespace zlk::kernel
{

enum class column_type : std::uint8_t
{
    double_ = 0,
    blob = 1,
    int64 = 2,
    timestamp = 3,
    string = 4,
};

inline constexpr std::uint8_t column_type_count = 5;

// The column type of an interface value: only the low byte is read; 5 and above are refused.
constexpr std::optional<column_type> column_type_of(std::uint32_t interface_value) noexcept
{
    const std::uint8_t low = static_cast<std::uint8_t>(interface_value & 0xFF);
    if (low >= column_type_count)
    {
        return std::nullopt;
    }
    return static_cast<column_type>(low);
}

// Blob and string columns hold byte strings; the others fixed-size values.
constexpr bool holds_bytes(column_type t) noexcept
{
    return t == column_type::blob || t == column_type::string;
}

} // namespace zlk::kernel
