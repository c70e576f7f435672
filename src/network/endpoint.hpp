// Node addresses: the URI list a user names a cluster by, read into resolved endpoints, and endpoints
// printed back.
//
// A URI is "zlk://" followed by one or more "host:port" or "[v6-host]:port" addresses separated by ",".
// The scheme is case-sensitive. Any one reachable node is enough to find the rest of a ring, so an
// address that doesn't resolve is logged and left out rather than failing the whole list.
#pragma once

#include <asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>
#include <fmt/format.h>

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace zlk::network
{

using endpoint = asio::ip::tcp::endpoint;

// Ordered with the socket library's comparison: two names of one address count once.
using endpoint_set = std::set<endpoint>;

// Success whatever the number of addresses that resolved (the caller decides what an empty set means);
// EINVAL (generic) with an empty set for a null text or a text that doesn't parse.
std::pair<boost::system::error_code, endpoint_set> parse_uri(const char * text);

// A literal IPv4 or IPv6 address is used as it is; a name is resolved synchronously, the first result
// taken. An empty host gives EINVAL; a resolver failure returns its error.
boost::system::error_code resolve_endpoint(std::string_view host, std::uint16_t port, endpoint & out);

// The same syntax as parse_uri for exactly one address; any failure is logged.
boost::system::error_code resolve_uri(const char * text, endpoint & out);

// "a.b.c.d:port" for IPv4, "[v6]:port" for IPv6.
std::string format_endpoint(const endpoint & ep);

// Longest text format_endpoint_to writes: a bracketed IPv6 address with a scope, ":" and five digits.
inline constexpr std::size_t max_endpoint_text = 80;

// The same text into a caller's buffer of at least max_endpoint_text bytes, without allocating; returns
// the length written.
std::size_t format_endpoint_to(const endpoint & ep, char * out) noexcept;
// The address alone, without brackets.
std::size_t format_address_to(const endpoint & ep, char * out) noexcept;

// An endpoint's address alone, for a log line.
struct address_of
{
    const endpoint & ep;
};

} // namespace zlk::network

// Endpoints go into log lines as format_endpoint prints them, without allocating.
template <>
struct fmt::formatter<zlk::network::endpoint> : fmt::formatter<fmt::string_view>
{
    template <typename FormatContext>
    auto format(const zlk::network::endpoint & ep, FormatContext & ctx) const -> decltype(ctx.out())
    {
        char text[zlk::network::max_endpoint_text];
        const std::size_t n = zlk::network::format_endpoint_to(ep, text);
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(text, n), ctx);
    }
};

template <>
struct fmt::formatter<zlk::network::address_of> : fmt::formatter<fmt::string_view>
{
    template <typename FormatContext>
    auto format(const zlk::network::address_of & a, FormatContext & ctx) const -> decltype(ctx.out())
    {
        char text[zlk::network::max_endpoint_text];
        const std::size_t n = zlk::network::format_address_to(a.ep, text);
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(text, n), ctx);
    }
};
