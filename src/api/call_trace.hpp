// The thread's call trace: the names of the exported functions the thread is inside, outermost first.
// The last-error text is prefixed with them ("at zlk_a.zlk_b: ...").
//
// One trace per thread. It is constant-initialised with room for a few names in place, so reaching it
// costs no initialisation check and a call in the steady state doesn't allocate; a deeper trace grows
// on the heap and keeps that capacity until the thread exits.
#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <span>
#include <string_view>

namespace zlk::api
{

struct trace_heap;

class call_trace
{
public:
    constexpr call_trace() noexcept = default;

    // Cuts the array back (or grows it) to depth, then appends the name. Throws std::bad_alloc when a
    // deeper trace can't grow.
    void push(std::string_view name)
    {
        if (_size > _depth)
        {
            _size = _depth;
        }
        else if (_size < _depth)
        {
            fit_to_depth();
        }
        if (_size == _capacity)
        {
            grow();
        }
        names_data()[_size++] = name;
        ++_depth;
    }

    // Leaving a frame. The names of frames left while an exception was in flight stay, so that the
    // text of the error that ends the unwinding names them. Whether one is in flight is asked only
    // when an outer frame goes on: at depth 0 the next push cuts the array anyway, and the question
    // costs a call into the runtime on every exported call.
    void pop() noexcept
    {
        --_depth;
        if (_depth != 0 && std::uncaught_exceptions() == 0)
        {
            _size = _depth;
        }
    }

    // How many names belong to frames still running. After an exception escaped a frame the array may
    // hold more names than this; the next push cuts it back.
    std::size_t depth() const noexcept { return _depth; }

    std::span<const std::string_view> names() const noexcept { return {names_data(), _size}; }

private:
    static constexpr std::size_t in_place = 8;

    std::string_view * names_data() noexcept { return _heap ? _heap : _in_place; }
    const std::string_view * names_data() const noexcept { return _heap ? _heap : _in_place; }

    void fit_to_depth(); // grows the array to depth with empty names
    void grow();
    // At thread exit, when the heap array is freed: back to the names in place.
    void drop_heap() noexcept;
    friend struct trace_heap;

    std::string_view _in_place[in_place]{};
    // Owned by a thread-local holder (see call_trace.cpp), which frees it at thread exit.
    std::string_view * _heap = nullptr;
    std::size_t _size = 0;
    std::size_t _capacity = in_place;
    std::size_t _depth = 0;
};

namespace detail
{
// Initial-exec: the trace is reached on every exported call, and in the shared library the general
// model would make that a call into the dynamic loader. The few bytes come from the static TLS block,
// which also has room for a library opened with dlopen.
inline thread_local constinit call_trace thread_trace __attribute__((tls_model("initial-exec")));
} // namespace detail

inline call_trace & this_thread_trace() noexcept
{
    return detail::thread_trace;
}

} // namespace zlk::api
