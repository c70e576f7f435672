#include "api/entry_support.hpp"

#include <memory>
#include <vector>

#include "entries/transaction.hpp"
#include "wire/content_compression.hpp"

namespace zlk::api
{

namespace
{

// The single-key transaction of the reads that remove: the removal and, later, the entry's tag links
// go under one stamp.
template <typename Body>
zlk_error_t run_removal(zlk_session & h, const chord::ring_id & key, Body && send_removal)
{
    const zlk_error_t connected = h.cluster.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    client::transaction_token token;
    const zlk_error_t built = client::build_transaction_token(h.cluster, key, true, token);
    if (ZLK_FAILURE(built))
    {
        return built;
    }
    client::transaction_state state(h.cluster, token);
    const zlk_error_t sent = send_removal(state);
    const zlk_error_t ended = state.end(sent);
    // An informational outcome of the request (unmatched content) outlives a commit that succeeds.
    return ZLK_SUCCESS(ended) && ZLK_SUCCESS(sent) ? sent : ended;
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
    std::vector<std::uint8_t> scratch;
    if (protocol::decompress_content(stored, scratch))
    {
        if (scratch.empty())
        {
            throw zlk_e_invalid_reply;
        }
        auto decompressed = std::make_unique<std::vector<std::uint8_t>>(std::move(scratch));
        const void * at = decompressed->data();
        const std::size_t size = decompressed->size();
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
    return run_removal(h, key,
                       [&](client::transaction_state & state)
                       {
                           const zlk_error_t removed = state.send(key, access, has_content, body, reply);
                           // Unmatched content removed nothing: nothing follows.
                           return removed != zlk_e_ok ? removed : follow_up(state, reply);
                       });
}

zlk_error_t no_follow_up(client::transaction_state &, const chord::owner_reply &) noexcept
{
    return zlk_e_ok;
}

} // namespace zlk::api
