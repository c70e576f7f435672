// The batch table writer: zlk_ts_batch_table_*, the row setters, the pinned columns and the pushes.
#include <cstring>
#include <memory>
#include <span>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/retry_frame.hpp"
#include "timeseries/batch_table.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/push.hpp"
#include "zlk/ts_batch.h"

namespace
{

using zlk::api::api_call;
namespace ts = zlk::timeseries;

static_assert(sizeof(ts::byte_view) == sizeof(zlk_ts_blob_value) &&
              offsetof(zlk_ts_blob_value, content_length) == offsetof(ts::byte_view, size));
static_assert(sizeof(ts::byte_view) == sizeof(zlk_string_t) &&
              offsetof(zlk_string_t, length) == offsetof(ts::byte_view, size));
static_assert(sizeof(zlk::timespec) == sizeof(zlk_timespec_t));

// The frame of a function on a batch table: the table is tested first, then the frame of its handle.
template <typename Body>
zlk_error_t table_call(zlk_batch_table * table, std::string_view name, Body && body) noexcept
{
    if (!table || table->magic != zlk::api::live_magic || !table->handle)
    {
        return zlk::api::api_call_no_handle(
            name,
            [table]() -> zlk_error_t
            {
                if (!table)
                {
                    throw zlk::api_exception{zlk_e_invalid_argument, "Got NULL batch table"};
                }
                if (table->magic != zlk::api::live_magic)
                {
                    throw zlk::api_exception{zlk_e_invalid_argument, "Got corrupted batch table"};
                }
                throw zlk::api_exception{zlk_e_invalid_handle, "Got table with NULL handle"};
            });
    }
    return api_call(table->handle, name, std::forward<Body>(body));
}

void check_columns(const zlk_ts_batch_column_info * columns, size_t count)
{
    if (!columns || count == 0)
    {
        throw zlk::api_exception{zlk_e_invalid_argument, "Got zero {}", "columns info"};
    }
    for (size_t i = 0; i < count; ++i)
    {
        zlk::api::check_alias(columns[i].timeseries, "timeseries");
        zlk::api::check_string(columns[i].column, "column", zlk::api::max_alias_length);
    }
}

zlk_error_t add_columns(zlk_session & h, ts::batch_columns & staged, const zlk_ts_batch_column_info * columns,
                        size_t count)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    const std::span<const zlk_ts_batch_column_info> list(columns, count);
    return zlk::api::run_with_retries(h, [&]() { return staged.fetch_and_add(h.cluster, list); });
}

void check_ranges(const zlk_ts_range_t * ranges, size_t count)
{
    zlk::api::check_content(ranges, count, "ranges");
    for (size_t i = 0; i < count; ++i)
    {
        const zlk::timespec b(ranges[i].begin);
        const zlk::timespec e(ranges[i].end);
        if (!ts::before(b, e))
        {
            throw zlk::api_exception{zlk_e_invalid_argument, "Invalid range: {}", ts::range_text(b, e)};
        }
    }
}

zlk_error_t run_push(zlk_batch_table & table, ts::push_mode mode, std::span<const zlk_ts_range_t> ranges = {})
{
    zlk_session & h = *table.handle;
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    ts::push_settings settings;
    settings.mode = mode;
    settings.budget =
        static_cast<std::uint64_t>(h.cluster_max_in_buf_size.load(std::memory_order_relaxed)) * 3 / 4;
    settings.shuffle_state = &h.cluster.replica_random();
    settings.ranges = ranges;
    settings.async_timeout_ms = h.batch_push_async_timeout.load(std::memory_order_relaxed);
    const zlk_error_t pushed =
        zlk::api::run_with_retries(h, [&]() { return ts::push(h.cluster, table.columns, settings); });
    if (ZLK_SUCCESS(pushed))
    {
        table.blob_store.clear();
    }
    return pushed;
}

// The copying setters keep their bytes in the table's store, whatever the column turns out to be.
const std::uint8_t * keep_copy(zlk_batch_table & table, const void * content, size_t length)
{
    if (length == 0)
    {
        return static_cast<const std::uint8_t *>(content);
    }
    auto copy = std::make_unique_for_overwrite<std::uint8_t[]>(length);
    std::memcpy(copy.get(), content, length);
    table.blob_store.push_back(std::move(copy));
    return table.blob_store.back().get();
}

// The byte setters: a copy kept in the table's store, or the caller's own bytes.
zlk_error_t set_bytes(zlk_batch_table * table, std::string_view name, const char * label, size_t index,
                      const void * content, size_t length, bool copy) noexcept
{
    return table_call(table, name,
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_content(content, length, label);
                          const auto * bytes = copy ? keep_copy(*table, content, length)
                                                    : static_cast<const std::uint8_t *>(content);
                          return table->columns.set_bytes(index, bytes, length);
                      });
}

