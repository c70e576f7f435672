// The last step: a combined state becomes the value of its function.
#include <cmath>

#include "timeseries/codec/state_helpers.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
using f = aggregation_type;
using namespace state_detail;

namespace
{

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

} // namespace

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

} // namespace zlk::timeseries
