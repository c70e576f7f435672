// Requests about one entry: to its owner (reads first to any replica), and single-key transactions such
// as a removal with what follows it. What the entry functions of the interface and the query engine share.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "base/function_ref.hpp"
#include "entries/transaction.hpp"
#include "ring/cluster.hpp"
#include "ring/routing.hpp"
#include "zlk/error.h"

namespace zlk::client
{

// One request to the owner of the key. Reads (read = true) go first to any replica, then to the owner.
zlk_error_t send_entry_request(chord::cluster & c, const chord::ring_id & key, std::uint16_t required_access,
                               bool has_content, bool read, body_builder build_body,
                               chord::owner_reply & out);

// The content of a reply, decompressed when need be, into `scratch` only when that was needed.
std::span<const std::uint8_t> reply_content(const chord::owner_reply & reply,
                                            std::vector<std::uint8_t> & scratch);

// A single-key transaction: a token for the key with a timestamp from its coordinator, body(state)
// sending the requests under its stamp, then the commit, or the rollback when the body failed. An
// informational outcome of the body (unmatched content) outlives a commit that succeeds.
template <typename Body>
zlk_error_t run_in_transaction(chord::cluster & c, const chord::ring_id & key, Body && body)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    transaction_token token;
    const zlk_error_t built = build_transaction_token(c, key, true, token);
    if (ZLK_FAILURE(built))
    {
        return built;
    }
    transaction_state state(c, token);
    const zlk_error_t sent = body(state);
    const zlk_error_t ended = state.end(sent);
    return ZLK_SUCCESS(ended) && ZLK_SUCCESS(sent) ? sent : ended;
}

// What a removal does next inside its transaction, given the removal's reply: the clean-up of the
// entry's tag links and of what its kind owns. Its failure rolls the removal back.
using removal_follow_up = function_ref<zlk_error_t(transaction_state &, const chord::owner_reply &)>;

zlk_error_t no_follow_up(transaction_state &, const chord::owner_reply &) noexcept;

// A removal (remove, get_and_remove, remove_if) as the transaction it is: a token with a timestamp
// from the key's coordinator, the request under its stamp, the follow-up, then the commit or the
// rollback.
zlk_error_t remove_in_transaction(chord::cluster & c, const chord::ring_id & key, std::uint16_t access,
                                  bool has_content, body_builder body, chord::owner_reply & reply,
                                  removal_follow_up follow_up = no_follow_up);

} // namespace zlk::client
