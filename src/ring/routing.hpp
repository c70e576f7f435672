// How an operation finds its node and its answer. Four shapes of sending cover the library:
//
//   request_owner     one request to the owner of a key (or, with pick_replica, to any replica);
//   request_group     a group of requests to one node, as one batch frame, on the calling thread;
//   run_groups        groups to several nodes at once, on the broker's "async" side;
//   request_all_nodes the same request to every node of the ring (no retry at all).
//
// walk_nodes builds the groups of a request that scatters by ring segment rather than by key.
//
// An operation supplies its body as a callable returning a protocol::operation_body (built anew on every
// attempt), and, for groups, a policy: a small class with one operation,
//
//     struct my_policy
//     {
//         // (A policy that keeps views of a reply may take the received buffer as a third argument,
//         // const std::shared_ptr<received_buffer> &, on the asynchronous path.)
//         // Optional: false when the operation answers no content (content is then an invalid reply).
//         static constexpr bool has_content = true;
//         // Reads one reply into the caller's record `record.slot`. Runs on the event-loop thread for
//         // run_groups and request_all_nodes: must not block, must touch only its own records.
//         boost::system::error_code on_reply(const zlk::client::request_record & record,
//                                            const zlk::chord::chord_carrier_reply & reply);
//     };
//
// What the policy returns is what counts: it may tolerate an error the node reported by returning
// success. A policy that indexes by client_id checks it against the group's size (group_size_error).
//
// What a failure does to the ring map is settled here for all of them: a transport failure forgets the
// node (any failure for request_owner, the chord-visible kinds elsewhere), so does a refusal with an
// error or an unexpected reply; an ordinary error in a result leaves the map alone.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/error_categories.hpp"
#include "base/function_ref.hpp"
#include "base/make_error.hpp"
#include "base/uuid.hpp"
#include "log/logger.hpp"
#include "network/allocators.hpp"
#include "network/async_query.hpp"
#include "network/client.hpp"
#include "network/inplace_function.hpp"
#include "network/operation_result.hpp"
#include "ring/cluster.hpp"
#include "wire/messages.hpp"
#include "wire/operation_body.hpp"
#include "wire/replies.hpp"
#include "zlk/error.h"

namespace zlk::client
{

// The outcome of one exchange: the error as it was, and its translation.
struct error_detail
{
    boost::system::error_code error;
    zlk_error_t status = zlk_e_ok;
};

// One request of a group: the carrier (with its client_id) and the caller's index of the record that
// its reply fills.
struct request_record
{
    chord::chord_carrier_request request;
    std::size_t slot = 0;
};

// The requests that go to one node as one batch frame.
struct node_group
{
    chord::node_info node;
    std::vector<request_record> records;
};

// "got wrong internal client ID ({}, max = {})": logged, and client code 3, when a reply names a
// client_id beyond the group. For policies that index by client_id.
boost::system::error_code group_size_error(std::uint64_t client_id, std::size_t group_size) noexcept;

using zlk::function_ref;

using body_builder = function_ref<protocol::operation_body()>;

} // namespace zlk::client

namespace zlk::chord
{

// What a routed request is answered with. The frame owns the bytes every view in the reply points into.
struct owner_reply
{
    network::client::received_frame frame;

    // The carrier reply of the last attempt, when the node gave one; null otherwise (a refusal, no
    // answer at all). A view into frame.
    const chord_carrier_reply * reply() const noexcept
    {
        return std::get_if<chord_carrier_reply>(&frame.message);
    }

