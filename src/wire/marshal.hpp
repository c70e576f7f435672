// Marshalling: how values are laid on the wire and read back.
//
// Writing. A message is built in three steps that must agree:
//   1. compute an upper bound of the scratch bytes its small fields need (every fixed field, every
//      varint at 10 bytes; bulk data is not counted): the *_bound constants below add up to it;
//   2. provide a scratch area of that size and a scatter list (wire/scatter.hpp);
//   3. write each field through a writer. Small fields land in the scratch area, bulk buffers are
//      appended to the scatter list by reference and never copied.
// A writer fails only by running out of room, and then throws std::bad_alloc: a full fixed scatter
// list, or a scratch area smaller than the bound the builder promised.
//
// Reading. A cursor (pointer, remaining bytes) advances over one received span. Every read returns an
// error_code in the serialization category and stops at the first failure; a primitive that fails
// leaves the cursor where it was. Byte buffers read into views of the received span unless the
// destination owns its bytes (std::string, std::vector): a view lives as long as the received buffer.
//
// The writer's put_* functions and the primitive reads don't allocate.
#pragma once

#include <boost/system/error_code.hpp>

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "base/error_categories.hpp"
#include "base/ring_id.hpp"
#include "base/time_value.hpp"
#include "base/uuid.hpp"
#include "wire/scatter.hpp"
#include "zlk/types.h"

namespace zlk::serialization
{

using error_code = boost::system::error_code;

// Scratch bytes a field can take at most.
inline constexpr std::size_t varint_bound = 10;
inline constexpr std::size_t varint32_bound = 5;
inline constexpr std::size_t ring_id_size = 32;
inline constexpr std::size_t timespec_bound = 2 * varint_bound;
inline constexpr std::size_t time_range_bound = 4 * varint_bound;
inline constexpr std::size_t uuid_bound = 2 * varint_bound + ring_id_size + varint32_bound;
inline constexpr std::size_t error_code_bound = varint32_bound + 1;
// A byte buffer's own scratch: its length. The bytes themselves are bulk.
inline constexpr std::size_t bytes_bound = varint_bound;
inline constexpr std::size_t short_string_bound = 2;

// The all-zero stamp is 2 + 32 + 1 bytes.
inline constexpr std::size_t none_uuid_size = 35;

constexpr std::size_t varint_size(std::uint64_t v) noexcept
{
    return (static_cast<std::size_t>(std::bit_width(v | 1)) + 6) / 7;
}

namespace detail
{

// A little-endian host copies the value as it stands; any other assembles it byte by byte.
template <std::unsigned_integral T>
inline void store_le(std::uint8_t * at, T v) noexcept
{
    if constexpr (std::endian::native == std::endian::little)
    {
        std::memcpy(at, &v, sizeof(T));
    }
    else
    {
        for (std::size_t i = 0; i < sizeof(T); ++i)
        {
            at[i] = static_cast<std::uint8_t>(v >> (8 * i));
        }
    }
}

template <std::unsigned_integral T>
inline T load_le(const std::uint8_t * at) noexcept
{
    T v = 0;
    if constexpr (std::endian::native == std::endian::little)
    {
        std::memcpy(&v, at, sizeof(T));
    }
    else
    {
        for (std::size_t i = 0; i < sizeof(T); ++i)
        {
            v |= static_cast<T>(static_cast<T>(at[i]) << (8 * i));
        }
    }
    return v;
}

} // namespace detail

class writer
{
public:
    // REQUIRES: scratch stays in place and alive as long as the scatter list is used.
    writer(scatter_list & scatter, std::span<std::uint8_t> scratch) noexcept
        : _scatter(scatter)
        , _cursor(scratch.data())
        , _end(scratch.data() + scratch.size())
    {
    }

