#include "node/operation_table.hpp"

#include "log/logger.hpp"
#include "node/address.hpp"
#include "node/admin_operations.hpp"
#include "node/entry_operations.hpp"
#include "node/node_state.hpp"
#include "node/status.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;

serialization::cursor operation_context::fields() const noexcept
{
    const auto body = _request.body;
    return body.size() < 2 ? serialization::cursor{} : serialization::cursor(body.subspan(2));
}

const node_settings & operation_context::settings() const noexcept
{
    return _node.settings();
}

const chord::node_info & operation_context::self() const noexcept
{
    return _node.self();
}

error_code operation_context::replicate()
{
    const unsigned factor = _node.settings().replication_factor;
    if (factor <= 1 || is_replica_copy())
    {
        return {};
    }
    const auto ring = _node.ring();
    chord::chord_carrier_request copy = _request;
    copy.from = _node.self();
    copy.client_id = 0;
    error_code first_failure;
    ring->for_each_replica(_request.key, factor,
                           [&](const chord::node_info & replica)
                           {
                               if (first_failure || replica.id == _node.self().id)
                               {
                                   return;
                               }
                               const forward_outcome outcome = _node.peers().forward(replica.endpoint, copy);
                               if (outcome.transport)
                               {
                                   log::log(log::level::warning, "could not replicate operation {} to {}: {}",
                                            _request.operation(), endpoint_text(replica.endpoint),
                                            outcome.transport.message());
                                   first_failure = make_error_code(chord::error::unstable_ring);
                               }
                               else if (outcome.remote)
                               {
                                   first_failure = outcome.remote;
                               }
                           });
    return first_failure;
}

void operation_registry::add(std::uint16_t number, operation_handler handler, handler_mode mode)
{
    _handlers.insert_or_assign(number, entry{std::move(handler), mode});
}

void operation_registry::remove(std::uint16_t number) noexcept
{
    _handlers.erase(number);
}

const operation_registry::entry * operation_registry::find(std::uint16_t number) const noexcept
{
    const auto it = _handlers.find(number);
    return it == _handlers.end() ? nullptr : &it->second;
}

bool operation_registry::any_may_wait() const noexcept
{
    for (const auto & [number, e] : _handlers)
    {
        if (e.mode != handler_mode::quick)
        {
            return true;
        }
    }
    return false;
}

namespace
{

// The items of get_config.
enum class config_item : std::uint8_t
{
    replication_factor = 2,
    input_buffer_size = 3,
    profiling = 5,
};

void get_config(operation_context & ctx, protocol::result & reply)
{
    serialization::cursor fields = ctx.fields();
    std::uint8_t item = 0;
    if (error_code ec = serialization::read_u8(fields, item))
    {
        reply.error = ec;
        return;
    }
    const node_settings & s = ctx.settings();
    switch (static_cast<config_item>(item))
    {
    case config_item::replication_factor:
        reply.value = s.replication_factor;
        break;
    case config_item::input_buffer_size:
        reply.value = s.max_in_buffer_size;
        break;
    case config_item::profiling:
        reply.value = s.profile_performance ? 1 : 0;
        break;
    default:
        reply.error = make_error_code(kernel::error::unexpected_value);
        break;
    }
}

void node_status(operation_context & ctx, protocol::result &)
{
    const std::string text = status_document(ctx.node()).dump();
    ctx.content().assign(text.begin(), text.end());
}

} // namespace

operation_registry standard_operations()
{
    operation_registry r;
    r.add(static_cast<std::uint16_t>(protocol::operation::get_config), get_config);
    r.add(static_cast<std::uint16_t>(protocol::operation::node_status), node_status);
    add_admin_operations(r);
    return r;
}

} // namespace zlk::node
