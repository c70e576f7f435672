/* The local table: a row-oriented view of one table and some of its columns. Rows are built value by
 * value and appended, then pushed; rows of ranges are fetched and walked one at a time.
 *
 * A local table belongs to one thread at a time. It is released with zlk_ts_local_table_release (or
 * zlk_release), or at zlk_close at the latest. */
#ifndef ZLK_TS_LOCAL_TABLE_H
#define ZLK_TS_LOCAL_TABLE_H

#include "zlk/error.h"
#include "zlk/ts_types.h"

ZLK_BEGIN_C

typedef struct zlk_local_table * zlk_local_table_t;

/* Column i of the array is column index i of the row functions. A type other than the table's is
 * zlk_e_incompatible_type (zlk_ts_column_uninitialized takes the table's). */
ZLK_API zlk_error_t zlk_ts_local_table_init(zlk_handle_t handle, const char * alias,
                                            const zlk_ts_column_info * columns, size_t column_count,
                                            zlk_local_table_t * table) ZLK_NOEXCEPT;
ZLK_API void zlk_ts_local_table_release(zlk_handle_t handle, zlk_local_table_t table) ZLK_NOEXCEPT;

/* ---- building rows: set values, then append the row at its time ---- */

ZLK_API zlk_error_t zlk_ts_row_set_blob(zlk_local_table_t table, size_t index, const void * content,
                                        size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_blob_no_copy(zlk_local_table_t table, size_t index, const void * content,
                                                size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_string(zlk_local_table_t table, size_t index, const char * content,
                                          size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_string_no_copy(zlk_local_table_t table, size_t index, const char * content,
                                                  size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_double(zlk_local_table_t table, size_t index, double value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_int64(zlk_local_table_t table, size_t index, int64_t value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_set_timestamp(zlk_local_table_t table, size_t index,
                                             const zlk_timespec_t * value) ZLK_NOEXCEPT;

/* Closes the row at the timestamp; *row_index (may be null) receives its number, from 0. */
ZLK_API zlk_error_t zlk_ts_table_row_append(zlk_local_table_t table, const zlk_timespec_t * timestamp,
                                            size_t * row_index) ZLK_NOEXCEPT;

/* Sends the appended rows; on success the table has none left. */
ZLK_API zlk_error_t zlk_ts_push(zlk_local_table_t table) ZLK_NOEXCEPT;

/* ---- reading rows ---- */

/* Fetches the rows of the ranges; the cursor stands before the first. */
ZLK_API zlk_error_t zlk_ts_table_get_ranges(zlk_local_table_t table, const zlk_ts_range_t * ranges,
                                            size_t range_count) ZLK_NOEXCEPT;

/* Moves to the next row, in time order, and gives its time. zlk_e_iterator_end after the last. */
ZLK_API zlk_error_t zlk_ts_table_next_row(zlk_local_table_t table, zlk_timespec_t * timestamp) ZLK_NOEXCEPT;

/* One column of the current row. zlk_e_element_not_found when the column has no value at this time;
 * zlk_e_iterator_end when there is no current row. The copying forms hand out a buffer released with
 * zlk_release; the _no_copy forms point into the fetched rows, valid until the next
 * zlk_ts_table_get_ranges or the release of the table. */
ZLK_API zlk_error_t zlk_ts_row_get_blob(zlk_local_table_t table, size_t index, const void ** content,
                                        size_t * content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_blob_no_copy(zlk_local_table_t table, size_t index, const void ** content,
                                                size_t * content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_string(zlk_local_table_t table, size_t index, const char ** content,
                                          size_t * content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_string_no_copy(zlk_local_table_t table, size_t index,
                                                  const char ** content,
                                                  size_t * content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_double(zlk_local_table_t table, size_t index, double * value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_int64(zlk_local_table_t table, size_t index, int64_t * value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_row_get_timestamp(zlk_local_table_t table, size_t index,
                                             zlk_timespec_t * value) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TS_LOCAL_TABLE_H */
