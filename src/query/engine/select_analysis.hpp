// The rules of a SELECT that need no more than the statement and the metadata of its tables: special
// columns, composed functions, GROUP BY, the classification of WHERE, time ranges, the resolution of
// column references, output names, ORDER BY, the types of comparisons and the ASOF rules. The caller
// has put the tables of FROM and of the join into the context (their names in `from_tables`, their
// columns in `tables_info`).
#pragma once

#include "query/engine/query_context.hpp"

namespace zlk::query
{

// Runs the rules in their order; the first that fails appends its message and gives its code.
zlk_error_t analyse_select(ast::parsed_select & statement, query_context & ctx);

// 1 for a non-zero literal, 2 for a zero one (0.0 too; NaN is 3), 3 for anything to evaluate.
condition_kind classify(const conditional_expression & condition);

} // namespace zlk::query
