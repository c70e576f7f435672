// The one translation of an internal error into the status of the interface.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>

#include "zlk/error.h"

namespace zlk
{

// For a failure on this machine.
inline constexpr std::uint32_t local_origin = 0xE0000000u;
// For a failure a node reported; any value other than local_origin behaves as remote.
inline constexpr std::uint32_t remote_origin = 0xF0000000u;

// Never throws. May set errno (system and generic categories, persistence I/O errors) and may log
// (a delayed network error reported by a node).
zlk_error_t make_error_from_code(int value, const boost::system::error_category & category,
                                 std::uint32_t origin) noexcept;

inline zlk_error_t make_error_from_code(const boost::system::error_code & ec, std::uint32_t origin) noexcept
{
    return make_error_from_code(ec.value(), ec.category(), origin);
}

} // namespace zlk
