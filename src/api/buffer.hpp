// The bytes of one received message. Held through a std::shared_ptr: every view of a reply (a blob's
// content handed to the caller, a column decoded in place) keeps the same buffer alive, so content
// reaches the caller without a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
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
    // Uninitialised bytes, to be filled by the reader.
    static std::shared_ptr<buffer> make(std::size_t size)
    {
        std::unique_ptr<std::uint8_t, deallocator> bytes{
            static_cast<std::uint8_t *>(AllocationPolicy::allocate(size))};
        return std::shared_ptr<buffer>(new buffer(std::move(bytes), size));
    }

    std::size_t size() const noexcept { return _size; }
    std::uint8_t * data() noexcept { return _bytes.get(); }
    const std::uint8_t * data() const noexcept { return _bytes.get(); }
    std::span<std::uint8_t> bytes() noexcept { return {_bytes.get(), _size}; }
    std::span<const std::uint8_t> bytes() const noexcept { return {_bytes.get(), _size}; }

private:
    struct deallocator
    {
        void operator()(std::uint8_t * p) const noexcept { AllocationPolicy::deallocate(p); }
    };

    buffer(std::unique_ptr<std::uint8_t, deallocator> bytes, std::size_t size) noexcept
        : _bytes(std::move(bytes))
        , _size(size)
    {
    }

    std::unique_ptr<std::uint8_t, deallocator> _bytes;
    std::size_t _size;
};

using received_buffer = buffer<throwing_allocation_policy>;

} // namespace zlk
