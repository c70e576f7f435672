#include "timeseries/aggregation_state.hpp"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "api/error_categories.hpp"
#include "timeseries/ts_messages.hpp"

namespace zlk
{

std::string_view aggregation_name(std::uint64_t value) noexcept
{
    static constexpr std::array<std::string_view, 30> names = {"first",
                                                               "last",
                                                               "min",
                                                               "max",
                                                               "arithmetic_mean",
                                                               "harmonic_mean",
                                                               "geometric_mean",
                                                               "quadratic_mean",
                                                               "count",
                                                               "sum",
                                                               "sum_of_squares",
                                                               "spread",
                                                               "sample_variance",
                                                               "sample_stddev",
                                                               "population_variance",
                                                               "population_stddev",
                                                               "abs_min",
                                                               "abs_max",
                                                               "product",
                                                               "skewness",
                                                               "kurtosis",
                                                               "",
                                                               "distinct_count",
                                                               "moving_average",
                                                               "cumulative_sum",
                                                               "moving_sum",
                                                               "moving_min",
                                                               "moving_max",
                                                               "cumulative_product",
                                                               "adjacent_count"};
    return value < names.size() ? names[value] : std::string_view{"unknown"};
}

} // namespace zlk

namespace zlk::timeseries
{

using boost::system::error_code;
using f = aggregation_type;

namespace
{

constexpr std::uint64_t double_filler = 0x7FF8000000000000ULL;
constexpr std::int64_t integer_filler = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t ns_per_s = 1000000000;

// The partial that doesn't match its function.
error_code mismatch() noexcept
{
    return error_code(45, query::query_category());
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
bool value_less(const column_value & a, const column_value & b) noexcept
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

bool value_abs_less(const column_value & a, const column_value & b) noexcept
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
void append_u64(std::string & out, std::uint64_t v)
{
    std::array<char, 8> b;
    for (std::size_t i = 0; i < 8; ++i)
    {
        b[i] = static_cast<char>(v >> (8 * i));
    }
    out.append(b.data(), b.size());
}

template <typename Out>
void append_varint(Out & out, std::uint64_t v)
{
    while (v >= 0x80)
    {
        out.push_back(static_cast<typename Out::value_type>(static_cast<std::uint8_t>(v | 0x80)));
        v >>= 7;
    }
    out.push_back(static_cast<typename Out::value_type>(static_cast<std::uint8_t>(v)));
}

std::string distinct_key(double v)
{
    std::string k;
    append_u64(k, std::bit_cast<std::uint64_t>(v == 0.0 ? 0.0 : v));
    return k;
}
std::string distinct_key(std::int64_t v)
{
    std::string k;
    append_u64(k, static_cast<std::uint64_t>(v));
    return k;
}
std::string distinct_key(const timespec & v)
{
    std::string k;
    append_varint(k, static_cast<std::uint64_t>(v.tv_sec));
    append_varint(k, static_cast<std::uint64_t>(v.tv_nsec));
    return k;
}
std::string distinct_key(std::string_view v)
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

// min and max of numbers, the hot case. The general loop carries the best value from row to row, a
// chain of compare and move that leaves the core waiting; here each block's extreme comes from four
// independent lanes, and only a block that beats the best so far is walked for its first row with
// that value. Same result as the general loop: the first non-null row among equals, a NaN that comes
// first stays (nothing compares above or below it), a later NaN never wins, and neither does a filler.
template <bool WantMax, typename V, typename TimeOf>
aggregation_state numeric_extreme(std::span<const V> values, const TimeOf & time_of)
{
    const std::size_t n = values.size();
    std::size_t i = 0;
    while (i < n && is_null(values[i]))
    {
        ++i;
    }
    if (i == n)
    {
        return no_data_state{};
    }
    std::size_t best = i;
    V best_value = values[i];
    std::uint64_t nulls = 0;
    const auto better = [](const V & a, const V & b) { return WantMax ? less(b, a) : less(a, b); };
    // A lane that holds no row yet holds the best so far: it can only be beaten, never equalled wrongly.
    constexpr std::size_t block = 256;
    for (std::size_t start = i + 1; start < n; start += block)
    {
        const std::size_t end = std::min(n, start + block);
        V lane[4] = {best_value, best_value, best_value, best_value};
        std::size_t k = start;
        for (; k + 4 <= end; k += 4)
        {
            for (std::size_t j = 0; j < 4; ++j)
            {
                const V v = values[k + j];
                const bool null = is_null(v);
                nulls += null ? 1 : 0;
                lane[j] = !null && better(v, lane[j]) ? v : lane[j];
            }
        }
        for (; k < end; ++k)
        {
            const V v = values[k];
            const bool null = is_null(v);
            nulls += null ? 1 : 0;
            lane[0] = !null && better(v, lane[0]) ? v : lane[0];
        }
        V block_best = lane[0];
        for (std::size_t j = 1; j < 4; ++j)
        {
            block_best = better(lane[j], block_best) ? lane[j] : block_best;
        }
        if (!better(block_best, best_value))
        {
            continue;
        }
        // The block's first row whose value is the block's best: the one the row-by-row walk keeps.
        for (k = start; k < end; ++k)
        {
            const V v = values[k];
            // Equality, not "neither is better": a NaN is neither, and never the best of a block.
            if (!is_null(v) && v == block_best)
            {
                best = k;
                best_value = v;
                break;
            }
        }
    }
    return extreme_state{n - i - nulls, timed_value{time_of(best), keep(best_value)}};
}

// The loops. `values` are rows in time order; time_of(i) is asked only of the retained rows.
template <typename V, typename TimeOf>
aggregation_state fold(aggregation_type fn, std::span<const V> values, const TimeOf & time_of)
{
    using view_type = std::conditional_t<std::is_same_v<V, std::string>, std::string_view, const V &>;
    constexpr std::size_t none = static_cast<std::size_t>(-1);
    const std::size_t n = values.size();
    std::uint64_t rows = 0;

    if (!accepts(fn, column_of<V>))
    {
        return no_data_state{};
    }

    switch (kind_of(fn))
    {
    case state_kind::count:
    {
        if constexpr (std::is_same_v<V, double>)
        {
            for (const double v : values)
            {
                rows += std::bit_cast<std::uint64_t>(v) != double_filler ? 1 : 0;
            }
        }
        else
        {
            for (std::size_t i = 0; i < n; ++i)
            {
                rows += is_null(view_type(values[i])) ? 0 : 1;
            }
        }
        if (rows == 0)
        {
            return no_data_state{};
        }
        return count_state{rows};
    }
    case state_kind::extreme:
    {
        if constexpr (std::is_same_v<V, double> || std::is_same_v<V, std::int64_t>)
        {
            if (fn == f::min || fn == f::max)
            {
                return fn == f::max ? numeric_extreme<true>(values, time_of)
                                    : numeric_extreme<false>(values, time_of);
            }
        }
        std::size_t best = none;
        if (fn == f::first)
        {
            for (std::size_t i = 0; i < n && best == none; ++i)
            {
                best = is_null(view_type(values[i])) ? none : i;
            }
        }
        else if (fn == f::last)
        {
            for (std::size_t i = n; i > 0 && best == none; --i)
            {
                best = is_null(view_type(values[i - 1])) ? none : i - 1;
            }
        }
        for (std::size_t i = 0; i < n; ++i)
        {
            const view_type v = values[i];
            if (is_null(v))
            {
                continue;
            }
            ++rows;
            if (fn == f::first || fn == f::last)
            {
                continue;
            }
            if (best == none)
            {
                best = i;
                continue;
            }
            const view_type b = values[best];
            bool better = false;
            if (fn == f::min)
            {
                better = less(v, b);
            }
            else if (fn == f::max)
            {
                better = less(b, v);
            }
            else if constexpr (is_numeric<V>)
            {
                better = fn == f::abs_min ? abs_less(v, b) : abs_less(b, v);
            }
            best = better ? i : best;
        }
        if (best == none)
        {
            return no_data_state{};
        }
        return extreme_state{rows, timed_value{time_of(best), keep(view_type(values[best]))}};
    }
    case state_kind::spread:
    {
        if constexpr (std::is_same_v<V, std::string>)
        {
            return no_data_state{};
        }
        else
        {
            std::size_t lo = none;
            std::size_t hi = none;
            for (std::size_t i = 0; i < n; ++i)
            {
                const V & v = values[i];
                if (is_null(v))
                {
                    continue;
                }
                ++rows;
                if (lo == none)
                {
                    lo = i;
                    hi = i;
                    continue;
                }
                lo = less(v, values[lo]) ? i : lo;
                hi = less(values[hi], v) ? i : hi;
            }
            if (lo == none)
            {
                return no_data_state{};
            }
            return spread_state{rows, timed_value{time_of(lo), values[lo]},
                                timed_value{time_of(hi), values[hi]}};
        }
    }
    case state_kind::distinct:
    {
        distinct_state d;
        for (std::size_t i = 0; i < n; ++i)
        {
            const view_type v = values[i];
            if (is_null(v))
            {
                continue;
            }
            ++rows;
            d.values.insert(distinct_key(v));
        }
        if (rows == 0)
        {
            return no_data_state{};
        }
        d.count = rows;
        return d;
    }
    case state_kind::adjacent:
    {
        std::size_t previous = none;
        std::uint64_t runs = 0;
        for (std::size_t i = 0; i < n; ++i)
        {
            const view_type v = values[i];
            if (is_null(v))
            {
                continue;
            }
            runs += previous == none || !same(view_type(values[previous]), v) ? 1 : 0;
            previous = i;
        }
        if (previous == none)
        {
            return no_data_state{};
        }
        return adjacent_state{runs, std::nullopt};
    }
    default:
        break;
    }

    if constexpr (!is_numeric<V>)
    {
        return no_data_state{};
    }
    else
    {
        switch (kind_of(fn))
        {
        case state_kind::sum:
        {
            sum_state s;
            if constexpr (std::is_same_v<V, double>)
            {
                // Fillers add 0.0: no branch in the loop.
                for (const double v : values)
                {
                    const bool keep_row = std::bit_cast<std::uint64_t>(v) != double_filler;
                    s.sum += keep_row ? v : 0.0;
                    rows += keep_row ? 1 : 0;
                }
            }
            else
            {
                for (const std::int64_t v : values)
                {
                    if (v == integer_filler)
                    {
                        continue;
                    }
                    ++rows;
                    std::int64_t t = 0;
                    if (__builtin_add_overflow(s.integer, v, &t))
                    {
                        s.sum += static_cast<double>(v);
                    }
                    else
                    {
                        s.integer = t;
                    }
                }
            }
            s.count = rows;
            if (rows == 0)
            {
                return no_data_state{};
            }
            return s;
        }
        default:
            break;
        }

        // The other numeric states work on doubles.
        auto for_each = [&](auto && body)
        {
            for (const V v : values)
            {
                if (is_null(v))
                {
                    continue;
                }
                ++rows;
                body(static_cast<double>(v));
            }
        };
        aggregation_state out;
        switch (kind_of(fn))
        {
        case state_kind::sum_of_squares:
        {
            sum_of_squares_state s;
            for_each([&s](double x) { s.sum += x * x; });
            out = s;
            break;
        }
        case state_kind::product:
        {
            product_state s;
            for_each([&s](double x) { s.product *= x; });
            out = s;
            break;
        }
        case state_kind::geometric:
        {
            geometric_state s;
            for_each(
                [&s](double x)
                {
                    s.mantissa *= x;
                    renormalise(s.mantissa, s.exponent);
                });
            out = s;
            break;
        }
        case state_kind::harmonic:
        {
            harmonic_state s;
            for_each([&s](double x) { s.reciprocals += 1.0 / x; });
            out = s;
            break;
        }
        case state_kind::variance:
        {
            variance_state s;
            std::uint64_t k = 0;
            for_each(
                [&](double x)
                {
                    ++k;
                    const double delta = x - s.mean;
                    s.mean += delta / static_cast<double>(k);
                    s.m2 += delta * (x - s.mean);
                });
            out = s;
            break;
        }
        case state_kind::moments:
        {
            moments_state s;
            for_each(
                [&s](double x)
                {
                    const double x2 = x * x;
                    s.s1 += x;
                    s.s2 += x2;
                    s.s3 += x2 * x;
                    s.s4 += x2 * x2;
                });
            out = s;
            break;
        }
        default:
            return no_data_state{};
        }
        if (rows == 0)
        {
            return no_data_state{};
        }
        std::visit(
            [rows](auto & s)
            {
                if constexpr (requires { s.count; })
                {
                    s.count = rows;
                }
            },
            out);
        return out;
    }
}

template <typename V>
void accumulate_one(aggregation_type fn, aggregation_state & s, const timespec & t, const V & v)
{
    using view_type = std::conditional_t<std::is_same_v<V, std::string>, std::string_view, const V &>;
    if (is_aggregation(static_cast<std::uint64_t>(fn)) && kind_of(fn) == state_kind::adjacent &&
        !is_null(view_type(v)))
    {
        // Runs need the previous value, which a state of rows folded elsewhere doesn't carry.
        if (adjacent_state * a = std::get_if<adjacent_state>(&s))
        {
            bool continues = false;
            if (a->last)
            {
                if (const V * p = std::get_if<V>(&*a->last))
                {
                    continues = same(view_type(*p), view_type(v));
                }
            }
            a->count += continues ? 0 : 1;
            a->last = v;
            return;
        }
        if (std::holds_alternative<no_data_state>(s))
        {
            s = adjacent_state{1, column_value{v}};
            return;
        }
    }
    aggregation_state one = fold(fn, std::span<const V>(&v, 1), [&t](std::size_t) { return t; });
    (void)combine(fn, s, std::move(one));
}

// Adds b into a, the part that doesn't fit going to the double word.
void add_integer(std::int64_t & integer, double & rest, std::int64_t b) noexcept
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

timespec difference(const timespec & a, const timespec & b) noexcept
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

result_value result_of(column_value && v)
{
    return std::visit([](auto && x) -> result_value { return std::move(x); }, std::move(v));
}

// (c − 3ab + 2a³) / (b − a²)^1.5 and its fourth-moment sibling. The raw moments cancel: a variance
// within rounding of zero is a constant column.
double standardised_moment(const moments_state & s, bool fourth) noexcept
{
    const double n = static_cast<double>(s.count);
    const double a = s.s1 / n;
    const double b = s.s2 / n;
    const double c = s.s3 / n;
    const double d = s.s4 / n;
    const double variance = b - a * a;
    const double noise = std::fabs(b) * 8.0 * std::numeric_limits<double>::epsilon() * std::sqrt(n);
    if (!(variance > noise))
    {
        return std::numeric_limits<double>::quiet_NaN();
    }
    if (fourth)
    {
        const double a2 = a * a;
        return (d - 4.0 * a * c + 6.0 * a2 * b - 3.0 * a2 * a2) / (variance * variance);
    }
    return (c - 3.0 * a * b + 2.0 * a * a * a) / std::pow(variance, 1.5);
}

// Little-endian appends of the wire form.
void put_u8(std::vector<std::uint8_t> & out, std::uint8_t v)
{
    out.push_back(v);
}
void put_u64(std::vector<std::uint8_t> & out, std::uint64_t v)
{
    for (std::size_t i = 0; i < 8; ++i)
    {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}
void put_f64(std::vector<std::uint8_t> & out, double v)
{
    put_u64(out, std::bit_cast<std::uint64_t>(v));
}
void put_time(std::vector<std::uint8_t> & out, const timespec & t)
{
    append_varint(out, static_cast<std::uint64_t>(t.tv_sec));
    append_varint(out, static_cast<std::uint64_t>(t.tv_nsec));
}

void put_value(std::vector<std::uint8_t> & out, kernel::column_type column, const column_value & v)
{
    switch (column)
    {
    case kernel::column_type::double_:
    {
        const double * x = std::get_if<double>(&v);
        put_f64(out, x ? *x : 0.0);
        return;
    }
    case kernel::column_type::int64:
    {
        const std::int64_t * x = std::get_if<std::int64_t>(&v);
        put_u64(out, static_cast<std::uint64_t>(x ? *x : 0));
        return;
    }
    case kernel::column_type::timestamp:
    {
        const timespec * x = std::get_if<timespec>(&v);
        put_time(out, x ? *x : timespec{});
        return;
    }
    case kernel::column_type::blob:
    case kernel::column_type::string:
    {
        const std::string * x = std::get_if<std::string>(&v);
        const std::size_t size = x ? x->size() : 0;
        append_varint(out, size);
        if (size != 0)
        {
            out.insert(out.end(), x->begin(), x->end());
        }
        return;
    }
    }
}

error_code get_value(serialization::cursor & c, kernel::column_type column, column_value & out)
{
    namespace ser = serialization;
    switch (column)
    {
    case kernel::column_type::double_:
    {
        double v = 0;
        if (error_code ec = ser::read_double(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::int64:
    {
        std::int64_t v = 0;
        if (error_code ec = ser::read_i64(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::timestamp:
    {
        timespec v;
        if (error_code ec = ser::unmarshal(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::blob:
    case kernel::column_type::string:
    {
        std::string_view v;
        if (error_code ec = ser::read_bytes(c, v))
        {
            return ec;
        }
        out = std::string(v);
        return {};
    }
    }
    return ser::unexpected_byte();
}

error_code get_timed(serialization::cursor & c, kernel::column_type column, timed_value & out)
{
    if (error_code ec = serialization::unmarshal(c, out.time))
    {
        return ec;
    }
    return get_value(c, column, out.value);
}

} // namespace

bool is_aggregation(std::uint64_t value) noexcept
{
    return value <= 29 && value != 21 && (value < 23 || value > 28);
}

bool accepts(aggregation_type fn, kernel::column_type t) noexcept
{
    if (!is_aggregation(static_cast<std::uint64_t>(fn)))
    {
        return false;
    }
    switch (t)
    {
    case kernel::column_type::double_:
    case kernel::column_type::int64:
        return true;
    case kernel::column_type::timestamp:
        if (fn == f::spread)
        {
            return true;
        }
        [[fallthrough]];
    case kernel::column_type::blob:
    case kernel::column_type::string:
        return fn == f::first || fn == f::last || fn == f::min || fn == f::max || fn == f::count ||
               fn == f::distinct_count || fn == f::adjacent_count;
    }
    return false;
}

state_kind kind_of(aggregation_type fn) noexcept
{
    switch (fn)
    {
    case f::first:
    case f::last:
    case f::min:
    case f::max:
    case f::abs_min:
    case f::abs_max:
        return state_kind::extreme;
    case f::count:
        return state_kind::count;
    case f::sum:
    case f::arithmetic_mean:
        return state_kind::sum;
    case f::sum_of_squares:
    case f::quadratic_mean:
        return state_kind::sum_of_squares;
    case f::product:
        return state_kind::product;
    case f::geometric_mean:
        return state_kind::geometric;
    case f::harmonic_mean:
        return state_kind::harmonic;
    case f::spread:
        return state_kind::spread;
    case f::sample_variance:
    case f::sample_stddev:
    case f::population_variance:
    case f::population_stddev:
        return state_kind::variance;
    case f::skewness:
    case f::kurtosis:
        return state_kind::moments;
    case f::distinct_count:
        return state_kind::distinct;
    case f::adjacent_count:
        return state_kind::adjacent;
    default:
        return state_kind::no_data;
    }
}

std::uint64_t row_count(const aggregation_state & s) noexcept
{
    return std::visit(
        [](const auto & x) -> std::uint64_t
        {
            if constexpr (requires { x.count; })
            {
                return x.count;
            }
            else
            {
                return 0;
            }
        },
        s);
}

timespec row_times::operator()(std::size_t i) const noexcept
{
    return time_of(shard_start_ms, offsets[i]);
}

aggregation_state fold_rows(aggregation_type fn, std::span<const double> values, const row_times & times)
{
    return fold(fn, values, times);
}
aggregation_state fold_rows(aggregation_type fn, std::span<const std::int64_t> values,
                            const row_times & times)
{
    return fold(fn, values, times);
}
aggregation_state fold_rows(aggregation_type fn, std::span<const timespec> values, const row_times & times)
{
    return fold(fn, values, times);
}
aggregation_state fold_rows(aggregation_type fn, std::span<const std::string> values, const row_times & times)
{
    return fold(fn, values, times);
}

void accumulate(aggregation_type fn, aggregation_state & s, const timespec & t, double v)
{
    accumulate_one(fn, s, t, v);
}
void accumulate(aggregation_type fn, aggregation_state & s, const timespec & t, std::int64_t v)
{
    accumulate_one(fn, s, t, v);
}
void accumulate(aggregation_type fn, aggregation_state & s, const timespec & t, const timespec & v)
{
    accumulate_one(fn, s, t, v);
}
void accumulate(aggregation_type fn, aggregation_state & s, const timespec & t, std::string_view v)
{
    accumulate_one(fn, s, t, std::string(v));
}

error_code combine(aggregation_type fn, aggregation_state & into, aggregation_state && later)
{
    if (std::holds_alternative<no_data_state>(later))
    {
        return {};
    }
    if (std::holds_alternative<no_data_state>(into))
    {
        into = std::move(later);
        return {};
    }
    if (into.index() != later.index() || kind_of(into) != kind_of(fn))
    {
        return mismatch();
    }
    std::visit(
        [&later, fn](auto & a)
        {
            using T = std::decay_t<decltype(a)>;
            T & b = std::get<T>(later);
            if constexpr (std::is_same_v<T, no_data_state>)
            {
                return;
            }
            else
            {
                const std::uint64_t n_a = a.count;
                const std::uint64_t n_b = b.count;
                a.count += b.count;
                if constexpr (std::is_same_v<T, sum_state>)
                {
                    a.sum += b.sum;
                    add_integer(a.integer, a.sum, b.integer);
                }
                else if constexpr (std::is_same_v<T, sum_of_squares_state>)
                {
                    a.sum += b.sum;
                }
                else if constexpr (std::is_same_v<T, product_state>)
                {
                    a.product *= b.product;
                }
                else if constexpr (std::is_same_v<T, geometric_state>)
                {
                    a.mantissa *= b.mantissa;
                    a.exponent += b.exponent;
                    renormalise(a.mantissa, a.exponent);
                }
                else if constexpr (std::is_same_v<T, harmonic_state>)
                {
                    a.reciprocals += b.reciprocals;
                }
                else if constexpr (std::is_same_v<T, spread_state>)
                {
                    if (value_less(b.min.value, a.min.value))
                    {
                        a.min = std::move(b.min);
                    }
                    if (value_less(a.max.value, b.max.value))
                    {
                        a.max = std::move(b.max);
                    }
                }
                else if constexpr (std::is_same_v<T, extreme_state>)
                {
                    bool take = false;
                    switch (fn)
                    {
                    case f::first:
                        take = less(b.point.time, a.point.time);
                        break;
                    case f::last:
                        take = !less(b.point.time, a.point.time);
                        break;
                    case f::min:
                        take = value_less(b.point.value, a.point.value);
                        break;
                    case f::max:
                        take = value_less(a.point.value, b.point.value);
                        break;
                    case f::abs_min:
                        take = value_abs_less(b.point.value, a.point.value);
                        break;
                    case f::abs_max:
                        take = value_abs_less(a.point.value, b.point.value);
                        break;
                    default:
                        break;
                    }
                    if (take)
                    {
                        a.point = std::move(b.point);
                    }
                }
                else if constexpr (std::is_same_v<T, variance_state>)
                {
                    // The parallel rule: means weighted by counts, M2 corrected by the spread of means.
                    const double na = static_cast<double>(n_a);
                    const double nb = static_cast<double>(n_b);
                    const double n = na + nb;
                    const double delta = b.mean - a.mean;
                    a.mean += delta * nb / n;
                    a.m2 += b.m2 + delta * delta * na * nb / n;
                }
                else if constexpr (std::is_same_v<T, moments_state>)
                {
                    a.s1 += b.s1;
                    a.s2 += b.s2;
                    a.s3 += b.s3;
                    a.s4 += b.s4;
                }
                else if constexpr (std::is_same_v<T, distinct_state>)
                {
                    if (a.values.size() < b.values.size())
                    {
                        std::swap(a.values, b.values);
                    }
                    a.values.insert(b.values.begin(), b.values.end());
                }
                else if constexpr (std::is_same_v<T, adjacent_state>)
                {
                    if (b.last)
                    {
                        a.last = std::move(b.last);
                    }
                }
            }
        },
        into);
    return {};
}

error_code finalise(aggregation_type fn, kernel::column_type column, aggregation_state && s,
                    aggregate_result & out)
{
    out = aggregate_result{};
    out.count = row_count(s);
    const bool counts = fn == f::count || fn == f::distinct_count || fn == f::adjacent_count;
    // A state without rows (only a confused node sends one) finalises as no data: nothing divides by 0.
    if (std::holds_alternative<no_data_state>(s) || out.count == 0)
    {
        if (counts)
        {
            out.value = std::int64_t{0};
        }
        return {};
    }
    if (!is_aggregation(static_cast<std::uint64_t>(fn)) || kind_of(fn) != kind_of(s))
    {
        return mismatch();
    }
    const double n = static_cast<double>(out.count);
    switch (kind_of(s))
    {
    case state_kind::count:
        out.value = static_cast<std::int64_t>(std::get<count_state>(s).count);
        break;
    case state_kind::extreme:
    {
        extreme_state & e = std::get<extreme_state>(s);
        out.time = e.point.time;
        out.value = result_of(std::move(e.point.value));
        break;
    }
    case state_kind::sum:
    {
        const sum_state & x = std::get<sum_state>(s);
        if (column == kernel::column_type::int64)
        {
            if (fn == f::sum)
            {
                out.value = int64_sum{x.integer, x.sum};
                break;
            }
            if (x.count > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            {
                out.value = static_cast<double>(x.integer) / n + x.sum / n;
                break;
            }
            // Quotient and remainder keep the integer part exact where a double of the sum wouldn't.
            const auto count = static_cast<std::int64_t>(x.count);
            const std::int64_t q = x.integer / count;
            const std::int64_t r = x.integer % count;
            out.value = static_cast<double>(q) + static_cast<double>(r) / n + x.sum / n;
            break;
        }
        out.value = fn == f::sum ? x.sum : x.sum / n;
        break;
    }
    case state_kind::sum_of_squares:
    {
        const double sum = std::get<sum_of_squares_state>(s).sum;
        out.value = fn == f::sum_of_squares ? sum : std::sqrt(sum / n);
        break;
    }
    case state_kind::product:
        out.value = std::get<product_state>(s).product;
        break;
    case state_kind::geometric:
    {
        const geometric_state & g = std::get<geometric_state>(s);
        out.value = std::pow(g.mantissa, 1.0 / n) * std::exp2(static_cast<double>(g.exponent) / n);
        break;
    }
    case state_kind::harmonic:
    {
        const double r = std::get<harmonic_state>(s).reciprocals;
        // A NaN sum still gives its (NaN) value; only an exact zero has none.
        if (r != 0.0)
        {
            out.value = n / r;
        }
        break;
    }
    case state_kind::spread:
    {
        const spread_state & x = std::get<spread_state>(s);
        if (const double * hi = std::get_if<double>(&x.max.value))
        {
            out.value = *hi - std::get<double>(x.min.value);
        }
        else if (const std::int64_t * ihi = std::get_if<std::int64_t>(&x.max.value))
        {
            // max >= min, so the difference always fits the unsigned word.
            const std::uint64_t d = static_cast<std::uint64_t>(*ihi) -
                                    static_cast<std::uint64_t>(std::get<std::int64_t>(x.min.value));
            out.value = static_cast<double>(d);
        }
        else if (const timespec * thi = std::get_if<timespec>(&x.max.value))
        {
            out.value = difference(*thi, std::get<timespec>(x.min.value));
        }
        else
        {
            return mismatch();
        }
        break;
    }
    case state_kind::variance:
    {
        const variance_state & v = std::get<variance_state>(s);
        if (fn == f::sample_variance || fn == f::sample_stddev)
        {
            if (v.count < 2)
            {
                break;
            }
            const double var = v.m2 / (n - 1.0);
            out.value = fn == f::sample_variance ? var : std::sqrt(var);
            break;
        }
        const double var = v.m2 / n;
        out.value = fn == f::population_variance ? var : std::sqrt(var);
        break;
    }
    case state_kind::moments:
        out.value = standardised_moment(std::get<moments_state>(s), fn == f::kurtosis);
        break;
    case state_kind::distinct:
        out.value = static_cast<std::int64_t>(std::get<distinct_state>(s).values.size());
        break;
    case state_kind::adjacent:
        out.value = static_cast<std::int64_t>(std::get<adjacent_state>(s).count);
        break;
    case state_kind::no_data:
        break;
    }
    return {};
}

void encode_state(const aggregation_state & s, kernel::column_type column, std::vector<std::uint8_t> & out)
{
    put_u8(out, static_cast<std::uint8_t>(s.index()));
    append_varint(out, row_count(s));
    std::visit(
        [&out, column](const auto & x)
        {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, sum_state>)
            {
                put_f64(out, x.sum);
                if (column == kernel::column_type::int64)
                {
                    put_u64(out, static_cast<std::uint64_t>(x.integer));
                }
            }
            else if constexpr (std::is_same_v<T, sum_of_squares_state>)
            {
                put_f64(out, x.sum);
            }
            else if constexpr (std::is_same_v<T, product_state>)
            {
                put_f64(out, x.product);
            }
            else if constexpr (std::is_same_v<T, geometric_state>)
            {
                put_f64(out, x.mantissa);
                put_u64(out, static_cast<std::uint64_t>(x.exponent));
            }
            else if constexpr (std::is_same_v<T, harmonic_state>)
            {
                put_f64(out, x.reciprocals);
            }
            else if constexpr (std::is_same_v<T, spread_state>)
            {
                put_time(out, x.min.time);
                put_value(out, column, x.min.value);
                put_time(out, x.max.time);
                put_value(out, column, x.max.value);
            }
            else if constexpr (std::is_same_v<T, extreme_state>)
            {
                put_time(out, x.point.time);
                put_value(out, column, x.point.value);
            }
            else if constexpr (std::is_same_v<T, variance_state>)
            {
                put_f64(out, x.mean);
                put_f64(out, x.m2);
            }
            else if constexpr (std::is_same_v<T, moments_state>)
            {
                put_f64(out, x.s1);
                put_f64(out, x.s2);
                put_f64(out, x.s3);
                put_f64(out, x.s4);
            }
            else if constexpr (std::is_same_v<T, distinct_state>)
            {
                append_varint(out, x.values.size());
                const bool sized = kernel::holds_bytes(column);
                for (const std::string & key : x.values)
                {
                    if (sized)
                    {
                        append_varint(out, key.size());
                    }
                    out.insert(out.end(), key.begin(), key.end());
                }
            }
        },
        s);
}

error_code decode_state(serialization::cursor & c, kernel::column_type column, aggregation_state & out)
{
    namespace ser = serialization;
    std::uint8_t kind = 0;
    std::uint64_t count = 0;
    if (error_code ec = ser::read_u8(c, kind))
    {
        return ec;
    }
    if (kind > static_cast<std::uint8_t>(state_kind::adjacent))
    {
        return ser::unexpected_byte();
    }
    if (error_code ec = ser::read_varint(c, count))
    {
        return ec;
    }
    error_code ec;
    switch (static_cast<state_kind>(kind))
    {
    case state_kind::no_data:
        out = no_data_state{};
        return {};
    case state_kind::count:
        out = count_state{count};
        return {};
    case state_kind::sum:
    {
        sum_state s{count, 0.0, 0};
        ec = ser::read_double(c, s.sum);
        if (!ec && column == kernel::column_type::int64)
        {
            ec = ser::read_i64(c, s.integer);
        }
        out = s;
        return ec;
    }
    case state_kind::sum_of_squares:
    {
        sum_of_squares_state s{count, 0.0};
        ec = ser::read_double(c, s.sum);
        out = s;
        return ec;
    }
    case state_kind::product:
    {
        product_state s{count, 1.0};
        ec = ser::read_double(c, s.product);
        out = s;
        return ec;
    }
    case state_kind::geometric:
    {
        geometric_state s{count, 1.0, 0};
        ec = ser::read_double(c, s.mantissa);
        if (!ec)
        {
            ec = ser::read_i64(c, s.exponent);
        }
        out = s;
        return ec;
    }
    case state_kind::harmonic:
    {
        harmonic_state s{count, 0.0};
        ec = ser::read_double(c, s.reciprocals);
        out = s;
        return ec;
    }
    case state_kind::spread:
    {
        spread_state s;
        s.count = count;
        ec = get_timed(c, column, s.min);
        if (!ec)
        {
            ec = get_timed(c, column, s.max);
        }
        out = std::move(s);
        return ec;
    }
    case state_kind::extreme:
    {
        extreme_state s;
        s.count = count;
        ec = get_timed(c, column, s.point);
        out = std::move(s);
        return ec;
    }
    case state_kind::variance:
    {
        variance_state s{count, 0.0, 0.0};
        ec = ser::read_double(c, s.mean);
        if (!ec)
        {
            ec = ser::read_double(c, s.m2);
        }
        out = s;
        return ec;
    }
    case state_kind::moments:
    {
        moments_state s;
        s.count = count;
        for (double * x : {&s.s1, &s.s2, &s.s3, &s.s4})
        {
            if (!ec)
            {
                ec = ser::read_double(c, *x);
            }
        }
        out = s;
        return ec;
    }
    case state_kind::distinct:
    {
        distinct_state s;
        s.count = count;
        std::size_t n = 0;
        ec = ser::read_count(c, n);
        for (std::size_t i = 0; i < n && !ec; ++i)
        {
            column_value v;
            ec = get_value(c, column, v);
            if (!ec)
            {
                s.values.insert(std::visit(
                    [](const auto & x)
                    {
                        using T = std::decay_t<decltype(x)>;
                        if constexpr (std::is_same_v<T, std::string>)
                        {
                            return distinct_key(std::string_view(x));
                        }
                        else
                        {
                            return distinct_key(x);
                        }
                    },
                    v));
            }
        }
        out = std::move(s);
        return ec;
    }
    case state_kind::adjacent:
        out = adjacent_state{count, std::nullopt};
        return {};
    }
    return ser::unexpected_byte();
}

} // namespace zlk::timeseries
