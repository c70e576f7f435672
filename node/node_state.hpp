// The state of one node that doesn't depend on sockets: settings, the membership of the ring, the
// operations, the counters of the status record, the faults to show, and the clients through which
// the node reaches its peers. The server (node.hpp) feeds it frames; the fuzzer and the benchmarks
// drive it directly.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "base/uuid.hpp"
#include "node/faults.hpp"
#include "node/membership.hpp"
#include "node/node_settings.hpp"
#include "node/operation_table.hpp"
#include "node/peer_pool.hpp"
#include "node/read_mostly.hpp"

namespace zlk::node
{

// The request counters of the status record.
struct node_counters
{
    std::uint64_t count = 0;
    std::uint64_t successes = 0;
    std::uint64_t failures = 0;
    std::uint64_t in_bytes = 0;
    std::uint64_t out_bytes = 0;
};

class node_state
{
public:
    node_state(node_settings settings, std::shared_ptr<const operation_registry> operations);

    node_state(const node_state &) = delete;
    node_state & operator=(const node_state &) = delete;

    const node_settings & settings() const noexcept { return _settings; }
    // The node's id and the endpoint it is known by.
    const chord::node_info & self() const noexcept { return _self; }
    // Fixes the endpoint once the listening socket is bound and rebuilds the membership around it.
    // REQUIRES: no request is being served yet.
    void set_self_endpoint(const asio::ip::tcp::endpoint & endpoint);

    // The current membership. The snapshot stays valid while held, whatever changes meanwhile.
    std::shared_ptr<const membership> ring() const;
    // Why the membership given in the settings can't be used (a duplicate id); the node then refuses to
    // start.
    boost::system::error_code settings_error() const noexcept { return _settings_error; }
    // Replaces the membership: `members` may or may not list this node (an entry with its id stands
    // for it). Fails with chord code 11, keeping the old membership, when two entries share an id.
    boost::system::error_code set_members(std::vector<chord::node_info> members);

    const operation_registry & operations() const noexcept { return *_operations; }

    std::shared_ptr<const fault_settings> faults() const;
    void set_faults(fault_settings faults);

    void count_reply(bool success) noexcept;
    void count_in(std::uint64_t bytes) noexcept { add(&counter_stripe::in_bytes, bytes); }
    void count_out(std::uint64_t bytes) noexcept { add(&counter_stripe::out_bytes, bytes); }
    node_counters counters() const noexcept;

    // A fresh stamp: the current time, this node's id and a number that never repeats in this node.
    zlk::uuid next_stamp() noexcept;
    std::chrono::system_clock::time_point startup() const noexcept { return _startup; }

    // Open connections, kept by the server for the status record.
    std::atomic<std::uint32_t> open_connections{0};

    peer_pool & peers() noexcept { return _peers; }

    // Asks the owner of the node (the server) to stop it; the handler is set by the server.
    void set_stop_handler(std::function<void()> handler);
    void request_stop();

private:
    node_settings _settings;
    chord::node_info _self;
    std::shared_ptr<const operation_registry> _operations;
    const std::chrono::system_clock::time_point _startup;
    boost::system::error_code _settings_error;

    mutable std::mutex _mutex;
    read_mostly<membership> _ring;
    std::vector<chord::node_info> _members;
    read_mostly<fault_settings> _faults;
    std::function<void()> _stop_handler;

    // Every request counts, on whichever I/O thread it arrives: each thread adds to a stripe of its own
    // cache line, and the status record sums them.
    struct alignas(64) counter_stripe
    {
        std::atomic<std::uint64_t> count{0};
        std::atomic<std::uint64_t> successes{0};
        std::atomic<std::uint64_t> failures{0};
        std::atomic<std::uint64_t> in_bytes{0};
        std::atomic<std::uint64_t> out_bytes{0};
    };
    static constexpr std::size_t counter_stripes = 8;
    counter_stripe & this_thread_stripe() noexcept;
    void add(std::atomic<std::uint64_t> counter_stripe::*counter, std::uint64_t n) noexcept
    {
        (this_thread_stripe().*counter).fetch_add(n, std::memory_order_relaxed);
    }
    std::array<counter_stripe, counter_stripes> _counters;

    std::atomic<std::uint32_t> _stamps{0};

    peer_pool _peers;
};

} // namespace zlk::node
