// One side of a handle's pool of idle connections ("sync" or "async"): a pool per endpoint.
//
// get_client hands out an idle connection for an endpoint or makes a new one; return_client puts one
// back. Neither waits and neither limits the connections in use: a pool limits only what is kept idle
// (pool_capacity per endpoint); a connection returned to a full pool is closed.
//
// Both are called from any thread without a lock of the broker's own. The pool-hit path takes one
// bucket read lock and one queue pop: no allocation, no system call.
#pragma once

#include "network/allocators.hpp"
#include <asio/io_context.hpp>
#include <boost/system/error_code.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <oneapi/tbb/concurrent_hash_map.h>
#include <oneapi/tbb/concurrent_queue.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "network/client.hpp"
#include "network/endpoint.hpp"
#include "network/network_settings.hpp"

namespace zlk::network
{

class multiplexer;

class clients_broker
{
public:
    static constexpr std::ptrdiff_t pool_capacity = 250;
    // Statistics are logged with every this many creations.
    static constexpr std::uint64_t statistics_period = 100;

    using client_ptr = std::shared_ptr<client::client>;
    using pool = tbb::concurrent_bounded_queue<client_ptr, network::scalable_allocator<client_ptr>>;

    enum class kind
    {
        // Clients used with plain blocking calls only. Their sockets belong to an event loop of the
        // side's own that never runs: a reply arriving on them wakes no thread but the caller's.
        blocking,
        // Clients of the asynchronous path, whose sockets belong to the multiplexer's event loop.
        asynchronous,
    };

    // REQUIRES: the multiplexer outlives the broker.
    clients_broker(std::string name, kind k, multiplexer & mux,
                   std::shared_ptr<const network_settings> settings);
    ~clients_broker();

    clients_broker(const clients_broker &) = delete;
    clients_broker & operator=(const clients_broker &) = delete;

    // An idle client for the endpoint with its context set, or a new unconnected one made with the
    // current settings. Only allocation can fail, by throwing.
    std::pair<boost::system::error_code, client_ptr> get_client(const endpoint & ep, const char * context);

    // Keeps the client idle for the next get_client, or closes it when its endpoint's pool is full. A
    // null client is ignored.
    void return_client(client_ptr c);

    // Drops every pool, closing the idle clients.
    void clear() noexcept;

    // The number of idle clients for the endpoint.
    std::size_t idle(const endpoint & ep) const;

    const std::string & name() const noexcept { return name_; }
    multiplexer & mux() const noexcept { return *mux_; }

private:
    struct endpoint_hash_compare
    {
        static std::size_t hash(const endpoint & ep) noexcept;
        static bool equal(const endpoint & a, const endpoint & b) noexcept { return a == b; }
    };
    using pool_map = tbb::concurrent_hash_map<endpoint, std::shared_ptr<pool>, endpoint_hash_compare>;

    void count_creation(const endpoint & ep, const char * context);

    const std::string name_;
    multiplexer * mux_;
    std::shared_ptr<const network_settings> settings_;
    // Declared before the pools: the idle clients' sockets are closed before their loop goes.
    std::unique_ptr<asio::io_context> blocking_io_;
    pool_map pools_;

    // For the statistics log alone, under statistics_mutex_.
    std::mutex statistics_mutex_;
    boost::unordered_flat_map<std::string, std::pair<std::uint64_t, bool>> context_creations_;
    std::map<endpoint, std::uint64_t> endpoint_counts_;
    std::atomic<std::uint64_t> creations_{0};
};

} // namespace zlk::network
