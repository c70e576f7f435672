/* Creates a time series table of sensor readings on the cluster named on the command line, pushes a day
 * of generated data (two million rows, four double columns) through a batch table, and prints hourly
 * aggregates of one column. The table name ends with the process id, so runs don't collide; the table
 * is dropped at the end.
 *
 *     example_timeseries zlk://127.0.0.1:2836
 */
/* getpid() is POSIX; the build is strict C99. */
#define _POSIX_C_SOURCE 200809L

#include <math.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "zlk/zlk.h"

#define COLUMN_COUNT 4
#define ROW_COUNT 2000000
#define HOURS 24
/* 2026-11-22T00:00:00Z */
#define DAY_START 1795305600

static int step(const char * what, zlk_error_t result)
{
    printf("%-26s -> %s\n", what, zlk_error(result));
    return ZLK_FAILURE(result) ? 1 : 0;
}

static double elapsed_seconds(const struct timespec * since)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)(now.tv_sec - since->tv_sec) + (double)(now.tv_nsec - since->tv_nsec) / 1e9;
}

static int push_rows(zlk_handle_t h, const char * table)
{
    static const char * names[COLUMN_COUNT] = {"temperature", "humidity", "pressure", "voltage"};
    zlk_ts_batch_column_info columns[COLUMN_COUNT];
    zlk_batch_table_t batch = NULL;
    struct timespec started;
    const long long step_ns = (long long)HOURS * 3600 * 1000000000LL / ROW_COUNT;
    long long i = 0;
    int c = 0;
    int failed = 0;

    for (c = 0; c < COLUMN_COUNT; ++c)
    {
        columns[c].timeseries = table;
        columns[c].column = names[c];
        columns[c].elements_count_hint = ROW_COUNT;
    }
    if (step("zlk_ts_batch_table_init", zlk_ts_batch_table_init(h, columns, COLUMN_COUNT, &batch)))
    {
        return 1;
    }
    clock_gettime(CLOCK_MONOTONIC, &started);
    for (i = 0; i < ROW_COUNT && !failed; ++i)
    {
        const long long ns = i * step_ns;
        const double hour = (double)ns / 3.6e12;
        zlk_timespec_t t;
        t.tv_sec = DAY_START + ns / 1000000000LL;
        t.tv_nsec = ns % 1000000000LL;
        failed |= ZLK_FAILURE(zlk_ts_batch_start_row(batch, &t));
        failed |= ZLK_FAILURE(zlk_ts_batch_row_set_double(batch, 0, 15.0 + 8.0 * sin(hour / 24.0 * 6.2831853)));
        failed |= ZLK_FAILURE(zlk_ts_batch_row_set_double(batch, 1, 40.0 + (double)(i % 200) / 10.0));
        failed |= ZLK_FAILURE(zlk_ts_batch_row_set_double(batch, 2, 1013.0 + (double)(i % 7)));
        failed |= ZLK_FAILURE(zlk_ts_batch_row_set_double(batch, 3, 3.3 - (double)(i % 1000) / 1e4));
    }
    if (failed)
    {
        step("zlk_ts_batch_row_set_double", zlk_e_invalid_argument);
        zlk_ts_batch_table_release(h, batch);
        return 1;
    }
    printf("  staged %d rows in %.2f s\n", ROW_COUNT, elapsed_seconds(&started));
    clock_gettime(CLOCK_MONOTONIC, &started);
    failed = step("zlk_ts_batch_push", zlk_ts_batch_push(batch));
    if (!failed)
    {
        const double seconds = elapsed_seconds(&started);
        printf("  pushed %d rows in %.2f s (%.0f rows/s)\n", ROW_COUNT, seconds, ROW_COUNT / seconds);
    }
    zlk_ts_batch_table_release(h, batch);
    return failed;
}

static int hourly_aggregates(zlk_handle_t h, const char * table)
{
    /* count, mean and max of each hour */
    zlk_ts_double_aggregation aggregations[3 * HOURS];
    int hour = 0;
    int k = 0;

    for (hour = 0; hour < HOURS; ++hour)
    {
        for (k = 0; k < 3; ++k)
        {
            zlk_ts_double_aggregation * a = &aggregations[3 * hour + k];
            a->type = k == 0 ? zlk_agg_count : (k == 1 ? zlk_agg_arithmetic_mean : zlk_agg_max);
            a->range.begin.tv_sec = DAY_START + hour * 3600;
            a->range.begin.tv_nsec = 0;
            a->range.end.tv_sec = DAY_START + (hour + 1) * 3600;
            a->range.end.tv_nsec = 0;
            a->count = 0;
            a->result.value = 0.0;
        }
    }
    if (step("zlk_ts_double_aggregate",
             zlk_ts_double_aggregate(h, table, "temperature", aggregations, 3 * HOURS)))
    {
        return 1;
    }
    printf("  hour   count      mean(temperature)  max(temperature)\n");
    for (hour = 0; hour < HOURS; ++hour)
    {
        printf("  %02d:00  %-9lu  %17.3f  %16.3f\n", hour, (unsigned long)aggregations[3 * hour].count,
               aggregations[3 * hour + 1].result.value, aggregations[3 * hour + 2].result.value);
    }
    return 0;
}

int main(int argc, char ** argv)
{
    zlk_handle_t h = NULL;
    char table[64];
    zlk_ts_column_info columns[COLUMN_COUNT];
    int failed = 0;

    if (argc != 2)
    {
        fprintf(stderr, "usage: %s zlk://host:port\n", argv[0]);
        return 2;
    }
    snprintf(table, sizeof table, "example.sensors.%u", (unsigned)getpid());
    columns[0].name = "temperature";
    columns[1].name = "humidity";
    columns[2].name = "pressure";
    columns[3].name = "voltage";
    columns[0].type = columns[1].type = columns[2].type = columns[3].type = zlk_ts_column_double;

    if (step("zlk_open", zlk_open(&h, zlk_p_tcp)))
    {
        return 1;
    }
    failed = step("zlk_connect", zlk_connect(h, argv[1]));
    /* one-hour shards */
    failed = failed || step("zlk_ts_create", zlk_ts_create(h, table, 3600 * 1000, columns, COLUMN_COUNT));
    failed = failed || push_rows(h, table);
    failed = failed || hourly_aggregates(h, table);
    if (!failed)
    {
        failed = step("zlk_remove (the table)", zlk_remove(h, table));
    }
    zlk_close(h);
    return failed ? 1 : 0;
}
