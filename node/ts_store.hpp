// The buckets of time series tables that a node holds: for each bucket key, per column, the rows in
// time order (offsets from the shard's start, and values). Separate from the entry store: buckets
// aren't listed with entries. Table schemas live in the entry store, as entries of type table.
//
// Sharded by bucket id with one mutex per shard, like the entry store; a bucket is read and written
// whole under its shard's lock.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/column_type.hpp"
#include "base/ring_id.hpp"
#include "base/time_value.hpp"
#include "node/ts_shared_offsets.hpp"
#include "timeseries/codec/pod_vector.hpp"

namespace zlk::node
{

struct ts_column_schema
{
    std::string name;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t index = 0;
};

struct ts_table_schema
{
    std::uint64_t tag = 0;
    std::uint64_t shard_size = 0;
    std::vector<ts_column_schema> columns;

    const ts_column_schema * find(std::uint64_t index) const noexcept;
    const ts_column_schema * find(std::string_view name) const noexcept;
};

// One column of one bucket. `offsets` is sorted (stable: equal offsets keep their arrival order) and
// parallel to the one value vector its type uses; columns written together share it.
struct ts_column_data
{
    kernel::column_type type = kernel::column_type::double_;
    ts_shared_offsets offsets;
    // Large and grown in place, without copies (see pod_vector).
    timeseries::pod_vector<double> doubles;
    timeseries::pod_vector<std::int64_t> integers;
    timeseries::pod_vector<timespec> timestamps;
    std::vector<std::string> bytes;

    std::size_t size() const noexcept { return offsets.size(); }
    // Rows whose offset lies in [begin, end): positions [first, last).
    std::pair<std::size_t, std::size_t> rows_between(std::int64_t begin_offset,
                                                     std::int64_t end_offset) const noexcept;
    // Removes rows in [begin, end); returns how many.
    std::size_t erase_between(std::int64_t begin_offset, std::int64_t end_offset);
    // Removes values [first, last), leaving the offsets alone.
    void erase_values(std::size_t first, std::size_t last);
    // Approximate bytes held.
    std::size_t byte_size() const noexcept;
};

// The values of rows to merge into a column, as views into a request; exactly the one matching the
// column's type is used, with as many elements as there are offsets.
struct ts_incoming_values
{
    std::span<const std::uint8_t> fixed;                  // 8 bytes a row (double, int64), 16 (timestamp)
    std::span<const std::span<const std::uint8_t>> bytes; // blob, string
};

// One column of a shard write as the request carries it.
struct ts_received_column
{
    std::uint64_t index = 0;
    kernel::column_type type = kernel::column_type::double_;
    std::span<const std::uint8_t> offsets; // 8 little-endian bytes a row, any alignment
    ts_incoming_values values;
};

struct ts_bucket
{
    std::string key;              // the bucket key, without the terminator
    std::string table;            // the table's alias
    std::int64_t shard_start = 0; // ms
    std::uint64_t shard_size = 0; // ms
    boost::unordered_flat_map<std::uint64_t, ts_column_data> columns; // by column index

    // Merges rows (offsets in any order) into the column, creating it with `type`. kernel code 12 when
    // the column exists with another type, 6 when the counts differ.
    boost::system::error_code merge(std::uint64_t index, kernel::column_type type,
                                    std::span<const std::int64_t> offsets, const ts_incoming_values & values);
    // The same with the offsets as a request carries them: 8 little-endian bytes a row, any alignment.
    // Rows in order after the stored ones are copied straight from those bytes.
    boost::system::error_code merge_received(std::uint64_t index, kernel::column_type type,
                                             std::span<const std::uint8_t> offsets,
                                             const ts_incoming_values & values);
    // The columns of one shard write, merged in turn as above. Fixed-size columns that arrive with the
    // same offsets as an earlier one over the same stored rows, and go in order after them, keep
    // sharing one offsets vector.
    boost::system::error_code merge_received(std::span<const ts_received_column> columns);
    // Removes the rows in [begin, end) of every column; returns how many, summed over the columns.
    std::size_t erase_between(std::int64_t begin_offset, std::int64_t end_offset);
    std::size_t byte_size() const noexcept;

private:
    // The column to merge n rows into, created with `type`; the checks of merge().
    boost::system::error_code column_for(std::uint64_t index, kernel::column_type type, std::size_t n,
                                         const ts_incoming_values & values, ts_column_data *& out);
};

class ts_store
{
public:
    ts_store() = default;
    ts_store(const ts_store &) = delete;
    ts_store & operator=(const ts_store &) = delete;

    // Runs f on the bucket under its lock: null when it doesn't exist and `create` is false. With
    // `create`, a missing bucket is made with `init` (key, table, start, size) first.
    boost::system::error_code with_bucket(const chord::ring_id & id, bool create,
                                          const std::function<void(ts_bucket &)> & init,
                                          const std::function<boost::system::error_code(ts_bucket *)> & f);

    // Drops every bucket whose key starts with `prefix`; returns how many.
    std::size_t drop_prefix(std::string_view prefix);
    // Drops the table's oldest buckets (by shard start) until those left hold at most `limit` bytes.
    std::size_t expire_by_size(std::string_view prefix, std::uint64_t limit);

    std::size_t bucket_count() const;

    // A bucket node's copy of table schemas it asked the owner for, by alias.
    std::shared_ptr<const ts_table_schema> cached_schema(std::string_view table) const;
    void cache_schema(std::string_view table, std::shared_ptr<const ts_table_schema> schema);
    void forget_schema(std::string_view table);

private:
    struct id_hash
    {
        std::size_t operator()(const chord::ring_id & id) const noexcept
        {
            return static_cast<std::size_t>(id.words[0] ^ id.words[1] ^ id.words[2] ^ id.words[3]);
        }
    };

    struct shard
    {
        mutable std::mutex mutex;
        boost::unordered_flat_map<chord::ring_id, std::unique_ptr<ts_bucket>, id_hash> buckets;
    };

    static constexpr std::size_t shard_count = 16;

    std::array<shard, shard_count> _shards;
    mutable std::mutex _schema_mutex;
    boost::unordered_flat_map<std::string, std::shared_ptr<const ts_table_schema>> _schemas;
};

} // namespace zlk::node
