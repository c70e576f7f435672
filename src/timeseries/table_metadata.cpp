#include "timeseries/table_metadata.hpp"

#include <algorithm>

#include "base/make_error.hpp"
#include "ring/routing.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/ts_messages.hpp"

namespace zlk::timeseries
{

namespace
{

// Builds the client's record from a listing reply; a success without content is no listing.
zlk_error_t read_listing(std::span<const std::uint8_t> content, timeseries_table & out)
{
    if (content.empty())
    {
        return zlk_e_invalid_reply;
    }
    table_listing listing;
    if (decode_table_listing(content, listing))
    {
        return zlk_e_invalid_reply;
    }
    out.tag = listing.tag;
    out.shard_size = listing.shard_size;
    out.columns.clear();
    out.columns.reserve(listing.columns.size());
    out.by_name.clear();
    // Room for the columns at a load of at most 80 percent, from 8 up in powers of two.
    std::size_t capacity = 8;
    while (capacity * 8 / 10 < listing.columns.size())
    {
        capacity *= 2;
    }
    out.by_name.reserve(capacity);
    for (const auto & c : listing.columns)
    {
        out.columns.push_back({std::string(c.name), c.type, c.index});
        out.by_name.emplace(out.columns.back().name, out.columns.size() - 1);
    }
    return zlk_e_ok;
}

// Reads each listing into its record; runs on the event-loop thread, each reply into its own slot.
struct ts_get_columns_batch_policy
{
    std::vector<std::shared_ptr<const timeseries_table>> * out;

    boost::system::error_code on_reply(const client::request_record & record,
                                       const chord::chord_carrier_reply & reply)
    {
        if (reply.result.error)
        {
            return reply.result.error;
        }
        if (record.slot >= out->size())
        {
            return client::group_size_error(record.slot, out->size());
        }
        auto table = std::make_shared<timeseries_table>();
        if (ZLK_FAILURE(read_listing(reply.result.content_view(), *table)))
        {
            return serialization::inconsistent_result();
        }
        (*out)[record.slot] = std::move(table);
        return {};
    }
};

} // namespace

const column_record * timeseries_table::find(std::string_view name) const noexcept
{
    const auto it = by_name.find(name);
    return it == by_name.end() ? nullptr : &columns[it->second];
}

zlk_error_t get_table(chord::cluster & c, std::string_view alias,
                      std::shared_ptr<const timeseries_table> & out)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    chord::owner_request request;
    request.key = table_id(alias);
    auto body = [&] { return build_list_columns(alias); };
    chord::owner_reply reply;
    const zlk_error_t r = chord::request_owner(c, request, body, reply);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    if (!reply.reply())
    {
        return zlk_e_invalid_reply;
    }
    auto table = std::make_shared<timeseries_table>();
    const zlk_error_t read = read_listing(reply.reply()->result.content_view(), *table);
    if (ZLK_FAILURE(read))
    {
        return read;
    }
    out = std::move(table);
    return zlk_e_ok;
}

zlk_error_t get_tables(chord::cluster & c, std::span<const std::string_view> aliases,
                       std::vector<std::shared_ptr<const timeseries_table>> & out)
{
    out.assign(aliases.size(), nullptr);
    if (aliases.size() == 1)
    {
        return get_table(c, aliases[0], out[0]);
    }
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    std::vector<client::node_group> groups;
    for (std::size_t i = 0; i < aliases.size(); ++i)
    {
        const chord::ring_id key = table_id(aliases[i]);
        chord::node_info owner;
        if (c.map().find_owner(key, 0, false, owner) || owner.is_unset())
        {
            return zlk_e_unstable_cluster;
        }
        auto at = std::find_if(groups.begin(), groups.end(),
                               [&](const client::node_group & g) { return g.node.id == owner.id; });
        if (at == groups.end())
        {
            groups.push_back(client::node_group{owner, {}});
            at = groups.end() - 1;
        }
        const protocol::operation_body body = build_list_columns(aliases[i]);
        if (body.error)
        {
            return make_error_from_code(body.error, local_origin);
        }
        client::request_record r;
        r.request = chord::make_carrier(key, at->records.size(), 0, body);
        r.slot = i;
        at->records.push_back(std::move(r));
    }
    ts_get_columns_batch_policy policy{&out};
    return chord::run_groups(c, groups, policy);
}

zlk_error_t find_column(chord::cluster & c, std::string_view alias, std::string_view column,
                        column_lookup & out)
{
    const zlk_error_t connected = c.ensure_connected();
    if (ZLK_FAILURE(connected))
    {
        return connected;
    }
    chord::owner_request request;
    request.key = table_id(alias);
    auto body = [&] { return build_shard_info(column); };
    chord::owner_reply reply;
    const zlk_error_t r = chord::request_owner(c, request, body, reply);
    if (ZLK_FAILURE(r))
    {
        return r;
    }
    shard_info info;
    if (!reply.reply() || decode_shard_info_reply(reply.reply()->result.content_view(), info))
    {
        return zlk_e_invalid_reply;
    }
    out.shard_size = info.shard_size;
    out.type = info.type;
    out.index = info.index;
    return zlk_e_ok;
}

} // namespace zlk::timeseries
