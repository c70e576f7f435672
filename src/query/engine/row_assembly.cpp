#include "query/engine/row_assembly.hpp"

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

namespace zlk::query
{

zlk_point_result row_cell(const zlk_point_result & v) noexcept
{
    constexpr std::int64_t int64_null = std::numeric_limits<std::int64_t>::min();
    bool null = false;
    switch (v.type)
    {
    case zlk_query_result_double:
        null = std::isnan(v.payload.double_.value);
        break;
    case zlk_query_result_blob:
        null = v.payload.blob.content_length == 0;
        break;
    case zlk_query_result_int64:
        null = v.payload.int64_.value == int64_null;
        break;
    case zlk_query_result_timestamp:
        null = v.payload.timestamp.tv_sec == int64_null && v.payload.timestamp.tv_nsec == int64_null;
        break;
    case zlk_query_result_string:
        null = v.payload.string.content == nullptr && v.payload.string.content_length == 0;
        break;
    case zlk_query_result_count_and_sum:
        break;
    default:
        null = true;
        break;
    }
    return null ? none_cell() : v;
}

namespace
{

bool earlier(const timespec & a, const timespec & b) noexcept
{
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

zlk_point_result text_cell(const char * text, std::size_t size) noexcept
{
    zlk_point_result c{};
    c.type = zlk_query_result_string;
    c.payload.string.content = text;
    c.payload.string.content_length = size;
    return c;
}

// -1, 0 or 1 between two cells of a column.
int compare_cells(const zlk_point_result & a, const zlk_point_result & b) noexcept
{
    if (a.type != b.type)
    {
        return a.type < b.type ? -1 : 1;
    }
    auto three_way = [](auto x, auto y) { return x < y ? -1 : (y < x ? 1 : 0); };
    auto bytes = [](const void * p, std::size_t n, const void * q, std::size_t m)
    {
        const int c = std::memcmp(p, q, n < m ? n : m);
        if (c != 0)
        {
            return c < 0 ? -1 : 1;
        }
        return n < m ? -1 : (m < n ? 1 : 0);
    };
    switch (a.type)
    {
    case zlk_query_result_double:
        return three_way(a.payload.double_.value, b.payload.double_.value);
    case zlk_query_result_int64:
        return three_way(a.payload.int64_.value, b.payload.int64_.value);
    case zlk_query_result_timestamp:
    {
        const int s = three_way(a.payload.timestamp.tv_sec, b.payload.timestamp.tv_sec);
        return s != 0 ? s : three_way(a.payload.timestamp.tv_nsec, b.payload.timestamp.tv_nsec);
    }
    case zlk_query_result_count_and_sum:
    {
        // The exact integer part plus the double that holds what overflowed it.
        const long double x =
            static_cast<long double>(a.payload.pair.first) + std::bit_cast<double>(a.payload.pair.second);
        const long double y =
            static_cast<long double>(b.payload.pair.first) + std::bit_cast<double>(b.payload.pair.second);
        return three_way(x, y);
    }
    case zlk_query_result_blob:
        return bytes(a.payload.blob.content, a.payload.blob.content_length, b.payload.blob.content,
                     b.payload.blob.content_length);
    case zlk_query_result_string:
        return bytes(a.payload.string.content, a.payload.string.content_length, b.payload.string.content,
                     b.payload.string.content_length);
    default:
        return 0;
    }
}

} // namespace

void merge_by_time(std::span<const column_result * const> columns, const row_layout & layout,
                   assembled_rows & out)
{
    const std::size_t lead = (layout.has_timestamp ? 1 : 0) + (layout.has_table ? 1 : 0);
    out.column_count = lead + columns.size();
    out.cells.clear();
    if (out.column_count == 0)
    {
        return;
    }
    std::size_t bound = 0;
    for (const column_result * c : columns)
    {
        bound += c->points.size();
    }
    out.cells.reserve(bound * out.column_count);

    std::vector<std::size_t> at(columns.size(), 0);
    const std::size_t table_position = layout.has_timestamp ? 1 : 0;
    for (;;)
    {
        const timespec * least = nullptr;
        for (std::size_t i = 0; i < columns.size(); ++i)
        {
            if (at[i] < columns[i]->points.size())
            {
                const timespec & t = columns[i]->points[at[i]].time;
                if (!least || earlier(t, *least))
                {
                    least = &t;
                }
            }
        }
        if (!least)
        {
            return;
        }
        const timespec instant = *least;
        const std::size_t base = out.cells.size();
        out.cells.resize(base + out.column_count, none_cell());
        zlk_point_result * row = out.cells.data() + base;
        if (layout.has_timestamp)
        {
            row[0].type = zlk_query_result_timestamp;
            row[0].payload.timestamp = instant.to_c();
        }
        const std::string * table = nullptr;
        bool several_tables = false;
        for (std::size_t i = 0; i < columns.size(); ++i)
        {
            if (at[i] >= columns[i]->points.size())
            {
                continue;
            }
            const result_point & p = columns[i]->points[at[i]];
            if (p.time.tv_sec != instant.tv_sec || p.time.tv_nsec != instant.tv_nsec)
            {
                continue;
            }
            row[lead + i] = row_cell(p.value);
            ++at[i];
            if (!table)
            {
                table = &columns[i]->table;
            }
            else if (*table != columns[i]->table)
            {
                several_tables = true;
            }
        }
        if (layout.has_table)
        {
            row[table_position] = several_tables
                                      ? text_cell(multiple_tables_name, std::strlen(multiple_tables_name))
                                      : text_cell(table->data(), table->size());
        }
    }
}

void order_rows(assembled_rows & rows, std::span<const order_key> keys)
{
    const std::size_t n = rows.row_count();
    if (keys.empty() || n < 2)
    {
        return;
    }
    std::vector<std::size_t> order(n);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b)
                     {
                         for (const order_key & k : keys)
                         {
                             const int c = compare_cells(rows.row(a)[k.position], rows.row(b)[k.position]);
                             if (c != 0)
                             {
                                 return k.descending ? c > 0 : c < 0;
                             }
                         }
                         return false;
                     });
    std::vector<zlk_point_result> sorted;
    sorted.reserve(rows.cells.size());
    for (const std::size_t i : order)
    {
        sorted.insert(sorted.end(), rows.row(i), rows.row(i) + rows.column_count);
    }
    rows.cells.swap(sorted);
}

void cut_rows(assembled_rows & rows, std::uint64_t offset, std::uint64_t limit)
{
    const std::size_t n = rows.row_count();
    if (offset >= n)
    {
        rows.cells.clear();
        return;
    }
    if (offset > 0)
    {
        rows.cells.erase(rows.cells.begin(),
                         rows.cells.begin() + static_cast<std::ptrdiff_t>(offset * rows.column_count));
    }
    if (limit != 0 && limit < rows.row_count())
    {
        rows.cells.resize(limit * rows.column_count);
    }
}

} // namespace zlk::query
