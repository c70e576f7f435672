// The time series and listing decoders over arbitrary bytes, a node's view of client bodies and a
// client's view of node replies. The first byte picks the decoder (low five bits) and its parameter
// (high three bits: a column type, an operation, a count); the rest is the input. Whatever decodes is
// read through every view, and where a builder exists, built again and decoded to the same fields.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "entries/listing_requests.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/aggregation_state.hpp"
#include "timeseries/codec/shard_write.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "ts_decoder_kinds.hpp"

namespace
{

using namespace zlk;
using namespace zlk::timeseries;
namespace ser = zlk::serialization;
using kernel::column_type;
using zlk::timespec;

using namespace zlk::fuzz;

[[noreturn]] void mismatch()
{
    __builtin_trap();
}

// Reads every byte of a view, so that ASan sees a view that runs past its buffer.
volatile std::uint8_t sink;

void touch(const void * data, std::size_t size)
{
    const auto * p = static_cast<const std::uint8_t *>(data);
    std::uint8_t acc = 0;
    for (std::size_t i = 0; i < size; ++i)
    {
        acc ^= p[i];
    }
    sink = acc;
}

void touch(std::string_view s)
{
    touch(s.data(), s.size());
}

void touch(std::span<const std::uint8_t> s)
{
    touch(s.data(), s.size());
}

column_type type_of_param(std::uint8_t param)
{
    return static_cast<column_type>(param % 5);
}

// The fields after the operation number of a body built again; traps when the builder failed.
ser::cursor fields_of(const protocol::operation_body && body) = delete;
ser::cursor fields_of(const protocol::operation_body & body)
{
    if (body.error || body.size < 2)
    {
        mismatch();
    }
    return ser::cursor(body.data + 2, body.size - 2);
}

bool same_ranges(std::span<const zlk_ts_range_t> a, std::span<const zlk_ts_range_t> b)
{
    if (a.size() != b.size())
    {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        if (a[i].begin.tv_sec != b[i].begin.tv_sec || a[i].begin.tv_nsec != b[i].begin.tv_nsec ||
            a[i].end.tv_sec != b[i].end.tv_sec || a[i].end.tv_nsec != b[i].end.tv_nsec)
        {
            return false;
        }
    }
    return true;
}

bool same_columns(std::span<const wire_column> a, std::span<const wire_column> b)
{
    if (a.size() != b.size())
    {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i)
    {
        if (a[i].index != b[i].index || a[i].type != b[i].type)
        {
            return false;
        }
    }
    return true;
}

void table_columns(ser::cursor & c, bool create)
{
    table_columns_fields f;
    if (create ? decode_create_table(c, f) : decode_insert_columns(c, f))
    {
        return;
    }
    touch(f.alias);
    for (const column_description & d : f.columns)
    {
        touch(d.name);
    }
    const auto body = create ? build_create_table(f.alias, f.shard_size, f.columns)
                             : build_insert_columns(f.alias, f.columns);
    ser::cursor again = fields_of(body);
    table_columns_fields g;
    if (create ? decode_create_table(again, g) : decode_insert_columns(again, g))
    {
        mismatch();
    }
    if (g.alias != f.alias || g.shard_size != f.shard_size || g.columns.size() != f.columns.size())
    {
        mismatch();
    }
    for (std::size_t i = 0; i < f.columns.size(); ++i)
    {
        // The builder cuts a long name to its first 1024 bytes.
        if (g.columns[i].name != f.columns[i].name.substr(0, 1024) || g.columns[i].type != f.columns[i].type)
        {
            mismatch();
        }
    }
}

template <typename Decode, typename Build>
void one_alias(ser::cursor & c, Decode && decode, Build && build)
{
    std::string_view alias;
    if (decode(c, alias))
    {
        return;
    }
    touch(alias);
    const protocol::operation_body rebuilt = build(alias);
    ser::cursor again = fields_of(rebuilt);
    std::string_view back;
    if (decode(again, back) || back != alias)
    {
        mismatch();
    }
}

void listing_reply(std::span<const std::uint8_t> in)
{
    table_listing l;
    if (decode_table_listing(in, l))
    {
        return;
    }
    std::vector<listed_column> columns = l.columns;
    for (const listed_column & col : columns)
    {
        touch(col.name);
    }
    std::vector<std::uint8_t> out;
    encode_table_listing(out, l.tag, l.shard_size, columns);
    table_listing back;
    if (decode_table_listing(out, back) || back.tag != l.tag || back.shard_size != l.shard_size ||
        back.columns.size() != columns.size())
    {
        mismatch();
    }
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        // A name may come with one terminating zero, dropped when read: a second one goes too.
        std::string_view name = columns[i].name;
        if (!name.empty() && name.back() == '\0')
        {
            name.remove_suffix(1);
        }
        if (back.columns[i].name != name || back.columns[i].type != columns[i].type ||
            back.columns[i].index != columns[i].index)
        {
            mismatch();
        }
    }
}

