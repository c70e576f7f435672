#include "query/engine/direct_select.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "query/engine/find_execution.hpp"
#include "query/engine/select_analysis.hpp"
#include "query/grammar/parse_query.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "timeseries/column_requests.hpp"
#include "timeseries/table_metadata.hpp"

namespace zlk::query
{

namespace
{

namespace ts = zlk::timeseries;

// The FROM list with FIND requests replaced by the aliases they find.
zlk_error_t expand_from(chord::cluster & c, std::uint64_t max_cardinality, const ast::parsed_select & s,
                        query_context & ctx)
{
    for (const entry_reference & r : s.from_clause)
    {
        if (const auto * name = std::get_if<std::string>(&r))
        {
            ctx.from_tables.push_back(*name);
            continue;
        }
        const find_request & f = std::get<find_request>(r);
        std::string message;
        if (check_find(f, message))
        {
            return ctx.fail(zlk_e_invalid_query, message);
        }
        const auto criteria = criteria_of(f);
        std::vector<std::string> found;
        if (criteria)
        {
            if (const zlk_error_t e = run_find(c, *criteria, max_cardinality, found, message); ZLK_FAILURE(e))
            {
                return message.empty() ? e : ctx.fail(e, message);
            }
        }
        ctx.from_tables.insert(ctx.from_tables.end(), found.begin(), found.end());
    }
    if (!s.from_clause.empty() && ctx.from_tables.empty())
    {
        return ctx.fail(zlk_e_alias_not_found, "Could not find any table.");
    }
    return zlk_e_ok;
}

zlk_error_t look_up(chord::cluster & c, const std::string & name, query_context & ctx)
{
    if (ctx.find_table(name))
    {
        return zlk_e_ok;
    }
    std::shared_ptr<const ts::timeseries_table> t;
    const zlk_error_t r = ts::get_table(c, name, t);
    if (r == zlk_e_alias_not_found)
    {
        return ctx.fail(r, fmt::format("Could not find table '{}'.", name));
    }
    if (ZLK_FAILURE(r) || !t)
    {
        return ctx.fail(ZLK_FAILURE(r) ? r : zlk_e_invalid_reply,
                        fmt::format("Could not list columns of table '{}'.", name));
    }
    table_info info;
    info.name = name;
    info.shard_size_ms = static_cast<std::int64_t>(t->shard_size);
    for (const ts::column_record & col : t->columns)
    {
        info.columns.push_back(column_info{col.name, col.type, static_cast<std::uint32_t>(col.index)});
    }
    ctx.add_table(std::move(info));
    return zlk_e_ok;
}

zlk_point_result cell_of(const ts::column_rows & rows, std::size_t i, serialization::cursor & bytes)
{
    zlk_point_result cell{};
    switch (rows.type)
    {
    case kernel::column_type::double_:
        cell.type = zlk_query_result_double;
        cell.payload.double_.value = rows.double_at(i);
        break;
    case kernel::column_type::int64:
        cell.type = zlk_query_result_int64;
        cell.payload.int64_.value = rows.int64_at(i);
        break;
    case kernel::column_type::timestamp:
        cell.type = zlk_query_result_timestamp;
        cell.payload.timestamp = rows.timestamp_at(i).to_c();
        break;
    case kernel::column_type::blob:
    {
        const auto b = ts::next_bytes(bytes);
        cell.type = zlk_query_result_blob;
        cell.payload.blob.content = b.data();
        cell.payload.blob.content_length = b.size();
        break;
    }
    case kernel::column_type::string:
    {
        const auto b = ts::next_bytes(bytes);
        cell.type = zlk_query_result_string;
        cell.payload.string.content = reinterpret_cast<const char *>(b.data());
        cell.payload.string.content_length = b.size();
        break;
    }
    }
    return cell;
}

// Every row of one column in the statement's ranges, in time order.
zlk_error_t read_column(chord::cluster & c, const table_info & table, const column_info & column,
                        const query_context & ctx, column_result & out)
{
    out.table = table.name;
    out.column = column.name;
    out.column_type = column.type;
    ts::column_target target;
    target.alias = table.name;
    target.column = column.name;
    target.info.shard_size = static_cast<std::uint64_t>(table.shard_size_ms);
    target.info.type = column.type;
    target.info.index = column.index;

    std::vector<zlk_ts_range_t> ranges;
    for (const time::interval & r : ctx.in_ranges)
    {
        ranges.push_back(zlk_ts_range_t{r.begin.to_c(), r.end.to_c()});
    }
    std::vector<ts::bucket_ranges> buckets;
    if (const zlk_error_t r = ts::split_ranges(ranges, table.shard_size_ms, buckets); ZLK_FAILURE(r))
    {
        return r;
    }
    auto replies = std::make_shared<ts::bucket_replies>();
    if (const zlk_error_t r = ts::read_ranges(c, target, buckets, *replies); ZLK_FAILURE(r))
    {
        return r;
    }
    std::vector<ts::column_rows> one;
    for (std::size_t b = 0; b < replies->contents.size(); ++b)
    {
        if (ts::decode_rows_reply(replies->contents[b], one) || one.size() != 1 || one[0].type != column.type)
        {
            return zlk_e_invalid_reply;
        }
        const ts::column_rows & rows = one[0];
        serialization::cursor bytes(rows.values.data(), rows.values.size());
        for (std::size_t i = 0; i < rows.rows; ++i)
        {
            out.points.push_back(
                result_point{ts::time_of(replies->starts[b], rows.offset(i)), cell_of(rows, i, bytes)});
        }
    }
    // Cells of byte strings point into the replies.
    out.storage.push_back(std::shared_ptr<const void>(replies));
    return zlk_e_ok;
}

bool is_aggregation(aggregation_type f) noexcept
{
    return f != aggregation_type::none && ts::is_aggregation(static_cast<std::uint64_t>(f));
}

// What the direct stage of one table runs: plain columns and aggregations of columns, grouped by time at
// most.
bool direct(const ast::parsed_select & s, const query_context & ctx)
{
    if (s.join || s.having || ctx.where_kind == condition_kind::evaluated || ctx.from_tables.size() != 1 ||
        ctx.group_by_table || !ctx.group_by_columns.empty())
    {
        return false;
    }
    for (const selected_column & col : ctx.selected_columns)
    {
        if (col.tree || col.lookup ||
            (col.function != aggregation_type::none && !is_aggregation(col.function)))
        {
            return false;
        }
    }
    return true;
}

zlk_point_result cell_of(ts::result_value && value, kernel::column_type column, column_result & owner)
{
    zlk_point_result cell{};
    cell.type = zlk_query_result_none;
    std::visit(
        [&](auto && v)
        {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, double>)
            {
                cell.type = zlk_query_result_double;
                cell.payload.double_.value = v;
            }
            else if constexpr (std::is_same_v<T, std::int64_t>)
            {
                cell.type = zlk_query_result_int64;
                cell.payload.int64_.value = v;
            }
            else if constexpr (std::is_same_v<T, timespec>)
            {
                cell.type = zlk_query_result_timestamp;
                cell.payload.timestamp = v.to_c();
            }
            else if constexpr (std::is_same_v<T, std::string>)
            {
                auto bytes = std::make_shared<const std::string>(std::move(v));
                if (column == kernel::column_type::string)
                {
                    cell.type = zlk_query_result_string;
                    cell.payload.string.content = bytes->data();
                    cell.payload.string.content_length = bytes->size();
                }
                else
                {
                    cell.type = zlk_query_result_blob;
                    cell.payload.blob.content = bytes->data();
                    cell.payload.blob.content_length = bytes->size();
                }
                owner.storage.push_back(std::move(bytes));
            }
            else if constexpr (std::is_same_v<T, ts::int64_sum>)
            {
                cell.type = zlk_query_result_count_and_sum;
                cell.payload.pair.first = v.integer;
                std::memcpy(&cell.payload.pair.second, &v.rest, sizeof(double));
            }
        },
        std::move(value));
    return cell;
}

// One point per range: the aggregation of the column over it, at the range's begin.
zlk_error_t aggregate_column(chord::cluster & c, const table_info & table, const column_info & column,
                             aggregation_type f, const std::vector<time::interval> & ranges,
                             column_result & out, std::uint64_t & scanned)
{
    out.table = table.name;
    out.column = column.name;
    out.column_type = column.type;
    out.aggregation = f;
    if (ranges.empty())
    {
        return zlk_e_ok;
    }
    ts::aggregate_target target;
    target.table = ts::table_id(table.name);
    target.type = column.type;
    target.column_index = column.index;
    target.shard_size = table.shard_size_ms;
    std::vector<ts::aggregate_sub_request> asked;
    asked.reserve(ranges.size());
    for (const time::interval & r : ranges)
    {
        asked.push_back(ts::aggregate_sub_request{static_cast<std::uint64_t>(f),
                                                  zlk_ts_range_t{r.begin.to_c(), r.end.to_c()}});
    }
    std::vector<ts::aggregation_state> states;
    if (const zlk_error_t r = ts::run_aggregates(c, target, asked, states); ZLK_FAILURE(r))
    {
        return r;
    }
    out.points.reserve(ranges.size());
    for (std::size_t i = 0; i < ranges.size(); ++i)
    {
        ts::aggregate_result result;
        if (ts::finalise(f, column.type, std::move(states[i]), result))
        {
            return zlk_e_invalid_reply;
        }
        scanned += result.count;
        out.points.push_back(
            result_point{ranges[i].begin, cell_of(std::move(result.value), column.type, out)});
    }
    return zlk_e_ok;
}

} // namespace

