// category_table: the process-wide table that lets an error_code cross the wire. A category object
// can't travel, so its index in this table does; both sides of a connection know the same table.
//
//   0 generic, 1 system, 2 netdb, 3 addrinfo, 4 misc (the socket library's), 5 network, 6 chord,
//   7 kernel, 8 persistence, 9 protocol, 10 serialization, 11 free, 12 client, 13 crypto, 14 query
//
// The table is filled once, on its first use, with every category at once: no index can read as
// generic only because its category happened not to be asked for yet. The free slot reads as generic.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <system_error>

namespace zlk::serialization
{

inline constexpr std::size_t category_table_size = 15;

// The index written for a category; 0 (generic) for a category that isn't in the table.
std::uint8_t category_index(const boost::system::error_category & category) noexcept;

// The category read for an index; generic for the free slot and for any index past the table.
const boost::system::error_category & category_at(std::uint8_t index) noexcept;

} // namespace zlk::serialization

namespace zlk::network
{

// The socket library reports std::error_code values. These are their Boost counterparts: the system
// categories (the standard one and the socket library's own) and the generic one map onto Boost's, the socket
// library's netdb, addrinfo and misc categories onto the wrappers below (which keep their values and texts),
// anything else is wrapped by Boost as it stands.
boost::system::error_code to_error_code(const std::error_code & ec) noexcept;

const boost::system::error_category & netdb_category() noexcept;
const boost::system::error_category & addrinfo_category() noexcept;
const boost::system::error_category & misc_category() noexcept;

} // namespace zlk::network
