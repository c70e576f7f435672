// The two loops around every request that goes to the cluster:
//
// - conflict retry: a body that ends in zlk_e_clock_skew or zlk_e_conflict runs again after k * d
//   (k = 1, 2, ...; d drawn from the handle's retry generator, 50 to 250 ms) for as long as
//   transaction_max_wait allows;
// - connection retry: a body that ends with a connection failure (origin 0xD) waits for a stable
//   cluster and runs again, three passes at most, when stabilization_max_wait is not 0.
//
// The body is the whole request: it rebuilds its arguments, checks included, on every attempt. The
// loops run inside the call frame, which records the final result as the last error.
// The clock and the sleep are injectable so that tests run the loops on a fake clock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

#include "api/handle.hpp"
#include "zlk/error.h"

namespace zlk::api
{

class retry_clock
{
public:
    using time_point = std::chrono::steady_clock::time_point;

    virtual ~retry_clock() = default;
    virtual time_point now() noexcept = 0;
    virtual void sleep_for(std::chrono::nanoseconds duration) = 0;
};

// The steady clock and this_thread::sleep_for.
retry_clock & steady_retry_clock() noexcept;

// Steps the generator s = s * 214013 + 2531011 until (s & 255) <= 200, stores it, and gives
// 50 + (s & 255) milliseconds.
std::chrono::milliseconds draw_retry_delay(std::atomic<std::uint64_t> & state) noexcept;

// k * delay, or the largest nanosecond count when that doesn't fit.
std::chrono::nanoseconds scaled_delay(std::chrono::milliseconds delay, std::uint64_t k) noexcept;

inline bool is_connection_error(zlk_error_t e) noexcept
{
    return ZLK_ERROR_ORIGIN(e) == zlk_eo_connection;
}
inline bool is_conflict_error(zlk_error_t e) noexcept
{
    return e == zlk_e_clock_skew || e == zlk_e_conflict;
}

// How the handle gets back to a stable cluster: by default the ring's own reconnect and walk; tests
// inject their own.
struct cluster_steps
{
    // Reconnects to the stored addresses and reads the cluster's settings.
    std::function<zlk_error_t(zlk_session &)> reconnect;
    // Walks the ring; its status is the status of the wait.
    std::function<zlk_error_t(zlk_session &)> walk_ring;
};

// The ring's own reconnect and walk. Defined with the cluster functions (cluster_functions.cpp), which
// stand above this frame: the frame names the steps it needs without including them.
const cluster_steps & default_cluster_steps() noexcept;

// Reconnects and walks the ring until the result is no longer a connection failure or
// stabilization_max_wait has passed, sleeping k * d between attempts.
zlk_error_t wait_for_stable_cluster(zlk_session * h, const cluster_steps & steps, retry_clock & clock);

template <typename Body>
zlk_error_t run_with_retries(zlk_session & h, Body && body, const cluster_steps & steps, retry_clock & clock)
{
    zlk_error_t result = body();

    if (is_conflict_error(result))
    {
        const std::chrono::milliseconds max_wait{h.transaction_max_wait.load(std::memory_order_relaxed)};
        if (max_wait.count() != 0)
        {
            const auto delay = draw_retry_delay(h.retry_random);
            const auto start = clock.now();
            for (std::uint64_t k = 1; clock.now() - start < max_wait && is_conflict_error(result); ++k)
            {
                clock.sleep_for(scaled_delay(delay, k));
                result = body();
            }
        }
    }

    if (is_connection_error(result) && h.stabilization_max_wait.load(std::memory_order_relaxed) != 0)
    {
        for (int pass = 0; pass < 3 && is_connection_error(result); ++pass)
        {
            const zlk_error_t stable = wait_for_stable_cluster(&h, steps, clock);
            result = ZLK_SUCCESS(stable) ? body() : stable;
        }
    }

    return result;
}

template <typename Body>
zlk_error_t run_with_retries(zlk_session & h, Body && body)
{
    return run_with_retries(h, std::forward<Body>(body), default_cluster_steps(), steady_retry_clock());
}

} // namespace zlk::api
