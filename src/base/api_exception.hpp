// The exception that argument checks and request bodies throw inside the call frame. The frame turns it
// into the function's result and the handle's last-error text; it never crosses the exported boundary.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "zlk/error.h"

namespace zlk
{

class api_exception : public std::exception
{
public:
    // Every failure surfaced this way is an error from the caller's point of view.
    static constexpr std::uint32_t default_log_level = 4;

    template <typename... Args>
    api_exception(zlk_error_t code, fmt::format_string<Args...> format, Args &&... args)
        : _message(fmt::format(format, std::forward<Args>(args)...))
        , _code(code)
    {
    }

    const char * what() const noexcept override { return _message.c_str(); }
    zlk_error_t code() const noexcept { return _code; }
    std::uint32_t log_level() const noexcept { return _log_level; }

private:
    std::string _message;
    zlk_error_t _code;
    std::uint32_t _log_level = default_log_level;
};

} // namespace zlk
