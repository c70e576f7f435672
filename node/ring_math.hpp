// Arithmetic on ring positions modulo 2^256, for placing nodes: evenly spaced ids for a cluster started
// at once, and the middle of the widest arc for a node added later.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/ring_id.hpp"

namespace zlk::node
{

chord::ring_id ring_add(const chord::ring_id & a, const chord::ring_id & b) noexcept;
chord::ring_id ring_sub(const chord::ring_id & a, const chord::ring_id & b) noexcept;
chord::ring_id ring_half(const chord::ring_id & a) noexcept;

// Node i (0-based) of a ring of n nodes: (i + 1) * floor(2^256 / n) - 1, taken modulo 2^256. Node n - 1
// of a ring whose size is a power of two is the largest id; node 0 of a ring of one is too.
// REQUIRES: n >= 1.
chord::ring_id evenly_spaced_id(std::size_t i, std::size_t n) noexcept;

// The position halfway along the arc (from, to], going round through zero when to <= from.
chord::ring_id arc_middle(const chord::ring_id & from, const chord::ring_id & to) noexcept;

} // namespace zlk::node