    // The node that answered last.
    node_info node;
};

struct owner_request
{
    ring_id key{};
    zlk::uuid transaction{};
    std::uint16_t required_access = 0;
    // Whether the operation answers with content: with false, content in a successful reply is
    // zlk_e_invalid_reply.
    bool has_content = true;
    locator locate = &find_owner;
};

// One request to the owner of request.key: three attempts, the owner asked anew (force_remote) after
// the first; a transport failure forgets the node and retries, so does a refusal with "wrong peer"; any
// other answer is final, a failure that the node reports in the reply included. The status is
// translated: local failures with the local origin, the node's with the remote one. The result's
// profile is filed first.
zlk_error_t request_owner(cluster & c, const owner_request & request, client::body_builder build_body,
                          owner_reply & out);

// The read of get-type operations: any replica first (bit 1 of required_access, pick_replica); on a
// failure with a replication factor of at least 2, the owner with the same body.
zlk_error_t request_read(cluster & c, owner_request request, client::body_builder build_body,
                         owner_reply & out);

namespace detail
{

template <typename Policy>
constexpr bool policy_has_content() noexcept
{
    if constexpr (requires { Policy::has_content; })
    {
        return Policy::has_content;
    }
    else
    {
        return true;
    }
}

// The policy's reading of a reply, as the untyped code calls it.
using reply_reader = client::function_ref<boost::system::error_code(const client::request_record &,
                                                                    const chord_carrier_reply &)>;

client::error_detail treat_carrier_reply(cluster & c, const client::request_record & record,
                                         const chord_carrier_reply & reply, bool has_content,
                                         reply_reader read);
client::error_detail treat_reply(cluster & c, const node_info & node, const client::request_record & record,
                                 const protocol::message & reply, bool has_content, reply_reader read);
client::error_detail treat_exchange_failure(cluster & c, const node_info & node,
                                            const boost::system::error_code & ec);

zlk_error_t request_group(cluster & c, const client::node_group & group, const char * context,
                          bool has_content, reply_reader read);

// Waits for the futures in order: a group that doesn't answer within the time-out has its connection
// closed, which makes its completion run, and is waited for again without limit.
struct started_group
{
    std::future<client::error_detail> future;
    std::shared_ptr<network::client::client> connection;
    std::uint64_t first_client_id = 0;
};
zlk_error_t wait_for_group(cluster & c, started_group & s);
// All of them, in order; the first failure among them, or else first_failure.
zlk_error_t wait_for_groups(cluster & c, std::vector<started_group> & started, zlk_error_t first_failure);

} // namespace detail

// The standard reading of one reply of a group or broadcast, for the record it answers: a reply of
// another kind is read by the refusal rules ("node in error: invalid reply"); a client_id other than
// the record's is protocol code 3 ("node in error: invalid client id expected {} got {}"); the profile is
// filed; the policy reads the reply and its verdict is translated with the remote origin ("node in error:
// processing returned error code {} for client id {}"); content where none is due is zlk_e_invalid_reply.
template <typename Policy>
client::error_detail node_treat_reply(cluster & c, const node_info & node,
                                      const client::request_record & record, const protocol::message & reply,
                                      Policy & policy)
{
    auto read = [&policy](const client::request_record & r, const chord_carrier_reply & rep)
    { return policy.on_reply(r, rep); };
    return detail::treat_reply(c, node, record, reply, detail::policy_has_content<Policy>(), read);
}

// A group of requests to one node as one frame (tag 9), answered by as many replies in order (tag 11),
// on the calling thread. The first failure of a reply, in order, is the result; all are read.
template <typename Policy>
zlk_error_t request_group(cluster & c, const client::node_group & group, const char * context,
                          Policy & policy)
{
    auto read = [&policy](const client::request_record & r, const chord_carrier_reply & rep)
    { return policy.on_reply(r, rep); };
    return detail::request_group(c, group, context, detail::policy_has_content<Policy>(), read);
}

} // namespace zlk::chord

namespace zlk::client
{

// The shared state of a batch exchange with one node: its requests, the range of their client ids, the
// policy that reads the replies and the promise the calling thread waits on. Kept alive by the reply
// handler until the completion has run.
template <typename Policy>
struct node_request_batch_completion
{
    chord::cluster * cluster = nullptr;
    node_group group;
    std::uint64_t first_client_id = 0;
    std::uint64_t end_client_id = 0;
    Policy * policy = nullptr;
    std::promise<error_detail> promise;

