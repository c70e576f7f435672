/* Aggregations of one column of a time series table over ranges, computed by the nodes that hold the
 * buckets and combined by the library.
 *
 * Each record of the array asks one function (type) over one range and receives:
 * - count: the rows the function saw (the fillers of the batch writer are nulls and don't count; for
 *   adjacent_count, the number of runs of equal adjacent values);
 * - result.timestamp: the time of the row a first, last, min, max, abs_min or abs_max retained; both
 *   fields 0x8000000000000000 for the other functions and when there was no row;
 * - result.value: the value, 0 when the function has none (an empty range, a harmonic mean whose
 *   reciprocals cancel, a sample variance of one row). count, distinct_count and adjacent_count give
 *   their number there, except in a blob or string record, whose value is content: there they give it
 *   in count. The content of a first, last, min or max is owned by the handle and given back with
 *   zlk_release.
 *
 * Functions by column type: blob and string accept first, last, min, max, count, distinct_count and
 * adjacent_count; timestamp also spread (a duration); double and int64 every aggregation. Another is
 * refused by the node with zlk_e_incompatible_type. Transformations (and zlk_agg_none) are not
 * aggregations: "Invalid aggregation type: {}", zlk_e_invalid_argument.
 *
 * In an int64 record, exact_result holds the value as a double: for sums and means the exact value
 * (result.value then holds the sum wrapped to 64 bits, or the mean truncated), for the other
 * double-valued functions their value (result.value truncated), for integer values the same number.
 *
 * Null or zero aggregations: "Got zero aggregations", zlk_e_invalid_argument. A failed bucket ends the
 * call with its status, and the records are then undefined. */
#ifndef ZLK_TS_AGGREGATE_H
#define ZLK_TS_AGGREGATE_H

#include <stddef.h>

#include "zlk/error.h"
#include "zlk/ts_types.h"

ZLK_BEGIN_C

ZLK_API zlk_error_t zlk_ts_double_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                            zlk_ts_double_aggregation * aggregations,
                                            size_t aggregation_count) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_ts_int64_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                           zlk_ts_int64_aggregation * aggregations,
                                           size_t aggregation_count) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_ts_timestamp_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                               zlk_ts_timestamp_aggregation * aggregations,
                                               size_t aggregation_count) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_ts_blob_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                          zlk_ts_blob_aggregation * aggregations,
                                          size_t aggregation_count) ZLK_NOEXCEPT;

ZLK_API zlk_error_t zlk_ts_string_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                            zlk_ts_string_aggregation * aggregations,
                                            size_t aggregation_count) ZLK_NOEXCEPT;

ZLK_END_C

#endif /* ZLK_TS_AGGREGATE_H */
