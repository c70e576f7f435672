// zlk_ts_{double,int64,timestamp,blob,string}_{insert,insert_truncate,get_ranges}, zlk_ts_get_timestamps,
// zlk_ts_erase_ranges: one column of a table, split by bucket.
#include <cstring>
#include <memory>
#include <type_traits>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/retry_frame.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "timeseries/column_requests.hpp"
#include "timeseries/table_metadata.hpp"
#include "zlk/ts.h"

namespace
{

using zlk::api::api_call;
using zlk::kernel::column_type;
namespace ts = zlk::timeseries;

// What each point record needs: its column type, its time, and how its value is staged and read back.
template <typename Point>
struct point_traits;

template <>
struct point_traits<zlk_ts_double_point>
{
    static constexpr column_type type = column_type::double_;
    static void stage(ts::staged_bucket & b, const zlk_ts_double_point & p)
    {
        const auto * v = reinterpret_cast<const std::uint8_t *>(&p.value);
        b.fixed.insert(b.fixed.end(), v, v + sizeof p.value);
    }
    static void read(zlk_ts_double_point & p, const ts::column_rows & rows, std::size_t i)
    {
        p.value = rows.double_at(i);
    }
};

template <>
struct point_traits<zlk_ts_int64_point>
{
    static constexpr column_type type = column_type::int64;
    static void stage(ts::staged_bucket & b, const zlk_ts_int64_point & p)
    {
        const auto * v = reinterpret_cast<const std::uint8_t *>(&p.value);
        b.fixed.insert(b.fixed.end(), v, v + sizeof p.value);
    }
    static void read(zlk_ts_int64_point & p, const ts::column_rows & rows, std::size_t i)
    {
        p.value = rows.int64_at(i);
    }
};

template <>
struct point_traits<zlk_ts_timestamp_point>
{
    static constexpr column_type type = column_type::timestamp;
    static void stage(ts::staged_bucket & b, const zlk_ts_timestamp_point & p)
    {
        const std::int64_t words[2] = {p.value.tv_sec, p.value.tv_nsec};
        const auto * v = reinterpret_cast<const std::uint8_t *>(words);
        b.fixed.insert(b.fixed.end(), v, v + sizeof words);
    }
    static void read(zlk_ts_timestamp_point & p, const ts::column_rows & rows, std::size_t i)
    {
        p.value = rows.timestamp_at(i).to_c();
    }
};

template <typename Point>
struct byte_point_traits
{
    static void stage(ts::staged_bucket & b, const Point & p)
    {
        b.bytes.emplace_back(reinterpret_cast<const std::uint8_t *>(p.content), p.content_length);
    }
};

template <>
struct point_traits<zlk_ts_blob_point> : byte_point_traits<zlk_ts_blob_point>
{
    static constexpr column_type type = column_type::blob;
    using content_type = const void *;
};

template <>
struct point_traits<zlk_ts_string_point> : byte_point_traits<zlk_ts_string_point>
{
    static constexpr column_type type = column_type::string;
    using content_type = const char *;
};

template <typename Point>
constexpr bool has_bytes = zlk::kernel::holds_bytes(point_traits<Point>::type);

struct checked_names
{
    std::string_view alias;
    std::string_view column;
};

checked_names check_names(const char * alias, const char * column)
{
    const zlk::api::checked_alias a = zlk::api::check_alias(alias, "alias");
    const zlk::api::checked_string c = zlk::api::check_string(column, "column", zlk::api::max_alias_length);
    return {{a.data, a.length - 1}, {c.data, c.length}};
}

void check_ranges(const zlk_ts_range_t * ranges, std::size_t count)
{
    zlk::api::check_content(ranges, count, "ranges");
    for (std::size_t i = 0; i < count; ++i)
    {
        const zlk::timespec begin(ranges[i].begin);
        const zlk::timespec end(ranges[i].end);
        if (!ts::before(begin, end))
        {
            throw zlk::api_exception{zlk_e_invalid_argument, "Invalid range: {}", ts::range_text(begin, end)};
        }
    }
}

// The column with its shard size and index; `expected` null accepts any type.
zlk_error_t find_target(zlk_session & h, const checked_names & names, const column_type * expected,
                        ts::column_target & out)
{
    out.alias = names.alias;
    out.column = names.column;
    const zlk_error_t r = ts::find_column(h.cluster, names.alias, names.column, out.info);
    if (r == zlk_e_column_not_found)
    {
        throw zlk::api_exception{zlk_e_column_not_found, "The timeseries does not contain this column."};
    }
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    if (expected && out.info.type != *expected)
    {
        return zlk_e_incompatible_type;
    }
    if (out.info.shard_size == 0 || out.info.shard_size > static_cast<std::uint64_t>(INT64_MAX))
    {
        return zlk_e_invalid_reply;
    }
    return zlk_e_ok;
}

zlk_error_t split(const ts::column_target & target, const zlk_ts_range_t * ranges, std::size_t count,
                  std::vector<ts::bucket_ranges> & out)
{
    const zlk_error_t r =
        ts::split_ranges({ranges, count}, static_cast<std::int64_t>(target.info.shard_size), out);
    if (ZLK_FAILURE(r))
    {
        throw zlk::api_exception{r, "The ranges span too many shards of {} ms", target.info.shard_size};
    }
    return r;
}

template <typename Point>
zlk_error_t insert_points(zlk_session & h, const ts::column_target & target, const Point * points,
                          std::size_t count)
{
    if (count == 0)
    {
        return zlk_e_ok;
    }
    auto buckets = ts::stage_rows(
        count, static_cast<std::int64_t>(target.info.shard_size),
        [&](std::size_t i) { return zlk::timespec(points[i].timestamp); },
        [&](ts::staged_bucket & b, std::size_t i) { point_traits<Point>::stage(b, points[i]); });
    return ts::insert_buckets(h.cluster, target, buckets);
}

template <typename Point>
void check_points(const Point * points, std::size_t count)
{
    zlk::api::check_content(points, count, "points");
    if constexpr (has_bytes<Point>)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            zlk::api::check_content(points[i].content, points[i].content_length, "content");
        }
    }
}

