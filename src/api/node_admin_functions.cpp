// zlk_node_*: documents from one node, named by URI and reached outside the ring; zlk_purge_all,
// zlk_trim_all, zlk_purge_cache: one request to every node of the ring.
#include <nlohmann/json.hpp>

#include <cstring>
#include <memory>
#include <string>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/handle.hpp"
#include "api/retry_frame.hpp"
#include "base/make_error.hpp"
#include "base/ring_id.hpp"
#include "entries/node_config.hpp"
#include "log/logger.hpp"
#include "network/endpoint.hpp"
#include "network/request.hpp"
#include "ring/routing.hpp"
#include "wire/operation_body.hpp"
#include "zlk/node_admin.h"

namespace
{

using zlk::api::api_call;
using zlk::protocol::operation;
using json = nlohmann::ordered_json;

constexpr std::size_t max_uri_length = 1000;
constexpr std::size_t max_reason_length = 1000;
// The origin of a URI that doesn't parse.
constexpr std::uint32_t uri_origin = 0xC0000000u;
constexpr const char * admin_context = "node administration";

// The stop and restart values of range_updater (25).
constexpr std::uint8_t migration_stop = 0;
constexpr std::uint8_t migration_restart = 1;

zlk_error_t node_endpoint(const char * uri, zlk::network::endpoint & out)
{
    zlk::api::check_string(uri, "uri", max_uri_length);
    auto [ec, endpoints] = zlk::network::parse_uri(uri);
    if (ec)
    {
        return zlk::make_error_from_code(ec, uri_origin);
    }
    if (endpoints.empty())
    {
        return zlk_e_invalid_argument;
    }
    out = *endpoints.begin();
    return zlk_e_ok;
}

// The node's own refusal (a result in place of the reply) with the remote origin; an unexpected kind of
// reply is an invalid one.
zlk_error_t refusal_status(const zlk::protocol::message & m)
{
    if (const auto * r = std::get_if<zlk::protocol::result>(&m))
    {
        return r->error ? zlk::make_error_from_code(r->error, zlk::remote_origin) : zlk_e_invalid_reply;
    }
    return zlk_e_invalid_reply;
}

// One request to the node at uri over the "sync" side, outside the ring's routing.
zlk_error_t exchange(zlk_session & h, const char * uri, const zlk::protocol::message & request,
                     zlk::network::client::received_frame & reply)
{
    zlk::network::endpoint ep;
    const zlk_error_t resolved = node_endpoint(uri, ep);
    if (ZLK_FAILURE(resolved))
    {
        return resolved;
    }
    const boost::system::error_code ec =
        zlk::network::client::request_sync(h.cluster.broker().sync_side(), ep, admin_context, request, reply);
    return ec ? zlk::make_error_from_code(ec, zlk::local_origin) : zlk_e_ok;
}

// A carrier with a zero key and no access bits; the carrier reply's result is the node's answer.
zlk_error_t node_operation(zlk_session & h, const char * uri, const zlk::protocol::operation_body & body,
                           zlk::network::client::received_frame & reply,
                           const zlk::chord::chord_carrier_reply *& out)
{
    if (body.error)
    {
        return zlk::make_error_from_code(body.error, zlk::local_origin);
    }
    const zlk::protocol::message request{zlk::chord::make_carrier(zlk::chord::ring_id{}, 0, 0, body)};
    const zlk_error_t sent = exchange(h, uri, request, reply);
    if (ZLK_FAILURE(sent))
    {
        return sent;
    }
    out = std::get_if<zlk::chord::chord_carrier_reply>(&reply.message);
    if (!out)
    {
        return refusal_status(reply.message);
    }
    return out->result.error ? zlk::make_error_from_code(out->result.error, zlk::remote_origin) : zlk_e_ok;
}

// Node calls retry a connection failure against the same node: there is no ring to walk.
const zlk::api::cluster_steps & node_steps() noexcept
{
    static const zlk::api::cluster_steps steps{[](zlk_session &) { return zlk_e_ok; },
                                               [](zlk_session &) { return zlk_e_ok; }};
    return steps;
}

// Gives a document to the caller as tracked text.
void hand_out_text(zlk_session & h, const std::string & text, const char ** content, std::size_t * length)
{
    auto block = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(block.get(), text.data(), text.size());
    block[text.size()] = '\0';
    const char * at = block.get();
    h.objects_tracker.track(at, block, "JSON status");
    *content = at;
    *length = text.size();
}

json parse_reply_json(std::span<const std::uint8_t> bytes)
{
    json j = json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (j.is_discarded() || !j.is_object())
    {
        throw zlk_e_invalid_reply;
    }
    return j;
}

// The status document in its fixed key order, whatever order the node wrote.
std::string status_text(std::span<const std::uint8_t> bytes)
{
    static constexpr const char * keys[] = {"memory",
                                            "cpu_times",
                                            "disk_usage",
                                            "network",
                                            "node_id",
                                            "operating_system",
                                            "hardware_concurrency",
                                            "timestamp",
                                            "startup",
                                            "engine_version",
                                            "engine_build_date",
                                            "entries",
                                            "overall",
                                            "users"};
    const json in = parse_reply_json(bytes);
    json out = json::object();
    for (const char * key : keys)
    {
        const auto it = in.find(key);
        if (it == in.end())
        {
            zlk::log::log(zlk::log::level::warning, "status document without key {}", key);
            throw zlk_e_invalid_reply;
        }
        out[key] = *it;
    }
    return out.dump();
}

using document_maker = zlk_error_t (*)(zlk_session &, const char *, std::string &);

zlk_error_t status_document(zlk_session & h, const char * uri, std::string & out)
{
    const auto body = zlk::protocol::build_operation_body(operation::node_status, 0, [](auto &) {});
    zlk::network::client::received_frame reply;
    const zlk::chord::chord_carrier_reply * r = nullptr;
    const zlk_error_t status = node_operation(h, uri, body, reply, r);
    if (ZLK_SUCCESS(status))
    {
        out = status_text(r->result.content_view());
    }
    return status;
}

zlk_error_t config_document(zlk_session & h, const char * uri, std::string & out)
{
    zlk::network::client::received_frame reply;
    const zlk_error_t sent =
        exchange(h, uri, zlk::protocol::message{zlk::chord::chord_request_config{}}, reply);
    if (ZLK_FAILURE(sent))
    {
        return sent;
    }
    const auto * r = std::get_if<zlk::protocol::result>(&reply.message);
    if (!r)
    {
        return zlk_e_invalid_reply;
    }
    if (r->error)
    {
        return zlk::make_error_from_code(r->error, zlk::remote_origin);
    }
    const auto bytes = r->content_view();
    zlk::config::node_configuration config;
    try
    {
        config = zlk::config::parse_configuration(
            std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
    }
    catch (const zlk::config::config_error & e)
    {
        zlk::log::log(zlk::log::level::warning, "invalid configuration document: {}", e.what());
        return zlk_e_invalid_reply;
    }
    out = json(config).dump();
    return zlk_e_ok;
}

json node_json(const zlk::chord::node_info & n)
{
    json j = json::object();
    j["id"] = zlk::chord::to_string(n.id);
    j["endpoint"] = zlk::network::format_endpoint(n.endpoint);
    return j;
}

zlk_error_t topology_document(zlk_session & h, const char * uri, std::string & out)
{
    zlk::network::client::received_frame reply;
    const zlk_error_t sent =
        exchange(h, uri, zlk::protocol::message{zlk::chord::chord_request_ping{}}, reply);
    if (ZLK_FAILURE(sent))
    {
        return sent;
    }
    const auto * a = std::get_if<zlk::chord::arc>(&reply.message);
    if (!a)
    {
        return refusal_status(reply.message);
    }
    json doc = json::object();
    doc["predecessor"] = node_json(a->predecessor);
    doc["center"] = node_json(a->node);
    doc["successor"] = node_json(a->successor);
    out = doc.dump();
    return zlk_e_ok;
}

zlk_error_t node_document(zlk_handle_t handle, const char * name, const char * uri, const char ** content,
                          size_t * length, document_maker make)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        if (!content || !length)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *content = nullptr;
                        *length = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                std::string text;
                                const zlk_error_t r = make(*handle, uri, text);
                                if (ZLK_SUCCESS(r))
                                {
                                    hand_out_text(*handle, text, content, length);
                                }
                                return r;
                            },
                            node_steps(), zlk::api::steady_retry_clock());
                    });
}

