// A ring of nodes inside the calling process, on 127.0.0.1 with ephemeral ports: the fixture that
// client tests run against.
//
//   zlk::node::local_cluster cluster(3);          // three nodes, ids evenly spaced, all started
//   connect_to(cluster.uri());                    // "zlk://127.0.0.1:P1,127.0.0.1:P2,127.0.0.1:P3"
//   cluster.stop_node(1);                         // node 1 goes away, keeps its place in the ring
//   cluster.restart_node(1);                      // and comes back on the same port
//   cluster.add_node();                           // a fourth node, in the middle of the widest arc
//   cluster.remove_node(0);                       // node 0 leaves the ring for good
//   cluster.set_faults(2, {.hold_replies = true});
//
// Nodes are named by index, in the order they were made (ids ascend with the index for the nodes made
// by the constructor). An index stays valid for the cluster's life: a removed node leaves an empty slot.
// Every membership change is told to all members, stopped ones included, before the call returns, so
// the answers that follow show the new arcs.
//
// Not thread safe: one test thread drives the cluster; the nodes themselves serve from their threads.
#pragma once

#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "node/faults.hpp"
#include "node/node.hpp"
#include "node/node_settings.hpp"
#include "node/operation_table.hpp"

namespace zlk::node
{

struct cluster_options
{
    // Applied to every node; id, listen, advertise and peers are the cluster's to set.
    node_settings node;
    // Null for standard_operations().
    std::shared_ptr<const operation_registry> operations;
};

class local_cluster
{
public:
    // Starts n nodes. Throws std::system_error when a node can't start.
    explicit local_cluster(std::size_t n, cluster_options options = {});
    ~local_cluster();

    local_cluster(const local_cluster &) = delete;
    local_cluster & operator=(const local_cluster &) = delete;

    // Slots, empty ones included.
    std::size_t slots() const noexcept { return _slots.size(); }
    // Whether the slot holds a member of the ring (running or stopped).
    bool is_member(std::size_t i) const noexcept;
    bool is_running(std::size_t i) const noexcept;

    // REQUIRES: is_member(i) (std::out_of_range otherwise), and for node(): is_running(i).
    node & at(std::size_t i);
    chord::ring_id id(std::size_t i) const;
    asio::ip::tcp::endpoint endpoint(std::size_t i) const;
    chord::node_info info(std::size_t i) const;

    // The members, running or stopped, sorted by id.
    std::vector<chord::node_info> members() const;
    // "zlk://127.0.0.1:P1,..." over the running members, in slot order.
    std::string uri() const;

    // Stops node i; it stays a member, so the others still route its arc to it.
    void stop_node(std::size_t i);
    // Starts a stopped node again, same id, same port, same faults as before it stopped. Throws
    // std::system_error when the port can't be bound again.
    void restart_node(std::size_t i);
    // A new member with the given id, or in the middle of the widest arc; returns its index. Throws
    // std::invalid_argument when the id is taken.
    std::size_t add_node(std::optional<chord::ring_id> id = std::nullopt);
    // Stops node i and takes it out of the ring.
    void remove_node(std::size_t i);

    void set_faults(std::size_t i, fault_settings faults);
    void clear_faults(std::size_t i) { set_faults(i, fault_settings{}); }
    void release_held_replies(std::size_t i);
    bool wait_for_held_replies(std::size_t i, std::size_t count,
                               std::chrono::milliseconds timeout = std::chrono::seconds(30));

private:
    struct slot
    {
        node_settings settings;
        fault_settings faults;
        std::unique_ptr<node> running;
        bool member = false;
    };

    slot & member_slot(std::size_t i);
    const slot & member_slot(std::size_t i) const;
    void launch(slot & s);
    void announce_membership();

    cluster_options _options;
    std::vector<slot> _slots;
};

} // namespace zlk::node
