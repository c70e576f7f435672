// The one codec of the time series tables and columns, for both ends: the client's body builders, the
// node's decoders of the same fields, the node's reply encoders and the client's reply decoders.
// Layouts: docs/protocol.md, "Time series: layouts and node behaviour". Aggregates and shard writes
// have codecs of their own.
//
// Alias, bucket key and column name fields go on the wire with a terminating zero counted in their
// length; the builders take them without it and the decoders hand them back without it.
//
// Decoded fields are views into the received bytes: they live as long as the request or reply. The
// decoders check every read and answer a serialization error for a short or malformed body.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "base/ring_id.hpp"
#include "base/column_type.hpp"
#include "wire/marshal.hpp"
#include "wire/operation_body.hpp"
#include "base/time_value.hpp"
#include "zlk/types.h"

namespace zlk::timeseries
{

using error_code = boost::system::error_code;

// Node-internal: the owner of a removed table asks every member to drop the table's buckets.
inline constexpr std::uint16_t ts_drop_buckets = 200;

// Fixed-size values on the wire: 8 bytes (double, int64) or 16 (timestamp); 0 for byte strings.
constexpr std::size_t fixed_value_size(kernel::column_type t) noexcept
{
    return kernel::holds_bytes(t) ? 0 : (t == kernel::column_type::timestamp ? 16 : 8);
}

// The insert operation of a column type (111 for blob and string).
protocol::operation column_insert_operation(kernel::column_type t) noexcept;

// A column of a create or insert-columns request.
struct column_description
{
    std::string_view name;
    kernel::column_type type = kernel::column_type::double_;
};

// A column as reads name it.
struct wire_column
{
    std::uint64_t index = 0;
    kernel::column_type type = kernel::column_type::double_;
};

// A column of a table listing.
struct listed_column
{
    std::string_view name;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t index = 0;
};

// Appends wire fields to a reply's content (a node's reply is one contiguous vector).
class content_writer
{
public:
    explicit content_writer(std::vector<std::uint8_t> & out) noexcept
        : _out(out)
    {
    }
    void put_u8(std::uint8_t v) { _out.push_back(v); }
    void put_varint(std::uint64_t v);
    void put_i64(std::int64_t v);
    void put_bytes(const void * data, std::size_t size);
    void put_raw(const void * data, std::size_t size);

private:
    std::vector<std::uint8_t> & _out;
};

// ---- 110 ts_create, 118 ts_insert_columns ------------------------------------------------------

protocol::operation_body build_create_table(std::string_view alias, std::uint64_t shard_size,
                                            std::span<const column_description> columns) noexcept;
protocol::operation_body build_insert_columns(std::string_view alias,
                                              std::span<const column_description> columns) noexcept;

struct table_columns_fields
{
    std::string_view alias;
    std::uint64_t shard_size = 0; // create only
    std::vector<column_description> columns;
};
error_code decode_create_table(serialization::cursor & c, table_columns_fields & out);
error_code decode_insert_columns(serialization::cursor & c, table_columns_fields & out);

// ---- 117 ts_list_columns -----------------------------------------------------------------------

protocol::operation_body build_list_columns(std::string_view alias) noexcept;
error_code decode_list_columns(serialization::cursor & c, std::string_view & alias) noexcept;

void encode_table_listing(std::vector<std::uint8_t> & out, std::uint64_t tag, std::uint64_t shard_size,
                          std::span<const listed_column> columns);
struct table_listing
{
    std::uint64_t tag = 0;
    std::uint64_t shard_size = 0;
    std::vector<listed_column> columns;
};
// An empty content is refused (zlk_e_invalid_reply at the edge), as is a column type above 4.
error_code decode_table_listing(std::span<const std::uint8_t> content, table_listing & out);

// ---- 116 ts_shard_info -------------------------------------------------------------------------

protocol::operation_body build_shard_info(std::string_view column) noexcept;
error_code decode_shard_info(serialization::cursor & c, std::string_view & column) noexcept;

void encode_shard_info(std::vector<std::uint8_t> & out, std::uint64_t shard_size, kernel::column_type type,
                       std::uint64_t index);
struct shard_info
{
    std::uint64_t shard_size = 0;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t index = 0;
};
error_code decode_shard_info_reply(std::span<const std::uint8_t> content, shard_info & out) noexcept;

// ---- 132 ts_expire_by_size ---------------------------------------------------------------------

protocol::operation_body build_expire_by_size(std::string_view alias, std::uint64_t limit) noexcept;
error_code decode_expire_by_size(serialization::cursor & c, std::string_view & alias,
                                 std::uint64_t & limit) noexcept;

// ---- 200 ts_drop_buckets -----------------------------------------------------------------------

protocol::operation_body build_drop_buckets(std::string_view alias) noexcept;
error_code decode_drop_buckets(serialization::cursor & c, std::string_view & alias) noexcept;

// ---- 111, 112, 120, 122 column inserts ---------------------------------------------------------

// The rows of one bucket: offsets (ns from the shard start) and, parallel to them, either the fixed
// values laid out as on the wire or the byte strings.
struct column_insert_fields
{
    std::string_view alias;
    std::string_view bucket_key;
    std::string_view column;
    std::uint64_t index = 0;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    std::span<const std::int64_t> offsets;
    std::span<const std::uint8_t> fixed;                  // count * fixed_value_size
    std::span<const std::span<const std::uint8_t>> bytes; // blob, string
};
// REQUIRES: little-endian host (offsets and fixed values are referenced as they lie in memory).
protocol::operation_body build_column_insert(kernel::column_type type,
                                             const column_insert_fields & f) noexcept;

// What a node reads of an insert; `offsets` and `fixed` are copied out of the request when the
// request's bytes aren't aligned for them, so the decoder owns storage for both.
struct decoded_column_insert
{
    std::string_view alias;
    std::string_view bucket_key;
    std::string_view column;
    std::uint64_t index = 0;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    std::vector<std::int64_t> offsets;
    std::uint64_t value_count = 0;
    std::span<const std::uint8_t> fixed;
    std::vector<std::span<const std::uint8_t>> bytes;
};
error_code decode_column_insert(serialization::cursor & c, kernel::column_type type,
                                decoded_column_insert & out);

// ---- 119 ts_erase_ranges -----------------------------------------------------------------------

inline constexpr std::uint8_t erase_one_column = 0;
inline constexpr std::uint8_t erase_every_column = 1;

struct erase_ranges_fields
{
    std::string_view alias;
    std::string_view bucket_key;
    chord::ring_id bucket;
    std::uint64_t index = 0;
    std::span<const zlk_ts_range_t> ranges;
    std::uint8_t flag = erase_one_column;
};
protocol::operation_body build_erase_ranges(const erase_ranges_fields & f) noexcept;

struct decoded_erase_ranges
{
    std::string_view alias;
    std::string_view bucket_key;
    chord::ring_id bucket;
    std::uint64_t index = 0;
    std::vector<zlk_ts_range_t> ranges;
    std::uint8_t flag = erase_one_column;
};
error_code decode_erase_ranges(serialization::cursor & c, decoded_erase_ranges & out);

// ---- 115 ts_get_ranges -------------------------------------------------------------------------

struct get_ranges_fields
{
    chord::ring_id bucket;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    std::span<const zlk_ts_range_t> ranges; // absolute times
    std::uint8_t flags = 0;
    std::uint64_t row_limit = 0; // 0: no limit
    std::span<const wire_column> columns;
};
protocol::operation_body build_get_ranges(const get_ranges_fields & f) noexcept;

struct decoded_get_ranges
{
    chord::ring_id bucket;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    std::vector<zlk_ts_range_t> ranges;
    std::uint8_t flags = 0;
    std::uint64_t row_limit = 0;
    std::vector<wire_column> columns;
};
error_code decode_get_ranges(serialization::cursor & c, decoded_get_ranges & out);

// Reply: per column, in the order asked, its rows in time order. The node writes a column's head with
// begin_rows, then its offsets and values with the column_* calls below.
void encode_rows_count(std::vector<std::uint8_t> & out, std::size_t column_count);
void encode_rows_head(std::vector<std::uint8_t> & out, const wire_column & column, std::size_t rows);

// One column of a reply, as views into it. Offsets are `rows` little-endian i64; fixed values `rows`
// elements of fixed_value_size; byte strings `rows` byte buffers back to back (walk with next_bytes).
struct column_rows
{
    std::uint64_t index = 0;
    kernel::column_type type = kernel::column_type::double_;
    std::size_t rows = 0;
    const std::uint8_t * offsets = nullptr;
    std::span<const std::uint8_t> values;

