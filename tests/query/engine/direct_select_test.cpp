// zlk_query on a one-node ring: plain columns over a range merged by time, `*`, ORDER BY and LIMIT,
// a constant false WHERE, and what a failed statement hands back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "node/local_cluster.hpp"
#include "zlk/zlk.h"

namespace
{

constexpr std::int64_t jan1 = 1609459200; // 2021-01-01

struct select_fixture : ::testing::Test
{
    zlk::node::local_cluster cluster{1};
    zlk_handle_t h = nullptr;

    void SetUp() override
    {
        ASSERT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        ASSERT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
        const zlk_ts_column_info columns[] = {{"a", zlk_ts_column_double}, {"s", zlk_ts_column_string}};
        ASSERT_EQ(zlk_ts_create(h, "t", 86400000, columns, 2), zlk_e_ok);
        const zlk_ts_double_point a[] = {{{jan1 + 1, 0}, 1.5}, {{jan1 + 2, 0}, 2.5}, {{jan1 + 3, 0}, 3.5}};
        ASSERT_EQ(zlk_ts_double_insert(h, "t", "a", a, 3), zlk_e_ok);
        const zlk_ts_string_point s[] = {{{jan1 + 2, 0}, "x", 1}, {{jan1 + 4, 0}, "yy", 2}};
        ASSERT_EQ(zlk_ts_string_insert(h, "t", "s", s, 2), zlk_e_ok);
    }
    void TearDown() override { zlk_close(h); }

