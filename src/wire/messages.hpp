// The seventeen kinds of message that a frame can carry, the carrier that wraps every data operation,
// and the result record that ends every exchange.
//
// Views (spans, string_views) in a decoded message point into the received bytes: whoever decodes keeps
// those bytes alive as long as the message is used. On the writer side the same views point at the
// sender's memory, which must outlive the scatter list the message was encoded into.
#pragma once

#include <boost/container/small_vector.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/ring_id.hpp"
#include "base/uuid.hpp"
#include "wire/marshal.hpp"
#include "wire/node_info.hpp"

namespace zlk::protocol
{

// One measure of a node's timing record: a label and a time.
struct profile_entry
{
    std::uint8_t label = 0;
    std::uint64_t value = 0;

    friend bool operator==(const profile_entry &, const profile_entry &) noexcept = default;
};

struct result
{
    // Zero is success.
    boost::system::error_code error;
    // The reply bytes. A writer may give several pieces, sent one after another under one length; a
    // decoded result holds exactly one view into the received frame.
    boost::container::small_vector<std::span<const std::uint8_t>, 2> content;
    std::uint64_t value = 0;
    zlk::uuid stamp;
    // At most 255 bytes go out; a longer name is cut.
    std::string_view profile_name;
    std::vector<profile_entry> profile;

    // Sum of the sizes of the pieces.
    std::size_t content_size() const noexcept;
    // The first piece: for a decoded result, all of the content.
    std::span<const std::uint8_t> content_view() const noexcept
    {
        return content.empty() ? std::span<const std::uint8_t>{} : content.front();
    }

    // Contents compare by their bytes, whatever their split into pieces.
    friend bool operator==(const result & a, const result & b) noexcept;
};

} // namespace zlk::protocol

namespace zlk::chord
{

struct chord_request_ping
{
    friend bool operator==(const chord_request_ping &, const chord_request_ping &) noexcept = default;
};

struct chord_request_timestamp
{
    friend bool operator==(const chord_request_timestamp &,
                           const chord_request_timestamp &) noexcept = default;
};

struct chord_request_config
{
    friend bool operator==(const chord_request_config &, const chord_request_config &) noexcept = default;
};

struct chord_request_predecessor_changed
{
    node_info node;

    friend bool operator==(const chord_request_predecessor_changed &,
                           const chord_request_predecessor_changed &) noexcept = default;
};

struct chord_request_get_successor_of
{
    ring_id position{};

    friend bool operator==(const chord_request_get_successor_of &,
                           const chord_request_get_successor_of &) noexcept = default;
};

struct chord_request_new_range
{
    arc range;
    zlk::uuid stamp;

    friend bool operator==(const chord_request_new_range &,
                           const chord_request_new_range &) noexcept = default;
};

struct chord_request_node_stop
{
    std::string reason;

    friend bool operator==(const chord_request_node_stop &, const chord_request_node_stop &) = default;
};

struct chord_request_closest_preceding_finger
{
    ring_id position{};

    friend bool operator==(const chord_request_closest_preceding_finger &,
                           const chord_request_closest_preceding_finger &) noexcept = default;
};

// The envelope of every data operation.
struct chord_carrier_request
{
    // The sender; a client leaves it unset.
    node_info from;
    // The ring position the request is for; zero for a request aimed at a node.
    ring_id key{};
    // 0 for a single request; in a group, the running number that the reply echoes.
    std::uint64_t client_id = 0;
    // Zero outside a transaction.
    zlk::uuid transaction;
    std::uint16_t required_access = 0;
    std::uint8_t valid = 1;
    std::uint64_t operation_class = 0;
    // u16 operation number, then the operation's fields (wire/operation_body.hpp). Sent by reference.
    std::span<const std::uint8_t> body;
    // When not empty, the body is these pieces in order instead (a large body sent without a copy);
    // body is then empty. The owner keeps the list alive, the sender the bulk bytes it points at.
    std::span<const serialization::scatter_entry> body_pieces;
    // Keeps the body alive as long as the request; empty on a decoded request, whose body is a view
    // into the received frame.
    std::shared_ptr<const void> body_owner;

