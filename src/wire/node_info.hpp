// A node as the ring knows it (node_info: position and endpoint) and the arc that a node owns
// (predecessor, node, successor), with their wire forms.
//
// Endpoint on the wire: a form byte (0x80 IPv4, 0x04 IPv6), the address, the port as u16. An IPv4
// address goes as the little-endian u32 of its host-order value (127.0.0.1 is 01 00 00 7F); an IPv6
// address as its 16 bytes in network order.
#pragma once

#include <asio/ip/tcp.hpp>

#include <cstddef>
#include <cstdint>

#include "base/ring_id.hpp"
#include "wire/marshal.hpp"

namespace zlk::chord
{

struct node_info
{
    ring_id id{};
    // Default: 0.0.0.0 port 0, the unset endpoint.
    asio::ip::tcp::endpoint endpoint;

    // Unset: zero id and the unspecified endpoint (what a client puts in the `from` of a request).
    bool is_unset() const noexcept;

    friend bool operator==(const node_info & a, const node_info & b) noexcept
    {
        return a.id == b.id && a.endpoint == b.endpoint;
    }
};

struct arc
{
    node_info predecessor;
    node_info node;
    node_info successor;

    friend bool operator==(const arc &, const arc &) noexcept = default;
};

// A ring of one node (three equal ids), or a node distinct from both neighbours' view of it; and no
// endpoint left unset. Two equal ids out of three is a half-built ring.
bool arc_is_valid(const arc & a) noexcept;

// Whether `position` falls in (predecessor_id, node_id], going round through zero when the arc does.
bool arc_contains(const ring_id & predecessor_id, const ring_id & node_id, const ring_id & position) noexcept;

} // namespace zlk::chord

namespace zlk::serialization
{

inline constexpr std::uint8_t ipv4_form = 0x80;
inline constexpr std::uint8_t ipv6_form = 0x04;
inline constexpr std::size_t endpoint_bound = 1 + 16 + 2;
inline constexpr std::size_t node_info_bound = ring_id_size + endpoint_bound;
inline constexpr std::size_t arc_bound = 3 * node_info_bound;

void marshal(writer & w, const asio::ip::tcp::endpoint & endpoint);
// Missing bytes: code 2; a form byte other than the two above: code 1.
error_code unmarshal(cursor & c, asio::ip::tcp::endpoint & endpoint) noexcept;

void marshal(writer & w, const chord::node_info & node);
error_code unmarshal(cursor & c, chord::node_info & node) noexcept;

void marshal(writer & w, const chord::arc & a);
error_code unmarshal(cursor & c, chord::arc & a) noexcept;

} // namespace zlk::serialization