// A broadcast's body, the operation number and its fields.
zlk::protocol::operation_body plain_body(operation op) noexcept
{
    return zlk::protocol::build_operation_body(op, 0, [](auto &) {});
}

zlk_error_t broadcast(zlk_session & h, operation op)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    zlk::client::empty_batch_policy policy;
    auto body = [op] { return plain_body(op); };
    return zlk::chord::request_all_nodes(h.cluster, body, policy);
}

zlk_error_t range_updater(zlk_session & h, std::uint8_t value)
{
    zlk::client::empty_batch_policy policy;
    auto body = [value]
    {
        return zlk::protocol::build_operation_body(operation::range_updater, 1,
                                                   [value](auto & w) { w.put_u8(value); });
    };
    return zlk::chord::request_all_nodes(h.cluster, body, policy);
}

zlk_error_t purge_all(zlk_session & h)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    const zlk_error_t stopped = range_updater(h, migration_stop);
    if (ZLK_FAILURE(stopped))
    {
        zlk::log::log(zlk::log::level::warning, "could not stop migration/replication: {}",
                      zlk_error(stopped));
    }
    const zlk_error_t purged = broadcast(h, operation::purge_all);
    // The purge's result stands: a failed restart is only logged.
    const zlk_error_t restarted = range_updater(h, migration_restart);
    if (ZLK_FAILURE(restarted))
    {
        zlk::log::log(zlk::log::level::warning, "could not restart migration/replication: {}",
                      zlk_error(restarted));
    }
    return purged;
}

