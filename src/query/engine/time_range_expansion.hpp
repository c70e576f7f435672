// The ranges a statement reads once `WITH TIME IN`, `WITH DAYS IN` and `WITH MONTHS IN` have cut them:
// each maximal part of the base ranges that lies inside every clause, in UTC.
#pragma once

#include <vector>

#include "query/grammar/statements.hpp"

namespace zlk::query
{

// Without clauses the base ranges come back as they are. A clause's range is half-open; one whose begin
// lies after its end wraps around the day, week or year. Parts that touch are merged.
std::vector<time::interval> expand_time_ranges(const time_ranges_spec & clauses);

} // namespace zlk::query
