// Whole reads and writes on a plain blocking socket, for test peers and the bare ping-pong baselines of
// the benchmarks.
#pragma once

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

} // namespace zlk::network::testing