zlk_error_t ring_call(zlk_handle_t handle, const char * name, int timeout_ms, operation op)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        if (timeout_ms < 0)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return op == operation::purge_all ? purge_all(*handle) : broadcast(*handle, op);
                    });
}

} // namespace

zlk_error_t zlk_node_status(zlk_handle_t handle, const char * uri, const char ** content,
                            size_t * length) noexcept
{
    return node_document(handle, "zlk_node_status", uri, content, length, &status_document);
}

zlk_error_t zlk_node_config(zlk_handle_t handle, const char * uri, const char ** content,
                            size_t * length) noexcept
{
    return node_document(handle, "zlk_node_config", uri, content, length, &config_document);
}

zlk_error_t zlk_node_topology(zlk_handle_t handle, const char * uri, const char ** content,
                              size_t * length) noexcept
{
    return node_document(handle, "zlk_node_topology", uri, content, length, &topology_document);
}

zlk_error_t zlk_node_stop(zlk_handle_t handle, const char * uri, const char * reason) noexcept
{
    return api_call(handle, "zlk_node_stop",
                    [&]() -> zlk_error_t
                    {
                        const auto checked = zlk::api::check_string(reason, "reason", max_reason_length);
                        zlk::chord::chord_request_node_stop stop;
                        stop.reason.assign(checked.data, checked.length);
                        const zlk::protocol::message request{std::move(stop)};
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                zlk::network::client::received_frame reply;
                                const zlk_error_t sent = exchange(*handle, uri, request, reply);
                                if (ZLK_FAILURE(sent))
                                {
                                    return sent;
                                }
                                const auto * r = std::get_if<zlk::protocol::result>(&reply.message);
                                if (!r)
                                {
                                    return zlk_e_invalid_reply;
                                }
                                return r->error ? zlk::make_error_from_code(r->error, zlk::remote_origin)
                                                : zlk_e_ok;
                            },
                            node_steps(), zlk::api::steady_retry_clock());
                    });
}

zlk_error_t zlk_node_interrupt_partition(zlk_handle_t handle, const char * uri) noexcept
{
    return api_call(handle, "zlk_node_interrupt_partition",
                    [&]() -> zlk_error_t
                    {
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                zlk::network::client::received_frame reply;
                                const zlk::chord::chord_carrier_reply * r = nullptr;
                                return node_operation(*handle, uri,
                                                      plain_body(operation::interrupt_partition), reply, r);
                            },
                            node_steps(), zlk::api::steady_retry_clock());
                    });
}

zlk_error_t zlk_purge_all(zlk_handle_t handle, int timeout_ms) noexcept
{
    return ring_call(handle, "zlk_purge_all", timeout_ms, operation::purge_all);
}

zlk_error_t zlk_trim_all(zlk_handle_t handle, int timeout_ms) noexcept
{
    return ring_call(handle, "zlk_trim_all", timeout_ms, operation::trim_all);
}

zlk_error_t zlk_purge_cache(zlk_handle_t handle, int timeout_ms) noexcept
{
    return ring_call(handle, "zlk_purge_cache", timeout_ms, operation::purge_cache);
}
