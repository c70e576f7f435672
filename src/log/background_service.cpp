#include "log/background_service.hpp"

#include <exception>
#include <new>

#include "log/logger.hpp"

namespace zlk::log
{

background_service::background_service(std::string_view name)
    : name_(name)
{
}

boost::system::error_code background_service::run()
{
    log(level::detailed, "requested {} service run", name_);

    std::lock_guard lock(mutex_);
    if (running_)
    {
        return {};
    }

    log(level::debug, "starting up {} service", name_);
    try
    {
        if (const boost::system::error_code ec = do_start())
        {
            log(level::panic, "could not start {} service: {}", name_, ec.message());
            undo_failed_start();
            return ec;
        }
    }
    catch (const std::bad_alloc &)
    {
        log(level::panic, "cannot start {} service: not enough memory", name_);
        undo_failed_start();
        throw;
    }
    catch (const std::exception & e)
    {
        log(level::panic, "cannot start {} service, caught exception: {}", name_, e.what());
        undo_failed_start();
        throw;
    }
    catch (...)
    {
        log(level::panic, "cannot start {} service, caught exception: {}", name_, "unknown exception");
        undo_failed_start();
        throw;
    }

    running_ = true;
    log(level::info, "{} service started", name_);
    return {};
}

void background_service::stop() noexcept
{
    log(level::detailed, "requested {} service stop", name_);

    std::lock_guard lock(mutex_);
    if (!running_)
    {
        log(level::detailed, "{} service already stopped", name_);
        return;
    }

    log(level::debug, "stopping {} service", name_);
    // Whatever do_stop() does, the service counts as stopped: its owner is going away, and a later
    // run() starts it afresh.
    running_ = false;
    try
    {
        do_stop();
    }
    catch (const std::exception & e)
    {
        log(level::error, "cannot properly stop {} service, caught exception: {}", name_, e.what());
        return;
    }
    catch (...)
    {
        log(level::error, "cannot properly stop {} service, caught exception: {}", name_,
            "unknown exception");
        return;
    }
    log(level::info, "{} service stopped", name_);
}

bool background_service::running() const noexcept
{
    std::lock_guard lock(mutex_);
    return running_;
}

void background_service::undo_failed_start() noexcept
{
    try
    {
        do_stop();
    }
    catch (const std::exception & e)
    {
        log(level::error, "cannot properly stop {} service, caught exception: {}", name_, e.what());
    }
    catch (...)
    {
        log(level::error, "cannot properly stop {} service, caught exception: {}", name_,
            "unknown exception");
    }
}

} // namespace zlk::log
