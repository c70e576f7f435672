// Blob calls through the C interface against in-process nodes: a synchronous zlk_blob_get of 100 bytes
// next to a bare blocking ping-pong of the same request with the same node (the difference is what the
// library adds to the round trip), zlk_blob_put of 100 bytes, zlk_run_batch of 10,000 puts spread over
// a three-node ring, in items per second, and tag listings on a node full of other entries. The
// allocation counters count the calling thread only: the in-process node allocates on its own threads.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "allocation_counting.hpp"
#include "base/alias_hash.hpp"
#include "base/entry_type.hpp"
#include "blocking_io.hpp"
#include "entries/entry_requests.hpp"
#include "node/local_cluster.hpp"
#include "ring/routing.hpp"
#include "wire/frame.hpp"
#include "zlk/zlk.h"

namespace
{

using zlk::network::testing::connect_loopback;
using zlk::network::testing::read_exactly;
using zlk::network::testing::write_all;

using namespace zlk;

constexpr std::size_t content_size = 100;
constexpr const char * stored_alias = "bench.entries.stored";

// A handle connected to the cluster, closed on scope exit; null (and the benchmark skipped) on failure.
struct connected_handle
{
    zlk_handle_t h = nullptr;

    connected_handle(benchmark::State & state, const std::string & uri)
    {
        if (zlk_open(&h, zlk_p_tcp) != zlk_e_ok || zlk_connect(h, uri.c_str()) != zlk_e_ok)
        {
            state.SkipWithError("could not connect");
            zlk_close(h);
            h = nullptr;
        }
    }
    ~connected_handle() { zlk_close(h); }
    connected_handle(const connected_handle &) = delete;
    connected_handle & operator=(const connected_handle &) = delete;
};

void blob_get(benchmark::State & state)
{
    node::local_cluster cluster(1);
    connected_handle c(state, cluster.uri());
    const std::vector<char> content(content_size, 'x');
    if (!c.h ||
        zlk_blob_put(c.h, stored_alias, content.data(), content.size(), zlk_never_expires) != zlk_e_ok)
    {
        state.SkipWithError("could not store the blob");
        return;
    }
    zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::this_thread,
                                          "client_allocations_per_get"};
    for (auto _ : state)
    {
        const void * out = nullptr;
        std::size_t length = 0;
        if (zlk_blob_get(c.h, stored_alias, &out, &length) != zlk_e_ok || length != content_size)
        {
            state.SkipWithError("get failed");
            break;
        }
        zlk_release(c.h, out);
    }
}
BENCHMARK(blob_get)->UseRealTime();

// The same get request, encoded once, written and its reply read on a plain blocking socket.
void bare_get_ping_pong(benchmark::State & state)
{
    node::local_cluster cluster(1);
    {
        connected_handle c(state, cluster.uri());
        const std::vector<char> content(content_size, 'x');
        if (!c.h ||
            zlk_blob_put(c.h, stored_alias, content.data(), content.size(), zlk_never_expires) != zlk_e_ok)
        {
            state.SkipWithError("could not store the blob");
            return;
        }
    }
    const protocol::operation_body body = client::get_body(0, 0, kernel::entry_type::blob);
    const protocol::message request{
        chord::make_carrier(chord::alias_hash(std::string_view{stored_alias}), 0, 0, body)};
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
    std::uint64_t reply_size = 0;
    for (auto _ : state)
    {
        if (!write_all(fd, frame.data(), frame.size()) ||
            !read_exactly(fd, in.data(), protocol::frame_header_size))
        {
            state.SkipWithError("exchange failed");
            break;
        }
        reply_size = serialization::detail::load_le<std::uint64_t>(in.data() + 4);
        if (reply_size > in.size() - protocol::frame_header_size ||
            !read_exactly(fd, in.data() + protocol::frame_header_size, static_cast<std::size_t>(reply_size)))
        {
            state.SkipWithError("reply failed");
            break;
        }
        benchmark::DoNotOptimize(in.data());
    }
    // A reply without the content would make this baseline flatter than the real get.
    if (reply_size < content_size)
    {
        state.SkipWithError("the reply carries no content");
    }
    state.counters["reply_bytes"] = static_cast<double>(reply_size);
    ::close(fd);
}
BENCHMARK(bare_get_ping_pong)->UseRealTime();

