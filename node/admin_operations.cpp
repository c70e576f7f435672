#include "node/admin_operations.hpp"

#include <memory>
#include <mutex>
#include <vector>

#include "log/logger.hpp"
#include "node/entry_operations.hpp"
#include "node/entry_store.hpp"
#include "node/node_state.hpp"
#include "node/ts_operations.hpp"
#include "wire/marshal.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

namespace
{

using protocol::operation;

constexpr std::uint16_t number(operation op) noexcept
{
    return static_cast<std::uint16_t>(op);
}

// One store with the entry handlers bound to it.
struct store_generation
{
    std::shared_ptr<entry_store> store = std::make_shared<entry_store>();
    std::shared_ptr<ts_store> buckets = std::make_shared<ts_store>();
    operation_registry handlers;

    store_generation()
    {
        add_entry_operations(handlers, store);
        add_ts_operations(handlers, ts_context{store, buckets});
    }
};

class purgeable_entries
{
public:
    purgeable_entries()
        : _current(std::make_shared<const store_generation>())
    {
    }

    std::shared_ptr<const store_generation> current() const
    {
        std::lock_guard lock(_mutex);
        return _current;
    }

    // The old store goes when the last request running on it is done.
    void purge()
    {
        auto fresh = std::make_shared<const store_generation>();
        std::lock_guard lock(_mutex);
        _current = std::move(fresh);
    }

    void run(std::uint16_t op, operation_context & ctx, protocol::result & reply) const
    {
        const auto generation = current();
        const operation_registry::entry * e = generation->handlers.find(op);
        if (!e)
        {
            reply.error = make_error_code(kernel::error::not_implemented);
            return;
        }
        e->handler(ctx, reply);
    }

private:
    mutable std::mutex _mutex;
    std::shared_ptr<const store_generation> _current;
};

// The entry operations registered by add_entry_operations, found by probing a generation once.
std::vector<std::pair<std::uint16_t, handler_mode>> entry_operation_numbers(const store_generation & g)
{
    std::vector<std::pair<std::uint16_t, handler_mode>> out;
    for (std::uint32_t n = 0; n <= 0xFFFF; ++n)
    {
        if (const operation_registry::entry * e = g.handlers.find(static_cast<std::uint16_t>(n)))
        {
            out.emplace_back(static_cast<std::uint16_t>(n), e->mode);
        }
    }
    return out;
}

} // namespace

void add_admin_operations(operation_registry & registry, std::shared_ptr<admin_state> state)
{
    if (!state)
    {
        state = std::make_shared<admin_state>();
    }
    auto entries = std::make_shared<purgeable_entries>();
    for (const auto & [op, mode] : entry_operation_numbers(*entries->current()))
    {
        registry.add(
            op, [entries, op = op](operation_context & c, protocol::result & r) { entries->run(op, c, r); },
            mode);
    }

    // The plain get's fields, on any key the node holds: the request carries the any-node access bit, so
    // ownership isn't checked before the handler.
    registry.add(number(operation::direct_get), [entries](operation_context & c, protocol::result & r)
                 { entries->run(number(operation::get), c, r); });

    registry.add(number(operation::purge_all),
                 [entries, state](operation_context & c, protocol::result & r)
                 {
                     if (!c.settings().enable_purge_all)
                     {
                         r.error = make_error_code(kernel::error::operation_disabled);
                         return;
                     }
                     entries->purge();
                     state->purges.fetch_add(1, std::memory_order_relaxed);
                     log::log(log::level::info, "node {} purged all entries", c.self().id);
                 });
    // Expired entries are already gone for every operation, and there is no cache to drop.
    registry.add(number(operation::trim_all), [](operation_context &, protocol::result &) {});
    registry.add(number(operation::purge_cache), [](operation_context &, protocol::result &) {});
    registry.add(number(operation::range_updater),
                 [state](operation_context & c, protocol::result & r)
                 {
                     serialization::cursor fields = c.fields();
                     std::uint8_t value = 0;
                     if (const boost::system::error_code ec = serialization::read_u8(fields, value))
                     {
                         r.error = ec;
                         return;
                     }
                     if (value != range_updater_stop && value != range_updater_restart)
                     {
                         r.error = make_error_code(kernel::error::unexpected_value);
                         return;
                     }
                     state->migration_running.store(value == range_updater_restart,
                                                    std::memory_order_relaxed);
                 });
    registry.add(number(operation::interrupt_partition), [](operation_context &, protocol::result &) {});
}

} // namespace zlk::node
