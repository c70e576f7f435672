#include "api/handle.hpp"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <new>

#include "api/call_trace.hpp"

zlk_session::zlk_session()
    : network_settings(std::make_shared<zlk::network::network_settings>())
    , broker(network_settings)
    , replica_random(zlk::api::make_random_seed())
    , retry_random(zlk::api::make_random_seed())
{
    zlk::api::generate_box_key_pair(session_keys);
}

namespace zlk::api
{

std::atomic<std::uint32_t> handle_count{0};
std::mutex handle_mutex;

std::uint64_t make_random_seed() noexcept
{
    const auto pid = static_cast<std::uint64_t>(::getpid());
    const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    return (pid << 32) ^ now;
}

namespace
{

constexpr std::align_val_t handle_alignment{alignof(zlk_session)};

} // namespace

zlk_session * create_handle()
{
    void * memory = ::operator new(sizeof(zlk_session), handle_alignment);
    try
    {
        return new (memory) zlk_session();
    }
    catch (...)
    {
        ::operator delete(memory, handle_alignment);
        throw;
    }
}

void destroy_handle(zlk_session * h) noexcept
{
    // The event loop stops first, so that every pending request has had its completion while the rest
    // of the handle is still whole; then the pools go, closing the idle connections.
    h->broker.stop();
    h->~zlk_session();
    // The memory outlives the object for a moment: mark it, so that a late use of the handle is refused
    // for as long as the allocator leaves the block alone.
    std::memcpy(static_cast<void *>(h), &dead_magic, sizeof(dead_magic));
    ::operator delete(static_cast<void *>(h), handle_alignment);
}

void write_last_error(zlk_session & h, zlk_error_t code, std::string_view text) noexcept
{
    try
    {
        std::lock_guard lock{h.last_error_mutex};
        const std::span<const std::string_view> names = this_thread_trace().names();
        h.plain_record_name.store(nullptr, std::memory_order_relaxed);
        h.last_error = code;
        std::string & stored = h.last_error_text;
        if (text.empty())
        {
            stored.clear();
            return;
        }
        if (names.empty())
        {
            stored.assign(text);
            return;
        }
        // "at zlk_a.zlk_b: text"; clear() keeps the capacity, so the steady state doesn't allocate.
        stored.assign("at ");
        for (std::size_t i = 0; i < names.size(); ++i)
        {
            if (i != 0)
            {
                stored.push_back('.');
            }
            stored.append(names[i]);
        }
        stored.append(": ");
        stored.append(text);
    }
    catch (...)
    {
        // Leave the record as far as it got.
    }
}

void settle_last_error(zlk_session & h)
{
    const char * name = h.plain_record_name.load(std::memory_order_acquire);
    if (!name)
    {
        return;
    }
    const zlk_error_t code = h.plain_record_code.load(std::memory_order_relaxed);
    h.last_error = code;
    std::string & stored = h.last_error_text;
    stored.assign("at ");
    stored.append(name, ::strnlen(name, max_function_name));
    stored.append(": ");
    stored.append(zlk_error(code));
    // A plain record written meanwhile stays, for the next reader.
    h.plain_record_name.compare_exchange_strong(name, nullptr, std::memory_order_relaxed);
}

} // namespace zlk::api
