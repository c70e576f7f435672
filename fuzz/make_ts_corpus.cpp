// Writes the seeds of fuzz_ts_decoders and the time series requests of fuzz_node_request, all made with
// the real builders and encoders: make_ts_corpus <fuzz/corpus folder>. Run once by hand; the files it
// writes are committed, so the seeds stay the same between runs.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/alias_hash.hpp"
#include "timeseries/aggregate_requests.hpp"
#include "timeseries/codec/aggregation_state.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/shard_write.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "ts_decoder_kinds.hpp"
#include "wire/frame.hpp"

namespace
{

using namespace zlk;
using namespace zlk::timeseries;
using kernel::column_type;
using zlk::timespec;
using bytes = std::vector<std::uint8_t>;

using namespace zlk::fuzz;

void write_file(const std::filesystem::path & path, const bytes & content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

std::uint8_t selector(decoder d, unsigned param = 0)
{
    return static_cast<std::uint8_t>(d | (param << 5));
}

bytes with_selector(std::uint8_t s, std::span<const std::uint8_t> input)
{
    bytes out{s};
    out.insert(out.end(), input.begin(), input.end());
    return out;
}

// The fields of a body, after its operation number.
bytes fields(const protocol::operation_body & body)
{
    if (body.error || body.size < 2)
    {
        std::fprintf(stderr, "a builder failed\n");
        std::exit(1);
    }
    const bytes all = protocol::flat_bytes(body);
    return bytes(all.begin() + 2, all.end());
}

zlk_ts_range_t range(std::int64_t begin_s, std::int64_t end_s)
{
    return {{begin_s, 0}, {end_s, 500}};
}

const std::string table = "fuzzed";
constexpr std::uint64_t hour_ms = 3600000;

// The rows of one bucket, every type the table of the fuzzer's type look-up has (index % 5).
struct sample_chunk
{
    shard_chunk chunk;
    std::string text = "some text";

    sample_chunk()
    {
        chunk.shard_size = hour_ms;
        chunk.shard_start = 2 * hour_ms;
        double_payload d{hour_ms, 2 * hour_ms, {0, 1000, 2000}, {1.5, -2.0, 3.25}};
        int64_payload i{hour_ms, 2 * hour_ms, {5, 6}, {42, -7}};
        timestamp_payload t{hour_ms, 2 * hour_ms, {9}, {timespec{1700000000, 12}}};
        bytes_payload b{
            hour_ms,
            2 * hour_ms,
            {11, 12},
            {byte_view{reinterpret_cast<const std::uint8_t *>(text.data()), text.size()}, byte_view{}}};
        chunk.columns.push_back({0, "price", d});
        chunk.columns.push_back({2, "volume", i});
        chunk.columns.push_back({3, "when", t});
        chunk.columns.push_back({4, "label", b});
    }
};

bytes shard_write_of(const shard_write & m)
{
    const protocol::operation_body body = build_shard_write_body(m);
    return fields(body);
}

std::vector<std::pair<aggregation_state, column_type>> sample_states()
{
    distinct_state distinct{2, {}};
    distinct.values.insert(std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8));
    distinct.values.insert(std::string(8, '\0'));
    distinct_state distinct_text{1, {}};
    distinct_text.values.insert("abc");
    return {
        {no_data_state{}, column_type::double_},
        {count_state{3}, column_type::blob},
        {sum_state{2, 1.5, 0}, column_type::double_},
        {sum_state{2, 0.0, 99}, column_type::int64},
        {sum_of_squares_state{2, 8.0}, column_type::double_},
        {product_state{2, 6.0}, column_type::double_},
        {geometric_state{2, 0.75, 3}, column_type::double_},
        {harmonic_state{2, 0.5}, column_type::int64},
        {spread_state{2, {timespec{1, 2}, timespec{3, 4}}, {timespec{5, 6}, timespec{7, 8}}},
         column_type::timestamp},
        {extreme_state{4, {timespec{10, 0}, std::string("first")}}, column_type::string},
        {extreme_state{4, {timespec{10, 0}, std::int64_t{-3}}}, column_type::int64},
        {variance_state{3, 2.0, 1.0}, column_type::double_},
        {moments_state{3, 1.0, 2.0, 3.0, 4.0}, column_type::double_},
        {distinct, column_type::double_},
        {distinct_text, column_type::blob},
        {adjacent_state{2, {}}, column_type::string},
    };
}

// A frame the node path reads whole: a carrier for the table's owner, built as a client builds it.
bytes node_seed(const chord::ring_id & key, std::uint16_t access, const protocol::operation_body & body)
{
    chord::chord_carrier_request request;
    request.key = key;
    // Bit 0: whichever node the fuzzer runs may serve the key.
    request.required_access = static_cast<std::uint16_t>(access | 0x01);
    request.operation_class = body.operation_class;
    request.body = body.bytes();
    request.body_pieces = body.pieces;
    serialization::small_scatter<16> scatter;
    bytes scratch;
    protocol::encode_frame(protocol::message{request}, scatter, scratch);
    bytes frame;
    serialization::flatten_into(scatter, frame);
    // An even first byte: the frame is read as it is, header included.
    bytes out{0};
    out.insert(out.end(), frame.begin(), frame.end());
    return out;
}

} // namespace