template <typename Point>
zlk_error_t insert(zlk_handle_t handle, const char * name, const char * alias, const char * column,
                   const zlk_ts_range_t * ranges, std::size_t range_count, bool truncate,
                   const Point * points, std::size_t point_count)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const checked_names names = check_names(alias, column);
                                if (truncate)
                                {
                                    check_ranges(ranges, range_count);
                                }
                                check_points(points, point_count);
                                constexpr column_type expected = point_traits<Point>::type;
                                ts::column_target target;
                                zlk_error_t r = find_target(*handle, names, &expected, target);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                if (truncate)
                                {
                                    std::vector<ts::bucket_ranges> buckets;
                                    split(target, ranges, range_count, buckets);
                                    std::uint64_t erased = 0;
                                    r = ts::erase_ranges(handle->cluster, target, buckets, false, erased);
                                    if (ZLK_FAILURE(r))
                                    {
                                        return r;
                                    }
                                }
                                return insert_points(*handle, target, points, point_count);
                            });
                    });
}

// The decoded column of each bucket's reply, checked against what was asked.
zlk_error_t decode_replies(const ts::column_target & target, const ts::bucket_replies & replies,
                           std::vector<ts::column_rows> & out, std::size_t & rows)
{
    out.clear();
    out.reserve(replies.contents.size());
    rows = 0;
    std::vector<ts::column_rows> one;
    for (const auto & content : replies.contents)
    {
        if (ts::decode_rows_reply(content, one) || one.size() != 1 || one[0].type != target.info.type)
        {
            return zlk_e_invalid_reply;
        }
        out.push_back(one[0]);
        rows += one[0].rows;
    }
    return zlk_e_ok;
}

// Fixed-size points: one array.
template <typename Point>
void hand_out_points(zlk_session & h, const ts::bucket_replies & replies,
                     const std::vector<ts::column_rows> & columns, std::size_t rows, Point ** points,
                     std::size_t * point_count) requires(!has_bytes<Point>)
{
    auto block = std::make_unique<Point[]>(rows);
    std::size_t k = 0;
    for (std::size_t b = 0; b < columns.size(); ++b)
    {
        const ts::column_rows & col = columns[b];
        for (std::size_t i = 0; i < col.rows; ++i, ++k)
        {
            block[k].timestamp = ts::time_of(replies.starts[b], col.offset(i)).to_c();
            point_traits<Point>::read(block[k], col, i);
        }
    }
    Point * at = block.get();
    h.objects_tracker.track(at, block, "ts points");
    *points = at;
    *point_count = rows;
}

