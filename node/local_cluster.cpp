#include "node/local_cluster.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "node/address.hpp"
#include "node/ring_math.hpp"

namespace zlk::node
{

local_cluster::local_cluster(std::size_t n, cluster_options options)
    : _options(std::move(options))
{
    _slots.resize(n);
    for (std::size_t i = 0; i < n; ++i)
    {
        slot & s = _slots[i];
        s.settings = _options.node;
        s.settings.id = evenly_spaced_id(i, n);
        s.settings.listen = asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0);
        s.settings.advertise.reset();
        s.member = true;
    }
    for (slot & s : _slots)
    {
        launch(s);
    }
    announce_membership();
}

local_cluster::~local_cluster()
{
    for (slot & s : _slots)
    {
        if (s.running)
        {
            s.running->stop();
        }
    }
}

bool local_cluster::is_member(std::size_t i) const noexcept
{
    return i < _slots.size() && _slots[i].member;
}

bool local_cluster::is_running(std::size_t i) const noexcept
{
    return is_member(i) && _slots[i].running != nullptr;
}

local_cluster::slot & local_cluster::member_slot(std::size_t i)
{
    if (!is_member(i))
    {
        throw std::out_of_range(fmt::format("no node {} in the cluster", i));
    }
    return _slots[i];
}

const local_cluster::slot & local_cluster::member_slot(std::size_t i) const
{
    if (!is_member(i))
    {
        throw std::out_of_range(fmt::format("no node {} in the cluster", i));
    }
    return _slots[i];
}

node & local_cluster::at(std::size_t i)
{
    slot & s = member_slot(i);
    if (!s.running)
    {
        throw std::out_of_range(fmt::format("node {} is stopped", i));
    }
    return *s.running;
}

chord::ring_id local_cluster::id(std::size_t i) const
{
    return member_slot(i).settings.id;
}

asio::ip::tcp::endpoint local_cluster::endpoint(std::size_t i) const
{
    return member_slot(i).settings.listen;
}

chord::node_info local_cluster::info(std::size_t i) const
{
    const slot & s = member_slot(i);
    return chord::node_info{s.settings.id, s.settings.listen};
}

std::vector<chord::node_info> local_cluster::members() const
{
    std::vector<chord::node_info> out;
    for (const slot & s : _slots)
    {
        if (s.member)
        {
            out.push_back(chord::node_info{s.settings.id, s.settings.listen});
        }
    }
    std::sort(out.begin(), out.end(), [](const auto & a, const auto & b) { return a.id < b.id; });
    return out;
}

std::string local_cluster::uri() const
{
    std::string text = "zlk://";
    bool first = true;
    for (const slot & s : _slots)
    {
        if (s.member && s.running)
        {
            if (!first)
            {
                text += ',';
            }
            text += endpoint_text(s.settings.listen);
            first = false;
        }
    }
    return text;
}

void local_cluster::launch(slot & s)
{
    s.settings.peers = members();
    auto n = std::make_unique<node>(s.settings, _options.operations);
    n->set_faults(s.faults);
    if (boost::system::error_code ec = n->start())
    {
        throw std::system_error(
            std::error_code(ec.value(), std::generic_category()),
            fmt::format("cannot start node {}: {}", chord::to_string(s.settings.id), ec.message()));
    }
    // From now on the node keeps this port, across restarts.
    s.settings.listen = n->endpoint();
    s.running = std::move(n);
}

void local_cluster::announce_membership()
{
    const std::vector<chord::node_info> all = members();
    for (slot & s : _slots)
    {
        if (!s.member)
        {
            continue;
        }
        s.settings.peers = all;
        if (s.running)
        {
            s.running->set_members(all);
        }
    }
}

void local_cluster::stop_node(std::size_t i)
{
    slot & s = member_slot(i);
    if (s.running)
    {
        s.running->stop();
        s.running.reset();
    }
}

void local_cluster::restart_node(std::size_t i)
{
    slot & s = member_slot(i);
    stop_node(i);
    launch(s);
}

std::size_t local_cluster::add_node(std::optional<chord::ring_id> id)
{
    const std::vector<chord::node_info> all = members();
    if (id && std::any_of(all.begin(), all.end(), [&](const chord::node_info & n) { return n.id == *id; }))
    {
        throw std::invalid_argument(fmt::format("node id {} is taken", chord::to_string(*id)));
    }
    if (!id)
    {
        if (all.empty())
        {
            id = evenly_spaced_id(0, 1);
        }
        else
        {
            // The widest arc (from the previous member, excluded, to a member) gets the new node.
            chord::ring_id best_from = all.back().id;
            chord::ring_id best_length = ring_sub(all.front().id, all.back().id);
            for (std::size_t k = 1; k < all.size(); ++k)
            {
                const chord::ring_id length = ring_sub(all[k].id, all[k - 1].id);
                if (length > best_length)
                {
                    best_length = length;
                    best_from = all[k - 1].id;
                }
            }
            id = arc_middle(best_from, ring_add(best_from, best_length));
        }
    }
    slot s;
    s.settings = _options.node;
    s.settings.id = *id;
    s.settings.listen = asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0);
    s.settings.advertise.reset();
    s.member = true;
    _slots.push_back(std::move(s));
    try
    {
        launch(_slots.back());
    }
    catch (...)
    {
        _slots.pop_back();
        throw;
    }
    announce_membership();
    return _slots.size() - 1;
}

void local_cluster::remove_node(std::size_t i)
{
    stop_node(i);
    _slots[i].member = false;
    announce_membership();
}

void local_cluster::set_faults(std::size_t i, fault_settings faults)
{
    slot & s = member_slot(i);
    s.faults = faults;
    if (s.running)
    {
        s.running->set_faults(std::move(faults));
    }
}

void local_cluster::release_held_replies(std::size_t i)
{
    at(i).release_held_replies();
}

bool local_cluster::wait_for_held_replies(std::size_t i, std::size_t count, std::chrono::milliseconds timeout)
{
    return at(i).wait_for_held_replies(count, timeout);
}

} // namespace zlk::node
