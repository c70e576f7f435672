#include "entries/tag_links.hpp"

#include "base/alias_hash.hpp"
#include "base/entry_type.hpp"
#include "entries/entry_access.hpp"
#include "entries/entry_requests.hpp"
#include "entries/listing_requests.hpp"
#include "entries/ring_listings.hpp"
#include "log/logger.hpp"

namespace zlk::client
{
namespace
{

constexpr std::uint8_t tag_type = static_cast<std::uint8_t>(kernel::entry_type::tag);
constexpr std::uint8_t link_type = static_cast<std::uint8_t>(kernel::entry_type::tag_link);

// A name as the wire carries it: its characters and the terminating zero that follows them.
std::string_view with_zero(std::string_view zero_terminated) noexcept
{
    return {zero_terminated.data(), zero_terminated.size() + 1};
}

zlk_error_t send_in(transaction_state & state, std::string_view name_with_zero,
                    protocol::operation_body (*make)(std::string_view, std::uint8_t), std::uint8_t type,
                    chord::owner_reply & reply)
{
    const chord::ring_id key = chord::alias_hash(name_with_zero.data(), name_with_zero.size());
    auto body = [&] { return make(name_with_zero, type); };
    return state.send(key, access_transaction, false, body, reply);
}

// The entry must exist: its type goes into the link.
zlk_error_t entry_type_of(transaction_state & state, std::string_view alias_with_zero, std::uint8_t & type)
{
    chord::owner_reply reply;
    const zlk_error_t r = send_in(state, alias_with_zero, &link_tag_body, kernel::any_entry_type, reply);
    if (ZLK_SUCCESS(r) && reply.reply())
    {
        type = static_cast<std::uint8_t>(reply.reply()->result.value);
    }
    return r;
}

// One tag on an entry whose type is known: the link, then the tag entry when it is missing.
zlk_error_t attach_in(transaction_state & state, std::string_view alias, std::uint8_t entry_type,
                      std::string_view tag_with_zero)
{
    std::string link = tag_link_alias(tag_with_zero.substr(0, tag_with_zero.size() - 1), alias);
    link.push_back('\0');
    chord::owner_reply reply;
    const zlk_error_t linked = send_in(state, link, &link_tag_back_body, entry_type, reply);
    if (linked != zlk_e_ok)
    {
        return linked;
    }
    return send_in(state, tag_with_zero, &link_tag_body, tag_type, reply);
}

zlk_error_t remove_link_in(transaction_state & state, std::string_view tag, std::string_view alias)
{
    std::string link = tag_link_alias(tag, alias);
    const chord::ring_id key = chord::alias_hash(link);
    auto body = [] { return typed_body(protocol::operation::remove, link_type); };
    chord::owner_reply reply;
    const zlk_error_t r = state.send(key, access_transaction, false, body, reply);
    return r == zlk_e_alias_not_found ? zlk_e_tag_not_set : r;
}

zlk_error_t read_link(chord::cluster & c, std::string_view tag, std::string_view alias)
{
    const chord::ring_id key = chord::alias_hash(tag_link_alias(tag, alias));
    auto body = [] { return get_body(0, 0, static_cast<kernel::entry_type>(kernel::any_entry_type)); };
    chord::owner_reply reply;
    return send_entry_request(c, key, access_tag_test, true, true, body, reply);
}

// A link removed inside a removal: one that is gone already was taken by another removal.
zlk_error_t remove_link(transaction_state & state, std::string_view link)
{
    std::string link_with_zero(link);
    link_with_zero.push_back('\0');
    const chord::ring_id key = chord::alias_hash(link_with_zero.data(), link_with_zero.size());
    auto body = [] { return typed_body(protocol::operation::remove, link_type); };
    chord::owner_reply reply;
    const zlk_error_t removed = state.send(key, access_transaction, false, body, reply);
    return removed == zlk_e_alias_not_found ? zlk_e_ok : removed;
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
            log::log(log::level::warning, "*** cannot parse tag link {}", links[i]);
            continue;
        }
        out.push_back(part);
        if (types && link_types)
        {
            types->push_back((*link_types)[i]);
        }
    }
}

} // namespace

