#include "wire/marshal.hpp"

#include "wire/category_table.hpp"
#include "wire/node_info.hpp"

namespace zlk::serialization
{

error_code read_bytes(cursor & c, std::string & out)
{
    std::string_view view;
    error_code ec = read_bytes(c, view);
    if (!ec)
    {
        out.assign(view);
    }
    return ec;
}

error_code read_bytes(cursor & c, std::vector<std::uint8_t> & out)
{
    std::span<const std::uint8_t> view;
    error_code ec = read_bytes(c, view);
    if (!ec)
    {
        out.assign(view.begin(), view.end());
    }
    return ec;
}

error_code read_short_string(cursor & c, std::string_view & out) noexcept
{
    cursor at = c;
    std::uint16_t length = 0;
    if (error_code ec = read_u16(at, length))
    {
        return ec;
    }
    if (length > at.remaining)
    {
        return end_of_input();
    }
    std::span<const std::uint8_t> view = take(at, length);
    out = std::string_view(reinterpret_cast<const char *>(view.data()), view.size());
    c = at;
    return {};
}

error_code read_short_string(cursor & c, std::string & out)
{
    std::string_view view;
    error_code ec = read_short_string(c, view);
    if (!ec)
    {
        out.assign(view);
    }
    return ec;
}

void marshal(writer & w, const chord::ring_id & id)
{
    w.put_u64s(id.words);
}

error_code unmarshal(cursor & c, chord::ring_id & id) noexcept
{
    if (c.remaining < ring_id_size)
    {
        return end_of_input();
    }
    for (std::size_t i = 0; i < 4; ++i)
    {
        id.words[i] = detail::load_le<std::uint64_t>(c.data + 8 * i);
    }
    c.skip(ring_id_size);
    return {};
}

void marshal(writer & w, const timespec & t)
{
    w.put_varint(static_cast<std::uint64_t>(t.tv_sec));
    w.put_varint(static_cast<std::uint64_t>(t.tv_nsec));
}

void marshal(writer & w, const zlk_timespec_t & t)
{
    marshal(w, timespec(t));
}

error_code unmarshal(cursor & c, timespec & t) noexcept
{
    cursor at = c;
    timespec read;
    if (error_code ec = read_varint(at, read.tv_sec))
    {
        return ec;
    }
    if (error_code ec = read_varint(at, read.tv_nsec))
    {
        return ec;
    }
    t = read;
    c = at;
    return {};
}

error_code unmarshal(cursor & c, zlk_timespec_t & t) noexcept
{
    timespec read;
    error_code ec = unmarshal(c, read);
    if (!ec)
    {
        t = read.to_c();
    }
    return ec;
}

void marshal(writer & w, const zlk_ts_range_t & range)
{
    marshal(w, range.begin);
    marshal(w, range.end);
}

error_code unmarshal(cursor & c, zlk_ts_range_t & range) noexcept
{
    if (error_code ec = unmarshal(c, range.begin))
    {
        return ec;
    }
    return unmarshal(c, range.end);
}

void marshal(writer & w, std::span<const zlk_ts_range_t> ranges)
{
    write_vector(w, ranges, [](writer & out, const zlk_ts_range_t & r) { marshal(out, r); });
}

error_code unmarshal(cursor & c, std::vector<zlk_ts_range_t> & ranges)
{
    return read_vector(c, ranges, [](cursor & in, zlk_ts_range_t & r) { return unmarshal(in, r); });
}

void marshal(writer & w, const uuid & u)
{
    marshal(w, u.time);
    marshal(w, u.id);
    w.put_varint32(u.number);
}

error_code unmarshal(cursor & c, uuid & u) noexcept
{
    if (error_code ec = unmarshal(c, u.time))
    {
        return ec;
    }
    if (error_code ec = unmarshal(c, u.id))
    {
        return ec;
    }
    return read_varint32(c, u.number);
}

void marshal(writer & w, const boost::system::error_code & ec)
{
    w.put_varint32(static_cast<std::uint32_t>(ec.value()));
    w.put_u8(category_index(ec.category()));
}

error_code unmarshal(cursor & c, boost::system::error_code & ec) noexcept
{
    std::uint32_t value = 0;
    if (error_code e = read_varint32(c, value))
    {
        return e;
    }
    std::uint8_t index = 0;
    if (error_code e = read_u8(c, index))
    {
        return e;
    }
    ec.assign(static_cast<int>(value), category_at(index));
    return {};
}

void marshal(writer & w, const asio::ip::tcp::endpoint & endpoint)
{
    const asio::ip::address address = endpoint.address();
    if (address.is_v6())
    {
        w.put_u8(ipv6_form);
        const asio::ip::address_v6::bytes_type bytes = address.to_v6().to_bytes();
        w.put_copy(bytes.data(), bytes.size());
    }
    else
    {
        w.put_u8(ipv4_form);
        w.put_u32(address.to_v4().to_uint());
    }
    w.put_u16(endpoint.port());
}

error_code unmarshal(cursor & c, asio::ip::tcp::endpoint & endpoint) noexcept
{
    std::uint8_t form = 0;
    if (error_code ec = read_u8(c, form))
    {
        return ec;
    }
    asio::ip::address address;
    if (form == ipv4_form)
    {
        std::uint32_t v4 = 0;
        if (error_code ec = read_u32(c, v4))
        {
            return ec;
        }
        address = asio::ip::address_v4(v4);
    }
    else if (form == ipv6_form)
    {
        if (c.remaining < 16)
        {
            return end_of_input();
        }
        asio::ip::address_v6::bytes_type bytes;
        std::memcpy(bytes.data(), c.data, bytes.size());
        c.skip(bytes.size());
        address = asio::ip::address_v6(bytes);
    }
    else
    {
        return unexpected_byte();
    }
    std::uint16_t port = 0;
    if (error_code ec = read_u16(c, port))
    {
        return ec;
    }
    endpoint = asio::ip::tcp::endpoint(address, port);
    return {};
}

void marshal(writer & w, const chord::node_info & node)
{
    marshal(w, node.id);
    marshal(w, node.endpoint);
}

error_code unmarshal(cursor & c, chord::node_info & node) noexcept
{
    if (error_code ec = unmarshal(c, node.id))
    {
        return ec;
    }
    return unmarshal(c, node.endpoint);
}

void marshal(writer & w, const chord::arc & a)
{
    marshal(w, a.predecessor);
    marshal(w, a.node);
    marshal(w, a.successor);
}

error_code unmarshal(cursor & c, chord::arc & a) noexcept
{
    if (error_code ec = unmarshal(c, a.predecessor))
    {
        return ec;
    }
    if (error_code ec = unmarshal(c, a.node))
    {
        return ec;
    }
    return unmarshal(c, a.successor);
}

} // namespace zlk::serialization

namespace zlk::chord
{
namespace
{

bool is_unset(const asio::ip::tcp::endpoint & e) noexcept
{
    return e.port() == 0 && e.address().is_unspecified();
}

} // namespace

bool node_info::is_unset() const noexcept
{
    return id.is_zero() && chord::is_unset(endpoint);
}

bool arc_is_valid(const arc & a) noexcept
{
    if (is_unset(a.predecessor.endpoint) || is_unset(a.node.endpoint) || is_unset(a.successor.endpoint))
    {
        return false;
    }
    const bool node_is_predecessor = a.node.id == a.predecessor.id;
    const bool node_is_successor = a.node.id == a.successor.id;
    if (node_is_predecessor && node_is_successor)
    {
        return true;
    }
    return !node_is_predecessor && !node_is_successor;
}

bool arc_contains(const ring_id & predecessor_id, const ring_id & node_id, const ring_id & position) noexcept
{
    if (predecessor_id == node_id)
    {
        return true;
    }
    if (predecessor_id < node_id)
    {
        return predecessor_id < position && position <= node_id;
    }
    return position > predecessor_id || position <= node_id;
}

} // namespace zlk::chord
