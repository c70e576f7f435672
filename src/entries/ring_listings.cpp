#include "entries/ring_listings.hpp"

#include <algorithm>

#include "base/make_error.hpp"
#include "base/status_text.hpp"
#include "log/logger.hpp"

namespace zlk::client
{
namespace
{

constexpr const char * listing_context = "listing";

// The nodes of the ring in walking order, from its first node.
zlk_error_t walk_order(chord::cluster & c, std::vector<node_group> & groups, chord::request_maker make)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    return chord::collect_node_groups(c, make, groups);
}

zlk_error_t ring_nodes(chord::cluster & c, std::vector<chord::node_info> & nodes)
{
    std::vector<node_group> groups;
    auto nothing = [](const chord::node_info &, std::uint16_t, std::uint64_t, node_group &)
    { return boost::system::error_code{}; };
    const zlk_error_t walked = walk_order(c, groups, nothing);
    nodes.clear();
    for (const node_group & g : groups)
    {
        nodes.push_back(g.node);
    }
    return walked;
}

void log_failed_chunk(std::size_t chunk, zlk_error_t status)
{
    log::log(log::level::error, "could not fetch chunk {}: {}", chunk, status_text(status));
}

// The sum of the counts that every node gives.
struct affix_count_batch_policy
{
    static constexpr bool has_content = false;
    std::vector<std::uint64_t> & counts;

    boost::system::error_code on_reply(const request_record & record,
                                       const chord::chord_carrier_reply & reply) noexcept
    {
        if (!reply.result.error && record.slot < counts.size())
        {
            counts[record.slot] = reply.result.value;
        }
        return reply.result.error;
    }
};

} // namespace

zlk_error_t request_node(chord::cluster & c, const chord::node_info & node, const chord::ring_id & key,
                         std::uint16_t access, bool has_content, body_builder body, node_reply_reader read)
{
    const protocol::operation_body built = body();
    if (built.error)
    {
        return make_error_from_code(built.error, local_origin);
    }
    node_group group;
    group.node = node;
    group.records.push_back(request_record{chord::make_carrier(key, 0, access, built), 0});
    zlk_error_t decoded = zlk_e_ok;
    auto reader = [&](const request_record &, const chord::chord_carrier_reply & reply)
    {
        if (!reply.result.error)
        {
            decoded = read(reply);
        }
        return reply.result.error;
    };
    const zlk_error_t sent = chord::detail::request_group(c, group, listing_context, has_content, reader);
    return ZLK_FAILURE(sent) ? sent : decoded;
}

zlk_error_t list_affix(chord::cluster & c, std::string_view affix, affix_kind kind, std::uint64_t max_count,
                       std::vector<std::string> & aliases, std::vector<std::uint8_t> * types)
{
    std::vector<chord::node_info> nodes;
    const zlk_error_t walked = ring_nodes(c, nodes);
    if (ZLK_FAILURE(walked))
    {
        return walked;
    }
    const std::uint8_t flag = types ? list_with_types : list_aliases;
    std::size_t chunk = 0;
    for (const chord::node_info & node : nodes)
    {
        // The offset starts again on each node.
        for (std::uint64_t offset = 0;; ++chunk)
        {
            std::uint64_t limit = chunk_size;
            if (max_count != 0)
            {
                if (aliases.size() >= max_count)
                {
                    return zlk_e_ok;
                }
                limit = std::min<std::uint64_t>(limit, max_count - aliases.size());
            }
            auto body = [&] { return list_chunk_body(affix, kind, offset, limit, flag); };
            std::uint64_t got = 0;
            auto read = [&](const chord::chord_carrier_reply & reply)
            {
                const std::size_t before = aliases.size();
                const zlk_error_t r =
                    decode_alias_list(reply.result.content_view(), types != nullptr, aliases, types);
                got = aliases.size() - before;
                return r;
            };
            const zlk_error_t status = request_node(c, node, node.id, access_listing, true, body, read);
            if (ZLK_FAILURE(status))
            {
                log_failed_chunk(chunk, status);
                return status;
            }
            offset += got;
            if (got < limit)
            {
                ++chunk;
                break;
            }
        }
    }
    return zlk_e_ok;
}

zlk_error_t count_affix(chord::cluster & c, std::string_view affix, affix_kind kind, std::uint64_t & count)
{
    count = 0;
    std::vector<node_group> groups;
    auto make = [&](const chord::node_info & node, std::uint16_t access_bits, std::uint64_t next_client_id,
                    node_group & group) -> boost::system::error_code
    {
        const protocol::operation_body body = count_chunk_body(affix, kind, 0);
        if (body.error)
        {
            return body.error;
        }
        group.records.push_back(
            request_record{chord::make_carrier(node.id, next_client_id, access_listing | access_bits, body),
                           static_cast<std::size_t>(next_client_id)});
        return {};
    };
    const zlk_error_t walked = walk_order(c, groups, make);
    if (ZLK_FAILURE(walked))
    {
        return walked;
    }
    std::vector<std::uint64_t> counts(groups.size(), 0);
    affix_count_batch_policy policy{counts};
    const zlk_error_t status = chord::run_groups(c, groups, policy);
    if (ZLK_FAILURE(status))
    {
        return status;
    }
    for (const std::uint64_t n : counts)
    {
        count += n;
    }
    return zlk_e_ok;
}

zlk_error_t scan_ring(chord::cluster & c, std::span<const std::uint8_t> pattern, scan_kind kind,
                      std::uint64_t max_count, std::vector<std::string> & aliases)
{
    std::vector<chord::node_info> nodes;
    const zlk_error_t walked = ring_nodes(c, nodes);
    if (ZLK_FAILURE(walked))
    {
        return walked;
    }
    for (std::size_t i = 0; i < nodes.size(); ++i)
    {
        if (max_count != 0 && aliases.size() >= max_count)
        {
            break;
        }
        const std::uint64_t limit = max_count == 0 ? 0 : max_count - aliases.size();
        auto body = [&] { return scan_body(pattern, limit, kind); };
        auto read = [&](const chord::chord_carrier_reply & reply)
        { return decode_alias_list(reply.result.content_view(), false, aliases, nullptr); };
        const zlk_error_t status = request_node(c, nodes[i], nodes[i].id, access_listing, true, body, read);
        if (ZLK_FAILURE(status))
        {
            log_failed_chunk(i, status);
            return status;
        }
    }
    return zlk_e_ok;
}

} // namespace zlk::client
