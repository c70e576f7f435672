// zlk_connect, zlk_wait_for_stabilization, zlk_cluster_endpoints: the handle's connection to a cluster.
#include "api/cluster_functions.hpp"

#include <fmt/format.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "api/argument_checks.hpp"
#include "api/call_frame.hpp"
#include "api/perf_profiles.hpp"
#include "base/make_error.hpp"
#include "log/logger.hpp"
#include "network/endpoint.hpp"
#include "zlk/cluster.h"

namespace zlk::api
{

zlk_error_t check_security_coherence(const zlk_session & h) noexcept
{
    const bool has_name = !h.user_name.empty();
    const bool has_cluster_key = h.cluster_public_key.has_value();
    if (!h.user_keys.empty())
    {
        return has_name == has_cluster_key ? zlk_e_ok : zlk_e_login_failed;
    }
    return has_cluster_key ? zlk_e_login_failed : zlk_e_ok;
}

zlk_error_t connect_to(zlk_session & h)
{
    if (!h.cluster.has_addresses())
    {
        return zlk_e_host_not_found;
    }
    const zlk_error_t coherent = check_security_coherence(h);
    if (ZLK_FAILURE(coherent))
    {
        return coherent;
    }
    const zlk_error_t connected = h.cluster.connect_to();
    h.cluster_max_in_buf_size.store(static_cast<std::size_t>(h.cluster.max_in_buf_size()),
                                    std::memory_order_relaxed);
    return connected;
}

namespace
{

zlk_error_t reconnect_step(zlk_session & h)
{
    return connect_to(h);
}

zlk_error_t walk_step(zlk_session & h)
{
    return h.cluster.stabilize();
}

} // namespace

// The retry frame's steps: reconnect is connect_to, walk_ring the walk and the consistency test.
const cluster_steps & default_cluster_steps() noexcept
{
    static const cluster_steps steps{&reconnect_step, &walk_step};
    return steps;
}

zlk_error_t wait_for_stabilization(zlk_session & h, std::chrono::milliseconds timeout, retry_clock & clock)
{
    if (!is_connected(h))
    {
        return zlk_e_not_connected;
    }
    const auto delay = draw_retry_delay(h.retry_random);
    const auto start = clock.now();
    for (std::uint64_t k = 1;; ++k)
    {
        zlk_error_t result = connect_to(h);
        if (ZLK_SUCCESS(result))
        {
            result = h.cluster.stabilize();
        }
        if (!is_connection_error(result))
        {
            return result;
        }
        const auto elapsed = clock.now() - start;
        if (elapsed >= timeout)
        {
            return zlk_e_timeout;
        }
        // Never past the deadline: the last round runs close to it rather than after it.
        clock.sleep_for(std::min<std::chrono::nanoseconds>(scaled_delay(delay, k), timeout - elapsed));
    }
}

void file_node_profile(zlk_session & h, const protocol::result & r)
{
    if (!tracking_enabled(h))
    {
        return;
    }
    perf_profile profile;
    profile.name.assign(r.profile_name);
    profile.measures.reserve(r.profile.size());
    for (const protocol::profile_entry & e : r.profile)
    {
        profile.measures.push_back(
            perf_measure{fmt::format("{}", e.label), static_cast<std::int64_t>(e.value)});
    }
    add_profile(h, std::move(profile));
}

} // namespace zlk::api

namespace
{

using zlk::api::api_call;

// One block: the array, then the address texts it points into.
struct endpoints_block
{
    std::unique_ptr<std::uint8_t[]> bytes;
    zlk_remote_node_t * nodes = nullptr;
};

endpoints_block make_endpoints_block(const std::vector<zlk::chord::arc> & arcs)
{
    char text[zlk::network::max_endpoint_text];
    std::size_t text_size = 0;
    for (const zlk::chord::arc & a : arcs)
    {
        text_size += zlk::network::format_address_to(a.node.endpoint, text) + 1;
    }
    const std::size_t array_size = arcs.size() * sizeof(zlk_remote_node_t);
    endpoints_block block;
    block.bytes = std::make_unique<std::uint8_t[]>(array_size + text_size);
    block.nodes = reinterpret_cast<zlk_remote_node_t *>(block.bytes.get());
    char * out = reinterpret_cast<char *>(block.bytes.get() + array_size);
    for (std::size_t i = 0; i < arcs.size(); ++i)
    {
        const zlk::network::endpoint & ep = arcs[i].node.endpoint;
        const std::size_t n = zlk::network::format_address_to(ep, out);
        out[n] = '\0';
        block.nodes[i].address = out;
        block.nodes[i].port = ep.port();
        out += n + 1;
    }
    return block;
}

} // namespace

zlk_error_t zlk_connect(zlk_handle_t handle, const char * uri) noexcept
{
    return api_call(handle, "zlk_connect",
                    [&]() -> zlk_error_t
                    {
                        zlk::api::check_not_null(uri, "uri");
                        zlk::log::log(zlk::log::level::info, "connecting to {}", uri);

                        auto [ec, endpoints] = zlk::network::parse_uri(uri);
                        if (ec)
                        {
                            return zlk::make_error_from_code(ec, zlk::local_origin);
                        }

                        // Installed before the first addresses are set: no request can reach a node before
                        // that.
                        zlk_session & h = *handle;
                        h.cluster.install_profile_sink([&h](const zlk::protocol::result & r)
                                                       { zlk::api::file_node_profile(h, r); });
                        // A request that finds the map empty connects again as this call does, checks
                        // included.
                        h.cluster.install_connector([&h] { return zlk::api::connect_to(h); });

                        std::set<std::string> texts;
                        for (const zlk::network::endpoint & ep : endpoints)
                        {
                            texts.insert(zlk::network::format_endpoint(ep));
                        }
                        h.cluster.set_addresses(std::move(endpoints));
                        h.connected_uri.assign(std::move(texts));
                        return zlk::api::connect_to(h);
                    });
}

zlk_error_t zlk_wait_for_stabilization(zlk_handle_t handle, int timeout_ms) noexcept
{
    return api_call(handle, "zlk_wait_for_stabilization",
                    [&]() -> zlk_error_t
                    {
                        if (timeout_ms < 0)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        return zlk::api::wait_for_stabilization(
                            *handle, std::chrono::milliseconds(timeout_ms), zlk::api::steady_retry_clock());
                    });
}

zlk_error_t zlk_cluster_endpoints(zlk_handle_t handle, zlk_remote_node_t ** endpoints,
                                  size_t * count) noexcept
{
    return api_call(handle, "zlk_cluster_endpoints",
                    [&]() -> zlk_error_t
                    {
                        if (!endpoints || !count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *endpoints = nullptr;
                        *count = 0;
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                zlk_session & h = *handle;
                                const zlk_error_t connected = h.cluster.ensure_connected();
                                if (ZLK_FAILURE(connected))
                                {
                                    return connected;
                                }
                                auto [ec, arcs] = h.cluster.map().node_list(false);
                                if (ec)
                                {
                                    return zlk::make_error_from_code(ec, zlk::local_origin);
                                }
                                if (arcs.empty())
                                {
                                    return zlk_e_ok;
                                }
                                endpoints_block block = make_endpoints_block(arcs);
                                zlk_remote_node_t * nodes = block.nodes;
                                h.objects_tracker.track(nodes, block.bytes, "cluster endpoints");
                                *endpoints = nodes;
                                *count = arcs.size();
                                return zlk_e_ok;
                            },
                            zlk::api::default_cluster_steps(), zlk::api::steady_retry_clock());
                    });
}
