// Folding the rows of one bucket into a partial state: the per-shard hot loop of a node.
#include <array>
#include <cmath>

#include "timeseries/codec/state_helpers.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
using f = aggregation_type;
using namespace state_detail;

namespace
{

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

} // namespace

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

} // namespace zlk::timeseries
