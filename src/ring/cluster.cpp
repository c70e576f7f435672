#include "ring/cluster.hpp"

#include "base/error_categories.hpp"
#include "base/make_error.hpp"
#include "base/status_text.hpp"
#include "log/logger.hpp"

namespace zlk::chord
{

using boost::system::error_code;

cluster::cluster(network::broker_service & broker, std::atomic<std::uint32_t> & replication_factor,
                 std::atomic<std::uint64_t> & replica_random)
    : _broker(&broker)
    , _conversations(broker.sync_side())
    , _map(_conversations)
    , _replication_factor(&replication_factor)
    , _replica_random(&replica_random)
{
}

void cluster::install_profile_sink(profile_sink sink)
{
    std::call_once(_profile_sink_once, [&] { _conversations.set_profile_sink(std::move(sink)); });
}

void cluster::install_connector(std::function<zlk_error_t()> connector)
{
    std::call_once(_connector_once, [&] { _connector = std::move(connector); });
}

void cluster::set_addresses(network::endpoint_set addresses)
{
    std::lock_guard lock{_addresses_mutex};
    _addresses.swap(addresses);
}

network::endpoint_set cluster::addresses() const
{
    std::lock_guard lock{_addresses_mutex};
    return _addresses;
}

bool cluster::has_addresses() const
{
    std::lock_guard lock{_addresses_mutex};
    return !_addresses.empty();
}

std::uint64_t cluster::timeout_ms() const noexcept
{
    return _broker->settings().timeout_ms.load(std::memory_order_relaxed);
}

zlk_error_t cluster::connect_to()
{
    const network::endpoint_set endpoints = addresses();
    if (endpoints.empty())
    {
        return zlk_e_host_not_found;
    }
    const error_code ec = _map.bootstrap(endpoints);
    if (ec)
    {
        const zlk_error_t walked = make_error_from_code(ec, local_origin);
        if (walked != zlk_e_unstable_cluster)
        {
            return walked;
        }
        // Requests will wait for the ring to settle: a handle may connect before it does.
        log::log(log::level::warning, "connecting to unstable cluster");
    }
    read_settings();
    return zlk_e_ok;
}

void cluster::read_settings()
{
    struct setting
    {
        config_item item;
        const char * failure;
    };
    static constexpr setting settings[] = {
        {config_item::replication_factor, "could not update replication factor: {}"},
        {config_item::input_buffer_factor, "could not update buffer max size factor: {}"},
        {config_item::profiling, "could not update profiling setting: {}"},
    };

    const std::vector<arc> arcs = _map.arcs();
    for (const setting & s : settings)
    {
        std::uint64_t value = 0;
        zlk_error_t status = zlk_e_internal_local;
        if (!arcs.empty())
        {
            const chord_outcome o = _conversations.get_config(arcs.front().node, s.item, value);
            if (o.forget)
            {
                _map.forget_node(arcs.front().node);
            }
            status = make_error_from_code(o.error, o.remote ? remote_origin : local_origin);
        }
        if (ZLK_FAILURE(status))
        {
            log::log(log::level::error, fmt::runtime(s.failure), zlk::status_text(status));
            continue;
        }
        switch (s.item)
        {
        case config_item::replication_factor:
        {
            auto factor = static_cast<std::uint32_t>(value);
            if (factor < 1 || factor > 4)
            {
                log::log(log::level::error, "invalid replication factor received {}, setting to 1", factor);
                factor = 1;
            }
            _replication_factor->store(factor, std::memory_order_relaxed);
            break;
        }
        case config_item::input_buffer_factor:
            _max_in_buf_size.store(value, std::memory_order_relaxed);
            break;
        case config_item::profiling:
            _profiling.store(value != 0, std::memory_order_relaxed);
            break;
        }
    }
}

zlk_error_t cluster::stabilize()
{
    return make_error_from_code(_map.stabilize(), local_origin);
}

zlk_error_t cluster::ensure_connected()
{
    if (_map.ring_size() != 0)
    {
        return zlk_e_ok;
    }
    if (!has_addresses())
    {
        return zlk_e_not_connected;
    }
    return _connector ? _connector() : connect_to();
}

zlk_error_t cluster::get_node_arc(const network::endpoint & ep, arc & out)
{
    arc answer;
    const chord_outcome o = _conversations.ping(ep, answer);
    if (o.forget)
    {
        _map.forget_endpoint(ep);
    }
    if (o.error)
    {
        return make_error_from_code(o.error, local_origin);
    }
    if (!arc_is_valid(answer))
    {
        log::log(log::level::error, "could not get the node arc for {}", ep);
        return zlk_e_unstable_cluster;
    }
    _map.insert_arc(answer);
    out = answer;
    return zlk_e_ok;
}

void cluster::forget_on_failure(const node_info & node, const error_code & ec)
{
    if (is_chord_visible(ec))
    {
        _map.forget_node(node);
    }
}

error_code find_owner(cluster & c, const ring_id & position, std::uint16_t flags, bool force_remote,
                      node_info & out)
{
    return c.map().find_owner(position, flags, force_remote, out);
}

error_code pick_replica(cluster & c, const ring_id & position, std::uint16_t flags, bool force_remote,
                        node_info & out)
{
    return c.map().pick_replica(position, flags, force_remote, c.replication_factor(), c.replica_random(),
                                out);
}

} // namespace zlk::chord
