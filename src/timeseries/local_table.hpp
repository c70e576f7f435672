// The object behind zlk_local_table_t: a row-oriented view of one table and a choice of its columns.
// Rows are built value by value in a row buffer and appended into the batch writer's staging, to be
// pushed like a batch table's; rows of ranges are fetched (one ts_get_ranges request per bucket) and
// walked one at a time. Owned by the handle's objects tracker ("local table").
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "base/time_value.hpp"
#include "ring/cluster.hpp"
#include "timeseries/batch_columns.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "timeseries/table_metadata.hpp"
#include "zlk/error.h"

struct zlk_session;

namespace zlk::timeseries
{

// One value of the row being built: nothing, a number, a time or bytes (the caller's or a copy).
using row_value = std::variant<std::monostate, double, std::int64_t, timespec, byte_view>;

// The rows that a read fetched, walked in time order: bucket by bucket, and inside a bucket by the
// merge of the columns' offsets (a column without a row at that time has no value in it).
class fetched_rows
{
public:
    // REQUIRES: each reply passed decode_rows_reply into the matching element of `columns`.
    void assign(std::vector<std::int64_t> starts, std::vector<std::vector<std::uint8_t>> replies,
                std::vector<std::vector<column_rows>> columns);
    void clear() noexcept;

    // Moves to the next row; false after the last.
    bool next(timespec & t) noexcept;
    bool has_row() const noexcept { return _has_row; }
    // The column's rows and the position of the current row in them; null when the column has no
    // value at the current row's time.
    const column_rows * at(std::size_t column, std::size_t & row) const noexcept;
    // The bytes of a blob or string column at the current row (found by at() first).
    std::span<const std::uint8_t> bytes(std::size_t column) const noexcept
    {
        return column < _current_bytes.size() ? _current_bytes[column] : std::span<const std::uint8_t>{};
    }

private:
    void rewind_bytes() noexcept;

    std::vector<std::int64_t> _starts;
    std::vector<std::vector<std::uint8_t>> _replies;
    std::vector<std::vector<column_rows>> _columns;
    std::size_t _bucket = 0;
    // Per column: the position of its next row in the current bucket.
    std::vector<std::size_t> _next;
    // Per column: its row at the current time, or npos.
    std::vector<std::size_t> _current;
    // Byte columns are read in step with the walk: per column the position of its next value, and the
    // value at the current row.
    std::vector<serialization::cursor> _byte_cursors;
    std::vector<std::span<const std::uint8_t>> _current_bytes;
    bool _has_row = false;
};

} // namespace zlk::timeseries

struct zlk_local_table
{
    std::uint64_t magic;
    zlk_session * handle;
    std::string alias;
    std::shared_ptr<const zlk::timeseries::timeseries_table> schema;
    // The chosen columns: their type and node index, in the caller's order.
    std::vector<zlk::timeseries::wire_column> chosen;
    zlk::timeseries::batch_columns columns;
    std::vector<zlk::timeseries::row_value> row;
    std::vector<std::unique_ptr<std::uint8_t[]>> blob_store;
    std::size_t appended = 0;
    zlk::timeseries::fetched_rows fetched;

    zlk_local_table(std::uint64_t live, zlk_session * h, std::uint64_t max_chunk_size)
        : magic(live)
        , handle(h)
        , columns(max_chunk_size)
    {
    }
    ~zlk_local_table() { magic = 0; }

    zlk_local_table(const zlk_local_table &) = delete;
    zlk_local_table & operator=(const zlk_local_table &) = delete;
};

namespace zlk::timeseries
{

// Resolves the chosen columns (name and type) against the table. zlk_e_column_not_found for a name
// the table lacks, zlk_e_incompatible_type for a type other than the table's.
zlk_error_t local_table_init(chord::cluster & c, zlk_local_table & t,
                             std::span<const zlk_ts_column_info> columns);

// Closes the row buffer at t into the staging; the buffer is emptied.
zlk_error_t local_table_append(zlk_local_table & t, const timespec & at);

// Fetches the rows of the ranges: one request per bucket with every chosen column, one group per node.
zlk_error_t local_table_get_ranges(chord::cluster & c, zlk_local_table & t,
                                   std::span<const zlk_ts_range_t> ranges);

} // namespace zlk::timeseries
