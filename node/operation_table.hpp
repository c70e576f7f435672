// The node's table of data operations: the carrier's operation number leads to a handler. A node
// starts with the standard operations (get_config, node_status); entry and time-series operations are
// added by registering their handlers, and tests register operations of their own.
//
// A handler reads the operation's fields from the request, fills the result (error, value, content)
// and returns. It runs on one of the node's threads, at most one request of a connection at a time,
// several connections at once: a handler guards whatever state it shares.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "wire/marshal.hpp"
#include "wire/messages.hpp"

namespace zlk::node
{

class node_state;
struct node_settings;

// What a handler sees of its request and of the node that runs it. Lives for the handler's call.
class operation_context
{
public:
    operation_context(node_state & node, const chord::chord_carrier_request & request,
                      std::vector<std::uint8_t> & content) noexcept
        : _node(node)
        , _request(request)
        , _content(content)
    {
    }

    const chord::chord_carrier_request & request() const noexcept { return _request; }
    std::uint16_t operation() const noexcept { return _request.operation(); }
    // A cursor over the operation's fields, after its number. The bytes live as long as the request.
    serialization::cursor fields() const noexcept;

    node_state & node() const noexcept { return _node; }
    const node_settings & settings() const noexcept;
    const chord::node_info & self() const noexcept;

    // A copy that another node forwarded for replication (its `from` is set), rather than a client's
    // request.
    bool is_replica_copy() const noexcept { return !_request.from.is_unset(); }

    // The reply's content: bytes appended here are sent as result.content (unless the handler set
    // result.content itself). Empty when the handler starts; its storage is reused between requests.
    std::vector<std::uint8_t> & content() noexcept { return _content; }

    // Sends this request to the other nodes that hold the replicas of its key (the owner's next
    // replication_factor - 1 successors) and waits until each has answered. Success when all of them
    // did so without error; otherwise the first failure: the replica's own error, or chord code 1 ("ring
    // is unstable - retry later") when a replica could not be reached. Does nothing for a replica copy
    // or with a replication factor of 1. Blocks: only handlers registered as may_wait call it.
    boost::system::error_code replicate();

private:
    node_state & _node;
    const chord::chord_carrier_request & _request;
    std::vector<std::uint8_t> & _content;
};

using operation_handler = std::function<void(operation_context &, protocol::result &)>;

// Whether a handler may block on other nodes. Such a handler runs on the node's worker threads, so
// that the I/O threads keep answering the replica copies that other nodes forward meanwhile; without
// that, two nodes forwarding to each other could wait on each other forever.
enum class handler_mode : std::uint8_t
{
    quick,
    may_wait,
    // Blocks only in replicate(): quick on a node without replicas (replication factor 1), so that
    // the common write is answered where it was read, without a trip through the worker threads.
    replicates,
};

class operation_registry
{
public:
    struct entry
    {
        operation_handler handler;
        handler_mode mode = handler_mode::quick;
    };

    // Adds or replaces the handler of an operation number, which needn't be in the protocol table.
    void add(std::uint16_t number, operation_handler handler, handler_mode mode = handler_mode::quick);
    void remove(std::uint16_t number) noexcept;
    // Null when no handler is registered. Doesn't allocate.
    const entry * find(std::uint16_t number) const noexcept;
    bool any_may_wait() const noexcept;

private:
    boost::unordered_flat_map<std::uint16_t, entry> _handlers;
};

// get_config (23), node_status (21) and the entry operations, over a store of their own.
operation_registry standard_operations();

} // namespace zlk::node
