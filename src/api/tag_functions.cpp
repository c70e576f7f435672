// Tags: attaching and detaching (small transactions over the entry, its link and the tag), membership
// tests, the lists of a tag's entries and of an entry's tags, and the tag iterator.
#include <memory>
#include <string>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "log/logger.hpp"
#include "zlk/tag.h"

namespace
{

using zlk::api::api_call;
using zlk::api::checked_entry;
using zlk::protocol::operation;
namespace client = zlk::client;
namespace kernel = zlk::kernel;

constexpr std::uint8_t tag_type = static_cast<std::uint8_t>(kernel::entry_type::tag);
constexpr std::uint8_t link_type = static_cast<std::uint8_t>(kernel::entry_type::tag_link);

template <typename Body>
zlk_error_t in_frame(zlk_handle_t handle, const char * name, Body && body)
{
    return api_call(handle, name, [&]() -> zlk_error_t { return zlk::api::run_with_retries(*handle, body); });
}

// A name as the wire carries it: its characters and the terminating zero.
std::string_view with_zero(const char * checked, std::size_t length)
{
    return {checked, length + 1};
}

struct checked_names
{
    zlk::api::checked_alias alias;
    zlk::api::checked_alias tag;

    std::string_view alias_text() const noexcept { return {alias.data, alias.length - 1}; }
    std::string_view tag_text() const noexcept { return {tag.data, tag.length - 1}; }
};

checked_names check_names(const char * alias, const char * tag)
{
    return {zlk::api::check_alias(alias), zlk::api::check_alias(tag, "tag")};
}

void check_tag_list(const char * const * tags, std::size_t count, std::vector<zlk::api::checked_alias> & out)
{
    zlk::api::check_not_zero(count, "tags");
    zlk::api::check_not_null(tags, "tags");
    out.clear();
    for (std::size_t i = 0; i < count; ++i)
    {
        out.push_back(zlk::api::check_alias(tags[i], "tag"));
    }
}

zlk_error_t send_in(client::transaction_state & state, std::string_view name_with_zero,
                    zlk::protocol::operation_body (*make)(std::string_view, std::uint8_t), std::uint8_t type,
                    zlk::chord::owner_reply & reply)
{
    const zlk::chord::ring_id key = zlk::chord::alias_hash(name_with_zero.data(), name_with_zero.size());
    auto body = [&] { return make(name_with_zero, type); };
    return state.send(key, client::access_transaction, false, body, reply);
}

// The entry must exist: its type goes into the link.
zlk_error_t entry_type_of(client::transaction_state & state, std::string_view alias_with_zero,
                          std::uint8_t & type)
{
    zlk::chord::owner_reply reply;
    const zlk_error_t r =
        send_in(state, alias_with_zero, &client::link_tag_body, kernel::any_entry_type, reply);
    if (ZLK_SUCCESS(r) && reply.reply())
    {
        type = static_cast<std::uint8_t>(reply.reply()->result.value);
    }
    return r;
}

// One tag on an entry whose type is known: the link, then the tag entry when it is missing.
zlk_error_t attach_in(client::transaction_state & state, std::string_view alias, std::uint8_t entry_type,
                      std::string_view tag_with_zero)
{
    std::string link = client::tag_link_alias(tag_with_zero.substr(0, tag_with_zero.size() - 1), alias);
    link.push_back('\0');
    zlk::chord::owner_reply reply;
    const zlk_error_t linked = send_in(state, link, &client::link_tag_back_body, entry_type, reply);
    if (linked != zlk_e_ok)
    {
        return linked;
    }
    return send_in(state, tag_with_zero, &client::link_tag_body, tag_type, reply);
}

zlk_error_t remove_link_in(client::transaction_state & state, std::string_view tag, std::string_view alias)
{
    std::string link = client::tag_link_alias(tag, alias);
    const zlk::chord::ring_id key = zlk::chord::alias_hash(link);
    auto body = [] { return client::typed_body(operation::remove, link_type); };
    zlk::chord::owner_reply reply;
    const zlk_error_t r = state.send(key, client::access_transaction, false, body, reply);
    return r == zlk_e_alias_not_found ? zlk_e_tag_not_set : r;
}

zlk_error_t read_link(zlk_session & h, std::string_view tag, std::string_view alias)
{
    const zlk::chord::ring_id key = zlk::chord::alias_hash(client::tag_link_alias(tag, alias));
    auto body = []
    { return client::get_body(0, 0, static_cast<kernel::entry_type>(kernel::any_entry_type)); };
    zlk::chord::owner_reply reply;
    return zlk::api::send_entry_request(h, key, client::access_tag_test, true, true, body, reply);
}

// Whether the entry has the tag: a missing link is zlk_e_tag_not_set, unless the tag's name is taken by
// an entry of another type (zlk_e_incompatible_type).
zlk_error_t test_tag(zlk_session & h, std::string_view alias, std::string_view tag)
{
    const zlk_error_t first = read_link(h, tag, alias);
    if (first != zlk_e_alias_not_found)
    {
        return first;
    }
    zlk::chord::owner_reply reply;
    const zlk_error_t info = zlk::api::send_entry_request(h, zlk::chord::alias_hash(tag), 0, true, false,
                                                          &client::entry_info_body, reply);
    if (ZLK_SUCCESS(info))
    {
        client::entry_info decoded;
        const zlk_error_t r = client::decode_entry_info(reply.reply()->result.content_view(), decoded);
        if (ZLK_FAILURE(r))
        {
            return r;
        }
        if (decoded.type != tag_type)
        {
            return zlk_e_incompatible_type;
        }
    }
    else if (info != zlk_e_alias_not_found)
    {
        return info;
    }
    const zlk_error_t again = read_link(h, tag, alias);
    return again == zlk_e_alias_not_found ? zlk_e_tag_not_set : again;
}

void check_list_out(const void * list, const void * count)
{
    if (!list || !count)
    {
        throw zlk_e_invalid_argument;
    }
}

// The parts of links that fit; the others are logged and passed over.
template <typename Parse>
void parse_links(const std::vector<std::string> & links, std::vector<std::string> & out, Parse && parse,
                 std::vector<std::uint8_t> * types = nullptr,
                 const std::vector<std::uint8_t> * link_types = nullptr)
{
    std::string part;
    for (std::size_t i = 0; i < links.size(); ++i)
    {
        if (!parse(links[i], part))
        {
            zlk::log::log(zlk::log::level::warning, "*** cannot parse tag link {}", links[i]);
            continue;
        }
        out.push_back(part);
        if (types && link_types)
        {
            types->push_back((*link_types)[i]);
        }
    }
}

// The names a listing of links stands for (the entries of a tag, or the tags of an entry), handed out
// as one alias list.
template <typename Parse>
zlk_error_t hand_out_linked(zlk_session & h, const std::string & affix, client::affix_kind kind,
                            Parse && parse, const char *** aliases, size_t * alias_count)
{
    std::vector<std::string> links;
    const zlk_error_t r = zlk::api::list_affix(h, affix, kind, 0, links);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    std::vector<std::string> names;
    parse_links(links, names, parse);
    zlk::api::hand_out_alias_list(h, names, aliases, alias_count);
    return zlk_e_ok;
}

// The tag iterator's state: the tag's entries as listed, and the place of the current one.
struct tag_walk
{
    std::vector<std::string> aliases;
    std::vector<std::uint8_t> types;
    std::size_t at = 0;
};

void show(zlk_const_tag_iterator_t & it, const tag_walk & walk)
{
    if (walk.at < walk.aliases.size())
    {
        it.alias = walk.aliases[walk.at].c_str();
        it.type = kernel::public_entry_type(walk.types[walk.at]);
    }
    else
    {
        it.alias = nullptr;
        it.type = -1;
    }
}

bool live(const zlk_const_tag_iterator_t * it) noexcept
{
    return it && it->magic == ZLK_TAG_ITERATOR_LIVE && it->token;
}

// The frame of the functions that take an iterator rather than a handle.
template <typename Body>
zlk_error_t iterator_frame(zlk_const_tag_iterator_t * it, const char * name, Body && body)
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
                        zlk::api::check_iterator(it, live(it));
                        return body();
                    });
}

} // namespace

