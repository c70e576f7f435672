#include "wire/messages.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace zlk::protocol
{
namespace
{

// Equal bytes, however each side is split into pieces.
bool same_content(std::span<const std::span<const std::uint8_t>> a,
                  std::span<const std::span<const std::uint8_t>> b) noexcept
{
    std::size_t ia = 0, ib = 0, oa = 0, ob = 0;
    for (;;)
    {
        while (ia < a.size() && oa == a[ia].size())
        {
            ++ia;
            oa = 0;
        }
        while (ib < b.size() && ob == b[ib].size())
        {
            ++ib;
            ob = 0;
        }
        if (ia == a.size() || ib == b.size())
        {
            return ia == a.size() && ib == b.size();
        }
        const std::size_t n = std::min(a[ia].size() - oa, b[ib].size() - ob);
        if (!std::equal(a[ia].begin() + oa, a[ia].begin() + oa + n, b[ib].begin() + ob))
        {
            return false;
        }
        oa += n;
        ob += n;
    }
}

constexpr std::array<std::string_view, message_kind_count> kind_names = {
    "chord_request_ping",
    "chord_request_timestamp",
    "chord_request_config",
    "chord_request_predecessor_changed",
    "chord_request_get_successor_of",
    "chord_request_new_range",
    "chord_request_node_stop",
    "chord_request_closest_preceding_finger",
    "chord_carrier_request",
    "chord_carrier_request batch",
    "chord_carrier_reply",
    "chord_carrier_reply batch",
    "uuid",
    "arc",
    "node_info",
    "config_directory_placeholder",
    "result",
};

} // namespace

std::size_t result::content_size() const noexcept
{
    std::size_t n = 0;
    for (const auto & piece : content)
    {
        n += piece.size();
    }
    return n;
}

bool operator==(const result & a, const result & b) noexcept
{
    return a.error == b.error && a.value == b.value && a.stamp == b.stamp &&
           a.profile_name == b.profile_name && a.profile == b.profile && same_content(a.content, b.content);
}

std::string_view message_kind_name(std::size_t tag) noexcept
{
    return tag < kind_names.size() ? kind_names[tag] : std::string_view("unknown");
}

} // namespace zlk::protocol

namespace zlk::chord
{

namespace
{

// The body's bytes as one sequence of ranges, whichever way the request holds them.
std::span<const serialization::scatter_entry> body_ranges(const chord_carrier_request & r,
                                                          serialization::scatter_entry & whole) noexcept
{
    if (!r.body_pieces.empty())
    {
        return r.body_pieces;
    }
    whole = {r.body.data(), r.body.size()};
    return {&whole, 1};
}

bool same_bytes(std::span<const serialization::scatter_entry> a,
                std::span<const serialization::scatter_entry> b) noexcept
{
    std::size_t i = 0, j = 0, at_a = 0, at_b = 0;
    for (;;)
    {
        while (i < a.size() && at_a == a[i].size)
        {
            ++i;
            at_a = 0;
        }
        while (j < b.size() && at_b == b[j].size)
        {
            ++j;
            at_b = 0;
        }
        if (i == a.size() || j == b.size())
        {
            return i == a.size() && j == b.size();
        }
        const std::size_t n = std::min(a[i].size - at_a, b[j].size - at_b);
        if (std::memcmp(a[i].data + at_a, b[j].data + at_b, n) != 0)
        {
            return false;
        }
        at_a += n;
        at_b += n;
    }
}

} // namespace

std::uint16_t chord_carrier_request::operation() const noexcept
{
    serialization::scatter_entry whole{};
    std::uint8_t head[2];
    std::size_t have = 0;
    for (const serialization::scatter_entry & e : body_ranges(*this, whole))
    {
        for (std::size_t k = 0; k < e.size && have < 2; ++k)
        {
            head[have++] = e.data[k];
        }
        if (have == 2)
        {
            return serialization::detail::load_le<std::uint16_t>(head);
        }
    }
    return 0;
}

bool operator==(const chord_carrier_request & a, const chord_carrier_request & b) noexcept
{
    serialization::scatter_entry whole_a{};
    serialization::scatter_entry whole_b{};
    return a.from == b.from && a.key == b.key && a.client_id == b.client_id &&
           a.transaction == b.transaction && a.required_access == b.required_access && a.valid == b.valid &&
           a.operation_class == b.operation_class &&
           same_bytes(body_ranges(a, whole_a), body_ranges(b, whole_b));
}

} // namespace zlk::chord

