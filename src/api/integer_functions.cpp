// zlk_int_*: integer entries. The value travels as a fixed 8-byte word, never compressed.
#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "zlk/integer.h"

namespace
{

using zlk::api::api_call;
using zlk::api::checked_entry;
using zlk::protocol::operation;
namespace client = zlk::client;

zlk_error_t write_integer(zlk_handle_t handle, const char * name, operation op, const char * alias,
                          int64_t value, zlk_time_t expiry)
{
    return api_call(
        handle, name,
        [&]() -> zlk_error_t
        {
            return zlk::api::run_with_retries(
                *handle,
                [&]() -> zlk_error_t
                {
                    const auto entry = checked_entry(alias);
                    auto body = [&] { return client::int_write_body(op, entry.bytes, value, expiry); };
                    const std::uint16_t access = op == operation::int_put ? client::access_put : 0;
                    zlk::chord::owner_reply reply;
                    const zlk_error_t r = zlk::client::send_entry_request(handle->cluster, entry.key, access,
                                                                          false, false, body, reply);
                    if (ZLK_SUCCESS(r) && op == operation::int_update && reply.reply() &&
                        reply.reply()->result.value != 0)
                    {
                        return zlk_e_ok_created;
                    }
                    return r;
                });
        });
}

} // namespace

zlk_error_t zlk_int_put(zlk_handle_t handle, const char * alias, int64_t value,
                        zlk_time_t expiry_time) noexcept
{
    return write_integer(handle, "zlk_int_put", operation::int_put, alias, value, expiry_time);
}

zlk_error_t zlk_int_update(zlk_handle_t handle, const char * alias, int64_t value,
                           zlk_time_t expiry_time) noexcept
{
    return write_integer(handle, "zlk_int_update", operation::int_update, alias, value, expiry_time);
}

zlk_error_t zlk_int_get(zlk_handle_t handle, const char * alias, int64_t * value) noexcept
{
    return api_call(handle, "zlk_int_get",
                    [&]() -> zlk_error_t
                    {
                        if (!value)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const auto entry = checked_entry(alias);
                                auto body = []
                                { return client::get_body(0, 0, zlk::kernel::entry_type::integer); };
                                zlk::chord::owner_reply reply;
                                const zlk_error_t r = zlk::client::send_entry_request(
                                    handle->cluster, entry.key, 0, false, true, body, reply);
                                if (ZLK_SUCCESS(r) && reply.reply())
                                {
                                    *value = static_cast<int64_t>(reply.reply()->result.value);
                                }
                                return r;
                            });
                    });
}

zlk_error_t zlk_int_add(zlk_handle_t handle, const char * alias, int64_t addend, int64_t * result) noexcept
{
    return api_call(handle, "zlk_int_add",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const auto entry = checked_entry(alias);
                                auto body = [&] { return client::int_add_body(addend); };
                                zlk::chord::owner_reply reply;
                                const zlk_error_t r = zlk::client::send_entry_request(
                                    handle->cluster, entry.key, 0, false, false, body, reply);
                                if (ZLK_SUCCESS(r) && result && reply.reply())
                                {
                                    *result = static_cast<int64_t>(reply.reply()->result.value);
                                }
                                return r;
                            });
                    });
}
