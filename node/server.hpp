// The sockets of a node: the listening socket, the connections, the I/O and worker threads. Internal
// to node.cpp; node.hpp is the interface.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <boost/system/error_code.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "node/node_state.hpp"

namespace zlk::node
{

class connection;

class server
{
public:
    explicit server(node_state & state);
    ~server();

    boost::system::error_code start();
    void request_stop();
    void stop();
    void on_stop(std::function<void()> handler);
    bool stopping() const noexcept { return _stopping.load(std::memory_order_acquire); }

    asio::ip::tcp::endpoint bound_endpoint() const;

    // Opens or closes the listening socket as refuse_connections asks.
    void apply_faults();

    // Called by connections.
    node_state & state() noexcept { return _state; }
    asio::thread_pool & workers() noexcept { return *_workers; }
    void hold(std::shared_ptr<connection> c);
    void forget(connection * c) noexcept;

    void release_held();
    bool wait_for_held(std::size_t count, std::chrono::milliseconds timeout);
    std::size_t connection_count() const;

private:
    boost::system::error_code open_acceptor();
    void accept();
    void run_io(asio::io_context & loop) noexcept;

    node_state & _state;
    mutable std::mutex _mutex;
    std::condition_variable _held_changed;
    std::unordered_map<connection *, std::weak_ptr<connection>> _connections;
    std::vector<std::shared_ptr<connection>> _held;
    std::vector<std::function<void()>> _stop_handlers;
    std::atomic<bool> _stopping{false};
    bool _started = false;
    asio::ip::tcp::endpoint _bound;

    // The first event loop also runs the acceptor; the others exist with more than one I/O thread.
    asio::io_context _io;
    std::vector<std::unique_ptr<asio::io_context>> _more_loops;
    std::vector<asio::io_context *> _loops;
    std::size_t _next_loop = 0;
    std::vector<asio::executor_work_guard<asio::io_context::executor_type>> _work;
    asio::strand<asio::io_context::executor_type> _accept_strand;
    asio::ip::tcp::acceptor _acceptor;
    std::unique_ptr<asio::thread_pool> _workers;
    std::vector<std::thread> _threads;
};

} // namespace zlk::node
