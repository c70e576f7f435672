// Writes a handful of valid inputs for each fuzz target: make_fuzz_corpus <fuzz/corpus folder>.
// Run once by hand; the files it writes are committed, so the seeds stay the same between runs.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "wire/content_compression.hpp"
#include "wire/frame.hpp"
#include "wire/operation_body.hpp"

namespace
{

using namespace zlk;
using bytes = std::vector<std::uint8_t>;

void write_file(const std::filesystem::path & path, const bytes & content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
}

chord::ring_id id_of(std::uint64_t seed)
{
    chord::ring_id id;
    id.words = {seed * 0x9E3779B97F4A7C15ull, seed, ~seed, seed << 32};
    return id;
}

chord::node_info node_of(std::uint64_t seed, const char * address)
{
    return {id_of(seed), asio::ip::tcp::endpoint(asio::ip::make_address(address), 2836)};
}

const std::string put_body = std::string("\x1E\x00\x02\x61\x00\x01\x62\x00\x00", 9);
const std::string reply_content = "a reply of some bytes";

std::vector<protocol::message> samples()
{
    chord::chord_carrier_request request;
    request.key = id_of(1);
    request.required_access = 0x10;
    request.operation_class = 5;
    request.body = std::span(reinterpret_cast<const std::uint8_t *>(put_body.data()), put_body.size());

    protocol::result r;
    r.error = make_error_code(kernel::error::not_found);
    r.content = {
        std::span(reinterpret_cast<const std::uint8_t *>(reply_content.data()), reply_content.size())};
    r.value = 42;
    r.profile_name = "blob get";
    r.profile = {{1, 1000}, {2, 2000}};

    chord::chord_carrier_reply reply{node_of(2, "10.0.0.2"), zlk::uuid{}, 1, r};
    chord::arc a{node_of(3, "10.0.0.3"), node_of(4, "::1"), node_of(5, "10.0.0.5")};

    return {
        chord::chord_request_ping{},
        chord::chord_request_timestamp{},
        chord::chord_request_config{},
        chord::chord_request_predecessor_changed{node_of(6, "192.168.0.6")},
        chord::chord_request_get_successor_of{id_of(7)},
        chord::chord_request_new_range{a, zlk::uuid{{1, 2}, id_of(8), 3}},
        chord::chord_request_node_stop{"shutdown"},
        chord::chord_request_closest_preceding_finger{id_of(9)},
        request,
        chord::chord_carrier_request_batch{request, request},
        reply,
        chord::chord_carrier_reply_batch{reply, reply, chord::chord_carrier_reply{}},
        zlk::uuid{{5, 6}, id_of(10), 7},
        a,
        node_of(11, "fe80::1"),
        chord::config_directory_placeholder{},
        r,
    };
}

bytes frame_of(const protocol::message & m)
{
    serialization::small_scatter<16> scatter;
    bytes scratch;
    protocol::encode_frame(m, scatter, scratch);
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

} // namespace

int main(int argc, char ** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: make_fuzz_corpus <corpus folder>\n");
        return 2;
    }
    const std::filesystem::path root = argv[1];
    for (const char * name : {"frame", "message", "content"})
    {
        std::filesystem::create_directories(root / name);
    }

    const std::vector<protocol::message> messages = samples();
    for (std::size_t tag = 0; tag < messages.size(); ++tag)
    {
        const bytes frame = frame_of(messages[tag]);
        write_file(root / "frame" / ("tag_" + std::to_string(tag)), frame);
        bytes body(frame.begin() + protocol::frame_header_size, frame.end());
        write_file(root / "message" / ("kind_" + std::to_string(tag)), body);
    }
    bytes empty_frame(protocol::frame_header_size, 0xFF);
    serialization::detail::store_le(empty_frame.data(), protocol::frame_head);
    serialization::detail::store_le(empty_frame.data() + 4, protocol::empty_frame_size);
    write_file(root / "frame" / "empty_frame", empty_frame);

    std::string text;
    while (text.size() < 2048)
    {
        text += "ts.4f2a.bucket.0000042 value=17.25 host=node-3;";
    }
    for (std::size_t size : {64u, 300u, 2048u})
    {
        bytes compressed;
        protocol::compress_content(std::span(reinterpret_cast<const std::uint8_t *>(text.data()), size), true,
                                   compressed);
        write_file(root / "content" / ("compressed_" + std::to_string(size)), compressed);
    }
    write_file(root / "content" / "raw_bb", bytes{'B', 'B', 'r', 'a', 'w', ' ', 'b', 'l', 'o', 'b'});
    write_file(root / "content" / "raw_text", bytes(text.begin(), text.begin() + 100));
    return 0;
}