    void put_u8(std::uint8_t v)
    {
        std::uint8_t * at = claim(1);
        at[0] = v;
        _scatter.append(at, 1);
    }
    void put_bool(bool v) { put_u8(v ? 1 : 0); }
    // The enum's numeric value; no range check.
    template <typename E>
    requires std::is_enum_v<E>
    void put_enum(E v) { put_u8(static_cast<std::uint8_t>(v)); }
    void put_u16(std::uint16_t v) { put_fixed(v); }
    void put_u32(std::uint32_t v) { put_fixed(v); }
    void put_u64(std::uint64_t v) { put_fixed(v); }
    void put_i64(std::int64_t v) { put_fixed(static_cast<std::uint64_t>(v)); }
    void put_double(double v) { put_fixed(std::bit_cast<std::uint64_t>(v)); }
    // Consecutive u64 words in one scratch claim (a 256-bit id is four of them).
    void put_u64s(std::span<const std::uint64_t> words)
    {
        const std::size_t n = words.size() * sizeof(std::uint64_t);
        std::uint8_t * at = claim(n);
        if constexpr (std::endian::native == std::endian::little)
        {
            std::memcpy(at, words.data(), n);
        }
        else
        {
            for (std::size_t i = 0; i < words.size(); ++i)
            {
                detail::store_le(at + i * sizeof(std::uint64_t), words[i]);
            }
        }
        _scatter.append(at, n);
    }

    // LEB128. A negative number goes as its two's complement: pass it cast to std::uint64_t.
    void put_varint(std::uint64_t v)
    {
        const std::size_t n = varint_size(v);
        std::uint8_t * at = claim(n);
        for (std::size_t i = 0; i + 1 < n; ++i)
        {
            at[i] = static_cast<std::uint8_t>(v | 0x80);
            v >>= 7;
        }
        at[n - 1] = static_cast<std::uint8_t>(v);
        _scatter.append(at, n);
    }
    void put_varint32(std::uint32_t v) { put_varint(v); }

    // Varint length, then the caller's bytes by reference.
    void put_bytes(const void * data, std::size_t size)
    {
        put_varint(size);
        _scatter.append(data, size);
    }
    void put_bytes(std::span<const std::uint8_t> bytes) { put_bytes(bytes.data(), bytes.size()); }
    void put_string(std::string_view s) { put_bytes(s.data(), s.size()); }

    // u16 length taken modulo 256, then that many bytes: a longer string is cut on purpose.
    void put_short_string(std::string_view s)
    {
        const std::size_t n = s.size() & 0xFF;
        put_u16(static_cast<std::uint16_t>(n));
        _scatter.append(s.data(), n);
    }

    // Bytes by reference, with no length in front.
    void put_raw(const void * data, std::size_t size) { _scatter.append(data, size); }
    // Bytes copied into the scratch area, for data that won't outlive the builder.
    void put_copy(const void * data, std::size_t size)
    {
        if (size == 0)
        {
            return;
        }
        std::uint8_t * at = claim(size);
        std::memcpy(at, data, size);
        _scatter.append(at, size);
    }
    // n zero bytes in the scratch area, whose address is returned to be patched later.
    std::uint8_t * put_placeholder(std::size_t n)
    {
        std::uint8_t * at = claim(n);
        std::memset(at, 0, n);
        _scatter.append(at, n);
        return at;
    }

    scatter_list & scatter() noexcept { return _scatter; }
    // Bytes of message written so far through the list (from every writer on it).
    std::size_t written() const noexcept { return _scatter.total_size(); }
    std::size_t scratch_left() const noexcept { return static_cast<std::size_t>(_end - _cursor); }

private:
    std::uint8_t * claim(std::size_t n)
    {
        if (static_cast<std::size_t>(_end - _cursor) < n)
        {
            throw std::bad_alloc();
        }
        std::uint8_t * at = _cursor;
        _cursor += n;
        return at;
    }

    template <std::unsigned_integral T>
    void put_fixed(T v)
    {
        std::uint8_t * at = claim(sizeof(T));
        detail::store_le(at, v);
        _scatter.append(at, sizeof(T));
    }

