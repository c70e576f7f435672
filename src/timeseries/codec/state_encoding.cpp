// The wire form of a partial state.
#include <cstring>

#include "timeseries/codec/ts_messages.hpp"

#include "timeseries/codec/state_helpers.hpp"

namespace zlk::timeseries
{

using boost::system::error_code;
using f = aggregation_type;
using namespace state_detail;

namespace
{

// Little-endian appends of the wire form.
void put_u8(std::vector<std::uint8_t> & out, std::uint8_t v)
{
    out.push_back(v);
}
void put_u64(std::vector<std::uint8_t> & out, std::uint64_t v)
{
    for (std::size_t i = 0; i < 8; ++i)
    {
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
}
void put_f64(std::vector<std::uint8_t> & out, double v)
{
    put_u64(out, std::bit_cast<std::uint64_t>(v));
}
void put_time(std::vector<std::uint8_t> & out, const timespec & t)
{
    append_varint(out, static_cast<std::uint64_t>(t.tv_sec));
    append_varint(out, static_cast<std::uint64_t>(t.tv_nsec));
}

void put_value(std::vector<std::uint8_t> & out, kernel::column_type column, const column_value & v)
{
    switch (column)
    {
    case kernel::column_type::double_:
    {
        const double * x = std::get_if<double>(&v);
        put_f64(out, x ? *x : 0.0);
        return;
    }
    case kernel::column_type::int64:
    {
        const std::int64_t * x = std::get_if<std::int64_t>(&v);
        put_u64(out, static_cast<std::uint64_t>(x ? *x : 0));
        return;
    }
    case kernel::column_type::timestamp:
    {
        const timespec * x = std::get_if<timespec>(&v);
        put_time(out, x ? *x : timespec{});
        return;
    }
    case kernel::column_type::blob:
    case kernel::column_type::string:
    {
        const std::string * x = std::get_if<std::string>(&v);
        const std::size_t size = x ? x->size() : 0;
        append_varint(out, size);
        if (size != 0)
        {
            out.insert(out.end(), x->begin(), x->end());
        }
        return;
    }
    }
}

error_code get_value(serialization::cursor & c, kernel::column_type column, column_value & out)
{
    namespace ser = serialization;
    switch (column)
    {
    case kernel::column_type::double_:
    {
        double v = 0;
        if (error_code ec = ser::read_double(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::int64:
    {
        std::int64_t v = 0;
        if (error_code ec = ser::read_i64(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::timestamp:
    {
        timespec v;
        if (error_code ec = ser::unmarshal(c, v))
        {
            return ec;
        }
        out = v;
        return {};
    }
    case kernel::column_type::blob:
    case kernel::column_type::string:
    {
        std::string_view v;
        if (error_code ec = ser::read_bytes(c, v))
        {
            return ec;
        }
        out = std::string(v);
        return {};
    }
    }
    return ser::unexpected_byte();
}

error_code get_timed(serialization::cursor & c, kernel::column_type column, timed_value & out)
{
    if (error_code ec = serialization::unmarshal(c, out.time))
    {
        return ec;
    }
    return get_value(c, column, out.value);
}

} // namespace

void encode_state(const aggregation_state & s, kernel::column_type column, std::vector<std::uint8_t> & out)
{
    put_u8(out, static_cast<std::uint8_t>(s.index()));
    append_varint(out, row_count(s));
    std::visit(
        [&out, column](const auto & x)
        {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, sum_state>)
            {
                put_f64(out, x.sum);
                if (column == kernel::column_type::int64)
                {
                    put_u64(out, static_cast<std::uint64_t>(x.integer));
                }
            }
            else if constexpr (std::is_same_v<T, sum_of_squares_state>)
            {
                put_f64(out, x.sum);
            }
            else if constexpr (std::is_same_v<T, product_state>)
            {
                put_f64(out, x.product);
            }
            else if constexpr (std::is_same_v<T, geometric_state>)
            {
                put_f64(out, x.mantissa);
                put_u64(out, static_cast<std::uint64_t>(x.exponent));
            }
            else if constexpr (std::is_same_v<T, harmonic_state>)
            {
                put_f64(out, x.reciprocals);
            }
            else if constexpr (std::is_same_v<T, spread_state>)
            {
                put_time(out, x.min.time);
                put_value(out, column, x.min.value);
                put_time(out, x.max.time);
                put_value(out, column, x.max.value);
            }
            else if constexpr (std::is_same_v<T, extreme_state>)
            {
                put_time(out, x.point.time);
                put_value(out, column, x.point.value);
            }
            else if constexpr (std::is_same_v<T, variance_state>)
            {
                put_f64(out, x.mean);
                put_f64(out, x.m2);
            }
            else if constexpr (std::is_same_v<T, moments_state>)
            {
                put_f64(out, x.s1);
                put_f64(out, x.s2);
                put_f64(out, x.s3);
                put_f64(out, x.s4);
            }
            else if constexpr (std::is_same_v<T, distinct_state>)
            {
                append_varint(out, x.values.size());
                const bool sized = kernel::holds_bytes(column);
                for (const std::string & key : x.values)
                {
                    if (sized)
                    {
                        append_varint(out, key.size());
                    }
                    out.insert(out.end(), key.begin(), key.end());
                }
            }
        },
        s);
}

error_code decode_state(serialization::cursor & c, kernel::column_type column, aggregation_state & out)
{
    namespace ser = serialization;
    std::uint8_t kind = 0;
    std::uint64_t count = 0;
    if (error_code ec = ser::read_u8(c, kind))
    {
        return ec;
    }
    if (kind > static_cast<std::uint8_t>(state_kind::adjacent))
    {
        return ser::unexpected_byte();
    }
    if (error_code ec = ser::read_varint(c, count))
    {
        return ec;
    }
    error_code ec;
    switch (static_cast<state_kind>(kind))
    {
    case state_kind::no_data:
        out = no_data_state{};
        return {};
    case state_kind::count:
        out = count_state{count};
        return {};
    case state_kind::sum:
    {
        sum_state s{count, 0.0, 0};
        ec = ser::read_double(c, s.sum);
        if (!ec && column == kernel::column_type::int64)
        {
            ec = ser::read_i64(c, s.integer);
        }
        out = s;
        return ec;
    }
    case state_kind::sum_of_squares:
    {
        sum_of_squares_state s{count, 0.0};
        ec = ser::read_double(c, s.sum);
        out = s;
        return ec;
    }
    case state_kind::product:
    {
        product_state s{count, 1.0};
        ec = ser::read_double(c, s.product);
        out = s;
        return ec;
    }
    case state_kind::geometric:
    {
        geometric_state s{count, 1.0, 0};
        ec = ser::read_double(c, s.mantissa);
        if (!ec)
        {
            ec = ser::read_i64(c, s.exponent);
        }
        out = s;
        return ec;
    }
    case state_kind::harmonic:
    {
        harmonic_state s{count, 0.0};
        ec = ser::read_double(c, s.reciprocals);
        out = s;
        return ec;
    }
    case state_kind::spread:
    {
        spread_state s;
        s.count = count;
        ec = get_timed(c, column, s.min);
        if (!ec)
        {
            ec = get_timed(c, column, s.max);
        }
        out = std::move(s);
        return ec;
    }
    case state_kind::extreme:
    {
        extreme_state s;
        s.count = count;
        ec = get_timed(c, column, s.point);
        out = std::move(s);
        return ec;
    }
    case state_kind::variance:
    {
        variance_state s{count, 0.0, 0.0};
        ec = ser::read_double(c, s.mean);
        if (!ec)
        {
            ec = ser::read_double(c, s.m2);
        }
        out = s;
        return ec;
    }
    case state_kind::moments:
    {
        moments_state s;
        s.count = count;
        for (double * x : {&s.s1, &s.s2, &s.s3, &s.s4})
        {
            if (!ec)
            {
                ec = ser::read_double(c, *x);
            }
        }
        out = s;
        return ec;
    }
    case state_kind::distinct:
    {
        distinct_state s;
        s.count = count;
        std::size_t n = 0;
        ec = ser::read_count(c, n);
        for (std::size_t i = 0; i < n && !ec; ++i)
        {
            column_value v;
            ec = get_value(c, column, v);
            if (!ec)
            {
                s.values.insert(std::visit(
                    [](const auto & x)
                    {
                        using T = std::decay_t<decltype(x)>;
                        if constexpr (std::is_same_v<T, std::string>)
                        {
                            return distinct_key(std::string_view(x));
                        }
                        else
                        {
                            return distinct_key(x);
                        }
                    },
                    v));
            }
        }
        out = std::move(s);
        return ec;
    }
    case state_kind::adjacent:
        out = adjacent_state{count, std::nullopt};
        return {};
    }
    return ser::unexpected_byte();
}

} // namespace zlk::timeseries
