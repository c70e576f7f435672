// zlk_remove, expiry, location, type and metadata: operations on an entry of any type.
#include <cstring>
#include <memory>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "network/endpoint.hpp"
#include "zlk/entry.h"

namespace
{

using zlk::api::api_call;
using zlk::api::checked_entry;
using zlk::protocol::operation;
namespace client = zlk::client;

// What the removal of an entry of this kernel type leaves to clean up.
zlk_error_t clean_up_after_removal(std::uint64_t kernel_type) noexcept
{
    switch (kernel_type)
    {
    case 2:
    case 8:
    case 17:
        return zlk_e_not_implemented;
    default:
        // A tag's links went with the entry's own; a table's buckets are dropped by the nodes
        // themselves; other kinds up to 50 own nothing else.
        return kernel_type > 50 ? zlk_e_internal_local : zlk_e_ok;
    }
}

template <typename Body>
zlk_error_t in_frame(zlk_handle_t handle, const char * name, Body && body)
{
    return api_call(handle, name, [&]() -> zlk_error_t { return zlk::api::run_with_retries(*handle, body); });
}

// The entry's information from its owner.
zlk_error_t read_entry_info(zlk_session & h, const char * alias, client::entry_info & info)
{
    const auto entry = checked_entry(alias);
    zlk::chord::owner_reply reply;
    const zlk_error_t r = zlk::client::send_entry_request(h.cluster, entry.key, 0, true, false,
                                                          &client::entry_info_body, reply);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    return client::decode_entry_info(reply.reply()->result.content_view(), info);
}

// Reads the entry's information under the retry frame and hands it to `use` when it came.
template <typename Use>
zlk_error_t with_entry_info(zlk_session & h, const char * alias, Use && use)
{
    return zlk::api::run_with_retries(h,
                                      [&]() -> zlk_error_t
                                      {
                                          client::entry_info info;
                                          const zlk_error_t r = read_entry_info(h, alias, info);
                                          if (ZLK_SUCCESS(r))
                                          {
                                              use(info);
                                          }
                                          return r;
                                      });
}

} // namespace

zlk_error_t zlk_remove(zlk_handle_t handle, const char * alias) noexcept
{
    return in_frame(
        handle, "zlk_remove",
        [&]() -> zlk_error_t
        {
            const auto entry = checked_entry(alias);
            auto body = [] { return client::typed_body(operation::remove, zlk::kernel::any_entry_type); };
            auto follow_up = [&](client::transaction_state & state, const zlk::chord::owner_reply & removed)
            {
                const std::uint64_t type = removed.reply() ? removed.reply()->result.value : 0;
                const zlk_error_t links =
                    zlk::client::remove_entry_links(handle->cluster, state, alias, type);
                return ZLK_FAILURE(links) ? links : clean_up_after_removal(type);
            };
            zlk::chord::owner_reply reply;
            return zlk::client::remove_in_transaction(handle->cluster, entry.key, 0, false, body, reply,
                                                      follow_up);
        });
}

zlk_error_t zlk_expires_at(zlk_handle_t handle, const char * alias, zlk_time_t expiry_time) noexcept
{
    return in_frame(handle, "zlk_expires_at",
                    [&]() -> zlk_error_t
                    {
                        const auto entry = checked_entry(alias);
                        auto body = [&] { return client::expires_at_body(expiry_time); };
                        zlk::chord::owner_reply reply;
                        return zlk::client::send_entry_request(handle->cluster, entry.key, 0, false, false,
                                                               body, reply);
                    });
}

zlk_error_t zlk_expires_from_now(zlk_handle_t handle, const char * alias, int64_t milliseconds) noexcept
{
    return in_frame(handle, "zlk_expires_from_now",
                    [&]() -> zlk_error_t
                    {
                        const auto entry = checked_entry(alias);
                        auto body = [&] { return client::expires_from_now_body(milliseconds); };
                        zlk::chord::owner_reply reply;
                        return zlk::client::send_entry_request(handle->cluster, entry.key, 0, false, false,
                                                               body, reply);
                    });
}

zlk_error_t zlk_get_expiry_time(zlk_handle_t handle, const char * alias, zlk_time_t * expiry_time) noexcept
{
    return api_call(handle, "zlk_get_expiry_time",
                    [&]() -> zlk_error_t
                    {
                        if (!expiry_time)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return with_entry_info(*handle, alias,
                                               [&](const client::entry_info & info)
                                               { *expiry_time = client::expiry_milliseconds(info.expiry); });
                    });
}

zlk_error_t zlk_get_type(zlk_handle_t handle, const char * alias, zlk_entry_type_t * entry_type) noexcept
{
    return api_call(handle, "zlk_get_type",
                    [&]() -> zlk_error_t
                    {
                        if (!entry_type)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *entry_type = zlk_entry_uninitialized;
                        return with_entry_info(*handle, alias,
                                               [&](const client::entry_info & info)
                                               { *entry_type = zlk::kernel::public_entry_type(info.type); });
                    });
}

zlk_error_t zlk_get_metadata(zlk_handle_t handle, const char * alias,
                             zlk_entry_metadata_t * metadata) noexcept
{
    return api_call(handle, "zlk_get_metadata",
                    [&]() -> zlk_error_t
                    {
                        if (!metadata)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return with_entry_info(*handle, alias,
                                               [&](const client::entry_info & info)
                                               {
                                                   std::uint8_t * out = metadata->reference;
                                                   for (const std::uint64_t w : info.key.words)
                                                   {
                                                       zlk::serialization::detail::store_le(out, w);
                                                       out += 8;
                                                   }
                                                   metadata->type = zlk::kernel::public_entry_type(info.type);
                                                   metadata->size = info.size;
                                                   metadata->modification_time = info.modified.to_c();
                                                   metadata->expiry_time = info.expiry.to_c();
                                               });
                    });
}

zlk_error_t zlk_get_location(zlk_handle_t handle, const char * alias, zlk_remote_node_t * location) noexcept
{
    return api_call(handle, "zlk_get_location",
                    [&]() -> zlk_error_t
                    {
                        if (!location)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const auto entry = checked_entry(alias);
                                const zlk_error_t connected = handle->cluster.ensure_connected();
                                if (ZLK_FAILURE(connected))
                                {
                                    return connected;
                                }
                                zlk::chord::node_info owner;
                                if (const auto ec =
                                        zlk::chord::find_owner(handle->cluster, entry.key, 0, false, owner))
                                {
                                    return zlk::make_error_from_code(ec, zlk::local_origin);
                                }
                                char text[zlk::network::max_endpoint_text];
                                const std::size_t n = zlk::network::format_address_to(owner.endpoint, text);
                                auto address = std::make_unique<char[]>(n + 1);
                                std::memcpy(address.get(), text, n);
                                address[n] = '\0';
                                const char * at = address.get();
                                handle->objects_tracker.track(at, address, "remote node URI");
                                location->address = at;
                                location->port = owner.endpoint.port();
                                return zlk_e_ok;
                            });
                    });
}
