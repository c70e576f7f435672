// Endpoints in text, as zlkd's command line and documents write them: "a.b.c.d:port" or
// "[v6-address]:port". A host name is resolved once, its first address taken.
#pragma once

#include <asio/ip/tcp.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace zlk::node
{

// Null when the text isn't HOST:PORT with a port from 0 to 65535 and a host that resolves.
std::optional<asio::ip::tcp::endpoint> parse_endpoint(std::string_view text);

std::string endpoint_text(const asio::ip::tcp::endpoint & ep);

} // namespace zlk::node
