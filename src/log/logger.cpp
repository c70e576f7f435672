#include "log/logger.hpp"

#include <oneapi/tbb/concurrent_hash_map.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <boost/system/system_error.hpp>

#include "log/background_service.hpp"
#include "log/log_packet.hpp"
#include "log/sinks.hpp"

namespace zlk::log
{

namespace detail
{
std::atomic<std::uint8_t> minimum_level{logger_off};
} // namespace detail

namespace
{

constexpr std::size_t queue_count = 8;
// Every so many messages the task is woken, so that a burst is flushed before it exhausts the pool
// instead of at the end of the period.
constexpr std::uint64_t wake_interval = packet_pool::default_capacity / 4;

std::atomic<std::uint64_t> message_counter{0};
std::atomic<std::uint64_t> dropped{0};
std::atomic<sink_id> next_sink_id{1};

// Set while this thread walks the sinks, so that a sink that flushes or changes the sinks doesn't
// deadlock on the logger's mutex (logging from a sink needs no lock and is fine).
thread_local bool flushing = false;

std::uint32_t current_thread_id() noexcept
{
    thread_local std::uint32_t id = 0;
    if (id == 0)
    {
        id = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    }
    return id;
}

class async_logger_task;

class async_logger
{
public:
    explicit async_logger(level minimum)
        : minimum_(static_cast<std::uint8_t>(minimum))
        , queues_{packet_queue(pool_), packet_queue(pool_), packet_queue(pool_), packet_queue(pool_),
                  packet_queue(pool_), packet_queue(pool_), packet_queue(pool_), packet_queue(pool_)}
        , process_(static_cast<std::uint32_t>(::getpid()))
    {
    }

    std::uint8_t minimum() const noexcept { return minimum_; }

    // REQUIRES: called before the logger is published.
    void attach(async_logger_task * task) noexcept { task_ = task; }

    void write(level l, fmt::string_view format, fmt::format_args args) noexcept;

    // Throws what a sink throws; the packet at hand goes back to the pool, the rest stay queued.
    void flush();

    std::optional<sink_id> add_sink(std::unique_ptr<sink> s)
    {
        if (flushing)
        {
            return std::nullopt;
        }
        const sink_id id = next_sink_id.fetch_add(1, std::memory_order_relaxed);
        std::lock_guard lock(mutex_);
        sinks_.emplace(id, std::move(s));
        return id;
    }

    bool remove_sink(sink_id id) noexcept
    {
        if (flushing)
        {
            return false;
        }
        std::lock_guard lock(mutex_);
        return sinks_.erase(id);
    }

private:
    // The sinks are only walked, added to and removed from under mutex_: the table's traversal is
    // not safe against concurrent erasure.
    using sink_table = tbb::concurrent_hash_map<sink_id, std::unique_ptr<sink>>;

    const std::uint8_t minimum_;
    sink_table sinks_;
    packet_pool pool_;
    std::array<packet_queue, queue_count> queues_;
    const std::uint32_t process_;
    async_logger_task * task_ = nullptr;
    std::mutex mutex_;
};

// Flushes the logger on a period, or sooner when woken, on its own thread.
class async_logger_task final : public background_service
{
public:
    async_logger_task(async_logger & logger, std::chrono::milliseconds period)
        : background_service("async logger task")
        , logger_(logger)
        , period_(period)
    {
    }

    ~async_logger_task() override { stop(); }

    // Callable from any thread, without a lock: a wake-up that comes just before the thread starts
    // waiting is seen at the end of that wait at the latest.
    void wake() noexcept
    {
        wake_requested_.store(true, std::memory_order_release);
        wake_.notify_one();
    }

protected:
    boost::system::error_code do_start() override
    {
        {
            std::lock_guard lock(mutex_);
            stop_requested_ = false;
        }
        thread_ = std::thread([this] { loop(); });
        return {};
    }

