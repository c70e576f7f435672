// What the entry functions share: the checked alias with its key, the request to a key's owner (or,
// for reads, first any replica), and the hand-over of received content as a tracked view.
#pragma once

#include <cstddef>

#include "api/argument_checks.hpp"
#include "api/handle.hpp"
#include "entries/entry_requests.hpp"
#include "entries/transaction.hpp"
#include "ring/alias_hash.hpp"
#include "ring/routing.hpp"

namespace zlk::api
{

// An alias that passed its check, with the key it routes to.
struct entry_alias
{
    client::alias_bytes bytes;
    chord::ring_id key;
};

// check_alias, or check_string for the functions that accept reserved aliases.
entry_alias checked_entry(const char * alias, bool allow_reserved = false);

bool compression_enabled(const zlk_session & h) noexcept;

// One request to the owner of the key. Reads (read = true) go first to any replica, then to the owner.
zlk_error_t send_entry_request(zlk_session & h, const chord::ring_id & key, std::uint16_t required_access,
                               bool has_content, bool read, client::body_builder build_body,
                               chord::owner_reply & out);

// Gives the content of a reply to the caller: decompressed when it was stored compressed, otherwise a
// view into the received buffer; tracked under the caller's pointer either way. Empty content tracks
// nothing and gives null and 0.
void hand_out_content(zlk_session & h, const chord::owner_reply & reply, const void ** content,
                      std::size_t * length);

// The content of a reply, decompressed when need be, into `scratch` only when that was needed.
std::span<const std::uint8_t> reply_content(const chord::owner_reply & reply,
                                            std::vector<std::uint8_t> & scratch);

// What a removal does next inside its transaction, given the removal's reply: the clean-up of the
// entry's tag links and of what its kind owns. Its failure rolls the removal back.
using removal_follow_up =
    client::function_ref<zlk_error_t(client::transaction_state &, const chord::owner_reply &)>;

zlk_error_t no_follow_up(client::transaction_state &, const chord::owner_reply &) noexcept;

// A removal (remove, get_and_remove, remove_if) as the transaction it is: a token with a timestamp
// from the key's coordinator, the request under its stamp, the follow-up, then the commit or the
// rollback.
zlk_error_t remove_in_transaction(zlk_session & h, const chord::ring_id & key, std::uint16_t access,
                                  bool has_content, client::body_builder body, chord::owner_reply & reply,
                                  removal_follow_up follow_up = no_follow_up);

} // namespace zlk::api
