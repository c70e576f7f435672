// A node server: answers the wire protocol on one TCP endpoint (IPv4 or IPv6) as a member of a ring
// whose membership it is given.
//
// Each connection serves one request at a time: read a frame, answer it, read the next. A frame that
// isn't one closes its connection and nothing else. The I/O runs on settings.threads threads; the
// operations that wait on other nodes run on as many worker threads (operations.hpp).
//
//   node n(settings);
//   if (auto ec = n.start()) ...;      // binds and serves
//   n.endpoint();                      // where, with the port an ephemeral bind got
//   n.stop();                          // closes everything, joins the threads
#pragma once

#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "node/faults.hpp"
#include "node/node_settings.hpp"
#include "node/node_state.hpp"
#include "node/operation_table.hpp"

namespace zlk::node
{

class server;

class node
{
public:
    // operations: null for standard_operations().
    explicit node(node_settings settings, std::shared_ptr<const operation_registry> operations = nullptr);
    // Stops the node.
    ~node();

    node(const node &) = delete;
    node & operator=(const node &) = delete;

    // Binds the listening socket and starts the threads. Fails with the bind's error, or chord code 11
    // when the membership has a duplicate id. A node starts once.
    boost::system::error_code start();

    // Closes the listening socket and every connection (held replies are dropped), waits for the
    // running operations and joins the threads. Idempotent; not from one of the node's own threads.
    void stop();
    // Like stop, without waiting: callable from anywhere, the node's own handlers included. Also what
    // an accepted node_stop request does. The handler given to on_stop is then called once.
    void request_stop();
    // Called (on some thread) when the node begins to stop, whatever the cause.
    void on_stop(std::function<void()> handler);
    bool stopping() const noexcept;

    // The endpoint the node is known by (its advertised endpoint, with the bound port).
    asio::ip::tcp::endpoint endpoint() const;
    const chord::node_info & info() const noexcept { return _state.self(); }
    const node_settings & settings() const noexcept { return _state.settings(); }

    // The whole ring, this node listed or not. Requests read afterwards see the new arcs.
    boost::system::error_code set_members(std::vector<chord::node_info> members);
    std::shared_ptr<const membership> ring() const { return _state.ring(); }

    void set_faults(fault_settings faults);
    void clear_faults() { set_faults(fault_settings{}); }
    // Sends the replies that hold_replies kept back.
    void release_held_replies();
    // Waits until at least `count` replies are held; false when that didn't happen in time.
    bool wait_for_held_replies(std::size_t count, std::chrono::milliseconds timeout);

    node_counters counters() const noexcept { return _state.counters(); }
    std::size_t open_connections() const;

    node_state & state() noexcept { return _state; }

private:
    node_state _state;
    std::unique_ptr<server> _server;
};

} // namespace zlk::node