void shard_info_answer(std::span<const std::uint8_t> in)
{
    shard_info s;
    if (decode_shard_info_reply(in, s))
    {
        return;
    }
    std::vector<std::uint8_t> out;
    encode_shard_info(out, s.shard_size, s.type, s.index);
    shard_info back;
    if (decode_shard_info_reply(out, back) || back.shard_size != s.shard_size || back.type != s.type ||
        back.index != s.index)
    {
        mismatch();
    }
}

void expire(ser::cursor & c)
{
    std::string_view alias;
    std::uint64_t limit = 0;
    if (decode_expire_by_size(c, alias, limit))
    {
        return;
    }
    touch(alias);
    const protocol::operation_body rebuilt = build_expire_by_size(alias, limit);
    ser::cursor again = fields_of(rebuilt);
    std::string_view back;
    std::uint64_t back_limit = 0;
    if (decode_expire_by_size(again, back, back_limit) || back != alias || back_limit != limit)
    {
        mismatch();
    }
}

void insert(ser::cursor & c, column_type type)
{
    decoded_column_insert d;
    if (decode_column_insert(c, type, d))
    {
        return;
    }
    touch(d.alias);
    touch(d.bucket_key);
    touch(d.column);
    touch(d.offsets.data(), d.offsets.size() * sizeof(std::int64_t));
    touch(d.fixed);
    for (const auto & b : d.bytes)
    {
        touch(b);
    }
    if (kernel::holds_bytes(type) ? d.bytes.size() != d.value_count
                                  : d.fixed.size() != d.value_count * fixed_value_size(type))
    {
        mismatch();
    }
    column_insert_fields f;
    f.alias = d.alias;
    f.bucket_key = d.bucket_key;
    f.column = d.column;
    f.index = d.index;
    f.shard_size = d.shard_size;
    f.shard_start = d.shard_start;
    f.offsets = d.offsets;
    f.fixed = d.fixed;
    f.bytes = d.bytes;
    const protocol::operation_body rebuilt = build_column_insert(type, f);
    ser::cursor again = fields_of(rebuilt);
    decoded_column_insert back;
    if (decode_column_insert(again, type, back) || back.alias != d.alias || back.bucket_key != d.bucket_key ||
        back.column != d.column || back.index != d.index || back.shard_size != d.shard_size ||
        back.shard_start != d.shard_start || back.offsets != d.offsets || back.value_count != d.value_count ||
        back.fixed.size() != d.fixed.size() ||
        (!d.fixed.empty() && std::memcmp(back.fixed.data(), d.fixed.data(), d.fixed.size()) != 0) ||
        back.bytes.size() != d.bytes.size())
    {
        mismatch();
    }
    for (std::size_t i = 0; i < d.bytes.size(); ++i)
    {
        if (back.bytes[i].size() != d.bytes[i].size() ||
            (!d.bytes[i].empty() &&
             std::memcmp(back.bytes[i].data(), d.bytes[i].data(), d.bytes[i].size()) != 0))
        {
            mismatch();
        }
    }
}

