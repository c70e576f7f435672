// The ring's hot paths: a look-up that the map answers (goal: under 100 ns on a map of 1,000 arcs, no
// allocation), and a routed synchronous no-op against a one-node zlkd next to a bare blocking ping-pong
// of the same frame with the same node, so that the routing and connection overhead reads directly.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <vector>

#include "allocation_counting.hpp"
#include "api/handle.hpp"
#include "blocking_io.hpp"
#include "node/local_cluster.hpp"
#include "ring/routing.hpp"
#include "wire/frame.hpp"
#include "zlk/zlk.h"

namespace
{

using zlk::network::testing::connect_loopback;
using zlk::network::testing::read_exactly;

using namespace zlk;

// A map never misses in this benchmark: a conversation would be a fault.
struct no_network final : chord::successor_finder
{
    chord::chord_outcome find_successor(const network::endpoint &, const chord::ring_id &,
                                        chord::arc &) override
    {
        std::abort();
    }
};

chord::ring_id random_id(std::mt19937_64 & g)
{
    return chord::ring_id{{g(), g(), g(), g()}};
}

void find_owner_hit(benchmark::State & state)
{
    const auto arcs = static_cast<std::size_t>(state.range(0));
    std::mt19937_64 g(42);
    std::vector<chord::node_info> nodes(arcs);
    for (std::size_t i = 0; i < arcs; ++i)
    {
        nodes[i] = chord::node_info{random_id(g), network::endpoint{asio::ip::make_address_v4("127.0.0.1"),
                                                                    static_cast<std::uint16_t>(1000 + i)}};
    }
    std::sort(nodes.begin(), nodes.end(), [](const auto & a, const auto & b) { return a.id < b.id; });
    no_network network;
    chord::ring_map map(network);
    for (std::size_t i = 0; i < arcs; ++i)
    {
        map.insert_arc(chord::arc{nodes[(i + arcs - 1) % arcs], nodes[i], nodes[(i + 1) % arcs]});
    }
    std::vector<chord::ring_id> positions(4096);
    for (auto & p : positions)
    {
        p = random_id(g);
    }

    std::size_t i = 0;
    chord::node_info out;
    zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::process,
                                          "allocations_per_lookup"};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(map.find_owner(positions[i++ & 4095], 0, false, out));
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(find_owner_hit)->Arg(1000);

protocol::operation_body no_op_body()
{
    return protocol::build_operation_body(protocol::operation::get_config, 1,
                                          [](serialization::writer & w) { w.put_u8(2); });
}

void routed_no_op(benchmark::State & state)
{
    node::local_cluster cluster(1);
    zlk_handle_t h = nullptr;
    if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok || zlk_connect(h, cluster.uri().c_str()) != zlk_e_ok)
    {
        state.SkipWithError("could not connect");
        zlk_close(h);
        return;
    }
    chord::owner_request request;
    request.key = cluster.id(0);
    request.has_content = false;
    chord::owner_reply reply;
    {
        zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::process,
                                              "allocations_per_request"};
        for (auto _ : state)
        {
            if (chord::request_owner(h->cluster, request, no_op_body, reply) != zlk_e_ok)
            {
                state.SkipWithError("request failed");
                break;
            }
        }
    }
    zlk_close(h);
}
BENCHMARK(routed_no_op)->UseRealTime();

// The same carrier, encoded once, written and its reply read on a plain blocking socket.
void bare_ping_pong(benchmark::State & state)
{
    node::local_cluster cluster(1);
    const protocol::operation_body body = no_op_body();
    const protocol::message request{chord::make_carrier(cluster.id(0), 0, 0, body)};
    serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(request, scatter, scratch);
    std::vector<std::uint8_t> frame;
    serialization::flatten_into(scatter, frame);

    const int fd = connect_loopback(cluster.endpoint(0).port());
    if (fd < 0)
    {
        state.SkipWithError("connect failed");
        return;
    }
    std::vector<std::uint8_t> in(4096);
    for (auto _ : state)
    {
        if (::write(fd, frame.data(), frame.size()) != static_cast<ssize_t>(frame.size()) ||
            !read_exactly(fd, in.data(), protocol::frame_header_size))
        {
            state.SkipWithError("exchange failed");
            break;
        }
        const auto size = serialization::detail::load_le<std::uint64_t>(in.data() + 4);
        if (size > in.size() - protocol::frame_header_size ||
            !read_exactly(fd, in.data() + protocol::frame_header_size, static_cast<std::size_t>(size)))
        {
            state.SkipWithError("reply failed");
            break;
        }
        benchmark::DoNotOptimize(in.data());
    }
    ::close(fd);
}
BENCHMARK(bare_ping_pong)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
