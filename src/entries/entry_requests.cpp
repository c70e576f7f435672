#include "entries/entry_requests.hpp"

#include <cstring>

#include "base/error_categories.hpp"
#include "wire/content_compression.hpp"
#include "wire/marshal.hpp"
#include "wire/operations.hpp"

namespace zlk::client
{

using protocol::build_operation_body;
using protocol::operation;
using protocol::operation_body;
using serialization::writer;

namespace
{

constexpr std::size_t varint = serialization::varint_bound;

void put_expiry(writer & w, zlk_time_t expiry)
{
    const timespec t = wire_expiry(expiry);
    w.put_varint(static_cast<std::uint64_t>(t.tv_sec));
    w.put_varint(static_cast<std::uint64_t>(t.tv_nsec));
}

// build_operation_body, into the caller's storage when the whole body fits there.
template <typename WriteFields>
operation_body build_in(body_storage & storage, operation op, std::size_t fields_bound,
                        WriteFields && write_fields) noexcept
{
    const std::size_t bound = sizeof(std::uint16_t) + fields_bound;
    if (bound > protocol::detail::stack_body_scratch)
    {
        return build_operation_body(op, fields_bound, write_fields);
    }
    try
    {
        std::array<std::uint8_t, protocol::detail::stack_body_scratch> scratch;
        serialization::small_scatter<8> scatter;
        writer w(scatter, std::span<std::uint8_t>(scratch).first(bound));
        w.put_u16(static_cast<std::uint16_t>(op));
        write_fields(w);
        const std::size_t size = scatter.total_size();
        if (size > storage.bytes.size())
        {
            return protocol::detail::finish_operation_body(scatter, op);
        }
        std::uint8_t * at = storage.bytes.data();
        for (const serialization::scatter_entry & e : scatter)
        {
            std::memcpy(at, e.data, e.size);
            at += e.size;
        }
        operation_body body;
        body.operation_class = static_cast<std::uint64_t>(protocol::class_of(op));
        body.data = storage.bytes.data();
        body.size = size;
        return body;
    }
    catch (const std::bad_alloc &)
    {
        return protocol::detail::out_of_memory_body();
    }
}

} // namespace

outgoing_content prepare_content(const void * data, std::size_t size, bool compress)
{
    outgoing_content out;
    out.bytes = content_bytes(static_cast<const std::uint8_t *>(data), size);
    if (compress && size != 0)
    {
        out.compressed = protocol::compress_content(out.bytes, true);
        if (out.compressed)
        {
            out.bytes = *out.compressed;
        }
    }
    return out;
}

content_bytes prepare_content(const void * data, std::size_t size, bool compress,
                              std::vector<std::uint8_t> & scratch)
{
    const content_bytes raw(static_cast<const std::uint8_t *>(data), size);
    if (compress && size != 0 && protocol::compress_content(raw, true, scratch))
    {
        return scratch;
    }
    return raw;
}

operation_body get_body(std::uint64_t offset, std::uint64_t length, kernel::entry_type kind) noexcept
{
    return build_operation_body(operation::get, 2 * varint + 1,
                                [&](writer & w)
                                {
                                    w.put_varint(offset);
                                    w.put_varint(length);
                                    w.put_u8(static_cast<std::uint8_t>(kind));
                                });
}

operation_body get_body(std::uint64_t offset, std::uint64_t length, kernel::entry_type kind,
                        body_storage & storage) noexcept
{
    return build_in(storage, operation::get, 2 * varint + 1,
                    [&](writer & w)
                    {
                        w.put_varint(offset);
                        w.put_varint(length);
                        w.put_u8(static_cast<std::uint8_t>(kind));
                    });
}

operation_body blob_write_body(operation op, alias_bytes alias, content_bytes content, zlk_time_t expiry,
                               body_storage & storage) noexcept
{
    return build_in(storage, op, 4 * varint,
                    [&](writer & w)
                    {
                        w.put_bytes(alias);
                        w.put_bytes(content);
                        put_expiry(w, expiry);
                    });
}

operation_body blob_write_body(operation op, alias_bytes alias, content_bytes content,
                               zlk_time_t expiry) noexcept
{
    return build_operation_body(op, 4 * varint,
                                [&](writer & w)
                                {
                                    w.put_bytes(alias);
                                    w.put_bytes(content);
                                    put_expiry(w, expiry);
                                });
}

operation_body int_write_body(operation op, alias_bytes alias, std::int64_t value, zlk_time_t expiry) noexcept
{
    return build_operation_body(op, 3 * varint + 8,
                                [&](writer & w)
                                {
                                    w.put_bytes(alias);
                                    w.put_i64(value);
                                    put_expiry(w, expiry);
                                });
}

operation_body int_add_body(std::int64_t addend) noexcept
{
    return build_operation_body(operation::int_add, 8 + 2 * varint,
                                [&](writer & w)
                                {
                                    w.put_i64(addend);
                                    put_expiry(w, zlk_preserve_expiration);
                                });
}

operation_body get_and_update_body(content_bytes content, zlk_time_t expiry) noexcept
{
    return build_operation_body(operation::get_and_update, 3 * varint + 1,
                                [&](writer & w)
                                {
                                    w.put_bytes(content);
                                    w.put_u8(0);
                                    put_expiry(w, expiry);
                                });
}

operation_body compare_and_swap_body(content_bytes replacement, content_bytes comparand,
                                     zlk_time_t expiry) noexcept
{
    return build_operation_body(operation::compare_and_swap, 4 * varint,
                                [&](writer & w)
                                {
                                    w.put_bytes(replacement);
                                    w.put_bytes(comparand);
                                    put_expiry(w, expiry);
                                });
}

operation_body remove_if_body(content_bytes comparand) noexcept
{
    return build_operation_body(operation::remove_if, varint + 1,
                                [&](writer & w)
                                {
                                    w.put_bytes(comparand);
                                    w.put_u8(0);
                                });
}

operation_body typed_body(operation op, std::uint8_t expected) noexcept
{
    return build_operation_body(op, 1, [&](writer & w) { w.put_u8(expected); });
}

operation_body expires_at_body(zlk_time_t expiry) noexcept
{
    return build_operation_body(operation::expires_at, 2 * varint,
                                [&](writer & w) { put_expiry(w, expiry); });
}

operation_body expires_from_now_body(std::int64_t milliseconds) noexcept
{
    return build_operation_body(operation::expires_from_now, varint,
                                [&](writer & w) { w.put_varint(static_cast<std::uint64_t>(milliseconds)); });
}

operation_body entry_info_body() noexcept
{
    return build_operation_body(operation::get_entry_info, 0, [](writer &) {});
}

operation_body transaction_state_body(std::uint8_t state) noexcept
{
    return build_operation_body(operation::transaction_state, 1, [&](writer & w) { w.put_u8(state); });
}

zlk_error_t decode_entry_info(std::span<const std::uint8_t> content, entry_info & out) noexcept
{
    if (content.size() != entry_info_size)
    {
        return zlk_e_invalid_reply;
    }
    const std::uint8_t * p = content.data();
    for (std::uint64_t & w : out.key.words)
    {
        w = serialization::detail::load_le<std::uint64_t>(p);
        p += 8;
    }
    out.type = *p++;
    std::uint64_t words[5];
    for (std::uint64_t & w : words)
    {
        w = serialization::detail::load_le<std::uint64_t>(p);
        p += 8;
    }
    out.size = words[0];
    out.modified = timespec{static_cast<std::int64_t>(words[1]), static_cast<std::int64_t>(words[2])};
    out.expiry = timespec{static_cast<std::int64_t>(words[3]), static_cast<std::int64_t>(words[4])};
    return zlk_e_ok;
}

zlk_time_t expiry_milliseconds(const timespec & t) noexcept
{
    return t.tv_sec * 1000 + t.tv_nsec / 1000000;
}

} // namespace zlk::client
