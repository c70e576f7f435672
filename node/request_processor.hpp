// The node's request path without sockets: frame header → decoded request → dispatch → encoded reply.
// The server runs it for every frame it reads; the fuzzer and the benchmarks run it on bytes in memory.
//
// What is answered how:
//   ping                          arc of this node (tag 13)
//   get_successor_of              arc of the position's owner (tag 13)
//   closest_preceding_finger      the member just before the position (tag 14)
//   timestamp                     a fresh stamp (tag 12)
//   config                        result (tag 16), content: the configuration document in JSON
//   node_stop                     result (tag 16); success and then the node stops, or kernel code 22
//                                 when stopping is disabled
//   carrier                       carrier reply (tag 10); a refusal (tag 16, chord code 2) for a key
//                                 this node doesn't serve
//   group of carriers             group of carrier replies (tag 11), one per request, in order
//   predecessor_changed, new_range  result, chord code 6: this node doesn't run the ring protocol
//   any reply kind                result, protocol code 2: not a request
//   another protocol version      result, protocol code 1, in a frame of our version; then the
//                                 connection is closed
//
// With a reply already in place, answering doesn't allocate for ping, get_successor_of, timestamp and
// single carriers of quick operations that add no content.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "node/faults.hpp"
#include "wire/messages.hpp"
#include "wire/scatter.hpp"

namespace zlk::node
{

class node_state;

// What the connection does once the reply is out.
enum class after_reply : std::uint8_t
{
    read_next,
    // Stop sending, let the peer read what was sent, then close.
    close,
    // The node was asked to stop and agreed.
    stop_node,
};

enum class header_verdict : std::uint8_t
{
    // A body of body_size bytes follows.
    body_follows,
    // The empty frame: nothing follows, nothing is answered.
    empty_frame,
    // A frame of another protocol generation: answer_other_version, then close.
    other_version,
    // Not a frame, or a body size of 0: close the connection.
    malformed,
    // A body beyond the node's input limit: close the connection.
    too_large,
};

// The reply of one request and the storage it is encoded from. One per connection: kept between
// requests so that its buffers are reused.
struct reply_storage
{
    protocol::message reply;
    // Content bytes of the replies, one buffer per reply of a group.
    std::vector<std::vector<std::uint8_t>> contents;
    // A group's reply vector between uses, keeping its capacity.
    chord::chord_carrier_reply_batch spare_replies;
    std::vector<std::uint8_t> scratch;
    // The encoded frame: pieces in scratch, in contents, or in the request's views.
    serialization::small_scatter<16> frame;

    // Puts a group's reply vector back aside once the frame is sent.
    void recycle() noexcept;
};

class request_processor
{
public:
    explicit request_processor(node_state & node) noexcept
        : _node(node)
    {
    }

    // The first frame_header_size bytes of a frame.
    header_verdict check_header(std::span<const std::uint8_t> header,
                                std::uint64_t & body_size) const noexcept;

    // The frame (header and body) into request; its views point into `frame`. A serialization or
    // protocol error means the connection can't go on.
    boost::system::error_code decode(std::span<const std::uint8_t> frame, protocol::message & request) const;

    // Whether answering may block on other nodes (a client's carrier for a may_wait operation).
    bool may_wait(const protocol::message & request) const noexcept;

    // Answers the request into out.reply and encodes it into out.frame. The reply may point into the
    // request's bytes: both must stay alive until the frame is sent. Never throws but for memory.
    after_reply answer(const protocol::message & request, reply_storage & out, const fault_settings & faults);

    // The answer to a frame of another protocol version.
    void answer_other_version(reply_storage & out);

    // check_header, decode and answer in one: what a connection does with one complete frame in
    // memory. Returns close without a reply (out.frame empty) when the frame can't be answered.
    after_reply handle_frame(std::span<const std::uint8_t> frame, protocol::message & request,
                             reply_storage & out, const fault_settings & faults);

private:
    void answer_carrier(const chord::chord_carrier_request & request, chord::chord_carrier_reply & reply,
                        std::vector<std::uint8_t> & content, const fault_settings & faults);
    bool serves(const chord::chord_carrier_request & request) const noexcept;
    void encode(reply_storage & out);

    node_state & _node;
};

} // namespace zlk::node
