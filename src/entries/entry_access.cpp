#include "entries/entry_access.hpp"

#include "wire/content_compression.hpp"

namespace zlk::client
{

zlk_error_t send_entry_request(chord::cluster & c, const chord::ring_id & key, std::uint16_t required_access,
                               bool has_content, bool read, body_builder build_body, chord::owner_reply & out)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    chord::owner_request request;
    request.key = key;
    request.required_access = required_access;
    request.has_content = has_content;
    return read ? chord::request_read(c, request, build_body, out)
                : chord::request_owner(c, request, build_body, out);
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

zlk_error_t remove_in_transaction(chord::cluster & c, const chord::ring_id & key, std::uint16_t access,
                                  bool has_content, body_builder body, chord::owner_reply & reply,
                                  removal_follow_up follow_up)
{
    return run_in_transaction(c, key,
                              [&](transaction_state & state)
                              {
                                  const zlk_error_t removed =
                                      state.send(key, access, has_content, body, reply);
                                  // Unmatched content removed nothing: nothing follows.
                                  return removed != zlk_e_ok ? removed : follow_up(state, reply);
                              });
}

zlk_error_t no_follow_up(transaction_state &, const chord::owner_reply &) noexcept
{
    return zlk_e_ok;
}

} // namespace zlk::client
