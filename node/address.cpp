#include "node/address.hpp"

#include <asio/io_context.hpp>
#include <fmt/format.h>

#include <charconv>

namespace zlk::node
{

std::optional<asio::ip::tcp::endpoint> parse_endpoint(std::string_view text)
{
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == text.size())
    {
        return std::nullopt;
    }
    std::string_view host = text.substr(0, colon);
    const std::string_view port_text = text.substr(colon + 1);
    unsigned port = 0;
    const auto [end, ec] = std::from_chars(port_text.data(), port_text.data() + port_text.size(), port);
    if (ec != std::errc() || end != port_text.data() + port_text.size() || port > 65535)
    {
        return std::nullopt;
    }
    if (host.front() == '[')
    {
        if (host.size() < 3 || host.back() != ']')
        {
            return std::nullopt;
        }
        host = host.substr(1, host.size() - 2);
    }
    std::error_code error;
    const asio::ip::address address = asio::ip::make_address(std::string(host), error);
    if (!error)
    {
        return asio::ip::tcp::endpoint(address, static_cast<unsigned short>(port));
    }
    asio::io_context io;
    asio::ip::tcp::resolver resolver(io);
    const auto results = resolver.resolve(std::string(host), std::to_string(port), error);
    if (error || results.empty())
    {
        return std::nullopt;
    }
    return results.begin()->endpoint();
}

std::string endpoint_text(const asio::ip::tcp::endpoint & ep)
{
    if (ep.address().is_v6())
    {
        return fmt::format("[{}]:{}", ep.address().to_string(), ep.port());
    }
    return fmt::format("{}:{}", ep.address().to_string(), ep.port());
}

} // namespace zlk::node
