#include "network/async_query.hpp"

#include <asio/connect.hpp>
#include <asio/write.hpp>

#include <algorithm>
#include <cstring>
#include <span>
#include <tuple>

#include "base/error_categories.hpp"
#include "log/logger.hpp"
#include "network/clients_broker.hpp"
#include "network/multiplexer.hpp"
#include "network/socket_errors.hpp"

namespace zlk::network
{

namespace
{

using state_ptr = std::shared_ptr<async_request_state>;

// Sends of more than this much that the peer resets hint at a node whose input buffer is too small.
constexpr std::size_t large_send = 0x8000000;

void start_connect(const state_ptr & q);
void start_write(const state_ptr & q);
void start_read(const state_ptr & q);

bool is_canceled(const boost::system::error_code & ec) noexcept
{
    return ec == boost::system::errc::operation_canceled;
}

// The error a step ended with. Once the loop is stopping, the sockets are closed under the requests,
// and a step that was queued (a read started after its write completed) then fails with whatever the
// closed socket says: that is the stop's cancellation, not the peer's doing.
boost::system::error_code step_error(const state_ptr & q, const std::error_code & error) noexcept;

void invoke(const state_ptr & q, operation_result result) noexcept
{
    try
    {
        (void)q->handler(std::move(result));
    }
    catch (...)
    {
        // A failing handler can report nothing more than its failure.
    }
}

// The request ends in failure: the connection is dropped, and the handler told.
void complete_with_error(const state_ptr & q, const boost::system::error_code & ec) noexcept
{
    if (q->connection)
    {
        q->connection->broker().mux().untrack(*q->connection);
        q->connection.reset();
    }
    operation_result result;
    result.error = ec;
    invoke(q, std::move(result));
}

// Where a first attempt failed, for the line that says why its client isn't returned.
enum class stage
{
    other,
    send,
    receive,
    decode,
};

void fail(const state_ptr & q, const boost::system::error_code & ec, stage where) noexcept;

// Runs one step of the chain; a step that can't get memory fails the request instead of leaving it
// without a completion.
template <typename Step>
void guarded(const state_ptr & q, Step && step) noexcept
{
    try
    {
        step();
    }
    catch (const std::bad_alloc &)
    {
        fail(q, generic_error(ENOMEM), stage::other);
    }
    catch (...)
    {
        fail(q, client_error::unknown, stage::other);
    }
}

bool start_replay(const state_ptr & q) noexcept
{
    client::client & failed = *q->connection;
    clients_broker & broker = failed.broker();
    std::shared_ptr<client::client> fresh;
    boost::system::error_code ec;
    try
    {
        std::tie(ec, fresh) = broker.get_client(failed.remote(), failed.context());
    }
    catch (const std::bad_alloc &)
    {
        ec = generic_error(ENOMEM);
    }
    if (ec)
    {
        log::log(log::level::error, "could not replay request for client {}: {}", fmt::ptr(&failed),
                 error_text(ec));
        return false;
    }
    broker.mux().untrack(failed);
    q->connection = std::move(fresh);
    q->replay = true;
    q->from_pool = q->connection->connected();
    broker.mux().track(*q->connection);
    guarded(q,
            [&]
            {
                if (q->from_pool)
                {
                    start_write(q);
                }
                else
                {
                    start_connect(q);
                }
            });
    return true;
}

void log_not_returned(const client::client & c, stage where, const boost::system::error_code & ec) noexcept
{
    switch (where)
    {
    case stage::send:
        log::log(log::level::debug, "did not return client {} because we could not send the data: {}",
                 fmt::ptr(&c), error_text(ec));
        break;
    case stage::receive:
        log::log(log::level::debug, "did not return client {} because we could not receive the data: {}",
                 fmt::ptr(&c), error_text(ec));
        break;
    case stage::decode:
        log::log(log::level::debug, "did not return client {} because we could not decode the data: {}",
                 fmt::ptr(&c), error_text(ec));
        break;
    case stage::other:
        log::log(log::level::debug, "did not return client {} because we got an error: {}", fmt::ptr(&c),
                 error_text(ec));
        break;
    }
}

void fail(const state_ptr & q, const boost::system::error_code & ec, stage where) noexcept
{
    client::client & c = *q->connection;
    c.close();
    if (!q->replay)
    {
        // A connection from the pool may have died while idle: one more try on another.
        if (q->from_pool && !client::is_final_error(ec) && c.broker().mux().accepting() && start_replay(q))
        {
            return;
        }
        log_not_returned(c, where, ec);
    }
    else
    {
        log::log(log::level::debug, "did not return client {} because we got an error (replay): {}",
                 fmt::ptr(&c), error_text(ec));
    }
    complete_with_error(q, ec);
}

void succeed(const state_ptr & q) noexcept
{
    std::shared_ptr<client::client> c = std::move(q->connection);
    clients_broker & broker = c->broker();
    broker.mux().untrack(*c);

    operation_result result;
    result.message = std::move(q->reply);
    result.buffer = std::move(q->buffer);
    result.frame_size = q->progress.expected;
    boost::system::error_code ec;
    try
    {
        ec = q->handler(std::move(result));
    }
    catch (const std::bad_alloc &)
    {
        ec = generic_error(ENOMEM);
    }
    catch (...)
    {
        ec = client_error::unknown;
    }
    if (ec)
    {
        log::log(log::level::debug,
                 "did not return client {} because completion notification failed (replay): {}",
                 fmt::ptr(c.get()), error_text(ec));
        return;
    }
    try
    {
        broker.return_client(std::move(c));
    }
    catch (...)
    {
        // Not pooled for want of memory: the client closes as it goes.
    }
}

boost::system::error_code step_error(const state_ptr & q, const std::error_code & error) noexcept
{
    if (!q->connection->broker().mux().accepting())
    {
        return make_error_code(boost::system::errc::operation_canceled);
    }
    return to_error_code(error);
}

void start_connect(const state_ptr & q)
{
    client::client & c = *q->connection;
    const boost::system::error_code ec = c.open_socket();
    if (ec)
    {
        log::log(log::level::debug, "context {} could not asynchronously connect: {}", c.context(),
                 error_text(ec));
        fail(q, ec, stage::other);
        return;
    }
    c.socket().async_connect(c.remote(),
                             [q](const std::error_code & error)
                             {
                                 client::client & c = *q->connection;
                                 if (error)
                                 {
                                     const auto ec = step_error(q, error);
                                     if (!is_canceled(ec))
                                     {
                                         log::log(log::level::debug,
                                                  "context {} could not asynchronously connect: {}",
                                                  c.context(), error_text(ec));
                                     }
                                     fail(q, ec, stage::other);
                                     return;
                                 }
                                 c.set_connected();
                                 guarded(q, [&] { start_write(q); });
                             });
}

void start_write(const state_ptr & q)
{
    client::client & c = *q->connection;
    q->requested = q->frame.total_size();
    if (q->frame.size() > async_request_state::max_gather_entries)
    {
        serialization::flatten_into(q->frame, c.flat());
        q->gather[0] = asio::const_buffer(c.flat().data(), c.flat().size());
        q->gather_count = 1;
    }
    else
    {
        q->gather_count = 0;
        for (const auto & entry : q->frame)
        {
            q->gather[q->gather_count++] = asio::const_buffer(entry.data, entry.size);
        }
    }
    const std::span<const asio::const_buffer> buffers(q->gather.data(), q->gather_count);
    asio::async_write(
        c.socket(), buffers,
        [q](const std::error_code & error, std::size_t sent)
        {
            client::client & c = *q->connection;
            if (error)
            {
                const auto ec = step_error(q, error);
                if (!is_canceled(ec))
                {
                    log::log(log::level::debug,
                             "session {}:{} - cannot send data: {} ({} sent, {} requested) to {}",
                             address_of{c.remote()}, c.remote().port(), error_text(ec), sent, q->requested,
                             c.context());
                    if (q->requested > large_send && (ec == boost::system::errc::connection_reset ||
                                                      ec == boost::system::errc::connection_aborted ||
                                                      ec == boost::system::errc::connection_refused))
                    {
                        log::log(log::level::warning,
                                 "session {}:{} - the remote host ({}) may have an insufficient input "
                                 "network buffer size "
                                 "(data to send: {})",
                                 address_of{c.remote()}, c.remote().port(), c.remote(), q->requested);
                    }
                }
                fail(q, ec, stage::send);
                return;
            }
            if (sent < q->requested)
            {
                log::log(log::level::warning, "session {}:{} - sent {} while {} were requested by {}",
                         address_of{c.remote()}, c.remote().port(), sent, q->requested, c.context());
            }
            guarded(q,
                    [&]
                    {
                        q->buffer = received_buffer::make(client::client::first_read_size);
                        q->progress = frame_progress{};
                        start_read(q);
                    });
        });
}

void on_read(const state_ptr & q, const std::error_code & error, std::size_t arrived)
{
    client::client & c = *q->connection;
    if (error)
    {
        const auto ec = step_error(q, error);
        if (!is_canceled(ec) && error == asio::error::eof)
        {
            log::log(log::level::debug, "session {}:{} gracefully closed by peer {}", address_of{c.remote()},
                     c.remote().port(), c.remote());
        }
        else if (!is_canceled(ec))
        {
            log::log(log::level::debug, "session {}:{} - cannot receive data from {}: {}",
                     address_of{c.remote()}, c.remote().port(), c.remote(), error_text(ec));
        }
        fail(q, ec, stage::receive);
        return;
    }
    boost::system::error_code ec = framing_step(q->buffer->data(), arrived, q->progress, c.max_input_size());
    if (ec)
    {
        fail(q, ec, stage::receive);
        return;
    }
    if (q->progress.expected > q->buffer->size())
    {
        auto larger = received_buffer::make(q->progress.expected);
        std::memcpy(larger->data(), q->buffer->data(), q->progress.received);
        q->buffer = std::move(larger);
    }
    if (!q->progress.complete())
    {
        start_read(q);
        return;
    }
    client::received_frame frame{q->buffer, q->progress.expected, {}};
    ec = c.decode(frame);
    if (ec)
    {
        fail(q, ec, stage::decode);
        return;
    }
    q->reply = std::move(frame.message);
    succeed(q);
}

void start_read(const state_ptr & q)
{
    client::client & c = *q->connection;
    const std::size_t limit = q->progress.expected != 0 ? q->progress.expected : q->buffer->size();
    const std::size_t want = std::min(limit - q->progress.received, client::client::max_read_size);
    c.socket().async_read_some(asio::buffer(q->buffer->data() + q->progress.received, want),
                               [q](const std::error_code & error, std::size_t arrived)
                               { guarded(q, [&] { on_read(q, error, arrived); }); });
}

} // namespace

std::shared_ptr<async_query<asio::const_buffer>> make_async_query(asio::const_buffer frame,
                                                                  reply_handler handler)
{
    auto q = std::allocate_shared<async_query<asio::const_buffer>>(
        network::scalable_allocator<async_query<asio::const_buffer>>());
    q->message = frame;
    q->frame.append(frame.data(), frame.size());
    q->handler = std::move(handler);
    return q;
}

std::shared_ptr<async_query<protocol::message>> make_async_query(protocol::message message,
                                                                 reply_handler handler)
{
    auto q = std::allocate_shared<async_query<protocol::message>>(
        network::scalable_allocator<async_query<protocol::message>>());
    q->message = std::move(message);
    protocol::encode_frame(q->message, q->frame, q->scratch);
    q->handler = std::move(handler);
    return q;
}

void async_send(std::shared_ptr<client::client> c, std::shared_ptr<async_request_state> query)
{
    multiplexer & mux = c->broker().mux();
    if (!mux.accepting())
    {
        complete_with_error(query, system_error(ECANCELED));
        return;
    }
    query->connection = std::move(c);
    query->replay = false;
    query->from_pool = query->connection->connected();
    mux.track(*query->connection);
    guarded(query,
            [&]
            {
                if (query->from_pool)
                {
                    start_write(query);
                }
                else
                {
                    start_connect(query);
                }
            });
}

} // namespace zlk::network
