// zlk_ts_*_aggregate: aggregations of one column over ranges, computed bucket by bucket on the nodes
// and combined here.
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/retry_frame.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/table_metadata.hpp"
#include "zlk/ts_aggregate.h"

namespace
{

using zlk::api::api_call;
namespace ts = zlk::timeseries;
using ct = zlk::kernel::column_type;

// The value as the int64 record's result holds it: truncated toward zero when it fits, else 0.
std::int64_t truncated(double v) noexcept
{
    constexpr double limit = 9223372036854775808.0; // 2^63
    return std::isfinite(v) && v > -limit && v < limit ? static_cast<std::int64_t>(v) : 0;
}

double as_double(const ts::result_value & v) noexcept
{
    if (const double * d = std::get_if<double>(&v))
    {
        return *d;
    }
    if (const std::int64_t * i = std::get_if<std::int64_t>(&v))
    {
        return static_cast<double>(*i);
    }
    if (const ts::int64_sum * s = std::get_if<ts::int64_sum>(&v))
    {
        return s->total();
    }
    return 0.0;
}

void write_result(zlk_session &, zlk_ts_double_aggregation & r, ts::aggregate_result && a)
{
    r.count = a.count;
    r.result.timestamp = a.time.to_c();
    r.result.value = as_double(a.value);
}

void write_result(zlk_session &, zlk_ts_int64_aggregation & r, ts::aggregate_result && a)
{
    r.count = a.count;
    r.result.timestamp = a.time.to_c();
    r.exact_result = as_double(a.value);
    if (const std::int64_t * i = std::get_if<std::int64_t>(&a.value))
    {
        r.result.value = *i;
    }
    else if (const ts::int64_sum * s = std::get_if<ts::int64_sum>(&a.value))
    {
        // The two words wrapped to one, as an int64 addition would have.
        const __int128 total = static_cast<__int128>(s->integer) + static_cast<__int128>(s->rest);
        r.result.value =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(static_cast<unsigned __int128>(total)));
    }
    else
    {
        r.result.value = truncated(r.exact_result);
    }
}

void write_result(zlk_session &, zlk_ts_timestamp_aggregation & r, ts::aggregate_result && a)
{
    r.count = a.count;
    r.result.timestamp = a.time.to_c();
    r.result.value = zlk_timespec_t{0, 0};
    if (const zlk::timespec * t = std::get_if<zlk::timespec>(&a.value))
    {
        r.result.value = t->to_c();
    }
    else if (const std::int64_t * i = std::get_if<std::int64_t>(&a.value))
    {
        r.result.value = zlk_timespec_t{*i, 0};
    }
}

// Bytes go to the caller in a buffer of their own, tracked under its address.
template <typename Record>
void write_bytes(zlk_session & h, Record & r, ts::aggregate_result && a, const char * label)
{
    r.count = a.count;
    r.result.timestamp = a.time.to_c();
    r.result.content = nullptr;
    r.result.content_length = 0;
    if (const std::int64_t * i = std::get_if<std::int64_t>(&a.value))
    {
        // A number has no place in a content: the counting functions give it as the count.
        r.count = static_cast<size_t>(*i);
        return;
    }
    const std::string * bytes = std::get_if<std::string>(&a.value);
    if (bytes == nullptr || bytes->empty())
    {
        return;
    }
    auto owned = std::make_unique<char[]>(bytes->size());
    std::memcpy(owned.get(), bytes->data(), bytes->size());
    const char * at = owned.get();
    h.objects_tracker.track(at, owned, label);
    r.result.content = at;
    r.result.content_length = bytes->size();
}

void write_result(zlk_session & h, zlk_ts_blob_aggregation & r, ts::aggregate_result && a)
{
    write_bytes(h, r, std::move(a), "blob aggregation");
}

void write_result(zlk_session & h, zlk_ts_string_aggregation & r, ts::aggregate_result && a)
{
    write_bytes(h, r, std::move(a), "string aggregation");
}

