#include "query/engine/query_result.hpp"

namespace zlk::query
{

std::unique_ptr<result_block> make_result_block(std::vector<std::string> names, assembled_rows rows,
                                                std::vector<column_result> columns,
                                                std::uint64_t scanned_points, std::string error_message)
{
    auto block = std::make_unique<result_block>();
    // Moving keeps every heap buffer in place, so cells that point into names, tables or rows stay valid.
    block->columns = std::move(columns);
    block->names = std::move(names);
    block->rows = std::move(rows);
    block->error_message = std::move(error_message);

    block->name_views.reserve(block->names.size());
    for (const std::string & n : block->names)
    {
        block->name_views.push_back(zlk_string_t{n.data(), n.size()});
    }
    const std::size_t row_count = block->rows.row_count();
    block->row_pointers.reserve(row_count);
    for (std::size_t i = 0; i < row_count; ++i)
    {
        block->row_pointers.push_back(block->rows.row(i));
    }

    zlk_query_result & r = block->result;
    r.column_names = block->name_views.empty() ? nullptr : block->name_views.data();
    r.column_count = block->names.size();
    r.rows = block->row_pointers.empty() ? nullptr : block->row_pointers.data();
    r.row_count = row_count;
    r.scanned_point_count = scanned_points;
    r.error_message = zlk_string_t{block->error_message.data(), block->error_message.size()};
    return block;
}

std::string join_messages(const std::vector<std::string> & messages)
{
    std::string joined;
    for (std::size_t i = 0; i < messages.size(); ++i)
    {
        if (i != 0)
        {
            joined.push_back('\n');
        }
        joined += messages[i];
    }
    return joined;
}

} // namespace zlk::query
