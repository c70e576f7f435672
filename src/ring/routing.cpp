#include "ring/routing.hpp"

#include <chrono>

#include "base/status_text.hpp"
#include "network/request.hpp"
#include "wire/replies.hpp"

namespace zlk::client
{

boost::system::error_code group_size_error(std::uint64_t client_id, std::size_t group_size) noexcept
{
    log::log(log::level::error, "got wrong internal client ID ({}, max = {})", client_id, group_size);
    return make_error_code(protocol::error::invalid_header);
}

} // namespace zlk::client

namespace zlk::chord
{

using boost::system::error_code;

namespace
{

constexpr int owner_attempts = 3;

zlk_error_t translate(const error_code & ec, bool remote) noexcept
{
    return make_error_from_code(ec, remote ? remote_origin : local_origin);
}

void file_profile(cluster & c, const protocol::result & r)
{
    const profile_sink & sink = c.chord().profiles();
    if (sink && (!r.profile_name.empty() || !r.profile.empty()))
    {
        sink(r);
    }
}

// The reading of a reply that isn't a carrier reply where one was due: a refusal by its rules, anything
// else an invalid reply. Either may forget the node.
chord_outcome read_non_carrier(cluster & c, const node_info & node, const protocol::message & reply)
{
    chord_outcome o;
    if (const auto * r = std::get_if<protocol::result>(&reply))
    {
        o = refusal(*r, node.endpoint, c.chord().profiles());
    }
    else
    {
        o.error = protocol::unexpected_message(reply).error;
        o.forget = true;
    }
    if (o.forget)
    {
        c.map().forget_node(node);
    }
    return o;
}

} // namespace

zlk_error_t request_owner(cluster & c, const owner_request & request, client::body_builder build_body,
                          owner_reply & out)
{
    out.frame = network::client::received_frame{};
    out.node = node_info{};

    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }

    zlk_error_t last = zlk_e_unstable_cluster;
    for (int attempt = 0; attempt < owner_attempts; ++attempt)
    {
        // The cache answered the first time; after a failure the ring is asked anew.
        const bool force_remote = attempt != 0;
        node_info node;
        error_code ec = request.locate(c, request.key, request.required_access, force_remote, node);
        if (!ec && node.is_unset())
        {
            ec = make_error_code(error::unstable_ring);
        }
        if (ec)
        {
            last = translate(ec, false);
            continue;
        }

        const protocol::operation_body body = build_body();
        if (body.error)
        {
            return translate(body.error, false);
        }
        const protocol::message message{
            make_carrier(request.key, 0, request.required_access, body, request.transaction)};

        out.node = node;
        ec = network::client::request_sync(c.broker().sync_side(), node.endpoint, client_request_context,
                                           message, out.frame);
        if (ec)
        {
            // Whatever the failure, the node's arc is no longer trusted: the next attempt asks the ring.
            c.map().forget_node(node);
            last = translate(ec, false);
            continue;
        }

        if (const auto * reply = std::get_if<chord_carrier_reply>(&out.frame.message))
        {
            file_profile(c, reply->result);
            if (reply->result.error)
            {
                // The node's answer is final, a failure included.
                return translate(reply->result.error, true);
            }
            if (!request.has_content && reply->result.content_size() != 0)
            {
                return zlk_e_invalid_reply;
            }
            return zlk_e_ok;
        }

        const chord_outcome o = read_non_carrier(c, node, out.frame.message);
        last = translate(o.error, o.remote);
        if (!o.retry)
        {
            return last;
        }
    }
    return last;
}

zlk_error_t request_read(cluster & c, owner_request request, client::body_builder build_body,
                         owner_reply & out)
{
    request.required_access |= access_any_replica;
    request.locate = &pick_replica;
    const zlk_error_t first = request_owner(c, request, build_body, out);
    if (ZLK_SUCCESS(first) || c.replication_factor() < 2)
    {
        return first;
    }
    request.required_access &= static_cast<std::uint16_t>(~access_any_replica);
    request.locate = &find_owner;
    return request_owner(c, request, build_body, out);
}

