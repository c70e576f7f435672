// One TCP connection to one node, and everything needed to run a request over it.
//
// A client has one user at a time: it is taken out of the broker (clients_broker.hpp), used for a full
// request and reply, and given back, so it needs no lock. There is no pipelining: the next frame on the
// socket is the answer. Two paths run over it: the synchronous one (send/receive, blocking on the
// caller's thread with plain socket calls) and the asynchronous one (async_query.hpp, handlers on the
// multiplexer's event loop).
//
// A client is never reused after a failure: whoever sees the failure drops it, so that a socket with
// unread data can't answer the next request.
#pragma once

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "network/endpoint.hpp"
#include "network/received_buffer.hpp"
#include "network/security_settings.hpp"
#include "wire/frame.hpp"
#include "wire/scatter.hpp"

namespace zlk::network
{
class clients_broker;
class multiplexer;
} // namespace zlk::network

namespace zlk::network::client
{

// A received reply: the frame is the first size bytes of buffer, and message, once decoded, holds views
// into it.
struct received_frame
{
    std::shared_ptr<received_buffer> buffer;
    std::size_t size = 0;
    protocol::message message;
};

class client
{
public:
    // Size of the buffer a receive starts with: a reply that fits takes one read and one allocation.
    static constexpr std::size_t first_read_size = 1500;
    // The most one read call asks for.
    static constexpr std::size_t max_read_size = 1024 * 1024;
    // The most entries one writev takes (the system's IOV_MAX).
    static constexpr std::size_t max_write_entries = 128;

    // No I/O. broker: the side this client is borrowed from and returned to; it must outlive the client.
    // context: static text naming the current user of the client, for the logs.
    client(asio::io_context & io, clients_broker & broker, const endpoint & remote, std::uint64_t timeout_ms,
           std::uint64_t max_input_size, std::shared_ptr<const security_settings> security,
           const char * context);
    ~client();

    client(const client &) = delete;
    client & operator=(const client &) = delete;

    // A no-op when connected. Otherwise a blocking connect, the time-out, and the handshake when the
    // credentials ask for it. On failure the socket is closed and the error returned: retrying is the
    // caller's decision.
    boost::system::error_code connect();

    // Sets SO_RCVTIMEO then SO_SNDTIMEO. 0 gives EINVAL (generic).
    boost::system::error_code set_timeout(std::uint64_t milliseconds) noexcept;

    // Shuts down and closes the socket. Idempotent.
    void close() noexcept;

    // Gather writes of the whole frame, at most max_write_entries a call, until all is gone. Blocks up to
    // the time-out. A failure is logged and closes the client.
    boost::system::error_code send(const serialization::scatter_list & frame);

    // Reads one whole frame, refusing one larger than max_input_size before reading its body. Blocks up
    // to the time-out; running out of it gives ETIMEDOUT. A failure other than ECANCELED is logged;
    // every failure closes the client.
    boost::system::error_code receive(received_frame & out);

    // Decodes the received frame into frame.message; logs and closes on failure.
    boost::system::error_code decode(received_frame & frame);

    const endpoint & remote() const noexcept { return remote_; }
    bool connected() const noexcept { return connected_; }
    bool is_open() const noexcept { return socket_.is_open(); }
    // -1 while closed.
    int native_handle() noexcept
    {
        return socket_.is_open() ? static_cast<int>(socket_.native_handle()) : -1;
    }
    std::uint64_t timeout() const noexcept { return timeout_ms_; }
    std::uint64_t max_input_size() const noexcept { return max_input_size_; }
    bool encrypted() const noexcept { return encrypted_; }
    bool session_ready() const noexcept { return session_ready_; }

    const char * context() const noexcept { return context_; }
    void set_context(const char * context) noexcept { context_ = context; }

    clients_broker & broker() const noexcept { return *broker_; }
    asio::ip::tcp::socket & socket() noexcept { return socket_; }

    // Reused between requests: the small fields of an encoded frame, and a frame flattened into one
    // buffer.
    std::vector<std::uint8_t> & scratch() noexcept { return scratch_; }
    std::vector<std::uint8_t> & flat() noexcept { return flat_; }

    // Opens the socket for the endpoint's family and applies the socket options. Used by both paths
    // before connecting.
    boost::system::error_code open_socket();
    // Marks the connect step done, for the asynchronous path.
    void set_connected() noexcept { connected_ = true; }

    // The peer's name for a log line: its endpoint, "socket closed", or "unknown".
    std::size_t peer_name(char * out) noexcept;

    // Closes the socket from the event loop: safe to call from any thread while an asynchronous request
    // runs on this client. Its pending operations then complete with ECANCELED.
    void abort_async();

    // Links of the multiplexer's list of clients with an asynchronous request under way.
    client * in_flight_prev = nullptr;
    client * in_flight_next = nullptr;
    bool in_flight = false;

private:
    void apply_socket_options() noexcept;
    void log_connected() noexcept;
    boost::system::error_code handshake();

    const endpoint remote_;
    // The endpoint as text, made once: decoding names the peer in a log line it may write.
    char remote_text_[max_endpoint_text];
    std::size_t remote_text_size_;
    bool connected_ = false;
    bool encrypted_ = false;
    std::shared_ptr<const security_settings> security_;
    asio::ip::tcp::socket socket_;
    std::uint64_t max_input_size_;
    std::vector<std::uint8_t> scratch_;
    std::vector<std::uint8_t> flat_;
    std::uint64_t timeout_ms_;
    bool session_ready_ = false;
    const char * context_;
    clients_broker * broker_;
};

// True when replaying the request on another connection couldn't help: success, ECANCELED, EOPNOTSUPP,
// EPERM, EAFNOSUPPORT (system category), anything equivalent to ENOMEM or EINVAL, crypto codes 1 and 2,
// protocol codes 1, 2 and 3.
bool is_final_error(const boost::system::error_code & ec) noexcept;

} // namespace zlk::network::client
