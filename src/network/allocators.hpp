// The allocators of the network layer's hot objects: requests' shared state and the pools' storage
// come from the scalable allocator, connections from the cache-aligned one, so that the many threads
// that borrow and return connections don't contend on one heap.
//
// The thread sanitizer can't see the synchronisation inside the scalable allocator's own thread caches
// and reports memory it hands from one thread to another as raced; under it the standard allocator
// takes their place.
#pragma once

#include <memory>

#if defined(__SANITIZE_THREAD__)
#define ZLK_NETWORK_STANDARD_ALLOCATORS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZLK_NETWORK_STANDARD_ALLOCATORS 1
#endif
#endif

#if !defined(ZLK_NETWORK_STANDARD_ALLOCATORS)
#include <oneapi/tbb/cache_aligned_allocator.h>
#include <oneapi/tbb/scalable_allocator.h>
#endif

namespace zlk::network
{

#if defined(ZLK_NETWORK_STANDARD_ALLOCATORS)
template <typename T>
using scalable_allocator = std::allocator<T>;
template <typename T>
using cache_aligned_allocator = std::allocator<T>;
#else
template <typename T>
using scalable_allocator = tbb::scalable_allocator<T>;
template <typename T>
using cache_aligned_allocator = tbb::cache_aligned_allocator<T>;
#endif

} // namespace zlk::network
