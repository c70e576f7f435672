// Timing records of client-side steps, per handle. Off by default; when off, a request path pays one
// atomic read (tracking_enabled).
#pragma once

#include <tbb/concurrent_vector.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

#include "zlk/perf.h"

struct zlk_session;

namespace zlk::api
{

struct perf_measure
{
    std::string label;
    // Nanoseconds since the profile began.
    std::int64_t elapsed;
};

struct perf_profile
{
    std::string name;
    std::vector<perf_measure> measures;
};

// Hands out zeroed memory, so that a flag in an element reads false before the element is built.
template <typename T>
struct zeroed_allocator
{
    using value_type = T;

    zeroed_allocator() noexcept = default;
    template <typename U>
    zeroed_allocator(const zeroed_allocator<U> &) noexcept
    {
    }

    T * allocate(std::size_t n)
    {
        T * p = std::allocator<T>{}.allocate(n);
        std::memset(static_cast<void *>(p), 0, n * sizeof(T));
        return p;
    }
    void deallocate(T * p, std::size_t n) noexcept { std::allocator<T>{}.deallocate(p, n); }

    template <typename U>
    bool operator==(const zeroed_allocator<U> &) const noexcept
    {
        return true;
    }
};

// The list of profiles of one handle. Writers and readers run at the same time: a profile added while a
// copy is taken may or may not be in the copy. Clearing waits for them.
class perf_profiles
{
public:
    void add(perf_profile profile);
    void clear();

    // Keeps clear() away while the caller reads the profiles.
    std::shared_lock<std::shared_mutex> lock_for_reading() const { return std::shared_lock{_clear_mutex}; }

    // Calls f(const perf_profile &) for every complete profile, in order of addition.
    // REQUIRES: a lock from lock_for_reading, held for as long as the profiles are used.
    template <typename F>
    void for_each(F && f) const
    {
        const std::size_t n = _profiles.size();
        for (std::size_t i = 0; i < n; ++i)
        {
            const slot & s = _profiles[i];
            if (s.complete())
            {
                f(s.profile);
            }
        }
    }

private:
    // The vector counts a new element before it is built, so a reader may meet a slot under
    // construction. Slots live in zeroed memory and raise their flag as the last step of construction:
    // a reader skips a slot whose flag is still down.
    struct slot
    {
        explicit slot(perf_profile && p) noexcept
            : profile(std::move(p))
        {
            std::atomic_ref<bool>{ready}.store(true, std::memory_order_release);
        }

        // clear() keeps the memory for the next elements: leave the flag down behind us.
        ~slot() { std::atomic_ref<bool>{ready}.store(false, std::memory_order_relaxed); }

        slot(const slot &) = delete;
        slot & operator=(const slot &) = delete;

        bool complete() const noexcept
        {
            return std::atomic_ref<bool>{const_cast<bool &>(ready)}.load(std::memory_order_acquire);
        }

        perf_profile profile;
        // Not initialised by the constructor on purpose: zero until the store above.
        bool ready;
    };

    tbb::concurrent_vector<slot, zeroed_allocator<slot>> _profiles;
    // concurrent_vector::clear may not run beside anything else.
    mutable std::shared_mutex _clear_mutex;
};

bool tracking_enabled(const zlk_session & handle) noexcept;

// Adds a profile to the handle's list if client tracking is on. Throws std::bad_alloc.
void add_profile(zlk_session & handle, perf_profile profile);

} // namespace zlk::api
