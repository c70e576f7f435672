// What one statement knows from its parse to its result: the tables it touches, what it selects, its
// conditions, groups, order and ranges, and the messages raised on the way.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/column_type.hpp"
#include "query/grammar/statements.hpp"
#include "zlk/error.h"

namespace zlk::query
{

struct column_info
{
    std::string name;
    kernel::column_type type = kernel::column_type::double_;
    std::uint32_t index = 0;
};

// A table's columns are kept sorted by name: every reference of a statement is one binary search.
struct table_info
{
    std::string name;
    std::vector<column_info> columns;
    std::int64_t shard_size_ms = 86'400'000;

    // Sorts the columns; call once they are all in.
    void seal();
    const column_info * find(std::string_view column) const noexcept;
};

// 1 constant true, 2 constant false, 3 to be evaluated, 4 no condition at all.
enum class condition_kind : std::uint8_t
{
    constant_true = 1,
    constant_false = 2,
    evaluated = 3,
    absent = 4,
};

struct selected_column
{
    aggregation_type function = aggregation_type::none;
    std::string table;
    std::string column;
    // The alias, else the printed expression.
    std::string name;
    bool lookup = false;
    // The whole entry when it is more than a column or a function of one.
    std::optional<query::expression> tree;
};

// Where ORDER BY items point: a selected position, or one of the special columns.
inline constexpr std::int32_t order_by_timestamp = -1;
inline constexpr std::int32_t order_by_table = -2;

struct query_context
{
    std::vector<std::string> messages;

    // Sorted by name.
    std::vector<table_info> tables_info;
    std::vector<std::string> from_tables;

    std::vector<selected_column> selected_columns;
    bool has_timestamp = false;
    bool has_table = false;

    std::optional<conditional_expression> where_expression;
    condition_kind where_kind = condition_kind::absent;
    std::optional<conditional_expression> having_expression;
    condition_kind having_kind = condition_kind::absent;

    time::duration group_by_duration;
    bool group_by_table = false;
    boost::unordered_flat_map<std::string, std::vector<std::string>> group_by_columns;

    std::vector<std::pair<std::int32_t, bool>> order_by;
    std::optional<std::uint64_t> limit;
    std::uint64_t offset = 0;
    std::vector<time::interval> in_ranges;

    // Adds or replaces a table, keeping the list sorted.
    void add_table(table_info t);
    const table_info * find_table(std::string_view name) const noexcept;

    // Appends the message and gives the code back, for `return ctx.fail(...)`.
    zlk_error_t fail(zlk_error_t code, std::string message);
};

} // namespace zlk::query
