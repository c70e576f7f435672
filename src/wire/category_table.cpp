#include "wire/category_table.hpp"

#include <asio/error.hpp>

#include <array>
#include <string>

#include "base/error_categories.hpp"

namespace zlk::network
{
namespace
{

// A socket library category seen through Boost: same values, same texts.
class socket_library_category final : public boost::system::error_category
{
public:
    socket_library_category(const char * name, const std::error_category & original) noexcept
        : _name(name)
        , _original(original)
    {
    }

    const char * name() const noexcept override { return _name; }
    std::string message(int value) const override { return _original.message(value); }

    const std::error_category & original() const noexcept { return _original; }

private:
    const char * _name;
    const std::error_category & _original;
};

const socket_library_category & netdb() noexcept
{
    static const socket_library_category c("asio.netdb", asio::error::get_netdb_category());
    return c;
}
const socket_library_category & addrinfo() noexcept
{
    static const socket_library_category c("asio.addrinfo", asio::error::get_addrinfo_category());
    return c;
}
const socket_library_category & misc() noexcept
{
    static const socket_library_category c("asio.misc", asio::error::get_misc_category());
    return c;
}

} // namespace

const boost::system::error_category & netdb_category() noexcept
{
    return netdb();
}
const boost::system::error_category & addrinfo_category() noexcept
{
    return addrinfo();
}
const boost::system::error_category & misc_category() noexcept
{
    return misc();
}

boost::system::error_code to_error_code(const std::error_code & ec) noexcept
{
    const std::error_category & category = ec.category();
    // The socket library reports errno values in a system category of its own.
    if (category == std::system_category() || category == asio::error::get_system_category())
    {
        return {ec.value(), boost::system::system_category()};
    }
    if (category == std::generic_category())
    {
        return {ec.value(), boost::system::generic_category()};
    }
    for (const socket_library_category * c : {&netdb(), &addrinfo(), &misc()})
    {
        if (category == c->original())
        {
            return {ec.value(), *c};
        }
    }
    return boost::system::error_code(ec);
}

} // namespace zlk::network

namespace zlk::serialization
{
namespace
{

using table = std::array<const boost::system::error_category *, category_table_size>;

const table & categories() noexcept
{
    static const table t = {
        &boost::system::generic_category(),
        &boost::system::system_category(),
        &network::netdb_category(),
        &network::addrinfo_category(),
        &network::misc_category(),
        &network::network_category(),
        &chord::chord_category(),
        &kernel::kernel_category(),
        &persistence::persistence_category(),
        &protocol::protocol_category(),
        &serialization_category(),
        &boost::system::generic_category(),
        &client_category(),
        &crypto::crypto_category(),
        &query::query_category(),
    };
    return t;
}

} // namespace

std::uint8_t category_index(const boost::system::error_category & category) noexcept
{
    const table & t = categories();
    for (std::size_t i = 0; i < t.size(); ++i)
    {
        if (*t[i] == category)
        {
            return static_cast<std::uint8_t>(i);
        }
    }
    return 0;
}

const boost::system::error_category & category_at(std::uint8_t index) noexcept
{
    const table & t = categories();
    return index < t.size() ? *t[index] : boost::system::generic_category();
}

} // namespace zlk::serialization
