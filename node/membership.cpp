#include "node/membership.hpp"

#include <algorithm>

#include "base/error_categories.hpp"

namespace zlk::node
{

membership::membership(std::vector<chord::node_info> members)
    : _members(std::move(members))
{
    std::sort(_members.begin(), _members.end(),
              [](const chord::node_info & a, const chord::node_info & b) { return a.id < b.id; });
    if (_members.empty())
    {
        _error = make_error_code(chord::error::node_not_found);
    }
    else if (std::adjacent_find(_members.begin(), _members.end(),
                                [](const auto & a, const auto & b)
                                { return a.id == b.id; }) != _members.end())
    {
        _error = make_error_code(chord::error::duplicate_node_id);
    }
}

std::size_t membership::owner_index(const chord::ring_id & position) const noexcept
{
    const auto it =
        std::lower_bound(_members.begin(), _members.end(), position,
                         [](const chord::node_info & n, const chord::ring_id & p) { return n.id < p; });
    return it == _members.end() ? 0 : static_cast<std::size_t>(it - _members.begin());
}

std::optional<std::size_t> membership::index_of(const chord::ring_id & id) const noexcept
{
    if (_members.empty())
    {
        return std::nullopt;
    }
    const std::size_t i = owner_index(id);
    if (_members[i].id != id)
    {
        return std::nullopt;
    }
    return i;
}

chord::arc membership::arc_at(std::size_t i) const noexcept
{
    const std::size_t n = _members.size();
    return chord::arc{_members[(i + n - 1) % n], _members[i], _members[(i + 1) % n]};
}

const chord::node_info & membership::closest_preceding(const chord::ring_id & position) const noexcept
{
    const std::size_t n = _members.size();
    return _members[(owner_index(position) + n - 1) % n];
}

bool membership::holds_replica(const chord::ring_id & position, const chord::ring_id & id,
                               std::size_t factor) const noexcept
{
    bool found = false;
    for_each_replica(position, factor, [&](const chord::node_info & n) { found = found || n.id == id; });
    return found;
}

} // namespace zlk::node
