#include "timeseries/codec/aggregation_state.hpp"

#include "timeseries/codec/state_helpers.hpp"
#include "timeseries/codec/ts_messages.hpp"

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

using f = aggregation_type;
using namespace state_detail;

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

} // namespace zlk::timeseries
