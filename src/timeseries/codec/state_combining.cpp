// Combining the partial states of consecutive buckets, in bucket order.
#include <cmath>

#include "timeseries/codec/state_helpers.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
using f = aggregation_type;
using namespace state_detail;

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

} // namespace zlk::timeseries
