// A named piece of work that runs in the background of a handle or of the process (the logger's
// task, a handle's client broker): run() and stop() log every step under the service's name and
// leave the starting and stopping themselves to the subclass.
//
// run() and stop() may be called from any thread, any number of times: they are serialised by the
// service's mutex and only act when the running flag says they have something to do.
#pragma once

#include <boost/system/error_code.hpp>

#include <mutex>
#include <string>
#include <string_view>

namespace zlk::log
{

class background_service
{
public:
    explicit background_service(std::string_view name);
    // The base can't call do_stop() once the subclass is gone: a subclass that may be destroyed
    // while running calls stop() in its own destructor.
    virtual ~background_service() = default;

    background_service(const background_service &) = delete;
    background_service & operator=(const background_service &) = delete;

    // Starts the service unless it is running. An error returned by do_start() is logged and
    // returned, after do_stop() has undone whatever was started. An exception from do_start() is
    // logged and rethrown the same way, so that the call frame's catch clauses report it
    // (std::bad_alloc becomes the out-of-memory status there).
    boost::system::error_code run();

    // Stops the service if it is running. Never throws: a failing do_stop() is logged and the
    // service counts as stopped all the same, so that closing a handle always completes.
    void stop() noexcept;

    bool running() const noexcept;
    const std::string & name() const noexcept { return name_; }

protected:
    // Both are called under the service's mutex.
    virtual boost::system::error_code do_start() = 0;
    virtual void do_stop() = 0;

private:
    void undo_failed_start() noexcept;

    const std::string name_;
    mutable std::mutex mutex_;
    bool running_ = false;
};

} // namespace zlk::log
