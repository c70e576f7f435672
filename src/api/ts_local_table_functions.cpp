// The local table: zlk_ts_local_table_*, the row setters and getters, zlk_ts_table_row_append,
// zlk_ts_push, zlk_ts_table_get_ranges and zlk_ts_table_next_row.
#include <cstring>
#include <memory>
#include <span>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/retry_frame.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/local_table.hpp"
#include "timeseries/push.hpp"
#include "zlk/ts_local_table.h"

namespace
{

using zlk::api::api_call;
namespace ts = zlk::timeseries;
using kernel_type = zlk::kernel::column_type;

template <typename Body>
zlk_error_t table_call(zlk_local_table * table, std::string_view name, Body && body) noexcept
{
    if (!table || table->magic != zlk::api::live_magic || !table->handle)
    {
        return zlk::api::api_call_no_handle(
            name,
            [table]() -> zlk_error_t
            {
                if (!table)
                {
                    throw zlk::api_exception{zlk_e_invalid_argument, "Got NULL local table"};
                }
                if (table->magic != zlk::api::live_magic)
                {
                    throw zlk::api_exception{zlk_e_invalid_argument, "Got corrupted local table"};
                }
                throw zlk::api_exception{zlk_e_invalid_handle, "Got table with NULL handle"};
            });
    }
    return api_call(table->handle, name, std::forward<Body>(body));
}

// The column's type, or the failure for an index out of range.
zlk_error_t column_of(const zlk_local_table & t, size_t index, kernel_type & type) noexcept
{
    if (index >= t.chosen.size())
    {
        return zlk_e_out_of_bounds;
    }
    type = t.chosen[index].type;
    return zlk_e_ok;
}

template <typename Value>
zlk_error_t set_value(zlk_local_table & t, size_t index, bool accepted, const Value & v)
{
    if (index >= t.chosen.size())
    {
        return zlk_e_out_of_bounds;
    }
    if (!accepted)
    {
        return zlk_e_incompatible_type;
    }
    t.row[index] = v;
    return zlk_e_ok;
}

zlk_error_t set_bytes(zlk_local_table & t, size_t index, kernel_type wanted, const void * content,
                      size_t length, bool copy)
{
    kernel_type type{};
    if (const zlk_error_t e = column_of(t, index, type); ZLK_FAILURE(e))
    {
        return e;
    }
    if (type != wanted)
    {
        return zlk_e_incompatible_type;
    }
    const auto * bytes = static_cast<const std::uint8_t *>(content);
    if (copy && length != 0)
    {
        auto kept = std::make_unique_for_overwrite<std::uint8_t[]>(length);
        std::memcpy(kept.get(), content, length);
        t.blob_store.push_back(std::move(kept));
        bytes = t.blob_store.back().get();
    }
    t.row[index] = ts::byte_view{bytes, length};
    return zlk_e_ok;
}

// The frame of the byte setters: the content checked under the column's kind, then set_bytes.
zlk_error_t set_bytes_call(zlk_local_table * table, std::string_view name, size_t index, kernel_type wanted,
                           const void * content, size_t length, bool copy) noexcept
{
    return table_call(table, name,
                      [&]
                      {
                          zlk::api::check_content(content, length,
                                                  wanted == kernel_type::blob ? "blob" : "string");
                          return set_bytes(*table, index, wanted, content, length, copy);
                      });
}

// The current row's value of the column, after the checks every getter makes.
zlk_error_t current(const zlk_local_table & t, size_t index, kernel_type wanted,
                    const ts::column_rows *& rows, std::size_t & row)
{
    kernel_type type{};
    if (const zlk_error_t e = column_of(t, index, type); ZLK_FAILURE(e))
    {
        return e;
    }
    if (type != wanted)
    {
        return zlk_e_incompatible_type;
    }
    if (!t.fetched.has_row())
    {
        return zlk_e_iterator_end;
    }
    rows = t.fetched.at(index, row);
    return rows ? zlk_e_ok : zlk_e_element_not_found;
}

zlk_error_t get_bytes(zlk_local_table * table, const char * name, size_t index, kernel_type wanted,
                      const void ** content, size_t * length, bool copy)
{
    return table_call(table, name,
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_not_null(content, "content");
                          zlk::api::check_not_null(length, "content length");
                          *content = nullptr;
                          *length = 0;
                          const ts::column_rows * rows = nullptr;
                          std::size_t row = 0;
                          if (const zlk_error_t e = current(*table, index, wanted, rows, row); e != zlk_e_ok)
                          {
                              return e;
                          }
                          const std::span<const std::uint8_t> v = table->fetched.bytes(index);
                          if (!copy)
                          {
                              *content = v.data();
                              *length = v.size();
                              return zlk_e_ok;
                          }
                          // Strings get a terminating zero, which the length doesn't count.
                          const bool text = wanted == kernel_type::string;
                          auto owned = std::make_unique<std::uint8_t[]>(v.size() + (text ? 1 : 0));
                          if (!v.empty())
                          {
                              std::memcpy(owned.get(), v.data(), v.size());
                          }
                          const std::uint8_t * at = owned.get();
                          table->handle->objects_tracker.track(
                              at, owned, text ? "local table string" : "local table blob");
                          *content = at;
                          *length = v.size();
                          return zlk_e_ok;
                      });
}

