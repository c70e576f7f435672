#include "query/engine/query_context.hpp"

#include <algorithm>

namespace zlk::query
{

void table_info::seal()
{
    std::sort(columns.begin(), columns.end(),
              [](const column_info & a, const column_info & b) { return a.name < b.name; });
}

const column_info * table_info::find(std::string_view column) const noexcept
{
    const auto it = std::lower_bound(columns.begin(), columns.end(), column,
                                     [](const column_info & c, std::string_view n) { return c.name < n; });
    return it != columns.end() && it->name == column ? &*it : nullptr;
}

void query_context::add_table(table_info t)
{
    t.seal();
    const auto it = std::lower_bound(tables_info.begin(), tables_info.end(), t.name,
                                     [](const table_info & a, const std::string & n) { return a.name < n; });
    if (it != tables_info.end() && it->name == t.name)
    {
        *it = std::move(t);
        return;
    }
    tables_info.insert(it, std::move(t));
}

const table_info * query_context::find_table(std::string_view name) const noexcept
{
    const auto it = std::lower_bound(tables_info.begin(), tables_info.end(), name,
                                     [](const table_info & a, std::string_view n) { return a.name < n; });
    return it != tables_info.end() && it->name == name ? &*it : nullptr;
}

zlk_error_t query_context::fail(zlk_error_t code, std::string message)
{
    messages.push_back(std::move(message));
    return code;
}

} // namespace zlk::query
