// A ring that answers "find successor" from memory, for the map's tests: members with ids and made-up
// endpoints, and switches to make an endpoint fail or answer something else.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "base/error_categories.hpp"
#include "ring/ring_map.hpp"

namespace zlk::ring_test
{

using chord::arc;
using chord::node_info;
using chord::ring_id;

inline ring_id id_of(std::uint64_t low, std::uint64_t high = 0)
{
    return ring_id{{low, 0, 0, high}};
}

inline network::endpoint endpoint_of(std::uint16_t port)
{
    return network::endpoint{asio::ip::make_address_v4("127.0.0.1"), port};
}

inline node_info node_of(std::uint64_t id, std::uint16_t port)
{
    return node_info{id_of(id), endpoint_of(port)};
}

// The arc each member owns, as a consistent ring gives it.
inline arc arc_of(const std::vector<node_info> & sorted, std::size_t i)
{
    const std::size_t n = sorted.size();
    return arc{sorted[(i + n - 1) % n], sorted[i], sorted[(i + 1) % n]};
}

class fake_ring final : public chord::successor_finder
{
public:
    explicit fake_ring(std::vector<node_info> members = {}) { set_members(std::move(members)); }

    void set_members(std::vector<node_info> members)
    {
        std::sort(members.begin(), members.end(),
                  [](const node_info & a, const node_info & b) { return a.id < b.id; });
        _members = std::move(members);
    }

    chord::chord_outcome find_successor(const network::endpoint & ep, const ring_id & position,
                                        arc & out) override
    {
        ++calls;
        asked.push_back(ep);
        if (auto f = failing.find(ep); f != failing.end())
        {
            return chord::chord_outcome{f->second, false, false, true};
        }
        if (answer_override)
        {
            out = answer_override(position);
            return {};
        }
        if (_members.empty())
        {
            return chord::chord_outcome{make_error_code(chord::error::unstable_ring)};
        }
        out = arc_owning(position);
        if (after_answer)
        {
            after_answer(*this);
        }
        return {};
    }

    arc arc_owning(const ring_id & position) const
    {
        const auto it = std::lower_bound(_members.begin(), _members.end(), position,
                                         [](const node_info & m, const ring_id & p) { return m.id < p; });
        const std::size_t i = it == _members.end() ? 0 : static_cast<std::size_t>(it - _members.begin());
        return arc_of(_members, i);
    }

    const std::vector<node_info> & members() const noexcept { return _members; }

    int calls = 0;
    std::vector<network::endpoint> asked;
    // Endpoints that fail with this error.
    std::map<network::endpoint, boost::system::error_code> failing;
    // When set, answers in place of the ring.
    std::function<arc(const ring_id &)> answer_override;
    // Runs after each answer: a ring that changes under a walk.
    std::function<void(fake_ring &)> after_answer;

private:
    std::vector<node_info> _members;
};

} // namespace zlk::ring_test
