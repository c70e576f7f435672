#include "timeseries/table_requests.hpp"

#include <algorithm>
#include <cstring>

#include "base/api_exception.hpp"
#include "base/entry_type.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/bucket.hpp"

namespace zlk::timeseries
{

std::vector<column_description> check_columns(const zlk_ts_column_info * columns, std::size_t count)
{
    if (!columns && count > 0)
    {
        throw api_exception{zlk_e_invalid_argument, "Got NULL {} with size > 0", "column names"};
    }
    std::vector<column_description> out;
    out.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        const zlk_ts_column_info & c = columns[i];
        // Read as the 32 bits a C caller may have put there, whatever the enumeration's range.
        std::uint32_t raw_type = 0;
        static_assert(sizeof raw_type == sizeof c.type);
        std::memcpy(&raw_type, &c.type, sizeof raw_type);
        const auto type = kernel::column_type_of(raw_type);
        if (!type || !c.name)
        {
            throw zlk_e_invalid_argument;
        }
        const std::size_t length = strnlen(c.name, max_column_name);
        if (length == 0)
        {
            throw zlk_e_invalid_argument;
        }
        const std::string_view name(c.name, length);
        if (name.starts_with(kernel::reserved_alias_mark))
        {
            throw zlk_e_reserved_alias;
        }
        out.push_back({name, *type});
    }
    std::vector<std::string_view> names;
    names.reserve(out.size());
    for (const auto & c : out)
    {
        names.push_back(c.name);
    }
    std::sort(names.begin(), names.end());
    if (std::adjacent_find(names.begin(), names.end()) != names.end())
    {
        throw zlk_e_invalid_argument;
    }
    return out;
}

namespace
{

zlk_error_t send_to_table_owner(chord::cluster & c, std::string_view alias, client::body_builder body)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    chord::owner_request request;
    request.key = table_id(alias);
    request.has_content = false;
    chord::owner_reply reply;
    return chord::request_owner(c, request, body, reply);
}

} // namespace

zlk_error_t create_table(chord::cluster & c, std::string_view alias, std::uint64_t shard_size,
                         std::span<const column_description> columns, bool if_not_exists)
{
    auto body = [&] { return build_create_table(alias, shard_size, columns); };
    const zlk_error_t r = send_to_table_owner(c, alias, body);
    return if_not_exists && r == zlk_e_alias_already_exists ? zlk_e_ok : r;
}

zlk_error_t insert_columns(chord::cluster & c, std::string_view alias,
                           std::span<const column_description> columns)
{
    auto body = [&] { return build_insert_columns(alias, columns); };
    return send_to_table_owner(c, alias, body);
}

} // namespace zlk::timeseries
