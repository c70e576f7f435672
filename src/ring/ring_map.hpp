// The client's cached view of the chord ring: the arcs it has met, sorted by node id, and the endpoints
// it may ask when the cache can't answer.
//
// The cache is never trusted for long: a connection failure forgets the node (forget_node), a miss asks
// the cluster and learns the arc it is answered with, and the walk (walk_ring) rebuilds the whole.
//
// Every public operation takes the map's readers-writer lock for its whole length, the chord
// conversation of a miss included, so that concurrent misses ask the cluster one after another and a
// walk is never seen half done by another walk. ring_size and is_consistent read under the shared lock.
// The hit path of find_owner allocates nothing.
#pragma once

#include <boost/container/small_vector.hpp>
#include <boost/system/error_code.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "base/ring_id.hpp"
#include "network/endpoint.hpp"
#include "wire/node_info.hpp"

namespace zlk::chord
{

// Bit of a look-up's flags (the request's required_access): any node may serve the request.
inline constexpr std::uint16_t access_any_node = 0x01;
// Bit of a read that any replica may serve.
inline constexpr std::uint16_t access_any_replica = 0x02;
// Bit a ring-segment request gets on the first node of a walk over the nodes.
inline constexpr std::uint16_t access_first_node = 0x08;

// What a conversation with one node asks the map to do besides its answer.
struct chord_outcome
{
    boost::system::error_code error;
    // The error is the node's own status (translated with the remote origin), not a local verdict.
    bool remote = false;
    // The node said the request went to the wrong peer: the caller may ask the ring anew and retry.
    bool retry = false;
    // The node can't be trusted any longer: drop its arc.
    bool forget = false;
};

// How a map asks the cluster: "find successor" of a position, sent to one endpoint.
class successor_finder
{
public:
    virtual ~successor_finder() = default;
    virtual chord_outcome find_successor(const network::endpoint & ep, const ring_id & position,
                                         arc & out) = 0;
};

// One node of a replica set and its proximity weight.
struct weighted_node
{
    node_info node;
    std::uint32_t weight = 0;
};

// The most replicas a set names, whatever the replication factor.
inline constexpr std::size_t max_replicas = 5;
using replica_list = boost::container::small_vector<weighted_node, max_replicas>;

class ring_map
{
public:
    // REQUIRES: network outlives the map.
    explicit ring_map(successor_finder & network) noexcept
        : _network(&network)
    {
    }

    ring_map(const ring_map &) = delete;
    ring_map & operator=(const ring_map &) = delete;

    // The owner of a position. Without force_remote, answered from the arcs when one contains the position
    // (with bit 0 of flags, any arc's node will do). Otherwise each known endpoint is asked in turn until
    // one answers; the arc it gives must be valid and contain the position (chord code 1 if not), and it
    // is learnt. With no known endpoint at all: success, and out is unset.
    boost::system::error_code find_owner(const ring_id & position, std::uint16_t flags, bool force_remote,
                                         node_info & out);

    // Replaces the arc of the same node, keeping the order.
    void insert_arc(const arc & a);
    // Drops the arc of that node id; an unknown id does nothing.
    void forget_node(const node_info & node);
    // Drops the arcs whose node is reached at that endpoint: a node known only by its address.
    void forget_endpoint(const network::endpoint & ep);

    // The arcs close into a ring: each arc's predecessor is the node before it and its node is the
    // successor of the one before it, the first against the last. False for an empty map.
    bool is_consistent() const;
    std::size_t ring_size() const;

    // known_endpoints becomes exactly this set; then the ring is walked.
    boost::system::error_code bootstrap(const network::endpoint_set & endpoints);

    // Asks the cluster for the owner of 1, then of the owner's id + 1, and so on until a node comes back
    // a second time: N + 1 round trips for a ring of N nodes, each arc learnt on the way. The map is
    // updated arc by arc and never cleared, so concurrent readers keep routing meanwhile.
    boost::system::error_code walk_ring();

    // walk_ring, then the consistency test; an open ring clears the map and gives
    // zlk_e_unstable_cluster's chord code (logged "could not traverse the cluster ring").
    boost::system::error_code stabilize();

    // A copy of the arcs, refreshed first (stabilize) when refresh is set or the map isn't consistent.
    std::pair<boost::system::error_code, std::vector<arc>> node_list(bool refresh);

    // The owner of the position and the nodes after it, min(replication_factor, 5) at most, each with
    // its proximity weight. A failure to find the owner is the result; a later failure ends the walk
    // with what was collected.
    boost::system::error_code replicas(const ring_id & position, std::uint16_t flags, bool force_remote,
                                       std::uint32_t replication_factor, replica_list & out);

    // One node of the replica set, drawn in proportion to the weights with the generator whose state is
    // `random`.
    boost::system::error_code pick_replica(const ring_id & position, std::uint16_t flags, bool force_remote,
                                           std::uint32_t replication_factor,
                                           std::atomic<std::uint64_t> & random, node_info & out);

    std::vector<arc> arcs() const;
    network::endpoint_set known_endpoints() const;
    void clear();

private:
    using unique_lock = std::unique_lock<std::shared_mutex>;

    boost::system::error_code find_owner_locked(const ring_id & position, std::uint16_t flags,
                                                bool force_remote, node_info & out);
    boost::system::error_code walk_ring_locked();
    boost::system::error_code stabilize_locked();
    bool is_consistent_locked() const noexcept;
    void insert_arc_locked(const arc & a);
    void forget_id_locked(const ring_id & id) noexcept;
    void forget_endpoint_locked(const network::endpoint & ep) noexcept;

    successor_finder * _network;
    mutable std::shared_mutex _lock;
    std::vector<arc> _arcs;
    network::endpoint_set _known_endpoints;
};

// The client's own IPv4 address: the first non-loopback IPv4 address of the interfaces, looked up once
// per process. None when the machine has none.
std::optional<std::uint32_t> local_ipv4_address() noexcept;

// How close a node is to this client: 625 on the same address, 64 in the same /24, 27 in the same /16,
// 8 in the same /8, 1 elsewhere; 0 when either side has no IPv4 address.
std::uint32_t proximity_weight(std::optional<std::uint32_t> local, const network::endpoint & node) noexcept;

// Draws from [0, bound) with the generator whose state is `random` (minstd: s = s * 48271 mod 2^31 - 1),
// stepping the state. REQUIRES: bound > 0.
std::uint32_t draw_uniform(std::atomic<std::uint64_t> & random, std::uint32_t bound) noexcept;

// The node of the list that the draw r in [0, sum of weights) falls on: the first that takes r below
// zero when the weights are subtracted in order. REQUIRES: a non-empty list.
const node_info & weighted_choice(const replica_list & list, std::uint32_t r) noexcept;

} // namespace zlk::chord
