// The node's request path over arbitrary bytes: header check, decoding, dispatch, reply encoding. In
// memory, no sockets. Whatever the bytes, the node answers, refuses or closes; it never crashes.
//
// The first byte chooses how the rest is read: even, as a whole frame (the header too); odd, as the body
// of a frame whose header is made here, so that the fuzzer reaches the decoders without first finding
// the magic.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "node/node_state.hpp"
#include "node/request_processor.hpp"
#include "wire/frame.hpp"

namespace
{

zlk::node::node_state & fuzzed_node()
{
    static zlk::node::node_state node = []
    {
        zlk::node::node_settings s;
        s.id = zlk::chord::ring_id{{0, 0, 0, 0x8000000000000000ull}};
        s.listen = {asio::ip::address_v4::loopback(), 7000};
        s.peers = {
            {zlk::chord::ring_id{{0, 0, 0, 0x4000000000000000ull}}, {asio::ip::address_v4::loopback(), 7001}},
            {zlk::chord::ring_id::max(), {asio::ip::address_v4::loopback(), 7002}}};
        s.replication_factor = 2;
        s.enable_stop = true;
        s.max_in_buffer_size = 1 << 20;
        return zlk::node::node_state(s, nullptr);
    }();
    return node;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    static zlk::node::request_processor processor(fuzzed_node());
    static zlk::node::reply_storage out;
    static zlk::protocol::message request;
    static std::vector<std::uint8_t> frame;
    static const zlk::node::fault_settings faults;

    frame.clear();
    if ((data[0] & 1) != 0)
    {
        frame.resize(zlk::protocol::frame_header_size);
        zlk::serialization::detail::store_le(frame.data(), zlk::protocol::frame_head);
        zlk::serialization::detail::store_le(frame.data() + 4, static_cast<std::uint64_t>(size - 1));
    }
    frame.insert(frame.end(), data + 1, data + size);

    processor.handle_frame(frame, request, out, faults);
    // Copy the encoded reply as the socket would read it: every piece must be valid memory.
    static std::vector<std::uint8_t> reply;
    zlk::serialization::flatten_into(out.frame, reply);
    out.recycle();
    return 0;
}
