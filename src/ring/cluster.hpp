// A handle's view of the cluster it is connected to: the ring map, the addresses it was given, and the
// three settings the cluster dictates (replication factor, input buffer size, profiling).
//
//   cluster.set_addresses(parsed);     // what zlk_connect was given
//   cluster.connect_to();              // walk the ring, read the settings
//   cluster.ensure_connected();        // the check every routed request starts with
//
// There is no session with the cluster as such: connections are per node, made when first needed.
// Connecting to a ring that isn't stable yet is no failure; requests then wait for it through the
// call frame's connection retry (stabilize).
#pragma once

#include <boost/system/error_code.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

#include "network/broker_service.hpp"
#include "network/endpoint.hpp"
#include "ring/conversations.hpp"
#include "ring/ring_map.hpp"
#include "zlk/error.h"

namespace zlk::chord
{

class cluster
{
public:
    static constexpr std::uint64_t default_max_in_buf_size = 0x10000000;

    // replication_factor and replica_random are the handle's; everything here must outlive the cluster.
    cluster(network::broker_service & broker, std::atomic<std::uint32_t> & replication_factor,
            std::atomic<std::uint64_t> & replica_random);

    cluster(const cluster &) = delete;
    cluster & operator=(const cluster &) = delete;

    ring_map & map() noexcept { return _map; }
    conversations & chord() noexcept { return _conversations; }
    network::broker_service & broker() noexcept { return *_broker; }

    // Where the timing records that nodes attach to results go. Only the first call counts; it must come
    // before the addresses are first set, which is what lets requests run at all.
    void install_profile_sink(profile_sink sink);

    // How the entry check of a request connects again: the handle's own connection, which checks the
    // credentials first. Same rule as the sink: the first call counts, before the addresses are set.
    // Without one, connect_to.
    void install_connector(std::function<zlk_error_t()> connector);

    void set_addresses(network::endpoint_set addresses);
    network::endpoint_set addresses() const;
    bool has_addresses() const;

    // Walks the ring from the stored addresses and reads the cluster's settings. No address:
    // zlk_e_host_not_found. An unstable ring is a success ("connecting to unstable cluster"); the
    // settings are only logged when they can't be read.
    zlk_error_t connect_to();

    // The walk and the consistency test (ring_map::stabilize), translated.
    zlk_error_t stabilize();

    // The entry check of a routed request: a map with arcs passes; without arcs, the stored addresses
    // are connected to again; with neither, zlk_e_not_connected.
    zlk_error_t ensure_connected();

    // Reads the three settings from the first node of the map. Each failure is logged and skipped.
    void read_settings();

    // The arc of the node at that endpoint, learnt into the map. A transport failure of the chord-visible
    // kind forgets the node; an invalid arc is zlk_e_unstable_cluster ("could not get the node arc for {}").
    // Every failure, a refusal's error included, is translated with the local origin.
    zlk_error_t get_node_arc(const network::endpoint & ep, arc & out);

    // Forgets the node when the transport failure makes its place on the ring suspect.
    void forget_on_failure(const node_info & node, const boost::system::error_code & ec);

    std::uint32_t replication_factor() const noexcept
    {
        return _replication_factor->load(std::memory_order_relaxed);
    }
    std::atomic<std::uint64_t> & replica_random() noexcept { return *_replica_random; }
    std::uint64_t max_in_buf_size() const noexcept
    {
        return _max_in_buf_size.load(std::memory_order_relaxed);
    }
    bool profiling() const noexcept { return _profiling.load(std::memory_order_relaxed); }
    // Of asynchronous waits: the broker's request time-out.
    std::uint64_t timeout_ms() const noexcept;

private:
    network::broker_service * _broker;
    conversations _conversations;
    ring_map _map;
    std::atomic<std::uint32_t> * _replication_factor;
    std::atomic<std::uint64_t> * _replica_random;
    std::atomic<std::uint64_t> _max_in_buf_size{default_max_in_buf_size};
    std::atomic<bool> _profiling{false};
    std::once_flag _profile_sink_once;
    std::function<zlk_error_t()> _connector;
    std::once_flag _connector_once;

    mutable std::mutex _addresses_mutex;
    network::endpoint_set _addresses;
};

// The look-ups a routed request may locate its node with.
boost::system::error_code find_owner(cluster & c, const ring_id & position, std::uint16_t flags,
                                     bool force_remote, node_info & out);
boost::system::error_code pick_replica(cluster & c, const ring_id & position, std::uint16_t flags,
                                       bool force_remote, node_info & out);

using locator = boost::system::error_code (*)(cluster &, const ring_id &, std::uint16_t, bool, node_info &);

} // namespace zlk::chord
