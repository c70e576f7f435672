#include "node/ring_math.hpp"

namespace zlk::node
{

using chord::ring_id;

ring_id ring_add(const ring_id & a, const ring_id & b) noexcept
{
    ring_id out;
    unsigned carry = 0;
    for (std::size_t i = 0; i < 4; ++i)
    {
        const unsigned __int128 sum = static_cast<unsigned __int128>(a.words[i]) + b.words[i] + carry;
        out.words[i] = static_cast<std::uint64_t>(sum);
        carry = static_cast<unsigned>(sum >> 64);
    }
    return out;
}

ring_id ring_sub(const ring_id & a, const ring_id & b) noexcept
{
    ring_id out;
    std::uint64_t borrow = 0;
    for (std::size_t i = 0; i < 4; ++i)
    {
        const std::uint64_t d = a.words[i] - b.words[i];
        const std::uint64_t next_borrow = (a.words[i] < b.words[i] || d < borrow) ? 1 : 0;
        out.words[i] = d - borrow;
        borrow = next_borrow;
    }
    return out;
}

ring_id ring_half(const ring_id & a) noexcept
{
    ring_id out;
    for (std::size_t i = 0; i < 4; ++i)
    {
        const std::uint64_t high = i < 3 ? a.words[i + 1] << 63 : 0;
        out.words[i] = (a.words[i] >> 1) | high;
    }
    return out;
}

namespace
{

// floor(2^256 / n) modulo 2^256: long division of the five-word number 1:0:0:0:0. For n = 1 the
// quotient is 2^256 itself, which is 0 modulo 2^256.
ring_id ring_fraction(std::uint64_t n) noexcept
{
    ring_id q;
    unsigned __int128 remainder = 1 % n;
    for (int i = 3; i >= 0; --i)
    {
        const unsigned __int128 current = (remainder << 64) | 0u;
        q.words[static_cast<std::size_t>(i)] = static_cast<std::uint64_t>(current / n);
        remainder = current % n;
    }
    return q;
}

ring_id ring_multiply(const ring_id & a, std::uint64_t m) noexcept
{
    ring_id out;
    std::uint64_t carry = 0;
    for (std::size_t i = 0; i < 4; ++i)
    {
        const unsigned __int128 product = static_cast<unsigned __int128>(a.words[i]) * m + carry;
        out.words[i] = static_cast<std::uint64_t>(product);
        carry = static_cast<std::uint64_t>(product >> 64);
    }
    return out;
}

} // namespace

ring_id evenly_spaced_id(std::size_t i, std::size_t n) noexcept
{
    const ring_id step = ring_fraction(n);
    return ring_sub(ring_multiply(step, i + 1), ring_id{{1, 0, 0, 0}});
}

ring_id arc_middle(const ring_id & from, const ring_id & to) noexcept
{
    ring_id length = ring_sub(to, from);
    if (length.is_zero())
    {
        // The whole circle: a lone node's arc.
        length = ring_id::max();
    }
    ring_id half = ring_half(length);
    if (half.is_zero())
    {
        half = ring_id{{1, 0, 0, 0}};
    }
    return ring_add(from, half);
}

} // namespace zlk::node
