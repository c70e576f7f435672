// The wire codec on the request path. "allocs" counts global operator new calls per iteration: the
// frame of a put with its body built, and the decoding of a reply, must stay at 0.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "allocation_counting.hpp"
#include "wire/content_compression.hpp"
#include "wire/frame.hpp"
#include "wire/operation_body.hpp"

namespace
{

using namespace zlk;

const protocol::frame_origin origin{nullptr, "bench", "bench"};

protocol::operation_body put_body(const char * alias, std::size_t alias_size, const std::string & content)
{
    return protocol::build_operation_body(protocol::operation::put, 42,
                                          [&](serialization::writer & w)
                                          {
                                              w.put_bytes(alias, alias_size);
                                              w.put_string(content);
                                              w.put_varint(0);
                                              w.put_varint(0);
                                          });
}

// A put whose body is built: the carrier and the frame around it, into a reused scratch vector and
// an in-place scatter list.
void encode_put_frame(benchmark::State & state)
{
    const char alias[] = "an/alias/of/usual/length";
    const std::string content(100, 'c');
    const protocol::operation_body body = put_body(alias, sizeof alias, content);
    chord::chord_carrier_request request;
    request.required_access = 0x10;
    request.operation_class = body.operation_class;
    request.body = body.bytes();
    request.body_owner = body.owner;
    const protocol::message m = request;
    std::vector<std::uint8_t> scratch(protocol::frame_bound(m));

    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        serialization::fixed_scatter<3> scatter;
        protocol::encode_frame(m, scatter, scratch);
        benchmark::DoNotOptimize(scatter.total_size());
    }
}
BENCHMARK(encode_put_frame);

// The same with the body built each time: its shared buffers are the allocations a put costs.
void build_and_encode_put(benchmark::State & state)
{
    const char alias[] = "an/alias/of/usual/length";
    const std::string content(100, 'c');
    std::vector<std::uint8_t> scratch;
    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        const protocol::operation_body body = put_body(alias, sizeof alias, content);
        chord::chord_carrier_request request;
        request.required_access = 0x10;
        request.operation_class = body.operation_class;
        request.body = body.bytes();
        const protocol::message m = std::move(request);
        serialization::fixed_scatter<3> scatter;
        protocol::encode_frame(m, scatter, scratch);
        benchmark::DoNotOptimize(scatter.total_size());
    }
}
BENCHMARK(build_and_encode_put);

// A carrier reply with 1 KiB of content, decoded into a reused message.
void decode_carrier_reply(benchmark::State & state)
{
    const std::vector<std::uint8_t> content(1024, 0x5A);
    chord::chord_carrier_reply reply;
    reply.client_id = 1;
    reply.result.content = {std::span<const std::uint8_t>(content)};
    reply.result.value = 1;
    serialization::small_scatter<8> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(protocol::message{reply}, scatter, scratch);
    std::vector<std::uint8_t> frame;
    serialization::flatten_into(scatter, frame);

    protocol::message m;
    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        const auto ec = protocol::read_frame(frame, m, origin);
        benchmark::DoNotOptimize(ec);
        benchmark::DoNotOptimize(std::get<chord::chord_carrier_reply>(m).result.content_size());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}
BENCHMARK(decode_carrier_reply);

std::vector<std::uint64_t> varint_values()
{
    std::vector<std::uint64_t> values(1024);
    std::uint64_t x = 0x9E3779B97F4A7C15ull;
    for (auto & v : values)
    {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        // Mostly short values, as counts and lengths are, with some of every width.
        v = x >> (x % 64);
    }
    return values;
}

void varint_encode(benchmark::State & state)
{
    const std::vector<std::uint64_t> values = varint_values();
    std::vector<std::uint8_t> scratch(values.size() * serialization::varint_bound);
    for (auto _ : state)
    {
        serialization::fixed_scatter<1> scatter;
        serialization::writer w(scatter, scratch);
        for (std::uint64_t v : values)
        {
            w.put_varint(v);
        }
        benchmark::DoNotOptimize(scatter.total_size());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * values.size()));
}
BENCHMARK(varint_encode);

void varint_decode(benchmark::State & state)
{
    const std::vector<std::uint64_t> values = varint_values();
    std::vector<std::uint8_t> scratch(values.size() * serialization::varint_bound);
    serialization::fixed_scatter<1> scatter;
    serialization::writer w(scatter, scratch);
    for (std::uint64_t v : values)
    {
        w.put_varint(v);
    }
    for (auto _ : state)
    {
        serialization::cursor c(scatter[0].data, scatter[0].size);
        std::uint64_t sum = 0;
        std::uint64_t v = 0;
        while (!serialization::read_varint(c, v))
        {
            sum += v;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * values.size()));
}
BENCHMARK(varint_decode);

std::vector<std::uint8_t> typical_content(std::size_t size = 4096)
{
    std::string text;
    for (int i = 0; text.size() < size; ++i)
    {
        text += "{\"ts\":\"2024-03-0" + std::to_string(i % 9 + 1) + "T10:" + std::to_string(10 + i % 50) +
                ":00Z\",\"host\":\"node-" + std::to_string(i % 7) +
                "\",\"value\":" + std::to_string(i * 37 % 1000) + "}\n";
    }
    text.resize(size);
    return {text.begin(), text.end()};
}

// 100 bytes is the small put of zlk-bench, where a per-call reset of the compressor's table would show.
void lz4_compress(benchmark::State & state)
{
    const std::vector<std::uint8_t> content = typical_content(static_cast<std::size_t>(state.range(0)));
    std::vector<std::uint8_t> out;
    bool compressed = false;
    for (auto _ : state)
    {
        compressed = protocol::compress_content(content, true, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["ratio"] =
        compressed ? static_cast<double>(out.size()) / static_cast<double>(content.size()) : 1.0;
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * content.size()));
}
BENCHMARK(lz4_compress)->Arg(100)->Arg(4096);

void lz4_decompress(benchmark::State & state)
{
    const std::vector<std::uint8_t> content = typical_content();
    std::vector<std::uint8_t> compressed;
    if (!protocol::compress_content(content, true, compressed))
    {
        state.SkipWithError("content did not compress");
        return;
    }
    std::vector<std::uint8_t> out;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(protocol::decompress_content(compressed, out));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * content.size()));
}
BENCHMARK(lz4_decompress);

} // namespace

BENCHMARK_MAIN();
