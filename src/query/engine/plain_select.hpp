// SELECT of plain columns of one table over time ranges: the tables are looked up, the statement is
// analysed, each column's rows are read from the buckets its ranges touch, and the rows are merged by
// time, ordered and cut. Forms that need the filter, group or aggregate stages are refused with
// zlk_e_not_implemented for now.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "query/engine/column_result.hpp"
#include "query/engine/query_context.hpp"
#include "query/engine/row_assembly.hpp"
#include "ring/cluster.hpp"

namespace zlk::query
{

struct select_output
{
    std::vector<std::string> names;
    assembled_rows rows;
    std::vector<column_result> columns;
    std::uint64_t scanned_points = 0;
};

// Failures append their message to ctx.messages.
zlk_error_t run_plain_select(chord::cluster & c, std::uint64_t max_cardinality,
                             ast::parsed_select & statement, query_context & ctx, select_output & out);

} // namespace zlk::query
