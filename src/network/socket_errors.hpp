// Error helpers of the network layer: errno values in the boost categories, the socket library's
// end-of-file, and error texts for log lines.
#pragma once

#include <boost/system/error_code.hpp>
#include <fmt/format.h>

#include "wire/category_table.hpp"

namespace zlk::network
{

inline boost::system::error_code system_error(int value) noexcept
{
    return {value, boost::system::system_category()};
}

inline boost::system::error_code generic_error(int value) noexcept
{
    return {value, boost::system::generic_category()};
}

// The peer closed the connection: the socket library's end-of-file (misc category, value 2).
inline boost::system::error_code end_of_file() noexcept
{
    return {2, misc_category()};
}

// An error's message for a log line, made into a fixed buffer: formatting it doesn't allocate.
struct error_text
{
    explicit error_text(const boost::system::error_code & ec) noexcept
        : text(ec.message(buffer, sizeof buffer))
    {
    }

    char buffer[160];
    const char * text;
};

} // namespace zlk::network

template <>
struct fmt::formatter<zlk::network::error_text> : fmt::formatter<fmt::string_view>
{
    template <typename FormatContext>
    auto format(const zlk::network::error_text & e, FormatContext & ctx) const -> decltype(ctx.out())
    {
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(e.text), ctx);
    }
};
