// Statements that define tables. Each appends its messages to the context and gives its code; a
// success hands back an empty result.
#pragma once

#include "query/engine/query_context.hpp"
#include "ring/cluster.hpp"

namespace zlk::query
{

// "The {} columns are the same ('{}')." for a name given twice, with rough ordinals ("1th and 2th").
zlk_error_t run_create_table(chord::cluster & c, const ast::parsed_create_table & statement,
                             query_context & ctx);

} // namespace zlk::query
