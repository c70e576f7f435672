// The thread's call trace: the names of the exported functions the thread is inside, outermost first.
// The last-error text is prefixed with them ("at zlk_a.zlk_b: ...").
//
// One trace per thread, made on first use and destroyed at thread exit. The array keeps its capacity,
// so a call in the steady state doesn't allocate.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace zlk::api
{

struct call_trace
{
    std::vector<std::string_view> names;
    // How many names belong to frames still running. After an exception escaped a frame the array may
    // hold more names than this; the next push cuts it back.
    std::size_t depth = 0;

    void push(std::string_view name)
    {
        names.resize(depth);
        names.push_back(name);
        ++depth;
    }

    void pop(bool unwinding) noexcept
    {
        --depth;
        if (!unwinding)
        {
            names.resize(depth);
        }
    }
};

call_trace & this_thread_trace() noexcept;

} // namespace zlk::api