    // The completion: runs once, on the event-loop thread.
    boost::system::error_code complete(operation_result & r)
    {
        if (r.error)
        {
            promise.set_value(chord::detail::treat_exchange_failure(*cluster, group.node, r.error));
            return {};
        }
        const chord::chord_carrier_reply_batch * replies = nullptr;
        const protocol::reply_check check =
            protocol::expect_batch_reply(r.message, group.records.size(), replies);
        if (replies == nullptr)
        {
            error_detail d;
            d.error = check.error;
            d.status = make_error_from_code(check.error, check.remote ? remote_origin : local_origin);
            promise.set_value(d);
            // The connection carried something other than our answer: don't pool it.
            return check.error;
        }
        error_detail first;
        // A policy that hands content out as views of the reply takes the received buffer too.
        auto read = [this, &r](const request_record & rec, const chord::chord_carrier_reply & rep)
        {
            if constexpr (requires { policy->on_reply(rec, rep, r.buffer); })
            {
                return policy->on_reply(rec, rep, r.buffer);
            }
            else
            {
                static_cast<void>(r);
                return policy->on_reply(rec, rep);
            }
        };
        for (std::size_t i = 0; i < replies->size(); ++i)
        {
            const error_detail d = chord::detail::treat_carrier_reply(
                *cluster, group.records[i], (*replies)[i], chord::detail::policy_has_content<Policy>(), read);
            if (ZLK_FAILURE(d.status) && ZLK_SUCCESS(first.status))
            {
                first = d;
            }
        }
        promise.set_value(first);
        return {};
    }
};

// The state of one node of a broadcast: one request, read by the policy through node_treat_reply.
template <typename Policy>
struct node_request_broadcast_completion
{
    chord::cluster * cluster = nullptr;
    chord::node_info node;
    request_record record;
    Policy * policy = nullptr;
    std::promise<error_detail> promise;

    boost::system::error_code complete(operation_result & r)
    {
        if (r.error)
        {
            promise.set_value(chord::detail::treat_exchange_failure(*cluster, node, r.error));
            return {};
        }
        promise.set_value(chord::node_treat_reply(*cluster, node, record, r.message, *policy));
        return {};
    }
};

// The reply handler of the asynchronous path; one constant object serves all the requests it is given.
using batch_reply_handler = zlk::reply_handler;
static_assert(std::is_same_v<batch_reply_handler,
                             inplace_function<boost::system::error_code(operation_result), 392, 16>>);

// A policy that reads nothing and accepts every reply the standard reading accepts.
struct empty_batch_policy
{
    boost::system::error_code on_reply(const request_record &,
                                       const chord::chord_carrier_reply & reply) noexcept
    {
        return reply.result.error;
    }
};

} // namespace zlk::client

namespace zlk::chord
{

namespace detail
{

// Starts one request on a client of the "async" side; the completion's shared state comes from the
// scalable allocator and lives until its handler has run.
template <typename Completion>
std::shared_ptr<network::client::client>
start_async(cluster & c, const network::endpoint & ep, const std::shared_ptr<Completion> & completion,
            protocol::message message, boost::system::error_code & ec)
{
    using handler_allocator = network::scalable_allocator<client::batch_reply_handler>;
    auto handler = std::allocate_shared<const client::batch_reply_handler>(
        handler_allocator{}, [completion](operation_result r) { return completion->complete(r); });