    scatter_list & _scatter;
    std::uint8_t * _cursor;
    std::uint8_t * _end;
};

struct cursor
{
    const std::uint8_t * data = nullptr;
    std::size_t remaining = 0;

    cursor() = default;
    cursor(const void * bytes, std::size_t size) noexcept
        : data(static_cast<const std::uint8_t *>(bytes))
        , remaining(size)
    {
    }
    explicit cursor(std::span<const std::uint8_t> bytes) noexcept
        : data(bytes.data())
        , remaining(bytes.size())
    {
    }

    void skip(std::size_t n) noexcept
    {
        data += n;
        remaining -= n;
    }
};

inline error_code end_of_input() noexcept
{
    return make_error_code(error::unexpected_end);
}
inline error_code unexpected_byte() noexcept
{
    return make_error_code(error::unexpected_byte);
}
inline error_code inconsistent_result() noexcept
{
    return make_error_code(error::inconsistent_result);
}

namespace detail
{

template <std::unsigned_integral T>
inline error_code read_fixed(cursor & c, T & out) noexcept
{
    if (c.remaining < sizeof(T))
    {
        return end_of_input();
    }
    out = load_le<T>(c.data);
    c.skip(sizeof(T));
    return {};
}

} // namespace detail

inline error_code read_u8(cursor & c, std::uint8_t & out) noexcept
{
    return detail::read_fixed(c, out);
}
inline error_code read_bool(cursor & c, bool & out) noexcept
{
    std::uint8_t v = 0;
    error_code ec = read_u8(c, v);
    out = v != 0;
    return ec;
}
// The raw value; checking it against the enum's range is the caller's business.
template <typename E>
requires std::is_enum_v<E>
inline error_code read_enum(cursor & c, E & out) noexcept
{
    std::uint8_t v = 0;
    error_code ec = read_u8(c, v);
    if (!ec)
    {
        out = static_cast<E>(v);
    }
    return ec;
}
inline error_code read_u16(cursor & c, std::uint16_t & out) noexcept
{
    return detail::read_fixed(c, out);
}
inline error_code read_u32(cursor & c, std::uint32_t & out) noexcept
{
    return detail::read_fixed(c, out);
}
inline error_code read_u64(cursor & c, std::uint64_t & out) noexcept
{
    return detail::read_fixed(c, out);
}
inline error_code read_i64(cursor & c, std::int64_t & out) noexcept
{
    std::uint64_t v = 0;
    error_code ec = detail::read_fixed(c, v);
    out = static_cast<std::int64_t>(v);
    return ec;
}
inline error_code read_double(cursor & c, double & out) noexcept
{
    std::uint64_t v = 0;
    error_code ec = detail::read_fixed(c, v);
    out = std::bit_cast<double>(v);
    return ec;
}

// At most 10 bytes; bits beyond 64 are lost, non-minimal forms are accepted.
inline error_code read_varint(cursor & c, std::uint64_t & out) noexcept
{
    const std::size_t limit = c.remaining < varint_bound ? c.remaining : varint_bound;
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < limit; ++i)
    {
        const std::uint8_t b = c.data[i];
        v |= static_cast<std::uint64_t>(b & 0x7F) << (7 * i);
        if ((b & 0x80) == 0)
        {
            out = v;
            c.skip(i + 1);
            return {};
        }
    }
    return end_of_input();
}
inline error_code read_varint(cursor & c, std::int64_t & out) noexcept
{
    std::uint64_t v = 0;
    error_code ec = read_varint(c, v);
    out = static_cast<std::int64_t>(v);
    return ec;
}

// At most 5 bytes, the fifth without its continuation bit; bits beyond 32 are dropped.
inline error_code read_varint32(cursor & c, std::uint32_t & out) noexcept
{
    const std::size_t limit = c.remaining < varint32_bound ? c.remaining : varint32_bound;
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < limit; ++i)
    {
        const std::uint8_t b = c.data[i];
        v |= static_cast<std::uint64_t>(b & 0x7F) << (7 * i);
        if ((b & 0x80) == 0)
        {
            out = static_cast<std::uint32_t>(v);
            c.skip(i + 1);
            return {};
        }
    }
    return end_of_input();
}

