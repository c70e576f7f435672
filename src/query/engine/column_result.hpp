// What execution hands to result assembly: for each selected (table, column, function) the points it
// produced, sorted by time, each a time and a cell. Blob and string cells point into storage that the
// column result keeps alive (received buffers, or bytes of its own).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/column_type.hpp"
#include "base/time_value.hpp"
#include "timeseries/codec/aggregation_state.hpp"
#include "zlk/query.h"

namespace zlk::query
{

struct result_point
{
    timespec time;
    zlk_point_result value;
};
static_assert(sizeof(zlk_point_result) == 24, "a cell is 24 bytes");
static_assert(sizeof(result_point) == 40, "a point is 40 bytes");

struct column_result
{
    aggregation_type aggregation = aggregation_type::none;
    kernel::column_type column_type = kernel::column_type::double_;
    std::string table;
    std::string column;
    std::vector<result_point> points;
    // Owners of the bytes that blob and string cells point into.
    std::vector<std::shared_ptr<const void>> storage;
};

// A cell as a row shows it: a value in its type's null form (a NaN double, an empty blob, the int64
// 0x8000000000000000, a timestamp of two such words, a string of two zero words) becomes type -1 with a
// zero payload.
zlk_point_result row_cell(const zlk_point_result & value) noexcept;

inline zlk_point_result none_cell() noexcept
{
    zlk_point_result c{};
    c.type = zlk_query_result_none;
    return c;
}

} // namespace zlk::query
