// The aggregate functions end to end, on rings of one and three nodes: data written by the column
// inserts, aggregations over ranges that span several buckets, compared with a plain computation over
// the points written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "ts_test_support.hpp"

namespace
{

using zlk::ts_test::at;
using zlk::ts_test::range;
using zlk::ts_test::ts_cluster;

constexpr std::int64_t null_word = std::numeric_limits<std::int64_t>::min();
// Ten-second shards; the points go one every 3.5 s over 70 s.
constexpr std::uint64_t shard_ms = 10000;

class aggregates : public ::testing::TestWithParam<std::size_t>
{
protected:
    aggregates()
        : c(GetParam())
    {
        const zlk_ts_column_info columns[] = {{"d", zlk_ts_column_double},
                                              {"i", zlk_ts_column_int64},
                                              {"t", zlk_ts_column_timestamp},
                                              {"s", zlk_ts_column_string},
                                              {"b", zlk_ts_column_blob}};
        EXPECT_EQ(zlk_ts_create(c.h, "table", shard_ms, columns, 5), zlk_e_ok);
        for (int k = 0; k < 20; ++k)
        {
            const zlk_timespec_t t = at(k * 3 + k / 2, (k % 2) * 500000000);
            doubles.push_back({t, std::sin(k) * 10.0 + 1.0});
            ints.push_back({t, k % 3 == 0 ? std::numeric_limits<std::int64_t>::max() - k : -k});
            stamps.push_back({t, at(1000 - k * k, k)});
            names.push_back("name-" + std::to_string(k % 7));
        }
        for (std::size_t k = 0; k < names.size(); ++k)
        {
            strings.push_back({doubles[k].timestamp, names[k].c_str(), names[k].size()});
            blobs.push_back({doubles[k].timestamp, names[k].data(), names[k].size()});
        }
        EXPECT_EQ(zlk_ts_double_insert(c.h, "table", "d", doubles.data(), doubles.size()), zlk_e_ok);
        EXPECT_EQ(zlk_ts_int64_insert(c.h, "table", "i", ints.data(), ints.size()), zlk_e_ok);
        EXPECT_EQ(zlk_ts_timestamp_insert(c.h, "table", "t", stamps.data(), stamps.size()), zlk_e_ok);
        EXPECT_EQ(zlk_ts_string_insert(c.h, "table", "s", strings.data(), strings.size()), zlk_e_ok);
        EXPECT_EQ(zlk_ts_blob_insert(c.h, "table", "b", blobs.data(), blobs.size()), zlk_e_ok);
    }

    static bool inside(const zlk_timespec_t & t, const zlk_ts_range_t & r)
    {
        auto key = [](const zlk_timespec_t & x) { return std::pair(x.tv_sec, x.tv_nsec); };
        return key(r.begin) <= key(t) && key(t) < key(r.end);
    }

    std::vector<double> doubles_in(const zlk_ts_range_t & r) const
    {
        std::vector<double> out;
        for (const auto & p : doubles)
        {
            if (inside(p.timestamp, r))
            {
                out.push_back(p.value);
            }
        }
        return out;
    }

