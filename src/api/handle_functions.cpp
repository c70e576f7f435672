// Handles and the last-error record, and the buffers handed to the caller: zlk_open, zlk_open_tcp,
// zlk_close, zlk_get_last_error, zlk_release, zlk_copy_alloc_buffer.
#include <sodium.h>
#include <tbb/scalable_allocator.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>

#include <boost/system/system_error.hpp>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/handle.hpp"
#include "log/logger.hpp"
#include "zlk/client.h"

namespace
{

using namespace zlk::api;

constexpr std::chrono::milliseconds logger_flush_period{3000};

// The first handle of the process starts the logger, the last one stops it; handle_mutex keeps a start
// and a stop from crossing.
void count_new_handle()
{
    if (handle_count.fetch_add(1) != 0)
    {
        return;
    }
    try
    {
        std::lock_guard lock{handle_mutex};
        // Lets the scalable allocator back its pools with huge pages where the system has them; nothing
        // depends on it.
        scalable_allocation_mode(TBBMALLOC_USE_HUGE_PAGES, 1);
        zlk::log::start_logger(zlk::log::level::detailed, logger_flush_period);
    }
    catch (...)
    {
        handle_count.fetch_sub(1);
        throw;
    }
}

void count_closed_handle() noexcept
{
    if (handle_count.fetch_sub(1) != 1)
    {
        return;
    }
    std::lock_guard lock{handle_mutex};
    zlk::log::stop_logger();
}

} // namespace

zlk_error_t zlk_open(zlk_handle_t * handle, zlk_api_protocol_t protocol) noexcept
{
    return api_call_no_handle(
        "zlk_open",
        [&]() -> zlk_error_t
        {
            if (!handle)
            {
                throw zlk_e_invalid_argument;
            }
            *handle = nullptr;
            if (protocol != zlk_p_tcp)
            {
                return zlk_e_invalid_protocol;
            }

            // Safe to call again; it only reports failure, and the handle may still work without it.
            if (const int sodium = sodium_init(); sodium < 0)
            {
                zlk::log::log(zlk::log::level::error, "could not initialize sodium API: got return value {}",
                              sodium);
            }

            count_new_handle();
            zlk_session * h = nullptr;
            try
            {
                h = create_handle();
            }
            catch (...)
            {
                count_closed_handle();
                throw;
            }

            if (const boost::system::error_code ec = h->broker.run(); ec)
            {
                destroy_handle(h);
                count_closed_handle();
                throw boost::system::system_error{ec};
            }

            *handle = h;
            zlk::log::log(zlk::log::level::debug, "created new handle: {}", static_cast<const void *>(h));
            return zlk_e_ok;
        });
}

zlk_handle_t zlk_open_tcp(void) noexcept
{
    zlk_handle_t handle = nullptr;
    if (zlk_open(&handle, zlk_p_tcp) != zlk_e_ok)
    {
        return nullptr;
    }
    return handle;
}

zlk_error_t zlk_close(zlk_handle_t handle) noexcept
{
    // Refused before the frame: a dead handle has no record to write into.
    if (!is_valid_handle(handle))
    {
        return zlk_e_invalid_handle;
    }
    return api_call_no_handle("zlk_close",
                              [&]
                              {
                                  destroy_handle(handle);
                                  zlk::log::log(zlk::log::level::debug, "destroyed handle {}",
                                                static_cast<const void *>(handle));
                                  zlk::log::flush();
                                  count_closed_handle();
                              });
}

zlk_error_t zlk_get_last_error(zlk_handle_t handle, zlk_error_t * error, zlk_string_t * message) noexcept
{
    if (!error && !message)
    {
        return zlk_e_ok;
    }
    if (!is_valid_handle(handle))
    {
        return zlk_e_invalid_handle;
    }
    return api_call_no_handle(
        "zlk_get_last_error",
        [&]
        {
            std::unique_lock<std::mutex> lock;
            try
            {
                lock = std::unique_lock{handle->last_error_mutex};
            }
            catch (const std::system_error &)
            {
                static constexpr char mutex_failure[] = "std::mutex exception";
                if (error)
                {
                    *error = zlk_e_system_local;
                }
                if (message)
                {
                    *message = zlk_string_t{mutex_failure, sizeof(mutex_failure) - 1};
                }
                return;
            }
            try
            {
                zlk::api::settle_last_error(*handle);
            }
            catch (const std::bad_alloc &)
            {
                // The record stays as it was.
            }
            if (error)
            {
                *error = handle->last_error;
            }
            if (message)
            {
                const std::string & text = handle->last_error_text;
                *message = text.empty() ? zlk_string_t{nullptr, 0} : zlk_string_t{text.data(), text.size()};
            }
        });
}

void zlk_release(zlk_handle_t handle, const void * buffer) noexcept
{
    if (!buffer || !is_valid_handle(handle))
    {
        return;
    }
    handle->objects_tracker.release(buffer);
}

zlk_error_t zlk_copy_alloc_buffer(zlk_handle_t handle, const void * source, size_t size,
                                  const void ** destination) noexcept
{
    return api_call(handle, "zlk_copy_alloc_buffer",
                    [&]
                    {
                        check_content(source, size, "source buffer");
                        if (!destination)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *destination = nullptr;
                        if (size == 0)
                        {
                            return;
                        }
                        auto copy = std::make_unique_for_overwrite<std::uint8_t[]>(size);
                        std::memcpy(copy.get(), source, size);
                        const void * key = copy.get();
                        handle->objects_tracker.track(key, copy, "copied buffer");
                        *destination = key;
                    });
}
