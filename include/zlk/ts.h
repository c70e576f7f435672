/* Time series tables: a named schema (columns with a name and a type) and a shard size. Rows live in
 * buckets, one entry per span of one shard size, spread over the cluster.
 *
 * Results (column lists, points, timestamps) are owned by the handle and given back with zlk_release.
 * Ranges are half-open: begin included, end excluded. */
#ifndef ZLK_TS_H
#define ZLK_TS_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/error.h"
#include "zlk/ts_types.h"
#include "zlk/types.h"

ZLK_BEGIN_C

/* ---- tables ---- */

/* Creates a table with the shard size in milliseconds (not 0) and the columns, which may be none.
 * zlk_e_alias_already_exists when there is a table of that name. */
ZLK_API zlk_error_t zlk_ts_create(zlk_handle_t handle, const char * alias, uint64_t shard_size,
                                  const zlk_ts_column_info * columns, size_t column_count) ZLK_NOEXCEPT;

/* Appends columns to a table; a name the table already has fails and adds nothing. */
ZLK_API zlk_error_t zlk_ts_insert_columns(zlk_handle_t handle, const char * alias,
                                          const zlk_ts_column_info * columns,
                                          size_t column_count) ZLK_NOEXCEPT;

/* The columns in the table's order, as one buffer (the names inside it) released with zlk_release. A
 * table without columns gives a null array and 0. */
ZLK_API zlk_error_t zlk_ts_list_columns(zlk_handle_t handle, const char * alias,
                                        zlk_ts_column_info ** columns, size_t * column_count) ZLK_NOEXCEPT;

/* The table's shard size, in milliseconds. */
ZLK_API zlk_error_t zlk_ts_shard_size(zlk_handle_t handle, const char * alias,
                                      uint64_t * shard_size) ZLK_NOEXCEPT;

/* Drops the table's oldest buckets on every node until what each keeps of them is at most size bytes. */
ZLK_API zlk_error_t zlk_ts_expire_by_size(zlk_handle_t handle, const char * alias,
                                          uint64_t size) ZLK_NOEXCEPT;

/* ---- column writes ----
 * Points may come in any order; rows of equal time keep the order in which they were inserted. A column
 * of another type than the function's is zlk_e_incompatible_type, a missing one zlk_e_column_not_found. */

ZLK_API zlk_error_t zlk_ts_double_insert(zlk_handle_t handle, const char * alias, const char * column,
                                         const zlk_ts_double_point * points, size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_int64_insert(zlk_handle_t handle, const char * alias, const char * column,
                                        const zlk_ts_int64_point * points, size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_timestamp_insert(zlk_handle_t handle, const char * alias, const char * column,
                                            const zlk_ts_timestamp_point * points,
                                            size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_blob_insert(zlk_handle_t handle, const char * alias, const char * column,
                                       const zlk_ts_blob_point * points, size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_string_insert(zlk_handle_t handle, const char * alias, const char * column,
                                         const zlk_ts_string_point * points, size_t point_count) ZLK_NOEXCEPT;

/* Erases the rows of the column in the ranges, then inserts the points. */
ZLK_API zlk_error_t zlk_ts_double_insert_truncate(zlk_handle_t handle, const char * alias,
                                                  const char * column, const zlk_ts_range_t * ranges,
                                                  size_t range_count, const zlk_ts_double_point * points,
                                                  size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_int64_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                                 const zlk_ts_range_t * ranges, size_t range_count,
                                                 const zlk_ts_int64_point * points,
                                                 size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_timestamp_insert_truncate(zlk_handle_t handle, const char * alias,
                                                     const char * column, const zlk_ts_range_t * ranges,
                                                     size_t range_count,
                                                     const zlk_ts_timestamp_point * points,
                                                     size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_blob_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                                const zlk_ts_range_t * ranges, size_t range_count,
                                                const zlk_ts_blob_point * points,
                                                size_t point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_string_insert_truncate(zlk_handle_t handle, const char * alias,
                                                  const char * column, const zlk_ts_range_t * ranges,
                                                  size_t range_count, const zlk_ts_string_point * points,
                                                  size_t point_count) ZLK_NOEXCEPT;

/* ---- column reads ----
 * The points of the ranges, range by range and in time order inside each, in one buffer released with
 * zlk_release; blob and string contents live in the same allocation. Nothing found gives null and 0. */

ZLK_API zlk_error_t zlk_ts_double_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                             const zlk_ts_range_t * ranges, size_t range_count,
                                             zlk_ts_double_point ** points,
                                             size_t * point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_int64_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                            const zlk_ts_range_t * ranges, size_t range_count,
                                            zlk_ts_int64_point ** points, size_t * point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_timestamp_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                                const zlk_ts_range_t * ranges, size_t range_count,
                                                zlk_ts_timestamp_point ** points,
                                                size_t * point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_blob_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                           const zlk_ts_range_t * ranges, size_t range_count,
                                           zlk_ts_blob_point ** points, size_t * point_count) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_string_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                             const zlk_ts_range_t * ranges, size_t range_count,
                                             zlk_ts_string_point ** points,
                                             size_t * point_count) ZLK_NOEXCEPT;

/* The times of the column's rows in the ranges, like the reads above. */
ZLK_API zlk_error_t zlk_ts_get_timestamps(zlk_handle_t handle, const char * alias, const char * column,
                                          const zlk_ts_range_t * ranges, size_t range_count,
                                          zlk_timespec_t ** timestamps,
                                          size_t * timestamp_count) ZLK_NOEXCEPT;

/* Erases the column's rows in the ranges; *erased_count receives how many. */
ZLK_API zlk_error_t zlk_ts_erase_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                        const zlk_ts_range_t * ranges, size_t range_count,
                                        uint64_t * erased_count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TS_H */
