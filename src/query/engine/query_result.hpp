// The record a statement hands to its caller: column names, rows of cells, the points scanned and the
// statement's messages, in one block of which the public zlk_query_result is a member. One release of
// the block frees all of it; the bytes that blob and string cells point into are kept alive by it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "query/engine/column_result.hpp"
#include "query/engine/row_assembly.hpp"
#include "zlk/query.h"

namespace zlk::query
{

struct result_block
{
    // What the cells point into.
    std::vector<column_result> columns;
    std::vector<std::shared_ptr<const void>> storage;
    std::vector<std::string> names;
    std::vector<zlk_string_t> name_views;
    assembled_rows rows;
    std::vector<zlk_point_result *> row_pointers;
    std::string error_message;
    // The caller's view: its address is the key the caller releases.
    zlk_query_result result{};
};

// Moves names, rows and the columns their cells point into into one block and fills its public record.
// Throws std::bad_alloc.
std::unique_ptr<result_block> make_result_block(std::vector<std::string> names, assembled_rows rows,
                                                std::vector<column_result> columns,
                                                std::uint64_t scanned_points, std::string error_message);

// Messages of a statement joined with "\n" between them.
std::string join_messages(const std::vector<std::string> & messages);

} // namespace zlk::query
