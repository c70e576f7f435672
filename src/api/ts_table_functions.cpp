// zlk_ts_create, zlk_ts_insert_columns, zlk_ts_list_columns, zlk_ts_shard_size, zlk_ts_expire_by_size:
// time series tables.
#include <cstring>
#include <memory>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/retry_frame.hpp"
#include "ring/routing.hpp"
#include "timeseries/table_metadata.hpp"
#include "timeseries/table_requests.hpp"
#include "zlk/ts.h"

namespace
{

using zlk::api::api_call;
namespace ts = zlk::timeseries;

std::string_view checked_table(const char * alias)
{
    const zlk::api::checked_alias a = zlk::api::check_alias(alias);
    return {a.data, a.length - 1};
}

// The column array and its names in one block: the names follow the array, each with its terminator.
void hand_out_columns(zlk_session & h, const ts::timeseries_table & table, zlk_ts_column_info ** columns,
                      size_t * column_count)
{
    const std::size_t n = table.columns.size();
    if (n == 0)
    {
        return;
    }
    std::size_t bytes = n * sizeof(zlk_ts_column_info);
    for (const auto & c : table.columns)
    {
        bytes += c.name.size() + 1;
    }
    const std::size_t words = (bytes + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
    auto block = std::make_unique<std::max_align_t[]>(words);
    auto * infos = reinterpret_cast<zlk_ts_column_info *>(block.get());
    char * names = reinterpret_cast<char *>(infos + n);
    for (std::size_t i = 0; i < n; ++i)
    {
        const auto & c = table.columns[i];
        std::memcpy(names, c.name.data(), c.name.size());
        names[c.name.size()] = '\0';
        infos[i].name = names;
        infos[i].type = static_cast<zlk_ts_column_type>(c.type);
        names += c.name.size() + 1;
    }
    h.objects_tracker.track(infos, block, "ts columns");
    *columns = infos;
    *column_count = n;
}

// What a request for each node answers; the sizes dropped are the nodes' business.
struct ts_disk_usage_policy
{
    static constexpr bool has_content = false;

    boost::system::error_code on_reply(const zlk::client::request_record &,
                                       const zlk::chord::chord_carrier_reply & reply) noexcept
    {
        return reply.result.error;
    }
};

} // namespace

zlk_error_t zlk_ts_create(zlk_handle_t handle, const char * alias, uint64_t shard_size,
                          const zlk_ts_column_info * columns, size_t column_count) noexcept
{
    return api_call(handle, "zlk_ts_create",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const std::string_view table = checked_table(alias);
                                const auto described = ts::check_columns(columns, column_count);
                                if (shard_size == 0)
                                {
                                    throw zlk::api_exception{zlk_e_invalid_argument,
                                                             "{} must be strictly positive", "shard size"};
                                }
                                return ts::create_table(handle->cluster, table, shard_size, described);
                            });
                    });
}

zlk_error_t zlk_ts_insert_columns(zlk_handle_t handle, const char * alias, const zlk_ts_column_info * columns,
                                  size_t column_count) noexcept
{
    return api_call(handle, "zlk_ts_insert_columns",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const std::string_view table = checked_table(alias);
                                const auto described = ts::check_columns(columns, column_count);
                                return ts::insert_columns(handle->cluster, table, described);
                            });
                    });
}

zlk_error_t zlk_ts_list_columns(zlk_handle_t handle, const char * alias, zlk_ts_column_info ** columns,
                                size_t * column_count) noexcept
{
    return api_call(handle, "zlk_ts_list_columns",
                    [&]() -> zlk_error_t
                    {
                        if (!columns || !column_count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *columns = nullptr;
                        *column_count = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const std::string_view table = checked_table(alias);
                                std::shared_ptr<const ts::timeseries_table> listed;
                                const zlk_error_t r = ts::get_table(handle->cluster, table, listed);
                                if (ZLK_SUCCESS(r))
                                {
                                    hand_out_columns(*handle, *listed, columns, column_count);
                                }
                                return r;
                            });
                    });
}

zlk_error_t zlk_ts_shard_size(zlk_handle_t handle, const char * alias, uint64_t * shard_size) noexcept
{
    return api_call(handle, "zlk_ts_shard_size",
                    [&]() -> zlk_error_t
                    {
                        if (!shard_size)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *shard_size = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const std::string_view table = checked_table(alias);
                                std::shared_ptr<const ts::timeseries_table> listed;
                                const zlk_error_t r = ts::get_table(handle->cluster, table, listed);
                                if (ZLK_SUCCESS(r))
                                {
                                    *shard_size = listed->shard_size;
                                }
                                return r;
                            });
                    });
}

zlk_error_t zlk_ts_expire_by_size(zlk_handle_t handle, const char * alias, uint64_t size) noexcept
{
    return api_call(handle, "zlk_ts_expire_by_size",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const std::string_view table = checked_table(alias);
                                const zlk_error_t connected = handle->cluster.ensure_connected();
                                if (ZLK_FAILURE(connected))
                                {
                                    return connected;
                                }
                                auto body = [&] { return ts::build_expire_by_size(table, size); };
                                ts_disk_usage_policy policy;
                                return zlk::chord::request_all_nodes(handle->cluster, body, policy);
                            });
                    });
}
