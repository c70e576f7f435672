// Faults a node can be told to show, so that clients can be tested against misbehaving nodes. They are
// set at run time (node::set_faults) and apply from the next connection or request on. No fault is set
// by default; a node in production never has one.
#pragma once

#include <boost/system/error_code.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>

namespace zlk::node
{

struct fault_settings
{
    // The listening socket is closed: connecting fails with "connection refused".
    bool refuse_connections = false;
    // Connections are accepted and closed at once.
    bool close_on_accept = false;
    // The connection is closed once a request has been read, without an answer.
    bool close_after_request = false;
    // Replies are held until node::release_delayed_replies() (node::wait_for_delayed_replies() tells
    // when they are held); held replies are dropped when the node stops.
    bool hold_replies = false;
    // Every reply waits this long first (for trying a client by hand; tests use hold_replies).
    std::chrono::milliseconds reply_delay{0};
    // Bytes that are no frame take the place of each reply; the connection stays open.
    bool garbage_replies = false;
    // Only the first half of each reply frame goes out, then the connection is closed.
    bool truncated_replies = false;
    // Carriers whose operation is in this set are answered with `operation_error` in place of what
    // the operation would have given (in groups too).
    std::set<std::uint16_t> failing_operations{};
    boost::system::error_code operation_error{};
    // While the count (shared with whoever set it) is above zero, each shard write (128, 129, 135) from
    // a client takes one off and answers "try again" (EAGAIN) without writing.
    std::shared_ptr<std::atomic<std::uint32_t>> busy_shard_writes{};
    // Non-zero: every reply frame carries this protocol version instead of ours.
    std::uint16_t reply_version = 0;

    bool any_reply_fault() const noexcept
    {
        return hold_replies || reply_delay.count() > 0 || garbage_replies || truncated_replies ||
               reply_version != 0;
    }
};

// The bytes a node sends in place of a reply under garbage_replies: no valid magic, so a reader takes
// them for noise, not for a frame of another version.
inline constexpr std::uint8_t garbage_reply[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x11, 0x22, 0x33,
                                                 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB};

} // namespace zlk::node