    void do_stop() override
    {
        {
            std::lock_guard lock(mutex_);
            stop_requested_ = true;
        }
        wake_.notify_one();
        if (thread_.joinable())
        {
            thread_.join();
        }
    }

private:
    void loop() noexcept
    {
        std::unique_lock lock(mutex_);
        for (;;)
        {
            if (period_.count() >= 1)
            {
                wake_.wait_for(
                    lock, period_,
                    [this] { return stop_requested_ || wake_requested_.load(std::memory_order_acquire); });
            }
            if (stop_requested_)
            {
                break;
            }
            wake_requested_.store(false, std::memory_order_relaxed);

            lock.unlock();
            try
            {
                logger_.flush();
            }
            catch (const std::exception & e)
            {
                log(level::error, "exception caught in {}: {}", name(), e.what());
            }
            catch (...)
            {
                log(level::error, "unknown exception caught in {}", name());
            }
            if (period_.count() < 1)
            {
                std::this_thread::yield();
            }
            lock.lock();
        }
        lock.unlock();
        log(level::debug, "exiting {} thread", name());
    }

    async_logger & logger_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_requested_ = false;
    std::atomic<bool> wake_requested_{false};
    std::thread thread_;
};

void async_logger::write(level l, fmt::string_view format, fmt::format_args args) noexcept
{
    if (static_cast<std::uint8_t>(l) < minimum_)
    {
        return;
    }
    log_packet * packet = pool_.acquire();
    if (!packet)
    {
        dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }

    try
    {
        // Straight into the packet: format_to_n on a pointer has no intermediate buffer.
        const auto result = fmt::vformat_to_n(packet->text, max_message_size, format, args);
        packet->length = std::min(result.size, max_message_size);
    }
    catch (...)
    {
        pool_.release(packet);
        dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (packet->length == 0)
    {
        pool_.release(packet);
        return;
    }

    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    packet->time = {static_cast<std::int64_t>(now.tv_sec), static_cast<std::int64_t>(now.tv_nsec)};
    packet->level = static_cast<std::uint32_t>(l);
    packet->thread = current_thread_id();
    packet->process = process_;

    const std::uint64_t n = message_counter.fetch_add(1, std::memory_order_relaxed);
    queues_[(n * 3) % queue_count].push(packet);
    if (n % wake_interval == wake_interval - 1 && task_)
    {
        task_->wake();
    }
}

void async_logger::flush()
{
    if (flushing)
    {
        return;
    }
    std::lock_guard lock(mutex_);
    flushing = true;
    struct reset_flushing
    {
        ~reset_flushing() { flushing = false; }
    } reset;

    // gmtime_r takes a process-wide lock: convert once per second of packets, not once per packet.
    std::int64_t converted = -1;
    civil_time date{};
    for (auto & queue : queues_)
    {
        queue.drain(
            [&](const log_packet & packet)
            {
                if (packet.time.tv_sec != converted)
                {
                    to_civil_time(packet.time, date);
                    converted = packet.time.tv_sec;
                }
                for (auto & entry : sinks_)
                {
                    entry.second->write(packet, date);
                }
            });
    }
    for (auto & entry : sinks_)
    {
        entry.second->flush();
    }
}

// While no stop_logger is waiting to free the logger, a reader that found it may use it; the last
// stop waits for the count of readers to fall to zero after clearing the pointer.
std::atomic<async_logger *> logger{nullptr};
std::atomic<std::uint32_t> readers{0};

class logger_ref
{
public:
    // Both sides use sequentially consistent operations: either the stop sees this reader in the
    // count and waits for it, or this reader sees the pointer already cleared.
    logger_ref() noexcept
    {
        readers.fetch_add(1, std::memory_order_seq_cst);
        logger_ = logger.load(std::memory_order_seq_cst);
    }
    ~logger_ref() { readers.fetch_sub(1, std::memory_order_release); }

    logger_ref(const logger_ref &) = delete;
    logger_ref & operator=(const logger_ref &) = delete;

    async_logger * operator->() const noexcept { return logger_; }
    explicit operator bool() const noexcept { return logger_ != nullptr; }

private:
    async_logger * logger_;
};

// Start and stop are serialised; the instance, the task and the count are only touched under it.
std::mutex lifecycle_mutex;
std::unique_ptr<async_logger> instance;
std::unique_ptr<async_logger_task> task;
unsigned start_count = 0;

void publish(async_logger * l) noexcept
{
    logger.store(l, std::memory_order_seq_cst);
    detail::minimum_level.store(l->minimum(), std::memory_order_relaxed);
}

// After it returns, no log call uses the logger any more.
void retire() noexcept
{
    detail::minimum_level.store(detail::logger_off, std::memory_order_relaxed);
    logger.store(nullptr, std::memory_order_seq_cst);
    while (readers.load(std::memory_order_seq_cst) != 0)
    {
        std::this_thread::yield();
    }
}

// The task's last lines still find the logger; only then does it go.
void shut_down() noexcept
{
    task->stop();
    retire();
    task.reset();
    try
    {
        instance->flush();
    }
    catch (...)
    {
        // Nobody is left to tell.
    }
    instance.reset();
}

// A process that exits with a handle open still stops the thread and flushes, before the logger's
// memory goes.
struct shut_down_at_exit
{
    ~shut_down_at_exit()
    {
        if (instance)
        {
            shut_down();
        }
    }
} at_exit;

} // namespace

void write(level l, fmt::string_view format, fmt::format_args args) noexcept
{
    const logger_ref l_ref;
    if (l_ref)
    {
        l_ref->write(l, format, args);
    }
}

void start_logger(level minimum, std::chrono::milliseconds period)
{
    std::lock_guard lock(lifecycle_mutex);
    if (instance)
    {
        ++start_count;
        return;
    }

    auto new_logger = std::make_unique<async_logger>(minimum);
    auto new_task = std::make_unique<async_logger_task>(*new_logger, period);
    new_logger->attach(new_task.get());
    // Published first, so that the task's start-up is logged.
    publish(new_logger.get());
    try
    {
        if (const boost::system::error_code ec = new_task->run())
        {
            throw boost::system::system_error(ec, "cannot start the logger");
        }
    }
    catch (...)
    {
        retire();
        throw;
    }

    instance = std::move(new_logger);
    task = std::move(new_task);
    start_count = 1;
}

void stop_logger() noexcept
{
    std::lock_guard lock(lifecycle_mutex);
    if (start_count == 0 || --start_count > 0 || !instance)
    {
        return;
    }
    shut_down();
}

void flush() noexcept
{
    const logger_ref l;
    if (!l)
    {
        return;
    }
    try
    {
        l->flush();
    }
    catch (...)
    {
        // A sink failed; the task reports such failures on its own flushes.
    }
}

std::optional<sink_id> add_callback(zlk_log_callback callback)
{
    if (!callback)
    {
        return std::nullopt;
    }
    std::optional<sink_id> id;
    {
        const logger_ref l;
        if (!l)
        {
            return std::nullopt;
        }
        id = l->add_sink(make_callback_sink(callback));
    }
    if (id)
    {
        log(level::info, "will log to callback {} with id {}", fmt::ptr(callback), *id);
    }
    return id;
}

bool remove_callback(sink_id id) noexcept
{
    bool removed = false;
    {
        const logger_ref l;
        if (!l)
        {
            return false;
        }
        removed = l->remove_sink(id);
    }
    if (removed)
    {
        log(level::info, "callback with id {} was successfully removed", id);
    }
    else
    {
        log(level::warning, "callback with id {} could not be removed", id);
    }
    return removed;
}

std::optional<sink_id> log_to_file(std::string_view path)
{
    if (path.empty())
    {
        throw std::invalid_argument("An empty path is not a valid log output");
    }
    std::optional<sink_id> id;
    {
        const logger_ref l;
        if (!l)
        {
            return std::nullopt;
        }
        id = l->add_sink(make_file_sink(path));
    }
    if (id)
    {
        log(level::info, "will log to the file {}", path);
    }
    return id;
}

std::optional<sink_id> log_to_console()
{
    std::optional<sink_id> id;
    {
        const logger_ref l;
        if (!l)
        {
            return std::nullopt;
        }
        id = l->add_sink(make_console_sink());
    }
    if (id)
    {
        log(level::info, "will log to the console");
    }
    return id;
}

std::optional<sink_id> log_to_syslog()
{
    std::optional<sink_id> id;
    {
        const logger_ref l;
        if (!l)
        {
            return std::nullopt;
        }
        id = l->add_sink(make_syslog_sink());
    }
    if (id)
    {
        log(level::info, "will log to syslog");
    }
    return id;
}

zlk_log_level_t public_level(std::uint32_t l) noexcept
{
    return l <= static_cast<std::uint32_t>(level::panic) ? static_cast<zlk_log_level_t>(l * 100 + 100)
                                                         : zlk_log_error;
}

std::uint64_t dropped_messages() noexcept
{
    return dropped.load(std::memory_order_relaxed);
}

namespace detail
{
std::atomic<std::uint8_t> sync_flag{0};
}

void set_sync(bool sync) noexcept
{
    detail::sync_flag.store(sync ? 1 : 0, std::memory_order_relaxed);
}

} // namespace zlk::log
