// The bytes of one received message. Held through a std::shared_ptr: every view of a reply (a blob's
// content handed to the caller, a column decoded in place) keeps the same buffer alive, so content
// reaches the caller without a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <span>

namespace zlk
{

// Allocation failure raises std::bad_alloc, which the call frame reports as zlk_e_no_memory_local.
struct throwing_allocation_policy
{
    static void * allocate(std::size_t size)
    {
        // malloc(0) may return null; a zero-sized buffer still gets a distinct address.
        void * p = std::malloc(size != 0 ? size : 1);
        if (!p)
        {
            throw std::bad_alloc{};
        }
        return p;
    }

    static void deallocate(void * p) noexcept { std::free(p); }
};

template <typename AllocationPolicy>
class buffer
{
public:
    // Uninitialised bytes, to be filled by the reader. One allocation holds the shared pointer's
    // control block, this object and the bytes: a small reply costs one allocation, not three.
    static std::shared_ptr<buffer> make(std::size_t size)
    {
        std::uint8_t * tail = nullptr;
        auto made = std::allocate_shared<buffer>(tail_allocator<buffer>{size, &tail}, private_tag{}, size);
        made->_bytes = tail;
        return made;
    }

    std::size_t size() const noexcept { return _size; }
    std::uint8_t * data() noexcept { return _bytes; }
    const std::uint8_t * data() const noexcept { return _bytes; }
    std::span<std::uint8_t> bytes() noexcept { return {_bytes, _size}; }
    std::span<const std::uint8_t> bytes() const noexcept { return {_bytes, _size}; }

    struct private_tag
    {
    };

    buffer(private_tag, std::size_t size) noexcept
        : _size(size)
    {
    }

    buffer(const buffer &) = delete;
    buffer & operator=(const buffer &) = delete;

private:
    // Allocates the control block with `tail` bytes behind it, and says where they begin.
    template <typename T>
    struct tail_allocator
    {
        using value_type = T;

        std::size_t tail;
        std::uint8_t ** tail_out;

        template <typename U>
        tail_allocator(const tail_allocator<U> & other) noexcept
            : tail(other.tail)
            , tail_out(other.tail_out)
        {
        }

        tail_allocator(std::size_t t, std::uint8_t ** out) noexcept
            : tail(t)
            , tail_out(out)
        {
        }

        T * allocate(std::size_t n)
        {
            const std::size_t head = n * sizeof(T);
            if (tail > std::numeric_limits<std::size_t>::max() - head)
            {
                throw std::bad_alloc{};
            }
            auto * block = static_cast<std::uint8_t *>(AllocationPolicy::allocate(head + tail));
            *tail_out = block + head;
            return reinterpret_cast<T *>(block);
        }

        void deallocate(T * p, std::size_t) noexcept { AllocationPolicy::deallocate(p); }

        template <typename U>
        bool operator==(const tail_allocator<U> & other) const noexcept
        {
            return tail == other.tail;
        }
    };

    std::uint8_t * _bytes = nullptr;
    std::size_t _size;
};

using received_buffer = buffer<throwing_allocation_policy>;

} // namespace zlk