// Takes up to n bytes; the view comes out shorter when fewer remain.
inline std::span<const std::uint8_t> take(cursor & c, std::size_t n) noexcept
{
    const std::size_t k = n < c.remaining ? n : c.remaining;
    std::span<const std::uint8_t> view{c.data, k};
    c.skip(k);
    return view;
}

// A byte buffer as a view into the received span.
inline error_code read_bytes(cursor & c, std::span<const std::uint8_t> & out) noexcept
{
    cursor at = c;
    std::uint64_t length = 0;
    if (error_code ec = read_varint(at, length))
    {
        return ec;
    }
    if (length > at.remaining)
    {
        return end_of_input();
    }
    std::span<const std::uint8_t> view = take(at, static_cast<std::size_t>(length));
    if (view.size() != length)
    {
        return inconsistent_result();
    }
    out = view;
    c = at;
    return {};
}
inline error_code read_bytes(cursor & c, std::string_view & out) noexcept
{
    std::span<const std::uint8_t> view;
    error_code ec = read_bytes(c, view);
    if (!ec)
    {
        out = std::string_view(reinterpret_cast<const char *>(view.data()), view.size());
    }
    return ec;
}
// Owning destinations copy.
error_code read_bytes(cursor & c, std::string & out);
error_code read_bytes(cursor & c, std::vector<std::uint8_t> & out);

error_code read_short_string(cursor & c, std::string_view & out) noexcept;
error_code read_short_string(cursor & c, std::string & out);

// A vector's element count, refused (code 2) when beyond ten times the remaining bytes: no element
// is smaller than a tenth of a byte, so a larger count can only be forged, and is stopped before it
// sizes anything.
inline error_code read_count(cursor & c, std::size_t & count) noexcept
{
    cursor at = c;
    std::uint64_t n = 0;
    if (error_code ec = read_varint(at, n))
    {
        return ec;
    }
    if (at.remaining <= UINT64_MAX / 10 && n > at.remaining * 10)
    {
        return end_of_input();
    }
    count = static_cast<std::size_t>(n);
    c = at;
    return {};
}

// Varint count, then each element by read_element(cursor &, T &). The vector is resized to exactly
// the count first; the first failing element ends the read and the vector keeps its full size.
template <typename T, typename A, typename ReadElement>
error_code read_vector(cursor & c, std::vector<T, A> & out, ReadElement && read_element)
{
    std::size_t count = 0;
    if (error_code ec = read_count(c, count))
    {
        return ec;
    }
    out.resize(count);
    for (T & element : out)
    {
        if (error_code ec = read_element(c, element))
        {
            return ec;
        }
    }
    return {};
}

template <typename T, typename WriteElement>
void write_vector(writer & w, std::span<const T> elements, WriteElement && write_element)
{
    w.put_varint(elements.size());
    for (const T & element : elements)
    {
        write_element(w, element);
    }
}

// 256-bit ids: 32 bytes, word 0 first, each word little-endian.
void marshal(writer & w, const chord::ring_id & id);
error_code unmarshal(cursor & c, chord::ring_id & id) noexcept;

// Times: varint seconds, varint nanoseconds, the 64-bit words as they stand.
void marshal(writer & w, const timespec & t);
void marshal(writer & w, const zlk_timespec_t & t);
error_code unmarshal(cursor & c, timespec & t) noexcept;
error_code unmarshal(cursor & c, zlk_timespec_t & t) noexcept;

// Time ranges: four varints (begin, end).
void marshal(writer & w, const zlk_ts_range_t & range);
error_code unmarshal(cursor & c, zlk_ts_range_t & range) noexcept;
void marshal(writer & w, std::span<const zlk_ts_range_t> ranges);
error_code unmarshal(cursor & c, std::vector<zlk_ts_range_t> & ranges);