// The records as requests: each range checked, each function an aggregation.
template <typename Record>
std::vector<ts::aggregate_sub_request> checked_aggregations(const Record * aggregations, size_t count)
{
    if (aggregations == nullptr || count == 0)
    {
        zlk::api::check_not_zero(0, "aggregations");
    }
    std::vector<ts::aggregate_sub_request> asked(count);
    for (size_t i = 0; i < count; ++i)
    {
        const zlk_ts_range_t & range = aggregations[i].range;
        const zlk::timespec begin(range.begin);
        const zlk::timespec end(range.end);
        if (!ts::before(begin, end))
        {
            throw zlk::api_exception{zlk_e_invalid_argument, "Invalid range: {}", ts::range_text(begin, end)};
        }
        asked[i].type = static_cast<std::uint64_t>(static_cast<std::uint32_t>(aggregations[i].type));
        // A node would refuse it too, but only as an internal error.
        if (!ts::is_aggregation(asked[i].type))
        {
            throw zlk::api_exception{zlk_e_invalid_argument, "Invalid aggregation type: {}", asked[i].type};
        }
        asked[i].range = range;
    }
    return asked;
}

// The one body of the five functions; what differs is the record and the column type it reads.
template <typename Record>
zlk_error_t aggregate(zlk_session & h, ct expected, const char * alias, const char * column,
                      Record * aggregations, size_t count)
{
    const zlk::api::checked_alias checked = zlk::api::check_alias(alias);
    const zlk::api::checked_string column_name =
        zlk::api::check_string(column, "column", zlk::api::max_alias_length);
    const std::vector<ts::aggregate_sub_request> asked = checked_aggregations(aggregations, count);
    const std::string_view table(checked.data, checked.length - 1);
    const std::string_view column_view(column_name.data, column_name.length);

    std::vector<ts::aggregation_state> states;
    ts::aggregate_target target;
    const zlk_error_t result =
        zlk::api::run_with_retries(h,
                                   [&]() -> zlk_error_t
                                   {
                                       const zlk_error_t connected = h.cluster.ensure_connected();
                                       if (ZLK_FAILURE(connected))
                                       {
                                           return connected;
                                       }
                                       ts::column_lookup lookup;
                                       const zlk_error_t found =
                                           ts::find_column(h.cluster, table, column_view, lookup);
                                       if (ZLK_FAILURE(found))
                                       {
                                           return found;
                                       }
                                       if (lookup.type != expected)
                                       {
                                           return zlk_e_incompatible_type;
                                       }
                                       target.table = ts::table_id(table);
                                       target.type = lookup.type;
                                       target.column_index = lookup.index;
                                       target.shard_size = static_cast<std::int64_t>(lookup.shard_size);
                                       return ts::run_aggregates(h.cluster, target, asked, states);
                                   });
    if (ZLK_FAILURE(result))
    {
        return result;
    }
    for (size_t i = 0; i < count; ++i)
    {
        ts::aggregate_result r;
        if (ts::finalise(static_cast<zlk::aggregation_type>(asked[i].type), target.type, std::move(states[i]),
                         r))
        {
            return zlk_e_invalid_reply;
        }
        write_result(h, aggregations[i], std::move(r));
    }
    return result;
}

template <typename Record>
zlk_error_t aggregate(zlk_handle_t handle, const char * name, ct expected, const char * alias,
                      const char * column, Record * aggregations, size_t count)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    { return aggregate(*handle, expected, alias, column, aggregations, count); });
}

} // namespace

zlk_error_t zlk_ts_double_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                    zlk_ts_double_aggregation * aggregations,
                                    size_t aggregation_count) noexcept
{
    return aggregate(handle, "zlk_ts_double_aggregate", ct::double_, alias, column, aggregations,
                     aggregation_count);
}

zlk_error_t zlk_ts_int64_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                   zlk_ts_int64_aggregation * aggregations, size_t aggregation_count) noexcept
{
    return aggregate(handle, "zlk_ts_int64_aggregate", ct::int64, alias, column, aggregations,
                     aggregation_count);
}

zlk_error_t zlk_ts_timestamp_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                       zlk_ts_timestamp_aggregation * aggregations,
                                       size_t aggregation_count) noexcept
{
    return aggregate(handle, "zlk_ts_timestamp_aggregate", ct::timestamp, alias, column, aggregations,
                     aggregation_count);
}

zlk_error_t zlk_ts_blob_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                  zlk_ts_blob_aggregation * aggregations, size_t aggregation_count) noexcept
{
    return aggregate(handle, "zlk_ts_blob_aggregate", ct::blob, alias, column, aggregations,
                     aggregation_count);
}

zlk_error_t zlk_ts_string_aggregate(zlk_handle_t handle, const char * alias, const char * column,
                                    zlk_ts_string_aggregation * aggregations,
                                    size_t aggregation_count) noexcept
{
    return aggregate(handle, "zlk_ts_string_aggregate", ct::string, alias, column, aggregations,
                     aggregation_count);
}
