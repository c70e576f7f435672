#include "api/entry_support.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "entries/transaction.hpp"
#include "log/logger.hpp"
#include "wire/content_compression.hpp"

namespace zlk::api
{

namespace
{

constexpr const char * listing_context = "listing";

// The nodes of the ring in walking order, from its first node.
zlk_error_t walk_order(zlk_session & h, std::vector<client::node_group> & groups, chord::request_maker make)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    return chord::collect_node_groups(h.cluster, make, groups);
}

zlk_error_t ring_nodes(zlk_session & h, std::vector<chord::node_info> & nodes)
{
    std::vector<client::node_group> groups;
    auto nothing = [](const chord::node_info &, std::uint16_t, std::uint64_t, client::node_group &)
    { return boost::system::error_code{}; };
    const zlk_error_t walked = walk_order(h, groups, nothing);
    nodes.clear();
    for (const client::node_group & g : groups)
    {
        nodes.push_back(g.node);
    }
    return walked;
}

void log_failed_chunk(std::size_t chunk, zlk_error_t status)
{
    log::log(log::level::error, "could not fetch chunk {}: {}", chunk, zlk_error(status));
}

// The sum of the counts that every node gives.
struct affix_count_batch_policy
{
    static constexpr bool has_content = false;
    std::vector<std::uint64_t> & counts;

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply) noexcept
    {
        if (!reply.result.error && record.slot < counts.size())
        {
            counts[record.slot] = reply.result.value;
        }
        return reply.result.error;
    }
};

zlk_error_t remove_link(client::transaction_state & state, std::string_view link)
{
    std::string with_zero(link);
    with_zero.push_back('\0');
    const chord::ring_id key = chord::alias_hash(with_zero.data(), with_zero.size());
    auto body = []
    {
        return client::typed_body(protocol::operation::remove,
                                  static_cast<std::uint8_t>(kernel::entry_type::tag_link));
    };
    chord::owner_reply reply;
    const zlk_error_t removed = state.send(key, client::access_transaction, false, body, reply);
    // Gone already: another removal got there first.
    return removed == zlk_e_alias_not_found ? zlk_e_ok : removed;
}

} // namespace

entry_alias checked_entry(const char * alias, bool allow_reserved)
{
    entry_alias out;
    if (allow_reserved)
    {
        const checked_string s = check_string(alias, "alias", max_alias_length);
        out.bytes = client::wire_alias(s.data, s.length + 1);
    }
    else
    {
        const checked_alias a = check_alias(alias);
        out.bytes = client::wire_alias(a.data, a.length);
    }
    out.key = chord::alias_hash(reinterpret_cast<const char *>(out.bytes.data()), out.bytes.size());
    return out;
}

bool compression_enabled(const zlk_session & h) noexcept
{
    return h.compression.load(std::memory_order_relaxed) != zlk_comp_none;
}

zlk_error_t send_entry_request(zlk_session & h, const chord::ring_id & key, std::uint16_t required_access,
                               bool has_content, bool read, client::body_builder build_body,
                               chord::owner_reply & out)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    chord::owner_request request;
    request.key = key;
    request.required_access = required_access;
    request.has_content = has_content;
    return read ? chord::request_read(h.cluster, request, build_body, out)
                : chord::request_owner(h.cluster, request, build_body, out);
}

std::span<const std::uint8_t> reply_content(const chord::owner_reply & reply,
                                            std::vector<std::uint8_t> & scratch)
{
    const chord::chord_carrier_reply * r = reply.reply();
    const std::span<const std::uint8_t> stored =
        r ? r->result.content_view() : std::span<const std::uint8_t>{};
    if (protocol::decompress_content(stored, scratch))
    {
        return scratch;
    }
    return stored;
}

