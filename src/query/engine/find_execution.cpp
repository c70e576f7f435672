#include "query/engine/find_execution.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/entry_type.hpp"
#include "entries/listing_requests.hpp"
#include "entries/ring_listings.hpp"
#include "entries/tag_links.hpp"
#include "log/logger.hpp"

namespace zlk::query
{
namespace
{

// Aliases with the kernel type each listing reported, sorted by alias for the set operations.
struct typed_set
{
    std::vector<std::string> aliases;
    std::vector<std::uint8_t> types;

    void sort()
    {
        std::vector<std::size_t> order(aliases.size());
        for (std::size_t i = 0; i < order.size(); ++i)
        {
            order[i] = i;
        }
        std::sort(order.begin(), order.end(),
                  [&](std::size_t a, std::size_t b) { return aliases[a] < aliases[b]; });
        typed_set sorted;
        sorted.aliases.reserve(order.size());
        sorted.types.reserve(order.size());
        for (const std::size_t i : order)
        {
            // A listing walks node after node: an alias seen twice (a moving arc) counts once.
            if (!sorted.aliases.empty() && sorted.aliases.back() == aliases[i])
            {
                continue;
            }
            sorted.aliases.push_back(std::move(aliases[i]));
            sorted.types.push_back(types[i]);
        }
        *this = std::move(sorted);
    }
};

// Moves member i to slot `to` (to <= i) of a compaction.
void keep(typed_set & s, std::size_t to, std::size_t i)
{
    if (to != i)
    {
        s.aliases[to] = std::move(s.aliases[i]);
        s.types[to] = s.types[i];
    }
}

// Keeps the members of `into` that are in `other` (want_members) or that aren't (both sorted).
void filter_by(typed_set & into, const typed_set & other, bool want_members)
{
    std::size_t kept = 0;
    std::size_t j = 0;
    for (std::size_t i = 0; i < into.aliases.size(); ++i)
    {
        while (j < other.aliases.size() && other.aliases[j] < into.aliases[i])
        {
            ++j;
        }
        const bool member = j < other.aliases.size() && other.aliases[j] == into.aliases[i];
        if (member == want_members)
        {
            keep(into, kept++, i);
        }
    }
    into.aliases.resize(kept);
    into.types.resize(kept);
}

zlk_error_t read_tag(chord::cluster & c, const std::string & tag, typed_set & out)
{
    const zlk_error_t r = client::tagged_entries(c, tag, out.aliases, &out.types);
    if (ZLK_SUCCESS(r))
    {
        out.sort();
    }
    return r;
}

} // namespace

std::optional<find_criteria> criteria_of(const find_request & request)
{
    find_criteria c;
    for (const auto & item : request.items)
    {
        if (const auto * t = std::get_if<find_request::tag>(&item))
        {
            c.tags.push_back(t->name);
        }
        else if (const auto * n = std::get_if<find_request::negation<find_request::tag>>(&item))
        {
            c.excluded_tags.push_back(n->value.name);
        }
        else if (const auto * p = std::get_if<find_request::prefix>(&item))
        {
            c.prefix = p->value;
        }
        else
        {
            const std::uint8_t type = std::get<find_request::entry_type>(item).kernel_type;
            if (c.kernel_type && *c.kernel_type != type)
            {
                return std::nullopt;
            }
            c.kernel_type = type;
        }
    }
    return c;
}

zlk_error_t run_find(chord::cluster & c, const find_criteria & criteria, std::uint64_t max_cardinality,
                     std::vector<std::string> & aliases, std::string & message)
{
    // What the request has to read, counted before anything is read.
    std::uint64_t needed = 0;
    for (const auto * list : {&criteria.tags, &criteria.excluded_tags})
    {
        for (const std::string & tag : *list)
        {
            std::uint64_t n = 0;
            if (const zlk_error_t r = client::tagged_count(c, tag, n); ZLK_FAILURE(r))
            {
                return r;
            }
            needed += n;
        }
    }
    if (criteria.prefix)
    {
        std::uint64_t n = 0;
        if (const zlk_error_t r = client::count_affix(c, *criteria.prefix, client::affix_kind::prefix, n);
            ZLK_FAILURE(r))
        {
            return r;
        }
        needed += n;
    }
    if (needed > max_cardinality)
    {
        message =
            fmt::format("The FIND request needs to query at least {} alias, but the client has a maximum "
                        "cardinality of {}.",
                        needed, max_cardinality);
        return zlk_e_invalid_query;
    }

    std::vector<typed_set> accepted(criteria.tags.size());
    for (std::size_t i = 0; i < criteria.tags.size(); ++i)
    {
        if (const zlk_error_t r = read_tag(c, criteria.tags[i], accepted[i]); ZLK_FAILURE(r))
        {
            return r;
        }
    }
    log::log(log::level::debug, "matched {} tags", accepted.size());
    if (criteria.prefix)
    {
        typed_set listed;
        const zlk_error_t r = client::list_affix(c, *criteria.prefix, client::affix_kind::prefix, 0,
                                                 listed.aliases, &listed.types);
        if (ZLK_FAILURE(r))
        {
            return r;
        }
        listed.sort();
        accepted.push_back(std::move(listed));
    }

    // The smallest set first: every later intersection walks at most its size of survivors.
    std::sort(accepted.begin(), accepted.end(),
              [](const typed_set & a, const typed_set & b) { return a.aliases.size() < b.aliases.size(); });
    typed_set result = std::move(accepted.front());
    for (std::size_t i = 1; i < accepted.size() && !result.aliases.empty(); ++i)
    {
        filter_by(result, accepted[i], true);
    }
    for (const std::string & tag : criteria.excluded_tags)
    {
        if (result.aliases.empty())
        {
            break;
        }
        typed_set excluded;
        if (const zlk_error_t r = read_tag(c, tag, excluded); ZLK_FAILURE(r))
        {
            return r;
        }
        filter_by(result, excluded, false);
    }

    aliases.clear();
    aliases.reserve(result.aliases.size());
    for (std::size_t i = 0; i < result.aliases.size(); ++i)
    {
        if (!criteria.kernel_type || result.types[i] == *criteria.kernel_type)
        {
            aliases.push_back(std::move(result.aliases[i]));
        }
    }
    return zlk_e_ok;
}

} // namespace zlk::query
