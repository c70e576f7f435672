// What a client knows of a table (its columns and shard size), fetched from the owner of the table's
// alias: the column listing (ts_list_columns) and the look-up of one column (ts_shard_info).
#pragma once

#include <boost/container_hash/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/column_type.hpp"
#include "ring/cluster.hpp"
#include "zlk/error.h"

namespace zlk::timeseries
{

struct column_record
{
    std::string name;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t index = 0;
};

// Hashes names of any string type alike, so that a look-up by string_view needn't build a string.
struct name_hash
{
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept
    {
        return boost::hash<std::string_view>{}(name);
    }
};

struct timeseries_table
{
    // Kept as the node sent it, not interpreted.
    std::uint64_t tag = 0;
    // Milliseconds.
    std::uint64_t shard_size = 0;
    // In the node's order.
    std::vector<column_record> columns;
    // The same columns by name: position in `columns`.
    boost::unordered_flat_map<std::string, std::size_t, name_hash, std::equal_to<>> by_name;

    const column_record * find(std::string_view name) const noexcept;
};

struct column_lookup
{
    std::uint64_t shard_size = 0;
    kernel::column_type type = kernel::column_type::double_;
    std::uint64_t index = 0;
};

// One listing request to the owner of the alias (with the routing retries). The alias is a checked
// alias without its terminator.
zlk_error_t get_table(chord::cluster & c, std::string_view alias,
                      std::shared_ptr<const timeseries_table> & out);

// The listings of several tables at once, one group per node; out[i] answers aliases[i].
zlk_error_t get_tables(chord::cluster & c, std::span<const std::string_view> aliases,
                       std::vector<std::shared_ptr<const timeseries_table>> & out);

// One column by name; zlk_e_column_not_found when the table lacks it.
zlk_error_t find_column(chord::cluster & c, std::string_view alias, std::string_view column,
                        column_lookup & out);

} // namespace zlk::timeseries
