// The framing step of a receive: after every arrival of bytes, decide how many bytes the whole frame
// has, and whether this client accepts that many.
//
// A frame is a 12-byte head (magic, version, body size) and the body. The head is expected in the
// first read of a reply: a reply whose first arrival holds fewer than 12 bytes is refused, there is no
// waiting for the rest of a head.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>

namespace zlk::network
{

inline constexpr std::size_t frame_head_size = 12;

// Where a receive stands. expected is 0 until the head has been read.
struct frame_progress
{
    std::size_t received = 0;
    std::size_t expected = 0;

    bool complete() const noexcept { return expected != 0 && received >= expected; }
};

// Call after each read with the whole buffer received so far (data) and the number of bytes that just
// arrived. On success, progress.expected holds the frame's total size once known; the caller then
// makes room for it and reads on until complete(). Fails with:
//  - the protocol codes of the header check (3 for a head shorter than 12 bytes, a bad magic, a
//    body size of -8; 1 for a frame of another protocol version);
//  - network code 7 when the frame is larger than max_input_size, logged with both sizes. The body is
//    then never read.
boost::system::error_code framing_step(const std::uint8_t * data, std::size_t arrived,
                                       frame_progress & progress, std::uint64_t max_input_size) noexcept;

} // namespace zlk::network
