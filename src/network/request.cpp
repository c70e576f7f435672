#include "network/request.hpp"

#include <boost/system/errc.hpp>

#include "log/logger.hpp"
#include "network/socket_errors.hpp"

namespace zlk::network::client
{

namespace
{

// encode(client, scatter) lays the request's frame out once the client is known: the small fields of
// an encoded message go into the client's reused scratch area.
template <typename Encode>
boost::system::error_code request_with(clients_broker & broker, const endpoint & ep, const char * context,
                                       Encode && encode, received_frame & reply, endpoint * peer)
{
    reply = received_frame{};
    auto [ec, c] = broker.get_client(ep, context);
    if (ec)
    {
        return ec;
    }
    serialization::small_scatter<8> frame;
    encode(*c, frame);

    const bool was_connected = c->connected();
    ec = c->connect();
    if (!ec)
    {
        ec = exchange(*c, frame, reply);
        if (ec && was_connected && !is_final_error(ec))
        {
            // The pooled connection went stale while idle (the node closed it, or restarted): one more
            // try on a fresh connection.
            c->close();
            ec = c->connect();
            if (!ec)
            {
                ec = exchange(*c, frame, reply);
            }
        }
    }

    if (ec)
    {
        if (ec != boost::system::errc::operation_canceled)
        {
            log::log(
                log::level::debug,
                "client {} (timeout: {}) - could not receive response to synchronous request sent to {}: {}",
                fmt::ptr(c.get()), c->timeout(), ep, error_text(ec));
        }
        reply = received_frame{};
        return ec;
    }

    if (peer)
    {
        std::error_code ignored;
        *peer = c->socket().remote_endpoint(ignored);
    }
    broker.return_client(std::move(c));
    return {};
}

} // namespace

boost::system::error_code exchange(client & c, const serialization::scatter_list & frame,
                                   received_frame & reply)
{
    boost::system::error_code ec = c.send(frame);
    if (ec)
    {
        return ec;
    }
    ec = c.receive(reply);
    if (ec)
    {
        return ec;
    }
    return c.decode(reply);
}

boost::system::error_code request_sync(clients_broker & broker, const endpoint & ep, const char * context,
                                       const protocol::message & request, received_frame & reply,
                                       endpoint * peer)
{
    return request_with(
        broker, ep, context,
        [&request](client & c, serialization::scatter_list & frame)
        { protocol::encode_frame(request, frame, c.scratch()); },
        reply, peer);
}

boost::system::error_code request_sync(clients_broker & broker, const endpoint & ep, const char * context,
                                       asio::const_buffer frame, received_frame & reply, endpoint * peer)
{
    return request_with(
        broker, ep, context,
        [frame](client &, serialization::scatter_list & scatter)
        { scatter.append(frame.data(), frame.size()); },
        reply, peer);
}

} // namespace zlk::network::client
