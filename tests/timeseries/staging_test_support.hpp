// Helpers of the staging tests: a declared column and a time in milliseconds.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "timeseries/table_writer.hpp"

namespace zlk::timeseries::staging_test
{

inline constexpr std::int64_t hour_ms = 3600 * 1000;

inline column_entry entry(std::string table, std::string column, kernel::column_type type,
                          std::uint64_t index, std::uint64_t shard_size = hour_ms)
{
    column_entry e;
    e.table = std::move(table);
    e.column = std::move(column);
    e.type = type;
    e.index = index;
    e.shard_size = shard_size;
    return e;
}

inline timespec at_ms(std::int64_t ms)
{
    return timespec{ms / 1000, (ms % 1000) * 1000000};
}

} // namespace zlk::timeseries::staging_test
