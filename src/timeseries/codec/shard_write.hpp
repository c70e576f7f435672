// The shard write of the batch writer (ts_batch_push 128, ts_batch_push_async 129,
// ts_batch_push_truncate 135): the rows of one chunk of one bucket, column by column. One codec for both
// sides: the client writes a chunk into a scatter list, referencing the chunk's offsets, values and blob
// bytes where they lie; a node reads a received message into views of its bytes.
//
// Layout after the u16 number: table (bytes, no terminator), bucket key (bytes, terminator counted),
// u8 presence (4: a chunk follows, 128: none), varint shard size, varint shard start, varint column count,
// per column: varint index, bytes name, varint shard size, varint shard start, varint count and the
// offsets (8 bytes each), varint count and the values (8 bytes for double and int64, 16 for timestamp, a
// byte buffer each for blob and string); u8 fast (128 and 135 only); the ranges (135 only).
//
// The values carry no type: the reader asks for the type of each column index.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "base/function_ref.hpp"
#include "timeseries/codec/shard_chunk.hpp"
#include "wire/marshal.hpp"
#include "wire/operation_body.hpp"
#include "wire/operations.hpp"
#include "zlk/types.h"

namespace zlk::timeseries
{

inline constexpr std::uint8_t chunk_present = 4;
inline constexpr std::uint8_t chunk_absent = 128;

struct shard_write
{
    protocol::operation op = protocol::operation::ts_batch_push;
    std::string_view table;
    // Without the terminator; REQUIRES: a zero byte follows it in memory (a std::string's data()).
    std::string_view bucket_key;
    // Null: a message without a chunk.
    const shard_chunk * chunk = nullptr;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    bool fast = false;
    // 135 only.
    std::span<const zlk_ts_range_t> ranges;
};

// What the two-step marshalling needs: scatter entries and scratch bytes, both upper bounds (the id
// in front of the fields included).
struct shard_write_bound
{
    std::size_t entries = 0;
    std::size_t scratch = 0;
};

shard_write_bound shard_write_bounds(const shard_write & m) noexcept;

// Writes the u16 number and the fields. Throws std::bad_alloc when the scratch area or the list runs
// out (a scratch area of shard_write_bounds(m).scratch never does).
void encode_shard_write(serialization::writer & w, const shard_write & m);

// The message as a scattered body for a carrier: the chunk's offsets, values and blob bytes, the table
// name and the bucket key are referenced, not copied, and must outlive the request. Never throws:
// running out of memory gives a body with its error set.
protocol::operation_body build_shard_write_body(const shard_write & m) noexcept;

// A column as received: views into the message.
struct shard_write_column
{
    std::uint64_t index = 0;
    std::string_view name;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    // rows * 8 bytes, little-endian, unaligned.
    std::span<const std::uint8_t> offsets;
    std::size_t rows = 0;
    // double, int64: rows * 8 bytes; timestamp: rows * 16.
    std::span<const std::uint8_t> fixed;
    // blob, string: one view per row.
    std::vector<std::span<const std::uint8_t>> bytes;
};

struct shard_write_view
{
    std::uint16_t op = 0;
    std::string_view table;
    // The terminator dropped when there is one.
    std::string_view bucket_key;
    bool has_chunk = false;
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    std::vector<shard_write_column> columns;
    bool fast = false;
    std::vector<zlk_ts_range_t> ranges;
};

// The type of a column index, or an error (kernel code 27 for an index the table lacks).
using column_type_lookup =
    function_ref<boost::system::error_code(std::uint64_t index, kernel::column_type & type)>;

// Reads the fields after the u16 number of a message `op`. `table_known(table)` runs once the table
// name is read and before any column, so that a reader can fetch the schema `type_of` answers from.
// Errors: the serialization category for bytes that don't decode, kernel code 6 when offsets and values
// differ in count, whatever the callbacks return.
using table_hook = function_ref<boost::system::error_code(std::string_view table)>;
boost::system::error_code decode_shard_write(serialization::cursor & c, std::uint16_t op,
                                             table_hook table_known, column_type_lookup type_of,
                                             shard_write_view & out);

} // namespace zlk::timeseries
