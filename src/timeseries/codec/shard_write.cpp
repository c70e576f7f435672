#include "timeseries/codec/shard_write.hpp"

#include <bit>
#include <memory>
#include <new>
#include <type_traits>

#include "base/error_categories.hpp"

namespace zlk::timeseries
{

namespace ser = zlk::serialization;
using boost::system::error_code;

namespace
{

shard_write_bound payload_bound(const column_payload_variant & payload) noexcept
{
    return std::visit(
        [](const auto & p) -> shard_write_bound
        {
            using value_type = typename std::decay_t<decltype(p)>::value_type;
            const std::size_t offset_bytes = p.values.size() * sizeof(std::int64_t);
            if constexpr (std::is_same_v<value_type, byte_view>)
            {
                return {offset_bytes / 8 + 5, (offset_bytes / 16) * 10 + 40};
            }
            else if constexpr (std::is_same_v<value_type, timespec>)
            {
                return {6, (offset_bytes | 10) + 30};
            }
            else
            {
                return {6, offset_bytes + 40};
            }
        },
        payload);
}

// Fixed-size elements as they lie in memory on a little-endian host; assembled in the scratch area on
// any other (whose bound has room for the offsets' bytes for that).
void put_words(ser::writer & w, const std::int64_t * words, std::size_t n)
{
    if constexpr (std::endian::native == std::endian::little)
    {
        w.put_raw(words, n * sizeof(std::int64_t));
    }
    else
    {
        for (std::size_t i = 0; i < n; ++i)
        {
            w.put_i64(words[i]);
        }
    }
}

void put_values(ser::writer & w, const pod_vector<double> & values)
{
    static_assert(sizeof(double) == sizeof(std::int64_t));
    w.put_varint(values.size());
    if constexpr (std::endian::native == std::endian::little)
    {
        w.put_raw(values.data(), values.size() * sizeof(double));
    }
    else
    {
        for (const double v : values)
        {
            w.put_double(v);
        }
    }
}

void put_values(ser::writer & w, const pod_vector<std::int64_t> & values)
{
    w.put_varint(values.size());
    put_words(w, values.data(), values.size());
}

void put_values(ser::writer & w, const pod_vector<timespec> & values)
{
    static_assert(sizeof(timespec) == 2 * sizeof(std::int64_t));
    w.put_varint(values.size());
    if constexpr (std::endian::native == std::endian::little)
    {
        w.put_raw(values.data(), values.size() * sizeof(timespec));
    }
    else
    {
        for (const timespec & t : values)
        {
            w.put_i64(t.tv_sec);
            w.put_i64(t.tv_nsec);
        }
    }
}

void put_values(ser::writer & w, const pod_vector<byte_view> & values)
{
    w.put_varint(values.size());
    for (const byte_view & v : values)
    {
        w.put_bytes(v.data, v.size);
    }
}

error_code unexpected_value() noexcept
{
    return make_error_code(kernel::error::unexpected_value);
}

std::size_t fixed_size(kernel::column_type t) noexcept
{
    return t == kernel::column_type::timestamp ? 16 : 8;
}

error_code read_column(ser::cursor & c, column_type_lookup type_of, shard_write_column & out)
{
    if (error_code ec = ser::read_fields(c, ser::as_varint(out.index), out.name,
                                         ser::as_varint(out.shard_size), ser::as_varint(out.shard_start)))
    {
        return ec;
    }
    std::uint64_t rows = 0;
    if (error_code ec = ser::read_varint(c, rows))
    {
        return ec;
    }
    if (rows > c.remaining / sizeof(std::int64_t))
    {
        return ser::end_of_input();
    }
    out.rows = static_cast<std::size_t>(rows);
    out.offsets = ser::take(c, out.rows * sizeof(std::int64_t));
    if (error_code ec = type_of(out.index, out.type))
    {
        return ec;
    }
    std::size_t count = 0;
    if (error_code ec = ser::read_count(c, count))
    {
        return ec;
    }
    if (count != out.rows)
    {
        return unexpected_value();
    }
    if (kernel::holds_bytes(out.type))
    {
        out.bytes.resize(count);
        for (auto & v : out.bytes)
        {
            if (error_code ec = ser::read_bytes(c, v))
            {
                return ec;
            }
        }
        return {};
    }
    const std::size_t element = fixed_size(out.type);
    if (count > c.remaining / element)
    {
        return ser::end_of_input();
    }
    out.fixed = ser::take(c, count * element);
    return {};
}

} // namespace

shard_write_bound shard_write_bounds(const shard_write & m) noexcept
{
    const bool with_ranges = m.op == protocol::operation::ts_batch_push_truncate;
    shard_write_bound b{2, 20};
    if (m.chunk)
    {
        for (const column_chunk & col : m.chunk->columns)
        {
            const shard_write_bound p = payload_bound(col.payload);
            b.entries += 2 + p.entries + 4;
            b.scratch += 20 + p.scratch + 21;
        }
        b.entries += with_ranges ? 9 : 8;
        b.scratch += with_ranges ? 52 : 42;
    }
    else
    {
        b.entries += with_ranges ? 7 : 6;
        b.scratch += with_ranges ? 32 : 22;
    }
    if (with_ranges)
    {
        b.entries += m.ranges.size() * (sizeof(zlk_ts_range_t) / 8);
        b.scratch += m.ranges.size() * 40;
    }
    b.entries += 2;
    return b;
}

void encode_shard_write(ser::writer & w, const shard_write & m)
{
    w.put_u16(static_cast<std::uint16_t>(m.op));
    w.put_string(m.table);
    w.put_bytes(m.bucket_key.data(), m.bucket_key.size() + 1);
    if (m.chunk)
    {
        w.put_u8(chunk_present);
        w.put_varint(m.shard_size);
        w.put_varint(static_cast<std::uint64_t>(m.shard_start));
        w.put_varint(m.chunk->columns.size());
        for (const column_chunk & col : m.chunk->columns)
        {
            w.put_varint(col.index);
            w.put_string(col.name);
            const std::span<const std::int64_t> offsets = m.chunk->offsets_of(col);
            std::visit(
                [&w, offsets](const auto & p)
                {
                    w.put_varint(p.shard_size);
                    w.put_varint(static_cast<std::uint64_t>(p.shard_start));
                    w.put_varint(offsets.size());
                    put_words(w, offsets.data(), offsets.size());
                    put_values(w, p.values);
                },
                col.payload);
        }
    }
    else
    {
        w.put_u8(chunk_absent);
    }
    if (m.op != protocol::operation::ts_batch_push_async)
    {
        w.put_u8(m.fast ? 1 : 0);
    }
    if (m.op == protocol::operation::ts_batch_push_truncate)
    {
        ser::marshal(w, m.ranges);
    }
}

protocol::operation_body build_shard_write_body(const shard_write & m) noexcept
{
    try
    {
        const shard_write_bound b = shard_write_bounds(m);
        // Not zeroed: the writer touches only what it claims.
        auto scratch = std::make_unique_for_overwrite<std::uint8_t[]>(b.scratch);
        ser::small_scatter<16> scatter;
        ser::writer w(scatter, std::span<std::uint8_t>(scratch.get(), b.scratch));
        encode_shard_write(w, m);
        return protocol::detail::finish_scattered_body(scatter, std::move(scratch), m.op);
    }
    catch (const std::bad_alloc &)
    {
        return protocol::detail::out_of_memory_body();
    }
}

error_code decode_shard_write(ser::cursor & c, std::uint16_t op, table_hook table_known,
                              column_type_lookup type_of, shard_write_view & out)
{
    out.op = op;
    out.columns.clear();
    out.ranges.clear();
    if (error_code ec = ser::read_fields(c, out.table, out.bucket_key))
    {
        return ec;
    }
    if (!out.bucket_key.empty() && out.bucket_key.back() == '\0')
    {
        out.bucket_key.remove_suffix(1);
    }
    std::uint8_t presence = 0;
    if (error_code ec = ser::read_u8(c, presence))
    {
        return ec;
    }
    if (presence != chunk_present && presence != chunk_absent)
    {
        return ser::unexpected_byte();
    }
    if (error_code ec = table_known(out.table))
    {
        return ec;
    }
    out.has_chunk = presence == chunk_present;
    if (out.has_chunk)
    {
        if (error_code ec =
                ser::read_fields(c, ser::as_varint(out.shard_size), ser::as_varint(out.shard_start)))
        {
            return ec;
        }
        std::size_t count = 0;
        if (error_code ec = ser::read_count(c, count))
        {
            return ec;
        }
        out.columns.resize(count);
        for (shard_write_column & col : out.columns)
        {
            if (error_code ec = read_column(c, type_of, col))
            {
                return ec;
            }
        }
    }
    if (op != static_cast<std::uint16_t>(protocol::operation::ts_batch_push_async))
    {
        if (error_code ec = ser::read_bool(c, out.fast))
        {
            return ec;
        }
    }
    if (op == static_cast<std::uint16_t>(protocol::operation::ts_batch_push_truncate))
    {
        if (error_code ec = ser::unmarshal(c, out.ranges))
        {
            return ec;
        }
    }
    return {};
}

} // namespace zlk::timeseries