void hand_out_content(zlk_session & h, const chord::owner_reply & reply, const void ** content,
                      std::size_t * length)
{
    *content = nullptr;
    *length = 0;
    const chord::chord_carrier_reply * r = reply.reply();
    const std::span<const std::uint8_t> stored =
        r ? r->result.content_view() : std::span<const std::uint8_t>{};
    if (stored.empty())
    {
        return;
    }
    std::vector<std::uint8_t> decompressed;
    if (protocol::decompress_content(stored, decompressed))
    {
        if (decompressed.empty())
        {
            throw zlk_e_invalid_reply;
        }
        // The tracker keeps the vector itself: its bytes are the one allocation.
        const void * at = decompressed.data();
        const std::size_t size = decompressed.size();
        h.objects_tracker.track(at, decompressed, "associated buffer");
        *content = at;
        *length = size;
        return;
    }
    // The view keeps the whole received frame alive, the only copy of the bytes.
    h.objects_tracker.track(stored.data(), reply.frame.buffer, "associated buffer");
    *content = stored.data();
    *length = stored.size();
}

zlk_error_t remove_in_transaction(zlk_session & h, const chord::ring_id & key, std::uint16_t access,
                                  bool has_content, client::body_builder body, chord::owner_reply & reply,
                                  removal_follow_up follow_up)
{
    return run_in_transaction(h, key,
                              [&](client::transaction_state & state)
                              {
                                  const zlk_error_t removed =
                                      state.send(key, access, has_content, body, reply);
                                  // Unmatched content removed nothing: nothing follows.
                                  return removed != zlk_e_ok ? removed : follow_up(state, reply);
                              });
}

zlk_error_t no_follow_up(client::transaction_state &, const chord::owner_reply &) noexcept
{
    return zlk_e_ok;
}

zlk_error_t request_node(zlk_session & h, const chord::node_info & node, const chord::ring_id & key,
                         std::uint16_t access, bool has_content, client::body_builder body,
                         node_reply_reader read)
{
    const protocol::operation_body built = body();
    if (built.error)
    {
        return make_error_from_code(built.error, local_origin);
    }
    client::node_group group;
    group.node = node;
    group.records.push_back(client::request_record{chord::make_carrier(key, 0, access, built), 0});
    zlk_error_t decoded = zlk_e_ok;
    auto reader = [&](const client::request_record &, const chord::chord_carrier_reply & reply)
    {
        if (!reply.result.error)
        {
            decoded = read(reply);
        }
        return reply.result.error;
    };
    const zlk_error_t sent =
        chord::detail::request_group(h.cluster, group, listing_context, has_content, reader);
    return ZLK_FAILURE(sent) ? sent : decoded;
}

