// The per-handle table of everything the library has handed to the caller: from the address the caller
// holds to the objects that must die when that address comes back through zlk_release. The caller passes
// no size or type back, so this table is the only record.
//
// A concurrent hash map with per-bucket locks: a release of one key doesn't block work on the others.
// Whatever is still tracked when the tracker dies is reported (level 3) and destroyed.
#pragma once

#include <boost/container/small_vector.hpp>
#include <tbb/concurrent_hash_map.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <variant>
#include <vector>

namespace zlk::api
{

class objects_tracker
{
public:
    using deleter_type = void (*)(void *) noexcept;

    // What a tracked object may hold in place, so that tracking it costs no allocation of its own: a
    // share of a received buffer (a view handed out), or a byte vector (decompressed content).
    using held_in_place =
        std::variant<std::monostate, std::shared_ptr<const void>, std::vector<std::uint8_t>>;

    struct tracked_object
    {
        // Destroyed by deleter when not null; what is held in place goes with the object itself.
        void * object;
        deleter_type deleter;
        // A constant text, e.g. "copied buffer"; names the object in the destruction report.
        const char * label;
        held_in_place held;
    };

    objects_tracker() = default;
    // Reports what the caller never released, then destroys it. A deleter that throws ends the process.
    ~objects_tracker();

    objects_tracker(const objects_tracker &) = delete;
    objects_tracker & operator=(const objects_tracker &) = delete;

    // Adds object under key, after any objects already there. Ownership moves in only once the entry is
    // stored: if this throws (std::bad_alloc), the caller still owns the object.
    template <typename T>
    void track(const void * key, std::unique_ptr<T> & object, const char * label)
    {
        track_raw(key, {object.get(), &delete_one<T>, label, {}});
        object.release();
    }

    template <typename T>
    void track(const void * key, std::unique_ptr<T[]> & object, const char * label)
    {
        track_raw(key, {object.get(), &delete_array<T>, label, {}});
        object.release();
    }

    // Keeps one more owner of a shared object (a received buffer viewed by the caller) under key.
    template <typename T>
    void track(const void * key, const std::shared_ptr<T> & object, const char * label)
    {
        track_raw(key, {nullptr, nullptr, label, std::shared_ptr<const void>(object)});
    }

    // Takes the bytes over (moved in once the entry is stored; left with the caller if this throws).
    // The key is usually their address, which the move keeps.
    void track(const void * key, std::vector<std::uint8_t> & bytes, const char * label);

    // Destroys everything under key. A null or unknown key does nothing.
    void release(const void * key) noexcept;

    // Number of keys, and of objects over all keys.
    std::size_t key_count() const noexcept;
    std::size_t object_count() const noexcept;

    // Largest number of objects the destruction report names one by one.
    static constexpr std::size_t report_budget = 100;

private:
    template <typename T>
    static void delete_one(void * p) noexcept
    {
        delete static_cast<T *>(p);
    }

    template <typename T>
    static void delete_array(void * p) noexcept
    {
        delete[] static_cast<T *>(p);
    }

    // Nearly every key holds one object: keep it inline.
    using object_list = boost::container::small_vector<tracked_object, 1>;
    using table_type = tbb::concurrent_hash_map<const void *, object_list>;

    void track_raw(const void * key, tracked_object && object);
    void report_leftovers() const noexcept;

    table_type _table;
};

} // namespace zlk::api
