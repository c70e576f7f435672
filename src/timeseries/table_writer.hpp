// The staging of one table's rows for the batch writer, directly in the columnar form of a shard write:
// per shard (bucket) one or more chunks, each holding every column of the table as parallel vectors of
// row offsets and values. A row is started once for the table; the setters then append to the columns
// through cursors that point at the current chunk, so that the row path does no look-up at all.
//
// Rows that set each column at most once, which is nearly all of them, leave every column of a chunk
// with the same offsets: the chunk then keeps them once (shared rows), which saves a third of the
// staged memory of a table of doubles, and the wire form repeats them per column from there. Anything
// else (a column set twice in a row, a pinned column, a column added to chunks that hold rows, rows
// out of order at push time) first gives each column its own copy (unshare()).
//
// Not thread safe: a batch table belongs to one thread at a time.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "base/column_type.hpp"
#include "base/time_value.hpp"
#include "timeseries/codec/shard_chunk.hpp"
#include "zlk/error.h"

namespace zlk::timeseries
{

// A column as the caller declared it, resolved against the table's schema.
struct column_entry
{
    std::string table;
    std::string column;
    // Milliseconds.
    std::uint64_t shard_size = 0;
    kernel::column_type type = kernel::column_type::double_;
    // The node's index of the column.
    std::uint64_t index = 0;
    // Rows the caller expects to stage (0: unknown); sizes the first chunk.
    std::uint64_t rows_hint = 0;
};

// Shard starts are multiples of the shard size: a multiplicative hash spreads them, and its fold keeps
// the high bits that the multiplication fills.
struct shard_start_hash
{
    using is_avalanching = void;

    std::size_t operator()(std::int64_t start) const noexcept
    {
        const unsigned __int128 p =
            static_cast<unsigned __int128>(static_cast<std::uint64_t>(start)) * 0xde5fb9d2630458e9ull;
        return static_cast<std::size_t>(static_cast<std::uint64_t>(p) + static_cast<std::uint64_t>(p >> 64));
    }
};

using shard_map = boost::unordered_flat_map<std::int64_t, chunk_list, shard_start_hash>;

// The size estimate of a chunk as a shard write: the table's part, then per column its name, a fixed
// allowance and the payload (16 bytes a row for double and int64, 24 for timestamp, offsets plus the
// bytes for blob and string).
std::uint64_t chunk_estimate(const shard_chunk & chunk, std::size_t table_name_size) noexcept;
std::uint64_t payload_estimate(const column_payload_variant & payload) noexcept;

class table_writer
{
public:
    table_writer(std::string table, std::int64_t shard_size, std::uint64_t max_chunk_size);

    const std::string & table() const noexcept { return _table; }
    std::int64_t shard_size() const noexcept { return _shard_size; }
    std::uint64_t max_chunk_size() const noexcept { return _max_chunk_size; }
    const std::vector<column_entry> & columns() const noexcept { return _columns; }
    shard_map & shards() noexcept { return _shards; }
    const shard_map & shards() const noexcept { return _shards; }
    std::size_t spare_count() const noexcept { return _spares.size(); }
    std::uint64_t approx_size() const noexcept { return _approx_size; }
    std::int64_t row_offset() const noexcept { return _row_offset; }
    std::int64_t row_shard() const noexcept { return _row_shard; }
    const std::shared_ptr<shard_chunk> & current_chunk() const noexcept { return _current; }

    // Adds a column (nothing when one with the same node index is there); existing chunks get it empty.
    // Returns its position in this writer.
    std::size_t add_column(const column_entry & entry);

    // Closes the previous row, finds the chunk of the row's shard, points the cursors at it.
    // zlk_e_no_memory_local when no chunk can be had.
    zlk_error_t start_row(const timespec & t);

    // The chunk selection of a row start without closing the previous row: what a pinned column uses.
    zlk_error_t select_chunk(const timespec & t);

    // The pinned column's payload of the current chunk, sized to exactly `count` rows; null for a
    // column of another payload type. REQUIRES: select_chunk succeeded, position in range.
    template <typename Payload>
    Payload * pin(std::size_t position, std::size_t count)
    {
        unshare_current();
        Payload * p = std::get_if<Payload>(_cursors[position]);
        if (p)
        {
            p->offsets.resize(count);
            p->values.resize(count);
        }
        return p;
    }
    // Cuts the current chunk's column to count rows: zlk_e_invalid_argument when it has fewer, success
    // without a current chunk.
    zlk_error_t shrink_pinned(std::size_t position, std::size_t count) noexcept;
    // Sets it to count rows, growing with zeroes.
    zlk_error_t resize_pinned(std::size_t position, std::size_t count);

    // Gives the current chunk's columns offsets of their own (nothing when they have them). Throws
    // std::bad_alloc with the chunk unchanged.
    void unshare_current();

    // Brings every column of the current chunk to the length of the longest, with fillers.
    void close_row()
    {
        // A row that set every column once leaves them all of one length: nothing to fill.
        if (_rows)
        {
            if (_row_in_rows && (_sets_in_row != _cursors.size() || _sets_in_row == 0))
            {
                close_shared_row();
            }
            _row_in_rows = false;
            _sets_in_row = 0;
        }
        else if (_current && !columns_even())
        {
            fill_short_columns();
        }
    }

