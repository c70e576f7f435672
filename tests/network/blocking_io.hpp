// Whole reads and writes on a plain blocking socket, for test peers and the bare ping-pong baselines of
// the benchmarks.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace zlk::network::testing
{

// False when the peer closed or the read failed before `size` bytes came.
inline bool read_exactly(int fd, std::uint8_t * out, std::size_t size)
{
    std::size_t done = 0;
    while (done < size)
    {
        const ssize_t n = ::read(fd, out + done, size - done);
        if (n <= 0)
        {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

inline bool write_all(int fd, const std::uint8_t * data, std::size_t size)
{
    std::size_t done = 0;
    while (done < size)
    {
        const ssize_t n = ::send(fd, data + done, size - done, MSG_NOSIGNAL);
        if (n <= 0)
        {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// A blocking socket connected to 127.0.0.1:port with TCP_NODELAY, or -1.
inline int connect_loopback(std::uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
    {
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<::sockaddr *>(&address), sizeof address) != 0)
    {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace zlk::network::testing
