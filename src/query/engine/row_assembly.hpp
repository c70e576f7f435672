// Rows from column results: the merging cursor, then HAVING's cut, ORDER BY, OFFSET and LIMIT.
//
// Without GROUP BY the rows are an outer join by time: one cursor per column result, each step takes
// the least instant among the live cursors, every cursor at that instant puts its value in its column
// and moves on, the others leave a none cell. `$timestamp` (type 3) and `$table` (type 5: the
// contributing table, or "$multitables" when the row's values came from several) lead the row when the
// statement selected them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "query/engine/column_result.hpp"

namespace zlk::query
{

// Rows of equal width, row-major in one vector: no allocation per row.
struct assembled_rows
{
    std::size_t column_count = 0;
    std::vector<zlk_point_result> cells;

    std::size_t row_count() const noexcept { return column_count == 0 ? 0 : cells.size() / column_count; }
    zlk_point_result * row(std::size_t i) noexcept { return cells.data() + i * column_count; }
    const zlk_point_result * row(std::size_t i) const noexcept { return cells.data() + i * column_count; }
};

struct row_layout
{
    bool has_timestamp = false;
    bool has_table = false;
};

inline constexpr const char * multiple_tables_name = "$multitables";

// The table cells point at the column results' table names: they must outlive the rows.
void merge_by_time(std::span<const column_result * const> columns, const row_layout & layout,
                   assembled_rows & out);

// One key of ORDER BY: a column of the row and its direction.
struct order_key
{
    std::size_t position = 0;
    bool descending = false;
};

// A stable sort. Cells compare within their type; a none cell sorts before any value, and cells of
// different types by type number.
void order_rows(assembled_rows & rows, std::span<const order_key> keys);

// Drops `offset` rows from the head (all of them when offset is at or past the count), then keeps at
// most `limit` (0: no limit).
void cut_rows(assembled_rows & rows, std::uint64_t offset, std::uint64_t limit);

// Keeps the rows for which keep(row) is true, in order (one stable compaction).
template <typename Keep>
void filter_rows(assembled_rows & rows, Keep && keep)
{
    std::size_t kept = 0;
    const std::size_t n = rows.row_count();
    for (std::size_t i = 0; i < n; ++i)
    {
        const zlk_point_result * r = rows.row(i);
        if (keep(r))
        {
            if (kept != i)
            {
                std::copy(r, r + rows.column_count, rows.row(kept));
            }
            ++kept;
        }
    }
    rows.cells.resize(kept * rows.column_count);
}

} // namespace zlk::query