zlk_error_t attach_tags(chord::cluster & c, std::string_view alias, std::span<const std::string_view> tags)
{
    const chord::ring_id key = chord::alias_hash(with_zero(alias).data(), alias.size() + 1);
    return run_in_transaction(c, key,
                              [&](transaction_state & state)
                              {
                                  std::uint8_t type = 0;
                                  const zlk_error_t r = entry_type_of(state, with_zero(alias), type);
                                  if (r != zlk_e_ok)
                                  {
                                      return r;
                                  }
                                  std::size_t already = 0;
                                  for (const std::string_view t : tags)
                                  {
                                      const zlk_error_t a = attach_in(state, alias, type, with_zero(t));
                                      if (a == zlk_e_tag_already_set)
                                      {
                                          ++already;
                                      }
                                      else if (a != zlk_e_ok)
                                      {
                                          return a;
                                      }
                                  }
                                  return already == tags.size() ? zlk_e_tag_already_set : zlk_e_ok;
                              });
}

zlk_error_t detach_tags(chord::cluster & c, std::string_view alias, std::span<const std::string_view> tags)
{
    const chord::ring_id key = chord::alias_hash(with_zero(alias).data(), alias.size() + 1);
    return run_in_transaction(c, key,
                              [&](transaction_state & state)
                              {
                                  std::size_t missing = 0;
                                  for (const std::string_view t : tags)
                                  {
                                      const zlk_error_t r = remove_link_in(state, t, alias);
                                      if (r == zlk_e_tag_not_set)
                                      {
                                          ++missing;
                                      }
                                      else if (r != zlk_e_ok)
                                      {
                                          return r;
                                      }
                                  }
                                  return missing == tags.size() ? zlk_e_tag_not_set : zlk_e_ok;
                              });
}

zlk_error_t test_tag(chord::cluster & c, std::string_view alias, std::string_view tag)
{
    const zlk_error_t first = read_link(c, tag, alias);
    if (first != zlk_e_alias_not_found)
    {
        return first;
    }
    chord::owner_reply reply;
    const zlk_error_t info =
        send_entry_request(c, chord::alias_hash(tag), 0, true, false, &entry_info_body, reply);
    if (ZLK_SUCCESS(info))
    {
        entry_info decoded;
        const zlk_error_t r = decode_entry_info(reply.reply()->result.content_view(), decoded);
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
    const zlk_error_t again = read_link(c, tag, alias);
    return again == zlk_e_alias_not_found ? zlk_e_tag_not_set : again;
}

zlk_error_t tagged_entries(chord::cluster & c, std::string_view tag, std::vector<std::string> & aliases,
                           std::vector<std::uint8_t> * types)
{
    std::vector<std::string> links;
    std::vector<std::uint8_t> link_types;
    const zlk_error_t r =
        list_affix(c, tag_links_prefix(tag), affix_kind::prefix, 0, links, types ? &link_types : nullptr);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    parse_links(
        links, aliases,
        [&](const std::string & link, std::string & out) { return entry_of_link(link, tag, out); }, types,
        &link_types);
    return zlk_e_ok;
}

zlk_error_t entry_tags(chord::cluster & c, std::string_view alias, std::vector<std::string> & tags)
{
    std::vector<std::string> links;
    const zlk_error_t r = list_affix(c, entry_links_suffix(alias), affix_kind::suffix, 0, links);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    parse_links(links, tags,
                [&](const std::string & link, std::string & out) { return tag_of_link(link, alias, out); });
    return zlk_e_ok;
}

zlk_error_t tagged_count(chord::cluster & c, std::string_view tag, std::uint64_t & count)
{
    return count_affix(c, tag_links_prefix(tag), affix_kind::prefix, count);
}

zlk_error_t remove_entry_links(chord::cluster & c, transaction_state & state, std::string_view alias,
                               std::uint64_t kernel_type)
{
    std::vector<std::string> links;
    zlk_error_t status = list_affix(c, entry_links_suffix(alias), affix_kind::suffix, 0, links);
    if (ZLK_FAILURE(status))
    {
        return status;
    }
    std::string tag;
    for (const std::string & link : links)
    {
        if (!tag_of_link(link, alias, tag))
        {
            log::log(log::level::warning, "*** cannot parse tag link {}", link);
            continue;
        }
        if (ZLK_FAILURE(status = remove_link(state, link)))
        {
            return status;
        }
    }
    if (kernel_type != tag_type)
    {
        return zlk_e_ok;
    }
    links.clear();
    status = list_affix(c, tag_links_prefix(alias), affix_kind::prefix, 0, links);
    if (ZLK_FAILURE(status))
    {
        return status;
    }
    for (const std::string & link : links)
    {
        if (ZLK_FAILURE(status = remove_link(state, link)))
        {
            return status;
        }
    }
    return zlk_e_ok;
}

} // namespace zlk::client