template <typename Out, typename Read>
zlk_error_t get_fixed(zlk_local_table * table, const char * name, size_t index, kernel_type wanted,
                      Out * value, Read read)
{
    return table_call(table, name,
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_not_null(value, "value");
                          const ts::column_rows * rows = nullptr;
                          std::size_t row = 0;
                          if (const zlk_error_t e = current(*table, index, wanted, rows, row); e != zlk_e_ok)
                          {
                              return e;
                          }
                          *value = read(*rows, row);
                          return zlk_e_ok;
                      });
}

} // namespace

zlk_error_t zlk_ts_local_table_init(zlk_handle_t handle, const char * alias,
                                    const zlk_ts_column_info * columns, size_t column_count,
                                    zlk_local_table_t * table) noexcept
{
    return api_call(
        handle, "zlk_ts_local_table_init",
        [&]() -> zlk_error_t
        {
            zlk::api::check_not_null(table, "local table");
            *table = nullptr;
            const zlk::api::checked_alias checked = zlk::api::check_alias(alias);
            if (!columns || column_count == 0)
            {
                throw zlk::api_exception{zlk_e_invalid_argument, "Got zero {}", "columns info"};
            }
            for (size_t i = 0; i < column_count; ++i)
            {
                zlk::api::check_string(columns[i].name, "column", zlk::api::max_alias_length);
            }
            zlk_session & h = *handle;
            const zlk_error_t connected = h.cluster.ensure_connected();
            if (ZLK_FAILURE(connected))
            {
                return connected;
            }
            const std::uint64_t max_chunk_size =
                static_cast<std::uint64_t>(h.cluster_max_in_buf_size.load(std::memory_order_relaxed)) * 3 / 4;
            auto made = std::make_unique<zlk_local_table>(zlk::api::live_magic, handle, max_chunk_size);
            made->alias.assign(checked.data, checked.length - 1);
            const std::span<const zlk_ts_column_info> list(columns, column_count);
            const zlk_error_t resolved =
                zlk::api::run_with_retries(h, [&]() { return ts::local_table_init(h.cluster, *made, list); });
            if (ZLK_FAILURE(resolved))
            {
                return resolved;
            }
            zlk_local_table * result = made.get();
            h.objects_tracker.track(result, made, "local table");
            *table = result;
            return zlk_e_ok;
        });
}

void zlk_ts_local_table_release(zlk_handle_t handle, zlk_local_table_t table) noexcept
{
    if (!table || !zlk::api::is_valid_handle(handle))
    {
        return;
    }
    handle->objects_tracker.release(table);
}