    auto [borrow_error, connection] = c.broker().async_side().get_client(ep, grouped_requests_context);
    ec = borrow_error;
    if (ec)
    {
        return nullptr;
    }
    auto query = network::make_async_query(std::move(message), [handler](operation_result r)
                                           { return (*handler)(std::move(r)); });
    network::async_send(connection, query);
    return connection;
}

} // namespace detail

// Groups to several nodes at once: one batch frame per group from the "async" side, all started before
// any is waited for; then the futures are walked in order. The first failure in order is the result,
// once all have been waited for. A client that can't be had ends the starting, not the waiting.
template <typename Policy>
zlk_error_t run_groups(cluster & c, std::vector<client::node_group> & groups, Policy & policy)
{
    using completion_type = client::node_request_batch_completion<Policy>;
    using allocator = network::scalable_allocator<completion_type>;

    std::vector<detail::started_group> started;
    started.reserve(groups.size());
    zlk_error_t first_failure = zlk_e_ok;
    // The started groups write into the caller's records: whatever happens here, they are waited for
    // before the call leaves.
    try
    {
        for (client::node_group & g : groups)
        {
            if (g.records.empty())
            {
                continue;
            }
            auto completion = std::allocate_shared<completion_type>(allocator{});
            completion->cluster = &c;
            completion->group = std::move(g);
            completion->policy = &policy;
            completion->first_client_id = completion->group.records.front().request.client_id;
            completion->end_client_id = completion->group.records.back().request.client_id + 1;

            chord_carrier_request_batch batch;
            batch.reserve(completion->group.records.size());
            for (const client::request_record & r : completion->group.records)
            {
                batch.push_back(r.request);
            }
            detail::started_group s;
            s.future = completion->promise.get_future();
            s.first_client_id = completion->first_client_id;
            boost::system::error_code ec;
            s.connection = detail::start_async(c, completion->group.node.endpoint, completion,
                                               protocol::message{std::move(batch)}, ec);
            if (ec)
            {
                first_failure = make_error_from_code(ec, local_origin);
                break;
            }
            started.push_back(std::move(s));
        }
    }
    catch (...)
    {
        detail::wait_for_groups(c, started, zlk_e_ok);
        throw;
    }
    return detail::wait_for_groups(c, started, first_failure);
}

// The same request to every node of a freshly walked ring, key zero, each from the "async" side, read
// by the policy through node_treat_reply. A node whose request can't be built or sent counts as
// failed, the others still run; the first failure in ring order is the result. No retry at all.
template <typename Policy>
zlk_error_t request_all_nodes(cluster & c, client::body_builder build_body, Policy & policy)
{
    using completion_type = client::node_request_broadcast_completion<Policy>;
    using allocator = network::scalable_allocator<completion_type>;

    auto [list_error, arcs] = c.map().node_list(true);
    if (list_error)
    {
        return make_error_from_code(list_error, local_origin);
    }

    std::vector<detail::started_group> started;
    started.reserve(arcs.size());
    // Failures before the waiting keep their place in ring order among the failures after it.
    std::vector<zlk_error_t> early(arcs.size(), zlk_e_ok);
    std::vector<std::size_t> started_index;
    started_index.reserve(arcs.size());
    try
    {
        for (std::size_t i = 0; i < arcs.size(); ++i)
        {
            const node_info & node = arcs[i].node;
            const protocol::operation_body body = build_body();
            if (body.error)
            {
                log::log(log::level::error, "could not create request for{}: {}", node.endpoint,
                         body.error.message());
                early[i] = make_error_from_code(body.error, local_origin);
                continue;
            }
            auto completion = std::allocate_shared<completion_type>(allocator{});
            completion->cluster = &c;
            completion->node = node;
            completion->policy = &policy;
            completion->record.request = make_carrier(ring_id{}, 0, 0, body);

            detail::started_group s;
            s.future = completion->promise.get_future();
            boost::system::error_code ec;
            s.connection = detail::start_async(c, node.endpoint, completion,
                                               protocol::message{completion->record.request}, ec);
            if (ec)
            {
                log::log(log::level::error, "could not get client for {}: {}", node.endpoint, ec.message());
                early[i] = make_error_from_code(ec, local_origin);
                continue;
            }
            started.push_back(std::move(s));
            started_index.push_back(i);
        }
    }
    catch (...)
    {
        detail::wait_for_groups(c, started, zlk_e_ok);
        throw;
    }
    for (std::size_t k = 0; k < started.size(); ++k)
    {
        early[started_index[k]] = detail::wait_for_group(c, started[k]);
    }
    for (const zlk_error_t status : early)
    {
        if (ZLK_FAILURE(status))
        {
            return status;
        }
    }
    return zlk_e_ok;
}

// Builds the requests of a ring-segment walk: for each node from the first arc round the ring,
// make_request(node, access_bits, next_client_id, group) appends the node's requests (key = node id,
// client_id from next_client_id on, valid 1); access_bits carries bit 3 for the first node.
using request_maker =
    client::function_ref<boost::system::error_code(const node_info & node, std::uint16_t access_bits,
                                                   std::uint64_t next_client_id, client::node_group & group)>;

// The groups of such a walk over node_list(false); zlk_e_unstable_cluster when the ring is empty or
// broken ("could not determine any node in cluster, ring size: {}", "could not determine the follower
// in cluster after the node {}").
zlk_error_t collect_node_groups(cluster & c, request_maker make_request,
                                std::vector<client::node_group> & out);

// collect_node_groups, then run_groups.
template <typename Policy>
zlk_error_t walk_nodes(cluster & c, request_maker make_request, Policy & policy)
{
    std::vector<client::node_group> groups;
    const zlk_error_t collected = collect_node_groups(c, make_request, groups);
    if (ZLK_FAILURE(collected))
    {
        return collected;
    }
    return run_groups(c, groups, policy);
}

// For a long listing that needs a fresh ring part way ("could not update ring map at {}/{}: {}"):
// node_list(true), or zlk_e_unstable_cluster.
zlk_error_t refresh_node_list(cluster & c, std::size_t done, std::size_t total, std::vector<arc> & out);

} // namespace zlk::chord
