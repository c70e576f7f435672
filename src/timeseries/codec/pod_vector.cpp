#include "timeseries/codec/pod_vector.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zlk::timeseries::pod_memory
{

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers watch the heap, not private mappings: under them everything stays on the heap.
constexpr bool use_mappings = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool use_mappings = false;
#else
constexpr bool use_mappings = true;
#endif
#else
constexpr bool use_mappings = true;
#endif

// From this size on a buffer is a mapping of its own; below it, the heap.
constexpr std::size_t mapping_threshold = std::size_t{1} << 20;
constexpr std::size_t page = 4096;

std::size_t mapping_size(std::size_t bytes) noexcept
{
    return (bytes + page - 1) & ~(page - 1);
}

void * map(std::size_t & capacity)
{
    const std::size_t size = mapping_size(capacity);
    void * p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
    {
        throw std::bad_alloc();
    }
    capacity = size;
    return p;
}

} // namespace

bool is_mapping(std::size_t capacity) noexcept
{
    return use_mappings && capacity >= mapping_threshold;
}

void * allocate(std::size_t & capacity)
{
    if (is_mapping(capacity))
    {
        return map(capacity);
    }
    void * p = std::malloc(capacity == 0 ? 1 : capacity);
    if (!p)
    {
        throw std::bad_alloc();
    }
    return p;
}

void * grow(void * p, std::size_t old_capacity, std::size_t used, std::size_t & capacity)
{
    if (!is_mapping(capacity))
    {
        void * q = std::realloc(p, capacity == 0 ? 1 : capacity);
        if (!q)
        {
            throw std::bad_alloc();
        }
        return q;
    }
    if (!is_mapping(old_capacity))
    {
        void * q = map(capacity);
        std::memcpy(q, p, used);
        std::free(p);
        return q;
    }
    const std::size_t size = mapping_size(capacity);
    void * q = ::mremap(p, old_capacity, size, MREMAP_MAYMOVE);
    if (q == MAP_FAILED)
    {
        throw std::bad_alloc();
    }
    capacity = size;
    return q;
}

void populate(void * p, std::size_t size, std::size_t capacity) noexcept
{
    if (!is_mapping(capacity))
    {
        return;
    }
#ifdef MADV_POPULATE_WRITE
    constexpr int populate_write = MADV_POPULATE_WRITE;
#else
    constexpr int populate_write = 23;
#endif
    // Whole pages only: the first and last may hold bytes in use.
    const auto begin = (reinterpret_cast<std::uintptr_t>(p) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<std::uintptr_t>(p) + size) & ~(page - 1);
    if (end > begin)
    {
        // Only a hint: a kernel without it leaves the pages to fault one by one.
        (void)::madvise(reinterpret_cast<void *>(begin), end - begin, populate_write);
    }
}

void release(void * p, std::size_t capacity) noexcept
{
    if (is_mapping(capacity))
    {
        (void)::munmap(p, capacity);
        return;
    }
    std::free(p);
}

} // namespace zlk::timeseries::pod_memory
