// A small blocking client over one TCP connection, with a time limit on every step: how a node reaches
// its peers, and how tests speak to a node byte by byte. It has its own io_context, driven only by
// the calling thread during a call; one thread uses a client at a time.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "wire/messages.hpp"
#include "wire/scatter.hpp"

namespace zlk::node
{

class sync_client
{
public:
    explicit sync_client(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    ~sync_client();

    sync_client(const sync_client &) = delete;
    sync_client & operator=(const sync_client &) = delete;

    // Each call below ends with the operation's error, or with ETIMEDOUT once the time limit passed. A
    // call that fails closes the connection.
    boost::system::error_code connect(const asio::ip::tcp::endpoint & to);
    bool is_open() const noexcept { return _socket.is_open(); }
    void close() noexcept;

    // The bytes as they are.
    boost::system::error_code send_bytes(std::span<const std::uint8_t> bytes);
    // m in a frame of our protocol version.
    boost::system::error_code send(const protocol::message & m);

    // Exactly n bytes, appended to out.
    boost::system::error_code receive_exactly(std::size_t n, std::vector<std::uint8_t> & out);
    // One frame, header and body, into frame (replacing its contents), without decoding it. A body
    // beyond max_body bytes is refused with serialization code 5 and the connection closed.
    boost::system::error_code receive_frame(std::vector<std::uint8_t> & frame,
                                            std::uint64_t max_body = 0x10000000);
    // Sends m and reads the reply: its views point into `buffer`.
    boost::system::error_code exchange(const protocol::message & m, std::vector<std::uint8_t> & buffer,
                                       protocol::message & reply);

    // Reads until the peer closes the connection: success on end of stream (or a reset), ETIMEDOUT
    // when it stays open. *received counts the bytes that came meanwhile.
    boost::system::error_code wait_closed(std::size_t * received = nullptr);
    // Bytes that can be read at once, without waiting.
    std::size_t available();

    asio::ip::tcp::socket & socket() noexcept { return _socket; }

private:
    template <typename Start>
    boost::system::error_code run(Start && start);

    std::chrono::milliseconds _timeout;
    asio::io_context _io;
    asio::ip::tcp::socket _socket;
    std::vector<std::uint8_t> _scratch;
    serialization::small_scatter<16> _scatter;
};

} // namespace zlk::node
