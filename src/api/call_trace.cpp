#include "api/call_trace.hpp"

#include <algorithm>

namespace zlk::api
{

// Owns a trace's heap array; its destructor runs at thread exit.
struct trace_heap
{
    std::unique_ptr<std::string_view[]> names;

    ~trace_heap() { detail::thread_trace.drop_heap(); }
};

namespace
{
thread_local trace_heap heap;
}

void call_trace::fit_to_depth()
{
    // Shorter than depth: a push failed for want of memory. Grown with empty names.
    while (_capacity < _depth)
    {
        grow();
    }
    std::fill(names_data() + _size, names_data() + _depth, std::string_view{});
    _size = _depth;
}

void call_trace::grow()
{
    const std::size_t capacity = _capacity * 2;
    auto bigger = std::make_unique<std::string_view[]>(capacity);
    std::copy(names_data(), names_data() + _size, bigger.get());
    heap.names = std::move(bigger);
    _heap = heap.names.get();
    _capacity = capacity;
}

void call_trace::drop_heap() noexcept
{
    if (!_heap)
    {
        return;
    }
    _size = std::min(_size, in_place);
    std::copy(_heap, _heap + _size, _in_place);
    _heap = nullptr;
    _capacity = in_place;
}

} // namespace zlk::api