zlk_error_t zlk_attach_tag(zlk_handle_t handle, const char * alias, const char * tag) noexcept
{
    return in_frame(handle, "zlk_attach_tag",
                    [&]() -> zlk_error_t
                    {
                        const checked_names n = check_names(alias, tag);
                        const auto entry = checked_entry(alias);
                        return zlk::api::run_in_transaction(
                            *handle, entry.key,
                            [&](client::transaction_state & state)
                            {
                                std::uint8_t type = 0;
                                const zlk_error_t r =
                                    entry_type_of(state, with_zero(n.alias.data, n.alias.length - 1), type);
                                if (r != zlk_e_ok)
                                {
                                    return r;
                                }
                                return attach_in(state, n.alias_text(), type,
                                                 with_zero(n.tag.data, n.tag.length - 1));
                            });
                    });
}

zlk_error_t zlk_attach_tags(zlk_handle_t handle, const char * alias, const char * const * tags,
                            size_t tag_count) noexcept
{
    return in_frame(handle, "zlk_attach_tags",
                    [&]() -> zlk_error_t
                    {
                        const auto checked = zlk::api::check_alias(alias);
                        std::vector<zlk::api::checked_alias> list;
                        check_tag_list(tags, tag_count, list);
                        const auto entry = checked_entry(alias);
                        const std::string_view name(checked.data, checked.length - 1);
                        return zlk::api::run_in_transaction(
                            *handle, entry.key,
                            [&](client::transaction_state & state)
                            {
                                std::uint8_t type = 0;
                                const zlk_error_t r =
                                    entry_type_of(state, with_zero(checked.data, name.size()), type);
                                if (r != zlk_e_ok)
                                {
                                    return r;
                                }
                                std::size_t already = 0;
                                for (const auto & t : list)
                                {
                                    const zlk_error_t a =
                                        attach_in(state, name, type, with_zero(t.data, t.length - 1));
                                    if (a == zlk_e_tag_already_set)
                                    {
                                        ++already;
                                    }
                                    else if (a != zlk_e_ok)
                                    {
                                        return a;
                                    }
                                }
                                return already == list.size() ? zlk_e_tag_already_set : zlk_e_ok;
                            });
                    });
}

