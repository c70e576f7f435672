#include "timeseries/codec/ts_messages.hpp"

#include <bit>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace zlk::timeseries
{

namespace ser = zlk::serialization;
using protocol::operation;

static_assert(std::endian::native == std::endian::little,
              "offsets and values are sent as they lie in memory");
static_assert(sizeof(zlk::timespec) == 16);

namespace
{

constexpr std::size_t terminated_bound = ser::varint_bound + 1;
constexpr std::size_t column_description_bound = terminated_bound + 1;
constexpr std::size_t wire_column_bound = ser::varint_bound + 1;
constexpr std::size_t ranges_bound(std::size_t n) noexcept
{
    return ser::varint_bound + n * ser::time_range_bound;
}

// Length with the zero counted, the bytes by reference, the zero from the scratch area.
void put_terminated(ser::writer & w, std::string_view s)
{
    w.put_varint(s.size() + 1);
    w.put_raw(s.data(), s.size());
    w.put_u8(0);
}

error_code read_terminated(ser::cursor & c, std::string_view & out) noexcept
{
    ser::cursor at = c;
    std::string_view s;
    if (error_code ec = ser::read_bytes(at, s))
    {
        return ec;
    }
    if (s.empty() || s.back() != '\0')
    {
        return ser::unexpected_byte();
    }
    out = s.substr(0, s.size() - 1);
    c = at;
    return {};
}

error_code read_column_type(ser::cursor & c, kernel::column_type & out) noexcept
{
    std::uint8_t v = 0;
    if (error_code ec = ser::read_u8(c, v))
    {
        return ec;
    }
    if (v >= kernel::column_type_count)
    {
        return ser::unexpected_byte();
    }
    out = static_cast<kernel::column_type>(v);
    return {};
}

void put_descriptions(ser::writer & w, std::span<const column_description> columns)
{
    w.put_varint(columns.size());
    for (const auto & col : columns)
    {
        put_terminated(w, col.name);
        w.put_enum(col.type);
    }
}

error_code read_descriptions(ser::cursor & c, std::vector<column_description> & out)
{
    return ser::read_vector(c, out,
                            [](ser::cursor & at, column_description & d) -> error_code
                            {
                                return ser::read_fields(at, ser::with_reader(read_terminated, d.name),
                                                        ser::with_reader(read_column_type, d.type));
                            });
}

void put_wire_columns(ser::writer & w, std::span<const wire_column> columns)
{
    w.put_varint(columns.size());
    for (const auto & col : columns)
    {
        w.put_varint(col.index);
        w.put_enum(col.type);
    }
}

error_code read_wire_columns(ser::cursor & c, std::vector<wire_column> & out)
{
    return ser::read_vector(c, out,
                            [](ser::cursor & at, wire_column & col) -> error_code {
                                return ser::read_fields(at, ser::as_varint(col.index),
                                                        ser::with_reader(read_column_type, col.type));
                            });
}

std::size_t descriptions_bound(std::span<const column_description> columns) noexcept
{
    return ser::varint_bound + columns.size() * column_description_bound;
}

// Reads n elements of `width` bytes as a view; n is bounded by what remains before anything is sized.
error_code read_fixed_block(ser::cursor & c, std::uint64_t n, std::size_t width,
                            std::span<const std::uint8_t> & out) noexcept
{
    if (width != 0 && n > c.remaining / width)
    {
        return ser::end_of_input();
    }
    out = ser::take(c, static_cast<std::size_t>(n) * width);
    return {};
}

error_code read_offsets(ser::cursor & c, std::vector<std::int64_t> & out)
{
    std::uint64_t n = 0;
    if (error_code ec = ser::read_varint(c, n))
    {
        return ec;
    }
    std::span<const std::uint8_t> block;
    if (error_code ec = read_fixed_block(c, n, 8, block))
    {
        return ec;
    }
    out.resize(static_cast<std::size_t>(n));
    if (n != 0)
    {
        std::memcpy(out.data(), block.data(), block.size());
    }
    return {};
}

} // namespace

operation column_insert_operation(kernel::column_type t) noexcept
{
    switch (t)
    {
    case kernel::column_type::double_:
        return operation::ts_double_insert;
    case kernel::column_type::int64:
        return operation::ts_int64_insert;
    case kernel::column_type::timestamp:
        return operation::ts_timestamp_insert;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        break;
    }
    return operation::ts_blob_insert;
}

void content_writer::put_varint(std::uint64_t v)
{
    while (v >= 0x80)
    {
        _out.push_back(static_cast<std::uint8_t>(v | 0x80));
        v >>= 7;
    }
    _out.push_back(static_cast<std::uint8_t>(v));
}

void content_writer::put_i64(std::int64_t v)
{
    std::uint8_t b[8];
    ser::detail::store_le(b, static_cast<std::uint64_t>(v));
    _out.insert(_out.end(), b, b + 8);
}

void content_writer::put_bytes(const void * data, std::size_t size)
{
    put_varint(size);
    put_raw(data, size);
}

void content_writer::put_raw(const void * data, std::size_t size)
{
    const auto * p = static_cast<const std::uint8_t *>(data);
    _out.insert(_out.end(), p, p + size);
}

// ---- 110, 118 ----

protocol::operation_body build_create_table(std::string_view alias, std::uint64_t shard_size,
                                            std::span<const column_description> columns) noexcept
{
    return protocol::build_operation_body(operation::ts_create,
                                          terminated_bound + ser::varint_bound + descriptions_bound(columns),
                                          [&](ser::writer & w)
                                          {
                                              put_terminated(w, alias);
                                              w.put_varint(shard_size);
                                              put_descriptions(w, columns);
                                          });
}

protocol::operation_body build_insert_columns(std::string_view alias,
                                              std::span<const column_description> columns) noexcept
{
    return protocol::build_operation_body(operation::ts_insert_columns,
                                          terminated_bound + descriptions_bound(columns),
                                          [&](ser::writer & w)
                                          {
                                              put_terminated(w, alias);
                                              put_descriptions(w, columns);
                                          });
}

error_code decode_create_table(ser::cursor & c, table_columns_fields & out)
{
    return ser::read_fields(c, ser::with_reader(read_terminated, out.alias), ser::as_varint(out.shard_size),
                            ser::with_reader(read_descriptions, out.columns));
}

error_code decode_insert_columns(ser::cursor & c, table_columns_fields & out)
{
    return ser::read_fields(c, ser::with_reader(read_terminated, out.alias),
                            ser::with_reader(read_descriptions, out.columns));
}

// ---- 117 ----

protocol::operation_body build_list_columns(std::string_view alias) noexcept
{
    return protocol::build_operation_body(operation::ts_list_columns, terminated_bound,
                                          [&](ser::writer & w) { put_terminated(w, alias); });
}

error_code decode_list_columns(ser::cursor & c, std::string_view & alias) noexcept
{
    return read_terminated(c, alias);
}

void encode_table_listing(std::vector<std::uint8_t> & out, std::uint64_t tag, std::uint64_t shard_size,
                          std::span<const listed_column> columns)
{
    content_writer w(out);
    w.put_varint(tag);
    w.put_varint(shard_size);
    w.put_varint(columns.size());
    for (const auto & col : columns)
    {
        w.put_bytes(col.name.data(), col.name.size());
        w.put_u8(static_cast<std::uint8_t>(col.type));
        w.put_varint(col.index);
    }
}

error_code decode_table_listing(std::span<const std::uint8_t> content, table_listing & out)
{
    ser::cursor c(content);
    if (error_code ec = ser::read_fields(c, ser::as_varint(out.tag), ser::as_varint(out.shard_size)))
    {
        return ec;
    }
    return ser::read_vector(c, out.columns,
                            [](ser::cursor & at, listed_column & col) -> error_code
                            {
                                if (error_code ec = ser::read_bytes(at, col.name))
                                {
                                    return ec;
                                }
                                // A name sent with its terminator is the same name.
                                if (!col.name.empty() && col.name.back() == '\0')
                                {
                                    col.name.remove_suffix(1);
                                }
                                return ser::read_fields(at, ser::with_reader(read_column_type, col.type),
                                                        ser::as_varint(col.index));
                            });
}

// ---- 116 ----

protocol::operation_body build_shard_info(std::string_view column) noexcept
{
    return protocol::build_operation_body(operation::ts_shard_info, terminated_bound,
                                          [&](ser::writer & w) { put_terminated(w, column); });
}

error_code decode_shard_info(ser::cursor & c, std::string_view & column) noexcept
{
    return read_terminated(c, column);
}

void encode_shard_info(std::vector<std::uint8_t> & out, std::uint64_t shard_size, kernel::column_type type,
                       std::uint64_t index)
{
    content_writer w(out);
    w.put_varint(shard_size);
    w.put_u8(static_cast<std::uint8_t>(type));
    w.put_varint(index);
}

error_code decode_shard_info_reply(std::span<const std::uint8_t> content, shard_info & out) noexcept
{
    ser::cursor c(content);
    return ser::read_fields(c, ser::as_varint(out.shard_size), ser::with_reader(read_column_type, out.type),
                            ser::as_varint(out.index));
}

// ---- 132, 200 ----

protocol::operation_body build_expire_by_size(std::string_view alias, std::uint64_t limit) noexcept
{
    return protocol::build_operation_body(operation::ts_expire_by_size, terminated_bound + ser::varint_bound,
                                          [&](ser::writer & w)
                                          {
                                              put_terminated(w, alias);
                                              w.put_varint(limit);
                                          });
}

error_code decode_expire_by_size(ser::cursor & c, std::string_view & alias, std::uint64_t & limit) noexcept
{
    return ser::read_fields(c, ser::with_reader(read_terminated, alias), ser::as_varint(limit));
}

// Built by hand: the operation is the nodes' own and has no row in the protocol table.
protocol::operation_body build_drop_buckets(std::string_view alias) noexcept
{
    try
    {
        auto bytes = std::make_shared<std::vector<std::uint8_t>>();
        bytes->reserve(2 + terminated_bound + alias.size());
        content_writer w(*bytes);
        w.put_u8(static_cast<std::uint8_t>(ts_drop_buckets & 0xFF));
        w.put_u8(static_cast<std::uint8_t>(ts_drop_buckets >> 8));
        w.put_varint(alias.size() + 1);
        w.put_raw(alias.data(), alias.size());
        w.put_u8(0);
        protocol::operation_body body;
        body.operation_class = static_cast<std::uint64_t>(protocol::operation_class::write);
        body.data = bytes->data();
        body.size = bytes->size();
        body.owner = std::move(bytes);
        return body;
    }
    catch (const std::bad_alloc &)
    {
        return protocol::detail::out_of_memory_body();
    }
}

error_code decode_drop_buckets(ser::cursor & c, std::string_view & alias) noexcept
{
    return read_terminated(c, alias);
}

// ---- 111, 112, 120, 122 ----

protocol::operation_body build_column_insert(kernel::column_type type,
                                             const column_insert_fields & f) noexcept
{
    const std::size_t n = f.offsets.size();
    const bool bytes = kernel::holds_bytes(type);
    const std::size_t bound =
        3 * terminated_bound + 5 * ser::varint_bound + (bytes ? f.bytes.size() * ser::bytes_bound : 0);
    return protocol::build_operation_body(column_insert_operation(type), bound,
                                          [&](ser::writer & w)
                                          {
                                              put_terminated(w, f.alias);
                                              put_terminated(w, f.bucket_key);
                                              put_terminated(w, f.column);
                                              w.put_varint(f.index);
                                              w.put_varint(f.shard_size);
                                              w.put_varint(static_cast<std::uint64_t>(f.shard_start));
                                              w.put_varint(n);
                                              w.put_raw(f.offsets.data(), n * sizeof(std::int64_t));
                                              if (bytes)
                                              {
                                                  w.put_varint(f.bytes.size());
                                                  for (const auto & b : f.bytes)
                                                  {
                                                      w.put_bytes(b);
                                                  }
                                              }
                                              else
                                              {
                                                  const std::size_t width = fixed_value_size(type);
                                                  w.put_varint(f.fixed.size() / width);
                                                  w.put_raw(f.fixed.data(), f.fixed.size());
                                              }
                                          });
}

error_code decode_column_insert(ser::cursor & c, kernel::column_type type, decoded_column_insert & out)
{
    if (error_code ec = ser::read_fields(
            c, ser::with_reader(read_terminated, out.alias),
            ser::with_reader(read_terminated, out.bucket_key), ser::with_reader(read_terminated, out.column),
            ser::as_varint(out.index), ser::as_varint(out.shard_size), ser::as_varint(out.shard_start),
            ser::with_reader(read_offsets, out.offsets), ser::as_varint(out.value_count)))
    {
        return ec;
    }
    if (!kernel::holds_bytes(type))
    {
        out.bytes.clear();
        return read_fixed_block(c, out.value_count, fixed_value_size(type), out.fixed);
    }
    out.fixed = {};
    // Each byte string takes at least its length byte.
    if (out.value_count > c.remaining)
    {
        return ser::end_of_input();
    }
    out.bytes.resize(static_cast<std::size_t>(out.value_count));
    for (auto & b : out.bytes)
    {
        if (error_code ec = ser::read_bytes(c, b))
        {
            return ec;
        }
    }
    return {};
}

// ---- 119 ----

protocol::operation_body build_erase_ranges(const erase_ranges_fields & f) noexcept
{
    const std::size_t bound =
        2 * terminated_bound + ser::ring_id_size + ser::varint_bound + ranges_bound(f.ranges.size()) + 1;
    return protocol::build_operation_body(operation::ts_erase_ranges, bound,
                                          [&](ser::writer & w)
                                          {
                                              put_terminated(w, f.alias);
                                              put_terminated(w, f.bucket_key);
                                              ser::marshal(w, f.bucket);
                                              w.put_varint(f.index);
                                              ser::marshal(w, f.ranges);
                                              w.put_u8(f.flag);
                                          });
}

error_code decode_erase_ranges(ser::cursor & c, decoded_erase_ranges & out)
{
    if (error_code ec = ser::read_fields(c, ser::with_reader(read_terminated, out.alias),
                                         ser::with_reader(read_terminated, out.bucket_key), out.bucket,
                                         ser::as_varint(out.index), out.ranges))
    {
        return ec;
    }
    if (error_code ec = ser::read_u8(c, out.flag))
    {
        return ec;
    }
    return out.flag > erase_every_column ? ser::unexpected_byte() : error_code{};
}

// ---- 115 ----

protocol::operation_body build_get_ranges(const get_ranges_fields & f) noexcept
{
    const std::size_t bound = ser::ring_id_size + 2 * ser::varint_bound + ranges_bound(f.ranges.size()) + 1 +
                              ser::varint_bound + ser::varint_bound + f.columns.size() * wire_column_bound;
    return protocol::build_operation_body(operation::ts_get_ranges, bound,
                                          [&](ser::writer & w)
                                          {
                                              ser::marshal(w, f.bucket);
                                              w.put_varint(f.shard_size);
                                              w.put_varint(static_cast<std::uint64_t>(f.shard_start));
                                              ser::marshal(w, f.ranges);
                                              w.put_u8(f.flags);
                                              w.put_varint(f.row_limit);
                                              put_wire_columns(w, f.columns);
                                          });
}

error_code decode_get_ranges(ser::cursor & c, decoded_get_ranges & out)
{
    if (error_code ec = ser::read_fields(c, out.bucket, ser::as_varint(out.shard_size),
                                         ser::as_varint(out.shard_start), out.ranges))
    {
        return ec;
    }
    if (error_code ec = ser::read_u8(c, out.flags))
    {
        return ec;
    }
    return ser::read_fields(c, ser::as_varint(out.row_limit),
                            ser::with_reader(read_wire_columns, out.columns));
}

void encode_rows_count(std::vector<std::uint8_t> & out, std::size_t column_count)
{
    content_writer(out).put_varint(column_count);
}

void encode_rows_head(std::vector<std::uint8_t> & out, const wire_column & column, std::size_t rows)
{
    content_writer w(out);
    w.put_varint(column.index);
    w.put_u8(static_cast<std::uint8_t>(column.type));
    w.put_varint(rows);
}

double column_rows::double_at(std::size_t i) const noexcept
{
    return std::bit_cast<double>(ser::detail::load_le<std::uint64_t>(values.data() + i * 8));
}

std::int64_t column_rows::int64_at(std::size_t i) const noexcept
{
    return static_cast<std::int64_t>(ser::detail::load_le<std::uint64_t>(values.data() + i * 8));
}

timespec column_rows::timestamp_at(std::size_t i) const noexcept
{
    const std::uint8_t * p = values.data() + i * 16;
    return {static_cast<std::int64_t>(ser::detail::load_le<std::uint64_t>(p)),
            static_cast<std::int64_t>(ser::detail::load_le<std::uint64_t>(p + 8))};
}

error_code decode_rows_reply(std::span<const std::uint8_t> content, std::vector<column_rows> & out)
{
    ser::cursor c(content);
    std::size_t count = 0;
    if (error_code ec = ser::read_count(c, count))
    {
        return ec;
    }
    out.clear();
    for (std::size_t k = 0; k < count; ++k)
    {
        column_rows col;
        if (error_code ec =
                ser::read_fields(c, ser::as_varint(col.index), ser::with_reader(read_column_type, col.type)))
        {
            return ec;
        }
        std::uint64_t rows = 0;
        if (error_code ec = ser::read_varint(c, rows))
        {
            return ec;
        }
        std::span<const std::uint8_t> offsets;
        if (error_code ec = read_fixed_block(c, rows, 8, offsets))
        {
            return ec;
        }
        col.rows = static_cast<std::size_t>(rows);
        col.offsets = offsets.data();
        if (kernel::holds_bytes(col.type))
        {
            const std::uint8_t * begin = c.data;
            for (std::uint64_t i = 0; i < rows; ++i)
            {
                std::span<const std::uint8_t> b;
                if (error_code ec = ser::read_bytes(c, b))
                {
                    return ec;
                }
            }
            col.values = {begin, static_cast<std::size_t>(c.data - begin)};
        }
        else if (error_code ec = read_fixed_block(c, rows, fixed_value_size(col.type), col.values))
        {
            return ec;
        }
        out.push_back(col);
    }
    return {};
}

std::span<const std::uint8_t> next_bytes(ser::cursor & at) noexcept
{
    std::span<const std::uint8_t> b;
    (void)ser::read_bytes(at, b);
    return b;
}

// ---- 133 ----

protocol::operation_body build_get_timestamps(const get_timestamps_fields & f) noexcept
{
    const std::size_t bound = ser::ring_id_size + ser::varint_bound + ser::varint_bound + 8 +
                              ranges_bound(f.ranges.size()) + ser::varint_bound + ser::varint_bound +
                              wire_column_bound;
    return protocol::build_operation_body(operation::ts_get_timestamps, bound,
                                          [&](ser::writer & w)
                                          {
                                              ser::marshal(w, f.bucket);
                                              w.put_varint(static_cast<std::uint64_t>(f.shard_start));
                                              w.put_varint(1);
                                              w.put_u64(f.index);
                                              ser::marshal(w, f.ranges);
                                              w.put_varint(f.shard_size);
                                              put_wire_columns(w, std::span<const wire_column>(&f.column, 1));
                                          });
}

error_code decode_get_timestamps(ser::cursor & c, decoded_get_timestamps & out)
{
    if (error_code ec = ser::read_fields(c, out.bucket, ser::as_varint(out.shard_start)))
    {
        return ec;
    }
    if (error_code ec = ser::read_vector(
            c, out.indexes, [](ser::cursor & at, std::uint64_t & v) { return ser::read_u64(at, v); }))
    {
        return ec;
    }
    return ser::read_fields(c, out.ranges, ser::as_varint(out.shard_size),
                            ser::with_reader(read_wire_columns, out.columns));
}

void encode_offsets(std::vector<std::uint8_t> & out, std::span<const std::int64_t> offsets)
{
    content_writer w(out);
    w.put_varint(offsets.size());
    w.put_raw(offsets.data(), offsets.size() * sizeof(std::int64_t));
}

error_code decode_offsets_reply(std::span<const std::uint8_t> content, offsets_view & out) noexcept
{
    ser::cursor c(content);
    std::uint64_t n = 0;
    if (error_code ec = ser::read_varint(c, n))
    {
        return ec;
    }
    std::span<const std::uint8_t> block;
    if (error_code ec = read_fixed_block(c, n, 8, block))
    {
        return ec;
    }
    out.count = static_cast<std::size_t>(n);
    out.data = block.data();
    return {};
}

// ---- times ----

timespec time_of(std::int64_t shard_start_ms, std::int64_t offset_ns) noexcept
{
    constexpr __int128 ns_per_s = 1000000000;
    const __int128 total = static_cast<__int128>(shard_start_ms) * 1000000 + offset_ns;
    __int128 sec = total / ns_per_s;
    __int128 nsec = total % ns_per_s;
    if (nsec < 0)
    {
        nsec += ns_per_s;
        --sec;
    }
    return {static_cast<std::int64_t>(sec), static_cast<std::int64_t>(nsec)};
}

std::int64_t offset_of(std::int64_t shard_start_ms, const zlk_timespec_t & t) noexcept
{
    const __int128 total = static_cast<__int128>(t.tv_sec) * 1000000000 + t.tv_nsec;
    const __int128 offset = total - static_cast<__int128>(shard_start_ms) * 1000000;
    if (offset > std::numeric_limits<std::int64_t>::max())
    {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (offset < std::numeric_limits<std::int64_t>::min())
    {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(offset);
}

} // namespace zlk::timeseries
