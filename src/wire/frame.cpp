#include "wire/frame.hpp"

#include "log/logger.hpp"

namespace zlk::protocol
{

using serialization::cursor;
using serialization::writer;

void encode_message(writer & w, const message & m)
{
    w.put_u8(static_cast<std::uint8_t>(m.index()));
    serialization::marshal(w, m);
}

error_code decode_message(cursor & c, message & m)
{
    std::uint8_t tag = 0;
    if (error_code ec = serialization::read_u8(c, tag))
    {
        return ec;
    }
    // The range test lets one tag past the last kind through; it reads nothing and leaves m as it
    // was. Kept so, as the nodes' own decoder does the same.
    if (tag > message_kind_count)
    {
        return serialization::inconsistent_result();
    }
    if (tag == message_kind_count)
    {
        return {};
    }
    return serialization::unmarshal_kind(c, m, tag);
}

void encode_frame(const message & m, serialization::scatter_list & scatter, std::span<std::uint8_t> scratch)
{
    writer w(scatter, scratch);
    w.put_u32(frame_head);
    std::uint8_t * size_field = w.put_placeholder(8);
    const std::size_t before = w.written();
    encode_message(w, m);
    serialization::detail::store_le(size_field, static_cast<std::uint64_t>(w.written() - before));
}

void encode_sealed_frame(std::span<const std::uint8_t> sealed, serialization::scatter_list & scatter,
                         std::span<std::uint8_t> scratch)
{
    writer w(scatter, scratch);
    w.put_u32(frame_head);
    std::uint8_t * size_field = w.put_placeholder(8);
    const std::size_t before = w.written();
    w.put_bytes(sealed);
    serialization::detail::store_le(size_field, static_cast<std::uint64_t>(w.written() - before));
}

void encode_frame(const message & m, serialization::scatter_list & scatter,
                  std::vector<std::uint8_t> & scratch)
{
    const std::size_t bound = frame_bound(m);
    if (scratch.size() < bound)
    {
        scratch.resize(bound);
    }
    encode_frame(m, scatter, std::span<std::uint8_t>(scratch));
}

error_code check_header(std::span<const std::uint8_t> view) noexcept
{
    using serialization::detail::load_le;
    if (view.size() < 5 || load_le<std::uint16_t>(view.data()) != frame_magic)
    {
        return make_error_code(error::invalid_header);
    }
    const std::uint16_t version = load_le<std::uint16_t>(view.data() + 2);
    if (version == protocol_version)
    {
        return {};
    }
    // Versions 20 to 255 are other generations of this protocol, told by a plausible size (code 1);
    // a missing size, or the -8 of an empty frame, leaves it a broken header.
    if (static_cast<std::uint16_t>(version - 20) < 236)
    {
        if (view.size() - 4 < 8 || load_le<std::uint64_t>(view.data() + 4) == empty_frame_size)
        {
            return make_error_code(error::invalid_header);
        }
        return make_error_code(error::invalid_version);
    }
    return make_error_code(error::invalid_header);
}

error_code read_frame(std::span<const std::uint8_t> received, message & m, const frame_origin & origin,
                      bool * empty_frame)
{
    if (empty_frame != nullptr)
    {
        *empty_frame = false;
    }
    if (error_code ec = check_header(received))
    {
        return ec;
    }
    if (received.size() < frame_header_size)
    {
        return make_error_code(error::invalid_header);
    }
    const std::uint64_t size = serialization::detail::load_le<std::uint64_t>(received.data() + 4);
    if (size + 8 == 0)
    {
        if (empty_frame != nullptr)
        {
            *empty_frame = true;
        }
        return {};
    }
    if (size == 0)
    {
        return make_error_code(error::invalid_header);
    }
    const std::size_t available = received.size() - frame_header_size;
    if (size > available)
    {
        return serialization::end_of_input();
    }
    cursor c(received.data() + frame_header_size, static_cast<std::size_t>(size));
    if (error_code ec = decode_message(c, m))
    {
        return ec;
    }
    const std::size_t leftover = c.remaining + (available - static_cast<std::size_t>(size));
    if (leftover != 0)
    {
        log::log(log::level::warning,
                 "client {} - context {} - cannot decode reply from peer {}: spurious data ({} bytes)",
                 fmt::ptr(origin.client), origin.context, origin.peer, leftover);
    }
    return {};
}

} // namespace zlk::protocol
