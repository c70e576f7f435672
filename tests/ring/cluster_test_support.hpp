// A handle connected to an in-process cluster of development nodes, and the no-op request the routing
// tests send: get_config of the replication factor, which every node answers without content.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "api/handle.hpp"
#include "node/local_cluster.hpp"
#include "ring/routing.hpp"
#include "wire/operation_body.hpp"
#include "zlk/zlk.h"

namespace zlk::ring_test
{

struct handle_guard
{
    handle_guard()
    {
        EXPECT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        // Short enough that a test meeting a silent node ends, long enough for a loaded machine.
        EXPECT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
    }
    ~handle_guard() { zlk_close(h); }

    handle_guard(const handle_guard &) = delete;
    handle_guard & operator=(const handle_guard &) = delete;

    chord::cluster & cluster() { return h->cluster; }
    chord::ring_map & map() { return h->cluster.map(); }

    zlk_handle_t h = nullptr;
};

inline protocol::operation_body no_op_body()
{
    return protocol::build_operation_body(protocol::operation::get_config, 1,
                                          [](serialization::writer & w) { w.put_u8(2); });
}

// The no-op routed to the owner of key.
inline zlk_error_t routed_no_op(chord::cluster & c, const chord::ring_id & key, chord::owner_reply & reply)
{
    chord::owner_request request;
    request.key = key;
    request.has_content = false;
    return chord::request_owner(c, request, no_op_body, reply);
}

inline zlk_error_t routed_no_op(chord::cluster & c, const chord::ring_id & key)
{
    chord::owner_reply reply;
    return routed_no_op(c, key, reply);
}

// Replies answered by all nodes of the cluster so far.
inline std::uint64_t replies_of(node::local_cluster & cluster)
{
    std::uint64_t n = 0;
    for (std::size_t i = 0; i < cluster.slots(); ++i)
    {
        if (cluster.is_running(i))
        {
            n += cluster.at(i).counters().count;
        }
    }
    return n;
}

} // namespace zlk::ring_test
