#include "network/multiplexer.hpp"

#include <pthread.h>

#include <asio/error.hpp>

#include <exception>
#include <system_error>

#include "log/logger.hpp"
#include "network/client.hpp"
#include "network/socket_errors.hpp"

namespace zlk::network
{

multiplexer::multiplexer(std::string_view service_name)
    : name_(std::string(service_name) + " multiplexer")
    , io_(1)
{
}

multiplexer::~multiplexer()
{
    stop();
}

void multiplexer::start()
{
    std::lock_guard lock(mutex_);
    if (thread_)
    {
        return;
    }
    // A stop() leaves the loop stopped once it ran out of work.
    io_.restart();
    guard_.emplace(io_.get_executor());
    accepting_.store(true, std::memory_order_release);
    try
    {
        thread_ = std::make_unique<std::thread>([this] { run_loop(); });
    }
    catch (const std::system_error & e)
    {
        accepting_.store(false, std::memory_order_release);
        guard_.reset();
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

void multiplexer::run_loop() noexcept
{
    // The system keeps 15 characters of a thread's name.
    char thread_name[16] = {};
    name_.copy(thread_name, sizeof thread_name - 1);
    ::pthread_setname_np(::pthread_self(), thread_name);

    for (;;)
    {
        try
        {
            io_.run();
            return;
        }
        catch (const std::system_error & e)
        {
            log::log(log::level::error, "could not run the {} event loop: {}", name_, e.what());
        }
        catch (const std::exception & e)
        {
            // A handler's exception must not end the thread: the loop goes round.
            log::log(log::level::error, "caught exception in {}: {}", name_, e.what());
        }
        catch (...)
        {
            log::log(log::level::error, "unknown exception caught in {}", name_);
        }
    }
}

void multiplexer::stop() noexcept
{
    std::lock_guard lock(mutex_);
    accepting_.store(false, std::memory_order_release);
    if (!thread_)
    {
        return;
    }
    guard_.reset();
    io_.stop();
    thread_->join();
    thread_.reset();

    // The loop's thread is gone: what the requests under way still wait for is aborted here, and their
    // handlers run on this thread.
    abort_tracked();
    io_.restart();
    std::size_t executed = 0;
    for (;;)
    {
        try
        {
            executed += io_.poll();
            break;
        }
        catch (const std::exception & e)
        {
            log::log(log::level::error, "could not execute remaining handlers: {}", e.what());
        }
        catch (...)
        {
            log::log(log::level::error, "could not execute remaining handlers: {}", "unknown exception");
        }
    }
    log::log(log::level::debug, "executed {} remaining handlers", executed);
}

void multiplexer::track(client::client & c) noexcept
{
    std::lock_guard lock(tracked_mutex_);
    if (c.in_flight)
    {
        return;
    }
    c.in_flight = true;
    c.in_flight_prev = nullptr;
    c.in_flight_next = tracked_head_;
    if (tracked_head_)
    {
        tracked_head_->in_flight_prev = &c;
    }
    tracked_head_ = &c;
    ++tracked_count_;
}

void multiplexer::untrack(client::client & c) noexcept
{
    std::lock_guard lock(tracked_mutex_);
    if (!c.in_flight)
    {
        return;
    }
    if (c.in_flight_prev)
    {
        c.in_flight_prev->in_flight_next = c.in_flight_next;
    }
    else
    {
        tracked_head_ = c.in_flight_next;
    }
    if (c.in_flight_next)
    {
        c.in_flight_next->in_flight_prev = c.in_flight_prev;
    }
    c.in_flight = false;
    c.in_flight_prev = nullptr;
    c.in_flight_next = nullptr;
    --tracked_count_;
}

std::size_t multiplexer::tracked() const noexcept
{
    std::lock_guard lock(tracked_mutex_);
    return tracked_count_;
}

void multiplexer::abort_tracked() noexcept
{
    std::lock_guard lock(tracked_mutex_);
    for (client::client * c = tracked_head_; c != nullptr; c = c->in_flight_next)
    {
        c->close();
    }
}

} // namespace zlk::network
