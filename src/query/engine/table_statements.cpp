#include "query/engine/table_statements.hpp"

#include <fmt/format.h>

#include <string>
#include <vector>

#include "timeseries/codec/ts_messages.hpp"
#include "timeseries/table_requests.hpp"

namespace zlk::query
{

zlk_error_t run_create_table(chord::cluster & c, const ast::parsed_create_table & s, query_context & ctx)
{
    for (std::size_t i = 0; i < s.columns.size(); ++i)
    {
        std::vector<std::string> same;
        for (std::size_t j = i; j < s.columns.size(); ++j)
        {
            if (s.columns[j].name == s.columns[i].name)
            {
                same.push_back(fmt::format("{}th", j + 1));
            }
        }
        if (same.size() > 1)
        {
            return ctx.fail(zlk_e_invalid_argument, fmt::format("The {} columns are the same ('{}').",
                                                                fmt::join(same, " and "), s.columns[i].name));
        }
    }
    const time::duration & d = s.shard_size;
    const std::int64_t ms = d.days * 86'400'000 + d.seconds * 1000 + d.nanoseconds / 1'000'000;
    if (d.years != 0 || d.months != 0 || d.nanoseconds % 1'000'000 != 0 || ms <= 0)
    {
        return ctx.fail(zlk_e_invalid_argument,
                        fmt::format("The shard size of table '{}' must be a positive number of milliseconds, "
                                    "written in days, hours, minutes, seconds or milliseconds.",
                                    s.table));
    }
    std::vector<timeseries::column_description> columns;
    columns.reserve(s.columns.size());
    for (const column_description & col : s.columns)
    {
        columns.push_back(timeseries::column_description{col.name, col.type});
    }
    const zlk_error_t r =
        timeseries::create_table(c, s.table, static_cast<std::uint64_t>(ms), columns, s.if_not_exists);
    if (ZLK_FAILURE(r))
    {
        return ctx.fail(r, r == zlk_e_alias_already_exists
                               ? fmt::format("Table '{}' already exists.", s.table)
                               : fmt::format("Could not create table '{}'.", s.table));
    }
    return zlk_e_ok;
}

} // namespace zlk::query
