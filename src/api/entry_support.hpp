// What the entry functions share: the checked alias with its key, the request to a key's owner (or,
// for reads, first any replica), and the hand-over of received content as a tracked view.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "api/argument_checks.hpp"
#include "api/handle.hpp"
#include "api/retry_frame.hpp"
#include "entries/entry_requests.hpp"
#include "entries/listing_requests.hpp"
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

// A read of content for the caller: checks the out-parameters, clears them, then runs fetch(reply)
// under the retry frame and hands out the content of a successful reply.
template <typename Fetch>
zlk_error_t fetch_content(zlk_session & h, const void ** content, std::size_t * length, Fetch && fetch)
{
    if (!content || !length)
    {
        throw zlk_e_invalid_argument;
    }
    *content = nullptr;
    *length = 0;
    return run_with_retries(h,
                            [&]() -> zlk_error_t
                            {
                                chord::owner_reply reply;
                                const zlk_error_t r = fetch(reply);
                                if (ZLK_SUCCESS(r))
                                {
                                    hand_out_content(h, reply, content, length);
                                }
                                return r;
                            });
}

// The content of a reply, decompressed when need be, into `scratch` only when that was needed.
std::span<const std::uint8_t> reply_content(const chord::owner_reply & reply,
                                            std::vector<std::uint8_t> & scratch);

// What a removal does next inside its transaction, given the removal's reply: the clean-up of the
// entry's tag links and of what its kind owns. Its failure rolls the removal back.
using removal_follow_up =
    client::function_ref<zlk_error_t(client::transaction_state &, const chord::owner_reply &)>;

zlk_error_t no_follow_up(client::transaction_state &, const chord::owner_reply &) noexcept;

// A single-key transaction: a token for the key with a timestamp from its coordinator, body(state)
// sending the requests under its stamp, then the commit, or the rollback when the body failed. An
// informational outcome of the body (unmatched content) outlives a commit that succeeds.
template <typename Body>
zlk_error_t run_in_transaction(zlk_session & h, const chord::ring_id & key, Body && body)
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
    const zlk_error_t sent = body(state);
    const zlk_error_t ended = state.end(sent);
    return ZLK_SUCCESS(ended) && ZLK_SUCCESS(sent) ? sent : ended;
}

// A removal (remove, get_and_remove, remove_if) as the transaction it is: a token with a timestamp
// from the key's coordinator, the request under its stamp, the follow-up, then the commit or the
// rollback.
zlk_error_t remove_in_transaction(zlk_session & h, const chord::ring_id & key, std::uint16_t access,
                                  bool has_content, client::body_builder body, chord::owner_reply & reply,
                                  removal_follow_up follow_up = no_follow_up);

// The removal follow-up of an entry of any kind: its tag links go (listed by the suffix of its alias),
// a tag's links go with it, then what the kind owns is cleaned up.
zlk_error_t remove_entry_links(zlk_session & h, client::transaction_state & state, std::string_view alias,
                               std::uint64_t kernel_type);

// Listings over the whole ring, node after node from the ring's first node, each node asked in chunks;
// a chunk that fails ends the walk with its error ("could not fetch chunk {}: {}"). max_count 0: no
// limit. Aliases are appended in the order the nodes give them.
zlk_error_t list_affix(zlk_session & h, std::string_view affix, client::affix_kind kind,
                       std::uint64_t max_count, std::vector<std::string> & aliases,
                       std::vector<std::uint8_t> * types = nullptr);
zlk_error_t count_affix(zlk_session & h, std::string_view affix, client::affix_kind kind,
                        std::uint64_t & count);
zlk_error_t scan_ring(zlk_session & h, std::span<const std::uint8_t> pattern, client::scan_kind kind,
                      std::uint64_t max_count, std::vector<std::string> & aliases);

// One request to one node, named by the caller rather than by routing; `read` takes the carrier reply
// when the node answered without error.
using node_reply_reader = client::function_ref<zlk_error_t(const chord::chord_carrier_reply &)>;
zlk_error_t request_node(zlk_session & h, const chord::node_info & node, const chord::ring_id & key,
                         std::uint16_t access, bool has_content, client::body_builder body,
                         node_reply_reader read);

// Gives a list to the caller as one tracked block, "alias list": the pointer array, then the texts.
// An empty list gives null and 0.
void hand_out_alias_list(zlk_session & h, const std::vector<std::string> & aliases, const char *** out,
                         std::size_t * count);

} // namespace zlk::api
