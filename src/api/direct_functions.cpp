// zlk_direct_*: reads of what one node itself holds, over a connection of the broker's "sync" side for
// that node's address, without the ring's routing.
#include <memory>
#include <string>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "base/make_error.hpp"
#include "network/endpoint.hpp"
#include "network/request.hpp"
#include "wire/operation_body.hpp"
#include "zlk/direct.h"

struct zlk_direct_session
{
    static constexpr std::uint64_t live_mark = 0x7a6c6b2d64697231ull;

    std::uint64_t mark = live_mark;
    zlk_session * parent = nullptr;
    zlk::network::endpoint node;
};

namespace
{

using zlk::api::api_call;
using zlk::protocol::operation;

constexpr std::size_t max_uri_length = 1000;
constexpr std::uint32_t uri_origin = 0xC0000000u;
constexpr const char * direct_context = "direct connection";
// Bit 0 of required_access: any node serves the key, ownership aside.
constexpr std::uint16_t any_node_access = 1;

zlk_session * parent_of(zlk_direct_handle_t direct) noexcept
{
    return direct && direct->mark == zlk_direct_session::live_mark ? direct->parent : nullptr;
}

zlk::protocol::operation_body direct_get_body(zlk::kernel::entry_type kind) noexcept
{
    return zlk::protocol::build_operation_body(operation::direct_get, 2 * 10 + 1,
                                               [kind](auto & w)
                                               {
                                                   w.put_varint(0);
                                                   w.put_varint(0);
                                                   w.put_u8(static_cast<std::uint8_t>(kind));
                                               });
}

zlk_error_t direct_request(zlk_direct_session & d, const zlk::chord::ring_id & key,
                           const zlk::protocol::operation_body & body, zlk::chord::owner_reply & out);

// The node's reading of the key: its own error translated with the remote origin; a refusal likewise.
zlk_error_t direct_get(zlk_direct_session & d, const char * alias, zlk::kernel::entry_type kind,
                       zlk::chord::owner_reply & out)
{
    const auto entry = zlk::api::checked_entry(alias, true);
    const auto body = direct_get_body(kind);
    if (body.error)
    {
        return zlk::make_error_from_code(body.error, zlk::local_origin);
    }
    return direct_request(d, entry.key, body, out);
}

zlk_error_t direct_request(zlk_direct_session & d, const zlk::chord::ring_id & key,
                           const zlk::protocol::operation_body & body, zlk::chord::owner_reply & out)
{
    const zlk::protocol::message request{zlk::chord::make_carrier(key, 0, any_node_access, body)};
    const boost::system::error_code ec = zlk::network::client::request_sync(
        d.parent->cluster.broker().sync_side(), d.node, direct_context, request, out.frame);
    if (ec)
    {
        return zlk::make_error_from_code(ec, zlk::local_origin);
    }
    if (const zlk::chord::chord_carrier_reply * r = out.reply())
    {
        return r->result.error ? zlk::make_error_from_code(r->result.error, zlk::remote_origin) : zlk_e_ok;
    }
    if (const auto * refusal = std::get_if<zlk::protocol::result>(&out.frame.message);
        refusal && refusal->error)
    {
        return zlk::make_error_from_code(refusal->error, zlk::remote_origin);
    }
    return zlk_e_invalid_reply;
}

} // namespace

zlk_direct_handle_t zlk_direct_connect(zlk_handle_t handle, const char * node_uri) noexcept
{
    zlk_direct_handle_t created = nullptr;
    api_call(handle, "zlk_direct_connect",
             [&]() -> zlk_error_t
             {
                 zlk::api::check_string(node_uri, "uri", max_uri_length);
                 auto [ec, endpoints] = zlk::network::parse_uri(node_uri);
                 if (ec)
                 {
                     return zlk::make_error_from_code(ec, uri_origin);
                 }
                 if (endpoints.empty())
                 {
                     return zlk_e_invalid_argument;
                 }
                 auto d = std::make_unique<zlk_direct_session>();
                 d->parent = handle;
                 d->node = *endpoints.begin();
                 created = d.release();
                 return zlk_e_ok;
             });
    return created;
}

