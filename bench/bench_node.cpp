// The node's request path in memory: header check, decode, dispatch and reply encoding, for a ping, a
// small carrier (get_config) and a group of carriers. "allocs" counts heap allocations per request:
// after the first request a connection's buffers are reused, so ping and the single carrier make none.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "allocation_counting.hpp"
#include "node/node_state.hpp"
#include "node/request_processor.hpp"
#include "wire/frame.hpp"

namespace
{

using namespace zlk;

node::node_settings bench_settings()
{
    node::node_settings s;
    s.id = chord::ring_id{{0, 0, 0, 0x8000000000000000ull}};
    s.listen = {asio::ip::address_v4::loopback(), 7000};
    s.peers = {{chord::ring_id{{0, 0, 0, 0x4000000000000000ull}}, {asio::ip::address_v4::loopback(), 7001}},
               {chord::ring_id::max(), {asio::ip::address_v4::loopback(), 7002}}};
    return s;
}

std::vector<std::uint8_t> frame_of(const protocol::message & m)
{
    serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(m, scatter, scratch);
    std::vector<std::uint8_t> out;
    serialization::flatten_into(scatter, out);
    return out;
}

chord::chord_carrier_request get_config_request(std::uint64_t client_id)
{
    static const std::uint8_t body[] = {23, 0, 2};
    chord::chord_carrier_request r;
    r.client_id = client_id;
    r.operation_class = 2;
    r.body = body;
    return r;
}

void run_path(benchmark::State & state, const protocol::message & m)
{
    node::node_state node(bench_settings(), nullptr);
    node::request_processor processor(node);
    const std::vector<std::uint8_t> frame = frame_of(m);
    protocol::message request;
    node::reply_storage out;
    const node::fault_settings faults;
    processor.handle_frame(frame, request, out, faults);
    out.recycle();

    zlk::bench::allocation_counter allocs{state};
    for (auto _ : state)
    {
        processor.handle_frame(frame, request, out, faults);
        benchmark::DoNotOptimize(out.frame.total_size());
        out.recycle();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}

void bm_node_ping(benchmark::State & state)
{
    run_path(state, chord::chord_request_ping{});
}
BENCHMARK(bm_node_ping);

void bm_node_get_successor_of(benchmark::State & state)
{
    run_path(state, chord::chord_request_get_successor_of{chord::ring_id{{1, 2, 3, 4}}});
}
BENCHMARK(bm_node_get_successor_of);

void bm_node_small_carrier(benchmark::State & state)
{
    run_path(state, get_config_request(0));
}
BENCHMARK(bm_node_small_carrier);

void bm_node_group_of_8(benchmark::State & state)
{
    chord::chord_carrier_request_batch group;
    for (std::uint64_t i = 0; i < 8; ++i)
    {
        group.push_back(get_config_request(i));
    }
    run_path(state, group);
}
BENCHMARK(bm_node_group_of_8);

} // namespace

BENCHMARK_MAIN();
