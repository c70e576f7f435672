// The records a statement parses into: one `parsed_*` record per statement, in the variant's order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/column_type.hpp"
#include "base/time_value.hpp"
#include "query/grammar/duration.hpp"
#include "query/grammar/syntax_tree.hpp"

namespace zlk::query
{

// FIND(...): entries by tags, a prefix and a type.
struct find_request
{
    struct tag
    {
        std::string name;
        friend bool operator==(const tag &, const tag &) = default;
    };
    template <typename T>
    struct negation
    {
        T value;
        friend bool operator==(const negation &, const negation &) = default;
    };
    struct prefix
    {
        std::string value;
        friend bool operator==(const prefix &, const prefix &) = default;
    };
    // The node's type byte of the entries wanted (kernel::entry_type).
    struct entry_type
    {
        std::uint8_t kernel_type = 0;
        friend bool operator==(const entry_type &, const entry_type &) = default;
    };
    using item = std::variant<tag, negation<tag>, prefix, entry_type>;

    std::vector<item> items;
};

// A table or an entry named in a statement: by its name or by a FIND.
using entry_reference = std::variant<std::string, find_request>;

// Join types 4 to 7 are the ASOF family; 7, a join on a range list with no right table, isn't written
// in the text.
enum class join_type : std::uint8_t
{
    none = 0,
    asof_left = 4,
    asof_right = 5,
    asof_full = 6,
    asof_range = 7,
};

// The key columns the tables are joined on.
struct joined_keys
{
    std::vector<std::string> columns{"$timestamp"};
};

struct joined_table
{
    join_type type = join_type::none;
    std::string table;
    joined_keys keys;
};

struct column_description
{
    std::string name;
    kernel::column_type type = kernel::column_type::double_;
};

// `IN RANGE` with its `WITH TIME`, `WITH DAYS` and `WITH MONTHS` restrictions.
struct time_ranges_spec
{
    std::vector<time::interval> ranges;
    std::vector<std::pair<time::duration, time::duration>> times;
    std::vector<std::pair<std::uint8_t, std::uint8_t>> days;
    std::vector<std::pair<std::uint8_t, std::uint8_t>> months;
};

enum class privilege : std::uint8_t
{
    denied,
    select,
    insert,
    update,
    delete_,
    index,
    alter,
    create,
    drop,
    grant,
    user_manage,
    system,
    set_acl,
    get_acl,
    set_transaction,
    all,
};

std::string_view privilege_name(privilege p) noexcept;

// "double", "blob", "int64", "timestamp", "string", else "unknown".
std::string_view column_type_name(kernel::column_type t) noexcept;

namespace ast
{

enum class sort_order : std::uint8_t
{
    asc,
    desc,
};

struct order_by_clause
{
    query::expression expression;
    ast::sort_order sort_order = ast::sort_order::asc;
};

using group_by_item = std::variant<time::duration, identifier>;

struct parsed_select
{
    std::vector<select_item> select_list;
    std::vector<entry_reference> from_clause;
    std::optional<joined_table> join;
    std::optional<conditional_expression> where;
    std::optional<std::vector<group_by_item>> group_by;
    std::optional<conditional_expression> having;
    std::vector<order_by_clause> order_by;
    std::optional<std::uint64_t> limit;
    std::uint64_t offset = 0;
    time_ranges_spec time_ranges;
};

struct parsed_create_table
{
    std::string table;
    bool if_not_exists = false;
    std::vector<column_description> columns;
    time::duration shard_size{0, 0, 0, 86400, 0};
};

struct parsed_alter_table
{
    std::string table;
    std::vector<column_description> adds;
    std::vector<std::pair<std::string, std::string>> renames;
};

// NULL, a real, an integer, a time or a string; the column's type is checked later.
using column_value = std::variant<std::monostate, double, std::int64_t, timespec, std::string>;

struct insert_row
{
    timespec timestamp;
    std::vector<column_value> values;
};

struct parsed_insert_table
{
    std::string table;
    std::vector<std::string> columns;
    std::vector<insert_row> rows;
};

struct parsed_delete
{
    std::string table;
    time_ranges_spec time_ranges;
};

struct parsed_drop_table
{
    std::vector<entry_reference> tables;
};

struct parsed_show_tables
{
};

struct parsed_show_grants
{
    std::vector<entry_reference> entries;
};

struct parsed_show_disk_usage
{
    std::vector<entry_reference> entries;
};

struct parsed_grant
{
    std::vector<privilege> privileges;
    std::vector<entry_reference> entries;
    std::vector<std::string> grantees;
};

struct parsed_revoke
{
    std::vector<privilege> privileges;
    std::vector<entry_reference> entries;
    std::vector<std::string> grantees;
};

using statement = std::variant<parsed_alter_table, parsed_create_table, parsed_delete, parsed_drop_table,
                               parsed_insert_table, parsed_select, parsed_show_grants, parsed_show_tables,
                               parsed_show_disk_usage, parsed_grant, parsed_revoke>;

// One line per clause, for tests and the shell's EXPLAIN-like display.
std::string to_string(const statement & s);

} // namespace ast

std::string to_string(const find_request & f);
std::string to_string(const time_ranges_spec & r);
std::string to_string(const time::duration & d);
std::string to_string(const timespec & t);

} // namespace zlk::query