void erase(ser::cursor & c)
{
    decoded_erase_ranges d;
    if (decode_erase_ranges(c, d))
    {
        return;
    }
    touch(d.alias);
    touch(d.bucket_key);
    erase_ranges_fields f;
    f.alias = d.alias;
    f.bucket_key = d.bucket_key;
    f.bucket = d.bucket;
    f.index = d.index;
    f.ranges = d.ranges;
    f.flag = d.flag;
    const protocol::operation_body rebuilt = build_erase_ranges(f);
    ser::cursor again = fields_of(rebuilt);
    decoded_erase_ranges back;
    if (decode_erase_ranges(again, back) || back.alias != d.alias || back.bucket_key != d.bucket_key ||
        !(back.bucket == d.bucket) || back.index != d.index || !same_ranges(back.ranges, d.ranges) ||
        back.flag != d.flag)
    {
        mismatch();
    }
}

void ranges_request(ser::cursor & c)
{
    decoded_get_ranges d;
    if (decode_get_ranges(c, d))
    {
        return;
    }
    get_ranges_fields f;
    f.bucket = d.bucket;
    f.shard_size = d.shard_size;
    f.shard_start = d.shard_start;
    f.ranges = d.ranges;
    f.flags = d.flags;
    f.row_limit = d.row_limit;
    f.columns = d.columns;
    const protocol::operation_body rebuilt = build_get_ranges(f);
    ser::cursor again = fields_of(rebuilt);
    decoded_get_ranges back;
    if (decode_get_ranges(again, back) || !(back.bucket == d.bucket) || back.shard_size != d.shard_size ||
        back.shard_start != d.shard_start || !same_ranges(back.ranges, d.ranges) || back.flags != d.flags ||
        back.row_limit != d.row_limit || !same_columns(back.columns, d.columns))
    {
        mismatch();
    }
}

void rows(std::span<const std::uint8_t> in)
{
    static std::vector<column_rows> out;
    if (decode_rows_reply(in, out))
    {
        return;
    }
    for (const column_rows & col : out)
    {
        for (std::size_t i = 0; i < col.rows; ++i)
        {
            sink = static_cast<std::uint8_t>(col.offset(i));
        }
        if (kernel::holds_bytes(col.type))
        {
            ser::cursor at(col.values);
            for (std::size_t i = 0; i < col.rows; ++i)
            {
                touch(next_bytes(at));
            }
            continue;
        }
        if (col.values.size() != col.rows * fixed_value_size(col.type))
        {
            mismatch();
        }
        for (std::size_t i = 0; i < col.rows; ++i)
        {
            switch (col.type)
            {
            case column_type::double_:
                sink = static_cast<std::uint8_t>(col.double_at(i) > 0);
                break;
            case column_type::int64:
                sink = static_cast<std::uint8_t>(col.int64_at(i));
                break;
            default:
                sink = static_cast<std::uint8_t>(col.timestamp_at(i).tv_nsec);
                break;
            }
        }
    }
}

void timestamps_request(ser::cursor & c)
{
    decoded_get_timestamps d;
    if (decode_get_timestamps(c, d))
    {
        return;
    }
    // The builder names one column: only that form is built again.
    if (d.indexes.size() != 1 || d.columns.size() != 1)
    {
        return;
    }
    get_timestamps_fields f;
    f.bucket = d.bucket;
    f.shard_start = d.shard_start;
    f.index = d.indexes[0];
    f.ranges = d.ranges;
    f.shard_size = d.shard_size;
    f.column = d.columns[0];
    const protocol::operation_body rebuilt = build_get_timestamps(f);
    ser::cursor again = fields_of(rebuilt);
    decoded_get_timestamps back;
    if (decode_get_timestamps(again, back) || !(back.bucket == d.bucket) ||
        back.shard_start != d.shard_start || back.indexes != d.indexes ||
        !same_ranges(back.ranges, d.ranges) || back.shard_size != d.shard_size ||
        !same_columns(back.columns, d.columns))
    {
        mismatch();
    }
}

