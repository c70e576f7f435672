/* Types of time series tables: column types, points, aggregations and the descriptions of columns
 * used by the table, column, batch and local-table functions. */
#ifndef ZLK_TS_TYPES_H
#define ZLK_TS_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "zlk/types.h"

ZLK_BEGIN_C

/* The type of a column. Only the low byte is read; values above 4 are refused. */
typedef enum
{
    zlk_ts_column_double = 0,
    zlk_ts_column_blob = 1,
    zlk_ts_column_int64 = 2,
    zlk_ts_column_timestamp = 3,
    zlk_ts_column_string = 4,
    zlk_ts_column_uninitialized = -1
} zlk_ts_column_type;

/* One column of a table: a zero-terminated name and a type. */
typedef struct
{
    const char * name;
    zlk_ts_column_type type;
} zlk_ts_column_info;

/* One column named for a batch table: the table, the column, and the number of rows the caller
 * expects to stage in it (0 when unknown), a hint for sizing the staging buffers. */
typedef struct
{
    const char * timeseries;
    const char * column;
    uint64_t elements_count_hint;
} zlk_ts_batch_column_info;

typedef struct
{
    zlk_timespec_t timestamp;
    double value;
} zlk_ts_double_point;

typedef struct
{
    zlk_timespec_t timestamp;
    int64_t value;
} zlk_ts_int64_point;

typedef struct
{
    zlk_timespec_t timestamp;
    zlk_timespec_t value;
} zlk_ts_timestamp_point;

typedef struct
{
    zlk_timespec_t timestamp;
    const void * content;
    size_t content_length;
} zlk_ts_blob_point;

typedef struct
{
    zlk_timespec_t timestamp;
    const char * content;
    size_t content_length;
} zlk_ts_string_point;

/* The functions of aggregation and transformation. 21 is a plain column (no function). */
typedef enum
{
    zlk_agg_first = 0,
    zlk_agg_last = 1,
    zlk_agg_min = 2,
    zlk_agg_max = 3,
    zlk_agg_arithmetic_mean = 4,
    zlk_agg_harmonic_mean = 5,
    zlk_agg_geometric_mean = 6,
    zlk_agg_quadratic_mean = 7,
    zlk_agg_count = 8,
    zlk_agg_sum = 9,
    zlk_agg_sum_of_squares = 10,
    zlk_agg_spread = 11,
    zlk_agg_sample_variance = 12,
    zlk_agg_sample_stddev = 13,
    zlk_agg_population_variance = 14,
    zlk_agg_population_stddev = 15,
    zlk_agg_abs_min = 16,
    zlk_agg_abs_max = 17,
    zlk_agg_product = 18,
    zlk_agg_skewness = 19,
    zlk_agg_kurtosis = 20,
    zlk_agg_none = 21,
    zlk_agg_distinct_count = 22,
    zlk_agg_moving_average = 23,
    zlk_agg_cumulative_sum = 24,
    zlk_agg_moving_sum = 25,
    zlk_agg_moving_min = 26,
    zlk_agg_moving_max = 27,
    zlk_agg_cumulative_product = 28,
    zlk_agg_adjacent_count = 29
} zlk_ts_aggregation_type;

/* One aggregation asked of a column over a range: type and range in, count and result out. */
typedef struct
{
    zlk_ts_aggregation_type type;
    zlk_ts_range_t range;
    size_t count;
    zlk_ts_double_point result;
} zlk_ts_double_aggregation;

typedef struct
{
    zlk_ts_aggregation_type type;
    zlk_ts_range_t range;
    size_t count;
    zlk_ts_int64_point result;
    /* The exact value of a sum or a mean of an int64 column, which result.value can't hold. */
    double exact_result;
} zlk_ts_int64_aggregation;

typedef struct
{
    zlk_ts_aggregation_type type;
    zlk_ts_range_t range;
    size_t count;
    zlk_ts_timestamp_point result;
} zlk_ts_timestamp_aggregation;

typedef struct
{
    zlk_ts_aggregation_type type;
    zlk_ts_range_t range;
    size_t count;
    zlk_ts_blob_point result;
} zlk_ts_blob_aggregation;

typedef struct
{
    zlk_ts_aggregation_type type;
    zlk_ts_range_t range;
    size_t count;
    zlk_ts_string_point result;
} zlk_ts_string_aggregation;

ZLK_END_C

#endif /* ZLK_TS_TYPES_H */
