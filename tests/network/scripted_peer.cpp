#include "scripted_peer.hpp"

#include "blocking_io.hpp"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace zlk::network::testing
{

scripted_peer::scripted_peer()
{
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (listener_ < 0)
    {
        throw std::runtime_error("socket");
    }
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(listener_, reinterpret_cast<::sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listener_, 512) != 0)
    {
        ::close(listener_);
        throw std::runtime_error("bind");
    }
    ::socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<::sockaddr *>(&address), &length);
    endpoint_ = asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), ntohs(address.sin_port));
    acceptor_ = std::thread([this] { accept_loop(); });
}

scripted_peer::~scripted_peer()
{
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        released_ = true;
        for (const int fd : open_fds_)
        {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    changed_.notify_all();
    // Wakes the blocked accept().
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    ::close(listener_);
    std::vector<std::thread> sessions;
    {
        std::lock_guard lock(mutex_);
        sessions.swap(sessions_);
    }
    for (auto & t : sessions)
    {
        t.join();
    }
}

void scripted_peer::push(step s)
{
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(s));
}

void scripted_peer::set_default(step s)
{
    std::lock_guard lock(mutex_);
    default_ = std::move(s);
}

void scripted_peer::release()
{
    {
        std::lock_guard lock(mutex_);
        released_ = true;
    }
    changed_.notify_all();
}

bool scripted_peer::wait_for_requests(std::size_t count)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return requests_.load() >= count; });
}

bytes scripted_peer::last_request() const
{
    std::lock_guard lock(mutex_);
    return last_request_;
}

step scripted_peer::next_step()
{
    std::lock_guard lock(mutex_);
    if (!script_.empty())
    {
        step s = std::move(script_.front());
        script_.pop_front();
        return s;
    }
    if (default_)
    {
        return *default_;
    }
    return step::close_after_read();
}

void scripted_peer::accept_loop()
{
    for (;;)
    {
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0)
        {
            return;
        }
        std::lock_guard lock(mutex_);
        if (stopping_)
        {
            ::close(fd);
            return;
        }
        connections_.fetch_add(1);
        open_fds_.push_back(fd);
        sessions_.emplace_back([this, fd] { serve(fd); });
    }
}

void scripted_peer::serve(int fd)
{
    for (;;)
    {
        // A request frame: the 12-byte head, then as many bytes as it announces.
        bytes request(12);
        if (!read_exactly(fd, request.data(), request.size()))
        {
            break;
        }
        std::uint64_t body = 0;
        std::memcpy(&body, request.data() + 4, sizeof body);
        if (body > (64u << 20))
        {
            break;
        }
        request.resize(12 + body);
        if (!read_exactly(fd, request.data() + 12, body))
        {
            break;
        }
        const step s = next_step();
        {
            std::lock_guard lock(mutex_);
            last_request_ = std::move(request);
            requests_.fetch_add(1);
        }
        changed_.notify_all();
        if (!s.reply.empty() && !write_all(fd, s.reply.data(), s.reply.size()))
        {
            break;
        }
        if (s.after == step::then::close)
        {
            break;
        }
        if (s.after == step::then::hold)
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return released_; });
            break;
        }
    }
    std::lock_guard lock(mutex_);
    std::erase(open_fds_, fd);
    ::close(fd);
}

} // namespace zlk::network::testing
