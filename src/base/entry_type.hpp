// The node's 8-bit type of an entry, and the narrower public type callers see.
#pragma once

#include <cstdint>
#include <string_view>

namespace zlk::kernel
{

enum class entry_type : std::uint8_t
{
    blob = 0,
    integer = 1,
    hset = 2,
    deque = 4,
    tag = 5,
    tag_link = 7,
    stream = 8,
    stream_data = 9,
    table_column = 17,
    table = 18,
};

// The first two bytes of every alias the system keeps for itself (tag links, time-series buckets);
// callers may not create such aliases.
inline constexpr std::string_view reserved_alias_mark{"\xC0\x80", 2};

// Tag links, which both sides list by affix: the reserved mark, then "tag.{tag}.{alias}.tag".
inline constexpr std::string_view tag_link_mark = reserved_alias_mark;
inline constexpr std::string_view tag_link_tail = ".tag";

// The expected type of a removal that accepts any type.
inline constexpr std::uint8_t any_entry_type = 0xFF;

// The public zlk_entry_type_t of a kernel type; -1 for a type callers aren't told about.
constexpr std::int32_t public_entry_type(std::uint8_t kernel_type) noexcept
{
    switch (kernel_type)
    {
    case 0:
        return 0;
    case 1:
        return 1;
    case 2:
    case 4:
        return 2;
    case 5:
    case 7:
        return 3;
    case 8:
    case 9:
        return 4;
    case 17:
        return 5;
    case 18:
        return 6;
    default:
        return -1;
    }
}

} // namespace zlk::kernel