zlk_error_t zlk_ts_row_set_blob(zlk_local_table_t table, size_t index, const void * content,
                                size_t content_length) noexcept
{
    return set_bytes_call(table, "zlk_ts_row_set_blob", index, kernel_type::blob, content, content_length,
                          true);
}

zlk_error_t zlk_ts_row_set_blob_no_copy(zlk_local_table_t table, size_t index, const void * content,
                                        size_t content_length) noexcept
{
    return set_bytes_call(table, "zlk_ts_row_set_blob_no_copy", index, kernel_type::blob, content,
                          content_length, false);
}

zlk_error_t zlk_ts_row_set_string(zlk_local_table_t table, size_t index, const char * content,
                                  size_t content_length) noexcept
{
    return set_bytes_call(table, "zlk_ts_row_set_string", index, kernel_type::string, content, content_length,
                          true);
}

zlk_error_t zlk_ts_row_set_string_no_copy(zlk_local_table_t table, size_t index, const char * content,
                                          size_t content_length) noexcept
{
    return set_bytes_call(table, "zlk_ts_row_set_string_no_copy", index, kernel_type::string, content,
                          content_length, false);
}

zlk_error_t zlk_ts_row_set_double(zlk_local_table_t table, size_t index, double value) noexcept
{
    return table_call(table, "zlk_ts_row_set_double",
                      [&]
                      {
                          const bool ok = index < table->chosen.size() &&
                                          table->chosen[index].type == kernel_type::double_;
                          return set_value(*table, index, ok, value);
                      });
}

zlk_error_t zlk_ts_row_set_int64(zlk_local_table_t table, size_t index, int64_t value) noexcept
{
    return table_call(table, "zlk_ts_row_set_int64",
                      [&]
                      {
                          const bool ok =
                              index < table->chosen.size() && table->chosen[index].type == kernel_type::int64;
                          return set_value(*table, index, ok, static_cast<std::int64_t>(value));
                      });
}

zlk_error_t zlk_ts_row_set_timestamp(zlk_local_table_t table, size_t index,
                                     const zlk_timespec_t * value) noexcept
{
    return table_call(table, "zlk_ts_row_set_timestamp",
                      [&]
                      {
                          zlk::api::check_not_null(value, "timestamp");
                          const bool ok = index < table->chosen.size() &&
                                          table->chosen[index].type == kernel_type::timestamp;
                          return set_value(*table, index, ok, zlk::timespec(*value));
                      });
}

zlk_error_t zlk_ts_table_row_append(zlk_local_table_t table, const zlk_timespec_t * timestamp,
                                    size_t * row_index) noexcept
{
    return table_call(table, "zlk_ts_table_row_append",
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_not_null(timestamp, "timestamp");
                          const std::size_t index = table->appended;
                          const zlk_error_t e = ts::local_table_append(*table, zlk::timespec(*timestamp));
                          if (ZLK_SUCCESS(e) && row_index)
                          {
                              *row_index = index;
                          }
                          return e;
                      });
}

zlk_error_t zlk_ts_push(zlk_local_table_t table) noexcept
{
    return table_call(
        table, "zlk_ts_push",
        [&]() -> zlk_error_t
        {
            zlk_session & h = *table->handle;
            const zlk_error_t connected = h.cluster.ensure_connected();
            if (ZLK_FAILURE(connected))
            {
                return connected;
            }
            ts::push_settings settings;
            settings.budget =
                static_cast<std::uint64_t>(h.cluster_max_in_buf_size.load(std::memory_order_relaxed)) * 3 / 4;
            settings.shuffle_state = &h.cluster.replica_random();
            const zlk_error_t pushed = zlk::api::run_with_retries(
                h, [&]() { return ts::push(h.cluster, table->columns, settings); });
            if (ZLK_SUCCESS(pushed))
            {
                table->blob_store.clear();
                table->appended = 0;
            }
            return pushed;
        });
}