void offsets(std::span<const std::uint8_t> in)
{
    offsets_view v;
    if (decode_offsets_reply(in, v))
    {
        return;
    }
    std::vector<std::int64_t> values(v.count);
    for (std::size_t i = 0; i < v.count; ++i)
    {
        values[i] = v[i];
    }
    std::vector<std::uint8_t> out;
    encode_offsets(out, values);
    offsets_view back;
    if (decode_offsets_reply(out, back) || back.count != v.count)
    {
        mismatch();
    }
    for (std::size_t i = 0; i < v.count; ++i)
    {
        if (back[i] != values[i])
        {
            mismatch();
        }
    }
}

// The chunk a client would have staged for a received message, referring to its bytes.
shard_chunk chunk_of(const shard_write_view & v)
{
    shard_chunk chunk;
    chunk.shard_size = v.shard_size;
    chunk.shard_start = v.shard_start;
    for (const shard_write_column & col : v.columns)
    {
        column_chunk out{col.index, std::string(col.name), make_payload(col.type)};
        std::visit(
            [&](auto & p)
            {
                using value = typename std::decay_t<decltype(p)>::value_type;
                p.shard_size = col.shard_size;
                p.shard_start = col.shard_start;
                p.offsets.resize(col.rows);
                p.values.resize(col.rows);
                for (std::size_t i = 0; i < col.rows; ++i)
                {
                    p.offsets[i] = static_cast<std::int64_t>(
                        ser::detail::load_le<std::uint64_t>(col.offsets.data() + i * 8));
                    if constexpr (std::is_same_v<value, byte_view>)
                    {
                        p.values[i] = byte_view{col.bytes[i].data(), col.bytes[i].size()};
                    }
                    else if constexpr (std::is_same_v<value, timespec>)
                    {
                        const std::uint8_t * at = col.fixed.data() + i * 16;
                        p.values[i] =
                            timespec{static_cast<std::int64_t>(ser::detail::load_le<std::uint64_t>(at)),
                                     static_cast<std::int64_t>(ser::detail::load_le<std::uint64_t>(at + 8))};
                    }
                    else
                    {
                        std::memcpy(&p.values[i], col.fixed.data() + i * 8, 8);
                    }
                }
            },
            out.payload);
        chunk.columns.push_back(std::move(out));
    }
    return chunk;
}

bool same_bytes(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size()) == 0);
}

// Written again as the client writes a chunk, the message reads back to the same fields.
template <typename Known, typename TypeOf>
void shard_write_again(const shard_write_view & v, const Known & known, const TypeOf & type_of)
{
    const shard_chunk chunk = chunk_of(v);
    // The encoder writes the terminator that follows the key in memory.
    const std::string key(v.bucket_key);
    shard_write m;
    m.op = static_cast<protocol::operation>(v.op);
    m.table = v.table;
    m.bucket_key = key;
    m.chunk = v.has_chunk ? &chunk : nullptr;
    m.shard_size = v.shard_size;
    m.shard_start = v.shard_start;
    m.fast = v.fast;
    m.ranges = v.ranges;
    const protocol::operation_body scattered = build_shard_write_body(m);
    if (scattered.error)
    {
        mismatch();
    }
    const std::vector<std::uint8_t> rebuilt = protocol::flat_bytes(scattered);
    ser::cursor again(rebuilt.data() + 2, rebuilt.size() - 2);
    shard_write_view back;
    if (decode_shard_write(again, v.op, known, type_of, back) || again.remaining != 0 ||
        back.table != v.table || back.bucket_key != v.bucket_key || back.has_chunk != v.has_chunk ||
        back.shard_size != v.shard_size || back.shard_start != v.shard_start || back.fast != v.fast ||
        !same_ranges(back.ranges, v.ranges) || back.columns.size() != v.columns.size())
    {
        mismatch();
    }
    for (std::size_t i = 0; i < v.columns.size(); ++i)
    {
        const shard_write_column & a = v.columns[i];
        const shard_write_column & b = back.columns[i];
        if (a.index != b.index || a.name != b.name || a.type != b.type || a.shard_size != b.shard_size ||
            a.shard_start != b.shard_start || a.rows != b.rows || !same_bytes(a.offsets, b.offsets) ||
            !same_bytes(a.fixed, b.fixed) || a.bytes.size() != b.bytes.size())
        {
            mismatch();
        }
        for (std::size_t r = 0; r < a.bytes.size(); ++r)
        {
            if (!same_bytes(a.bytes[r], b.bytes[r]))
            {
                mismatch();
            }
        }
    }
}