// Blob and string points: the array, then every content with a zero after it, in one allocation.
template <typename Point>
void hand_out_points(zlk_session & h, const ts::bucket_replies & replies,
                     const std::vector<ts::column_rows> & columns, std::size_t rows, Point ** points,
                     std::size_t * point_count) requires(has_bytes<Point>)
{
    std::size_t bytes = rows * sizeof(Point);
    for (const ts::column_rows & col : columns)
    {
        bytes += col.values.size() + col.rows; // lengths included: an upper bound
    }
    const std::size_t words = (bytes + sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t);
    auto block = std::make_unique<std::max_align_t[]>(words);
    auto * out = reinterpret_cast<Point *>(block.get());
    char * content = reinterpret_cast<char *>(out + rows);
    std::size_t k = 0;
    for (std::size_t b = 0; b < columns.size(); ++b)
    {
        const ts::column_rows & col = columns[b];
        zlk::serialization::cursor at(col.values);
        for (std::size_t i = 0; i < col.rows; ++i, ++k)
        {
            const auto value = ts::next_bytes(at);
            if (!value.empty())
            {
                std::memcpy(content, value.data(), value.size());
            }
            content[value.size()] = '\0';
            out[k].timestamp = ts::time_of(replies.starts[b], col.offset(i)).to_c();
            out[k].content = static_cast<typename point_traits<Point>::content_type>(content);
            out[k].content_length = value.size();
            content += value.size() + 1;
        }
    }
    h.objects_tracker.track(out, block, "blobs range content");
    *points = out;
    *point_count = rows;
}

template <typename Point>
zlk_error_t get_ranges(zlk_handle_t handle, const char * name, const char * alias, const char * column,
                       const zlk_ts_range_t * ranges, std::size_t range_count, Point ** points,
                       std::size_t * point_count)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        if (!points || !point_count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *points = nullptr;
                        *point_count = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const checked_names names = check_names(alias, column);
                                check_ranges(ranges, range_count);
                                constexpr column_type expected = point_traits<Point>::type;
                                ts::column_target target;
                                zlk_error_t r = find_target(*handle, names, &expected, target);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<ts::bucket_ranges> buckets;
                                split(target, ranges, range_count, buckets);
                                ts::bucket_replies replies;
                                r = ts::read_ranges(handle->cluster, target, buckets, replies);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<ts::column_rows> columns;
                                std::size_t rows = 0;
                                r = decode_replies(target, replies, columns, rows);
                                if (ZLK_FAILURE(r) || rows == 0)
                                {
                                    return r;
                                }
                                hand_out_points(*handle, replies, columns, rows, points, point_count);
                                return zlk_e_ok;
                            });
                    });
}

} // namespace

zlk_error_t zlk_ts_double_insert(zlk_handle_t handle, const char * alias, const char * column,
                                 const zlk_ts_double_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_double_insert", alias, column, nullptr, 0, false, points, point_count);
}

zlk_error_t zlk_ts_int64_insert(zlk_handle_t handle, const char * alias, const char * column,
                                const zlk_ts_int64_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_int64_insert", alias, column, nullptr, 0, false, points, point_count);
}

zlk_error_t zlk_ts_timestamp_insert(zlk_handle_t handle, const char * alias, const char * column,
                                    const zlk_ts_timestamp_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_timestamp_insert", alias, column, nullptr, 0, false, points, point_count);
}

zlk_error_t zlk_ts_blob_insert(zlk_handle_t handle, const char * alias, const char * column,
                               const zlk_ts_blob_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_blob_insert", alias, column, nullptr, 0, false, points, point_count);
}

zlk_error_t zlk_ts_string_insert(zlk_handle_t handle, const char * alias, const char * column,
                                 const zlk_ts_string_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_string_insert", alias, column, nullptr, 0, false, points, point_count);
}

zlk_error_t zlk_ts_double_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                          const zlk_ts_range_t * ranges, size_t range_count,
                                          const zlk_ts_double_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_double_insert_truncate", alias, column, ranges, range_count, true, points,
                  point_count);
}

zlk_error_t zlk_ts_int64_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                         const zlk_ts_range_t * ranges, size_t range_count,
                                         const zlk_ts_int64_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_int64_insert_truncate", alias, column, ranges, range_count, true, points,
                  point_count);
}

zlk_error_t zlk_ts_timestamp_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                             const zlk_ts_range_t * ranges, size_t range_count,
                                             const zlk_ts_timestamp_point * points,
                                             size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_timestamp_insert_truncate", alias, column, ranges, range_count, true,
                  points, point_count);
}

zlk_error_t zlk_ts_blob_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                        const zlk_ts_range_t * ranges, size_t range_count,
                                        const zlk_ts_blob_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_blob_insert_truncate", alias, column, ranges, range_count, true, points,
                  point_count);
}

zlk_error_t zlk_ts_string_insert_truncate(zlk_handle_t handle, const char * alias, const char * column,
                                          const zlk_ts_range_t * ranges, size_t range_count,
                                          const zlk_ts_string_point * points, size_t point_count) noexcept
{
    return insert(handle, "zlk_ts_string_insert_truncate", alias, column, ranges, range_count, true, points,
                  point_count);
}

