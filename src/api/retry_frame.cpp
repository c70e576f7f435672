#include "api/retry_frame.hpp"

#include <limits>
#include <thread>

namespace zlk::api
{

namespace
{

class steady_clock_sleeper final : public retry_clock
{
public:
    time_point now() noexcept override { return std::chrono::steady_clock::now(); }
    void sleep_for(std::chrono::nanoseconds duration) override { std::this_thread::sleep_for(duration); }
};

} // namespace

retry_clock & steady_retry_clock() noexcept
{
    static steady_clock_sleeper clock;
    return clock;
}

std::chrono::milliseconds draw_retry_delay(std::atomic<std::uint64_t> & state) noexcept
{
    std::uint64_t current = state.load(std::memory_order_relaxed);
    std::uint64_t next;
    do
    {
        next = current;
        do
        {
            next = next * 214013u + 2531011u;
        } while ((next & 255u) > 200u);
    } while (!state.compare_exchange_weak(current, next, std::memory_order_relaxed));
    return std::chrono::milliseconds{50 + static_cast<std::int64_t>(next & 255u)};
}

std::chrono::nanoseconds scaled_delay(std::chrono::milliseconds delay, std::uint64_t k) noexcept
{
    using rep = std::chrono::nanoseconds::rep;
    const rep unit = std::chrono::duration_cast<std::chrono::nanoseconds>(delay).count();
    rep scaled;
    if (k > static_cast<std::uint64_t>(std::numeric_limits<rep>::max()) ||
        __builtin_mul_overflow(unit, static_cast<rep>(k), &scaled))
    {
        return std::chrono::nanoseconds{std::numeric_limits<rep>::max()};
    }
    return std::chrono::nanoseconds{scaled};
}

zlk_error_t wait_for_stable_cluster(zlk_session * h, const cluster_steps & steps, retry_clock & clock)
{
    if (!is_valid_handle(h))
    {
        return zlk_e_invalid_handle;
    }
    if (!is_connected(*h))
    {
        return zlk_e_not_connected;
    }

    const std::chrono::milliseconds limit{h->stabilization_max_wait.load(std::memory_order_relaxed)};
    const auto delay = draw_retry_delay(h->retry_random);
    const auto start = clock.now();

    zlk_error_t result = zlk_e_not_connected;
    for (std::uint64_t k = 1;; ++k)
    {
        // The handle may be closed from another thread while this one sleeps.
        if (h->magic != live_magic)
        {
            return zlk_e_invalid_handle;
        }
        if (is_connected(*h))
        {
            result = steps.reconnect(*h);
            if (ZLK_SUCCESS(result))
            {
                result = steps.walk_ring(*h);
            }
            if (!is_connection_error(result))
            {
                return result;
            }
        }
        else
        {
            result = zlk_e_not_connected;
        }

        clock.sleep_for(scaled_delay(delay, k));
        if (clock.now() - start >= limit)
        {
            return result;
        }
    }
}

} // namespace zlk::api
