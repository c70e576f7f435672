// A chunk of staged rows in the columnar form of a shard write: per column the rows' offsets from the
// shard's start and their values, as the batch writer builds them and the shard-write codec lays them on
// the wire. The node's codec reads the same layout back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "base/column_type.hpp"
#include "base/time_value.hpp"
#include "timeseries/codec/pod_vector.hpp"

namespace zlk::timeseries
{

// The bytes of a blob or string value; not owned (the caller's, or the batch table's blob store).
struct byte_view
{
    const std::uint8_t * data = nullptr;
    std::size_t size = 0;
};

template <typename Value>
struct column_payload
{
    using value_type = Value;

    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    // Nanoseconds from the shard's start, parallel to values; empty while the chunk shares its rows.
    pod_vector<std::int64_t> offsets;
    pod_vector<Value> values;
};

using double_payload = column_payload<double>;
using int64_payload = column_payload<std::int64_t>;
using timestamp_payload = column_payload<timespec>;
using bytes_payload = column_payload<byte_view>;

// The alternatives in this order: double, int64, timestamp, blob and string.
using column_payload_variant = std::variant<double_payload, int64_payload, timestamp_payload, bytes_payload>;

column_payload_variant make_payload(kernel::column_type type);

// What stands for a value that a row didn't set.
inline constexpr std::uint64_t double_filler_bits = 0x7FF8000000000000ull;
inline constexpr std::int64_t int64_filler = INT64_MIN;
inline constexpr timespec timestamp_filler{INT64_MIN, INT64_MIN};

struct column_chunk
{
    std::uint64_t index = 0;
    std::string name;
    column_payload_variant payload;

    std::size_t rows() const noexcept;
    bool empty() const noexcept { return rows() == 0; }
};

// One unit of sending: the rows of one shard (or of part of it, when it outgrew max_chunk_size).
struct shard_chunk
{
    std::uint64_t shard_size = 0;
    std::int64_t shard_start = 0;
    // One per column of the writer, in the writer's order.
    std::vector<column_chunk> columns;
    // With shared_rows, the offsets of all columns: column c's are the first c.rows() of them.
    pod_vector<std::int64_t> rows;
    bool shared_rows = false;

    // The offsets of one of the chunk's columns.
    std::span<const std::int64_t> offsets_of(const column_chunk & c) const noexcept
    {
        return shared_rows ? std::span<const std::int64_t>(rows.data(), c.rows())
                           : std::span<const std::int64_t>(std::visit(
                                 [](const auto & p) -> const pod_vector<std::int64_t> & { return p.offsets; },
                                 c.payload));
    }
    // Gives each column its own offsets, for a change to one column alone. All or nothing: throws
    // std::bad_alloc with the chunk as it was.
    void unshare();
    bool empty() const noexcept;
    // No rows left; shared again.
    void clear() noexcept;
};

using chunk_list = std::vector<std::shared_ptr<shard_chunk>>;

} // namespace zlk::timeseries