    ts_cluster c;
    std::vector<zlk_ts_double_point> doubles;
    std::vector<zlk_ts_int64_point> ints;
    std::vector<zlk_ts_timestamp_point> stamps;
    std::vector<std::string> names;
    std::vector<zlk_ts_string_point> strings;
    std::vector<zlk_ts_blob_point> blobs;
};

zlk_ts_double_aggregation double_aggregation(zlk_ts_aggregation_type type, zlk_ts_range_t r)
{
    zlk_ts_double_aggregation a{};
    a.type = type;
    a.range = r;
    return a;
}

TEST_P(aggregates, double_aggregations_over_several_buckets_match_the_points_written)
{
    // 4.5 s to 61 s: six buckets, cut inside the first and the last; the second range overlaps it.
    const zlk_ts_range_t wide = range(at(4, 500000000), at(61));
    const zlk_ts_range_t overlap = range(at(30), at(45));
    std::vector<zlk_ts_double_aggregation> asked = {double_aggregation(zlk_agg_count, wide),
                                                    double_aggregation(zlk_agg_sum, wide),
                                                    double_aggregation(zlk_agg_arithmetic_mean, wide),
                                                    double_aggregation(zlk_agg_min, wide),
                                                    double_aggregation(zlk_agg_max, overlap),
                                                    double_aggregation(zlk_agg_first, wide),
                                                    double_aggregation(zlk_agg_last, overlap),
                                                    double_aggregation(zlk_agg_population_variance, wide),
                                                    double_aggregation(zlk_agg_spread, overlap),
                                                    double_aggregation(zlk_agg_sum, overlap)};
    ASSERT_EQ(zlk_ts_double_aggregate(c.h, "table", "d", asked.data(), asked.size()), zlk_e_ok)
        << c.last_error_text();

    for (const zlk_ts_double_aggregation & a : asked)
    {
        SCOPED_TRACE(static_cast<int>(a.type));
        const std::vector<double> x = doubles_in(a.range);
        ASSERT_FALSE(x.empty());
        EXPECT_EQ(a.count, x.size());
        const double n = static_cast<double>(x.size());
        const double sum = std::accumulate(x.begin(), x.end(), 0.0);
        const double mean = sum / n;
        double m2 = 0;
        for (const double v : x)
        {
            m2 += (v - mean) * (v - mean);
        }
        const auto [lo, hi] = std::minmax_element(x.begin(), x.end());
        double expected = 0;
        switch (a.type)
        {
        case zlk_agg_count:
            expected = n;
            break;
        case zlk_agg_sum:
            expected = sum;
            break;
        case zlk_agg_arithmetic_mean:
            expected = mean;
            break;
        case zlk_agg_min:
            expected = *lo;
            break;
        case zlk_agg_max:
            expected = *hi;
            break;
        case zlk_agg_first:
            expected = x.front();
            break;
        case zlk_agg_last:
            expected = x.back();
            break;
        case zlk_agg_population_variance:
            expected = m2 / n;
            break;
        case zlk_agg_spread:
            expected = *hi - *lo;
            break;
        default:
            FAIL();
        }
        EXPECT_NEAR(a.result.value, expected, 1e-9);
    }
    // The retained point's time: the first of the wide range is the row at 7 s.
    EXPECT_EQ(asked[5].result.timestamp.tv_sec, 7);
    EXPECT_EQ(asked[5].result.timestamp.tv_nsec, 0);
    EXPECT_EQ(asked[0].result.timestamp.tv_sec, null_word);
}

TEST_P(aggregates, an_empty_range_counts_zero_and_sums_to_no_value)
{
    std::vector<zlk_ts_double_aggregation> asked = {
        double_aggregation(zlk_agg_count, range(at(500), at(600))),
        double_aggregation(zlk_agg_sum, range(at(500), at(600))),
        double_aggregation(zlk_agg_max, range(at(1), at(2)))};
    asked[1].result.value = 42;
    ASSERT_EQ(zlk_ts_double_aggregate(c.h, "table", "d", asked.data(), asked.size()), zlk_e_ok);
    for (const auto & a : asked)
    {
        EXPECT_EQ(a.count, 0u);
        EXPECT_EQ(a.result.value, 0.0);
        EXPECT_EQ(a.result.timestamp.tv_sec, null_word);
        EXPECT_EQ(a.result.timestamp.tv_nsec, null_word);
    }
}

TEST_P(aggregates, int64_sums_keep_their_exact_value_beyond_one_word)
{
    zlk_ts_int64_aggregation asked[3]{};
    asked[0].type = zlk_agg_sum;
    asked[1].type = zlk_agg_arithmetic_mean;
    asked[2].type = zlk_agg_abs_max;
    for (auto & a : asked)
    {
        a.range = range(at(0), at(100));
    }
    ASSERT_EQ(zlk_ts_int64_aggregate(c.h, "table", "i", asked, 3), zlk_e_ok) << c.last_error_text();
    long double exact = 0;
    for (const auto & p : ints)
    {
        exact += static_cast<long double>(p.value);
    }
    EXPECT_EQ(asked[0].count, ints.size());
    EXPECT_NEAR(asked[0].exact_result, static_cast<double>(exact), static_cast<double>(exact) * 1e-15);
    const double mean = static_cast<double>(exact / ints.size());
    EXPECT_NEAR(asked[1].exact_result, mean, mean * 1e-14);
    // The largest magnitude is the row 0, at time 0.
    EXPECT_EQ(asked[2].result.value, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(asked[2].result.timestamp.tv_sec, 0);
}

TEST_P(aggregates, timestamp_and_byte_columns_give_their_own_kinds_of_value)
{
    zlk_ts_timestamp_aggregation t[2]{};
    t[0].type = zlk_agg_spread;
    t[1].type = zlk_agg_last;
    t[0].range = t[1].range = range(at(0), at(100));
    ASSERT_EQ(zlk_ts_timestamp_aggregate(c.h, "table", "t", t, 2), zlk_e_ok) << c.last_error_text();
    // Values run from 1000 s (row 0) down to 639 s and 19 ns (row 19).
    EXPECT_EQ(t[0].result.value.tv_sec, 360);
    EXPECT_EQ(t[0].result.value.tv_nsec, 999999981);
    EXPECT_EQ(t[1].result.value.tv_sec, 639);
    EXPECT_EQ(t[1].result.value.tv_nsec, 19);

    zlk_ts_string_aggregation s[3]{};
    s[0].type = zlk_agg_max;
    s[1].type = zlk_agg_distinct_count;
    s[2].type = zlk_agg_count;
    for (auto & a : s)
    {
        a.range = range(at(0), at(100));
    }
    ASSERT_EQ(zlk_ts_string_aggregate(c.h, "table", "s", s, 3), zlk_e_ok) << c.last_error_text();
    ASSERT_NE(s[0].result.content, nullptr);
    EXPECT_EQ(std::string(s[0].result.content, s[0].result.content_length), "name-6");
    EXPECT_EQ(s[1].count, 7u);
    EXPECT_EQ(s[2].count, names.size());
    zlk_release(c.h, s[0].result.content);

    zlk_ts_blob_aggregation b{};
    b.type = zlk_agg_first;
    b.range = range(at(7), at(100));
    ASSERT_EQ(zlk_ts_blob_aggregate(c.h, "table", "b", &b, 1), zlk_e_ok) << c.last_error_text();
    ASSERT_NE(b.result.content, nullptr);
    // The row at 7 s is row 2.
    EXPECT_EQ(std::string(static_cast<const char *>(b.result.content), b.result.content_length), names[2]);
    EXPECT_EQ(b.result.timestamp.tv_sec, 7);
    zlk_release(c.h, b.result.content);
}

TEST_P(aggregates, functions_and_columns_of_the_wrong_type_are_refused)
{
    zlk_ts_string_aggregation s{};
    s.type = zlk_agg_arithmetic_mean;
    s.range = range(at(0), at(100));
    EXPECT_EQ(zlk_ts_string_aggregate(c.h, "table", "s", &s, 1), zlk_e_incompatible_type);

    zlk_ts_double_aggregation d = double_aggregation(zlk_agg_sum, range(at(0), at(100)));
    EXPECT_EQ(zlk_ts_double_aggregate(c.h, "table", "i", &d, 1), zlk_e_incompatible_type);
    EXPECT_EQ(zlk_ts_blob_aggregate(c.h, "table", "s", nullptr, 0), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Got zero aggregations");
    EXPECT_EQ(zlk_ts_double_aggregate(c.h, "table", "missing", &d, 1), zlk_e_column_not_found);

    zlk_ts_double_aggregation moving = double_aggregation(zlk_agg_moving_average, range(at(0), at(100)));
    EXPECT_EQ(zlk_ts_double_aggregate(c.h, "table", "d", &moving, 1), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Invalid aggregation type: 23");

    d.range = range(at(5), at(5));
    EXPECT_EQ(zlk_ts_double_aggregate(c.h, "table", "d", &d, 1), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Invalid range: [5.0, 5.0)");
}

INSTANTIATE_TEST_SUITE_P(rings, aggregates, ::testing::Values(1, 3),
                         [](const auto & info) { return std::to_string(info.param) + "_nodes"; });

} // namespace