void shard_write_of(ser::cursor & c, std::uint8_t param)
{
    // Bits 0-1 pick the operation; bit 2 makes the table unknown, as on a node that has none.
    static constexpr std::uint16_t ops[] = {128, 129, 135};
    const std::uint16_t op = ops[(param & 3) % 3];
    const bool table_missing = (param & 4) != 0;
    const auto known = [table_missing](std::string_view table) -> boost::system::error_code
    {
        touch(table);
        return table_missing ? make_error_code(kernel::error::not_found) : boost::system::error_code{};
    };
    // Indexes 0 to 9 exist, with every type in turn; the others are unknown to the table.
    const auto type_of = [](std::uint64_t index, column_type & t) -> boost::system::error_code
    {
        if (index >= 10)
        {
            return make_error_code(kernel::error::column_not_found);
        }
        t = static_cast<column_type>(index % 5);
        return {};
    };
    shard_write_view v;
    if (decode_shard_write(c, op, known, type_of, v))
    {
        return;
    }
    touch(v.table);
    touch(v.bucket_key);
    for (const shard_write_column & col : v.columns)
    {
        touch(col.name);
        touch(col.offsets);
        touch(col.fixed);
        for (const auto & b : col.bytes)
        {
            touch(b);
        }
        if (col.offsets.size() != col.rows * 8)
        {
            mismatch();
        }
        if (kernel::holds_bytes(col.type) ? col.bytes.size() != col.rows
                                          : col.fixed.size() != col.rows * fixed_value_size(col.type))
        {
            mismatch();
        }
    }
    for (const zlk_ts_range_t & r : v.ranges)
    {
        sink = static_cast<std::uint8_t>(r.begin.tv_sec ^ r.end.tv_nsec);
    }
    shard_write_again(v, known, type_of);
}

void touch_state(const aggregation_state & s)
{
    const auto value = [](const column_value & v)
    {
        if (const auto * text = std::get_if<std::string>(&v))
        {
            touch(*text);
        }
    };
    if (const auto * spread = std::get_if<spread_state>(&s))
    {
        value(spread->min.value);
        value(spread->max.value);
    }
    else if (const auto * extreme = std::get_if<extreme_state>(&s))
    {
        value(extreme->point.value);
    }
    else if (const auto * distinct = std::get_if<distinct_state>(&s))
    {
        for (const std::string & each : distinct->values)
        {
            touch(each);
        }
    }
}

// A state written again reads back as the same kind with the same rows and writes the same bytes
// (a distinct set is compared by size: its order of iteration isn't fixed).
void state_again(const aggregation_state & s, column_type column)
{
    std::vector<std::uint8_t> first;
    encode_state(s, column, first);
    ser::cursor c(first.data(), first.size());
    aggregation_state back;
    if (decode_state(c, column, back) || c.remaining != 0 || back.index() != s.index() ||
        row_count(back) != row_count(s))
    {
        mismatch();
    }
    if (const auto * distinct = std::get_if<distinct_state>(&s))
    {
        if (std::get<distinct_state>(back).values.size() != distinct->values.size())
        {
            mismatch();
        }
        return;
    }
    std::vector<std::uint8_t> second;
    encode_state(back, column, second);
    if (second != first)
    {
        mismatch();
    }
}

void one_state(ser::cursor & c, column_type column)
{
    aggregation_state s;
    if (decode_state(c, column, s))
    {
        return;
    }
    touch_state(s);
    state_again(s, column);
}

