#include "epoll_responder.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <unordered_map>

namespace zlk::bench
{

namespace
{

void close_fd(int & fd) noexcept
{
    if (fd >= 0)
    {
        ::close(fd);
        fd = -1;
    }
}

} // namespace

epoll_responder::epoll_responder(std::size_t request_size, std::vector<std::uint8_t> reply,
                                 std::size_t threads)
    : _request_size(request_size)
    , _reply(std::move(reply))
    , _loops(threads == 0 ? 1 : threads)
{
    _listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::socklen_t length = sizeof address;
    if (_listener < 0 || ::bind(_listener, reinterpret_cast<::sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(_listener, 256) != 0 ||
        ::getsockname(_listener, reinterpret_cast<::sockaddr *>(&address), &length) != 0)
    {
        close_fd(_listener);
        throw std::runtime_error("epoll_responder: cannot listen on 127.0.0.1");
    }
    _port = ntohs(address.sin_port);
    for (loop & l : _loops)
    {
        l.epoll = ::epoll_create1(EPOLL_CLOEXEC);
        l.wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        ::epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = l.wake;
        ::epoll_ctl(l.epoll, EPOLL_CTL_ADD, l.wake, &event);
    }
    // The first loop also accepts.
    ::epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = _listener;
    ::epoll_ctl(_loops[0].epoll, EPOLL_CTL_ADD, _listener, &event);
    for (std::size_t i = 0; i < _loops.size(); ++i)
    {
        _threads.emplace_back([this, i] { run(i); });
    }
}

epoll_responder::~epoll_responder()
{
    for (loop & l : _loops)
    {
        const std::uint64_t one = 1;
        (void)!::write(l.wake, &one, sizeof one);
    }
    for (std::thread & t : _threads)
    {
        t.join();
    }
    for (loop & l : _loops)
    {
        close_fd(l.epoll);
        close_fd(l.wake);
    }
    close_fd(_listener);
}

// Only the first loop's thread accepts, so _next_loop needs no lock.
void epoll_responder::accept_all()
{
    for (;;)
    {
        const int fd = ::accept4(_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
        {
            return;
        }
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        loop & target = _loops[_next_loop++ % _loops.size()];
        {
            std::lock_guard lock(target.adopted_mutex);
            target.adopted.push_back(fd);
        }
        ::epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.fd = fd;
        ::epoll_ctl(target.epoll, EPOLL_CTL_ADD, fd, &event);
    }
}

void epoll_responder::run(std::size_t index)
{
    loop & self = _loops[index];
    // Bytes of a request received so far, per open connection of this loop.
    std::unordered_map<int, std::size_t> partial;
    const auto adopt = [&]
    {
        std::lock_guard lock(self.adopted_mutex);
        for (int fd : self.adopted)
        {
            partial.emplace(fd, 0);
        }
        self.adopted.clear();
    };
    std::vector<std::uint8_t> in(64 * 1024);
    ::epoll_event events[64];
    for (;;)
    {
        const int ready = ::epoll_wait(self.epoll, events, 64, -1);
        for (int i = 0; i < ready; ++i)
        {
            const int fd = events[i].data.fd;
            if (fd == self.wake)
            {
                adopt();
                for (const auto & [open, unused] : partial)
                {
                    (void)unused;
                    ::close(open);
                }
                return;
            }
            if (fd == _listener)
            {
                accept_all();
                continue;
            }
            auto connection = partial.find(fd);
            if (connection == partial.end())
            {
                adopt();
                connection = partial.find(fd);
            }
            const ssize_t n = ::recv(fd, in.data(), in.size(), 0);
            if (n < 0 && errno == EAGAIN)
            {
                continue;
            }
            if (n <= 0 || connection == partial.end())
            {
                ::epoll_ctl(self.epoll, EPOLL_CTL_DEL, fd, nullptr);
                ::close(fd);
                partial.erase(fd);
                continue;
            }
            std::size_t & held = connection->second;
            held += static_cast<std::size_t>(n);
            for (; held >= _request_size; held -= _request_size)
            {
                (void)!::send(fd, _reply.data(), _reply.size(), MSG_NOSIGNAL);
            }
        }
    }
}

} // namespace zlk::bench
