#include "node/node_state.hpp"

#include <algorithm>
#include <thread>

namespace zlk::node
{

using boost::system::error_code;

unsigned default_thread_count() noexcept
{
    const unsigned hardware = std::thread::hardware_concurrency();
    return std::clamp(hardware, 1u, 4u);
}

asio::ip::tcp::endpoint advertised_endpoint(const asio::ip::tcp::endpoint & bound)
{
    if (!bound.address().is_unspecified())
    {
        return bound;
    }
    if (bound.address().is_v6())
    {
        return {asio::ip::address_v6::loopback(), bound.port()};
    }
    return {asio::ip::address_v4::loopback(), bound.port()};
}

node_state::node_state(node_settings settings, std::shared_ptr<const operation_registry> operations)
    : _settings(std::move(settings))
    , _operations(operations ? std::move(operations)
                             : std::make_shared<const operation_registry>(standard_operations()))
    , _startup(std::chrono::system_clock::now())
    , _ring(std::make_shared<const membership>(std::vector<chord::node_info>{}))
    , _faults(std::make_shared<const fault_settings>())
    , _peers(_settings.peer_timeout)
{
    _self.id = _settings.id;
    _self.endpoint = advertised_endpoint(_settings.advertise.value_or(_settings.listen));
    _members = _settings.peers;
    // A membership with a duplicate id keeps the node alone; the server refuses to start with it.
    _settings_error = set_members(_members);
    if (_settings_error)
    {
        _ring.set(std::make_shared<const membership>(std::vector<chord::node_info>{_self}));
    }
}

void node_state::set_self_endpoint(const asio::ip::tcp::endpoint & endpoint)
{
    std::vector<chord::node_info> members;
    {
        std::lock_guard lock(_mutex);
        _self.endpoint = endpoint;
        members = _members;
    }
    set_members(std::move(members));
}

std::shared_ptr<const membership> node_state::ring() const
{
    return _ring.get();
}

boost::system::error_code node_state::set_members(std::vector<chord::node_info> members)
{
    if (error_code ec = membership(members).error(); ec == chord::error::duplicate_node_id)
    {
        return ec;
    }
    std::vector<chord::node_info> all = members;
    // This node is always a member, under its own endpoint; an entry with its id names it.
    std::erase_if(all, [&](const chord::node_info & n) { return n.id == _self.id; });
    all.push_back(_self);
    auto next = std::make_shared<const membership>(std::move(all));
    std::lock_guard lock(_mutex);
    _members = std::move(members);
    _ring.set(std::move(next));
    return {};
}

std::shared_ptr<const fault_settings> node_state::faults() const
{
    return _faults.get();
}

void node_state::set_faults(fault_settings faults)
{
    _faults.set(std::make_shared<const fault_settings>(std::move(faults)));
}

node_state::counter_stripe & node_state::this_thread_stripe() noexcept
{
    // Threads take stripes in turn as they first count: the I/O threads of a node, started together,
    // land on different ones.
    static std::atomic<std::size_t> threads{0};
    thread_local const std::size_t stripe = threads.fetch_add(1, std::memory_order_relaxed) % counter_stripes;
    return _counters[stripe];
}

void node_state::count_reply(bool success) noexcept
{
    counter_stripe & s = this_thread_stripe();
    s.count.fetch_add(1, std::memory_order_relaxed);
    (success ? s.successes : s.failures).fetch_add(1, std::memory_order_relaxed);
}

node_counters node_state::counters() const noexcept
{
    node_counters sum;
    for (const counter_stripe & s : _counters)
    {
        sum.count += s.count.load(std::memory_order_relaxed);
        sum.successes += s.successes.load(std::memory_order_relaxed);
        sum.failures += s.failures.load(std::memory_order_relaxed);
        sum.in_bytes += s.in_bytes.load(std::memory_order_relaxed);
        sum.out_bytes += s.out_bytes.load(std::memory_order_relaxed);
    }
    return sum;
}

zlk::uuid node_state::next_stamp() noexcept
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now);
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(now - seconds);
    zlk::uuid stamp;
    stamp.time = zlk::timespec(seconds.count(), nanoseconds.count());
    stamp.id = _self.id;
    // Starts at 1, so that even a node whose id is zero never hands out the "none" stamp.
    stamp.number = _stamps.fetch_add(1, std::memory_order_relaxed) + 1;
    return stamp;
}

void node_state::set_stop_handler(std::function<void()> handler)
{
    std::lock_guard lock(_mutex);
    _stop_handler = std::move(handler);
}

void node_state::request_stop()
{
    std::function<void()> handler;
    {
        std::lock_guard lock(_mutex);
        handler = _stop_handler;
    }
    if (handler)
    {
        handler();
    }
}

} // namespace zlk::node