    std::int64_t offset(std::size_t i) const noexcept
    {
        return static_cast<std::int64_t>(serialization::detail::load_le<std::uint64_t>(offsets + i * 8));
    }
    double double_at(std::size_t i) const noexcept;
    std::int64_t int64_at(std::size_t i) const noexcept;
    timespec timestamp_at(std::size_t i) const noexcept;
};
// Checks the whole reply (every byte string too) and fills `out`, one element per column. Reusing
// `out` keeps the decode free of allocations.
error_code decode_rows_reply(std::span<const std::uint8_t> content, std::vector<column_rows> & out);
// The next byte string of a column's values; `at` starts as column_rows::values. Only after the reply
// passed decode_rows_reply.
std::span<const std::uint8_t> next_bytes(serialization::cursor & at) noexcept;

// ---- 133 ts_get_timestamps ---------------------------------------------------------------------

struct get_timestamps_fields
{
    chord::ring_id bucket;
    std::int64_t shard_start = 0;
    std::uint64_t index = 0;
    std::span<const zlk_ts_range_t> ranges;
    std::uint64_t shard_size = 0;
    wire_column column;
};
protocol::operation_body build_get_timestamps(const get_timestamps_fields & f) noexcept;

struct decoded_get_timestamps
{
    chord::ring_id bucket;
    std::int64_t shard_start = 0;
    std::vector<std::uint64_t> indexes;
    std::vector<zlk_ts_range_t> ranges;
    std::uint64_t shard_size = 0;
    std::vector<wire_column> columns;
};
error_code decode_get_timestamps(serialization::cursor & c, decoded_get_timestamps & out);

// Reply: a count, then the offsets as i64.
void encode_offsets(std::vector<std::uint8_t> & out, std::span<const std::int64_t> offsets);
struct offsets_view
{
    std::size_t count = 0;
    const std::uint8_t * data = nullptr;

    std::int64_t operator[](std::size_t i) const noexcept
    {
        return static_cast<std::int64_t>(serialization::detail::load_le<std::uint64_t>(data + i * 8));
    }
};
error_code decode_offsets_reply(std::span<const std::uint8_t> content, offsets_view & out) noexcept;

// ---- times inside a bucket ---------------------------------------------------------------------

// The absolute time of a row: the shard start plus its offset, nanoseconds normalised to [0, 1e9).
timespec time_of(std::int64_t shard_start_ms, std::int64_t offset_ns) noexcept;
// The offset of an absolute time from the shard start, saturated to the 64-bit range.
std::int64_t offset_of(std::int64_t shard_start_ms, const zlk_timespec_t & t) noexcept;

} // namespace zlk::timeseries
