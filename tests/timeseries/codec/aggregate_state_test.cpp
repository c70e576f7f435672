// Partial states of aggregations: each function against a plain computation over the same rows, splits
// combined against the whole, the numerically hard cases, and the wire form.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <set>

#include "timeseries/codec/aggregation_state.hpp"

namespace
{

using namespace zlk::timeseries;
using zlk::aggregation_type;
using zlk::timespec;
using ct = zlk::kernel::column_type;
using fn = aggregation_type;

// Rows of one bucket starting at 1000 s, one every 1.5 ms.
struct bucket_rows
{
    std::vector<std::int64_t> offsets;

    explicit bucket_rows(std::size_t n)
    {
        for (std::size_t i = 0; i < n; ++i)
        {
            offsets.push_back(static_cast<std::int64_t>(i) * 1500000);
        }
    }
    row_times times(std::size_t from = 0, std::size_t to = SIZE_MAX) const
    {
        to = std::min(to, offsets.size());
        return row_times{1000000, std::span(offsets).subspan(from, to - from)};
    }
};

template <typename V>
aggregation_state fold_split(aggregation_type f, const std::vector<V> & values, const bucket_rows & rows,
                             std::vector<std::size_t> cuts)
{
    aggregation_state whole = no_data_state{};
    cuts.push_back(values.size());
    std::size_t from = 0;
    for (const std::size_t to : cuts)
    {
        auto part = fold_rows(f, std::span<const V>(values).subspan(from, to - from), rows.times(from, to));
        EXPECT_FALSE(combine(f, whole, std::move(part)));
        from = to;
    }
    return whole;
}

aggregate_result final_of(aggregation_type f, ct column, aggregation_state s)
{
    aggregate_result r;
    EXPECT_FALSE(finalise(f, column, std::move(s), r));
    return r;
}

double as_double(const aggregate_result & r)
{
    if (const double * d = std::get_if<double>(&r.value))
    {
        return *d;
    }
    if (const std::int64_t * i = std::get_if<std::int64_t>(&r.value))
    {
        return static_cast<double>(*i);
    }
    if (const int64_sum * s = std::get_if<int64_sum>(&r.value))
    {
        return s->total();
    }
    ADD_FAILURE() << "no numeric value, alternative " << r.value.index();
    return 0;
}

// The plain computation of every numeric function over a whole series.
double expected_value(aggregation_type f, const std::vector<double> & x)
{
    const double n = static_cast<double>(x.size());
    auto sum_of = [&](auto g)
    { return std::accumulate(x.begin(), x.end(), 0.0, [&](double a, double v) { return a + g(v); }); };
    const double mean = sum_of([](double v) { return v; }) / n;
    const double m2 = sum_of([&](double v) { return (v - mean) * (v - mean); });
    const double m3 = sum_of([&](double v) { return std::pow(v - mean, 3); }) / n;
    const double m4 = sum_of([&](double v) { return std::pow(v - mean, 4); }) / n;
    switch (f)
    {
    case fn::first:
        return x.front();
    case fn::last:
        return x.back();
    case fn::min:
        return *std::min_element(x.begin(), x.end());
    case fn::max:
        return *std::max_element(x.begin(), x.end());
    case fn::abs_min:
        return *std::min_element(x.begin(), x.end(),
                                 [](double a, double b) { return std::fabs(a) < std::fabs(b); });
    case fn::abs_max:
        return *std::max_element(x.begin(), x.end(),
                                 [](double a, double b) { return std::fabs(a) < std::fabs(b); });
    case fn::arithmetic_mean:
        return mean;
    case fn::harmonic_mean:
        return n / sum_of([](double v) { return 1.0 / v; });
    case fn::geometric_mean:
        return std::exp(sum_of([](double v) { return std::log(v); }) / n);
    case fn::quadratic_mean:
        return std::sqrt(sum_of([](double v) { return v * v; }) / n);
    case fn::count:
        return n;
    case fn::sum:
        return sum_of([](double v) { return v; });
    case fn::sum_of_squares:
        return sum_of([](double v) { return v * v; });
    case fn::spread:
        return *std::max_element(x.begin(), x.end()) - *std::min_element(x.begin(), x.end());
    case fn::sample_variance:
        return m2 / (n - 1);
    case fn::sample_stddev:
        return std::sqrt(m2 / (n - 1));
    case fn::population_variance:
        return m2 / n;
    case fn::population_stddev:
        return std::sqrt(m2 / n);
    case fn::product:
        return std::accumulate(x.begin(), x.end(), 1.0, std::multiplies<>());
    case fn::skewness:
        return m3 / std::pow(m2 / n, 1.5);
    case fn::kurtosis:
        return m4 / ((m2 / n) * (m2 / n));
    case fn::distinct_count:
        return static_cast<double>(std::set<double>(x.begin(), x.end()).size());
    default:
        ADD_FAILURE() << "no plain computation for " << zlk::aggregation_name(static_cast<std::uint64_t>(f));
        return 0;
    }
}

const std::vector<aggregation_type> numeric_functions = {fn::first,
                                                         fn::last,
                                                         fn::min,
                                                         fn::max,
                                                         fn::arithmetic_mean,
                                                         fn::harmonic_mean,
                                                         fn::geometric_mean,
                                                         fn::quadratic_mean,
                                                         fn::count,
                                                         fn::sum,
                                                         fn::sum_of_squares,
                                                         fn::spread,
                                                         fn::sample_variance,
                                                         fn::sample_stddev,
                                                         fn::population_variance,
                                                         fn::population_stddev,
                                                         fn::abs_min,
                                                         fn::abs_max,
                                                         fn::product,
                                                         fn::skewness,
                                                         fn::kurtosis,
                                                         fn::distinct_count};

TEST(aggregation_state, every_numeric_function_matches_a_plain_computation_whole_and_split)
{
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> d(0.5, 2.0);
    std::vector<double> x(1000);
    for (double & v : x)
    {
        // Rounded to a few values, so that distinct_count has repeats.
        v = std::round(d(random) * 64.0) / 64.0;
    }
    const bucket_rows rows(x.size());
    for (const aggregation_type f : numeric_functions)
    {
        SCOPED_TRACE(zlk::aggregation_name(static_cast<std::uint64_t>(f)));
        const double expected = expected_value(f, x);
        const auto whole = final_of(f, ct::double_, fold_rows(f, std::span<const double>(x), rows.times()));
        const auto split = final_of(f, ct::double_, fold_split(f, x, rows, {1, 300, 301, 777}));
        EXPECT_EQ(whole.count, x.size());
        EXPECT_EQ(split.count, x.size());
        const double tolerance = std::max(std::fabs(expected) * 1e-9, 1e-9);
        EXPECT_NEAR(as_double(whole), expected, tolerance);
        EXPECT_NEAR(as_double(split), expected, tolerance);
    }
}

TEST(aggregation_state, extremes_keep_the_time_of_their_row)
{
    const std::vector<std::int64_t> x = {5, -9, 7, 9, -9, 2};
    const bucket_rows rows(x.size());
    auto time_of = [&](std::size_t i) { return rows.times()(i); };
    const std::vector<std::pair<aggregation_type, std::size_t>> cases = {
        {fn::first, 0}, {fn::last, 5}, {fn::min, 1}, {fn::max, 3}, {fn::abs_min, 5}, {fn::abs_max, 1}};
    for (const auto & [f, row] : cases)
    {
        SCOPED_TRACE(zlk::aggregation_name(static_cast<std::uint64_t>(f)));
        for (const auto & cuts : {std::vector<std::size_t>{}, std::vector<std::size_t>{2, 4}})
        {
            const auto r = final_of(f, ct::int64, fold_split(f, x, rows, cuts));
            EXPECT_EQ(std::get<std::int64_t>(r.value), x[row]);
            EXPECT_EQ(r.time, time_of(row));
        }
    }
    // The bucket at 1000 s: row 3 lies 4.5 ms in.
    EXPECT_EQ(time_of(3), (timespec{1000, 4500000}));
}

// The row a plain walk keeps: the first non-null row that nothing after it beats strictly.
template <typename V>
std::pair<std::size_t, std::uint64_t> plain_extreme(const std::vector<V> & x, bool want_max, V null)
{
    std::size_t best = x.size();
    std::uint64_t rows = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
    {
        if (std::memcmp(&x[i], &null, sizeof(V)) == 0)
        {
            continue;
        }
        ++rows;
        if (best == x.size() || (want_max ? x[best] < x[i] : x[i] < x[best]))
        {
            best = i;
        }
    }
    return {best, rows};
}

TEST(aggregation_state, min_and_max_of_long_series_pick_the_row_a_plain_walk_picks)
{
    const double filler = std::bit_cast<double>(0x7FF8000000000000ull);
    const double other_nan = std::bit_cast<double>(0x7FF0000000000001ull);
    std::mt19937_64 random(7);
    for (int round = 0; round < 40; ++round)
    {
        // Few distinct values, so ties are many; nulls, NaNs and signed zeros sprinkled in; lengths
        // around the block of the fast path.
        const std::size_t n = 1 + random() % 1200;
        std::vector<double> d(n);
        std::vector<std::int64_t> i64(n);
        for (std::size_t k = 0; k < n; ++k)
        {
            const auto pick = random() % 20;
            d[k] = pick == 0   ? filler
                   : pick == 1 ? other_nan
                   : pick == 2 ? -0.0
                               : static_cast<double>(random() % 9) - 4;
            i64[k] = pick == 0 ? INT64_MIN : static_cast<std::int64_t>(random() % 9) - 4;
        }
        if (round % 5 == 0)
        {
            d[0] = other_nan; // a NaN first stays the answer
        }
        const bucket_rows rows(n);
        for (const bool want_max : {false, true})
        {
            const aggregation_type f = want_max ? fn::max : fn::min;
            SCOPED_TRACE(testing::Message() << "round " << round << (want_max ? " max" : " min"));
            const auto [db, drows] = plain_extreme(d, want_max, filler);
            const aggregation_state ds = fold_rows(f, std::span<const double>(d), rows.times());
            if (drows == 0)
            {
                EXPECT_TRUE(std::holds_alternative<no_data_state>(ds));
                continue;
            }
            const auto * de = std::get_if<extreme_state>(&ds);
            ASSERT_TRUE(de);
            EXPECT_EQ(de->count, drows);
            EXPECT_EQ(de->point.time, rows.times()(db));
            EXPECT_EQ(std::bit_cast<std::uint64_t>(std::get<double>(de->point.value)),
                      std::bit_cast<std::uint64_t>(d[db]));

            const auto [ib, irows] = plain_extreme(i64, want_max, std::int64_t{INT64_MIN});
            const aggregation_state is = fold_rows(f, std::span<const std::int64_t>(i64), rows.times());
            if (irows == 0)
            {
                EXPECT_TRUE(std::holds_alternative<no_data_state>(is));
                continue;
            }
            const auto * ie = std::get_if<extreme_state>(&is);
            ASSERT_TRUE(ie);
            EXPECT_EQ(ie->count, irows);
            EXPECT_EQ(ie->point.time, rows.times()(ib));
            EXPECT_EQ(std::get<std::int64_t>(ie->point.value), i64[ib]);
        }
    }
}

TEST(aggregation_state, int64_sums_beyond_one_word_stay_exact_in_their_two_words)
{
    const std::int64_t max = std::numeric_limits<std::int64_t>::max();
    auto exact_sum = [](const std::vector<std::int64_t> & x)
    {
        __int128 exact = 0;
        for (const std::int64_t v : x)
        {
            exact += v;
        }
        return exact;
    };
    // What overflows goes to the double word; a small overflow stays exact in it.
    const std::vector<std::int64_t> small = {max, 1, -1, 2, -max, -3};
    // Three times the largest word: exact to the double's precision.
    const std::vector<std::int64_t> large = {max - 5, max - 5, 3, max - 5, -7, max - 5};
    const bucket_rows rows(large.size() + 1);
    for (const auto & cuts : {std::vector<std::size_t>{}, std::vector<std::size_t>{1, 3}})
    {
        const auto r = final_of(fn::sum, ct::int64, fold_split(fn::sum, small, rows, cuts));
        const int64_sum s = std::get<int64_sum>(r.value);
        EXPECT_EQ(static_cast<__int128>(s.integer) + static_cast<__int128>(s.rest), exact_sum(small));

        const auto l = final_of(fn::sum, ct::int64, fold_split(fn::sum, large, rows, cuts));
        const double expected = static_cast<double>(exact_sum(large));
        EXPECT_NEAR(std::get<int64_sum>(l.value).total(), expected, expected * 1e-15);
        const auto mean =
            final_of(fn::arithmetic_mean, ct::int64, fold_split(fn::arithmetic_mean, large, rows, cuts));
        EXPECT_NEAR(std::get<double>(mean.value), expected / 6.0, expected * 1e-15);
    }
    // A mean of values whose sum fits exactly keeps the fraction a double of the sum would lose.
    const std::vector<std::int64_t> y = {(1LL << 60) + 1, (1LL << 60) + 2};
    const auto mean =
        final_of(fn::arithmetic_mean, ct::int64,
                 fold_rows(fn::arithmetic_mean, std::span<const std::int64_t>(y), bucket_rows(2).times()));
    EXPECT_EQ(std::get<double>(mean.value), static_cast<double>(1LL << 60) + 1.5);
}

TEST(aggregation_state, variance_and_geometric_mean_hold_on_long_series)
{
    // Large offset, small spread: the naive Σx² − (Σx)²/n loses every digit here.
    std::mt19937_64 random(11);
    std::normal_distribution<double> noise(0.0, 1.0);
    std::vector<double> x(200000);
    for (double & v : x)
    {
        v = 1e9 + noise(random);
    }
    const bucket_rows rows(x.size());
    const double expected = expected_value(fn::population_variance, x);
    const std::vector<std::size_t> cuts = {12345, 100000, 150001};
    EXPECT_NEAR(as_double(final_of(fn::population_variance, ct::double_,
                                   fold_split(fn::population_variance, x, rows, cuts))),
                expected, expected * 1e-6);
    EXPECT_NEAR(
        as_double(final_of(fn::sample_stddev, ct::double_, fold_split(fn::sample_stddev, x, rows, cuts))),
        std::sqrt(expected_value(fn::sample_variance, x)), 1e-6);

    // A product that no double holds: 1e300 ^ 100000.
    std::vector<double> huge(100000, 1e300);
    huge[17] = 1e-300;
    const double expected_geo = std::exp((99999.0 * std::log(1e300) + std::log(1e-300)) / 100000.0);
    const bucket_rows long_rows(huge.size());
    EXPECT_NEAR(as_double(final_of(fn::geometric_mean, ct::double_,
                                   fold_split(fn::geometric_mean, huge, long_rows, {50000}))),
                expected_geo, expected_geo * 1e-9);
}

TEST(aggregation_state, empty_input_counts_zero_and_has_no_other_value)
{
    const std::vector<double> none;
    for (const aggregation_type f : numeric_functions)
    {
        SCOPED_TRACE(zlk::aggregation_name(static_cast<std::uint64_t>(f)));
        aggregation_state s = fold_rows(f, std::span<const double>(none), row_times{});
        EXPECT_TRUE(std::holds_alternative<no_data_state>(s));
        const auto r = final_of(f, ct::double_, std::move(s));
        EXPECT_EQ(r.count, 0u);
        EXPECT_EQ(r.time, null_time);
        if (f == fn::count || f == fn::distinct_count)
        {
            EXPECT_EQ(std::get<std::int64_t>(r.value), 0);
        }
        else
        {
            EXPECT_TRUE(std::holds_alternative<std::monostate>(r.value));
        }
    }
}

TEST(aggregation_state, degenerate_inputs_follow_their_rules)
{
    const bucket_rows rows(1000);
    auto run = [&](aggregation_type f, const std::vector<double> & x)
    { return final_of(f, ct::double_, fold_rows(f, std::span<const double>(x), rows.times(0, x.size()))); };

    EXPECT_TRUE(std::holds_alternative<std::monostate>(run(fn::sample_variance, {4.0}).value));
    EXPECT_EQ(std::get<double>(run(fn::population_variance, {4.0}).value), 0.0);
    EXPECT_EQ(std::get<double>(run(fn::first, {4.0}).value), 4.0);

    // Reciprocals that cancel leave no harmonic mean.
    EXPECT_TRUE(std::holds_alternative<std::monostate>(run(fn::harmonic_mean, {2.0, -2.0, 4.0, -4.0}).value));

    // A constant column has no spread to standardise by, rounding of 0.1 notwithstanding.
    const std::vector<double> constant(1000, 0.1);
    EXPECT_TRUE(std::isnan(std::get<double>(run(fn::skewness, constant).value)));
    EXPECT_TRUE(std::isnan(std::get<double>(run(fn::kurtosis, constant).value)));
}

TEST(aggregation_state, fillers_of_the_batch_writer_are_skipped_as_nulls)
{
    const double nan_filler = std::bit_cast<double>(0x7FF8000000000000ULL);
    const std::int64_t int_filler = std::numeric_limits<std::int64_t>::min();
    const bucket_rows rows(5);
    const std::vector<double> d = {nan_filler, 2.0, nan_filler, 4.0, nan_filler};
    EXPECT_EQ(as_double(final_of(fn::arithmetic_mean, ct::double_,
                                 fold_rows(fn::arithmetic_mean, std::span<const double>(d), rows.times()))),
              3.0);
    EXPECT_EQ(
        final_of(fn::first, ct::double_, fold_rows(fn::first, std::span<const double>(d), rows.times())).time,
        rows.times()(1));
    EXPECT_EQ(
        final_of(fn::last, ct::double_, fold_rows(fn::last, std::span<const double>(d), rows.times())).time,
        rows.times()(3));
    const std::vector<std::int64_t> i = {int_filler, 5, int_filler};
    EXPECT_EQ(
        std::get<std::int64_t>(
            final_of(fn::min, ct::int64, fold_rows(fn::min, std::span<const std::int64_t>(i), rows.times()))
                .value),
        5);
    const std::vector<timespec> t = {timespec{int_filler, int_filler}};
    EXPECT_EQ(
        final_of(fn::count, ct::timestamp, fold_rows(fn::count, std::span<const timespec>(t), rows.times()))
            .count,
        0u);
    const std::vector<std::string> b = {"", "x", ""};
    EXPECT_EQ(
        final_of(fn::count, ct::blob, fold_rows(fn::count, std::span<const std::string>(b), rows.times()))
            .count,
        1u);
}

TEST(aggregation_state, byte_values_compare_as_unsigned_bytes_and_timestamps_spread_as_durations)
{
    const std::vector<std::string> b = {"b", "\xFF", "a", "ab", "b", "b"};
    const bucket_rows rows(b.size());
    auto run = [&](aggregation_type f) { return final_of(f, ct::string, fold_split(f, b, rows, {3})); };
    EXPECT_EQ(std::get<std::string>(run(fn::max).value), "\xFF");
    EXPECT_EQ(std::get<std::string>(run(fn::min).value), "a");
    EXPECT_EQ(std::get<std::int64_t>(run(fn::distinct_count).value), 4);
    // Runs: b | ff | a | ab | b b, the split between rows 2 and 3 changing nothing.
    EXPECT_EQ(std::get<std::int64_t>(run(fn::adjacent_count).value), 5);

    const std::vector<timespec> t = {{10, 900000000}, {3, 0}, {12, 100000000}};
    const auto spread = final_of(fn::spread, ct::timestamp,
                                 fold_rows(fn::spread, std::span<const timespec>(t), bucket_rows(3).times()));
    EXPECT_EQ(std::get<timespec>(spread.value), (timespec{9, 100000000}));
}

TEST(aggregation_state, accepted_column_types_follow_the_table_of_functions)
{
    for (std::uint64_t v = 0; v < 32; ++v)
    {
        const auto f = static_cast<aggregation_type>(v);
        const bool agg = v <= 29 && v != 21 && (v < 23 || v > 28);
        EXPECT_EQ(is_aggregation(v), agg) << v;
        const bool any = agg && (f == fn::first || f == fn::last || f == fn::min || f == fn::max ||
                                 f == fn::count || f == fn::distinct_count || f == fn::adjacent_count);
        EXPECT_EQ(accepts(f, ct::blob), any) << v;
        EXPECT_EQ(accepts(f, ct::string), any) << v;
        EXPECT_EQ(accepts(f, ct::timestamp), any || f == fn::spread) << v;
        EXPECT_EQ(accepts(f, ct::double_), agg) << v;
        EXPECT_EQ(accepts(f, ct::int64), agg) << v;
    }
    EXPECT_EQ(zlk::aggregation_name(29), "adjacent_count");
    EXPECT_EQ(zlk::aggregation_name(21), "");
    EXPECT_EQ(zlk::aggregation_name(30), "unknown");
}

TEST(aggregation_state, point_by_point_accumulation_equals_folding_the_rows)
{
    const std::vector<double> x = {3.0, 1.0, 1.0, 4.0, 1.0, 5.0, 9.0, 2.0, 6.0};
    const bucket_rows rows(x.size());
    for (const aggregation_type f :
         {fn::first, fn::last, fn::max, fn::sum, fn::population_variance, fn::adjacent_count})
    {
        SCOPED_TRACE(zlk::aggregation_name(static_cast<std::uint64_t>(f)));
        aggregation_state s;
        for (std::size_t i = 0; i < x.size(); ++i)
        {
            accumulate(f, s, rows.times()(i), x[i]);
        }
        const auto a = final_of(f, ct::double_, std::move(s));
        const auto b = final_of(f, ct::double_, fold_rows(f, std::span<const double>(x), rows.times()));
        EXPECT_EQ(a.count, b.count);
        EXPECT_EQ(a.time, b.time);
        EXPECT_DOUBLE_EQ(as_double(a), as_double(b));
    }
}

TEST(aggregation_state, states_of_different_kinds_dont_combine)
{
    aggregation_state a = count_state{3};
    EXPECT_TRUE(combine(fn::count, a, sum_state{1, 2.0, 0}));
    EXPECT_EQ(std::get<count_state>(a).count, 3u);
    aggregate_result r;
    EXPECT_EQ(finalise(fn::sum, ct::double_, count_state{3}, r).value(), 45);
}

TEST(aggregation_state, every_kind_survives_the_wire_and_every_truncation_is_refused)
{
    struct sample
    {
        aggregation_type f;
        ct column;
        std::vector<double> d;
        std::vector<std::int64_t> i;
        std::vector<timespec> t;
        std::vector<std::string> b;
    };
    const std::vector<sample> samples = {
        {fn::count, ct::double_, {1, 2}, {}, {}, {}},
        {fn::sum, ct::int64, {}, {INT64_MAX, 9}, {}, {}},
        {fn::arithmetic_mean, ct::double_, {1.5, 2}, {}, {}, {}},
        {fn::quadratic_mean, ct::double_, {1, 2}, {}, {}, {}},
        {fn::product, ct::double_, {3, 2}, {}, {}, {}},
        {fn::geometric_mean, ct::int64, {}, {3, 2000}, {}, {}},
        {fn::harmonic_mean, ct::double_, {3, 2}, {}, {}, {}},
        {fn::spread, ct::timestamp, {}, {}, {{5, 1}, {-7, 999999999}}, {}},
        {fn::max, ct::blob, {}, {}, {}, {"abc", "zz"}},
        {fn::first, ct::timestamp, {}, {}, {{5, 1}}, {}},
        {fn::sample_variance, ct::double_, {1, 2, 7}, {}, {}, {}},
        {fn::kurtosis, ct::double_, {1, 2, 7}, {}, {}, {}},
        {fn::distinct_count, ct::string, {}, {}, {}, {"a", "b", "a"}},
        {fn::distinct_count, ct::timestamp, {}, {}, {{1, 2}, {-1, 5}}, {}},
        {fn::adjacent_count, ct::int64, {}, {1, 1, 2}, {}, {}},
        {fn::min, ct::double_, {}, {}, {}, {}},
    };
    for (const sample & s : samples)
    {
        SCOPED_TRACE(zlk::aggregation_name(static_cast<std::uint64_t>(s.f)));
        const bucket_rows rows(4);
        aggregation_state state;
        switch (s.column)
        {
        case ct::double_:
            state = fold_rows(s.f, std::span<const double>(s.d), rows.times(0, s.d.size()));
            break;
        case ct::int64:
            state = fold_rows(s.f, std::span<const std::int64_t>(s.i), rows.times(0, s.i.size()));
            break;
        case ct::timestamp:
            state = fold_rows(s.f, std::span<const timespec>(s.t), rows.times(0, s.t.size()));
            break;
        default:
            state = fold_rows(s.f, std::span<const std::string>(s.b), rows.times(0, s.b.size()));
            break;
        }
        std::vector<std::uint8_t> wire;
        encode_state(state, s.column, wire);
        zlk::serialization::cursor c(wire);
        aggregation_state back;
        ASSERT_FALSE(decode_state(c, s.column, back));
        EXPECT_EQ(c.remaining, 0u);
        std::vector<std::uint8_t> again;
        encode_state(back, s.column, again);
        EXPECT_EQ(again, wire);
        aggregate_result r1;
        aggregate_result r2;
        EXPECT_FALSE(finalise(s.f, s.column, std::move(state), r1));
        EXPECT_FALSE(finalise(s.f, s.column, std::move(back), r2));
        EXPECT_EQ(r1.count, r2.count);
        EXPECT_EQ(r1.time, r2.time);
        EXPECT_EQ(r1.value.index(), r2.value.index());

        for (std::size_t cut = 0; cut < wire.size(); ++cut)
        {
            zlk::serialization::cursor short_c(wire.data(), cut);
            aggregation_state ignored;
            EXPECT_TRUE(decode_state(short_c, s.column, ignored)) << "cut at " << cut;
        }
    }
    // A sum of no rows, as only a confused node would send it, finalises without dividing by zero.
    const std::uint8_t empty_sum[] = {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    zlk::serialization::cursor sum_c(empty_sum, sizeof empty_sum);
    aggregation_state sum;
    ASSERT_FALSE(decode_state(sum_c, ct::int64, sum));
    EXPECT_TRUE(std::holds_alternative<std::monostate>(
        final_of(fn::arithmetic_mean, ct::int64, std::move(sum)).value));

    const std::uint8_t unknown_kind[] = {13, 0};
    zlk::serialization::cursor c(unknown_kind, sizeof unknown_kind);
    aggregation_state ignored;
    EXPECT_TRUE(decode_state(c, ct::double_, ignored));
}

} // namespace