    // The setters: zlk_e_out_of_bounds for a position beyond the columns, zlk_e_invalid_argument before
    // the first row, zlk_e_incompatible_type for a column of another type. No allocation beyond the
    // vectors' growth.
    zlk_error_t set_double(std::size_t position, double v) noexcept
    {
        return append<double_payload>(position, 16, v);
    }
    zlk_error_t set_int64(std::size_t position, std::int64_t v) noexcept
    {
        return append<int64_payload>(position, 16, v);
    }
    zlk_error_t set_timestamp(std::size_t position, const timespec & v) noexcept
    {
        return append<timestamp_payload>(position, 24, v);
    }
    zlk_error_t set_bytes(std::size_t position, const std::uint8_t * data, std::size_t size) noexcept
    {
        return append<bytes_payload>(position, 24, byte_view{data, size});
    }

    // The column's payload in the current chunk; null before the first row.
    column_payload_variant * cursor(std::size_t position) noexcept
    {
        return position < _cursors.size() ? _cursors[position] : nullptr;
    }

    // Before a push: the last row closed, every column sorted by offset (stable), empty chunks kept as
    // spares and shards without chunks dropped. keep_lone_empty leaves a shard's only chunk even when
    // it is empty (a truncating push still sends it, to erase).
    void finish(bool keep_lone_empty);

    // After a successful push: no rows, no shards, no current chunk.
    void reset() noexcept;

    // Rows staged, over all chunks (those of the first column of each).
    std::size_t staged_rows() const noexcept;

private:
    // The row path: a vector append through the column's cursor.
    template <typename Payload, typename Value>
    zlk_error_t append(std::size_t position, std::uint64_t estimate, const Value & v) noexcept
    {
        if (position >= _cursors.size())
        {
            return zlk_e_out_of_bounds;
        }
        // Counted before the type check, as the estimate of a row that the caller meant to write.
        _approx_size += estimate;
        column_payload_variant * cursor = _cursors[position];
        if (!cursor)
        {
            return zlk_e_invalid_argument;
        }
        Payload * p = std::get_if<Payload>(cursor);
        if (!p)
        {
            return zlk_e_incompatible_type;
        }
        if (_rows) [[likely]]
        {
            // The row's offset is in _rows since its start: a column's first value of the row brings it
            // level with them.
            if (p->values.size() + 1 == _rows->size()) [[likely]]
            {
                if (p->values.size() == p->values.capacity()) [[unlikely]]
                {
                    if (!grow_for_values(p->values))
                    {
                        return zlk_e_no_memory_local;
                    }
                }
                p->values.push_back(v);
                ++_sets_in_row;
                return zlk_e_ok;
            }
            // The column's second value in this row: columns part ways.
            if (!unshare_current_noexcept())
            {
                return zlk_e_no_memory_local;
            }
        }
        if (p->offsets.size() == p->offsets.capacity() || p->values.size() == p->values.capacity())
            [[unlikely]]
        {
            // Both grown before either takes the row, so that a failure leaves them parallel.
            if (!grow_for_row(p->offsets, p->values))
            {
                return zlk_e_no_memory_local;
            }
        }
        p->offsets.push_back(_row_offset);
        p->values.push_back(v);
        return zlk_e_ok;
    }

    template <typename Value>
    static bool grow_for_row(pod_vector<std::int64_t> & offsets, pod_vector<Value> & values) noexcept;
    template <typename Value>
    static bool grow_for_values(pod_vector<Value> & values) noexcept;

    bool columns_even() const noexcept
    {
        const std::size_t n = _cursor_offsets.empty() ? 0 : _cursor_offsets[0]->size();
        for (const pod_vector<std::int64_t> * o : _cursor_offsets)
        {
            if (o->size() != n)
            {
                return false;
            }
        }
        return true;
    }
    void fill_short_columns();
    // Fillers for the columns the row didn't set; a row that set none is taken back.
    void close_shared_row();
    bool unshare_current_noexcept() noexcept;

    std::shared_ptr<shard_chunk> make_chunk(std::int64_t start);
    void point_cursors();

    std::string _table;
    std::int64_t _row_offset = -1000000;
    std::int64_t _row_shard = -1;
    std::int64_t _shard_size;
    std::shared_ptr<shard_chunk> _current;
    std::uint64_t _approx_size = 0;
    std::uint64_t _max_chunk_size;
    shard_map _shards;
    chunk_list _spares;
    std::vector<column_entry> _columns;
    std::vector<column_payload_variant *> _cursors;
    // The offsets of each cursor's column, for the check at the end of a row.
    std::vector<pod_vector<std::int64_t> *> _cursor_offsets;
    // The current chunk's shared rows; null when its columns have offsets of their own.
    pod_vector<std::int64_t> * _rows = nullptr;
    // Whether the current row's offset is in _rows (a row is open), and how many values the row has.
    bool _row_in_rows = false;
    std::size_t _sets_in_row = 0;
    bool _has_row = false;
    bool _hint_used = false;
};

// Sorts offsets and values together by offset, keeping the order of equal offsets.
template <typename Value>
void sort_by_offset(pod_vector<std::int64_t> & offsets, pod_vector<Value> & values);

} // namespace zlk::timeseries