std::vector<time::interval> group_buckets(const std::vector<time::interval> & ranges,
                                          const time::duration & d)
{
    std::vector<time::interval> out;
    auto before = [](const timespec & a, const timespec & b)
    { return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec); };
    for (const time::interval & r : ranges)
    {
        timespec start = r.begin;
        while (before(start, r.end))
        {
            const auto next = time::add(start, d);
            // A step that doesn't move forward (or overflows) ends the range in one bucket.
            const timespec end = next && before(start, *next) && before(*next, r.end) ? *next : r.end;
            out.push_back(time::interval{start, end});
            start = end;
        }
    }
    return out;
}

zlk_error_t run_direct_select(chord::cluster & c, std::uint64_t max_cardinality, ast::parsed_select & s,
                              query_context & ctx, select_output & out)
{
    if (const zlk_error_t r = expand_from(c, max_cardinality, s, ctx); ZLK_FAILURE(r))
    {
        return r;
    }
    for (const std::string & name : ctx.from_tables)
    {
        if (const zlk_error_t r = look_up(c, name, ctx); ZLK_FAILURE(r))
        {
            return r;
        }
    }
    if (const zlk_error_t r = analyse_select(s, ctx); ZLK_FAILURE(r))
    {
        return r;
    }
    if (!direct(s, ctx))
    {
        return ctx.fail(
            zlk_e_not_implemented,
            "Only SELECT of columns and aggregations of columns of one table, grouped by time at most, "
            "without a WHERE to evaluate, HAVING or joins, is implemented yet.");
    }
    const std::vector<time::interval> buckets =
        ctx.group_by_duration.is_zero() ? ctx.in_ranges : group_buckets(ctx.in_ranges, ctx.group_by_duration);

    const table_info & table = *ctx.find_table(ctx.from_tables.front());
    if (ctx.has_timestamp)
    {
        out.names.push_back("$timestamp");
    }
    if (ctx.has_table)
    {
        out.names.push_back("$table");
    }
    // A `*` expands to the table's columns in the table's order.
    std::vector<const column_info *> by_index;
    std::vector<aggregation_type> functions;
    for (const selected_column & col : ctx.selected_columns)
    {
        if (col.column == "*")
        {
            std::vector<const column_info *> all;
            for (const column_info & ci : table.columns)
            {
                all.push_back(&ci);
            }
            std::sort(all.begin(), all.end(),
                      [](const column_info * a, const column_info * b) { return a->index < b->index; });
            for (const column_info * ci : all)
            {
                out.names.push_back(ci->name);
                by_index.push_back(ci);
                functions.push_back(aggregation_type::none);
            }
            continue;
        }
        const column_info * ci = table.find(col.column);
        if (!ci)
        {
            return ctx.fail(zlk_e_column_not_found, fmt::format("Could not find column '{}'.", col.column));
        }
        out.names.push_back(col.name);
        by_index.push_back(ci);
        functions.push_back(col.function);
    }

    out.columns.resize(by_index.size());
    if (ctx.where_kind != condition_kind::constant_false)
    {
        for (std::size_t i = 0; i < by_index.size(); ++i)
        {
            const zlk_error_t r = functions[i] == aggregation_type::none
                                      ? read_column(c, table, *by_index[i], ctx, out.columns[i])
                                      : aggregate_column(c, table, *by_index[i], functions[i], buckets,
                                                         out.columns[i], out.scanned_points);
            if (ZLK_FAILURE(r))
            {
                return ctx.fail(r, fmt::format("Could not read column '{}' of table '{}'.", by_index[i]->name,
                                               table.name));
            }
            if (functions[i] == aggregation_type::none)
            {
                out.scanned_points += out.columns[i].points.size();
            }
        }
    }
    std::vector<const column_result *> views;
    for (const column_result & col : out.columns)
    {
        views.push_back(&col);
    }
    merge_by_time(views, row_layout{ctx.has_timestamp, ctx.has_table}, out.rows);

    std::vector<order_key> keys;
    const std::size_t lead = (ctx.has_timestamp ? 1 : 0) + (ctx.has_table ? 1 : 0);
    for (const auto & [position, descending] : ctx.order_by)
    {
        const std::size_t at = position == order_by_timestamp ? 0
                               : position == order_by_table   ? (ctx.has_timestamp ? 1 : 0)
                                                              : lead + static_cast<std::size_t>(position);
        keys.push_back(order_key{at, descending});
    }
    order_rows(out.rows, keys);
    cut_rows(out.rows, ctx.offset, ctx.limit.value_or(0));
    return zlk_e_ok;
}

} // namespace zlk::query
