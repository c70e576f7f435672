// Rows from column results: the outer join by time, the lead columns, nulls, ORDER BY, OFFSET and
// LIMIT. Each case gives columns as (second, value) points and the rows expected, written out by hand.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "query/engine/query_result.hpp"
#include "query/engine/row_assembly.hpp"

namespace
{

using namespace zlk::query;

constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr std::int64_t int64_null = std::numeric_limits<std::int64_t>::min();

zlk_point_result dbl(double v)
{
    zlk_point_result c{};
    c.type = zlk_query_result_double;
    c.payload.double_.value = v;
    return c;
}

zlk_point_result i64(std::int64_t v)
{
    zlk_point_result c{};
    c.type = zlk_query_result_int64;
    c.payload.int64_.value = v;
    return c;
}

column_result column(const std::string & table, std::vector<std::pair<std::int64_t, zlk_point_result>> pts)
{
    column_result c;
    c.table = table;
    for (const auto & [s, v] : pts)
    {
        c.points.push_back(result_point{zlk::timespec{s, 0}, v});
    }
    return c;
}

std::string text(const zlk_point_result & c)
{
    switch (c.type)
    {
    case zlk_query_result_none:
        return "-";
    case zlk_query_result_double:
        return std::to_string(c.payload.double_.value).substr(0, 4);
    case zlk_query_result_int64:
        return std::to_string(c.payload.int64_.value);
    case zlk_query_result_timestamp:
        return "@" + std::to_string(c.payload.timestamp.tv_sec);
    case zlk_query_result_string:
        return std::string(c.payload.string.content, c.payload.string.content_length);
    default:
        return "?";
    }
}

std::vector<std::string> lines(const assembled_rows & rows)
{
    std::vector<std::string> out;
    for (std::size_t i = 0; i < rows.row_count(); ++i)
    {
        std::string line;
        for (std::size_t j = 0; j < rows.column_count; ++j)
        {
            line += (j ? " " : "") + text(rows.row(i)[j]);
        }
        out.push_back(line);
    }
    return out;
}

assembled_rows merged(const std::vector<column_result> & cols, row_layout layout = {})
{
    std::vector<const column_result *> pointers;
    for (const auto & c : cols)
    {
        pointers.push_back(&c);
    }
    assembled_rows rows;
    merge_by_time(pointers, layout, rows);
    return rows;
}

struct merge_case
{
    const char * name;
    std::vector<column_result> columns;
    row_layout layout;
    std::vector<std::string> expected;
};

TEST(row_assembly, merging_joins_columns_by_equal_instants_only)
{
    const std::vector<merge_case> cases = {
        {"one column", {column("t", {{1, dbl(1.5)}, {2, dbl(2.5)}})}, {}, {"1.50", "2.50"}},
        {"outer join: an instant of one column alone leaves the other none",
         {column("t", {{1, dbl(1.0)}, {3, dbl(3.0)}}), column("t", {{2, i64(20)}, {3, i64(30)}})},
         {true, false},
         {"@1 1.00 -", "@2 - 20", "@3 3.00 30"}},
        {"two points of a column at one instant make two rows",
         {column("t", {{1, i64(1)}, {1, i64(2)}}), column("t", {{1, i64(9)}})},
         {},
         {"1 9", "2 -"}},
        {"$table names the table, or $multitables when several contribute",
         {column("a", {{1, i64(1)}, {2, i64(2)}}), column("b", {{2, i64(5)}, {3, i64(6)}})},
         {true, true},
         {"@1 a 1 -", "@2 $multitables 2 5", "@3 b - 6"}},
        {"$table without $timestamp comes first", {column("a", {{1, i64(1)}})}, {false, true}, {"a 1"}},
        {"null forms arrive as none cells",
         {column("t", {{1, dbl(nan_value)}, {2, dbl(0.0)}}),
          column("t", {{1, i64(int64_null)}, {2, i64(0)}})},
         {},
         {"- -", "0.00 0"}},
        {"no points give no rows", {column("t", {}), column("u", {})}, {true, false}, {}},
    };
    for (const merge_case & c : cases)
    {
        const assembled_rows rows = merged(c.columns, c.layout);
        EXPECT_EQ(lines(rows), c.expected) << c.name;
        EXPECT_EQ(rows.column_count, c.columns.size() + c.layout.has_timestamp + c.layout.has_table)
            << c.name;
    }
}

TEST(row_assembly, order_by_is_stable_and_puts_none_first)
{
    const auto rows_of = [](std::vector<order_key> keys)
    {
        assembled_rows rows =
            merged({column("t", {{1, i64(2)}, {2, i64(1)}, {3, i64(2)}, {4, i64(int64_null)}}),
                    column("t", {{1, i64(10)}, {2, i64(20)}, {3, i64(30)}, {4, i64(40)}})});
        order_rows(rows, keys);
        return lines(rows);
    };
    EXPECT_EQ(rows_of({{0, false}}), (std::vector<std::string>{"- 40", "1 20", "2 10", "2 30"}));
    // Ties keep their order in both directions.
    EXPECT_EQ(rows_of({{0, true}}), (std::vector<std::string>{"2 10", "2 30", "1 20", "- 40"}));
    EXPECT_EQ(rows_of({{0, true}, {1, true}}), (std::vector<std::string>{"2 30", "2 10", "1 20", "- 40"}));
    EXPECT_EQ(rows_of({}), (std::vector<std::string>{"2 10", "1 20", "2 30", "- 40"}));
}

TEST(row_assembly, offset_comes_before_limit)
{
    struct cut
    {
        std::uint64_t offset, limit;
        std::vector<std::string> expected;
    };
    const std::vector<cut> cases = {
        {0, 0, {"1", "2", "3", "4"}},
        {1, 0, {"2", "3", "4"}},
        {1, 2, {"2", "3"}},
        {0, 4, {"1", "2", "3", "4"}},
        {0, 9, {"1", "2", "3", "4"}},
        {3, 5, {"4"}},
        {4, 0, {}},
        {9, 1, {}},
    };
    for (const cut & c : cases)
    {
        assembled_rows rows = merged({column("t", {{1, i64(1)}, {2, i64(2)}, {3, i64(3)}, {4, i64(4)}})});
        cut_rows(rows, c.offset, c.limit);
        EXPECT_EQ(lines(rows), c.expected) << c.offset << " " << c.limit;
    }
}

TEST(row_assembly, having_keeps_matching_rows_in_order)
{
    assembled_rows rows = merged({column("t", {{1, i64(1)}, {2, i64(2)}, {3, i64(3)}, {4, i64(4)}})});
    filter_rows(rows, [](const zlk_point_result * r) { return r[0].payload.int64_.value % 2 == 0; });
    EXPECT_EQ(lines(rows), (std::vector<std::string>{"2", "4"}));
}

TEST(query_result, the_block_owns_what_its_cells_point_into)
{
    std::vector<column_result> cols;
    cols.push_back(column("a_table_name_longer_than_any_short_string_buffer", {{5, i64(7)}}));
    assembled_rows rows = merged(cols, {true, true});
    auto block = make_result_block({"$timestamp", "$table", "v"}, std::move(rows), std::move(cols), 12,
                                   join_messages({"first", "", "third"}));
    const zlk_query_result & r = block->result;
    ASSERT_EQ(r.column_count, 3u);
    ASSERT_EQ(r.row_count, 1u);
    EXPECT_EQ(std::string(r.column_names[1].data, r.column_names[1].length), "$table");
    EXPECT_EQ(text(r.rows[0][1]), "a_table_name_longer_than_any_short_string_buffer");
    EXPECT_EQ(text(r.rows[0][2]), "7");
    EXPECT_EQ(r.scanned_point_count, 12u);
    EXPECT_EQ(std::string(r.error_message.data, r.error_message.length), "first\n\nthird");
}

TEST(query_result, a_statement_without_rows_still_has_its_columns)
{
    auto block = make_result_block({"value"}, assembled_rows{1, {}}, {}, 0, "");
    EXPECT_EQ(block->result.row_count, 0u);
    EXPECT_EQ(block->result.rows, nullptr);
    EXPECT_EQ(block->result.column_count, 1u);
    EXPECT_EQ(block->result.error_message.length, 0u);
}

} // namespace
