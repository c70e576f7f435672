#include "node/sync_client.hpp"

#include <asio/connect.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>

#include <array>

#include "wire/category_table.hpp"
#include "wire/frame.hpp"

namespace zlk::node
{

using boost::system::error_code;

namespace
{

error_code timed_out() noexcept
{
    return {ETIMEDOUT, boost::system::generic_category()};
}

} // namespace

sync_client::sync_client(std::chrono::milliseconds timeout)
    : _timeout(timeout)
    , _socket(_io)
{
}

sync_client::~sync_client()
{
    close();
}

void sync_client::close() noexcept
{
    std::error_code ignored;
    _socket.shutdown(asio::socket_base::shutdown_both, ignored);
    _socket.close(ignored);
}

// Starts one asynchronous step and drives the io_context until it completes or the time is up; a
// step still running then is cancelled by closing the socket, and run to its end.
template <typename Start>
error_code sync_client::run(Start && start)
{
    bool done = false;
    std::error_code outcome;
    start(
        [&](const std::error_code & ec)
        {
            outcome = ec;
            done = true;
        });
    _io.restart();
    _io.run_for(_timeout);
    if (!done)
    {
        close();
        _io.restart();
        _io.run();
        return timed_out();
    }
    if (outcome)
    {
        // Whatever failed, the connection can't be trusted to carry the next frame.
        close();
    }
    return network::to_error_code(outcome);
}

error_code sync_client::connect(const asio::ip::tcp::endpoint & to)
{
    close();
    return run([&](auto done)
               { _socket.async_connect(to, [done](const std::error_code & ec) mutable { done(ec); }); });
}

error_code sync_client::send_bytes(std::span<const std::uint8_t> bytes)
{
    return run(
        [&](auto done)
        {
            asio::async_write(_socket, asio::buffer(bytes.data(), bytes.size()),
                              [done](const std::error_code & ec, std::size_t) mutable { done(ec); });
        });
}

error_code sync_client::send(const protocol::message & m)
{
    _scatter.clear();
    protocol::encode_frame(m, _scatter, _scratch);
    std::vector<asio::const_buffer> buffers;
    buffers.reserve(_scatter.size());
    for (const auto & e : _scatter)
    {
        buffers.emplace_back(e.data, e.size);
    }
    return run(
        [&](auto done)
        {
            asio::async_write(_socket, buffers,
                              [done](const std::error_code & ec, std::size_t) mutable { done(ec); });
        });
}

error_code sync_client::receive_exactly(std::size_t n, std::vector<std::uint8_t> & out)
{
    const std::size_t at = out.size();
    out.resize(at + n);
    error_code ec = run(
        [&](auto done)
        {
            asio::async_read(_socket, asio::buffer(out.data() + at, n),
                             [done](const std::error_code & e, std::size_t) mutable { done(e); });
        });
    if (ec)
    {
        out.resize(at);
    }
    return ec;
}

error_code sync_client::receive_frame(std::vector<std::uint8_t> & frame, std::uint64_t max_body)
{
    frame.clear();
    if (error_code ec = receive_exactly(protocol::frame_header_size, frame))
    {
        return ec;
    }
    const std::uint64_t size = serialization::detail::load_le<std::uint64_t>(frame.data() + 4);
    if (size == protocol::empty_frame_size || size == 0)
    {
        return {};
    }
    if (size > max_body)
    {
        close();
        return make_error_code(serialization::error::too_large);
    }
    return receive_exactly(static_cast<std::size_t>(size), frame);
}

error_code sync_client::exchange(const protocol::message & m, std::vector<std::uint8_t> & buffer,
                                 protocol::message & reply)
{
    if (error_code ec = send(m))
    {
        return ec;
    }
    if (error_code ec = receive_frame(buffer))
    {
        return ec;
    }
    return protocol::read_frame(buffer, reply, protocol::frame_origin{this, "node to node", ""});
}

error_code sync_client::wait_closed(std::size_t * received)
{
    std::array<std::uint8_t, 512> sink;
    std::size_t total = 0;
    for (;;)
    {
        std::size_t got = 0;
        error_code ec = run(
            [&](auto done)
            {
                _socket.async_read_some(asio::buffer(sink),
                                        [&got, done](const std::error_code & e, std::size_t n) mutable
                                        {
                                            got = n;
                                            done(e);
                                        });
            });
        total += got;
        if (ec)
        {
            if (received != nullptr)
            {
                *received = total;
            }
            if (ec == boost::system::errc::timed_out)
            {
                return ec;
            }
            // End of stream, or a reset: either way the peer is gone.
            close();
            return {};
        }
    }
}

std::size_t sync_client::available()
{
    std::error_code ec;
    const std::size_t n = _socket.available(ec);
    return ec ? 0 : n;
}

} // namespace zlk::node
