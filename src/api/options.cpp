// zlk_option_*: the settings of a handle. Each runs in the call frame, never under the retry loops.
// Setters store by atomic exchange; every use reads the value afresh, so a change applies to the next
// request while others are in flight.
#include <cstdint>
#include <utility>

#include "api/call_frame.hpp"
#include "api/handle.hpp"
#include "zlk/options.h"

namespace
{

using zlk::api::api_call;

constexpr std::int64_t min_timeout = 1000;
constexpr std::size_t min_client_in_buf_size = 1024;
constexpr std::uint64_t min_max_cardinality = 100;

// stabilization_max_wait and transaction_max_wait: 0 turns their retry off; otherwise they must leave
// room for at least one request.
zlk_error_t check_max_wait(const zlk_session & h, int value)
{
    if (value == 0)
    {
        return zlk_e_ok;
    }
    if (value < min_timeout ||
        std::cmp_less(value, h.network_settings->timeout_ms.load(std::memory_order_relaxed)))
    {
        return zlk_e_invalid_argument;
    }
    return zlk_e_ok;
}

template <typename T>
void check_out(T * out)
{
    if (!out)
    {
        throw zlk_e_invalid_argument;
    }
}

} // namespace

zlk_error_t zlk_option_set_timeout(zlk_handle_t handle, int timeout_ms) noexcept
{
    return api_call(handle, "zlk_option_set_timeout",
                    [&]() -> zlk_error_t
                    {
                        if (timeout_ms < min_timeout)
                        {
                            return zlk_e_invalid_argument;
                        }
                        // Requests time out in whole seconds.
                        handle->network_settings->timeout_ms.exchange(
                            static_cast<std::uint64_t>((timeout_ms / 1000) * 1000));
                        return zlk_e_ok;
                    });
}

zlk_error_t zlk_option_get_timeout(zlk_handle_t handle, int * timeout_ms) noexcept
{
    return api_call(handle, "zlk_option_get_timeout",
                    [&]
                    {
                        check_out(timeout_ms);
                        *timeout_ms = static_cast<int>(
                            handle->network_settings->timeout_ms.load(std::memory_order_relaxed));
                    });
}

zlk_error_t zlk_option_set_client_max_in_buf_size(zlk_handle_t handle, size_t max_size) noexcept
{
    return api_call(handle, "zlk_option_set_client_max_in_buf_size",
                    [&]() -> zlk_error_t
                    {
                        if (max_size < min_client_in_buf_size)
                        {
                            return zlk_e_invalid_argument;
                        }
                        handle->network_settings->max_input_size.store(max_size, std::memory_order_relaxed);
                        return zlk_e_ok;
                    });
}

zlk_error_t zlk_option_get_client_max_in_buf_size(zlk_handle_t handle, size_t * max_size) noexcept
{
    return api_call(handle, "zlk_option_get_client_max_in_buf_size",
                    [&]
                    {
                        check_out(max_size);
                        *max_size = handle->network_settings->max_input_size.load(std::memory_order_relaxed);
                    });
}

zlk_error_t zlk_option_get_cluster_max_in_buf_size(zlk_handle_t handle, size_t * max_size) noexcept
{
    return api_call(handle, "zlk_option_get_cluster_max_in_buf_size",
                    [&]
                    {
                        check_out(max_size);
                        *max_size = handle->cluster_max_in_buf_size.load(std::memory_order_relaxed);
                    });
}

zlk_error_t zlk_option_set_stabilization_max_wait(zlk_handle_t handle, int max_wait_ms) noexcept
{
    return api_call(handle, "zlk_option_set_stabilization_max_wait",
                    [&]() -> zlk_error_t
                    {
                        const zlk_error_t checked = check_max_wait(*handle, max_wait_ms);
                        if (checked == zlk_e_ok)
                        {
                            handle->stabilization_max_wait.exchange(max_wait_ms);
                        }
                        return checked;
                    });
}

zlk_error_t zlk_option_get_stabilization_max_wait(zlk_handle_t handle, int * max_wait_ms) noexcept
{
    return api_call(handle, "zlk_option_get_stabilization_max_wait",
                    [&]
                    {
                        check_out(max_wait_ms);
                        *max_wait_ms =
                            static_cast<int>(handle->stabilization_max_wait.load(std::memory_order_relaxed));
                    });
}

zlk_error_t zlk_option_set_transaction_max_wait(zlk_handle_t handle, int max_wait_ms) noexcept
{
    return api_call(handle, "zlk_option_set_transaction_max_wait",
                    [&]() -> zlk_error_t
                    {
                        const zlk_error_t checked = check_max_wait(*handle, max_wait_ms);
                        if (checked == zlk_e_ok)
                        {
                            handle->transaction_max_wait.exchange(max_wait_ms);
                        }
                        return checked;
                    });
}

zlk_error_t zlk_option_get_transaction_max_wait(zlk_handle_t handle, int * max_wait_ms) noexcept
{
    return api_call(handle, "zlk_option_get_transaction_max_wait",
                    [&]
                    {
                        check_out(max_wait_ms);
                        *max_wait_ms =
                            static_cast<int>(handle->transaction_max_wait.load(std::memory_order_relaxed));
                    });
}

zlk_error_t zlk_option_set_ts_batch_push_async_timeout(zlk_handle_t handle, int timeout_ms) noexcept
{
    return api_call(handle, "zlk_option_set_ts_batch_push_async_timeout",
                    [&]() -> zlk_error_t
                    {
                        if (timeout_ms < 0)
                        {
                            return zlk_e_invalid_argument;
                        }
                        handle->batch_push_async_timeout.exchange(timeout_ms);
                        return zlk_e_ok;
                    });
}

zlk_error_t zlk_option_get_ts_batch_push_async_timeout(zlk_handle_t handle, int * timeout_ms) noexcept
{
    return api_call(handle, "zlk_option_get_ts_batch_push_async_timeout",
                    [&]
                    {
                        check_out(timeout_ms);
                        *timeout_ms = static_cast<int>(
                            handle->batch_push_async_timeout.load(std::memory_order_relaxed));
                    });
}

zlk_error_t zlk_option_set_max_cardinality(zlk_handle_t handle, uint64_t max_cardinality) noexcept
{
    return api_call(handle, "zlk_option_set_max_cardinality",
                    [&]() -> zlk_error_t
                    {
                        if (max_cardinality < min_max_cardinality)
                        {
                            return zlk_e_invalid_argument;
                        }
                        handle->max_cardinality.exchange(max_cardinality);
                        return zlk_e_ok;
                    });
}

zlk_error_t zlk_option_set_compression(zlk_handle_t handle, zlk_compression_t level) noexcept
{
    return api_call(handle, "zlk_option_set_compression",
                    [&]() -> zlk_error_t
                    {
                        // Negative values pass: the compressor treats any non-zero level as "on".
                        if (level == zlk_comp_best)
                        {
                            return zlk_e_not_implemented;
                        }
                        if (level > zlk_comp_best)
                        {
                            return zlk_e_invalid_argument;
                        }
                        handle->compression.exchange(level);
                        return zlk_e_ok;
                    });
}
