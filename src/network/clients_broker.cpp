#include "network/clients_broker.hpp"

#include "network/allocators.hpp"

#include <boost/container_hash/hash.hpp>

#include "log/logger.hpp"
#include "network/multiplexer.hpp"

namespace zlk::network
{

std::size_t clients_broker::endpoint_hash_compare::hash(const endpoint & ep) noexcept
{
    std::size_t seed = ep.port();
    const asio::ip::address address = ep.address();
    if (address.is_v4())
    {
        boost::hash_combine(seed, address.to_v4().to_uint());
    }
    else
    {
        const auto bytes = address.to_v6().to_bytes();
        boost::hash_range(seed, bytes.begin(), bytes.end());
    }
    return seed;
}

clients_broker::clients_broker(std::string name, kind k, multiplexer & mux,
                               std::shared_ptr<const network_settings> settings)
    : name_(std::move(name))
    , mux_(&mux)
    , settings_(std::move(settings))
    , blocking_io_(k == kind::blocking ? std::make_unique<asio::io_context>(1) : nullptr)
{
}

clients_broker::~clients_broker()
{
    clear();
}

std::pair<boost::system::error_code, clients_broker::client_ptr>
clients_broker::get_client(const endpoint & ep, const char * context)
{
    if (!ep.address().is_unspecified() && ep.port() != 0)
    {
        pool_map::const_accessor found;
        if (pools_.find(found, ep))
        {
            client_ptr c;
            if (found->second->try_pop(c))
            {
                c->set_context(context);
                return {boost::system::error_code{}, std::move(c)};
            }
        }
    }

    log::log(log::level::debug, "{} - creating a new client for {} - context {}", name_, ep, context);
    client_ptr c = std::allocate_shared<client::client>(
        cache_aligned_allocator<client::client>(), blocking_io_ ? *blocking_io_ : mux_->io(), *this, ep,
        settings_->timeout_ms.load(std::memory_order_relaxed),
        settings_->max_input_size.load(std::memory_order_relaxed), settings_->security, context);
    count_creation(ep, context);
    return {boost::system::error_code{}, std::move(c)};
}

void clients_broker::return_client(client_ptr c)
{
    if (!c)
    {
        return;
    }
    std::shared_ptr<pool> target;
    {
        pool_map::const_accessor found;
        if (pools_.find(found, c->remote()))
        {
            target = found->second;
        }
    }
    if (!target)
    {
        // Two racing creators end with the same pool: the loser's is dropped unused.
        auto fresh = std::make_shared<pool>();
        fresh->set_capacity(pool_capacity);
        pool_map::accessor slot;
        if (pools_.insert(slot, c->remote()))
        {
            slot->second = std::move(fresh);
        }
        target = slot->second;
    }
    const char * context = c->context();
    if (!target->try_push(c))
    {
        log::log(log::level::debug,
                 "{} - client pool size maximum reached for {} ({}), not returning client from context {}",
                 name_, c->remote(), pool_capacity, context);
    }
}

void clients_broker::clear() noexcept
{
    pools_.clear();
}

std::size_t clients_broker::idle(const endpoint & ep) const
{
    pool_map::const_accessor found;
    if (!pools_.find(found, ep))
    {
        return 0;
    }
    const auto size = found->second->size();
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

void clients_broker::count_creation(const endpoint & ep, const char * context)
{
    const std::uint64_t count = creations_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!log::enabled(log::level::debug))
    {
        return;
    }
    std::lock_guard lock(statistics_mutex_);
    auto & entry = context_creations_[context];
    entry.first += 1;
    entry.second = true;
    endpoint_counts_[ep] += 1;
    if (count % statistics_period != 0)
    {
        return;
    }
    log::log(log::level::debug, "{} - created {}th client (now for {} - context {})", name_, count, ep,
             context);
    for (const auto & [name, creations] : context_creations_)
    {
        if (creations.second)
        {
            log::log(log::level::debug, "{} - context {} - {} creations", name_, name, creations.first);
        }
    }
    for (const auto & [counted, creations] : endpoint_counts_)
    {
        (void)creations;
        log::log(log::level::debug, "{} - endpoint {} - {} entries", name_, counted, idle(counted));
    }
}

} // namespace zlk::network
