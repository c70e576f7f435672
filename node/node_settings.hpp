// What a node is told at start: who it is, where it listens, who the other members are, and the few
// cluster settings that clients read from it.
#pragma once

#include <asio/ip/tcp.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "log/logger.hpp"
#include "wire/node_info.hpp"

namespace zlk::node
{

// min(hardware concurrency, 4), at least 1.
unsigned default_thread_count() noexcept;

struct node_settings
{
    chord::ring_id id = chord::ring_id::max();
    // Port 0 takes an ephemeral port; node::endpoint() tells which.
    asio::ip::tcp::endpoint listen{asio::ip::make_address_v4("127.0.0.1"), 0};
    // What the node calls itself in arcs and replies. Unset: the listening endpoint, with an unspecified
    // address (0.0.0.0, ::) replaced by the loopback address of the same family.
    std::optional<asio::ip::tcp::endpoint> advertise;
    // The other members of the ring. The node itself needn't be listed.
    std::vector<chord::node_info> peers;

    // Copies of a write: 1 to 4, the owner included.
    unsigned replication_factor = 1;
    // Whether chord_request_node_stop stops the node.
    bool enable_stop = false;
    // Whether purge_all empties the node: on, since a development node's data is disposable.
    bool enable_purge_all = true;
    // The profiling flag clients read with get_config.
    bool profile_performance = false;
    // I/O threads, and as many for operations that wait on other nodes.
    unsigned threads = default_thread_count();
    // The largest frame the node accepts, in bytes; also what get_config reports for its item 3.
    std::uint64_t max_in_buffer_size = 0x10000000;
    // Open connections at most; one more is closed as soon as it is accepted.
    unsigned server_sessions = 512;
    // Where the disk readings of the status record are taken.
    std::string working_directory = ".";
    // Shard writes in progress beyond which an asynchronous one (ts_batch_push_async) answers "try again".
    unsigned ts_write_queue = 64;
    // How long a node waits on another (replicas) before it gives up.
    std::chrono::milliseconds peer_timeout{5000};
    // Reported in the configuration document; the logger itself belongs to the process.
    log::level log_level = log::level::info;
};

// The loopback address of the endpoint's family in place of an unspecified one.
asio::ip::tcp::endpoint advertised_endpoint(const asio::ip::tcp::endpoint & bound);

} // namespace zlk::node
