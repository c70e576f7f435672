// Tags: attaching and detaching (small transactions over the entry, its link and the tag), membership
// tests, the lists of a tag's entries and of an entry's tags, and the tag iterator.
#include <memory>
#include <string>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "zlk/tag.h"

namespace
{

using zlk::api::api_call;
namespace client = zlk::client;
namespace kernel = zlk::kernel;

template <typename Body>
zlk_error_t in_frame(zlk_handle_t handle, const char * name, Body && body)
{
    return api_call(handle, name, [&]() -> zlk_error_t { return zlk::api::run_with_retries(*handle, body); });
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

void check_list_out(const void * list, const void * count)
{
    if (!list || !count)
    {
        throw zlk_e_invalid_argument;
    }
}

// A list the cluster gave, handed out as one alias list.
template <typename List>
zlk_error_t hand_out_list(zlk_session & h, List && list, const char *** out, size_t * count)
{
    std::vector<std::string> names;
    const zlk_error_t r = list(names);
    if (ZLK_SUCCESS(r))
    {
        zlk::api::hand_out_alias_list(h, names, out, count);
    }
    return r;
}

// The checked names of a list of tags, without their zeros (which stay in the caller's strings).
std::vector<std::string_view> tag_names(const std::vector<zlk::api::checked_alias> & list)
{
    std::vector<std::string_view> names;
    names.reserve(list.size());
    for (const auto & t : list)
    {
        names.emplace_back(t.data, t.length - 1);
    }
    return names;
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
                        const std::string_view tags[] = {n.tag_text()};
                        return client::attach_tags(handle->cluster, n.alias_text(), tags);
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
                        return client::attach_tags(handle->cluster,
                                                   std::string_view(checked.data, checked.length - 1),
                                                   tag_names(list));
                    });
}

zlk_error_t zlk_has_tag(zlk_handle_t handle, const char * alias, const char * tag) noexcept
{
    return in_frame(handle, "zlk_has_tag",
                    [&]() -> zlk_error_t
                    {
                        const checked_names n = check_names(alias, tag);
                        return client::test_tag(handle->cluster, n.alias_text(), n.tag_text());
                    });
}

zlk_error_t zlk_detach_tag(zlk_handle_t handle, const char * alias, const char * tag) noexcept
{
    return in_frame(handle, "zlk_detach_tag",
                    [&]() -> zlk_error_t
                    {
                        const checked_names n = check_names(alias, tag);
                        const zlk_error_t tested =
                            client::test_tag(handle->cluster, n.alias_text(), n.tag_text());
                        if (tested != zlk_e_ok)
                        {
                            return tested;
                        }
                        const std::string_view tags[] = {n.tag_text()};
                        return client::detach_tags(handle->cluster, n.alias_text(), tags);
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
                        return client::detach_tags(handle->cluster,
                                                   std::string_view(checked.data, checked.length - 1),
                                                   tag_names(list));
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
                        return hand_out_list(
                            *handle,
                            [&](std::vector<std::string> & out)
                            { return client::tagged_entries(handle->cluster, name, out); },
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
                        const zlk_error_t r =
                            client::tagged_count(handle->cluster, std::string_view(t.data, t.length - 1), n);
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
                        return hand_out_list(
                            *handle,
                            [&](std::vector<std::string> & out)
                            { return client::entry_tags(handle->cluster, name, out); },
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
            const zlk_error_t r = zlk::api::run_with_retries(
                *handle,
                [&]() -> zlk_error_t
                {
                    walk->aliases.clear();
                    walk->types.clear();
                    return client::tagged_entries(handle->cluster, name, walk->aliases, &walk->types);
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