namespace zlk::serialization
{
namespace
{

using namespace zlk::chord;

// Bounds of the alternatives, without the tag.
constexpr std::size_t bound_of(const chord_request_ping &) noexcept
{
    return 0;
}
constexpr std::size_t bound_of(const chord_request_timestamp &) noexcept
{
    return 0;
}
constexpr std::size_t bound_of(const chord_request_config &) noexcept
{
    return 0;
}
constexpr std::size_t bound_of(const config_directory_placeholder &) noexcept
{
    return 0;
}
constexpr std::size_t bound_of(const chord_request_predecessor_changed &) noexcept
{
    return node_info_bound;
}
constexpr std::size_t bound_of(const chord_request_get_successor_of &) noexcept
{
    return ring_id_size;
}
constexpr std::size_t bound_of(const chord_request_closest_preceding_finger &) noexcept
{
    return ring_id_size;
}
constexpr std::size_t bound_of(const chord_request_new_range &) noexcept
{
    return arc_bound + uuid_bound;
}
constexpr std::size_t bound_of(const chord_request_node_stop &) noexcept
{
    return bytes_bound;
}
constexpr std::size_t bound_of(const chord_carrier_request &) noexcept
{
    return carrier_request_bound;
}
constexpr std::size_t bound_of(const zlk::uuid &) noexcept
{
    return uuid_bound;
}
constexpr std::size_t bound_of(const arc &) noexcept
{
    return arc_bound;
}
constexpr std::size_t bound_of(const node_info &) noexcept
{
    return node_info_bound;
}
std::size_t bound_of(const protocol::result & r) noexcept
{
    return marshal_bound(r);
}
std::size_t bound_of(const chord_carrier_reply & r) noexcept
{
    return marshal_bound(r);
}
std::size_t bound_of(const chord_carrier_request_batch & b) noexcept
{
    return varint_bound + b.size() * carrier_request_bound;
}
std::size_t bound_of(const chord_carrier_reply_batch & b) noexcept
{
    std::size_t n = varint_bound;
    for (const chord_carrier_reply & r : b)
    {
        n += marshal_bound(r);
    }
    return n;
}

// Writers of the alternatives that have no overload of their own in the headers.
void write_kind(writer &, const chord_request_ping &) {}
void write_kind(writer &, const chord_request_timestamp &) {}
void write_kind(writer &, const chord_request_config &) {}
void write_kind(writer &, const config_directory_placeholder &) {}
void write_kind(writer & w, const chord_request_predecessor_changed & m)
{
    marshal(w, m.node);
}
void write_kind(writer & w, const chord_request_get_successor_of & m)
{
    marshal(w, m.position);
}
void write_kind(writer & w, const chord_request_closest_preceding_finger & m)
{
    marshal(w, m.position);
}
void write_kind(writer & w, const chord_request_new_range & m)
{
    marshal(w, m.range);
    marshal(w, m.stamp);
}
void write_kind(writer & w, const chord_request_node_stop & m)
{
    w.put_string(m.reason);
}
void write_kind(writer & w, const chord_carrier_request_batch & b)
{
    write_vector(w, std::span<const chord_carrier_request>(b),
                 [](writer & out, const chord_carrier_request & r) { marshal(out, r); });
}
void write_kind(writer & w, const chord_carrier_reply_batch & b)
{
    write_vector(w, std::span<const chord_carrier_reply>(b),
                 [](writer & out, const chord_carrier_reply & r) { marshal(out, r); });
}
template <typename T>
void write_kind(writer & w, const T & m)
{
    marshal(w, m);
}

// Readers likewise.
error_code read_kind(cursor &, chord_request_ping &) noexcept
{
    return {};
}
error_code read_kind(cursor &, chord_request_timestamp &) noexcept
{
    return {};
}
error_code read_kind(cursor &, chord_request_config &) noexcept
{
    return {};
}
error_code read_kind(cursor &, config_directory_placeholder &) noexcept
{
    return {};
}
error_code read_kind(cursor & c, chord_request_predecessor_changed & m) noexcept
{
    return unmarshal(c, m.node);
}
error_code read_kind(cursor & c, chord_request_get_successor_of & m) noexcept
{
    return unmarshal(c, m.position);
}
error_code read_kind(cursor & c, chord_request_closest_preceding_finger & m) noexcept
{
    return unmarshal(c, m.position);
}
error_code read_kind(cursor & c, chord_request_new_range & m) noexcept
{
    return read_fields(c, m.range, m.stamp);
}
error_code read_kind(cursor & c, chord_request_node_stop & m)
{
    return read_bytes(c, m.reason);
}
error_code read_kind(cursor & c, chord_carrier_request_batch & b)
{
    return read_vector(c, b, [](cursor & in, chord_carrier_request & r) { return unmarshal(in, r); });
}
error_code read_kind(cursor & c, chord_carrier_reply_batch & b)
{
    return read_vector(c, b, [](cursor & in, chord_carrier_reply & r) { return unmarshal(in, r); });
}
template <typename T>
error_code read_kind(cursor & c, T & m)
{
    return unmarshal(c, m);
}

template <std::size_t I>
error_code read_alternative(cursor & c, protocol::message & m)
{
    return read_kind(c, m.emplace<I>());
}

using alternative_reader = error_code (*)(cursor &, protocol::message &);

template <std::size_t... I>
constexpr std::array<alternative_reader, sizeof...(I)> make_readers(std::index_sequence<I...>) noexcept
{
    return {&read_alternative<I>...};
}

constexpr auto alternative_readers = make_readers(std::make_index_sequence<protocol::message_kind_count>{});

} // namespace

std::size_t marshal_bound(const protocol::result & r) noexcept
{
    return error_code_bound + bytes_bound + 8 + uuid_bound + short_string_bound + varint_bound +
           r.profile.size() * (1 + varint_bound);
}

std::size_t marshal_bound(const chord::chord_carrier_reply & r) noexcept
{
    return node_info_bound + uuid_bound + varint_bound + marshal_bound(r.result);
}

std::size_t marshal_bound(const protocol::message & m) noexcept
{
    return std::visit([](const auto & alternative) { return bound_of(alternative); }, m);
}

void marshal(writer & w, const protocol::result & r)
{
    marshal(w, r.error);
    w.put_varint(r.content_size());
    for (const auto & piece : r.content)
    {
        w.put_raw(piece.data(), piece.size());
    }
    w.put_u64(r.value);
    marshal(w, r.stamp);
    w.put_short_string(r.profile_name);
    write_vector(w, std::span<const protocol::profile_entry>(r.profile),
                 [](writer & out, const protocol::profile_entry & e)
                 {
                     out.put_u8(e.label);
                     out.put_varint(e.value);
                 });
}

error_code unmarshal(cursor & c, protocol::result & r)
{
    std::span<const std::uint8_t> content;
    if (error_code ec = read_fields(c, r.error, content))
    {
        return ec;
    }
    r.content.clear();
    r.content.push_back(content);
    constexpr auto short_string = [](cursor & in, std::string_view & v) { return read_short_string(in, v); };
    if (error_code ec = read_fields(c, as_fixed(r.value), r.stamp, with_reader(short_string, r.profile_name)))
    {
        return ec;
    }
    return read_vector(c, r.profile,
                       [](cursor & in, protocol::profile_entry & e)
                       { return read_fields(in, e.label, as_varint(e.value)); });
}

void marshal(writer & w, const chord::chord_carrier_request & r)
{
    marshal(w, r.from);
    marshal(w, r.key);
    w.put_varint(r.client_id);
    marshal(w, r.transaction);
    w.put_u16(r.required_access);
    w.put_u8(r.valid);
    w.put_varint(r.operation_class);
    if (r.body_pieces.empty())
    {
        w.put_bytes(r.body);
        return;
    }
    std::size_t total = 0;
    for (const serialization::scatter_entry & e : r.body_pieces)
    {
        total += e.size;
    }
    w.put_varint(total);
    for (const serialization::scatter_entry & e : r.body_pieces)
    {
        w.put_raw(e.data, e.size);
    }
}

error_code unmarshal(cursor & c, chord::chord_carrier_request & r) noexcept
{
    if (error_code ec = read_fields(c, r.from, r.key, as_varint(r.client_id), r.transaction,
                                    r.required_access, r.valid, as_varint(r.operation_class)))
    {
        return ec;
    }
    r.body_owner.reset();
    r.body_pieces = {};
    return read_bytes(c, r.body);
}

void marshal(writer & w, const chord::chord_carrier_reply & r)
{
    marshal(w, r.from);
    marshal(w, r.transaction);
    w.put_varint(r.client_id);
    marshal(w, r.result);
}

error_code unmarshal(cursor & c, chord::chord_carrier_reply & r)
{
    return read_fields(c, r.from, r.transaction, as_varint(r.client_id), r.result);
}

void marshal(writer & w, const protocol::message & m)
{
    std::visit([&w](const auto & alternative) { write_kind(w, alternative); }, m);
}

error_code unmarshal_kind(cursor & c, protocol::message & m, std::size_t index)
{
    return alternative_readers[index](c, m);
}

} // namespace zlk::serialization