zlk::timespec checked_time(const zlk_timespec_t * t)
{
    if (!t)
    {
        throw zlk::api_exception{zlk_e_invalid_argument, "Got NULL {}", "timestamp"};
    }
    return zlk::timespec(*t);
}

template <typename Payload, typename Element>
zlk_error_t pin(zlk_batch_table * table, const char * name, size_t index, size_t count,
                const zlk_timespec_t * timestamp, int64_t ** timeoffsets, Element ** data)
{
    return table_call(table, name,
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_not_null(timeoffsets, "time offsets");
                          zlk::api::check_not_null(data, "data");
                          *timeoffsets = nullptr;
                          *data = nullptr;
                          const ts::column_place * place = table->columns.place(index);
                          if (!place)
                          {
                              return zlk_e_out_of_bounds;
                          }
                          ts::table_writer & w = table->columns.writers()[place->writer];
                          const zlk_error_t selected = w.select_chunk(checked_time(timestamp));
                          if (ZLK_FAILURE(selected))
                          {
                              return selected;
                          }
                          Payload * p = w.pin<Payload>(place->position, count);
                          if (!p)
                          {
                              return zlk_e_incompatible_type;
                          }
                          *timeoffsets = p->offsets.data();
                          *data = reinterpret_cast<Element *>(p->values.data());
                          return zlk_e_ok;
                      });
}

} // namespace

zlk_error_t zlk_ts_batch_table_init(zlk_handle_t handle, const zlk_ts_batch_column_info * columns,
                                    size_t column_count, zlk_batch_table_t * table) noexcept
{
    return api_call(
        handle, "zlk_ts_batch_table_init",
        [&]() -> zlk_error_t
        {
            zlk::api::check_not_null(table, "batch table");
            *table = nullptr;
            check_columns(columns, column_count);
            zlk_session & h = *handle;
            const std::uint64_t max_chunk_size =
                static_cast<std::uint64_t>(h.cluster_max_in_buf_size.load(std::memory_order_relaxed)) * 3 / 4;
            auto made = std::make_unique<zlk_batch_table>(zlk::api::live_magic, handle, max_chunk_size);
            const zlk_error_t added = add_columns(h, made->columns, columns, column_count);
            if (ZLK_FAILURE(added))
            {
                return added;
            }
            zlk_batch_table * result = made.get();
            h.objects_tracker.track(result, made, "batch table");
            *table = result;
            return zlk_e_ok;
        });
}

zlk_error_t zlk_ts_batch_table_extra_columns(zlk_batch_table_t table,
                                             const zlk_ts_batch_column_info * columns,
                                             size_t column_count) noexcept
{
    return table_call(table, "zlk_ts_batch_table_extra_columns",
                      [&]() -> zlk_error_t
                      {
                          check_columns(columns, column_count);
                          return add_columns(*table->handle, table->columns, columns, column_count);
                      });
}

void zlk_ts_batch_table_release(zlk_handle_t handle, zlk_batch_table_t table) noexcept
{
    if (!table || !zlk::api::is_valid_handle(handle))
    {
        return;
    }
    handle->objects_tracker.release(table);
}

zlk_error_t zlk_ts_batch_start_row(zlk_batch_table_t table, const zlk_timespec_t * timestamp) noexcept
{
    return table_call(table, "zlk_ts_batch_start_row",
                      [&]() -> zlk_error_t
                      {
                          if (!timestamp)
                          {
                              return zlk_e_invalid_argument;
                          }
                          table->current_timestamp = zlk::timespec(*timestamp);
                          return table->columns.start_row(table->current_timestamp);
                      });
}

zlk_error_t zlk_ts_batch_row_set_blob(zlk_batch_table_t table, size_t index, const void * content,
                                      size_t content_length) noexcept
{
    return set_bytes(table, "zlk_ts_batch_row_set_blob", "blob", index, content, content_length, true);
}

zlk_error_t zlk_ts_batch_row_set_blob_no_copy(zlk_batch_table_t table, size_t index, const void * content,
                                              size_t content_length) noexcept
{
    return set_bytes(table, "zlk_ts_batch_row_set_blob_no_copy", "blob", index, content, content_length,
                     false);
}

zlk_error_t zlk_ts_batch_row_set_string(zlk_batch_table_t table, size_t index, const char * content,
                                        size_t content_length) noexcept
{
    return set_bytes(table, "zlk_ts_batch_row_set_string", "string", index, content, content_length, true);
}

zlk_error_t zlk_ts_batch_row_set_string_no_copy(zlk_batch_table_t table, size_t index, const char * content,
                                                size_t content_length) noexcept
{
    return set_bytes(table, "zlk_ts_batch_row_set_string_no_copy", "string", index, content, content_length,
                     false);
}

