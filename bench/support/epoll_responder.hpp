// A minimal event-loop server over loopback: a few threads, each with an epoll set of connections,
// answering every `request_size` bytes received with one fixed reply. No decoding, no allocation per
// request: the floor under any real server's round trip when many blocking clients share the machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace zlk::bench
{

class epoll_responder
{
public:
    // Listens on an ephemeral port of 127.0.0.1 and starts `threads` event loops.
    epoll_responder(std::size_t request_size, std::vector<std::uint8_t> reply, std::size_t threads);
    ~epoll_responder();

    epoll_responder(const epoll_responder &) = delete;
    epoll_responder & operator=(const epoll_responder &) = delete;

    std::uint16_t port() const noexcept { return _port; }

private:
    struct loop
    {
        int epoll = -1;
        int wake = -1;
        // Connections handed over by the accepting thread and not yet seen by this loop, so that one
        // that never sends a byte is still closed at the end.
        std::mutex adopted_mutex;
        std::vector<int> adopted;
    };

    void run(std::size_t index);
    void accept_all();

    std::size_t _request_size;
    std::vector<std::uint8_t> _reply;
    int _listener = -1;
    std::uint16_t _port = 0;
    std::vector<loop> _loops;
    std::vector<std::thread> _threads;
    std::size_t _next_loop = 0;
};

} // namespace zlk::bench
