// A vector of trivially copyable elements for column data, which grows to hundreds of megabytes one
// element at a time. A std::vector copies everything at each growth and touches fresh pages every
// time; here a large buffer is a private mapping that grows in place or is moved by the kernel
// (mremap), so no element is copied and no page is touched twice. (No huge pages: with the kernel's
// usual settings, asking for them makes first touches wait for memory compaction, several times
// slower on a busy machine than small pages.)
//
// The interface is the subset of std::vector the column code uses. Elements past size() are not
// initialised except by resize().
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace zlk::timeseries
{

namespace pod_memory
{

// Raw storage: allocate, grow keeping the first `used` bytes, free. `capacity` in and out is in
// bytes; the functions may round it up. Throw std::bad_alloc.
void * allocate(std::size_t & capacity);
void * grow(void * p, std::size_t old_capacity, std::size_t used, std::size_t & capacity);
void release(void * p, std::size_t capacity) noexcept;
// Faults in the pages of [p, p + size), part of a buffer of `capacity` bytes, with one call into the
// kernel rather than a fault per page: for memory about to be filled. Nothing for a heap buffer.
void populate(void * p, std::size_t size, std::size_t capacity) noexcept;
// Whether a buffer of `capacity` bytes is a mapping (whose pages populate() can fault in).
bool is_mapping(std::size_t capacity) noexcept;

} // namespace pod_memory

template <typename T>
class pod_vector
{
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = T &;
    using const_reference = const T &;
    using pointer = T *;
    using const_pointer = const T *;
    using iterator = T *;
    using const_iterator = const T *;

    pod_vector() noexcept = default;

    explicit pod_vector(std::size_t n) { resize(n); }

    pod_vector(std::size_t n, const T & v) { assign(n, v); }

    pod_vector(std::initializer_list<T> values) { assign(values.begin(), values.end()); }

    template <typename It>
    requires(!std::is_integral_v<It>) pod_vector(It first, It last) { assign(first, last); }

    pod_vector(const pod_vector & other) { assign(other.begin(), other.end()); }

    pod_vector(pod_vector && other) noexcept
        : _data(std::exchange(other._data, nullptr))
        , _size(std::exchange(other._size, 0))
        , _capacity(std::exchange(other._capacity, 0))
        , _ready(std::exchange(other._ready, 0))
    {
    }

    pod_vector & operator=(const pod_vector & other)
    {
        if (this != &other)
        {
            assign(other.begin(), other.end());
        }
        return *this;
    }

    pod_vector & operator=(pod_vector && other) noexcept
    {
        if (this != &other)
        {
            free_storage();
            _data = std::exchange(other._data, nullptr);
            _size = std::exchange(other._size, 0);
            _capacity = std::exchange(other._capacity, 0);
            _ready = std::exchange(other._ready, 0);
        }
        return *this;
    }

    ~pod_vector() { free_storage(); }

    std::size_t size() const noexcept { return _size; }
    std::size_t capacity() const noexcept { return _capacity; }
    bool empty() const noexcept { return _size == 0; }

    T * data() noexcept { return _data; }
    const T * data() const noexcept { return _data; }
    T * begin() noexcept { return _data; }
    T * end() noexcept { return _data + _size; }
    const T * begin() const noexcept { return _data; }
    const T * end() const noexcept { return _data + _size; }
    const T * cbegin() const noexcept { return _data; }
    const T * cend() const noexcept { return _data + _size; }

    T & operator[](std::size_t i) noexcept { return _data[i]; }
    const T & operator[](std::size_t i) const noexcept { return _data[i]; }
    T & front() noexcept { return _data[0]; }
    const T & front() const noexcept { return _data[0]; }
    T & back() noexcept { return _data[_size - 1]; }
    const T & back() const noexcept { return _data[_size - 1]; }

    void reserve(std::size_t n)
    {
        if (n > _capacity)
        {
            reallocate(n);
        }
    }

    void push_back(const T & v)
    {
        if (_size == _ready) [[unlikely]]
        {
            // The argument may live in this vector: copy it before the storage moves.
            const T copy = v;
            make_ready(_size + 1);
            _data[_size++] = copy;
            return;
        }
        _data[_size++] = v;
    }

    template <typename... Args>
    T & emplace_back(Args &&... args)
    {
        push_back(T{std::forward<Args>(args)...});
        return back();
    }

    void pop_back() noexcept { --_size; }

    // n more elements left uninitialised, for the caller to fill at once; returns the first of them.
    T * extend_uninitialized(std::size_t n)
    {
        if (_size + n > _capacity)
        {
            grow_for(_size + n);
        }
        T * at = _data + _size;
        pod_memory::populate(at, n * sizeof(T), _capacity * sizeof(T));
        _size += n;
        _ready = std::max(_ready, _size);
        return at;
    }

    // The same without faulting the new pages in: for a fill split between threads, each of which
    // populates its own part (pod_memory::populate, given capacity_bytes()) as it goes.
    T * extend_unpopulated(std::size_t n)
    {
        if (_size + n > _capacity)
        {
            grow_for(_size + n);
        }
        T * at = _data + _size;
        _size += n;
        _ready = std::max(_ready, _size);
        return at;
    }

    std::size_t capacity_bytes() const noexcept { return _capacity * sizeof(T); }

    void clear() noexcept { _size = 0; }

    // New elements are value-initialised (zero), as with std::vector.
    void resize(std::size_t n)
    {
        reserve(n);
        if (n > _size)
        {
            std::uninitialized_value_construct(_data + _size, _data + n);
        }
        _size = n;
        _ready = std::max(_ready, _size);
    }

    void resize(std::size_t n, const T & v)
    {
        reserve(n);
        if (n > _size)
        {
            std::uninitialized_fill(_data + _size, _data + n, v);
        }
        _size = n;
        _ready = std::max(_ready, _size);
    }

    template <typename It>
    requires(!std::is_integral_v<It>) void assign(It first, It last)
    {
        _size = 0;
        insert(end(), first, last);
    }

    void assign(std::size_t n, const T & v)
    {
        _size = 0;
        resize(n, v);
    }

    template <typename It>
    requires(!std::is_integral_v<It>) T * insert(const T * pos, It first, It last)
    {
        const auto at = static_cast<std::size_t>(pos - _data);
        const auto n = static_cast<std::size_t>(std::distance(first, last));
        if (n == 0)
        {
            return _data + at;
        }
        if constexpr (std::is_pointer_v<It>)
        {
            // A range from inside this vector would move with the storage.
            if (_data && first >= _data && first < _data + _capacity)
            {
                const pod_vector copy(first, last);
                return insert(_data + at, copy.begin(), copy.end());
            }
        }
        if (_size + n > _capacity)
        {
            grow_for(_size + n);
        }
        std::memmove(_data + at + n, _data + at, (_size - at) * sizeof(T));
        std::copy(first, last, _data + at);
        _size += n;
        _ready = std::max(_ready, _size);
        return _data + at;
    }

    T * insert(const T * pos, std::size_t n, const T & v)
    {
        const auto at = static_cast<std::size_t>(pos - _data);
        const T copy = v;
        if (_size + n > _capacity)
        {
            grow_for(_size + n);
        }
        std::memmove(_data + at + n, _data + at, (_size - at) * sizeof(T));
        std::fill(_data + at, _data + at + n, copy);
        _size += n;
        _ready = std::max(_ready, _size);
        return _data + at;
    }

    T * insert(const T * pos, const T & v) { return insert(pos, 1, v); }

    T * erase(const T * first, const T * last) noexcept
    {
        const auto at = static_cast<std::size_t>(first - _data);
        const auto n = static_cast<std::size_t>(last - first);
        std::memmove(_data + at, _data + at + n, (_size - at - n) * sizeof(T));
        _size -= n;
        return _data + at;
    }

    T * erase(const T * pos) noexcept { return erase(pos, pos + 1); }

    void swap(pod_vector & other) noexcept
    {
        std::swap(_data, other._data);
        std::swap(_size, other._size);
        std::swap(_capacity, other._capacity);
        std::swap(_ready, other._ready);
    }

    friend bool operator==(const pod_vector & a, const pod_vector & b) noexcept
    {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

    friend bool operator==(const pod_vector & a, const std::vector<T> & b) noexcept
    {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

private:
    // Growth by half: a buffer stays within 1.5 times what it holds.
    void grow_for(std::size_t needed)
    {
        const std::size_t c = _capacity;
        reallocate(std::max(needed, c < 16 ? std::size_t{16} : c + c / 2));
    }

    // Room for `needed` elements, of which the pages are faulted in a stretch at a time as appends
    // reach them: room reserved ahead (a caller's row count) costs nothing until it is used.
    void make_ready(std::size_t needed)
    {
        if (needed > _capacity)
        {
            grow_for(needed);
        }
        if (needed <= _ready)
        {
            return;
        }
        constexpr std::size_t stretch = (std::size_t{2} << 20) / sizeof(T);
        const std::size_t ready = std::min(_capacity, std::max(needed, _ready + stretch));
        pod_memory::populate(_data + _ready, (ready - _ready) * sizeof(T), _capacity * sizeof(T));
        _ready = ready;
    }

    void reallocate(std::size_t n)
    {
        if (n > max_size())
        {
            throw std::bad_alloc();
        }
        std::size_t bytes = n * sizeof(T);
        void * p = _data ? pod_memory::grow(_data, _capacity * sizeof(T), _size * sizeof(T), bytes)
                         : pod_memory::allocate(bytes);
        _data = static_cast<T *>(p);
        _capacity = bytes / sizeof(T);
        // A heap buffer needs no faulting in; a mapping's pages are ready as far as they were.
        _ready = pod_memory::is_mapping(bytes) ? std::min(std::max(_ready, _size), _capacity) : _capacity;
    }

    static constexpr std::size_t max_size() noexcept { return (std::size_t{1} << 62) / sizeof(T); }

    void free_storage() noexcept
    {
        if (_data)
        {
            pod_memory::release(_data, _capacity * sizeof(T));
        }
        _data = nullptr;
        _size = 0;
        _capacity = 0;
        _ready = 0;
    }

    T * _data = nullptr;
    std::size_t _size = 0;
    std::size_t _capacity = 0;
    // Elements whose pages are known to be in: appends up to here take the short path.
    std::size_t _ready = 0;
};

} // namespace zlk::timeseries
