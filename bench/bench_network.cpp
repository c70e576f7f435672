// The cost of the network layer over the bare socket calls it makes.
//
// sync_exchange and blocking_ping_pong move the same bytes over loopback to the same peer (a thread per
// connection answering every frame with one small fixed frame): the difference is what encoding,
// framing, decoding and the pool add to a round trip. The goal is within 1.2 times the bare figure.
//
// blocking_ping_pong_32 is the same bare exchange on 32 threads at once, each with its own connection,
// against a two-thread epoll responder: the ceiling for zlk-bench's 32-thread put and get tests on this
// machine, where every round trip puts a client thread to sleep and wakes it.
//
// pool_hit is get_client then return_client of an idle client: it must not allocate, which the global
// operator new below counts (sync_exchange reports its count too: the reply buffer's).
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <vector>

#include "allocation_counting.hpp"
#include "blocking_io.hpp"
#include "epoll_responder.hpp"
#include "network/broker_service.hpp"
#include "network/request.hpp"
#include "scripted_peer.hpp"
#include "wire/frame.hpp"

namespace
{

using zlk::network::testing::connect_loopback;
using zlk::network::testing::read_exactly;

using namespace zlk;
using network::testing::bytes;
using network::testing::scripted_peer;
using network::testing::step;

bytes encode(const protocol::message & m)
{
    serialization::small_scatter<8> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(m, scatter, scratch);
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

bytes small_reply()
{
    protocol::result r;
    r.value = 1;
    return encode(protocol::message{std::move(r)});
}

void sync_exchange(benchmark::State & state)
{
    scripted_peer peer;
    peer.set_default(step::answer(small_reply()));
    network::broker_service service(std::make_shared<network::network_settings>());
    service.run();
    const protocol::message request{chord::chord_request_ping{}};
    // Of the calling thread alone: the peer's threads allocate too.
    zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::this_thread,
                                          "allocations_per_iteration"};
    for (auto _ : state)
    {
        network::client::received_frame reply;
        const auto ec = network::client::request_sync(service.sync_side(), peer.endpoint(), "client request",
                                                      request, reply);
        if (ec)
        {
            state.SkipWithError("request failed");
            break;
        }
        benchmark::DoNotOptimize(reply.message);
    }
    allocs.stop();
    service.stop();
}
BENCHMARK(sync_exchange)->UseRealTime();

void blocking_ping_pong(benchmark::State & state)
{
    scripted_peer peer;
    const bytes reply = small_reply();
    peer.set_default(step::answer(reply));
    const bytes request = encode(protocol::message{chord::chord_request_ping{}});

    const int fd = connect_loopback(peer.endpoint().port());
    if (fd < 0)
    {
        state.SkipWithError("connect failed");
        return;
    }
    std::vector<std::uint8_t> in(reply.size());
    for (auto _ : state)
    {
        if (::write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
            !read_exactly(fd, in.data(), in.size()))
        {
            state.SkipWithError("exchange failed");
            break;
        }
        benchmark::DoNotOptimize(in.data());
    }
    ::close(fd);
}
BENCHMARK(blocking_ping_pong)->UseRealTime();

void blocking_ping_pong_32(benchmark::State & state)
{
    const bytes request = encode(protocol::message{chord::chord_request_ping{}});
    const bytes reply = small_reply();
    // One responder for the whole run, made by whichever thread comes first.
    static zlk::bench::epoll_responder responder(request.size(), reply, 2);

    const int fd = connect_loopback(responder.port());
    const bool connected = fd >= 0;
    std::vector<std::uint8_t> in(reply.size());
    for (auto _ : state)
    {
        if (!connected ||
            ::write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
            !read_exactly(fd, in.data(), in.size()))
        {
            state.SkipWithError("exchange failed");
            break;
        }
        benchmark::DoNotOptimize(in.data());
    }
    if (connected)
    {
        ::close(fd);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(blocking_ping_pong_32)->Threads(32)->UseRealTime();

void pool_hit(benchmark::State & state)
{
    network::broker_service service(std::make_shared<network::network_settings>());
    service.run();
    network::clients_broker & side = service.sync_side();
    const network::endpoint node(asio::ip::make_address("127.0.0.1"), 7000);
    // The first round creates the client and its endpoint's pool.
    side.return_client(side.get_client(node, "client request").second);

    // Of the calling thread alone: the peer's threads allocate too.
    zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::this_thread,
                                          "allocations_per_iteration"};
    for (auto _ : state)
    {
        auto c = side.get_client(node, "client request").second;
        side.return_client(std::move(c));
    }
    allocs.stop();
    service.stop();
}
BENCHMARK(pool_hit);

} // namespace

BENCHMARK_MAIN();
