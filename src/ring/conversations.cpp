#include "ring/conversations.hpp"

#include <boost/system/errc.hpp>

#include "base/error_categories.hpp"
#include "log/logger.hpp"
#include "network/request.hpp"
#include "wire/operation_body.hpp"
#include "wire/replies.hpp"

namespace zlk::chord
{

using boost::system::error_code;
namespace errc = boost::system::errc;

bool is_chord_visible(const error_code & ec) noexcept
{
    if (!ec)
    {
        return false;
    }
    if (ec.category() == network::network_category() || ec.category() == protocol::protocol_category())
    {
        return true;
    }
    return ec == errc::connection_aborted || ec == errc::connection_reset || ec == errc::connection_refused ||
           ec == errc::host_unreachable;
}

chord_outcome refusal(const protocol::result & r, const network::endpoint & from,
                      const profile_sink & profiles)
{
    if (profiles && (!r.profile_name.empty() || !r.profile.empty()))
    {
        profiles(r);
    }
    chord_outcome o;
    if (r.error)
    {
        o.error = r.error;
        o.remote = true;
        o.forget = true;
        o.retry = r.error == make_error_code(error::wrong_peer);
        return o;
    }
    if (r.content_size() != 0)
    {
        log::log(log::level::error, "unexpected content from remote node {}", from);
        o.error = make_error_code(error::unexpected_reply);
        o.forget = true;
    }
    return o;
}

chord_outcome unexpected_answer(const protocol::message & reply, const network::endpoint & from)
{
    log::log(log::level::error, "unexpected answer from {}: {}", from, protocol::message_kind_name(reply));
    chord_outcome o;
    o.error = make_error_code(error::unexpected_reply);
    o.forget = true;
    return o;
}

namespace
{

chord_outcome transport_failure(const error_code & ec) noexcept
{
    chord_outcome o;
    o.error = ec;
    o.forget = is_chord_visible(ec);
    return o;
}

// The reading common to ping and find successor: an arc, a refusal, or nothing usable.
chord_outcome read_arc(const protocol::message & reply, const network::endpoint & from,
                       const profile_sink & profiles, arc & out)
{
    if (const arc * a = std::get_if<arc>(&reply))
    {
        out = *a;
        return {};
    }
    if (const protocol::result * r = std::get_if<protocol::result>(&reply))
    {
        return refusal(*r, from, profiles);
    }
    return unexpected_answer(reply, from);
}

} // namespace

chord_outcome conversations::ping(const network::endpoint & ep, arc & out)
{
    network::client::received_frame reply;
    const protocol::message request{chord_request_ping{}};
    if (const error_code ec = network::client::request_sync(*_sync, ep, ping_context, request, reply))
    {
        return transport_failure(ec);
    }
    if (const arc * a = std::get_if<arc>(&reply.message))
    {
        out = *a;
        return {};
    }
    // Only an arc answers a ping; a refusal still tells whether the node is to be forgotten.
    if (const protocol::result * r = std::get_if<protocol::result>(&reply.message))
    {
        chord_outcome o = refusal(*r, ep, _profiles);
        if (!o.error)
        {
            o.error = make_error_code(error::unexpected_reply);
        }
        return o;
    }
    return unexpected_answer(reply.message, ep);
}

chord_outcome conversations::find_successor(const network::endpoint & ep, const ring_id & position, arc & out)
{
    network::client::received_frame reply;
    const protocol::message request{chord_request_get_successor_of{position}};
    if (const error_code ec =
            network::client::request_sync(*_sync, ep, find_successor_context, request, reply))
    {
        return transport_failure(ec);
    }
    return read_arc(reply.message, ep, _profiles, out);
}

chord_outcome conversations::get_config(const node_info & node, config_item item, std::uint64_t & value)
{
    value = 0;
    const protocol::operation_body body = protocol::build_operation_body(
        protocol::operation::get_config, 1, [item](serialization::writer & w) { w.put_enum(item); });
    if (body.error)
    {
        return chord_outcome{body.error};
    }
    chord_carrier_request carrier;
    carrier.key = ring_id{};
    carrier.required_access = 0;
    carrier.valid = 1;
    carrier.operation_class = body.operation_class;
    carrier.body = body.bytes();
    carrier.body_owner = body.owner;

    network::client::received_frame reply;
    const protocol::message request{std::move(carrier)};
    if (const error_code ec =
            network::client::request_sync(*_sync, node.endpoint, get_config_context, request, reply))
    {
        return transport_failure(ec);
    }
    if (const auto * r = std::get_if<chord_carrier_reply>(&reply.message))
    {
        if (_profiles && (!r->result.profile_name.empty() || !r->result.profile.empty()))
        {
            _profiles(r->result);
        }
        chord_outcome o;
        o.error = r->result.error;
        o.remote = static_cast<bool>(r->result.error);
        value = r->result.value;
        return o;
    }
    if (const auto * r = std::get_if<protocol::result>(&reply.message))
    {
        return refusal(*r, node.endpoint, _profiles);
    }
    const protocol::reply_check check = protocol::unexpected_message(reply.message);
    chord_outcome o;
    o.error = check.error;
    o.forget = true;
    return o;
}

} // namespace zlk::chord
