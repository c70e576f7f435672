// A value that every request reads and that changes a few times in a node's life: the membership, the
// faults to show.
//
// A shared_ptr under a mutex would make each read write two cache lines that all I/O threads share (the
// mutex and the value's reference count), and the threads would pass them back and forth on every
// request. Here a thread keeps its own reference to the current value, with a reference count of its
// own, and only reads a version number that moves when the value is replaced.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace zlk::node
{

namespace detail
{

// A thread's reference to the value of one read_mostly, as of `version`.
struct local_reference
{
    const void * owner = nullptr;
    std::uint64_t version = 0;
    std::shared_ptr<const void> value;
};

// The calling thread's reference for `owner`: its own when it has one, else a slot to refill (owner
// left as it was, so the caller sees the miss).
local_reference & local_reference_for(const void * owner) noexcept;

// Versions are unique in the process, so a slot never mistakes a new read_mostly for an old one that
// lived at the same address.
std::uint64_t next_version() noexcept;

} // namespace detail

template <typename T>
class read_mostly
{
public:
    explicit read_mostly(std::shared_ptr<const T> value)
        : _value(std::move(value))
        , _version(detail::next_version())
    {
    }

    read_mostly(const read_mostly &) = delete;
    read_mostly & operator=(const read_mostly &) = delete;

    // The current value; it stays valid while held, whatever replaces it meanwhile.
    std::shared_ptr<const T> get() const
    {
        detail::local_reference & local = detail::local_reference_for(this);
        if (local.owner != this || local.version != _version.load(std::memory_order_acquire))
        {
            refresh(local);
        }
        return std::static_pointer_cast<const T>(local.value);
    }

    void set(std::shared_ptr<const T> value)
    {
        std::lock_guard lock(_mutex);
        _value = std::move(value);
        _version.store(detail::next_version(), std::memory_order_release);
    }

private:
    void refresh(detail::local_reference & local) const
    {
        std::shared_ptr<const T> current;
        std::uint64_t version = 0;
        {
            std::lock_guard lock(_mutex);
            current = _value;
            version = _version.load(std::memory_order_relaxed);
        }
        // The thread's own control block: copies handed out on this thread count there.
        auto holder = std::make_shared<const std::shared_ptr<const T>>(std::move(current));
        const T * raw = holder->get();
        local.value = std::shared_ptr<const void>(std::move(holder), raw);
        local.owner = this;
        local.version = version;
    }

    mutable std::mutex _mutex;
    std::shared_ptr<const T> _value;
    std::atomic<std::uint64_t> _version;
};

} // namespace zlk::node
