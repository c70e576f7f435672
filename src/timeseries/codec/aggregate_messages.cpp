#include "timeseries/codec/aggregate_messages.hpp"

#include "base/error_categories.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
namespace ser = serialization;

namespace
{

error_code invalid_reply() noexcept
{
    return make_error_code(chord::error::unexpected_reply);
}

inline constexpr std::size_t sub_request_bound = ser::varint_bound + ser::time_range_bound;

} // namespace

protocol::operation aggregate_operation(kernel::column_type t) noexcept
{
    switch (t)
    {
    case kernel::column_type::double_:
        return protocol::operation::ts_double_aggregate;
    case kernel::column_type::int64:
        return protocol::operation::ts_int64_aggregate;
    case kernel::column_type::timestamp:
        return protocol::operation::ts_timestamp_aggregate;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        break;
    }
    return protocol::operation::ts_blob_aggregate;
}

std::optional<kernel::column_type> aggregate_column_type(std::uint16_t operation) noexcept
{
    switch (static_cast<protocol::operation>(operation))
    {
    case protocol::operation::ts_blob_aggregate:
        return kernel::column_type::blob;
    case protocol::operation::ts_double_aggregate:
        return kernel::column_type::double_;
    case protocol::operation::ts_int64_aggregate:
        return kernel::column_type::int64;
    case protocol::operation::ts_timestamp_aggregate:
        return kernel::column_type::timestamp;
    default:
        return std::nullopt;
    }
}

protocol::operation_body build_aggregate(protocol::operation op, const chord::ring_id & bucket,
                                         std::uint64_t column_index, std::uint64_t shard_size,
                                         std::span<const aggregate_sub_request> subs) noexcept
{
    const std::size_t bound = ser::ring_id_size + 3 * ser::varint_bound + subs.size() * sub_request_bound;
    return protocol::build_operation_body(op, bound,
                                          [&](ser::writer & w)
                                          {
                                              ser::marshal(w, bucket);
                                              w.put_varint(column_index);
                                              w.put_varint(shard_size);
                                              w.put_varint(subs.size());
                                              for (const aggregate_sub_request & s : subs)
                                              {
                                                  w.put_varint(s.type);
                                                  ser::marshal(w, s.range);
                                              }
                                          });
}

error_code decode_aggregate(ser::cursor & c, decoded_aggregate & out)
{
    if (error_code ec = ser::unmarshal(c, out.bucket))
    {
        return ec;
    }
    if (error_code ec = ser::read_varint(c, out.column_index))
    {
        return ec;
    }
    if (error_code ec = ser::read_varint(c, out.shard_size))
    {
        return ec;
    }
    return ser::read_vector(c, out.subs,
                            [](ser::cursor & at, aggregate_sub_request & s) -> error_code
                            {
                                if (error_code ec = ser::read_varint(at, s.type))
                                {
                                    return ec;
                                }
                                return ser::unmarshal(at, s.range);
                            });
}

error_code decode_aggregate_reply(std::span<const std::uint8_t> content, kernel::column_type column,
                                  std::span<aggregation_state> out)
{
    ser::cursor c(content);
    std::size_t count = 0;
    if (ser::read_count(c, count) || count != out.size())
    {
        return invalid_reply();
    }
    for (aggregation_state & s : out)
    {
        if (decode_state(c, column, s))
        {
            return invalid_reply();
        }
    }
    return {};
}

} // namespace zlk::timeseries
