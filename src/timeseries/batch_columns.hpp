// All that a batch table stages: the columns the caller declared (a column index of the interface is
// a position here), one table_writer per distinct table, and for each column where its writer keeps it.
// The row path goes column index -> (writer, position) -> cursor: two vector reads, no name look-up.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ring/cluster.hpp"
#include "timeseries/table_metadata.hpp"
#include "timeseries/table_writer.hpp"
#include "zlk/error.h"
#include "zlk/ts_types.h"

namespace zlk::timeseries
{

struct column_place
{
    std::size_t writer = 0;
    std::size_t position = 0;
};

class batch_columns
{
public:
    // max_chunk_size: cluster_max_in_buf_size * 3 / 4.
    explicit batch_columns(std::uint64_t max_chunk_size) noexcept
        : _max_chunk_size(max_chunk_size)
    {
    }

    std::uint64_t max_chunk_size() const noexcept { return _max_chunk_size; }
    const std::vector<column_entry> & columns() const noexcept { return _entries; }
    std::vector<table_writer> & writers() noexcept { return _writers; }
    const std::vector<table_writer> & writers() const noexcept { return _writers; }
    // Null when no column of that table was declared.
    table_writer * writer_of(std::string_view table) noexcept;

    // The metadata step: the schemas of the tables named (one listing request each, grouped by node),
    // then add(). zlk_e_column_not_found for a column a table lacks; a missing table's status as the
    // node gave it. Nothing is added unless every column resolves.
    zlk_error_t fetch_and_add(chord::cluster & c, std::span<const zlk_ts_batch_column_info> columns);

    // Declares resolved columns, in order. Existing writers get new columns; new tables get a writer.
    void add(std::span<const column_entry> entries);

    // Starts a row at t in every writer of the table. Returns the first failure.
    zlk_error_t start_row(std::string_view table, const timespec & t);
    // Starts the row in every writer (a batch table's rows carry all its tables).
    zlk_error_t start_row(const timespec & t);

    // The column's writer and position; null when the index is out of range.
    const column_place * place(std::size_t column_index) const noexcept
    {
        return column_index < _places.size() ? &_places[column_index] : nullptr;
    }

    zlk_error_t set_double(std::size_t column_index, double v) noexcept
    {
        const column_place * p = place(column_index);
        return p ? _writers[p->writer].set_double(p->position, v) : zlk_e_out_of_bounds;
    }
    zlk_error_t set_int64(std::size_t column_index, std::int64_t v) noexcept
    {
        const column_place * p = place(column_index);
        return p ? _writers[p->writer].set_int64(p->position, v) : zlk_e_out_of_bounds;
    }
    zlk_error_t set_timestamp(std::size_t column_index, const timespec & v) noexcept
    {
        const column_place * p = place(column_index);
        return p ? _writers[p->writer].set_timestamp(p->position, v) : zlk_e_out_of_bounds;
    }
    zlk_error_t set_bytes(std::size_t column_index, const std::uint8_t * data, std::size_t size) noexcept
    {
        const column_place * p = place(column_index);
        return p ? _writers[p->writer].set_bytes(p->position, data, size) : zlk_e_out_of_bounds;
    }

    // Staged rows over all writers.
    std::size_t staged_rows() const noexcept;
    void reset() noexcept;

private:
    std::uint64_t _max_chunk_size;
    std::vector<column_entry> _entries;
    std::vector<table_writer> _writers;
    boost::unordered_flat_map<std::string, std::size_t> _table_index;
    std::vector<column_place> _places;
};

} // namespace zlk::timeseries