void blob_put(benchmark::State & state)
{
    node::local_cluster cluster(1);
    connected_handle c(state, cluster.uri());
    if (!c.h)
    {
        return;
    }
    const std::vector<char> content(content_size, 'x');
    // A new alias per put, formatted in place.
    char alias[64];
    std::uint64_t n = 0;
    zlk::bench::allocation_counter allocs{state, zlk::bench::allocation_counter::scope::this_thread,
                                          "client_allocations_per_put"};
    for (auto _ : state)
    {
        std::snprintf(alias, sizeof alias, "bench.entries.put.%llu", static_cast<unsigned long long>(n++));
        if (zlk_blob_put(c.h, alias, content.data(), content.size(), zlk_never_expires) != zlk_e_ok)
        {
            state.SkipWithError("put failed");
            break;
        }
    }
}
BENCHMARK(blob_put)->UseRealTime();

// A batch of puts of `content` that never expire, one for each alias.
void prepare_puts(std::vector<zlk_operation_t> & ops, const std::vector<std::string> & aliases,
                  const std::vector<char> & content)
{
    zlk_init_operations(ops.data(), ops.size());
    for (std::size_t i = 0; i < ops.size(); ++i)
    {
        ops[i].type = zlk_op_blob_put;
        ops[i].alias = aliases[i].c_str();
        ops[i].fields.blob_put.content = content.data();
        ops[i].fields.blob_put.content_length = content.size();
        ops[i].fields.blob_put.expiry_time = zlk_never_expires;
    }
}

void batch_of_puts(benchmark::State & state)
{
    constexpr std::size_t records = 10000;
    node::local_cluster cluster(3);
    connected_handle c(state, cluster.uri());
    if (!c.h)
    {
        return;
    }
    const std::vector<char> content(content_size, 'x');
    std::vector<std::string> aliases(records);
    std::vector<zlk_operation_t> ops(records);
    std::uint64_t round = 0;
    for (auto _ : state)
    {
        // Fresh aliases every round, so each record is a put that creates its entry.
        state.PauseTiming();
        for (std::size_t i = 0; i < records; ++i)
        {
            aliases[i] = "bench.entries.batch." + std::to_string(round) + "." + std::to_string(i);
        }
        ++round;
        prepare_puts(ops, aliases, content);
        state.ResumeTiming();
        if (zlk_run_batch(c.h, ops.data(), ops.size()) != records)
        {
            state.SkipWithError("a record failed");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * records));
}
BENCHMARK(batch_of_puts)->UseRealTime()->Unit(benchmark::kMillisecond);

// A tag's entries (argument 0, zlk_get_tagged) or an entry's tags (1, zlk_get_tags) on a node that
// holds 100,000 other entries: the node answers from its affix indexes without walking the others.
void tag_listing_among_many(benchmark::State & state)
{
    constexpr std::size_t others = 100000;
    constexpr std::size_t per_batch = 10000;
    node::local_cluster cluster(1);
    connected_handle c(state, cluster.uri());
    if (!c.h)
    {
        return;
    }
    const std::vector<char> content(content_size, 'x');
    std::vector<std::string> aliases(per_batch);
    std::vector<zlk_operation_t> ops(per_batch);
    for (std::size_t done = 0; done < others; done += per_batch)
    {
        for (std::size_t i = 0; i < per_batch; ++i)
        {
            aliases[i] = "bench.entries.other." + std::to_string(done + i);
        }
        prepare_puts(ops, aliases, content);
        if (zlk_run_batch(c.h, ops.data(), ops.size()) != per_batch)
        {
            state.SkipWithError("could not store the other entries");
            return;
        }
    }
    constexpr const char * tag = "bench.entries.tag";
    for (int i = 0; i < 5; ++i)
    {
        const std::string alias = "bench.entries.tagged." + std::to_string(i);
        if (zlk_blob_put(c.h, alias.c_str(), content.data(), content.size(), zlk_never_expires) != zlk_e_ok ||
            ZLK_FAILURE(zlk_attach_tag(c.h, alias.c_str(), tag)))
        {
            state.SkipWithError("could not tag the entries");
            return;
        }
    }
    const bool tags_of_entry = state.range(0) == 1;
    for (auto _ : state)
    {
        const char ** names = nullptr;
        std::size_t count = 0;
        const zlk_error_t e = tags_of_entry ? zlk_get_tags(c.h, "bench.entries.tagged.1", &names, &count)
                                            : zlk_get_tagged(c.h, tag, &names, &count);
        if (e != zlk_e_ok || count != (tags_of_entry ? 1u : 5u))
        {
            state.SkipWithError("listing failed");
            break;
        }
        zlk_release(c.h, names);
    }
}
BENCHMARK(tag_listing_among_many)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
