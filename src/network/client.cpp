#include "network/client.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/error_categories.hpp"
#include "log/logger.hpp"
#include "network/framing.hpp"
#include "network/socket_errors.hpp"

namespace zlk::network::client
{

namespace
{

// A time-out set through SO_RCVTIMEO/SO_SNDTIMEO surfaces as EAGAIN on a blocking socket; it is
// reported as the time-out it is, which the translation into zlk_error_t knows as zlk_e_timeout.
boost::system::error_code last_socket_error() noexcept
{
    const int e = errno;
    if (e == EAGAIN || e == EWOULDBLOCK)
    {
        return system_error(ETIMEDOUT);
    }
    return system_error(e);
}

bool is_canceled(const boost::system::error_code & ec) noexcept
{
    return ec == boost::system::errc::operation_canceled;
}

// A gather write that reports a connection the peer has closed as EPIPE instead of raising SIGPIPE,
// which would end the caller's process.
::ssize_t gather_write(int fd, ::iovec * iov, std::size_t count) noexcept
{
#if defined(MSG_NOSIGNAL)
    ::msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = count;
    return ::sendmsg(fd, &message, MSG_NOSIGNAL);
#else
    return ::writev(fd, iov, static_cast<int>(count));
#endif
}

template <typename T>
int set_option(int fd, int level, int name, const T & value) noexcept
{
    return ::setsockopt(fd, level, name, &value, sizeof value);
}

} // namespace

client::client(asio::io_context & io, clients_broker & broker, const endpoint & remote,
               std::uint64_t timeout_ms, std::uint64_t max_input_size,
               std::shared_ptr<const security_settings> security, const char * context)
    : remote_(remote)
    , remote_text_size_(format_endpoint_to(remote, remote_text_))
    , encrypted_(security && security->encryption)
    , security_(std::move(security))
    , socket_(io)
    , max_input_size_(max_input_size)
    , timeout_ms_(timeout_ms)
    , context_(context)
    , broker_(&broker)
{
    log::log(log::level::debug, "created a client for {} with a timeout of {} for context {}", remote_,
             timeout_ms_, context_);
}

client::~client()
{
    close();
}

void client::apply_socket_options() noexcept
{
    const int fd = static_cast<int>(socket_.native_handle());
    const int on = 1;
    const int off = 0;
    const ::linger no_linger{0, 0};
    // The first failure skips the others up to SO_REUSEADDR, which is always tried; a connection works
    // without any of them, so only that last failure is worth a log line.
    (void)(set_option(fd, IPPROTO_TCP, TCP_NODELAY, on) == 0 &&
           set_option(fd, SOL_SOCKET, SO_DEBUG, off) == 0 &&
           set_option(fd, SOL_SOCKET, SO_KEEPALIVE, off) == 0 &&
           set_option(fd, SOL_SOCKET, SO_LINGER, no_linger) == 0);
    if (set_option(fd, SOL_SOCKET, SO_REUSEADDR, off) != 0)
    {
        log::log(log::level::warning, "could not set socket option on socket: {}",
                 error_text(system_error(errno)));
    }
#if !defined(MSG_NOSIGNAL) && defined(SO_NOSIGPIPE)
    // No per-call flag here: the socket itself must not raise SIGPIPE (see gather_write).
    (void)set_option(fd, SOL_SOCKET, SO_NOSIGPIPE, on);
#endif
}

boost::system::error_code client::open_socket()
{
    std::error_code ec;
    socket_.open(remote_.protocol(), ec);
    if (ec)
    {
        return to_error_code(ec);
    }
    apply_socket_options();
    return {};
}

void client::log_connected() noexcept
{
    if (!log::enabled(log::level::debug))
    {
        return;
    }
    std::error_code ec;
    const endpoint peer = socket_.remote_endpoint(ec);
    if (ec)
    {
        log::log(log::level::debug, "session {}:{} - cannot connect and get remote endpoint: {}",
                 address_of{remote_}, remote_.port(), error_text(to_error_code(ec)));
        return;
    }
    log::log(log::level::debug, "session {}:{} - connected to {}", address_of{remote_}, remote_.port(), peer);
}

boost::system::error_code client::connect()
{
    if (connected_)
    {
        return {};
    }
    boost::system::error_code ec = open_socket();
    if (!ec)
    {
        std::error_code connect_ec;
        socket_.connect(remote_, connect_ec);
        ec = to_error_code(connect_ec);
    }
    if (ec)
    {
        std::error_code local_ec;
        const endpoint local = socket_.is_open() ? socket_.local_endpoint(local_ec) : endpoint{};
        log::log(log::level::debug,
                 "socket {} - source {} - client could not connect to {} ({}), trying again", native_handle(),
                 local, remote_, error_text(ec));
        close();
        return ec;
    }
    log_connected();

    ec = set_timeout(timeout_ms_);
    if (ec)
    {
        close();
        return ec;
    }
    connected_ = true;

    if (security_ && security_->needs_handshake())
    {
        ec = handshake();
        if (ec)
        {
            close();
            return ec;
        }
    }
    return {};
}

boost::system::error_code client::handshake()
{
    // The secure channel is not part of this build: a client with complete credentials can't connect
    // rather than talk in the clear to a cluster that expects a handshake.
    return system_error(EOPNOTSUPP);
}

boost::system::error_code client::set_timeout(std::uint64_t milliseconds) noexcept
{
    if (milliseconds == 0)
    {
        return generic_error(EINVAL);
    }
    ::timeval tv{};
    tv.tv_sec = static_cast<decltype(tv.tv_sec)>(milliseconds / 1000);
    tv.tv_usec = static_cast<decltype(tv.tv_usec)>((milliseconds % 1000) * 1000);
    const int fd = native_handle();
    if (set_option(fd, SOL_SOCKET, SO_RCVTIMEO, tv) != 0)
    {
        const auto ec = system_error(errno);
        log::log(log::level::error, "could not set receive timeout to {} s {} us: {}", tv.tv_sec, tv.tv_usec,
                 error_text(ec));
        return ec;
    }
    if (set_option(fd, SOL_SOCKET, SO_SNDTIMEO, tv) != 0)
    {
        const auto ec = system_error(errno);
        log::log(log::level::error, "could not set send timeout to {} s {} us: {}", tv.tv_sec, tv.tv_usec,
                 error_text(ec));
        return ec;
    }
    log::log(log::level::detailed, "set client timeout to {}", milliseconds);
    return {};
}

void client::close() noexcept
{
    if (socket_.is_open())
    {
        std::error_code ignored;
        socket_.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }
    connected_ = false;
    session_ready_ = false;
}

void client::abort_async()
{
    asio::post(socket_.get_executor(), [this] { close(); });
}

boost::system::error_code client::send(const serialization::scatter_list & frame)
{
    const int fd = native_handle();
    const auto entries = frame.entries();
    std::size_t index = 0;
    std::size_t offset = 0; // into entries[index], after a partial write
    ::iovec iov[max_write_entries];
    boost::system::error_code ec;
    while (index < entries.size())
    {
        const std::size_t count = std::min(max_write_entries, entries.size() - index);
        for (std::size_t i = 0; i < count; ++i)
        {
            const auto & entry = entries[index + i];
            const std::size_t skip = i == 0 ? offset : 0;
            iov[i].iov_base = const_cast<std::uint8_t *>(entry.data + skip);
            iov[i].iov_len = entry.size - skip;
        }
        const ::ssize_t written = gather_write(fd, iov, count);
        if (written < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            ec = last_socket_error();
            break;
        }
        // Move past what went out: whole entries, then a part of the next.
        auto left = static_cast<std::size_t>(written);
        while (left != 0 && index < entries.size())
        {
            const std::size_t remaining = entries[index].size - offset;
            if (left < remaining)
            {
                offset += left;
                left = 0;
            }
            else
            {
                left -= remaining;
                offset = 0;
                ++index;
            }
        }
    }
    if (ec)
    {
        if (!is_canceled(ec))
        {
            log::log(log::level::debug, "client {} - context {} - could not send the data: {} (timeout {})",
                     fmt::ptr(this), context_, error_text(ec), timeout_ms_);
        }
        close();
    }
    return ec;
}

boost::system::error_code client::receive(received_frame & out)
{
    const int fd = native_handle();
    std::shared_ptr<received_buffer> buffer = received_buffer::make(first_read_size);
    frame_progress progress;
    boost::system::error_code ec;
    for (;;)
    {
        // Before the head is known, fill the first buffer as far as one read goes; after it, read up to
        // the frame's end.
        const std::size_t limit = progress.expected != 0 ? progress.expected : buffer->size();
        const std::size_t want = std::min(limit - progress.received, max_read_size);
        const ::ssize_t n = ::read(fd, buffer->data() + progress.received, want);
        if (n < 0)
        {
            if (errno == EINTR)
            {
                continue;
            }
            ec = last_socket_error();
            break;
        }
        if (n == 0)
        {
            ec = end_of_file();
            break;
        }
        ec = framing_step(buffer->data(), static_cast<std::size_t>(n), progress, max_input_size_);
        if (ec)
        {
            break;
        }
        if (progress.expected > buffer->size())
        {
            std::shared_ptr<received_buffer> larger;
            try
            {
                larger = received_buffer::make(progress.expected);
            }
            catch (const std::bad_alloc &)
            {
                ec = generic_error(ENOMEM);
                break;
            }
            std::memcpy(larger->data(), buffer->data(), progress.received);
            buffer = std::move(larger);
        }
        if (progress.complete())
        {
            break;
        }
    }
    if (ec)
    {
        if (!is_canceled(ec))
        {
            log::log(log::level::debug,
                     "client {} - context {} - could not receive the data: {} (timeout {})", fmt::ptr(this),
                     context_, error_text(ec), timeout_ms_);
        }
        close();
        return ec;
    }
    out.buffer = std::move(buffer);
    out.size = progress.expected;
    return {};
}

std::size_t client::peer_name(char * out) noexcept
{
    static constexpr std::string_view closed = "socket closed";
    static constexpr std::string_view unknown = "unknown";
    if (!socket_.is_open())
    {
        return closed.copy(out, closed.size());
    }
    std::error_code ec;
    const endpoint peer = socket_.remote_endpoint(ec);
    if (ec)
    {
        return unknown.copy(out, unknown.size());
    }
    return format_endpoint_to(peer, out);
}

boost::system::error_code client::decode(received_frame & frame)
{
    const protocol::frame_origin origin{this, context_, std::string_view(remote_text_, remote_text_size_)};
    const boost::system::error_code ec = protocol::read_frame(
        std::span<const std::uint8_t>(frame.buffer->data(), frame.size), frame.message, origin);
    if (ec)
    {
        char peer[max_endpoint_text];
        const std::size_t n = peer_name(peer);
        log::log(log::level::error, "client {} - context {} - cannot decode reply from peer {}: {}",
                 fmt::ptr(this), context_, std::string_view(peer, n), error_text(ec));
        close();
    }
    return ec;
}

bool is_final_error(const boost::system::error_code & ec) noexcept
{
    if (!ec)
    {
        return true;
    }
    const auto & category = ec.category();
    const int value = ec.value();
    if (category == boost::system::system_category() &&
        (value == ECANCELED || value == EOPNOTSUPP || value == EPERM || value == EAFNOSUPPORT))
    {
        return true;
    }
    // Both ways: the code's category may know the condition, or the condition's category the code.
    for (const auto condition :
         {boost::system::errc::not_enough_memory, boost::system::errc::invalid_argument})
    {
        const auto cond = boost::system::errc::make_error_condition(condition);
        if (category.equivalent(value, cond) || cond.category().equivalent(ec, cond.value()))
        {
            return true;
        }
    }
    if (category == crypto::crypto_category())
    {
        return value == 1 || value == 2;
    }
    if (category == protocol::protocol_category())
    {
        return value >= 1 && value <= 3;
    }
    return false;
}

} // namespace zlk::network::client
