// A scriptable node for tests: a TCP listener on 127.0.0.1 with an ephemeral port that reads whole
// request frames and answers each by the next step of its script.
//
// A step says what to write back (any bytes: a frame, garbage, the head of a frame too large) and what
// to do after: keep the connection, close it, or hold it without reading further until release() (a
// silent peer). Every wait a test needs is on a condition, never on time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <asio/ip/tcp.hpp>

namespace zlk::network::testing
{

using bytes = std::vector<std::uint8_t>;

struct step
{
    enum class then
    {
        keep,  // go on reading requests
        close, // close the connection
        hold,  // stay silent until release(), then close
    };

    bytes reply;
    then after = then::keep;

    static step answer(bytes frame) { return {std::move(frame), then::keep}; }
    static step close_after_read() { return {{}, then::close}; }
    static step silent() { return {{}, then::hold}; }
    // Writes the bytes, then stays silent.
    static step answer_then_hold(bytes partial) { return {std::move(partial), then::hold}; }
};

class scripted_peer
{
public:
    scripted_peer();
    ~scripted_peer();

    scripted_peer(const scripted_peer &) = delete;
    scripted_peer & operator=(const scripted_peer &) = delete;

    asio::ip::tcp::endpoint endpoint() const { return endpoint_; }

    // Steps are taken in order by the requests of every connection; with the script empty, the default
    // step answers.
    void push(step s);
    void set_default(step s);

    // Ends every hold, present and future.
    void release();

    std::size_t connections() const noexcept { return connections_.load(); }
    std::size_t requests() const noexcept { return requests_.load(); }
    // Waits until this many requests have been read in all (bounded generously; false on the bound).
    bool wait_for_requests(std::size_t count);
    // The bytes of the last request read.
    bytes last_request() const;

private:
    void accept_loop();
    void serve(int fd);
    step next_step();

    int listener_ = -1;
    asio::ip::tcp::endpoint endpoint_;
    std::thread acceptor_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<step> script_;
    std::optional<step> default_;
    bool released_ = false;
    bool stopping_ = false;
    std::vector<int> open_fds_;
    std::vector<std::thread> sessions_;
    bytes last_request_;

    std::atomic<std::size_t> connections_{0};
    std::atomic<std::size_t> requests_{0};
};

} // namespace zlk::network::testing
