// The handle behind zlk_handle_t: one client instance with its keys, options, tracked buffers and
// last-error record. The first word is the magic, which every exported function tests before anything
// else; a freed handle carries dead_magic until the allocator reuses its memory.
//
// Many caller threads may use one handle: numeric options are atomics read afresh on every use,
// last_error and last_error_text are guarded by last_error_mutex.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "api/call_trace.hpp"
#include "api/guarded_key.hpp"
#include "api/objects_tracker.hpp"
#include "api/perf_profiles.hpp"
#include "network/broker_service.hpp"
#include "network/network_settings.hpp"
#include "ring/cluster.hpp"
#include "zlk/error.h"
#include "zlk/types.h"

namespace zlk::api
{

inline constexpr std::uint32_t live_magic = 0x5A1E7C0Du;
inline constexpr std::uint32_t dead_magic = 0xDEADBEEFu;

// The addresses the handle is connected to. Empty means "not connected", which every call that needs
// the cluster tests.
class connected_addresses
{
public:
    bool empty() const
    {
        std::lock_guard lock{_mutex};
        return _uris.empty();
    }

    std::set<std::string> get() const
    {
        std::lock_guard lock{_mutex};
        return _uris;
    }

    void assign(std::set<std::string> uris)
    {
        std::lock_guard lock{_mutex};
        _uris.swap(uris);
    }

    void clear()
    {
        std::lock_guard lock{_mutex};
        _uris.clear();
    }

private:
    mutable std::mutex _mutex;
    std::set<std::string> _uris;
};

// Seed of the handle's generators: (process id << 32) ^ steady clock nanoseconds.
std::uint64_t make_random_seed() noexcept;

} // namespace zlk::api

struct zlk_session
{
    // REQUIRES: sodium_init has run. Throws std::bad_alloc.
    zlk_session();
    ~zlk_session() = default;

    zlk_session(const zlk_session &) = delete;
    zlk_session & operator=(const zlk_session &) = delete;

    std::uint32_t magic = zlk::api::live_magic;

    std::string user_name;
    zlk::api::key_pair user_keys;
    zlk::api::key_pair session_keys;
    std::optional<std::array<std::uint8_t, 32>> cluster_public_key;

    // Timeout and input limit, written by the options and read by both sides of the broker for every
    // new client.
    std::shared_ptr<zlk::network::network_settings> network_settings;
    // Read only for the caller: filled from the cluster's settings.
    std::atomic<std::size_t> cluster_max_in_buf_size{0x10000000};
    // The "clients broker" service: the event-loop thread and the pools of idle connections.
    zlk::network::broker_service broker;
    // The ring map and the cluster connection state sit here, between the broker and the tracker, so
    // that teardown drops them after the tracker and before the broker.
    // Holds the handle's replication_factor and replica_random by reference: it only reads them once
    // requests run.
    zlk::chord::cluster cluster{broker, replication_factor, replica_random};

    // Destroyed before the broker: a tracked buffer may still refer to a connection's memory.
    zlk::api::objects_tracker objects_tracker;

    std::atomic<zlk_compression_t> compression{zlk_comp_fast};
    std::atomic<std::int64_t> stabilization_max_wait{0};        // milliseconds; 0: no reconnect-and-retry
    std::atomic<std::int64_t> transaction_max_wait{360000};     // milliseconds; 0: no conflict retry
    std::atomic<std::int64_t> batch_push_async_timeout{300000}; // milliseconds

    zlk::api::connected_addresses connected_uri;
    std::atomic<std::uint32_t> replication_factor{1};
    std::atomic<std::uint64_t> replica_random;

    std::atomic<std::uint8_t> client_tracking{0};
    zlk::api::perf_profiles perf_profiles;

    std::atomic<std::uint64_t> max_cardinality{100003};
    std::atomic<std::uint64_t> retry_random;

    zlk_error_t last_error = zlk_e_ok;
    std::string last_error_text;
    std::mutex last_error_mutex;
    // A call at the top of its thread's trace that ends with its code's own text (every success does)
    // leaves only its name and code here, without the lock; the text is written out when it is read.
    // The name is a literal, alive for the whole program. Null: the record is last_error and its text.
    std::atomic<const char *> plain_record_name{nullptr};
    std::atomic<zlk_error_t> plain_record_code{zlk_e_ok};
};

namespace zlk::api
{

// Null or not alive. Reading the magic of freed memory is the caller's fault; this catches it only
// until the allocator reuses the block.
inline bool is_valid_handle(const zlk_session * h) noexcept
{
    return h && h->magic == live_magic;
}

inline bool is_connected(const zlk_session & h)
{
    return !h.connected_uri.empty();
}

// Live handles in the process; the first open starts the logger, the last close stops it.
extern std::atomic<std::uint32_t> handle_count;
// Orders the logger's start and stop between concurrent opens and closes.
extern std::mutex handle_mutex;

// Allocates and builds a handle. Throws std::bad_alloc.
zlk_session * create_handle();
// Stops the broker (all completions run, then the idle connections close), tears the fields down in
// reverse order, marks the memory dead_magic and frees it.
void destroy_handle(zlk_session * h) noexcept;

// Stores code and text (prefixed with the thread's call trace) as the handle's last error. Never throws:
// a failure leaves the record as far as it got.
void write_last_error(zlk_session & h, zlk_error_t code, std::string_view text) noexcept;

// The record of a call's result with the code's own text: the frame's ending. At the top of the trace
// it costs two atomic stores, so that a caller repeating cheap calls (row setters) doesn't pay for the
// text.
inline void record_result(zlk_session & h, zlk_error_t code) noexcept
{
    const call_trace & trace = this_thread_trace();
    if (trace.depth() == 1 && trace.names().size() == 1)
    {
        h.plain_record_code.store(code, std::memory_order_relaxed);
        h.plain_record_name.store(trace.names()[0].data(), std::memory_order_release);
        return;
    }
    write_last_error(h, code, zlk_error(code));
}

// Longest exported function name a record reads.
inline constexpr std::size_t max_function_name = 256;

// Writes a plain record out as code and text; the caller holds last_error_mutex.
void settle_last_error(zlk_session & h);

} // namespace zlk::api
