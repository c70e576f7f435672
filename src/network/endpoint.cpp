#include "network/endpoint.hpp"

#include <arpa/inet.h>

#include <asio/io_context.hpp>
#include <asio/ip/address.hpp>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "log/logger.hpp"
#include "network/socket_errors.hpp"

namespace zlk::network
{

namespace
{

constexpr std::string_view uri_scheme = "zlk://";

struct address_text
{
    std::string_view host;
    std::uint16_t port;
};

// Port: an unsigned decimal of 1 to 5 digits whose value fits 16 bits. Leading zeros are accepted.
bool parse_port(std::string_view text, std::uint16_t & port) noexcept
{
    if (text.empty())
    {
        return false;
    }
    std::uint32_t value = 0;
    for (const char c : text)
    {
        if (c < '0' || c > '9')
        {
            return false;
        }
        value = value * 10u + static_cast<std::uint32_t>(c - '0');
        if (value > 0xFFFFu)
        {
            return false;
        }
    }
    port = static_cast<std::uint16_t>(value);
    return true;
}

// Reads one address from the front of rest and advances past it; the separator after it is left.
bool parse_address(std::string_view & rest, address_text & out) noexcept
{
    std::size_t host_end = 0;
    if (!rest.empty() && rest.front() == '[')
    {
        const std::size_t close = rest.find(']');
        if (close == std::string_view::npos || close + 1 >= rest.size() || rest[close + 1] != ':')
        {
            return false;
        }
        out.host = rest.substr(1, close - 1);
        host_end = close + 1;
    }
    else
    {
        host_end = rest.find_first_of(":,]");
        if (host_end == std::string_view::npos || rest[host_end] != ':')
        {
            return false;
        }
        out.host = rest.substr(0, host_end);
    }
    if (out.host.empty())
    {
        return false;
    }
    // rest[host_end] is the ':' before the port.
    const std::size_t port_begin = host_end + 1;
    std::size_t port_end = rest.find(',', port_begin);
    if (port_end == std::string_view::npos)
    {
        port_end = rest.size();
    }
    if (!parse_port(rest.substr(port_begin, port_end - port_begin), out.port))
    {
        return false;
    }
    rest.remove_prefix(port_end);
    return true;
}

// The whole list: one or more addresses separated by single commas, nothing after the last.
bool parse_address_list(std::string_view text, std::vector<address_text> & out)
{
    if (text.substr(0, uri_scheme.size()) != uri_scheme)
    {
        return false;
    }
    std::string_view rest = text.substr(uri_scheme.size());
    for (;;)
    {
        address_text address{};
        if (!parse_address(rest, address))
        {
            return false;
        }
        out.push_back(address);
        if (rest.empty())
        {
            return true;
        }
        // parse_address stops only at ',' or the end.
        rest.remove_prefix(1);
    }
}

} // namespace

std::pair<boost::system::error_code, endpoint_set> parse_uri(const char * text)
{
    if (text == nullptr)
    {
        return {generic_error(EINVAL), {}};
    }
    const std::string copy(text);
    std::vector<address_text> addresses;
    if (!parse_address_list(copy, addresses))
    {
        log::log(log::level::error, "could not parse uri string {}", copy);
        return {generic_error(EINVAL), {}};
    }

    endpoint_set endpoints;
    for (const address_text & address : addresses)
    {
        endpoint ep;
        const boost::system::error_code ec = resolve_endpoint(address.host, address.port, ep);
        if (ec)
        {
            log::log(log::level::error, "could not resolve {}:{}: {}", address.host, address.port,
                     error_text(ec));
            continue;
        }
        endpoints.insert(ep);
    }
    return {boost::system::error_code{}, std::move(endpoints)};
}

boost::system::error_code resolve_endpoint(std::string_view host, std::uint16_t port, endpoint & out)
{
    if (host.empty())
    {
        return generic_error(EINVAL);
    }
    const std::string host_text(host);

    std::error_code ec;
    const asio::ip::address literal = asio::ip::make_address(host_text, ec);
    if (!ec)
    {
        out = endpoint(literal, port);
        return {};
    }

    // A name: look it up on a loop of our own, so that resolution never waits on the handle's
    // event-loop thread.
    asio::io_context io;
    asio::ip::tcp::resolver resolver(io);
    const auto results = resolver.resolve(host_text, std::to_string(port), ec);
    if (ec)
    {
        return to_error_code(ec);
    }
    if (results.empty())
    {
        return to_error_code(asio::error::host_not_found);
    }
    out = results.begin()->endpoint();
    return {};
}

boost::system::error_code resolve_uri(const char * text, endpoint & out)
{
    if (text == nullptr)
    {
        log::log(log::level::error, "could not resolve uri {}: {}", "(null)",
                 error_text(generic_error(EINVAL)));
        return generic_error(EINVAL);
    }
    std::vector<address_text> addresses;
    boost::system::error_code ec;
    if (!parse_address_list(text, addresses) || addresses.size() != 1)
    {
        ec = generic_error(EINVAL);
    }
    else
    {
        ec = resolve_endpoint(addresses.front().host, addresses.front().port, out);
    }
    if (ec)
    {
        log::log(log::level::error, "could not resolve uri {}: {}", text, error_text(ec));
    }
    return ec;
}

std::size_t format_address_to(const endpoint & ep, char * out) noexcept
{
    const asio::ip::address address = ep.address();
    char host[INET6_ADDRSTRLEN + 1] = {};
    if (address.is_v4())
    {
        const auto bytes = address.to_v4().to_bytes();
        ::inet_ntop(AF_INET, bytes.data(), host, sizeof host);
    }
    else
    {
        const auto bytes = address.to_v6().to_bytes();
        ::inet_ntop(AF_INET6, bytes.data(), host, sizeof host);
    }
    const std::size_t n = std::strlen(host);
    std::memcpy(out, host, n);
    return n;
}

std::size_t format_endpoint_to(const endpoint & ep, char * out) noexcept
{
    char host[max_endpoint_text];
    const std::size_t n = format_address_to(ep, host);
    const auto result =
        ep.address().is_v4()
            ? fmt::format_to_n(out, max_endpoint_text, "{}:{}", std::string_view(host, n), ep.port())
            : fmt::format_to_n(out, max_endpoint_text, "[{}]:{}", std::string_view(host, n), ep.port());
    return result.size < max_endpoint_text ? result.size : max_endpoint_text;
}

std::string format_endpoint(const endpoint & ep)
{
    char text[max_endpoint_text];
    return std::string(text, format_endpoint_to(ep, text));
}

} // namespace zlk::network
