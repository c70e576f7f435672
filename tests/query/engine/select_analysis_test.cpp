// The rules of a SELECT against two known tables, as data: a statement, the code and the last message
// it must give (none when it passes). t(a double, b int64, c timestamp, s string, x blob), u(a double,
// d int64).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "query/engine/select_analysis.hpp"
#include "query/grammar/parse_query.hpp"

namespace
{

using namespace zlk::query;
using zlk::kernel::column_type;

table_info table(std::string name, std::vector<column_info> columns)
{
    return table_info{std::move(name), std::move(columns), 86'400'000};
}

const std::vector<table_info> catalogue = {
    table("t", {{"a", column_type::double_, 0},
                {"b", column_type::int64, 1},
                {"c", column_type::timestamp, 2},
                {"s", column_type::string, 3},
                {"x", column_type::blob, 4}}),
    table("u", {{"a", column_type::double_, 0}, {"d", column_type::int64, 1}}),
};

struct analysed
{
    zlk_error_t code = zlk_e_ok;
    std::string message;
    query_context ctx;
};

analysed analyse(const std::string & text)
{
    analysed out;
    ast::statement parsed;
    std::string message;
    parse_options o;
    o.clock = [] { return zlk::timespec{1709214330, 0}; };
    EXPECT_FALSE(parse_query(text, parsed, message, o)) << text << "\n" << message;
    auto & select = std::get<ast::parsed_select>(parsed);
    auto known = [&](const std::string & name)
    {
        for (const table_info & t : catalogue)
        {
            if (t.name == name)
            {
                out.ctx.add_table(t);
            }
        }
    };
    for (const entry_reference & r : select.from_clause)
    {
        out.ctx.from_tables.push_back(std::get<std::string>(r));
        known(out.ctx.from_tables.back());
    }
    if (select.join)
    {
        known(select.join->table);
    }
    out.code = analyse_select(select, out.ctx);
    out.message = out.ctx.messages.empty() ? "" : out.ctx.messages.back();
    return out;
}

struct rule_case
{
    const char * text;
    zlk_error_t code;
    const char * message;
};

TEST(select_analysis, every_rule_has_its_code_and_message)
{
    const std::vector<rule_case> cases = {
        {"SELECT * FROM t", zlk_e_ok, ""},
        {"SELECT $table AS x FROM t", zlk_e_not_implemented, "Special column '$table' cannot be aliased."},
        {"SELECT t.$table FROM t", zlk_e_invalid_query, "Special column '$table' cannot be qualified."},
        {"SELECT lookup('d', $timestamp) FROM t", zlk_e_invalid_query,
         "Special column '$timestamp' cannot be in a LOOKUP."},
        {"SELECT max($timestamp) FROM t", zlk_e_invalid_query,
         "Cannot apply 'max' on special column '$timestamp'."},
        {"SELECT a * ($timestamp + 1) FROM t", zlk_e_invalid_query,
         "Cannot apply '+' on special column '$timestamp'."},
        {"SELECT max(cumsum(a)) FROM t", zlk_e_invalid_query,
         "Composed transformations such as 'max(cumulative_sum(a))' are not supported."},
        {"SELECT max(min(a)) FROM t ORDER BY a", zlk_e_invalid_query,
         "ORDER BY clauses are not supported with composed functions such as 'max(min(a))'."},
        {"SELECT max(min(a)) FROM t", zlk_e_ok, ""},

        {"SELECT max(a) FROM t IN RANGE(2021, 2022) GROUP BY 1h, 1d", zlk_e_invalid_query,
         "GROUP BY clause may have at most one duration."},
        {"SELECT max(a) FROM t IN RANGE(2021, 2022) GROUP BY 1month 1s", zlk_e_invalid_query,
         "GROUP BY duration may specify grouping by either date (years, months, days) or time (seconds, "
         "nanoseconds), but not both."},
        {"SELECT max(a) FROM t IN RANGE(2021, 2022) GROUP BY 1y 2months", zlk_e_ok, ""},
        {"SELECT max(a) FROM t GROUP BY 1h", zlk_e_invalid_query,
         "GROUP BY clause with duration requires IN RANGE"},
        {"SELECT max(a) FROM t IN RANGE(2021, end_of_time) GROUP BY 1h", zlk_e_invalid_query,
         "GROUP BY clause with duration requires IN RANGE"},
        {"SELECT max(a) FROM t GROUP BY t.$table", zlk_e_invalid_query,
         "The special column $table cannot be qualified (see 't.$table')."},
        {"SELECT max(a) FROM t GROUP BY $table, $table", zlk_e_invalid_query,
         "Cannot GROUP BY $table twice."},
        {"SELECT max(a) FROM t GROUP BY v.a", zlk_e_invalid_query,
         "GROUP BY on table 'v' which is not in FROM clause."},
        {"SELECT max(a) FROM t GROUP BY t.zz", zlk_e_column_not_found,
         "GROUP BY column 'zz' is not present in table 't'."},
        {"SELECT cumsum(a) FROM t IN RANGE(2021, 2022) GROUP BY 1h", zlk_e_not_implemented,
         "Transformations such as 'cumulative_sum(a)' are not supported together with GROUP BY clause."},
        {"SELECT a FROM t IN RANGE(2021, 2022) GROUP BY 1h", zlk_e_invalid_query,
         "A group by expects an aggregation function applied to columns."},
        {"SELECT max(a), b FROM t IN RANGE(2021, 2022) GROUP BY 1h", zlk_e_invalid_query,
         "A group by time expects an aggregation function applied to columns."},
        {"SELECT max(a), b FROM t GROUP BY b", zlk_e_ok, ""},

        {"SELECT zz FROM t", zlk_e_column_not_found, "Could not find column 'zz'."},
        {"SELECT v.a FROM t", zlk_e_alias_not_found,
         "Could not find table 'v' (looking for qualified column 'a')."},
        {"SELECT a FROM t, u", zlk_e_invalid_query,
         "Ambiguous unqualified column 'a' in JOIN request (can reference 't' or 'u.a')"},
        {"SELECT d, t.a FROM t, u WHERE b > 1", zlk_e_ok, ""},
        {"SELECT a, a FROM t", zlk_e_invalid_query, "expression names shall be unique"},
        {"SELECT a AS n, b AS n FROM t", zlk_e_invalid_query, "expression names shall be unique"},

        {"SELECT a FROM t ORDER BY $timestamp", zlk_e_invalid_query,
         "Special column '$timestamp' in ORDER BY was not selected."},
        {"SELECT a FROM t ORDER BY $table", zlk_e_invalid_query,
         "Special column '$table' in ORDER BY was not selected."},
        {"SELECT a FROM t ORDER BY b", zlk_e_invalid_query,
         "All expressions in ORDER BY should be present in SELECT."},
        {"SELECT $timestamp, a AS n, max(b) FROM t ORDER BY $timestamp DESC, n, max(b)", zlk_e_ok, ""},

        {"SELECT a FROM t WHERE b > 1.5 AND x = 'a' AND a = b AND s ~ 'z' AND c > datetime(2021)", zlk_e_ok,
         ""},
        {"SELECT a FROM t WHERE c = 1", zlk_e_invalid_query, "Cannot compare timestamp to int64."},
        {"SELECT a FROM t WHERE 'q' = s AND 1 = s", zlk_e_invalid_query, "Cannot compare int64 to string."},
        {"SELECT a FROM t WHERE a = 1 OR NOT (b < c)", zlk_e_invalid_query,
         "Cannot compare int64 to timestamp."},
        {"SELECT a FROM t WHERE v.a = 1", zlk_e_alias_not_found,
         "Could not find table 'v' (looking for qualified column 'a')."},

        {"SELECT a FROM t ASOF JOIN u", zlk_e_invalid_query,
         "Ambiguous unqualified column 'a' in JOIN request (can reference 't' or 'u.a')"},
        {"SELECT t.a, d FROM t ASOF JOIN u", zlk_e_ok, ""},
        {"SELECT max(t.a) FROM t ASOF JOIN u", zlk_e_not_implemented,
         "ASOF joins are currently not supported with aggregations."},
        {"SELECT t.a FROM t, u ASOF JOIN u", zlk_e_not_implemented,
         "ASOF JOIN is only supported with a maximum of two tables"},
        {"SELECT t.a FROM t ASOF JOIN w", zlk_e_internal_local,
         "cannot find the right join table in the set"},
    };
    for (const rule_case & c : cases)
    {
        const analysed a = analyse(c.text);
        EXPECT_EQ(a.code, c.code) << c.text << "\n" << a.message;
        EXPECT_EQ(a.message, c.message) << c.text;
    }
}

TEST(select_analysis, what_the_context_keeps)
{
    {
        const analysed a = analyse("SELECT * FROM t");
        EXPECT_TRUE(a.ctx.has_timestamp && a.ctx.has_table);
        EXPECT_EQ(a.ctx.where_kind, condition_kind::absent);
        ASSERT_EQ(a.ctx.in_ranges.size(), 1u);
        EXPECT_EQ(a.ctx.in_ranges[0].end.tv_sec, 95'617'584'000);
    }
    {
        const analysed a =
            analyse("SELECT $timestamp, a AS n, max(b) FROM t IN [RANGE(2021, 2022), "
                    "RANGE(2020, 2021-06-01), RANGE(2023, 2024)] ORDER BY $timestamp DESC, n, max(b) "
                    "LIMIT 3 OFFSET 1");
        ASSERT_EQ(a.code, zlk_e_ok) << a.message;
        EXPECT_TRUE(a.ctx.has_timestamp);
        EXPECT_FALSE(a.ctx.has_table);
        ASSERT_EQ(a.ctx.selected_columns.size(), 2u);
        EXPECT_EQ(a.ctx.selected_columns[0].name, "n");
        EXPECT_EQ(a.ctx.selected_columns[0].table, "t");
        EXPECT_EQ(a.ctx.selected_columns[1].name, "max(b)");
        EXPECT_EQ(a.ctx.selected_columns[1].function, zlk::aggregation_type::max);
        const std::vector<std::pair<std::int32_t, bool>> order{
            {order_by_timestamp, true}, {0, false}, {1, false}};
        EXPECT_EQ(a.ctx.order_by, order);
        EXPECT_EQ(a.ctx.limit, 3u);
        EXPECT_EQ(a.ctx.offset, 1u);
        // Overlapping ranges merged, the rest sorted: 2020..2022, 2023..2024.
        ASSERT_EQ(a.ctx.in_ranges.size(), 2u);
        EXPECT_EQ(a.ctx.in_ranges[0].begin.tv_sec, 1577836800);
        EXPECT_EQ(a.ctx.in_ranges[0].end.tv_sec, 1640995200);
        EXPECT_EQ(a.ctx.in_ranges[1].begin.tv_sec, 1672531200);
    }
    {
        const analysed a = analyse("SELECT max(a), b FROM t GROUP BY b, $table");
        ASSERT_EQ(a.code, zlk_e_ok) << a.message;
        EXPECT_TRUE(a.ctx.group_by_table);
        ASSERT_TRUE(a.ctx.group_by_columns.contains("t"));
        EXPECT_EQ(a.ctx.group_by_columns.at("t"), std::vector<std::string>{"b"});
    }
    struct kind_case
    {
        const char * where;
        condition_kind kind;
    };
    for (const kind_case & k :
         {kind_case{"1", condition_kind::constant_true}, kind_case{"0", condition_kind::constant_false},
          kind_case{"0.0", condition_kind::constant_false}, kind_case{"2.5", condition_kind::constant_true},
          kind_case{"true", condition_kind::constant_true},
          kind_case{"false", condition_kind::constant_false},
          kind_case{"datetime(1970)", condition_kind::constant_false},
          kind_case{"-3", condition_kind::constant_true}, kind_case{"a > 1", condition_kind::evaluated},
          kind_case{"1 AND 1", condition_kind::evaluated}})
    {
        const analysed a = analyse(std::string("SELECT a FROM t WHERE ") + k.where);
        EXPECT_EQ(a.ctx.where_kind, k.kind) << k.where;
    }
}

} // namespace
