#include "node/ts_aggregate_operations.hpp"

#include "base/error_categories.hpp"
#include "node/ts_operations.hpp"
#include "timeseries/codec/aggregate_messages.hpp"
#include "timeseries/codec/aggregation_state.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;
namespace ts = zlk::timeseries;

namespace
{

error_code kernel_error(kernel::error e) noexcept
{
    return make_error_code(e);
}

void put_varint(std::vector<std::uint8_t> & out, std::uint64_t v)
{
    while (v >= 0x80)
    {
        out.push_back(static_cast<std::uint8_t>(v | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<std::uint8_t>(v));
}

// Whether a stored column is what the operation reads: 113 serves blob and string columns.
bool reads(kernel::column_type family, kernel::column_type stored) noexcept
{
    return family == kernel::column_type::blob ? kernel::holds_bytes(stored) : family == stored;
}

// The rows [first, last) of the column, folded. The values vector of the column's type only: one loop
// per function and type, no branch on the type inside it.
ts::aggregation_state fold_column(aggregation_type f, const ts_column_data & column, std::int64_t shard_start,
                                  std::size_t first, std::size_t last)
{
    const std::size_t n = last - first;
    const ts::row_times times{shard_start, column.offsets.view().subspan(first, n)};
    switch (column.type)
    {
    case kernel::column_type::double_:
        return ts::fold_rows(f, std::span(column.doubles).subspan(first, n), times);
    case kernel::column_type::int64:
        return ts::fold_rows(f, std::span(column.integers).subspan(first, n), times);
    case kernel::column_type::timestamp:
        return ts::fold_rows(f, std::span(column.timestamps).subspan(first, n), times);
    case kernel::column_type::blob:
    case kernel::column_type::string:
        return ts::fold_rows(f, std::span(column.bytes).subspan(first, n), times);
    }
    return ts::no_data_state{};
}

std::size_t value_count(const ts_column_data & column) noexcept
{
    switch (column.type)
    {
    case kernel::column_type::double_:
        return column.doubles.size();
    case kernel::column_type::int64:
        return column.integers.size();
    case kernel::column_type::timestamp:
        return column.timestamps.size();
    case kernel::column_type::blob:
    case kernel::column_type::string:
        return column.bytes.size();
    }
    return 0;
}

} // namespace

error_code answer_aggregates(ts_store & store, std::uint16_t operation, serialization::cursor fields,
                             std::vector<std::uint8_t> & content)
{
    const std::optional<kernel::column_type> family = ts::aggregate_column_type(operation);
    if (!family)
    {
        return kernel_error(kernel::error::unknown_message);
    }
    ts::decoded_aggregate request;
    if (error_code ec = ts::decode_aggregate(fields, request))
    {
        return ec;
    }
    for (const ts::aggregate_sub_request & s : request.subs)
    {
        if (!ts::is_aggregation(s.type))
        {
            return kernel_error(kernel::error::unexpected_value);
        }
        if (!ts::accepts(static_cast<aggregation_type>(s.type), *family))
        {
            return kernel_error(kernel::error::incompatible_type);
        }
    }

    const std::size_t start = content.size();
    put_varint(content, request.subs.size());
    const error_code ec = store.with_bucket(
        request.bucket, false, {},
        [&](ts_bucket * bucket) -> error_code
        {
            const ts_column_data * column = nullptr;
            if (bucket != nullptr)
            {
                const auto it = bucket->columns.find(request.column_index);
                column = it == bucket->columns.end() ? nullptr : &it->second;
            }
            if (column == nullptr)
            {
                for (std::size_t i = 0; i < request.subs.size(); ++i)
                {
                    ts::encode_state(ts::no_data_state{}, *family, content);
                }
                return {};
            }
            if (!reads(*family, column->type))
            {
                return kernel_error(kernel::error::incompatible_type);
            }
            if (value_count(*column) != column->size())
            {
                return kernel_error(kernel::error::internal_error);
            }
            for (const ts::aggregate_sub_request & s : request.subs)
            {
                const std::int64_t begin = ts::offset_of(bucket->shard_start, s.range.begin);
                const std::int64_t end = ts::offset_of(bucket->shard_start, s.range.end);
                const auto [first, last] = column->rows_between(begin, end);
                const ts::aggregation_state state = fold_column(static_cast<aggregation_type>(s.type),
                                                                *column, bucket->shard_start, first, last);
                ts::encode_state(state, column->type, content);
            }
            return {};
        });
    if (ec)
    {
        content.resize(start);
    }
    return ec;
}

void add_ts_aggregate_operations(operation_registry & registry, const ts_context & ts)
{
    auto handler = [store = ts.buckets](operation_context & ctx, protocol::result & reply)
    { reply.error = answer_aggregates(*store, ctx.operation(), ctx.fields(), ctx.content()); };
    for (const protocol::operation op :
         {protocol::operation::ts_blob_aggregate, protocol::operation::ts_double_aggregate,
          protocol::operation::ts_int64_aggregate, protocol::operation::ts_timestamp_aggregate})
    {
        registry.add(static_cast<std::uint16_t>(op), handler);
    }
}

} // namespace zlk::node