zlk_error_t zlk_has_tag(zlk_handle_t handle, const char * alias, const char * tag) noexcept
{
    return in_frame(handle, "zlk_has_tag",
                    [&]() -> zlk_error_t
                    {
                        const checked_names n = check_names(alias, tag);
                        return test_tag(*handle, n.alias_text(), n.tag_text());
                    });
}

zlk_error_t zlk_detach_tag(zlk_handle_t handle, const char * alias, const char * tag) noexcept
{
    return in_frame(handle, "zlk_detach_tag",
                    [&]() -> zlk_error_t
                    {
                        const checked_names n = check_names(alias, tag);
                        const zlk_error_t tested = test_tag(*handle, n.alias_text(), n.tag_text());
                        if (tested != zlk_e_ok)
                        {
                            return tested;
                        }
                        const auto entry = checked_entry(alias);
                        return zlk::api::run_in_transaction(
                            *handle, entry.key,
                            [&](client::transaction_state & state)
                            { return remove_link_in(state, n.tag_text(), n.alias_text()); });
                    });
}

zlk_error_t zlk_detach_tags(zlk_handle_t handle, const char * alias, const char * const * tags,
                            size_t tag_count) noexcept
{
    return in_frame(handle, "zlk_detach_tags",
                    [&]() -> zlk_error_t
                    {
                        const auto checked = zlk::api::check_alias(alias);
                        std::vector<zlk::api::checked_alias> list;
                        check_tag_list(tags, tag_count, list);
                        const auto entry = checked_entry(alias);
                        const std::string_view name(checked.data, checked.length - 1);
                        return zlk::api::run_in_transaction(
                            *handle, entry.key,
                            [&](client::transaction_state & state)
                            {
                                std::size_t missing = 0;
                                for (const auto & t : list)
                                {
                                    const zlk_error_t r =
                                        remove_link_in(state, std::string_view(t.data, t.length - 1), name);
                                    if (r == zlk_e_tag_not_set)
                                    {
                                        ++missing;
                                    }
                                    else if (r != zlk_e_ok)
                                    {
                                        return r;
                                    }
                                }
                                return missing == list.size() ? zlk_e_tag_not_set : zlk_e_ok;
                            });
                    });
}

zlk_error_t zlk_get_tagged(zlk_handle_t handle, const char * tag, const char *** aliases,
                           size_t * alias_count) noexcept
{
    return in_frame(handle, "zlk_get_tagged",
                    [&]() -> zlk_error_t
                    {
                        const auto t = zlk::api::check_alias(tag, "tag");
                        check_list_out(aliases, alias_count);
                        *aliases = nullptr;
                        *alias_count = 0;
                        const std::string_view name(t.data, t.length - 1);
                        return hand_out_linked(
                            *handle, client::tag_links_prefix(name), client::affix_kind::prefix,
                            [&](const std::string & link, std::string & out)
                            { return client::entry_of_link(link, name, out); },
                            aliases, alias_count);
                    });
}

