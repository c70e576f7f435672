// The frame every exported function runs inside. It tests the handle, notes the function on the
// thread's call trace, runs the body in one try block, turns whatever it throws into a zlk_error_t, and
// writes the handle's last-error record, success included. No exception leaves it.
//
//     zlk_error_t zlk_blob_put(zlk_handle_t h, ...) noexcept
//     {
//         return zlk::api::api_call(h, "zlk_blob_put", [&]() -> zlk_error_t { ... });
//     }
//
// A body returns its zlk_error_t (or nothing, for success), or throws a bare zlk_error_t,
// zlk::api_exception, std::bad_alloc, boost::system::system_error or anything else.
//
// The steady state doesn't allocate: the trace array and the last-error text keep their capacity.
#pragma once

#include <exception>
#include <string_view>
#include <type_traits>

#include "api/call_trace.hpp"
#include "api/handle.hpp"
#include "log/logger.hpp"
#include "zlk/error.h"

namespace zlk::api
{

namespace detail
{

// Pushes the function's name on entry; on the way out flushes a synchronous log and pops the name.
class frame_guard
{
public:
    explicit frame_guard(std::string_view name) noexcept
        : _trace(this_thread_trace())
    {
        try
        {
            _trace.push(name);
            _pushed = true;
        }
        catch (...)
        {
            // Out of memory for the trace: the call still runs, only its name is missing from the text.
        }
    }

    ~frame_guard()
    {
        if (log::is_sync())
        {
            log::flush();
        }
        if (_pushed)
        {
            _trace.pop();
        }
    }

    frame_guard(const frame_guard &) = delete;
    frame_guard & operator=(const frame_guard &) = delete;

private:
    call_trace & _trace;
    bool _pushed = false;
};

// Called from inside a catch (...): maps the exception in flight to its code and, when there is a
// handle, writes the last error with the exception's text.
zlk_error_t handle_current_exception(zlk_session * h) noexcept;

template <typename Body>
zlk_error_t run_body(Body & body)
{
    if constexpr (std::is_void_v<std::invoke_result_t<Body &>>)
    {
        body();
        return zlk_e_ok;
    }
    else
    {
        return body();
    }
}

} // namespace detail

// The frame of an exported function that takes a handle. `name` is a string literal: the record of a
// plain result keeps its address.
template <typename Body>
zlk_error_t api_call(zlk_session * h, std::string_view name, Body && body) noexcept
{
    // A bad handle leaves no trace at all: no name pushed, no last error, no log line.
    if (!is_valid_handle(h))
    {
        return zlk_e_invalid_handle;
    }
    detail::frame_guard guard{name};
    try
    {
        const zlk_error_t result = detail::run_body(body);
        record_result(*h, result);
        return result;
    }
    catch (...)
    {
        return detail::handle_current_exception(h);
    }
}

// The frame of an exported function without a handle: the same, less the handle test and the record.
template <typename Body>
zlk_error_t api_call_no_handle(std::string_view name, Body && body) noexcept
{
    detail::frame_guard guard{name};
    try
    {
        return detail::run_body(body);
    }
    catch (...)
    {
        return detail::handle_current_exception(nullptr);
    }
}

} // namespace zlk::api
