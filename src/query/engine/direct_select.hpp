// SELECT through the direct stage, for one table: the tables are looked up, the statement is analysed,
// each plain column's rows are read from the buckets its ranges touch and each aggregation is computed
// by the nodes over each range (each GROUP BY bucket when the statement groups by time); the rows are
// merged by time, ordered and cut. Forms that need the filter stages, group keys, expressions or
// transformations are refused with zlk_e_not_implemented for now.
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
// The ranges cut into GROUP BY buckets: each starts where the one before ended, the duration after the
// range's begin, the last one cut by the range's end; empty buckets are dropped.
std::vector<time::interval> group_buckets(const std::vector<time::interval> & ranges,
                                          const time::duration & d);

zlk_error_t run_direct_select(chord::cluster & c, std::uint64_t max_cardinality,
                              ast::parsed_select & statement, query_context & ctx, select_output & out);

} // namespace zlk::query