zlk_error_t zlk_ts_table_get_ranges(zlk_local_table_t table, const zlk_ts_range_t * ranges,
                                    size_t range_count) noexcept
{
    return table_call(table, "zlk_ts_table_get_ranges",
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_content(ranges, range_count, "ranges");
                          for (size_t i = 0; i < range_count; ++i)
                          {
                              const zlk::timespec b(ranges[i].begin);
                              const zlk::timespec e(ranges[i].end);
                              if (!ts::before(b, e))
                              {
                                  throw zlk::api_exception{zlk_e_invalid_argument, "Invalid range: {}",
                                                           ts::range_text(b, e)};
                              }
                          }
                          zlk_session & h = *table->handle;
                          const zlk_error_t connected = h.cluster.ensure_connected();
                          if (ZLK_FAILURE(connected))
                          {
                              return connected;
                          }
                          const std::span<const zlk_ts_range_t> list(ranges, range_count);
                          return zlk::api::run_with_retries(
                              h, [&]() { return ts::local_table_get_ranges(h.cluster, *table, list); });
                      });
}

zlk_error_t zlk_ts_table_next_row(zlk_local_table_t table, zlk_timespec_t * timestamp) noexcept
{
    return table_call(table, "zlk_ts_table_next_row",
                      [&]() -> zlk_error_t
                      {
                          zlk::api::check_not_null(timestamp, "timestamp");
                          zlk::timespec t;
                          if (!table->fetched.next(t))
                          {
                              return zlk_e_iterator_end;
                          }
                          *timestamp = t.to_c();
                          return zlk_e_ok;
                      });
}

zlk_error_t zlk_ts_row_get_blob(zlk_local_table_t table, size_t index, const void ** content,
                                size_t * content_length) noexcept
{
    return get_bytes(table, "zlk_ts_row_get_blob", index, kernel_type::blob, content, content_length, true);
}

zlk_error_t zlk_ts_row_get_blob_no_copy(zlk_local_table_t table, size_t index, const void ** content,
                                        size_t * content_length) noexcept
{
    return get_bytes(table, "zlk_ts_row_get_blob_no_copy", index, kernel_type::blob, content, content_length,
                     false);
}

zlk_error_t zlk_ts_row_get_string(zlk_local_table_t table, size_t index, const char ** content,
                                  size_t * content_length) noexcept
{
    return get_bytes(table, "zlk_ts_row_get_string", index, kernel_type::string,
                     reinterpret_cast<const void **>(content), content_length, true);
}

zlk_error_t zlk_ts_row_get_string_no_copy(zlk_local_table_t table, size_t index, const char ** content,
                                          size_t * content_length) noexcept
{
    return get_bytes(table, "zlk_ts_row_get_string_no_copy", index, kernel_type::string,
                     reinterpret_cast<const void **>(content), content_length, false);
}

zlk_error_t zlk_ts_row_get_double(zlk_local_table_t table, size_t index, double * value) noexcept
{
    return get_fixed(table, "zlk_ts_row_get_double", index, kernel_type::double_, value,
                     [](const ts::column_rows & r, std::size_t row) { return r.double_at(row); });
}

zlk_error_t zlk_ts_row_get_int64(zlk_local_table_t table, size_t index, int64_t * value) noexcept
{
    return get_fixed(table, "zlk_ts_row_get_int64", index, kernel_type::int64, value,
                     [](const ts::column_rows & r, std::size_t row) { return r.int64_at(row); });
}

zlk_error_t zlk_ts_row_get_timestamp(zlk_local_table_t table, size_t index, zlk_timespec_t * value) noexcept
{
    return get_fixed(table, "zlk_ts_row_get_timestamp", index, kernel_type::timestamp, value,
                     [](const ts::column_rows & r, std::size_t row) { return r.timestamp_at(row).to_c(); });
}
