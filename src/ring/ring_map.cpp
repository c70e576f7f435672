#include "ring/ring_map.hpp"

#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <set>

#include "base/error_categories.hpp"
#include "log/logger.hpp"

namespace zlk::chord
{

using boost::system::error_code;

namespace
{

bool node_id_below(const arc & a, const ring_id & id) noexcept
{
    return a.node.id < id;
}

// The arc that would own the position: the first whose node id is not below it, round through zero.
// REQUIRES: a non-empty vector.
const arc & candidate_arc(const std::vector<arc> & arcs, const ring_id & position) noexcept
{
    const auto it = std::lower_bound(arcs.begin(), arcs.end(), position, node_id_below);
    return it == arcs.end() ? arcs.front() : *it;
}

// Answers from the cache, or says it can't.
bool find_cached(const std::vector<arc> & arcs, const ring_id & position, std::uint16_t flags,
                 node_info & out) noexcept
{
    if (arcs.empty())
    {
        return false;
    }
    if ((flags & access_any_node) != 0)
    {
        out = arcs.front().node;
        return true;
    }
    const arc & a = candidate_arc(arcs, position);
    if (arc_is_valid(a) && arc_contains(a.predecessor.id, a.node.id, position))
    {
        out = a.node;
        return true;
    }
    return false;
}

struct by_id
{
    bool operator()(const node_info & a, const node_info & b) const noexcept { return a.id < b.id; }
};

} // namespace

error_code ring_map::find_owner(const ring_id & position, std::uint16_t flags, bool force_remote,
                                node_info & out)
{
    if (!force_remote)
    {
        // The common case reads: many threads route at once without waiting on each other.
        std::shared_lock lock{_lock};
        if (find_cached(_arcs, position, flags, out))
        {
            return {};
        }
    }
    unique_lock lock{_lock};
    return find_owner_locked(position, flags, force_remote, out);
}

error_code ring_map::find_owner_locked(const ring_id & position, std::uint16_t flags, bool force_remote,
                                       node_info & out)
{
    if (!force_remote && find_cached(_arcs, position, flags, out))
    {
        return {};
    }

    out = node_info{};
    if (_known_endpoints.empty())
    {
        return {};
    }

    error_code last;
    arc answer;
    bool answered = false;
    // An endpoint asked about the ring is known by its address alone, not as a node: its failure here
    // forgets nothing. Its arc, learnt from the others, stays until a request sent to it fails; so a
    // walk that meets a node that is down still closes the ring the others describe.
    for (const network::endpoint & ep : _known_endpoints)
    {
        const chord_outcome o = _network->find_successor(ep, position, answer);
        if (!o.error)
        {
            answered = true;
            break;
        }
        last = o.error;
    }
    if (!answered)
    {
        return last;
    }

    const bool valid = arc_is_valid(answer);
    if (!valid || !arc_contains(answer.predecessor.id, answer.node.id, position))
    {
        return make_error_code(error::unstable_ring);
    }
    out = answer.node;
    if (valid)
    {
        insert_arc_locked(answer);
    }
    _known_endpoints.insert(answer.node.endpoint);
    return {};
}

void ring_map::insert_arc(const arc & a)
{
    unique_lock lock{_lock};
    insert_arc_locked(a);
}

void ring_map::insert_arc_locked(const arc & a)
{
    const auto range = std::equal_range(_arcs.begin(), _arcs.end(), a,
                                        [](const arc & x, const arc & y) { return x.node.id < y.node.id; });
    const auto at = _arcs.erase(range.first, range.second);
    _arcs.insert(at, a);
}

void ring_map::forget_node(const node_info & node)
{
    unique_lock lock{_lock};
    forget_id_locked(node.id);
}

void ring_map::forget_endpoint(const network::endpoint & ep)
{
    unique_lock lock{_lock};
    forget_endpoint_locked(ep);
}

void ring_map::forget_id_locked(const ring_id & id) noexcept
{
    const auto it = std::lower_bound(_arcs.begin(), _arcs.end(), id, node_id_below);
    if (it != _arcs.end() && it->node.id == id)
    {
        _arcs.erase(it);
    }
}

void ring_map::forget_endpoint_locked(const network::endpoint & ep) noexcept
{
    std::erase_if(_arcs, [&ep](const arc & a) { return a.node.endpoint == ep; });
}

bool ring_map::is_consistent() const
{
    std::shared_lock lock{_lock};
    return is_consistent_locked();
}

bool ring_map::is_consistent_locked() const noexcept
{
    if (_arcs.empty())
    {
        return false;
    }
    const std::size_t n = _arcs.size();
    for (std::size_t i = 0; i < n; ++i)
    {
        const arc & before = _arcs[(i + n - 1) % n];
        const arc & current = _arcs[i];
        if (current.predecessor.id != before.node.id || current.node.id != before.successor.id)
        {
            return false;
        }
    }
    return true;
}

std::size_t ring_map::ring_size() const
{
    std::shared_lock lock{_lock};
    return _arcs.size();
}

error_code ring_map::bootstrap(const network::endpoint_set & endpoints)
{
    unique_lock lock{_lock};
    _known_endpoints = endpoints;
    return walk_ring_locked();
}

error_code ring_map::walk_ring()
{
    unique_lock lock{_lock};
    return walk_ring_locked();
}

error_code ring_map::walk_ring_locked()
{
    // The zero entry stands for position 0 on the first round: an empty cluster answers with an unset
    // node, which is met again at once and ends the walk.
    std::set<node_info, by_id> visited;
    node_info current{};
    for (;;)
    {
        visited.insert(current);
        ring_id next = current.id;
        ++next;
        node_info node;
        const error_code ec = find_owner_locked(next, 0, true, node);
        if (ec)
        {
            return ec;
        }
        if (visited.contains(node))
        {
            return {};
        }
        current = node;
    }
}

error_code ring_map::stabilize()
{
    unique_lock lock{_lock};
    return stabilize_locked();
}

error_code ring_map::stabilize_locked()
{
    if (const error_code ec = walk_ring_locked())
    {
        return ec;
    }
    if (is_consistent_locked())
    {
        return {};
    }
    _arcs.clear();
    log::log(log::level::error, "could not traverse the cluster ring");
    return make_error_code(error::unstable_ring);
}

std::pair<error_code, std::vector<arc>> ring_map::node_list(bool refresh)
{
    unique_lock lock{_lock};
    if (refresh || !is_consistent_locked())
    {
        if (const error_code ec = stabilize_locked())
        {
            return {ec, {}};
        }
    }
    return {error_code{}, _arcs};
}

error_code ring_map::replicas(const ring_id & position, std::uint16_t flags, bool force_remote,
                              std::uint32_t replication_factor, replica_list & out)
{
    out.clear();
    const std::size_t limit = std::min<std::size_t>(replication_factor, max_replicas);
    const std::optional<std::uint32_t> local = local_ipv4_address();

    unique_lock lock{_lock};
    node_info node;
    if (const error_code ec = find_owner_locked(position, flags, force_remote, node))
    {
        return ec;
    }
    for (;;)
    {
        out.push_back(weighted_node{node, proximity_weight(local, node.endpoint)});
        if (out.size() >= limit)
        {
            return {};
        }
        ring_id next = node.id;
        ++next;
        if (find_owner_locked(next, flags, force_remote, node))
        {
            // A replica that can't be found doesn't spoil the ones that were.
            return {};
        }
        if (node.id == out.front().node.id)
        {
            return {};
        }
    }
}

error_code ring_map::pick_replica(const ring_id & position, std::uint16_t flags, bool force_remote,
                                  std::uint32_t replication_factor, std::atomic<std::uint64_t> & random,
                                  node_info & out)
{
    replica_list list;
    if (const error_code ec = replicas(position, flags, force_remote, replication_factor, list))
    {
        return ec;
    }
    if (list.empty())
    {
        out = node_info{};
        return {};
    }
    if (list.size() < 2)
    {
        out = list.front().node;
        return {};
    }
    std::uint32_t sum = 0;
    for (const weighted_node & w : list)
    {
        sum += w.weight;
    }
    // Without an IPv4 address on either side every weight is 0: the owner serves.
    out = sum == 0 ? list.front().node : weighted_choice(list, draw_uniform(random, sum));
    return {};
}

std::vector<arc> ring_map::arcs() const
{
    std::shared_lock lock{_lock};
    return _arcs;
}

network::endpoint_set ring_map::known_endpoints() const
{
    std::shared_lock lock{_lock};
    return _known_endpoints;
}

void ring_map::clear()
{
    unique_lock lock{_lock};
    _arcs.clear();
}

std::optional<std::uint32_t> local_ipv4_address() noexcept
{
    static const std::optional<std::uint32_t> address = []() noexcept -> std::optional<std::uint32_t>
    {
        ifaddrs * list = nullptr;
        if (::getifaddrs(&list) != 0)
        {
            return std::nullopt;
        }
        std::optional<std::uint32_t> found;
        for (const ifaddrs * i = list; i != nullptr; i = i->ifa_next)
        {
            if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET)
            {
                continue;
            }
            const auto * in = reinterpret_cast<const sockaddr_in *>(i->ifa_addr);
            const std::uint32_t value = ntohl(in->sin_addr.s_addr);
            if ((value >> 24) == 127)
            {
                continue;
            }
            found = value;
            break;
        }
        ::freeifaddrs(list);
        return found;
    }();
    return address;
}

