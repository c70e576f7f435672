// Aggregates of a time series column computed in pieces: a node folds the rows of one bucket into a
// partial state, the client combines the partial states of all buckets in bucket order and finalises
// the result. The states travel between the two (encode_state / decode_state), so a state keeps only
// what can be combined: counts, sums, extremes with their time, the split product of the geometric
// mean, the mean and M2 of the variances, raw moments, the set of distinct values.
//
// Nulls: the fillers the batch writer stores in the gaps of a row (double NaN 0x7FF8000000000000,
// int64 and timestamp 0x8000000000000000, empty blob and string) are skipped; they count nowhere.
//
// adjacent_count counts runs of equal adjacent values: a row whose value differs from the row before it
// in the same bucket (or that has none) starts a run. Runs are counted per bucket and added as sent.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/unordered/unordered_flat_set.hpp>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/column_type.hpp"
#include "wire/marshal.hpp"
#include "base/time_value.hpp"

namespace zlk
{

// The shared vocabulary of functions; the order is part of the wire format and of the interface.
enum class aggregation_type : std::uint8_t
{
    first = 0,
    last = 1,
    min = 2,
    max = 3,
    arithmetic_mean = 4,
    harmonic_mean = 5,
    geometric_mean = 6,
    quadratic_mean = 7,
    count = 8,
    sum = 9,
    sum_of_squares = 10,
    spread = 11,
    sample_variance = 12,
    sample_stddev = 13,
    population_variance = 14,
    population_stddev = 15,
    abs_min = 16,
    abs_max = 17,
    product = 18,
    skewness = 19,
    kurtosis = 20,
    none = 21,
    distinct_count = 22,
    moving_average = 23,
    cumulative_sum = 24,
    moving_sum = 25,
    moving_min = 26,
    moving_max = 27,
    cumulative_product = 28,
    adjacent_count = 29,
};

// "first", ..., the empty name for 21, "unknown" beyond 29.
std::string_view aggregation_name(std::uint64_t value) noexcept;

} // namespace zlk

namespace zlk::timeseries
{

// Whether a function number names an aggregation a node computes (not 21, not a transformation).
bool is_aggregation(std::uint64_t value) noexcept;

// Whether a column of type t accepts the aggregation: blob and string only first, last, min, max, count,
// distinct_count, adjacent_count; timestamp those and spread; double and int64 all of them.
bool accepts(aggregation_type f, kernel::column_type t) noexcept;

// The form of a partial state on the wire; the numbers are the wire's.
enum class state_kind : std::uint8_t
{
    no_data = 0,
    count = 1,
    sum = 2,
    sum_of_squares = 3,
    product = 4,
    geometric = 5,
    harmonic = 6,
    spread = 7,
    extreme = 8,
    variance = 9,
    moments = 10,
    distinct = 11,
    adjacent = 12,
};

// The kind of state an aggregation computes; no_data for a number that isn't an aggregation.
state_kind kind_of(aggregation_type f) noexcept;

// The time of a row without one: both words 0x8000000000000000.
inline constexpr timespec null_time{std::numeric_limits<std::int64_t>::min(),
                                    std::numeric_limits<std::int64_t>::min()};

// A value of a column: double, int64, timestamp, or the bytes of a blob or string.
using column_value = std::variant<double, std::int64_t, timespec, std::string>;

struct timed_value
{
    timespec time;
    column_value value;
};

struct no_data_state
{
};
struct count_state
{
    std::uint64_t count = 0;
};
// For an int64 column `integer` holds the exact sum as far as it fits and `sum` what would have
// overflowed it; for a double column `integer` stays 0.
struct sum_state
{
    std::uint64_t count = 0;
    double sum = 0.0;
    std::int64_t integer = 0;
};
struct sum_of_squares_state
{
    std::uint64_t count = 0;
    double sum = 0.0;
};
struct product_state
{
    std::uint64_t count = 0;
    double product = 1.0;
};
// The product as mantissa * 2^exponent, the mantissa kept in [0.5, 1) so that no long product
// overflows or underflows.
struct geometric_state
{
    std::uint64_t count = 0;
    double mantissa = 1.0;
    std::int64_t exponent = 0;
};
struct harmonic_state
{
    std::uint64_t count = 0;
    double reciprocals = 0.0;
};
struct spread_state
{
    std::uint64_t count = 0;
    timed_value min;
    timed_value max;
};
// The point a first, last, min, max, abs_min or abs_max retains.
struct extreme_state
{
    std::uint64_t count = 0;
    timed_value point;
};
struct variance_state
{
    std::uint64_t count = 0;
    double mean = 0.0;
    double m2 = 0.0;
};
// Σx, Σx², Σx³, Σx⁴.
struct moments_state
{
    std::uint64_t count = 0;
    double s1 = 0.0;
    double s2 = 0.0;
    double s3 = 0.0;
    double s4 = 0.0;
};
// Each distinct value by its wire bytes (a double's with -0.0 taken as 0.0).
struct distinct_state
{
    std::uint64_t count = 0;
    boost::unordered_flat_set<std::string> values;
};
// `count` is the number of runs. `last` is the value of the last row seen, for accumulate point by
// point; it doesn't travel.
struct adjacent_state
{
    std::uint64_t count = 0;
    std::optional<column_value> last;
};

// Alternatives in the order of state_kind.
using aggregation_state =
    std::variant<no_data_state, count_state, sum_state, sum_of_squares_state, product_state, geometric_state,
                 harmonic_state, spread_state, extreme_state, variance_state, moments_state, distinct_state,
                 adjacent_state>;

inline state_kind kind_of(const aggregation_state & s) noexcept
{
    return static_cast<state_kind>(s.index());
}

// Rows of the state: 0 for no data.
std::uint64_t row_count(const aggregation_state & s) noexcept;

// Folding rows. The values of a span are rows in time order; time_at(i) gives the time of row i and is
// asked only of the rows a state retains. Fillers are skipped; no row left gives no_data. The loops
// don't branch on the column type, and allocate only for distinct values and retained bytes. A function
// the values' type doesn't accept gives no_data (a node refuses it before).
struct row_times
{
    // Times of rows in a bucket: the shard's start (ms) and each row's offset (ns).
    std::int64_t shard_start_ms = 0;
    std::span<const std::int64_t> offsets;