    // The result as text: names, then one line per row; none cells as "-".
    std::string run(const char * text, zlk_error_t want)
    {
        zlk_query_result * r = nullptr;
        EXPECT_EQ(zlk_query(h, text, &r), want) << text;
        if (!r)
        {
            return "no result";
        }
        std::string out;
        for (std::uint64_t c = 0; c < r->column_count; ++c)
        {
            out += (c ? "," : "") + std::string(r->column_names[c].data, r->column_names[c].length);
        }
        for (std::uint64_t i = 0; i < r->row_count; ++i)
        {
            out += "\n";
            for (std::uint64_t c = 0; c < r->column_count; ++c)
            {
                const zlk_point_result & p = r->rows[i][c];
                out += c ? "," : "";
                switch (p.type)
                {
                case zlk_query_result_none:
                    out += "-";
                    break;
                case zlk_query_result_double:
                    out += std::to_string(p.payload.double_.value).substr(0, 3);
                    break;
                case zlk_query_result_int64:
                    out += std::to_string(p.payload.int64_.value);
                    break;
                case zlk_query_result_timestamp:
                    out += std::to_string(p.payload.timestamp.tv_sec - jan1);
                    break;
                case zlk_query_result_string:
                    out += std::string(p.payload.string.content, p.payload.string.content_length);
                    break;
                default:
                    out += "?";
                }
            }
        }
        if (r->error_message.length > 0)
        {
            out += "\nerror: " + std::string(r->error_message.data, r->error_message.length);
        }
        out += "\nscanned: " + std::to_string(r->scanned_point_count);
        zlk_release(h, r);
        return out;
    }
};

TEST_F(select_fixture, plain_columns_merge_by_time)
{
    EXPECT_EQ(run("SELECT $timestamp, a, s FROM t IN RANGE(2021-01-01, +1d)", zlk_e_ok),
              "$timestamp,a,s\n1,1.5,-\n2,2.5,x\n3,3.5,-\n4,-,yy\nscanned: 5");
    EXPECT_EQ(run("select * from t in range(2021-01-01T00:00:02, 2021-01-01T00:00:04)", zlk_e_ok),
              "$timestamp,$table,a,s\n2,t,2.5,x\n3,t,3.5,-\nscanned: 3");
    EXPECT_EQ(run("SELECT a AS v FROM t IN RANGE(2021-01-01, +1d) ORDER BY v DESC LIMIT 2", zlk_e_ok),
              "v\n3.5\n2.5\nscanned: 3");
    EXPECT_EQ(run("SELECT a FROM t IN RANGE(2021-01-01, +1d) LIMIT 2 OFFSET 2", zlk_e_ok),
              "a\n3.5\nscanned: 3");
    EXPECT_EQ(run("SELECT a FROM t IN RANGE(2021-01-01, +1d) WHERE 0", zlk_e_ok), "a\nscanned: 0");
    EXPECT_EQ(run("SELECT a FROM t IN RANGE(2022, +1d)", zlk_e_ok), "a\nscanned: 0");
}

TEST_F(select_fixture, aggregations_over_ranges_and_time_buckets)
{
    EXPECT_EQ(
        run("SELECT max(a), min(a), count(a), sum(a), avg(a) FROM t IN RANGE(2021-01-01, +1d)", zlk_e_ok),
        "max(a),min(a),count(a),sum(a),arithmetic_mean(a)\n3.5,1.5,3,7.5,2.5\nscanned: 15");
    // Buckets start at the range's begin; an empty bucket counts 0 and has no maximum.
    EXPECT_EQ(run("SELECT count(a), max(a) FROM t IN RANGE(2021-01-01, +6s) GROUP BY 2s", zlk_e_ok),
              "$timestamp,count(a),max(a)\n0,1,1.5\n2,2,3.5\n4,0,-\nscanned: 6");
    EXPECT_EQ(
        run("SELECT $timestamp, first(s), count(s) FROM t IN RANGE(2021-01-01T00:00:01, +4s) GROUP BY 3s "
            "ORDER BY $timestamp DESC",
            zlk_e_ok),
        "$timestamp,first(s),count(s)\n4,yy,1\n1,x,1\nscanned: 4");
    EXPECT_EQ(run("SELECT max(a) FROM t GROUP BY 1h", zlk_e_invalid_query),
              "\nerror: GROUP BY clause with duration requires IN RANGE\nscanned: 0");
}

TEST_F(select_fixture, create_table_then_select_from_it)
{
    EXPECT_EQ(run("CREATE TABLE m (v DOUBLE, n INT64, note STRING) SHARD_SIZE = 1h", zlk_e_ok),
              "\nscanned: 0");
    EXPECT_EQ(run("CREATE TABLE m (v DOUBLE)", zlk_e_alias_already_exists),
              "\nerror: Table 'm' already exists.\nscanned: 0");
    EXPECT_EQ(run("CREATE TABLE IF NOT EXISTS m (v DOUBLE)", zlk_e_ok), "\nscanned: 0");
    EXPECT_EQ(run("CREATE TABLE w (a DOUBLE, b INT64, a STRING, b BLOB, a BLOB)", zlk_e_invalid_argument),
              "\nerror: The 1th and 3th and 5th columns are the same ('a').\nscanned: 0");
    EXPECT_EQ(
        run("CREATE TABLE w (a DOUBLE) SHARD_SIZE = 1month", zlk_e_invalid_argument),
        "\nerror: The shard size of table 'w' must be a positive number of milliseconds, written in days, "
        "hours, minutes, seconds or milliseconds.\nscanned: 0");

    const zlk_ts_double_point v[] = {{{jan1 + 3600, 0}, 4.0}, {{jan1 + 7300, 0}, 6.0}};
    ASSERT_EQ(zlk_ts_double_insert(h, "m", "v", v, 2), zlk_e_ok);
    EXPECT_EQ(
        run("SELECT $timestamp, sum(v), n FROM m IN RANGE(2021-01-01, +3h) GROUP BY 1h", zlk_e_invalid_query),
        "\nerror: A group by time expects an aggregation function applied to columns.\nscanned: 0");
    EXPECT_EQ(run("SELECT sum(v) FROM m IN RANGE(2021-01-01, +3h) GROUP BY 1h", zlk_e_ok),
              "$timestamp,sum(v)\n0,-\n3600,4.0\n7200,6.0\nscanned: 2");
}

TEST_F(select_fixture, a_failed_statement_hands_back_its_messages)
{
    EXPECT_EQ(run("SELECT a FROM nothere IN RANGE(2021, +1d)", zlk_e_alias_not_found),
              "\nerror: Could not find table 'nothere'.\nscanned: 0");
    EXPECT_EQ(run("SELECT zz FROM t IN RANGE(2021, +1d)", zlk_e_column_not_found),
              "\nerror: Could not find column 'zz'.\nscanned: 0");
    EXPECT_EQ(
        run("SELECT cumsum(a) FROM t IN RANGE(2021, +1d)", zlk_e_not_implemented),
        "\nerror: Only SELECT of columns and aggregations of columns of one table, grouped by time at most, "
        "without a WHERE to evaluate, HAVING or joins, is implemented yet.\nscanned: 0");
    EXPECT_EQ(run("SELEC a", zlk_e_invalid_query), "\nerror: invalid query string\nscanned: 0");
    EXPECT_EQ(run("SELECT a FROM t IN", zlk_e_invalid_query),
              "\nerror: At line 1: expected [RANGE(begin, end or +/-offset), ...].\nSELECT a FROM t IN\n"
              "                  ^\nscanned: 0");
    zlk_error_t code = zlk_e_ok;
    zlk_string_t last{};
    ASSERT_EQ(zlk_get_last_error(h, &code, &last), zlk_e_ok);
    EXPECT_EQ(code, zlk_e_invalid_query);
    EXPECT_EQ(std::string(last.data, last.length),
              "at query: At line 1: expected [RANGE(begin, end or +/-offset), ...].\nSELECT a FROM t IN\n"
              "                  ^");
    EXPECT_EQ(run("", zlk_e_invalid_query), "no result");
    EXPECT_EQ(zlk_query(h, "SELECT a FROM t", nullptr), zlk_e_invalid_argument);
}

} // namespace