zlk_error_t zlk_get_tagged_count(zlk_handle_t handle, const char * tag, uint64_t * count) noexcept
{
    return in_frame(handle, "zlk_get_tagged_count",
                    [&]() -> zlk_error_t
                    {
                        const auto t = zlk::api::check_alias(tag, "tag");
                        if (!count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *count = 0;
                        std::uint64_t n = 0;
                        const zlk_error_t r = zlk::api::count_affix(
                            *handle, client::tag_links_prefix(std::string_view(t.data, t.length - 1)),
                            client::affix_kind::prefix, n);
                        if (ZLK_SUCCESS(r))
                        {
                            *count = n;
                        }
                        return r;
                    });
}

zlk_error_t zlk_get_tags(zlk_handle_t handle, const char * alias, const char *** tags,
                         size_t * tag_count) noexcept
{
    return in_frame(handle, "zlk_get_tags",
                    [&]() -> zlk_error_t
                    {
                        const auto a = zlk::api::check_alias(alias);
                        check_list_out(tags, tag_count);
                        *tags = nullptr;
                        *tag_count = 0;
                        const std::string_view name(a.data, a.length - 1);
                        return hand_out_linked(
                            *handle, client::entry_links_suffix(name), client::affix_kind::suffix,
                            [&](const std::string & link, std::string & out)
                            { return client::tag_of_link(link, name, out); },
                            tags, tag_count);
                    });
}

zlk_error_t zlk_tag_iterator_begin(zlk_handle_t handle, const char * tag,
                                   zlk_const_tag_iterator_t * iterator) noexcept
{
    return api_call(
        handle, "zlk_tag_iterator_begin",
        [&]() -> zlk_error_t
        {
            zlk::api::check_not_null(iterator, "iterator");
            const auto t = zlk::api::check_alias(tag, "tag");
            *iterator = zlk_const_tag_iterator_t{handle, nullptr, ZLK_TAG_ITERATOR_DEAD, nullptr, -1};
            const std::string_view name(t.data, t.length - 1);
            auto walk = std::make_unique<tag_walk>();
            const zlk_error_t r =
                zlk::api::run_with_retries(*handle,
                                           [&]() -> zlk_error_t
                                           {
                                               std::vector<std::string> links;
                                               std::vector<std::uint8_t> link_types;
                                               const zlk_error_t listed = zlk::api::list_affix(
                                                   *handle, client::tag_links_prefix(name),
                                                   client::affix_kind::prefix, 0, links, &link_types);
                                               if (ZLK_SUCCESS(listed))
                                               {
                                                   walk->aliases.clear();
                                                   walk->types.clear();
                                                   parse_links(
                                                       links, walk->aliases,
                                                       [&](const std::string & link, std::string & out)
                                                       { return client::entry_of_link(link, name, out); },
                                                       &walk->types, &link_types);
                                               }
                                               return listed;
                                           });
            if (ZLK_FAILURE(r))
            {
                return r;
            }
            show(*iterator, *walk);
            iterator->token = walk.release();
            iterator->magic = ZLK_TAG_ITERATOR_LIVE;
            return iterator->alias ? zlk_e_ok : zlk_e_iterator_end;
        });
}

zlk_error_t zlk_tag_iterator_next(zlk_const_tag_iterator_t * iterator) noexcept
{
    return iterator_frame(iterator, "zlk_tag_iterator_next",
                          [&]() -> zlk_error_t
                          {
                              auto * walk = static_cast<tag_walk *>(const_cast<void *>(iterator->token));
                              if (walk->at < walk->aliases.size())
                              {
                                  ++walk->at;
                              }
                              show(*iterator, *walk);
                              return iterator->alias ? zlk_e_ok : zlk_e_iterator_end;
                          });
}

zlk_error_t zlk_tag_iterator_previous(zlk_const_tag_iterator_t *) noexcept
{
    return zlk_e_not_implemented;
}

zlk_error_t zlk_tag_iterator_close(zlk_const_tag_iterator_t * iterator) noexcept
{
    return iterator_frame(iterator, "zlk_tag_iterator_close",
                          [&]() -> zlk_error_t
                          {
                              delete static_cast<tag_walk *>(const_cast<void *>(iterator->token));
                              iterator->token = nullptr;
                              iterator->magic = ZLK_TAG_ITERATOR_DEAD;
                              iterator->alias = nullptr;
                              iterator->type = -1;
                              return zlk_e_ok;
                          });
}
