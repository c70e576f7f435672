// The asynchronous path: one request and its reply as a chain of handlers on the multiplexer's event
// loop. The caller starts it and returns; the reply handler runs on the event-loop thread, after which
// the connection goes back to the broker.
//
// A request whose connection came out of the pool may find it dead: its first failure, unless it is
// one a second attempt couldn't help (is_final_error), is replayed once on another connection from the
// same broker side.
#pragma once

#include "network/allocators.hpp"
#include <asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "network/client.hpp"
#include "network/framing.hpp"
#include "network/operation_result.hpp"
#include "wire/scatter.hpp"

namespace zlk::network
{

// What every asynchronous request carries, whatever its message type.
struct async_request_state
{
    // A frame of more entries than this is flattened into one buffer before it goes out.
    static constexpr std::size_t max_gather_entries = 64;

    // The encoded frame; it points into the message and the scratch area of the derived query.
    serialization::small_scatter<8> frame;
    reply_handler handler;

    // The current attempt.
    std::shared_ptr<client::client> connection;
    bool from_pool = false;
    bool replay = false;
    std::array<asio::const_buffer, max_gather_entries> gather;
    std::size_t gather_count = 0;
    std::size_t requested = 0;
    std::shared_ptr<received_buffer> buffer;
    frame_progress progress;
    protocol::message reply;

protected:
    async_request_state() = default;
    ~async_request_state() = default;
};

} // namespace zlk::network

namespace zlk
{

// The shared state of one asynchronous request: the message, its encoded frame, the handler. It lives
// in memory from the scalable allocator, which the shared pointer's control block also frees it to.
template <typename Message>
struct async_query final : network::async_request_state
{
    Message message;
    std::vector<std::uint8_t> scratch;
};

} // namespace zlk

namespace zlk::network
{

// A request of one message, encoded at once into the query's own scratch area. Bulk data that the
// message views must outlive the request.
std::shared_ptr<async_query<protocol::message>> make_async_query(protocol::message message,
                                                                 reply_handler handler);

// A request of bytes already framed: the frame goes out as it is. The bytes must outlive the request.
std::shared_ptr<async_query<asio::const_buffer>> make_async_query(asio::const_buffer frame,
                                                                  reply_handler handler);

// Starts the request on the client. The handler runs exactly once: on the event-loop thread, or at once
// on this thread with ECANCELED when the multiplexer is stopping. On success the client goes back to its
// broker after the handler returned without error; in every other case it is dropped.
void async_send(std::shared_ptr<client::client> c, std::shared_ptr<async_request_state> query);

} // namespace zlk::network
