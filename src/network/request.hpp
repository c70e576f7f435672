// The synchronous path: one request and its reply over a connection borrowed from a broker side, on
// the calling thread.
#pragma once

#include <asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include "network/client.hpp"
#include "network/clients_broker.hpp"
#include "network/endpoint.hpp"
#include "wire/frame.hpp"
#include "wire/scatter.hpp"

namespace zlk::network::client
{

// Sends the encoded frame and reads the whole reply into reply, decoded. Every failure closes the
// client.
boost::system::error_code exchange(client & c, const serialization::scatter_list & frame,
                                   received_frame & reply);

// Borrows a client for the endpoint, connects it when needed and runs one exchange. A connection that
// came out of the pool and fails with an error a second attempt could help is taken to have gone stale:
// it is reconnected and the exchange repeated, once. On success the client goes back to the pool and
// peer (when not null) receives the endpoint the reply came from; on failure the client is dropped and
// reply is left empty. Failures other than ECANCELED are logged.
boost::system::error_code request_sync(clients_broker & broker, const endpoint & ep, const char * context,
                                       const protocol::message & request, received_frame & reply,
                                       endpoint * peer = nullptr);

// The same for a frame already encoded into one buffer.
boost::system::error_code request_sync(clients_broker & broker, const endpoint & ep, const char * context,
                                       asio::const_buffer frame, received_frame & reply,
                                       endpoint * peer = nullptr);

} // namespace zlk::network::client