void aggregate(ser::cursor & c)
{
    decoded_aggregate d;
    if (decode_aggregate(c, d))
    {
        return;
    }
    const protocol::operation_body rebuilt = build_aggregate(protocol::operation::ts_double_aggregate,
                                                             d.bucket, d.column_index, d.shard_size, d.subs);
    ser::cursor again = fields_of(rebuilt);
    decoded_aggregate back;
    if (decode_aggregate(again, back) || !(back.bucket == d.bucket) || back.column_index != d.column_index ||
        back.shard_size != d.shard_size || back.subs.size() != d.subs.size())
    {
        mismatch();
    }
    for (std::size_t i = 0; i < d.subs.size(); ++i)
    {
        if (back.subs[i].type != d.subs[i].type ||
            !same_ranges({&back.subs[i].range, 1}, {&d.subs[i].range, 1}))
        {
            mismatch();
        }
    }
}

void aggregate_answer(std::span<const std::uint8_t> in, std::uint8_t param)
{
    const column_type column = type_of_param(param);
    // The parameter gives both the number of states expected (0 to 7) and the column type (modulo 5).
    std::vector<aggregation_state> out(param % 8);
    if (decode_aggregate_reply(in, column, out))
    {
        return;
    }
    for (const aggregation_state & s : out)
    {
        touch_state(s);
        state_again(s, column);
    }
}

void aliases(std::span<const std::uint8_t> in, bool with_types)
{
    std::vector<std::string> names{"kept"};
    std::vector<std::uint8_t> types{7};
    if (client::decode_alias_list(in, with_types, names, with_types ? &types : nullptr) != zlk_e_ok)
    {
        // Nothing is appended when the list doesn't decode.
        if (names.size() != 1 || types.size() != 1)
        {
            mismatch();
        }
        return;
    }
    for (const std::string & n : names)
    {
        touch(n);
    }
    if (with_types && types.size() != names.size())
    {
        mismatch();
    }
}

void walk(std::span<const std::uint8_t> in)
{
    std::string_view alias;
    std::span<const std::uint8_t> stored;
    if (client::decode_walk_reply(in, alias, stored) != zlk_e_ok)
    {
        return;
    }
    touch(alias);
    touch(stored);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const std::uint8_t which = static_cast<std::uint8_t>((data[0] & 0x1F) % decoder_count);
    const std::uint8_t param = data[0] >> 5;
    // A copy of exactly the input, so that a read past its end is one past a heap block.
    const std::vector<std::uint8_t> input(data + 1, data + size);
    const std::span<const std::uint8_t> in(input.data(), input.size());
    ser::cursor c(input.data(), input.size());

    switch (which)
    {
    case create_table:
        table_columns(c, true);
        break;
    case insert_columns:
        table_columns(c, false);
        break;
    case list_columns:
        one_alias(
            c, [](ser::cursor & at, std::string_view & a) { return decode_list_columns(at, a); },
            [](std::string_view a) { return build_list_columns(a); });
        break;
    case table_listing_reply:
        listing_reply(in);
        break;
    case shard_info_request:
        one_alias(
            c, [](ser::cursor & at, std::string_view & a) { return decode_shard_info(at, a); },
            [](std::string_view a) { return build_shard_info(a); });
        break;
    case shard_info_reply:
        shard_info_answer(in);
        break;
    case expire_by_size:
        expire(c);
        break;
    case drop_buckets:
        one_alias(
            c, [](ser::cursor & at, std::string_view & a) { return decode_drop_buckets(at, a); },
            [](std::string_view a) { return build_drop_buckets(a); });
        break;
    case column_insert:
        insert(c, type_of_param(param));
        break;
    case erase_ranges:
        erase(c);
        break;
    case get_ranges:
        ranges_request(c);
        break;
    case rows_reply:
        rows(in);
        break;
    case get_timestamps:
        timestamps_request(c);
        break;
    case offsets_reply:
        offsets(in);
        break;
    case shard_write_message:
        shard_write_of(c, param);
        break;
    case state:
        one_state(c, type_of_param(param));
        break;
    case aggregate_request:
        aggregate(c);
        break;
    case aggregate_reply:
        aggregate_answer(in, param);
        break;
    case alias_list:
        aliases(in, (param & 1) != 0);
        break;
    case walk_reply:
        walk(in);
        break;
    default:
        break;
    }
    return 0;
}
