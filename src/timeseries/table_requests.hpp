// The administrative requests of tables: create and insert columns, with the checks of a column array
// that both run before anything is sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "ring/cluster.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "zlk/error.h"
#include "zlk/ts_types.h"

namespace zlk::timeseries
{

// Longest column name kept, in bytes; a longer one is cut.
inline constexpr std::size_t max_column_name = 1024;

// Checks the array and gives its columns as the wire describes them (views of the caller's names).
// Throws zlk::api_exception: "Got NULL {} with size > 0" ("column names") for a null array with a
// count, zlk_e_invalid_argument for a bad type, a null, empty or duplicate name, zlk_e_reserved_alias
// for a name with the reserved mark.
std::vector<column_description> check_columns(const zlk_ts_column_info * columns, std::size_t count);

// The alias without its terminator. zlk_e_alias_already_exists when the table exists, success instead
// with if_not_exists.
zlk_error_t create_table(chord::cluster & c, std::string_view alias, std::uint64_t shard_size,
                         std::span<const column_description> columns, bool if_not_exists = false);
zlk_error_t insert_columns(chord::cluster & c, std::string_view alias,
                           std::span<const column_description> columns);

} // namespace zlk::timeseries
