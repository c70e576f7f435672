// zlk_blob_*: blob entries.
#include <cstring>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "zlk/blob.h"

namespace
{

using zlk::api::api_call;
using zlk::api::checked_entry;
using zlk::api::compression_enabled;
using zlk::protocol::operation;
namespace client = zlk::client;

// The largest compression buffer a thread keeps between writes.
constexpr std::size_t max_kept_compression = 1 << 20;

zlk_error_t write_blob(zlk_handle_t handle, const char * name, operation op, const char * alias,
                       const void * content, size_t length, zlk_time_t expiry)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const auto entry = checked_entry(alias);
                                zlk::api::check_content(content, length, "blob");
                                // The compressed form lives until the reply is in: one buffer per
                                // thread, reused, so that a write allocates nothing of its own.
                                thread_local std::vector<std::uint8_t> compressed;
                                const client::content_bytes out = client::prepare_content(
                                    content, length, compression_enabled(*handle), compressed);
                                struct shrink_after
                                {
                                    ~shrink_after()
                                    {
                                        if (compressed.capacity() > max_kept_compression)
                                        {
                                            std::vector<std::uint8_t>().swap(compressed);
                                        }
                                    }
                                } shrink;
                                client::body_storage storage;
                                auto body = [&]
                                { return client::blob_write_body(op, entry.bytes, out, expiry, storage); };
                                const std::uint16_t access = op == operation::put ? client::access_put : 0;
                                zlk::chord::owner_reply reply;
                                const zlk_error_t r = zlk::client::send_entry_request(
                                    handle->cluster, entry.key, access, false, false, body, reply);
                                if (ZLK_SUCCESS(r) && op == operation::update && reply.reply() &&
                                    reply.reply()->result.value != 0)
                                {
                                    return zlk_e_ok_created;
                                }
                                return r;
                            });
                    });
}

// A removed blob's tag links go in the removal's transaction.
zlk_error_t remove_blob_links(zlk_session & h, client::transaction_state & state, const char * alias)
{
    return zlk::client::remove_entry_links(h.cluster, state, alias,
                                           static_cast<std::uint64_t>(zlk::kernel::entry_type::blob));
}

} // namespace

zlk_error_t zlk_blob_put(zlk_handle_t handle, const char * alias, const void * content, size_t content_length,
                         zlk_time_t expiry_time) noexcept
{
    return write_blob(handle, "zlk_blob_put", operation::put, alias, content, content_length, expiry_time);
}

zlk_error_t zlk_blob_update(zlk_handle_t handle, const char * alias, const void * content,
                            size_t content_length, zlk_time_t expiry_time) noexcept
{
    return write_blob(handle, "zlk_blob_update", operation::update, alias, content, content_length,
                      expiry_time);
}

namespace
{

// One attempt at reading a blob: a replica of its key first, the owner after a failure.
zlk_error_t fetch_blob(zlk_handle_t handle, const char * alias, zlk::chord::owner_reply & reply)
{
    const auto entry = checked_entry(alias, true);
    client::body_storage storage;
    auto body = [&] { return client::get_body(0, 0, zlk::kernel::entry_type::blob, storage); };
    return zlk::client::send_entry_request(handle->cluster, entry.key, 0, true, true, body, reply);
}

} // namespace

zlk_error_t zlk_blob_get(zlk_handle_t handle, const char * alias, const void ** content,
                         size_t * content_length) noexcept
{
    return api_call(handle, "zlk_blob_get",
                    [&]
                    {
                        return zlk::api::fetch_content(*handle, content, content_length,
                                                       [&](zlk::chord::owner_reply & reply)
                                                       { return fetch_blob(handle, alias, reply); });
                    });
}

zlk_error_t zlk_blob_get_noalloc(zlk_handle_t handle, const char * alias, void * destination,
                                 size_t * destination_length) noexcept
{
    return api_call(handle, "zlk_blob_get_noalloc",
                    [&]() -> zlk_error_t
                    {
                        zlk::api::check_not_null(destination, "blob destination");
                        zlk::api::check_not_null(destination_length, "blob length");
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                zlk::chord::owner_reply reply;
                                const zlk_error_t r = fetch_blob(handle, alias, reply);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<std::uint8_t> scratch;
                                const auto bytes = zlk::client::reply_content(reply, scratch);
                                const std::size_t room = *destination_length;
                                *destination_length = bytes.size();
                                if (bytes.size() > room)
                                {
                                    return zlk_e_buffer_too_small;
                                }
                                if (!bytes.empty())
                                {
                                    std::memcpy(destination, bytes.data(), bytes.size());
                                }
                                return zlk_e_ok;
                            });
                    });
}

