// The members of a ring as one node knows them: every node's id and endpoint, sorted by id. A
// development node is told the whole membership instead of discovering it, so it answers every ring
// question (who owns a position, what an arc is, which nodes hold the replicas of a key) directly.
//
// A membership is immutable; a node swaps in a new one when the ring changes. Look-ups don't allocate.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <optional>
#include <vector>

#include "wire/node_info.hpp"

namespace zlk::node
{

class membership
{
public:
    // Sorts by id. Two members with one id make the membership unusable: see error().
    explicit membership(std::vector<chord::node_info> members);

    // chord code 11 ("a duplicate node id has been found on the ring") when two members share an id,
    // chord code 8 for an empty membership; success otherwise.
    boost::system::error_code error() const noexcept { return _error; }

    const std::vector<chord::node_info> & members() const noexcept { return _members; }
    std::size_t size() const noexcept { return _members.size(); }

    // The member that owns the position: the first whose id is not below it, round through zero.
    // REQUIRES: size() > 0.
    std::size_t owner_index(const chord::ring_id & position) const noexcept;
    std::optional<std::size_t> index_of(const chord::ring_id & id) const noexcept;

    // The arc of member i: its predecessor, itself, its successor.
    chord::arc arc_at(std::size_t i) const noexcept;
    chord::arc arc_owning(const chord::ring_id & position) const noexcept
    {
        return arc_at(owner_index(position));
    }

    // The member just before the position's owner: the closest member strictly preceding the
    // position, going back round through zero.
    const chord::node_info & closest_preceding(const chord::ring_id & position) const noexcept;

    // Whether member `id` is among the `factor` members that hold a position: its owner and the
    // owner's successors, each counted once however small the ring.
    bool holds_replica(const chord::ring_id & position, const chord::ring_id & id,
                       std::size_t factor) const noexcept;

    // Calls f(const node_info &) for the owner of the position and then its successors, `factor`
    // members at most, never one twice.
    template <typename F>
    void for_each_replica(const chord::ring_id & position, std::size_t factor, F && f) const
    {
        if (_members.empty())
        {
            return;
        }
        const std::size_t first = owner_index(position);
        const std::size_t n = factor < _members.size() ? factor : _members.size();
        for (std::size_t k = 0; k < n; ++k)
        {
            f(_members[(first + k) % _members.size()]);
        }
    }

private:
    std::vector<chord::node_info> _members;
    boost::system::error_code _error;
};

} // namespace zlk::node
