// zlk_iterator_*: a walk over every entry of the cluster. Nodes keep no cursor: each step asks the
// current node for the entry after (or before) the last key seen, and moves to the next node round the
// ring when that node has no more.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "wire/content_compression.hpp"
#include "zlk/iterator.h"

namespace
{

using zlk::api::api_call;
namespace client = zlk::client;
namespace chord = zlk::chord;

// The walk's state. Its first word repeats the handle, which is how a stale or foreign iterator is
// told apart.
struct entry_walk
{
    zlk_session * handle = nullptr;
    // The ring as it was when the walk began, in the order of the nodes' ids.
    std::vector<chord::arc> arcs;
    std::size_t node = 0;
    // Without a key, the next request starts from the edge of the node's arc.
    bool has_key = false;
    chord::ring_id key{};
    std::string alias;
    std::vector<std::uint8_t> content;
    // Set once a step went past the last (or before the first) entry: the position stays on that
    // entry, and a step the other way comes back onto it.
    enum class edge : std::uint8_t
    {
        none,
        past_end,
        before_begin,
    } at_edge = edge::none;
};

void show(zlk_const_iterator_t & it, const entry_walk & w)
{
    it.token = &w;
    const bool current = w.has_key && w.at_edge == entry_walk::edge::none;
    it.node = w.arcs.empty() ? nullptr : &w.arcs[w.node].node.id;
    it.ref = current ? &w.key : nullptr;
    it.alias = current ? w.alias.c_str() : nullptr;
    it.content = current && !w.content.empty() ? w.content.data() : nullptr;
    it.content_size = current ? w.content.size() : 0;
}

entry_walk * state_of(const zlk_const_iterator_t * it) noexcept
{
    auto * w = static_cast<entry_walk *>(const_cast<void *>(it->token));
    return w && w->handle == it->handle ? w : nullptr;
}

// One request to the walk's current node, from `from`.
zlk_error_t ask(entry_walk & w, std::size_t node, const chord::ring_id & from, bool backward)
{
    auto body = [backward] { return client::iterator_body(backward); };
    auto read = [&](const chord::chord_carrier_reply & reply) -> zlk_error_t
    {
        std::string_view alias;
        std::span<const std::uint8_t> stored;
        if (ZLK_FAILURE(client::decode_walk_reply(reply.result.content_view(), alias, stored)))
        {
            return zlk_e_invalid_reply;
        }
        w.alias.assign(alias);
        w.key = reply.result.stamp.id.is_zero() ? chord::alias_hash(alias) : reply.result.stamp.id;
        if (!zlk::protocol::decompress_content(stored, w.content))
        {
            w.content.assign(stored.begin(), stored.end());
        }
        return zlk_e_ok;
    };
    return zlk::client::request_node(w.handle->cluster, w.arcs[node].node, from,
                                     client::access_any_node | client::access_listing, true, body, read);
}

zlk_error_t step(entry_walk & w, bool backward)
{
    using edge = entry_walk::edge;
    if (w.at_edge == (backward ? edge::before_begin : edge::past_end))
    {
        return zlk_e_iterator_end;
    }
    if (w.at_edge != edge::none && w.has_key)
    {
        w.at_edge = edge::none;
        return zlk_e_ok;
    }
    w.at_edge = edge::none;
    std::size_t node = w.node;
    bool has_key = w.has_key;
    for (;;)
    {
        const chord::ring_id from = has_key ? w.key : w.arcs[node].predecessor.id;
        const zlk_error_t r = ask(w, node, from, backward);
        if (r == zlk_e_ok)
        {
            w.node = node;
            w.has_key = true;
            return zlk_e_ok;
        }
        if (r != zlk_e_alias_not_found)
        {
            return r;
        }
        // This node has no more: the next one round the ring, unless that is where the walk began.
        if (backward ? node == 0 : node + 1 == w.arcs.size())
        {
            w.at_edge = backward ? edge::before_begin : edge::past_end;
            return zlk_e_iterator_end;
        }
        node = backward ? node - 1 : node + 1;
        has_key = false;
    }
}

zlk_error_t begin(zlk_handle_t handle, const char * name, zlk_const_iterator_t * iterator, bool backward)
{
    return api_call(
        handle, name,
        [&]() -> zlk_error_t
        {
            zlk::api::check_not_null(iterator, "iterator");
            *iterator = zlk_const_iterator_t{handle, nullptr, nullptr, nullptr, nullptr, nullptr, 0};
            const zlk_error_t connected = handle->cluster.ensure_connected();
            if (ZLK_FAILURE(connected))
            {
                return connected;
            }
            auto w = std::make_unique<entry_walk>();
            w->handle = handle;
            auto [ec, arcs] = handle->cluster.map().node_list(false);
            if (ec)
            {
                return zlk::make_error_from_code(ec, zlk::local_origin);
            }
            if (arcs.empty())
            {
                zlk::log::log(zlk::log::level::error,
                              "could not determine any node in cluster, ring size: {}", 0);
                return zlk_e_unstable_cluster;
            }
            std::sort(arcs.begin(), arcs.end(),
                      [](const chord::arc & a, const chord::arc & b) { return a.node.id < b.node.id; });
            w->arcs = std::move(arcs);
            w->node = backward ? w->arcs.size() - 1 : 0;
            const zlk_error_t r = zlk::api::run_with_retries(*handle, [&] { return step(*w, backward); });
            if (ZLK_FAILURE(r))
            {
                return r;
            }
            show(*iterator, *w);
            w.release();
            return r;
        });
}

// The frame of the functions that take an iterator rather than a handle.
template <typename Body>
zlk_error_t iterator_frame(const zlk_const_iterator_t * it, const char * name, Body && body)
{
    if (!it || !zlk::api::is_valid_handle(it->handle))
    {
        return zlk::api::api_call_no_handle(name,
                                            [&]() -> zlk_error_t
                                            {
                                                zlk::api::check_iterator(it, true);
                                                zlk::api::check_owner_handle(it->handle);
                                                return zlk_e_ok;
                                            });
    }
    return api_call(it->handle, name,
                    [&]() -> zlk_error_t
                    {
                        zlk::api::check_iterator(it, state_of(it) != nullptr);
                        return body(*state_of(it));
                    });
}

zlk_error_t move(zlk_const_iterator_t * iterator, const char * name, bool backward)
{
    return iterator_frame(iterator, name,
                          [&](entry_walk & w) -> zlk_error_t
                          {
                              const zlk_error_t r = zlk::api::run_with_retries(*iterator->handle, [&]
                                                                               { return step(w, backward); });
                              show(*iterator, w);
                              return r;
                          });
}

} // namespace