    timespec operator()(std::size_t i) const noexcept;
};

aggregation_state fold_rows(aggregation_type f, std::span<const double> values, const row_times & times);
aggregation_state fold_rows(aggregation_type f, std::span<const std::int64_t> values,
                            const row_times & times);
aggregation_state fold_rows(aggregation_type f, std::span<const timespec> values, const row_times & times);
aggregation_state fold_rows(aggregation_type f, std::span<const std::string> values, const row_times & times);

// One point into a state (as if it followed the rows the state holds). REQUIRES: accepts(f, ...).
void accumulate(aggregation_type f, aggregation_state & s, const timespec & t, double v);
void accumulate(aggregation_type f, aggregation_state & s, const timespec & t, std::int64_t v);
void accumulate(aggregation_type f, aggregation_state & s, const timespec & t, const timespec & v);
void accumulate(aggregation_type f, aggregation_state & s, const timespec & t, std::string_view v);

// Combines `later` (the state of rows after those of `into`, as replies come in bucket order) into
// `into`. No data on either side leaves the other. States of different kinds are a bug: code 45 of the
// query category, `into` unchanged.
boost::system::error_code combine(aggregation_type f, aggregation_state & into, aggregation_state && later);

// The integer sum of an int64 column in its two words: the total is integer + rest.
struct int64_sum
{
    std::int64_t integer = 0;
    double rest = 0.0;

    double total() const noexcept { return static_cast<double>(integer) + rest; }
};

using result_value = std::variant<std::monostate, double, std::int64_t, timespec, std::string, int64_sum>;

// What a function gives: the rows it saw, the time of its point (null_time when it has none) and its
// value (monostate for no value).
struct aggregate_result
{
    std::uint64_t count = 0;
    timespec time = null_time;
    result_value value;
};

// The final step. `column` is the type of the column aggregated. A state that doesn't match its
// function is code 45 of the query category with no value.
boost::system::error_code finalise(aggregation_type f, kernel::column_type column, aggregation_state && s,
                                   aggregate_result & out);

// The wire form: u8 kind, varint row count, then the kind's fields (docs/protocol.md). Values are f64,
// i64, a time or a byte buffer by column type. Appends to `out`.
void encode_state(const aggregation_state & s, kernel::column_type column, std::vector<std::uint8_t> & out);
// Every read checked: a truncated or unknown state is a serialization error.
boost::system::error_code decode_state(serialization::cursor & c, kernel::column_type column,
                                       aggregation_state & out);

} // namespace zlk::timeseries
