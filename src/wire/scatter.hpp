// A scatter list: the (pointer, size) ranges that make up one encoded message, in order. The ranges
// point into the message's scratch area (its small fields) and into the caller's own memory (bulk
// content, never copied). Nothing here owns the bytes it points at: whoever builds a message keeps the
// scratch area and the bulk buffers alive until the list has been sent or flattened.
//
// Two kinds share one interface, scatter_list:
//  - fixed_scatter<N>: N entries in place; appending an entry beyond N throws std::bad_alloc. For the
//    messages whose shape is known (a frame around one body needs 3, around three buffers 7).
//  - small_scatter<N>: N entries in place, then a heap vector. For messages of any size.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>
#include <vector>

namespace zlk::serialization
{

struct scatter_entry
{
    const std::uint8_t * data;
    std::size_t size;
};

class scatter_list
{
public:
    scatter_list(const scatter_list &) = delete;
    scatter_list & operator=(const scatter_list &) = delete;

    // Adds [data, data + size). A range that begins exactly where the last entry ends extends that
    // entry, so consecutive small fields collapse into one; an empty range adds nothing.
    // Throws std::bad_alloc when a fixed list is full (or the heap is).
    void append(const void * data, std::size_t size)
    {
        if (size == 0)
        {
            return;
        }
        const auto * bytes = static_cast<const std::uint8_t *>(data);
        _total += size;
        if (_count != 0)
        {
            scatter_entry & last = _entries[_count - 1];
            if (last.data + last.size == bytes)
            {
                last.size += size;
                return;
            }
        }
        if (_count == _capacity)
        {
            grow();
        }
        _entries[_count++] = scatter_entry{bytes, size};
    }

    std::size_t size() const noexcept { return _count; }
    bool empty() const noexcept { return _count == 0; }
    // Sum of the sizes of all entries: the encoded length of what was appended.
    std::size_t total_size() const noexcept { return _total; }

    const scatter_entry * begin() const noexcept { return _entries; }
    const scatter_entry * end() const noexcept { return _entries + _count; }
    const scatter_entry & operator[](std::size_t i) const noexcept { return _entries[i]; }
    std::span<const scatter_entry> entries() const noexcept { return {_entries, _count}; }

    // Forgets the entries, keeps the storage (a spilled list stays on the heap for reuse).
    void clear() noexcept
    {
        _count = 0;
        _total = 0;
    }

protected:
    // spill: where the entries go once the in-place ones are exhausted; null for a fixed list.
    scatter_list(scatter_entry * inplace, std::size_t capacity, std::vector<scatter_entry> * spill) noexcept
        : _entries(inplace)
        , _capacity(capacity)
        , _spill(spill)
    {
    }
    ~scatter_list() = default;

private:
    void grow();

    scatter_entry * _entries;
    std::size_t _count = 0;
    std::size_t _capacity;
    std::size_t _total = 0;
    std::vector<scatter_entry> * _spill;
};

namespace detail
{

// The in-place entries, a base of the lists below so that they exist before scatter_list sees them.
template <std::size_t N>
struct scatter_storage
{
    std::array<scatter_entry, N> _storage;
};

struct scatter_spill
{
    std::vector<scatter_entry> _heap;
};

} // namespace detail

template <std::size_t N>
class fixed_scatter final : private detail::scatter_storage<N>, public scatter_list
{
public:
    fixed_scatter() noexcept
        : scatter_list(this->_storage.data(), N, nullptr)
    {
    }
};

template <std::size_t N>
class small_scatter final : private detail::scatter_storage<N>,
                            private detail::scatter_spill,
                            public scatter_list
{
public:
    small_scatter() noexcept
        : scatter_list(this->_storage.data(), N, &this->_heap)
    {
    }
};

// Copies the pieces in order into out, resized to exactly their total.
void flatten_into(const scatter_list & scatter, std::vector<std::uint8_t> & out);

// The same into a new buffer of the exact size, for a payload that must outlive its builder.
std::shared_ptr<std::vector<std::uint8_t>> flatten(const scatter_list & scatter);

} // namespace zlk::serialization
