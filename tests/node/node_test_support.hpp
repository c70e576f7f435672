// Helpers of the node tests: requests built the way a client builds them, and a raw client that
// speaks to a node through real sockets with the shared codec.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "node/sync_client.hpp"
#include "wire/frame.hpp"
#include "wire/operations.hpp"

namespace zlk::node_test
{

using bytes = std::vector<std::uint8_t>;

// A carrier as a client sends it: `from` unset, the body owned by the request.
inline chord::chord_carrier_request carrier(std::uint16_t operation, const chord::ring_id & key = {},
                                            bytes fields = {}, std::uint16_t required_access = 0,
                                            std::uint64_t client_id = 0)
{
    auto body = std::make_shared<bytes>(2 + fields.size());
    serialization::detail::store_le(body->data(), operation);
    std::copy(fields.begin(), fields.end(), body->begin() + 2);
    chord::chord_carrier_request r;
    r.key = key;
    r.client_id = client_id;
    r.required_access = required_access;
    r.operation_class = 2;
    r.body = *body;
    r.body_owner = body;
    return r;
}

inline chord::chord_carrier_request get_config(std::uint8_t item)
{
    return carrier(static_cast<std::uint16_t>(protocol::operation::get_config), {}, {item});
}

// m as one frame in memory.
inline bytes frame_of(const protocol::message & m)
{
    serialization::small_scatter<16> scatter;
    std::vector<std::uint8_t> scratch;
    protocol::encode_frame(m, scatter, scratch);
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

// A frame header of our version announcing `size` body bytes, and nothing after it.
inline bytes hex_frame_header(std::uint64_t size)
{
    bytes out(protocol::frame_header_size);
    serialization::detail::store_le(out.data(), protocol::frame_head);
    serialization::detail::store_le(out.data() + 4, size);
    return out;
}

inline chord::ring_id id_of(std::uint64_t low, std::uint64_t high = 0)
{
    return chord::ring_id{{low, 0, 0, high}};
}

// One connection to a node, with the reply of the last exchange kept alive.
class raw_client
{
public:
    explicit raw_client(const asio::ip::tcp::endpoint & to,
                        std::chrono::milliseconds timeout = std::chrono::seconds(30))
        : client(timeout)
    {
        connect_error = client.connect(to);
    }

    // Sends m and decodes the reply; fails the test on a transport or decode error.
    const protocol::message & ask(const protocol::message & m)
    {
        const boost::system::error_code ec = client.exchange(m, buffer, reply);
        EXPECT_FALSE(ec) << ec.message();
        return reply;
    }

    template <typename T>
    const T & ask_for(const protocol::message & m)
    {
        const protocol::message & r = ask(m);
        if (!std::holds_alternative<T>(r))
        {
            ADD_FAILURE() << "got " << protocol::message_kind_name(r);
            static const T none{};
            return none;
        }
        return std::get<T>(r);
    }

    node::sync_client client;
    boost::system::error_code connect_error;
    bytes buffer;
    protocol::message reply;
};

} // namespace zlk::node_test
