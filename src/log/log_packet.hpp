// The record of one log message, the fixed pool it comes from and the queues it travels on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "zlk/types.h"

namespace zlk::log
{

inline constexpr std::size_t max_message_size = 512;

// One message, as made on the calling thread and read by the sinks. Text beyond max_message_size is
// cut; the text is not zero-terminated.
struct log_packet
{
    zlk_timespec_t time;
    std::uint32_t level;
    std::uint32_t thread;
    std::uint32_t process;
    std::uint64_t length;
    char text[max_message_size];
};

static_assert(sizeof(log_packet) == 552, "a packet is one fixed-size block of the pool");

// All packets are allocated when the pool is made; acquire and release never allocate. An exhausted
// pool is not grown: the caller drops the message. The pool is sized so that this takes a burst of
// thousands of messages between two flushes of the logger's task.
//
// The free packets form a lock-free stack of indices. A thread preempted in the middle of acquire
// or release holds nobody up, which matters here: the flushing thread releases packets while every
// other thread acquires them. The head carries a counter of changes beside the top index, so that
// a pop whose top was taken and given back in between fails its compare-and-swap instead of
// installing a stale successor.
class packet_pool
{
public:
    // 4096 packets: 2.2 MiB for the whole process.
    static constexpr std::size_t default_capacity = 4096;

    explicit packet_pool(std::size_t capacity = default_capacity)
        : packets_(std::make_unique<log_packet[]>(capacity))
        , next_(std::make_unique<std::atomic<std::uint32_t>[]>(capacity))
        , capacity_(capacity)
    {
        // Every packet is free, linked in order: index i + 1 names packet i, 0 ends the stack.
        for (std::size_t i = 0; i < capacity; ++i)
        {
            next_[i].store(i + 1 < capacity ? static_cast<std::uint32_t>(i + 2) : 0,
                           std::memory_order_relaxed);
        }
        head_.store(capacity > 0 ? 1 : 0, std::memory_order_release);
    }

    std::size_t capacity() const noexcept { return capacity_; }

    // Null when every packet is in use.
    log_packet * acquire() noexcept
    {
        std::uint64_t head = head_.load(std::memory_order_acquire);
        for (;;)
        {
            const std::uint32_t top = top_of(head);
            if (top == 0)
            {
                return nullptr;
            }
            const std::uint32_t below = next_[top - 1].load(std::memory_order_relaxed);
            if (head_.compare_exchange_weak(head, changed(head, below), std::memory_order_acquire,
                                            std::memory_order_acquire))
            {
                return &packets_[top - 1];
            }
        }
    }

    // REQUIRES: p came from this pool's acquire and is released once.
    void release(log_packet * p) noexcept
    {
        const std::uint32_t top = name_of(p);
        std::uint64_t head = head_.load(std::memory_order_relaxed);
        for (;;)
        {
            next_[top - 1].store(top_of(head), std::memory_order_relaxed);
            if (head_.compare_exchange_weak(head, changed(head, top), std::memory_order_release,
                                            std::memory_order_relaxed))
            {
                return;
            }
        }
    }

private:
    friend class packet_queue;

    // Index i + 1 names packet i; 0 names none.
    std::uint32_t name_of(const log_packet * p) const noexcept
    {
        return static_cast<std::uint32_t>(p - packets_.get()) + 1;
    }
    log_packet * named(std::uint32_t name) const noexcept { return &packets_[name - 1]; }
    // A packet is free, queued or in the hands of one thread, never two of these at once: the free
    // stack and the queues share one link per packet.
    std::atomic<std::uint32_t> & link(std::uint32_t name) const noexcept { return next_[name - 1]; }

    static std::uint32_t top_of(std::uint64_t head) noexcept { return static_cast<std::uint32_t>(head); }
    static std::uint64_t changed(std::uint64_t head, std::uint32_t top) noexcept
    {
        return (((head >> 32) + 1) << 32) | top;
    }

    std::unique_ptr<log_packet[]> packets_;
    std::unique_ptr<std::atomic<std::uint32_t>[]> next_;
    std::size_t capacity_;
    std::atomic<std::uint64_t> head_{0};
};

// Packets on their way from the threads that log to the one that flushes: any number of producers,
// one consumer at a time (the logger's flush runs under its mutex).
//
// A push is one compare-and-swap on the newest packet; drain takes the whole chain with one exchange
// and walks it oldest first. No thread waits for another, and there is no capacity beyond the pool.
class packet_queue
{
public:
    explicit packet_queue(packet_pool & pool) noexcept
        : pool_(pool)
    {
    }

    packet_queue(const packet_queue &) = delete;
    packet_queue & operator=(const packet_queue &) = delete;

    // REQUIRES: p came from the pool's acquire; the queue owns it from here on.
    void push(log_packet * p) noexcept
    {
        const std::uint32_t name = pool_.name_of(p);
        std::uint32_t newest = newest_.load(std::memory_order_relaxed);
        do
        {
            pool_.link(name).store(newest, std::memory_order_relaxed);
        } while (!newest_.compare_exchange_weak(newest, name, std::memory_order_release,
                                                std::memory_order_relaxed));
    }

    // Hands every packet pushed so far to deliver, oldest first, and gives each back to the pool
    // afterwards. If deliver throws, the packet at hand goes back to the pool, the ones after it are
    // queued again for the next drain, and the exception goes on.
    template <typename Deliver>
    void drain(Deliver && deliver)
    {
        // The chain runs newest to oldest: turn it round.
        std::uint32_t oldest = 0;
        for (std::uint32_t name = newest_.exchange(0, std::memory_order_acquire); name != 0;)
        {
            const std::uint32_t older = pool_.link(name).load(std::memory_order_relaxed);
            pool_.link(name).store(oldest, std::memory_order_relaxed);
            oldest = name;
            name = older;
        }

        while (oldest != 0)
        {
            log_packet * p = pool_.named(oldest);
            const std::uint32_t next = pool_.link(oldest).load(std::memory_order_relaxed);
            try
            {
                deliver(static_cast<const log_packet &>(*p));
            }
            catch (...)
            {
                pool_.release(p);
                for (std::uint32_t rest = next; rest != 0;)
                {
                    const std::uint32_t after = pool_.link(rest).load(std::memory_order_relaxed);
                    push(pool_.named(rest));
                    rest = after;
                }
                throw;
            }
            pool_.release(p);
            oldest = next;
        }
    }

private:
    packet_pool & pool_;
    std::atomic<std::uint32_t> newest_{0};
};

} // namespace zlk::log