    // The operation number at the head of the body; 0 when the body is shorter than that.
    std::uint16_t operation() const noexcept;

    friend bool operator==(const chord_carrier_request & a, const chord_carrier_request & b) noexcept;
};

using chord_carrier_request_batch = std::vector<chord_carrier_request>;

struct chord_carrier_reply
{
    node_info from;
    zlk::uuid transaction;
    std::uint64_t client_id = 0;
    protocol::result result;

    friend bool operator==(const chord_carrier_reply &, const chord_carrier_reply &) noexcept = default;
};

using chord_carrier_reply_batch = std::vector<chord_carrier_reply>;

struct config_directory_placeholder
{
    friend bool operator==(const config_directory_placeholder &,
                           const config_directory_placeholder &) noexcept = default;
};

} // namespace zlk::chord

namespace zlk::protocol
{

// The alternatives in the order of their wire tag.
using message = std::variant<chord::chord_request_ping,                     // 0
                             chord::chord_request_timestamp,                // 1
                             chord::chord_request_config,                   // 2
                             chord::chord_request_predecessor_changed,      // 3
                             chord::chord_request_get_successor_of,         // 4
                             chord::chord_request_new_range,                // 5
                             chord::chord_request_node_stop,                // 6
                             chord::chord_request_closest_preceding_finger, // 7
                             chord::chord_carrier_request,                  // 8
                             chord::chord_carrier_request_batch,            // 9
                             chord::chord_carrier_reply,                    // 10
                             chord::chord_carrier_reply_batch,              // 11
                             zlk::uuid,                                     // 12
                             chord::arc,                                    // 13
                             chord::node_info,                              // 14
                             chord::config_directory_placeholder,           // 15
                             result>;                                       // 16

inline constexpr std::size_t message_kind_count = std::variant_size_v<message>;
static_assert(message_kind_count == 17);

enum class message_tag : std::uint8_t
{
    ping = 0,
    timestamp = 1,
    config = 2,
    predecessor_changed = 3,
    get_successor_of = 4,
    new_range = 5,
    node_stop = 6,
    closest_preceding_finger = 7,
    carrier_request = 8,
    carrier_request_batch = 9,
    carrier_reply = 10,
    carrier_reply_batch = 11,
    uuid = 12,
    arc = 13,
    node_info = 14,
    config_directory = 15,
    result = 16,
};

// The kind's name for log lines; "unknown" past the last tag.
std::string_view message_kind_name(std::size_t tag) noexcept;

inline std::string_view message_kind_name(const message & m) noexcept
{
    return message_kind_name(m.index());
}

} // namespace zlk::protocol

namespace zlk::serialization
{

inline constexpr std::size_t carrier_request_bound =
    node_info_bound + ring_id_size + varint_bound + uuid_bound + 2 + 1 + varint_bound + bytes_bound;

// Scratch bound of a result, of a reply, of a message (without its tag).
std::size_t marshal_bound(const protocol::result & r) noexcept;
std::size_t marshal_bound(const chord::chord_carrier_reply & r) noexcept;
std::size_t marshal_bound(const protocol::message & m) noexcept;

void marshal(writer & w, const protocol::result & r);
error_code unmarshal(cursor & c, protocol::result & r);

void marshal(writer & w, const chord::chord_carrier_request & r);
error_code unmarshal(cursor & c, chord::chord_carrier_request & r) noexcept;

void marshal(writer & w, const chord::chord_carrier_reply & r);
error_code unmarshal(cursor & c, chord::chord_carrier_reply & r);

// The message alone, without its tag.
void marshal(writer & w, const protocol::message & m);
// Makes alternative `index` the one m holds and reads it. REQUIRES: index < message_kind_count.
error_code unmarshal_kind(cursor & c, protocol::message & m, std::size_t index);

} // namespace zlk::serialization
