// What the entry functions share at the edge: the checked alias with its key, and the hand-over of
// received content and alias lists as tracked blocks. The requests themselves are in entries/.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "api/argument_checks.hpp"
#include "api/handle.hpp"
#include "api/retry_frame.hpp"
#include "base/alias_hash.hpp"
#include "entries/entry_access.hpp"
#include "entries/entry_requests.hpp"
#include "entries/listing_requests.hpp"
#include "entries/ring_listings.hpp"
#include "entries/tag_links.hpp"
#include "entries/transaction.hpp"
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

// Gives a list to the caller as one tracked block, "alias list": the pointer array, then the texts.
// An empty list gives null and 0.
void hand_out_alias_list(zlk_session & h, const std::vector<std::string> & aliases, const char *** out,
                         std::size_t * count);

} // namespace zlk::api
