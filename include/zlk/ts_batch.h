/* The batch table writer: columns of one or several tables declared once, rows staged one at a time
 * (start a row with its timestamp, set some of its columns), then pushed in one go.
 *
 * A batch table belongs to one thread at a time. It is released with zlk_ts_batch_table_release (or
 * zlk_release), or at zlk_close at the latest. */
#ifndef ZLK_TS_BATCH_H
#define ZLK_TS_BATCH_H

#include "zlk/error.h"
#include "zlk/ts_types.h"

ZLK_BEGIN_C

typedef struct zlk_batch_table * zlk_batch_table_t;

/* One value of a pinned blob column: the bytes are the caller's and must stay valid until the push. */
typedef struct
{
    const void * content;
    size_t content_length;
} zlk_ts_blob_value;

/* Resolves the columns against their tables' schemas and makes the batch table. Column i of the array
 * is column index i of the setters. */
ZLK_API zlk_error_t zlk_ts_batch_table_init(zlk_handle_t handle, const zlk_ts_batch_column_info * columns,
                                            size_t column_count, zlk_batch_table_t * table) ZLK_NOEXCEPT;

/* Adds columns; their indexes follow those already declared. */
ZLK_API zlk_error_t zlk_ts_batch_table_extra_columns(zlk_batch_table_t table,
                                                     const zlk_ts_batch_column_info * columns,
                                                     size_t column_count) ZLK_NOEXCEPT;

ZLK_API void zlk_ts_batch_table_release(zlk_handle_t handle, zlk_batch_table_t table) ZLK_NOEXCEPT;

/* Starts a row in every table of the batch. */
ZLK_API zlk_error_t zlk_ts_batch_start_row(zlk_batch_table_t table,
                                           const zlk_timespec_t * timestamp) ZLK_NOEXCEPT;

/* Set one column of the current row. The copying forms keep a copy of the bytes until the next
 * successful push; the _no_copy forms keep the caller's pointer, which must stay valid until then. */
ZLK_API zlk_error_t zlk_ts_batch_row_set_blob(zlk_batch_table_t table, size_t index, const void * content,
                                              size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_blob_no_copy(zlk_batch_table_t table, size_t index,
                                                      const void * content,
                                                      size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_string(zlk_batch_table_t table, size_t index, const char * content,
                                                size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_string_no_copy(zlk_batch_table_t table, size_t index,
                                                        const char * content,
                                                        size_t content_length) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_double(zlk_batch_table_t table, size_t index,
                                                double value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_int64(zlk_batch_table_t table, size_t index,
                                               int64_t value) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_row_set_timestamp(zlk_batch_table_t table, size_t index,
                                                   const zlk_timespec_t * value) ZLK_NOEXCEPT;

/* Sends the staged rows and, on success, empties the batch table. A push that fails in part keeps
 * only the rows that weren't written, so that pushing again sends the rest. */
ZLK_API zlk_error_t zlk_ts_batch_push(zlk_batch_table_t table) ZLK_NOEXCEPT;
/* The same, marked for the nodes' fast path. */
ZLK_API zlk_error_t zlk_ts_batch_push_fast(zlk_batch_table_t table) ZLK_NOEXCEPT;
/* The same, where a node may answer "try again": the refused part is sent again after a pause, for at
 * most the handle's ts_batch_push_async_timeout of pauses. */
ZLK_API zlk_error_t zlk_ts_batch_push_async(zlk_batch_table_t table) ZLK_NOEXCEPT;
/* Erases the ranges in every column of the tables, then writes the rows, which must all lie in the
 * ranges. */
ZLK_API zlk_error_t zlk_ts_batch_push_truncate(zlk_batch_table_t table, const zlk_ts_range_t * ranges,
                                               size_t range_count) ZLK_NOEXCEPT;

/* Pinned columns: `count` rows of one column in the shard of `timestamp`, written by the caller
 * directly into the arrays handed out (offsets in nanoseconds from the shard's start, and values).
 * The arrays stay valid until the next call on the batch table. */
ZLK_API zlk_error_t zlk_ts_batch_pin_double_column(zlk_batch_table_t table, size_t index, size_t count,
                                                   const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                                   double ** data) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_pin_int64_column(zlk_batch_table_t table, size_t index, size_t count,
                                                  const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                                  int64_t ** data) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_pin_timestamp_column(zlk_batch_table_t table, size_t index, size_t count,
                                                      const zlk_timespec_t * timestamp,
                                                      int64_t ** timeoffsets,
                                                      zlk_timespec_t ** data) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_pin_blob_column(zlk_batch_table_t table, size_t index, size_t count,
                                                 const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                                 zlk_ts_blob_value ** data) ZLK_NOEXCEPT;
ZLK_API zlk_error_t zlk_ts_batch_pin_string_column(zlk_batch_table_t table, size_t index, size_t count,
                                                   const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                                   zlk_string_t ** data) ZLK_NOEXCEPT;
/* Cuts the pinned column to `count` rows (no more than it has). */
ZLK_API zlk_error_t zlk_ts_batch_shrink_pinned_column(zlk_batch_table_t table, size_t index,
                                                      size_t count) ZLK_NOEXCEPT;
/* Sets the pinned column to `count` rows, growing with zeroes. */
ZLK_API zlk_error_t zlk_ts_batch_unsafe_resize_pinned_column(zlk_batch_table_t table, size_t index,
                                                             size_t count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TS_BATCH_H */
