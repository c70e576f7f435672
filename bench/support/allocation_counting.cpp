#include "allocation_counting.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<std::uint64_t> process_count{0};
thread_local std::uint64_t thread_count = 0;

// Out of line, so that the compiler doesn't pair an inlined free() with a new-expression and warn.
[[gnu::noinline]] void release_memory(void * p) noexcept
{
    std::free(p);
}

} // namespace

void * operator new(std::size_t size)
{
    process_count.fetch_add(1, std::memory_order_relaxed);
    ++thread_count;
    if (void * p = std::malloc(size != 0 ? size : 1))
    {
        return p;
    }
    throw std::bad_alloc{};
}

void operator delete(void * p) noexcept
{
    release_memory(p);
}

void operator delete(void * p, std::size_t) noexcept
{
    release_memory(p);
}

namespace zlk::bench
{

std::uint64_t allocations() noexcept
{
    return process_count.load(std::memory_order_relaxed);
}

std::uint64_t thread_allocations() noexcept
{
    return thread_count;
}

allocation_counter::allocation_counter(benchmark::State & state, scope s, const char * name)
    : _state(state)
    , _scope(s)
    , _name(name)
    , _start(count())
{
}

allocation_counter::~allocation_counter()
{
    stop();
}

void allocation_counter::stop() noexcept
{
    if (_stopped || (_scope == scope::process && _state.thread_index() != 0))
    {
        _stopped = true;
        return;
    }
    _stopped = true;
    _state.counters[_name] =
        benchmark::Counter(static_cast<double>(count() - _start), benchmark::Counter::kAvgIterations);
}

std::uint64_t allocation_counter::count() const noexcept
{
    return _scope == scope::process ? allocations() : thread_allocations();
}

} // namespace zlk::bench