namespace detail
{

client::error_detail treat_exchange_failure(cluster & c, const node_info & node, const error_code & ec)
{
    c.forget_on_failure(node, ec);
    return client::error_detail{ec, translate(ec, false)};
}

client::error_detail treat_carrier_reply(cluster & c, const client::request_record & record,
                                         const chord_carrier_reply & reply, bool has_content,
                                         reply_reader read)
{
    client::error_detail d;
    const std::uint64_t expected = record.request.client_id;
    if (reply.client_id != expected)
    {
        log::log(log::level::error, "node in error: invalid client id expected {} got {}", expected,
                 reply.client_id);
        d.error = make_error_code(protocol::error::invalid_header);
        d.status = translate(d.error, true);
        return d;
    }
    file_profile(c, reply.result);

    d.error = read(record, reply);
    d.status = translate(d.error, true);
    if (ZLK_FAILURE(d.status))
    {
        log::log(log::level::error, "node in error: processing returned error code {} for client id {}",
                 zlk::status_text(d.status), expected);
        return d;
    }
    if (!has_content && reply.result.content_size() != 0)
    {
        d.error = make_error_code(error::unexpected_reply);
        d.status = zlk_e_invalid_reply;
        log::log(log::level::error, "node in error: processing returned error code {} for client id {}",
                 zlk::status_text(d.status), expected);
    }
    return d;
}

client::error_detail treat_reply(cluster & c, const node_info & node, const client::request_record & record,
                                 const protocol::message & reply, bool has_content, reply_reader read)
{
    if (const auto * carrier = std::get_if<chord_carrier_reply>(&reply))
    {
        return treat_carrier_reply(c, record, *carrier, has_content, read);
    }
    log::log(log::level::error, "node in error: invalid reply");
    const chord_outcome o = read_non_carrier(c, node, reply);
    return client::error_detail{o.error, translate(o.error, o.remote)};
}

zlk_error_t request_group(cluster & c, const client::node_group & group, const char * context,
                          bool has_content, reply_reader read)
{
    if (group.records.empty())
    {
        return zlk_e_ok;
    }
    chord_carrier_request_batch batch;
    batch.reserve(group.records.size());
    for (const client::request_record & r : group.records)
    {
        batch.push_back(r.request);
    }
    const protocol::message message{std::move(batch)};

    network::client::received_frame reply;
    if (const error_code ec = network::client::request_sync(c.broker().sync_side(), group.node.endpoint,
                                                            context, message, reply))
    {
        return treat_exchange_failure(c, group.node, ec).status;
    }

    const chord_carrier_reply_batch * replies = nullptr;
    const protocol::reply_check check =
        protocol::expect_batch_reply(reply.message, group.records.size(), replies);
    if (replies == nullptr)
    {
        if (!std::holds_alternative<protocol::result>(reply.message))
        {
            c.map().forget_node(group.node);
        }
        return translate(check.error, check.remote);
    }

    zlk_error_t first = zlk_e_ok;
    for (std::size_t i = 0; i < replies->size(); ++i)
    {
        const client::error_detail d =
            treat_carrier_reply(c, group.records[i], (*replies)[i], has_content, read);
        if (ZLK_FAILURE(d.status) && ZLK_SUCCESS(first))
        {
            first = d.status;
        }
    }
    return first;
}

zlk_error_t wait_for_group(cluster & c, started_group & s)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(c.timeout_ms());
    const std::future_status status = s.future.wait_until(deadline);
    if (status == std::future_status::deferred)
    {
        log::log(log::level::error, "unexpected deferred status while waiting for results at client id {}",
                 s.first_client_id);
        return make_error_from_code(make_error_code(client_error::unexpected_future_status), local_origin);
    }
    if (status == std::future_status::timeout)
    {
        // Closing the connection makes the completion run (with ECANCELED): completions always run, so
        // the wait that follows has an end.
        if (s.connection)
        {
            s.connection->abort_async();
        }
        s.future.wait();
    }
    return s.future.get().status;
}

zlk_error_t wait_for_groups(cluster & c, std::vector<started_group> & started, zlk_error_t first_failure)
{
    // Every group is waited for, whatever failed before: the records the policies write must not be
    // left to a completion still running when the caller reads them.
    zlk_error_t first_group_failure = zlk_e_ok;
    for (started_group & s : started)
    {
        const zlk_error_t status = wait_for_group(c, s);
        if (ZLK_FAILURE(status) && ZLK_SUCCESS(first_group_failure))
        {
            first_group_failure = status;
        }
    }
    return ZLK_FAILURE(first_group_failure) ? first_group_failure : first_failure;
}

} // namespace detail

zlk_error_t collect_node_groups(cluster & c, request_maker make_request,
                                std::vector<client::node_group> & out)
{
    out.clear();
    auto [ec, arcs] = c.map().node_list(false);
    if (ec)
    {
        return translate(ec, false);
    }
    if (arcs.empty())
    {
        log::log(log::level::error, "could not determine any node in cluster, ring size: {}", 0);
        return zlk_e_unstable_cluster;
    }

    const node_info first = arcs.front().node;
    node_info current = first;
    std::uint16_t access_bits = access_first_node;
    std::uint64_t client_id = 0;
    // A consistent map closes after each node once; the bound guards against one that doesn't.
    for (std::size_t step = 0; step <= arcs.size(); ++step)
    {
        client::node_group group;
        group.node = current;
        if (const error_code made = make_request(current, access_bits, client_id, group))
        {
            return translate(made, false);
        }
        client_id += group.records.size();
        out.push_back(std::move(group));
        access_bits = 0;

        ring_id next = current.id;
        ++next;
        const arc * follower = nullptr;
        for (const arc & a : arcs)
        {
            if (arc_contains(a.predecessor.id, a.node.id, next))
            {
                follower = &a;
                break;
            }
        }
        if (follower == nullptr)
        {
            log::log(log::level::error, "could not determine the follower in cluster after the node {}",
                     current.id);
            return zlk_e_unstable_cluster;
        }
        current = follower->node;
        if (current.id == first.id)
        {
            return zlk_e_ok;
        }
    }
    log::log(log::level::error, "could not determine the follower in cluster after the node {}", current.id);
    return zlk_e_unstable_cluster;
}

zlk_error_t refresh_node_list(cluster & c, std::size_t done, std::size_t total, std::vector<arc> & out)
{
    auto [ec, arcs] = c.map().node_list(true);
    if (ec)
    {
        log::log(log::level::error, "could not update ring map at {}/{}: {}", done, total, ec.message());
        return zlk_e_unstable_cluster;
    }
    out = std::move(arcs);
    return zlk_e_ok;
}

} // namespace zlk::chord