std::uint32_t proximity_weight(std::optional<std::uint32_t> local, const network::endpoint & node) noexcept
{
    if (!local || !node.address().is_v4())
    {
        return 0;
    }
    const std::uint32_t x = *local ^ node.address().to_v4().to_uint();
    if (x > 0xFFFFFFu)
    {
        return 1;
    }
    if (x > 0xFFFFu)
    {
        return 8;
    }
    if (x > 0xFFu)
    {
        return 27;
    }
    if (x != 0)
    {
        return 64;
    }
    return 625;
}

std::uint32_t draw_uniform(std::atomic<std::uint64_t> & random, std::uint32_t bound) noexcept
{
    constexpr std::uint64_t modulus = 2147483647u;
    std::uint64_t current = random.load(std::memory_order_relaxed);
    std::uint64_t next;
    do
    {
        // A state of 0 (mod the modulus) would stay 0 for ever.
        std::uint64_t s = current % modulus;
        if (s == 0)
        {
            s = 1;
        }
        next = s * 48271u % modulus;
    } while (!random.compare_exchange_weak(current, next, std::memory_order_relaxed));
    return static_cast<std::uint32_t>(next % bound);
}

const node_info & weighted_choice(const replica_list & list, std::uint32_t r) noexcept
{
    std::int64_t left = r;
    for (const weighted_node & w : list)
    {
        left -= w.weight;
        if (left < 0)
        {
            return w.node;
        }
    }
    return list.back().node;
}

} // namespace zlk::chord