zlk_error_t zlk_iterator_begin(zlk_handle_t handle, zlk_const_iterator_t * iterator) noexcept
{
    return begin(handle, "zlk_iterator_begin", iterator, false);
}

zlk_error_t zlk_iterator_rbegin(zlk_handle_t handle, zlk_const_iterator_t * iterator) noexcept
{
    return begin(handle, "zlk_iterator_rbegin", iterator, true);
}

zlk_error_t zlk_iterator_next(zlk_const_iterator_t * iterator) noexcept
{
    return move(iterator, "zlk_iterator_next", false);
}

zlk_error_t zlk_iterator_previous(zlk_const_iterator_t * iterator) noexcept
{
    return move(iterator, "zlk_iterator_previous", true);
}

zlk_error_t zlk_iterator_copy(const zlk_const_iterator_t * original, zlk_const_iterator_t * copy) noexcept
{
    return iterator_frame(original, "zlk_iterator_copy",
                          [&](entry_walk & w) -> zlk_error_t
                          {
                              zlk::api::check_not_null(copy, "iterator");
                              auto c = std::make_unique<entry_walk>(w);
                              *copy = *original;
                              show(*copy, *c);
                              c.release();
                              return zlk_e_ok;
                          });
}

zlk_error_t zlk_iterator_close(zlk_const_iterator_t * iterator) noexcept
{
    return iterator_frame(iterator, "zlk_iterator_close",
                          [&](entry_walk & w) -> zlk_error_t
                          {
                              delete &w;
                              *iterator = zlk_const_iterator_t{iterator->handle, nullptr, nullptr, nullptr,
                                                               nullptr,          nullptr, 0};
                              return zlk_e_ok;
                          });
}