// Stamps: varint seconds, varint nanoseconds, 256-bit id, varint32.
void marshal(writer & w, const uuid & u);
error_code unmarshal(cursor & c, uuid & u) noexcept;

// Error codes: varint32 value, u8 index in category_table (wire/category_table.hpp).
void marshal(writer & w, const boost::system::error_code & ec);
error_code unmarshal(cursor & c, boost::system::error_code & ec) noexcept;

// ---- Reading a message's fields in one call ----
//
//   return read_fields(c, r.from, r.key, as_varint(r.client_id), as_fixed(r.value), r.body);
//
// reads each field in turn with the reader its type selects and returns the first failure (nothing is
// read past it). A field's type decides where it can: u8 and u16 are fixed-size, byte strings and views
// are length-prefixed, and a type with an unmarshal overload (ids, times, ranges, stamps, error codes,
// records) reads through it. Integers wider than 16 bits travel either way, so they say which:
// as_varint or as_fixed. Anything else names its reader: with_reader(read_terminated, out.alias).
// Inlined to the same code as the chain of ifs it replaces.

template <typename T>
struct varint_field
{
    T & out;
};
template <typename T>
struct fixed_field
{
    T & out;
};
template <typename Reader, typename T>
struct reader_field
{
    Reader read;
    T & out;
};

template <typename T>
varint_field<T> as_varint(T & out) noexcept
{
    return {out};
}
template <typename T>
fixed_field<T> as_fixed(T & out) noexcept
{
    return {out};
}
template <typename Reader, typename T>
reader_field<Reader, T> with_reader(Reader read, T & out) noexcept
{
    return {read, out};
}

inline error_code read_field(cursor & c, std::uint8_t & out) noexcept
{
    return read_u8(c, out);
}
inline error_code read_field(cursor & c, std::uint16_t & out) noexcept
{
    return read_u16(c, out);
}
inline error_code read_field(cursor & c, std::span<const std::uint8_t> & out) noexcept
{
    return read_bytes(c, out);
}
inline error_code read_field(cursor & c, std::string_view & out) noexcept
{
    return read_bytes(c, out);
}
inline error_code read_field(cursor & c, std::string & out)
{
    return read_bytes(c, out);
}
inline error_code read_field(cursor & c, std::vector<std::uint8_t> & out)
{
    return read_bytes(c, out);
}
template <typename T>
error_code read_field(cursor & c, varint_field<T> f) noexcept
{
    if constexpr (sizeof(T) == 4)
    {
        return read_varint32(c, f.out);
    }
    else
    {
        return read_varint(c, f.out);
    }
}
template <typename T>
error_code read_field(cursor & c, fixed_field<T> f) noexcept
{
    if constexpr (std::is_same_v<T, double>)
    {
        return read_double(c, f.out);
    }
    else if constexpr (std::is_same_v<T, std::int64_t>)
    {
        return read_i64(c, f.out);
    }
    else
    {
        return detail::read_fixed(c, f.out);
    }
}
template <typename Reader, typename T>
error_code read_field(cursor & c, reader_field<Reader, T> f)
{
    return f.read(c, f.out);
}
template <typename T>
requires requires(cursor & c, T & t)
{
    unmarshal(c, t);
}
error_code read_field(cursor & c, T & out)
{
    return unmarshal(c, out);
}

template <typename First, typename... Rest>
[[gnu::always_inline]] inline error_code read_fields(cursor & c, First && first, Rest &&... rest)
{
    if (error_code ec = read_field(c, std::forward<First>(first)))
    {
        return ec;
    }
    if constexpr (sizeof...(Rest) == 0)
    {
        return {};
    }
    else
    {
        return read_fields(c, std::forward<Rest>(rest)...);
    }
}

} // namespace zlk::serialization
