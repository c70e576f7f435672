// What the folding, combining, finalising and encoding of aggregation states share: the fillers that
// stand for nulls, comparisons within one value type, the keys of distinct values, and the split
// arithmetic of integer sums and products. Internal to the codec.
#pragma once

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/error_categories.hpp"
#include "timeseries/codec/aggregation_state.hpp"

namespace zlk::timeseries::state_detail
{

using boost::system::error_code;

constexpr std::uint64_t double_filler = 0x7FF8000000000000ULL;
constexpr std::int64_t integer_filler = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t ns_per_s = 1000000000;

// The partial that doesn't match its function.
inline error_code mismatch() noexcept
{
    return error_code(query::mismatched_state, query::query_category());
}

// What a column's values look like to the loops.
template <typename V>
constexpr bool is_numeric = std::is_same_v<V, double> || std::is_same_v<V, std::int64_t>;

// The column type of a value type; blob stands for both byte types.
template <typename V>
constexpr kernel::column_type column_of = std::is_same_v<V, double>         ? kernel::column_type::double_
                                          : std::is_same_v<V, std::int64_t> ? kernel::column_type::int64
                                          : std::is_same_v<V, timespec>     ? kernel::column_type::timestamp
                                                                            : kernel::column_type::blob;

inline bool is_null(double v) noexcept
{
    return std::bit_cast<std::uint64_t>(v) == double_filler;
}
inline bool is_null(std::int64_t v) noexcept
{
    return v == integer_filler;
}
inline bool is_null(const timespec & v) noexcept
{
    return v.tv_sec == integer_filler;
}
inline bool is_null(std::string_view v) noexcept
{
    return v.empty();
}

inline bool less(double a, double b) noexcept
{
    return a < b;
}
inline bool less(std::int64_t a, std::int64_t b) noexcept
{
    return a < b;
}
inline bool less(const timespec & a, const timespec & b) noexcept
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}
inline bool less(std::string_view a, std::string_view b) noexcept
{
    // char_traits<char> compares as unsigned char: bytes order.
    return a < b;
}

inline std::uint64_t magnitude(std::int64_t v) noexcept
{
    const auto u = static_cast<std::uint64_t>(v);
    return v < 0 ? 0 - u : u;
}
inline bool abs_less(double a, double b) noexcept
{
    return std::fabs(a) < std::fabs(b);
}
inline bool abs_less(std::int64_t a, std::int64_t b) noexcept
{
    return magnitude(a) < magnitude(b);
}

inline bool same(double a, double b) noexcept
{
    return a == b || (a != a && b != b);
}
inline bool same(std::int64_t a, std::int64_t b) noexcept
{
    return a == b;
}
inline bool same(const timespec & a, const timespec & b) noexcept
{
    return a == b;
}
inline bool same(std::string_view a, std::string_view b) noexcept
{
    return a == b;
}

// Values of a column_value, compared inside one alternative (a mixture is a bug and compares false).
inline bool value_less(const column_value & a, const column_value & b) noexcept
{
    return std::visit(
        [&b](const auto & x) -> bool
        {
            using T = std::decay_t<decltype(x)>;
            const T * y = std::get_if<T>(&b);
            if constexpr (std::is_same_v<T, std::string>)
            {
                return y != nullptr && less(std::string_view(x), std::string_view(*y));
            }
            else
            {
                return y != nullptr && less(x, *y);
            }
        },
        a);
}

inline bool value_abs_less(const column_value & a, const column_value & b) noexcept
{
    if (const double * x = std::get_if<double>(&a))
    {
        const double * y = std::get_if<double>(&b);
        return y != nullptr && abs_less(*x, *y);
    }
    if (const std::int64_t * x = std::get_if<std::int64_t>(&a))
    {
        const std::int64_t * y = std::get_if<std::int64_t>(&b);
        return y != nullptr && abs_less(*x, *y);
    }
    return false;
}

// The wire bytes of a value, the key of a distinct set.
inline void append_u64(std::string & out, std::uint64_t v)
{
    std::array<char, 8> b;
    for (std::size_t i = 0; i < 8; ++i)
    {
        b[i] = static_cast<char>(v >> (8 * i));
    }
    out.append(b.data(), b.size());
}

template <typename Out>
inline void append_varint(Out & out, std::uint64_t v)
{
    while (v >= 0x80)
    {
        out.push_back(static_cast<typename Out::value_type>(static_cast<std::uint8_t>(v | 0x80)));
        v >>= 7;
    }
    out.push_back(static_cast<typename Out::value_type>(static_cast<std::uint8_t>(v)));
}

inline std::string distinct_key(double v)
{
    std::string k;
    append_u64(k, std::bit_cast<std::uint64_t>(v == 0.0 ? 0.0 : v));
    return k;
}
inline std::string distinct_key(std::int64_t v)
{
    std::string k;
    append_u64(k, static_cast<std::uint64_t>(v));
    return k;
}
inline std::string distinct_key(const timespec & v)
{
    std::string k;
    append_varint(k, static_cast<std::uint64_t>(v.tv_sec));
    append_varint(k, static_cast<std::uint64_t>(v.tv_nsec));
    return k;
}
inline std::string distinct_key(std::string_view v)
{
    return std::string(v);
}

// The value as a state keeps it.
inline column_value keep(double v)
{
    return v;
}
inline column_value keep(std::int64_t v)
{
    return v;
}
inline column_value keep(const timespec & v)
{
    return v;
}
inline column_value keep(std::string_view v)
{
    return std::string(v);
}

// Keeps the mantissa of a product in [0.5, 1) and moves its binary exponent out.
inline void renormalise(double & mantissa, std::int64_t & exponent) noexcept
{
    if (mantissa == 0.0 || !std::isfinite(mantissa))
    {
        return;
    }
    int e = 0;
    mantissa = std::frexp(mantissa, &e);
    exponent += e;
}

// Adds b into a, the part that doesn't fit going to the double word.
inline void add_integer(std::int64_t & integer, double & rest, std::int64_t b) noexcept
{
    std::int64_t t = 0;
    if (__builtin_add_overflow(integer, b, &t))
    {
        rest += static_cast<double>(b);
    }
    else
    {
        integer = t;
    }
}

inline timespec difference(const timespec & a, const timespec & b) noexcept
{
    const __int128 d = (static_cast<__int128>(a.tv_sec) - b.tv_sec) * ns_per_s +
                       (static_cast<__int128>(a.tv_nsec) - b.tv_nsec);
    __int128 sec = d / ns_per_s;
    __int128 nsec = d % ns_per_s;
    if (nsec < 0)
    {
        nsec += ns_per_s;
        --sec;
    }
    return timespec{static_cast<std::int64_t>(sec), static_cast<std::int64_t>(nsec)};
}

inline result_value result_of(column_value && v)
{
    return std::visit([](auto && x) -> result_value { return std::move(x); }, std::move(v));
}

} // namespace zlk::timeseries::state_detail
