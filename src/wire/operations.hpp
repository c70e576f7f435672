// The operations a carrier can hold: number (the u16 at the head of the body), name and class (the
// varint operation_class of the carrier). Every number lives in the one list below; the enum, the
// table and the look-up are all made from it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zlk::protocol
{

enum class operation_class : std::uint8_t
{
    administrative = 0,
    write = 1,
    read = 2,
    single_write = 5,
    single_read = 6,
};

// X(number, class, name), in ascending order of number.
#define ZLK_PROTOCOL_OPERATIONS(X)                                                                           \
    X(1, single_read, get)                                                                                   \
    X(2, read, get_entry_info)                                                                               \
    X(4, single_write, get_and_remove)                                                                       \
    X(5, read, iterator_next)                                                                                \
    X(6, read, iterator_previous)                                                                            \
    X(8, single_write, transaction_state)                                                                    \
    X(10, single_read, list_chunk)                                                                           \
    X(11, single_write, expires_at)                                                                          \
    X(12, write, remove)                                                                                     \
    X(13, single_write, remove_if)                                                                           \
    X(14, single_write, expires_from_now)                                                                    \
    X(15, single_read, count_chunk)                                                                          \
    X(16, single_write, run_statement_write)                                                                 \
    X(17, single_read, run_statement_read)                                                                   \
    X(18, single_read, node_listing)                                                                         \
    X(19, administrative, table_statement)                                                                   \
    X(20, administrative, purge_all)                                                                         \
    X(21, read, node_status)                                                                                 \
    X(22, administrative, trim_all)                                                                          \
    X(23, read, get_config)                                                                                  \
    X(24, administrative, purge_cache)                                                                       \
    X(25, read, range_updater)                                                                               \
    X(26, read, interrupt_partition)                                                                         \
    X(30, single_write, put)                                                                                 \
    X(31, single_write, update)                                                                              \
    X(32, single_write, get_and_update)                                                                      \
    X(33, write, merge)                                                                                      \
    X(34, single_write, compare_and_swap)                                                                    \
    X(35, read, scan)                                                                                        \
    X(36, single_write, cas_partial)                                                                         \
    X(70, single_write, int_put)                                                                             \
    X(71, single_write, int_update)                                                                          \
    X(72, single_write, int_add)                                                                             \
    X(91, write, link_tag)                                                                                   \
    X(110, write, ts_create)                                                                                 \
    X(111, write, ts_blob_insert)                                                                            \
    X(112, write, ts_double_insert)                                                                          \
    X(113, read, ts_blob_aggregate)                                                                          \
    X(114, read, ts_double_aggregate)                                                                        \
    X(115, read, ts_get_ranges)                                                                              \
    X(116, read, ts_shard_info)                                                                              \
    X(117, read, ts_list_columns)                                                                            \
    X(118, write, ts_insert_columns)                                                                         \
    X(119, write, ts_erase_ranges)                                                                           \
    X(120, write, ts_int64_insert)                                                                           \
    X(121, read, ts_int64_aggregate)                                                                         \
    X(122, write, ts_timestamp_insert)                                                                       \
    X(123, read, ts_timestamp_aggregate)                                                                     \
    X(124, read, ts_evaluate_expression)                                                                     \
    X(125, read, ts_bitmap_read_column)                                                                      \
    X(126, read, ts_bitmap_read)                                                                             \
    X(127, read, ts_table_aggregate)                                                                         \
    X(128, write, ts_batch_push)                                                                             \
    X(129, administrative, ts_batch_push_async)                                                              \
    X(130, read, ts_apply_bitmap_and_aggregate)                                                              \
    X(131, administrative, ts_query_shard)                                                                   \
    X(132, write, ts_expire_by_size)                                                                         \
    X(133, read, ts_get_timestamps)                                                                          \
    X(134, read, ts_select_shard)                                                                            \
    X(135, write, ts_batch_push_truncate)                                                                    \
    X(136, read, ts_query_experimental)                                                                      \
    X(139, write, ts_delete_rows)                                                                            \
    X(140, write, ts_alter_columns)                                                                          \
    X(150, write, link_tag_back)                                                                             \
    X(170, single_read, direct_get)                                                                          \
    X(171, single_read, direct_prefix_get)

enum class operation : std::uint16_t
{
#define ZLK_OPERATION_ENUM(number, cls, name) name = number,
    ZLK_PROTOCOL_OPERATIONS(ZLK_OPERATION_ENUM)
#undef ZLK_OPERATION_ENUM
};

struct operation_info
{
    operation number;
    operation_class cls;
    std::string_view name;
};

inline constexpr std::array operation_table = {
#define ZLK_OPERATION_ROW(number, cls, name) operation_info{operation::name, operation_class::cls, #name},
    ZLK_PROTOCOL_OPERATIONS(ZLK_OPERATION_ROW)
#undef ZLK_OPERATION_ROW
};

namespace detail
{

inline constexpr std::size_t operation_index_size = 256;
inline constexpr std::uint8_t no_operation = 0xFF;

// Number -> position in operation_table, no_operation for a free number.
constexpr std::array<std::uint8_t, operation_index_size> make_operation_index() noexcept
{
    std::array<std::uint8_t, operation_index_size> index{};
    index.fill(no_operation);
    for (std::size_t i = 0; i < operation_table.size(); ++i)
    {
        index[static_cast<std::size_t>(operation_table[i].number)] = static_cast<std::uint8_t>(i);
    }
    return index;
}

inline constexpr auto operation_index = make_operation_index();

constexpr bool numbers_ascend() noexcept
{
    for (std::size_t i = 1; i < operation_table.size(); ++i)
    {
        if (operation_table[i - 1].number >= operation_table[i].number)
        {
            return false;
        }
    }
    return true;
}

static_assert(operation_table.size() < no_operation);
static_assert(static_cast<std::size_t>(operation_table.back().number) < operation_index_size);
static_assert(numbers_ascend(), "one number, one operation");

} // namespace detail

// The table's row for a number; null for a number no node knows.
constexpr const operation_info * find_operation(std::uint16_t number) noexcept
{
    if (number >= detail::operation_index_size || detail::operation_index[number] == detail::no_operation)
    {
        return nullptr;
    }
    return &operation_table[detail::operation_index[number]];
}

// An operation value made by a cast from a number outside the table gets this row rather than a null
// dereference.
inline constexpr operation_info unknown_operation{operation{0}, operation_class::administrative, "unknown"};

constexpr const operation_info & operation_of(operation op) noexcept
{
    const operation_info * info = find_operation(static_cast<std::uint16_t>(op));
    return info != nullptr ? *info : unknown_operation;
}

constexpr operation_class class_of(operation op) noexcept
{
    return operation_of(op).cls;
}

constexpr std::string_view name_of(operation op) noexcept
{
    return operation_of(op).name;
}

} // namespace zlk::protocol