int main(int argc, char ** argv)
{
    using zlk::timespec;
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: make_ts_corpus <corpus folder>\n");
        return 2;
    }
    const std::filesystem::path root = argv[1];
    const std::filesystem::path ts = root / "ts_decoders";
    const std::filesystem::path node = root / "node_request";
    std::filesystem::create_directories(ts);
    std::filesystem::create_directories(node);
    const auto seed = [&](const std::string & name, std::uint8_t s, std::span<const std::uint8_t> input)
    { write_file(ts / name, with_selector(s, input)); };

    const column_description columns[] = {{"price", column_type::double_},
                                          {"label", column_type::blob},
                                          {"volume", column_type::int64},
                                          {"when", column_type::timestamp},
                                          {"note", column_type::string}};
    seed("create_table", selector(create_table), fields(build_create_table(table, hour_ms, columns)));
    seed("create_table_no_columns", selector(create_table), fields(build_create_table(table, 1, {})));
    seed("insert_columns", selector(insert_columns),
         fields(build_insert_columns(table, std::span(columns).subspan(3))));
    seed("list_columns", selector(list_columns), fields(build_list_columns(table)));

    const listed_column listed[] = {{"price", column_type::double_, 0}, {"note", column_type::string, 4}};
    bytes content;
    encode_table_listing(content, 7, hour_ms, listed);
    seed("table_listing", selector(table_listing_reply), content);
    content.clear();
    encode_table_listing(content, 1, 60000, {});
    seed("table_listing_empty", selector(table_listing_reply), content);

    seed("shard_info", selector(shard_info_request), fields(build_shard_info("price")));
    content.clear();
    encode_shard_info(content, hour_ms, column_type::timestamp, 3);
    seed("shard_info_reply", selector(shard_info_reply), content);
    seed("expire_by_size", selector(expire_by_size), fields(build_expire_by_size(table, 1 << 20)));
    seed("drop_buckets", selector(drop_buckets), fields(build_drop_buckets(table)));

    const chord::ring_id table_id = chord::alias_hash(table);
    const std::string key = bucket_key(table_id, 2 * hour_ms);
    const std::int64_t offsets[] = {0, 1000000, 5};
    const double doubles[] = {1.0, -0.0, 2.5};
    const std::string a = "alpha", b;
    const std::span<const std::uint8_t> strings[] = {
        {reinterpret_cast<const std::uint8_t *>(a.data()), a.size()},
        {},
        {reinterpret_cast<const std::uint8_t *>(a.data()), 1}};
    const timespec times[] = {{1, 2}, {3, 4}, {5, 6}};
    for (const column_type type : {column_type::double_, column_type::blob, column_type::int64,
                                   column_type::timestamp, column_type::string})
    {
        column_insert_fields f;
        f.alias = table;
        f.bucket_key = key;
        f.column = "price";
        f.index = static_cast<std::uint64_t>(type);
        f.shard_size = hour_ms;
        f.shard_start = 2 * hour_ms;
        f.offsets = offsets;
        if (kernel::holds_bytes(type))
        {
            f.bytes = strings;
        }
        else if (type == column_type::timestamp)
        {
            f.fixed = {reinterpret_cast<const std::uint8_t *>(times), sizeof times};
        }
        else
        {
            f.fixed = {reinterpret_cast<const std::uint8_t *>(doubles), sizeof doubles};
        }
        seed("column_insert_" + std::to_string(static_cast<int>(type)),
             selector(column_insert, static_cast<unsigned>(type)), fields(build_column_insert(type, f)));
    }

    const zlk_ts_range_t ranges[] = {range(7200, 7300), range(7400, 10800)};
    erase_ranges_fields erase;
    erase.alias = table;
    erase.bucket_key = key;
    erase.bucket = chord::alias_hash(key);
    erase.index = 2;
    erase.ranges = ranges;
    erase.flag = erase_every_column;
    seed("erase_ranges", selector(erase_ranges), fields(build_erase_ranges(erase)));

    const wire_column wanted[] = {{0, column_type::double_}, {4, column_type::string}};
    get_ranges_fields get;
    get.bucket = erase.bucket;
    get.shard_size = hour_ms;
    get.shard_start = 2 * hour_ms;
    get.ranges = ranges;
    get.row_limit = 10;
    get.columns = wanted;
    const protocol::operation_body get_body = build_get_ranges(get);
    seed("get_ranges", selector(get_ranges), fields(get_body));

    // A rows reply by hand, as a node writes one: the head, then offsets and values.
    content.clear();
    encode_rows_count(content, 3);
    content_writer w(content);
    encode_rows_head(content, wanted[0], 2);
    w.put_i64(0);
    w.put_i64(1000);
    w.put_raw(doubles, 16);
    encode_rows_head(content, wanted[1], 2);
    w.put_i64(5);
    w.put_i64(6);
    w.put_bytes(a.data(), a.size());
    w.put_bytes(nullptr, 0);
    encode_rows_head(content, {3, column_type::timestamp}, 1);
    w.put_i64(-1);
    w.put_raw(times, 16);
    seed("rows_reply", selector(rows_reply), content);

    get_timestamps_fields stamps;
    stamps.bucket = erase.bucket;
    stamps.shard_start = 2 * hour_ms;
    stamps.index = 2;
    stamps.ranges = ranges;
    stamps.shard_size = hour_ms;
    stamps.column = {2, column_type::int64};
    seed("get_timestamps", selector(get_timestamps), fields(build_get_timestamps(stamps)));
    content.clear();
    encode_offsets(content, offsets);
    seed("offsets_reply", selector(offsets_reply), content);

    // Shard writes: the parameter picks 128, 129 or 135.
    const sample_chunk sample;
    shard_write m;
    m.table = table;
    m.bucket_key = key;
    m.chunk = &sample.chunk;
    m.shard_size = hour_ms;
    m.shard_start = 2 * hour_ms;
    m.fast = true;
    const bytes push = shard_write_of(m);
    seed("shard_write_128", selector(shard_write_message, 0), push);
    m.op = protocol::operation::ts_batch_push_async;
    seed("shard_write_129", selector(shard_write_message, 1), shard_write_of(m));
    m.op = protocol::operation::ts_batch_push_truncate;
    m.ranges = ranges;
    seed("shard_write_135", selector(shard_write_message, 2), shard_write_of(m));
    m.op = protocol::operation::ts_batch_push;
    m.chunk = nullptr;
    m.ranges = {};
    seed("shard_write_no_chunk", selector(shard_write_message, 0), shard_write_of(m));

    const auto states = sample_states();
    for (std::size_t i = 0; i < states.size(); ++i)
    {
        content.clear();
        encode_state(states[i].first, states[i].second, content);
        seed("state_" + std::to_string(i), selector(state, static_cast<unsigned>(states[i].second)), content);
    }

    const aggregate_sub_request subs[] = {
        {static_cast<std::uint64_t>(aggregation_type::sum), range(7200, 9000)},
        {static_cast<std::uint64_t>(aggregation_type::spread), range(0, 1)},
        {99, range(-5, 5)}};
    const protocol::operation_body aggregate_body =
        build_aggregate(protocol::operation::ts_double_aggregate, erase.bucket, 0, hour_ms, subs);
    seed("aggregate", selector(aggregate_request), fields(aggregate_body));

    // The parameter is both the number of states and (modulo 5) the column type: 2 states of int64,
    // 3 of timestamp.
    content.clear();
    content.push_back(2);
    encode_state(sum_state{2, 0.5, 9}, column_type::int64, content);
    encode_state(extreme_state{1, {timespec{4, 4}, std::int64_t{8}}}, column_type::int64, content);
    seed("aggregate_reply_int64", selector(aggregate_reply, 2), content);
    content.clear();
    content.push_back(3);
    encode_state(count_state{5}, column_type::timestamp, content);
    encode_state(no_data_state{}, column_type::timestamp, content);
    encode_state(spread_state{2, {timespec{1, 1}, timespec{2, 2}}, {timespec{3, 3}, timespec{4, 4}}},
                 column_type::timestamp, content);
    seed("aggregate_reply_timestamp", selector(aggregate_reply, 3), content);

    // Listings: varint count, each alias a byte buffer, a type after each when the parameter is odd.
    seed("alias_list", selector(alias_list, 0), bytes{2, 3, 'o', 'n', 'e', 1, 'x'});
    seed("alias_list_typed", selector(alias_list, 1), bytes{2, 3, 'o', 'n', 'e', 4, 1, 'x', 18});
    seed("walk_reply", selector(walk_reply), bytes{4, 'b', 'l', 'o', 'b', 'c', 'o', 'n', 't', 'e', 'n', 't'});

    // The node path: a table, a read of its columns, a read and an aggregate of a bucket, a shard write.
    write_file(node / "ts_create", node_seed(table_id, 0x10, build_create_table(table, hour_ms, columns)));
    write_file(node / "ts_list_columns", node_seed(table_id, 0x08, build_list_columns(table)));
    const chord::ring_id bucket_id = chord::alias_hash(key);
    write_file(node / "ts_get_ranges", node_seed(bucket_id, 0x08, get_body));
    m.chunk = &sample.chunk;
    write_file(node / "ts_batch_push", node_seed(bucket_id, 0x30, build_shard_write_body(m)));
    write_file(node / "ts_double_aggregate", node_seed(bucket_id, 0x08, aggregate_body));
    return 0;
}