zlk_error_t list_affix(zlk_session & h, std::string_view affix, client::affix_kind kind,
                       std::uint64_t max_count, std::vector<std::string> & aliases,
                       std::vector<std::uint8_t> * types)
{
    std::vector<chord::node_info> nodes;
    const zlk_error_t walked = ring_nodes(h, nodes);
    if (ZLK_FAILURE(walked))
    {
        return walked;
    }
    const std::uint8_t flag = types ? client::list_with_types : client::list_aliases;
    std::size_t chunk = 0;
    for (const chord::node_info & node : nodes)
    {
        // The offset starts again on each node.
        for (std::uint64_t offset = 0;; ++chunk)
        {
            std::uint64_t limit = client::chunk_size;
            if (max_count != 0)
            {
                if (aliases.size() >= max_count)
                {
                    return zlk_e_ok;
                }
                limit = std::min<std::uint64_t>(limit, max_count - aliases.size());
            }
            auto body = [&] { return client::list_chunk_body(affix, kind, offset, limit, flag); };
            std::uint64_t got = 0;
            auto read = [&](const chord::chord_carrier_reply & reply)
            {
                const std::size_t before = aliases.size();
                const zlk_error_t r =
                    client::decode_alias_list(reply.result.content_view(), types != nullptr, aliases, types);
                got = aliases.size() - before;
                return r;
            };
            const zlk_error_t status =
                request_node(h, node, node.id, client::access_listing, true, body, read);
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

zlk_error_t count_affix(zlk_session & h, std::string_view affix, client::affix_kind kind,
                        std::uint64_t & count)
{
    count = 0;
    std::vector<client::node_group> groups;
    auto make = [&](const chord::node_info & node, std::uint16_t access_bits, std::uint64_t next_client_id,
                    client::node_group & group) -> boost::system::error_code
    {
        const protocol::operation_body body = client::count_chunk_body(affix, kind, 0);
        if (body.error)
        {
            return body.error;
        }
        group.records.push_back(client::request_record{
            chord::make_carrier(node.id, next_client_id, client::access_listing | access_bits, body),
            static_cast<std::size_t>(next_client_id)});
        return {};
    };
    const zlk_error_t walked = walk_order(h, groups, make);
    if (ZLK_FAILURE(walked))
    {
        return walked;
    }
    std::vector<std::uint64_t> counts(groups.size(), 0);
    affix_count_batch_policy policy{counts};
    const zlk_error_t status = chord::run_groups(h.cluster, groups, policy);
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

zlk_error_t scan_ring(zlk_session & h, std::span<const std::uint8_t> pattern, client::scan_kind kind,
                      std::uint64_t max_count, std::vector<std::string> & aliases)
{
    std::vector<chord::node_info> nodes;
    const zlk_error_t walked = ring_nodes(h, nodes);
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
        auto body = [&] { return client::scan_body(pattern, limit, kind); };
        auto read = [&](const chord::chord_carrier_reply & reply)
        { return client::decode_alias_list(reply.result.content_view(), false, aliases, nullptr); };
        const zlk_error_t status =
            request_node(h, nodes[i], nodes[i].id, client::access_listing, true, body, read);
        if (ZLK_FAILURE(status))
        {
            log_failed_chunk(i, status);
            return status;
        }
    }
    return zlk_e_ok;
}

void hand_out_alias_list(zlk_session & h, const std::vector<std::string> & aliases, const char *** out,
                         std::size_t * count)
{
    *out = nullptr;
    *count = 0;
    if (aliases.empty())
    {
        return;
    }
    std::size_t size = aliases.size() * sizeof(const char *);
    for (const std::string & a : aliases)
    {
        size += a.size() + 1;
    }
    auto block = std::make_unique<char[]>(size);
    auto ** pointers = reinterpret_cast<const char **>(block.get());
    char * text = block.get() + aliases.size() * sizeof(const char *);
    for (std::size_t i = 0; i < aliases.size(); ++i)
    {
        std::memcpy(text, aliases[i].data(), aliases[i].size());
        text[aliases[i].size()] = '\0';
        pointers[i] = text;
        text += aliases[i].size() + 1;
    }
    h.objects_tracker.track(block.get(), block, "alias list");
    *out = pointers;
    *count = aliases.size();
}

zlk_error_t remove_entry_links(zlk_session & h, client::transaction_state & state, std::string_view alias,
                               std::uint64_t kernel_type)
{
    std::vector<std::string> links;
    zlk_error_t status =
        list_affix(h, client::entry_links_suffix(alias), client::affix_kind::suffix, 0, links);
    if (ZLK_FAILURE(status))
    {
        return status;
    }
    std::string tag;
    for (const std::string & link : links)
    {
        if (!client::tag_of_link(link, alias, tag))
        {
            log::log(log::level::warning, "*** cannot parse tag link {}", link);
            continue;
        }
        if (ZLK_FAILURE(status = remove_link(state, link)))
        {
            return status;
        }
    }
    if (kernel_type != static_cast<std::uint8_t>(kernel::entry_type::tag))
    {
        return zlk_e_ok;
    }
    links.clear();
    status = list_affix(h, client::tag_links_prefix(alias), client::affix_kind::prefix, 0, links);
    if (ZLK_FAILURE(status))
    {
        return status;
    }
    for (const std::string & link : links)
    {
        if (ZLK_FAILURE(status = remove_link(state, link)))
        {
            return status;
        }
    }
    return zlk_e_ok;
}

} // namespace zlk::api
