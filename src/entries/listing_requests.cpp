#include "entries/listing_requests.hpp"

#include "wire/marshal.hpp"

namespace zlk::client
{

using protocol::build_operation_body;
using protocol::operation;
using protocol::operation_body;
using serialization::writer;

namespace
{

constexpr std::size_t varint = serialization::varint_bound;
constexpr std::string_view link_head = "tag.";

} // namespace

operation_body list_chunk_body(std::string_view affix, affix_kind kind, std::uint64_t offset,
                               std::uint64_t limit, std::uint8_t flag) noexcept
{
    return build_operation_body(operation::list_chunk, 3 * varint + 2,
                                [&](writer & w)
                                {
                                    w.put_string(affix);
                                    w.put_enum(kind);
                                    w.put_varint(offset);
                                    w.put_varint(limit);
                                    w.put_u8(flag);
                                });
}

operation_body count_chunk_body(std::string_view affix, affix_kind kind, std::uint64_t limit) noexcept
{
    return build_operation_body(operation::count_chunk, 2 * varint + 2,
                                [&](writer & w)
                                {
                                    w.put_string(affix);
                                    w.put_enum(kind);
                                    w.put_varint(limit);
                                    w.put_u8(list_aliases);
                                });
}

operation_body scan_body(std::span<const std::uint8_t> pattern, std::uint64_t limit, scan_kind kind) noexcept
{
    return build_operation_body(operation::scan, 2 * varint + 1,
                                [&](writer & w)
                                {
                                    w.put_bytes(pattern);
                                    w.put_varint(limit);
                                    w.put_enum(kind);
                                });
}

operation_body node_listing_body(std::uint8_t kernel_type, std::uint64_t offset, std::uint64_t limit) noexcept
{
    return build_operation_body(operation::node_listing, 2 * varint + 1,
                                [&](writer & w)
                                {
                                    w.put_u8(kernel_type);
                                    w.put_varint(offset);
                                    w.put_varint(limit);
                                });
}

operation_body direct_prefix_body(std::string_view prefix, std::uint64_t offset, std::uint64_t limit) noexcept
{
    return build_operation_body(operation::direct_prefix_get, 3 * varint + 1,
                                [&](writer & w)
                                {
                                    w.put_string(prefix);
                                    w.put_varint(offset);
                                    w.put_varint(limit);
                                    w.put_u8(list_aliases);
                                });
}

operation_body iterator_body(bool backward) noexcept
{
    return build_operation_body(backward ? operation::iterator_previous : operation::iterator_next, 0,
                                [](writer &) {});
}

operation_body link_tag_body(std::string_view alias_with_zero, std::uint8_t type) noexcept
{
    return build_operation_body(operation::link_tag, varint + 1,
                                [&](writer & w)
                                {
                                    w.put_string(alias_with_zero);
                                    w.put_u8(type);
                                });
}

operation_body link_tag_back_body(std::string_view link_with_zero, std::uint8_t tagged_type) noexcept
{
    return build_operation_body(operation::link_tag_back, varint + 1,
                                [&](writer & w)
                                {
                                    w.put_string(link_with_zero);
                                    w.put_u8(tagged_type);
                                });
}

zlk_error_t decode_alias_list(std::span<const std::uint8_t> content, bool with_types,
                              std::vector<std::string> & aliases, std::vector<std::uint8_t> * types)
{
    serialization::cursor c{content.data(), content.size()};
    std::size_t count = 0;
    if (serialization::read_count(c, count))
    {
        return zlk_e_invalid_reply;
    }
    const std::size_t first = aliases.size();
    const std::size_t first_type = types ? types->size() : 0;
    for (std::size_t i = 0; i < count; ++i)
    {
        std::string_view alias;
        std::uint8_t type = 0;
        if (serialization::read_bytes(c, alias) || (with_types && serialization::read_u8(c, type)))
        {
            aliases.resize(first);
            if (types)
            {
                types->resize(first_type);
            }
            return zlk_e_invalid_reply;
        }
        aliases.emplace_back(alias);
        if (types)
        {
            types->push_back(type);
        }
    }
    return zlk_e_ok;
}

zlk_error_t decode_walk_reply(std::span<const std::uint8_t> content, std::string_view & alias,
                              std::span<const std::uint8_t> & stored) noexcept
{
    serialization::cursor c{content.data(), content.size()};
    if (serialization::read_bytes(c, alias))
    {
        return zlk_e_invalid_reply;
    }
    stored = std::span<const std::uint8_t>(c.data, c.remaining);
    return zlk_e_ok;
}

std::string tag_links_prefix(std::string_view tag)
{
    std::string out;
    out.reserve(tag_link_mark.size() + link_head.size() + tag.size() + 1);
    out.append(tag_link_mark).append(link_head).append(tag).push_back('.');
    return out;
}

std::string entry_links_suffix(std::string_view alias)
{
    std::string out;
    out.reserve(alias.size() + 1 + tag_link_tail.size());
    out.append(".").append(alias).append(tag_link_tail);
    return out;
}

std::string tag_link_alias(std::string_view tag, std::string_view alias)
{
    std::string out = tag_links_prefix(tag);
    out.append(alias).append(tag_link_tail);
    return out;
}

bool entry_of_link(std::string_view link, std::string_view tag, std::string & alias)
{
    const std::string prefix = tag_links_prefix(tag);
    if (link.size() <= prefix.size() + tag_link_tail.size() || !link.starts_with(prefix) ||
        !link.ends_with(tag_link_tail))
    {
        return false;
    }
    alias.assign(link.substr(prefix.size(), link.size() - prefix.size() - tag_link_tail.size()));
    return true;
}

bool tag_of_link(std::string_view link, std::string_view alias, std::string & tag)
{
    const std::string suffix = entry_links_suffix(alias);
    const std::size_t head = tag_link_mark.size() + link_head.size();
    if (link.size() <= head + suffix.size() || !link.starts_with(tag_link_mark) ||
        link.substr(tag_link_mark.size(), link_head.size()) != link_head || !link.ends_with(suffix))
    {
        return false;
    }
    tag.assign(link.substr(head, link.size() - head - suffix.size()));
    return true;
}

} // namespace zlk::client