void zlk_direct_close(zlk_direct_handle_t direct) noexcept
{
    if (parent_of(direct))
    {
        direct->mark = 0;
        delete direct;
    }
}

zlk_error_t zlk_direct_blob_get(zlk_direct_handle_t direct, const char * alias, const void ** content,
                                size_t * content_length) noexcept
{
    zlk_session * h = parent_of(direct);
    return api_call(h, "zlk_direct_blob_get",
                    [&]
                    {
                        return zlk::api::fetch_content(
                            *h, content, content_length,
                            [&](zlk::chord::owner_reply & reply)
                            { return direct_get(*direct, alias, zlk::kernel::entry_type::blob, reply); });
                    });
}

zlk_error_t zlk_direct_int_get(zlk_direct_handle_t direct, const char * alias, int64_t * value) noexcept
{
    zlk_session * h = parent_of(direct);
    return api_call(h, "zlk_direct_int_get",
                    [&]() -> zlk_error_t
                    {
                        if (!value)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return zlk::api::run_with_retries(
                            *h,
                            [&]() -> zlk_error_t
                            {
                                zlk::chord::owner_reply reply;
                                const zlk_error_t r =
                                    direct_get(*direct, alias, zlk::kernel::entry_type::integer, reply);
                                if (ZLK_SUCCESS(r))
                                {
                                    *value = static_cast<int64_t>(reply.reply()->result.value);
                                }
                                return r;
                            });
                    });
}

zlk_error_t zlk_direct_prefix_get(zlk_direct_handle_t direct, const char * prefix, int64_t max_count,
                                  const char *** aliases, size_t * alias_count) noexcept
{
    zlk_session * h = parent_of(direct);
    return api_call(h, "zlk_direct_prefix_get",
                    [&]() -> zlk_error_t
                    {
                        const auto checked = zlk::api::check_prefix(prefix, "prefix");
                        if (!aliases || !alias_count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *aliases = nullptr;
                        *alias_count = 0;
                        if (max_count <= 0)
                        {
                            return zlk_e_ok;
                        }
                        const std::string_view affix(checked.data, checked.length);
                        return zlk::api::run_with_retries(
                            *h,
                            [&]() -> zlk_error_t
                            {
                                const auto body = zlk::client::direct_prefix_body(
                                    affix, 0, static_cast<std::uint64_t>(max_count));
                                if (body.error)
                                {
                                    return zlk::make_error_from_code(body.error, zlk::local_origin);
                                }
                                zlk::chord::owner_reply out;
                                const zlk_error_t r =
                                    direct_request(*direct, zlk::chord::ring_id{}, body, out);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<std::string> found;
                                const zlk_error_t decoded = zlk::client::decode_alias_list(
                                    out.reply()->result.content_view(), false, found, nullptr);
                                if (ZLK_SUCCESS(decoded))
                                {
                                    zlk::api::hand_out_alias_list(*h, found, aliases, alias_count);
                                }
                                return decoded;
                            });
                    });
}

// The writes go through the ring: a direct handle only reads.
zlk_error_t zlk_direct_blob_put(zlk_direct_handle_t, const char *, const void *, size_t, zlk_time_t) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_direct_blob_update(zlk_direct_handle_t, const char *, const void *, size_t,
                                   zlk_time_t) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_direct_remove(zlk_direct_handle_t, const char *) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_direct_int_put(zlk_direct_handle_t, const char *, int64_t, zlk_time_t) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_direct_int_update(zlk_direct_handle_t, const char *, int64_t, zlk_time_t) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_direct_int_add(zlk_direct_handle_t, const char *, int64_t, int64_t *) noexcept
{
    return zlk_e_not_implemented;
}