zlk_error_t zlk_blob_get_and_update(zlk_handle_t handle, const char * alias, const void * new_content,
                                    size_t new_content_length, zlk_time_t expiry_time,
                                    const void ** old_content, size_t * old_content_length) noexcept
{
    return api_call(
        handle, "zlk_blob_get_and_update",
        [&]() -> zlk_error_t
        {
            if (!old_content || !old_content_length)
            {
                throw zlk_e_invalid_argument;
            }
            *old_content = nullptr;
            *old_content_length = 0;
            return zlk::api::run_with_retries(
                *handle,
                [&]() -> zlk_error_t
                {
                    const auto entry = checked_entry(alias);
                    zlk::api::check_content(new_content, new_content_length, "new blob");
                    const client::outgoing_content out = client::prepare_content(
                        new_content, new_content_length, compression_enabled(*handle));
                    auto body = [&] { return client::get_and_update_body(out.bytes, expiry_time); };
                    zlk::chord::owner_reply reply;
                    const zlk_error_t r = zlk::client::send_entry_request(handle->cluster, entry.key, 0, true,
                                                                          false, body, reply);
                    if (ZLK_SUCCESS(r))
                    {
                        zlk::api::hand_out_content(*handle, reply, old_content, old_content_length);
                    }
                    return r;
                });
        });
}

zlk_error_t zlk_blob_get_and_remove(zlk_handle_t handle, const char * alias, const void ** content,
                                    size_t * content_length) noexcept
{
    return api_call(
        handle, "zlk_blob_get_and_remove",
        [&]() -> zlk_error_t
        {
            if (!content || !content_length)
            {
                throw zlk_e_invalid_argument;
            }
            *content = nullptr;
            *content_length = 0;
            return zlk::api::run_with_retries(
                *handle,
                [&]() -> zlk_error_t
                {
                    const auto entry = checked_entry(alias);
                    auto body = []
                    {
                        return client::typed_body(operation::get_and_remove,
                                                  static_cast<std::uint8_t>(zlk::kernel::entry_type::blob));
                    };
                    auto follow_up =
                        [&](zlk::client::transaction_state & state, const zlk::chord::owner_reply &)
                    { return remove_blob_links(*handle, state, alias); };
                    zlk::chord::owner_reply reply;
                    const zlk_error_t r = zlk::client::remove_in_transaction(handle->cluster, entry.key, 0,
                                                                             true, body, reply, follow_up);
                    if (ZLK_SUCCESS(r))
                    {
                        zlk::api::hand_out_content(*handle, reply, content, content_length);
                    }
                    return r;
                });
        });
}

zlk_error_t zlk_blob_remove_if(zlk_handle_t handle, const char * alias, const void * comparand,
                               size_t comparand_length) noexcept
{
    return api_call(handle, "zlk_blob_remove_if",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const auto entry = checked_entry(alias);
                                zlk::api::check_content(comparand, comparand_length, "comparand");
                                const client::outgoing_content out = client::prepare_content(
                                    comparand, comparand_length, compression_enabled(*handle));
                                auto body = [&] { return client::remove_if_body(out.bytes); };
                                auto follow_up = [&](zlk::client::transaction_state & state,
                                                     const zlk::chord::owner_reply &)
                                { return remove_blob_links(*handle, state, alias); };
                                zlk::chord::owner_reply reply;
                                return zlk::client::remove_in_transaction(handle->cluster, entry.key, 0,
                                                                          false, body, reply, follow_up);
                            });
                    });
}

zlk_error_t zlk_blob_compare_and_swap(zlk_handle_t handle, const char * alias, const void * new_content,
                                      size_t new_content_length, const void * comparand,
                                      size_t comparand_length, zlk_time_t expiry_time,
                                      const void ** original_content,
                                      size_t * original_content_length) noexcept
{
    return api_call(
        handle, "zlk_blob_compare_and_swap",
        [&]() -> zlk_error_t
        {
            if (!original_content || !original_content_length)
            {
                throw zlk_e_invalid_argument;
            }
            *original_content = nullptr;
            *original_content_length = 0;
            return zlk::api::run_with_retries(
                *handle,
                [&]() -> zlk_error_t
                {
                    const auto entry = checked_entry(alias);
                    zlk::api::check_content(new_content, new_content_length, "new blob");
                    zlk::api::check_content(comparand, comparand_length, "comparand");
                    const bool compress = compression_enabled(*handle);
                    const client::outgoing_content out =
                        client::prepare_content(new_content, new_content_length, compress);
                    const client::outgoing_content expected =
                        client::prepare_content(comparand, comparand_length, compress);
                    auto body = [&]
                    { return client::compare_and_swap_body(out.bytes, expected.bytes, expiry_time); };
                    zlk::chord::owner_reply reply;
                    const zlk_error_t r = zlk::client::send_entry_request(handle->cluster, entry.key, 0, true,
                                                                          false, body, reply);
                    if (r == zlk_e_unmatched_content)
                    {
                        zlk::api::hand_out_content(*handle, reply, original_content, original_content_length);
                    }
                    return r;
                });
        });
}