zlk_error_t zlk_ts_double_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                     const zlk_ts_range_t * ranges, size_t range_count,
                                     zlk_ts_double_point ** points, size_t * point_count) noexcept
{
    return get_ranges(handle, "zlk_ts_double_get_ranges", alias, column, ranges, range_count, points,
                      point_count);
}

zlk_error_t zlk_ts_int64_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                    const zlk_ts_range_t * ranges, size_t range_count,
                                    zlk_ts_int64_point ** points, size_t * point_count) noexcept
{
    return get_ranges(handle, "zlk_ts_int64_get_ranges", alias, column, ranges, range_count, points,
                      point_count);
}

zlk_error_t zlk_ts_timestamp_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                        const zlk_ts_range_t * ranges, size_t range_count,
                                        zlk_ts_timestamp_point ** points, size_t * point_count) noexcept
{
    return get_ranges(handle, "zlk_ts_timestamp_get_ranges", alias, column, ranges, range_count, points,
                      point_count);
}

zlk_error_t zlk_ts_blob_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                   const zlk_ts_range_t * ranges, size_t range_count,
                                   zlk_ts_blob_point ** points, size_t * point_count) noexcept
{
    return get_ranges(handle, "zlk_ts_blob_get_ranges", alias, column, ranges, range_count, points,
                      point_count);
}

zlk_error_t zlk_ts_string_get_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                     const zlk_ts_range_t * ranges, size_t range_count,
                                     zlk_ts_string_point ** points, size_t * point_count) noexcept
{
    return get_ranges(handle, "zlk_ts_string_get_ranges", alias, column, ranges, range_count, points,
                      point_count);
}

zlk_error_t zlk_ts_get_timestamps(zlk_handle_t handle, const char * alias, const char * column,
                                  const zlk_ts_range_t * ranges, size_t range_count,
                                  zlk_timespec_t ** timestamps, size_t * timestamp_count) noexcept
{
    return api_call(handle, "zlk_ts_get_timestamps",
                    [&]() -> zlk_error_t
                    {
                        if (!timestamps || !timestamp_count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *timestamps = nullptr;
                        *timestamp_count = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const checked_names names = check_names(alias, column);
                                check_ranges(ranges, range_count);
                                ts::column_target target;
                                zlk_error_t r = find_target(*handle, names, nullptr, target);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<ts::bucket_ranges> buckets;
                                split(target, ranges, range_count, buckets);
                                ts::bucket_replies replies;
                                r = ts::read_timestamps(handle->cluster, target, buckets, replies);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<ts::offsets_view> views(replies.contents.size());
                                std::size_t total = 0;
                                for (std::size_t b = 0; b < views.size(); ++b)
                                {
                                    if (ts::decode_offsets_reply(replies.contents[b], views[b]))
                                    {
                                        return zlk_e_invalid_reply;
                                    }
                                    total += views[b].count;
                                }
                                if (total == 0)
                                {
                                    return zlk_e_ok;
                                }
                                auto block = std::make_unique<zlk_timespec_t[]>(total);
                                std::size_t k = 0;
                                for (std::size_t b = 0; b < views.size(); ++b)
                                {
                                    for (std::size_t i = 0; i < views[b].count; ++i)
                                    {
                                        block[k++] = ts::time_of(replies.starts[b], views[b][i]).to_c();
                                    }
                                }
                                zlk_timespec_t * at = block.get();
                                handle->objects_tracker.track(at, block, "ts timestamps");
                                *timestamps = at;
                                *timestamp_count = total;
                                return zlk_e_ok;
                            });
                    });
}

zlk_error_t zlk_ts_erase_ranges(zlk_handle_t handle, const char * alias, const char * column,
                                const zlk_ts_range_t * ranges, size_t range_count,
                                uint64_t * erased_count) noexcept
{
    return api_call(handle, "zlk_ts_erase_ranges",
                    [&]() -> zlk_error_t
                    {
                        if (!erased_count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *erased_count = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                const checked_names names = check_names(alias, column);
                                check_ranges(ranges, range_count);
                                ts::column_target target;
                                zlk_error_t r = find_target(*handle, names, nullptr, target);
                                if (ZLK_FAILURE(r))
                                {
                                    return r;
                                }
                                std::vector<ts::bucket_ranges> buckets;
                                split(target, ranges, range_count, buckets);
                                std::uint64_t erased = 0;
                                r = ts::erase_ranges(handle->cluster, target, buckets, false, erased);
                                *erased_count = erased;
                                return r;
                            });
                    });
}
