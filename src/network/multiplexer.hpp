// The one background thread of a handle's network service: it runs the socket library's event loop on
// which every asynchronous request's handlers run, one at a time.
//
// stop() guarantees that every request under way gets its completion: the loop is stopped and its
// thread joined, the sockets of requests still under way are closed (their operations then complete
// with ECANCELED), and the handlers still queued run on the stopping thread.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace zlk::network
{

namespace client
{
class client;
}

class multiplexer
{
public:
    // name: the service's; the multiplexer's own is that plus " multiplexer".
    explicit multiplexer(std::string_view service_name);
    ~multiplexer();

    multiplexer(const multiplexer &) = delete;
    multiplexer & operator=(const multiplexer &) = delete;

    // Starts the event-loop thread. Throws std::system_error("thread constructor failed") when the
    // thread can't be made. A no-op while running.
    void start();

    // Stops the loop, joins its thread and runs the handlers left. May be called again; start() may
    // follow.
    void stop() noexcept;

    // False from the beginning of stop() to the next start(): requests started then complete at once
    // with ECANCELED, and failed requests are not replayed.
    bool accepting() const noexcept { return accepting_.load(std::memory_order_acquire); }

    asio::io_context & io() noexcept { return io_; }
    const std::string & name() const noexcept { return name_; }

    // The clients with an asynchronous request under way, so that stop() can abort them.
    void track(client::client & c) noexcept;
    void untrack(client::client & c) noexcept;
    std::size_t tracked() const noexcept;

private:
    void run_loop() noexcept;
    void abort_tracked() noexcept;

    mutable std::mutex mutex_; // start and stop
    std::string name_;
    std::size_t workers_ = 1;
    std::unique_ptr<std::thread> thread_;
    asio::io_context io_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard_;
    std::atomic<bool> accepting_{false};

    mutable std::mutex tracked_mutex_;
    client::client * tracked_head_ = nullptr;
    std::size_t tracked_count_ = 0;
};

} // namespace zlk::network