zlk_error_t zlk_ts_batch_row_set_double(zlk_batch_table_t table, size_t index, double value) noexcept
{
    return table_call(table, "zlk_ts_batch_row_set_double",
                      [&]() -> zlk_error_t { return table->columns.set_double(index, value); });
}

zlk_error_t zlk_ts_batch_row_set_int64(zlk_batch_table_t table, size_t index, int64_t value) noexcept
{
    return table_call(table, "zlk_ts_batch_row_set_int64",
                      [&]() -> zlk_error_t { return table->columns.set_int64(index, value); });
}

zlk_error_t zlk_ts_batch_row_set_timestamp(zlk_batch_table_t table, size_t index,
                                           const zlk_timespec_t * value) noexcept
{
    return table_call(table, "zlk_ts_batch_row_set_timestamp",
                      [&]() -> zlk_error_t
                      { return table->columns.set_timestamp(index, checked_time(value)); });
}

zlk_error_t zlk_ts_batch_push(zlk_batch_table_t table) noexcept
{
    return table_call(table, "zlk_ts_batch_push", [&]() { return run_push(*table, ts::push_mode::normal); });
}

zlk_error_t zlk_ts_batch_push_fast(zlk_batch_table_t table) noexcept
{
    return table_call(table, "zlk_ts_batch_push_fast",
                      [&]() { return run_push(*table, ts::push_mode::fast); });
}

zlk_error_t zlk_ts_batch_push_async(zlk_batch_table_t table) noexcept
{
    return table_call(table, "zlk_ts_batch_push_async",
                      [&]() { return run_push(*table, ts::push_mode::async); });
}

zlk_error_t zlk_ts_batch_push_truncate(zlk_batch_table_t table, const zlk_ts_range_t * ranges,
                                       size_t range_count) noexcept
{
    return table_call(table, "zlk_ts_batch_push_truncate",
                      [&]() -> zlk_error_t
                      {
                          check_ranges(ranges, range_count);
                          return run_push(*table, ts::push_mode::truncate, {ranges, range_count});
                      });
}

zlk_error_t zlk_ts_batch_pin_double_column(zlk_batch_table_t table, size_t index, size_t count,
                                           const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                           double ** data) noexcept
{
    return pin<ts::double_payload>(table, "zlk_ts_batch_pin_double_column", index, count, timestamp,
                                   timeoffsets, data);
}

zlk_error_t zlk_ts_batch_pin_int64_column(zlk_batch_table_t table, size_t index, size_t count,
                                          const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                          int64_t ** data) noexcept
{
    return pin<ts::int64_payload>(table, "zlk_ts_batch_pin_int64_column", index, count, timestamp,
                                  timeoffsets, data);
}

zlk_error_t zlk_ts_batch_pin_timestamp_column(zlk_batch_table_t table, size_t index, size_t count,
                                              const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                              zlk_timespec_t ** data) noexcept
{
    return pin<ts::timestamp_payload>(table, "zlk_ts_batch_pin_timestamp_column", index, count, timestamp,
                                      timeoffsets, data);
}

zlk_error_t zlk_ts_batch_pin_blob_column(zlk_batch_table_t table, size_t index, size_t count,
                                         const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                         zlk_ts_blob_value ** data) noexcept
{
    return pin<ts::bytes_payload>(table, "zlk_ts_batch_pin_blob_column", index, count, timestamp, timeoffsets,
                                  data);
}

zlk_error_t zlk_ts_batch_pin_string_column(zlk_batch_table_t table, size_t index, size_t count,
                                           const zlk_timespec_t * timestamp, int64_t ** timeoffsets,
                                           zlk_string_t ** data) noexcept
{
    return pin<ts::bytes_payload>(table, "zlk_ts_batch_pin_string_column", index, count, timestamp,
                                  timeoffsets, data);
}

zlk_error_t zlk_ts_batch_shrink_pinned_column(zlk_batch_table_t table, size_t index, size_t count) noexcept
{
    return table_call(table, "zlk_ts_batch_shrink_pinned_column",
                      [&]() -> zlk_error_t
                      {
                          const zlk::timeseries::column_place * place = table->columns.place(index);
                          if (!place)
                          {
                              return zlk_e_out_of_bounds;
                          }
                          return table->columns.writers()[place->writer].shrink_pinned(place->position,
                                                                                       count);
                      });
}

zlk_error_t zlk_ts_batch_unsafe_resize_pinned_column(zlk_batch_table_t table, size_t index,
                                                     size_t count) noexcept
{
    return table_call(table, "zlk_ts_batch_unsafe_resize_pinned_column",
                      [&]() -> zlk_error_t
                      {
                          const zlk::timeseries::column_place * place = table->columns.place(index);
                          if (!place)
                          {
                              return zlk_e_out_of_bounds;
                          }
                          return table->columns.writers()[place->writer].resize_pinned(place->position,
                                                                                       count);
                      });
}
