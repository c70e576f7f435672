#include "entries/batch.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/alias_hash.hpp"
#include "base/entry_type.hpp"
#include "base/make_error.hpp"
#include "wire/content_compression.hpp"

namespace zlk::client
{

using protocol::operation;

namespace
{

constexpr std::size_t max_alias_length = 1024;
// The largest compression buffer a thread keeps from one record to the next.
constexpr std::size_t max_kept_compression = 1 << 20;

// The relaxed alias check of batches: a status, never a throw.
zlk_error_t batch_alias(const char * alias, alias_bytes & out) noexcept
{
    if (alias == nullptr)
    {
        return zlk_e_invalid_argument;
    }
    const std::size_t length = ::strnlen(alias, max_alias_length + 1);
    if (length + 1 < 2)
    {
        return zlk_e_invalid_argument;
    }
    if (length > max_alias_length)
    {
        return zlk_e_alias_too_long;
    }
    out = wire_alias(alias, length + 1);
    return zlk_e_ok;
}

bool is_reserved(alias_bytes a) noexcept
{
    return a.size() >= 3 &&
           std::string_view(reinterpret_cast<const char *>(a.data()), 2) == kernel::reserved_alias_mark;
}

bool allows_reserved(zlk_operation_type_t type) noexcept
{
    return type == zlk_op_blob_get || type == zlk_op_entry_info_of || type == zlk_op_entry_info;
}

} // namespace

bool kind_has_content(zlk_operation_type_t type) noexcept
{
    return type == zlk_op_blob_get || type == zlk_op_blob_cas || type == zlk_op_blob_get_and_update ||
           type == zlk_op_entry_info || type == zlk_op_entry_info_of;
}

zlk_error_t prepare_batch_record(const zlk_operation_t & op, std::size_t index, bool compress,
                                 std::uint16_t access, batch_item & out)
{
    out.index = index;
    alias_bytes alias;
    if (const zlk_error_t e = batch_alias(op.alias, alias); ZLK_FAILURE(e))
    {
        return e;
    }
    if (is_reserved(alias) && !allows_reserved(op.type))
    {
        return zlk_e_reserved_alias;
    }
    out.key = chord::alias_hash(reinterpret_cast<const char *>(alias.data()), alias.size());
    out.required_access = access;
    const auto & f = op.fields;
    switch (op.type)
    {
    case zlk_op_blob_get:
        out.body = get_body(0, 0, kernel::entry_type::blob);
        break;
    case zlk_op_blob_put:
    case zlk_op_blob_update:
    {
        const zlk_blob_put_op_t & p = op.type == zlk_op_blob_put ? f.blob_put : f.blob_update;
        if (p.content == nullptr && p.content_length != 0)
        {
            return zlk_e_invalid_argument;
        }
        const operation op_number = op.type == zlk_op_blob_put ? operation::put : operation::update;
        // The body takes a copy of its fields, the content included: its compressed form is needed only
        // while the body is built, in a buffer of the thread's that the next record reuses.
        thread_local std::vector<std::uint8_t> compressed;
        const content_bytes content = prepare_content(p.content, p.content_length, compress, compressed);
        out.body = blob_write_body(op_number, alias, content, p.expiry_time);
        if (out.body.scattered() && content.data() == compressed.data())
        {
            // A body that points at its content needs the compressed bytes for as long as it lives.
            out.first = prepare_content(p.content, p.content_length, compress);
            out.body = blob_write_body(op_number, alias, out.first.bytes, p.expiry_time);
        }
        if (compressed.capacity() > max_kept_compression)
        {
            std::vector<std::uint8_t>().swap(compressed);
        }
        if (op.type == zlk_op_blob_put)
        {
            out.required_access |= access_put;
        }
        break;
    }
    case zlk_op_blob_cas:
        if ((f.blob_cas.new_content == nullptr && f.blob_cas.new_content_length != 0) ||
            (f.blob_cas.comparand == nullptr && f.blob_cas.comparand_length != 0))
        {
            return zlk_e_invalid_argument;
        }
        out.first = prepare_content(f.blob_cas.new_content, f.blob_cas.new_content_length, compress);
        out.second = prepare_content(f.blob_cas.comparand, f.blob_cas.comparand_length, compress);
        out.body = compare_and_swap_body(out.first.bytes, out.second.bytes, f.blob_cas.expiry_time);
        break;
    case zlk_op_blob_get_and_update:
        if (f.blob_get_and_update.new_content == nullptr && f.blob_get_and_update.new_content_length != 0)
        {
            return zlk_e_invalid_argument;
        }
        out.first = prepare_content(f.blob_get_and_update.new_content,
                                    f.blob_get_and_update.new_content_length, compress);
        out.body = get_and_update_body(out.first.bytes, f.blob_get_and_update.expiry_time);
        break;
    case zlk_op_entry_info_of:
    {
        alias_bytes other;
        if (const zlk_error_t e = batch_alias(f.entry_info_of.alias, other); ZLK_FAILURE(e))
        {
            return e;
        }
        out.key = chord::alias_hash(reinterpret_cast<const char *>(other.data()), other.size());
        out.body = entry_info_body();
        break;
    }
    case zlk_op_entry_info:
        out.body = entry_info_body();
        break;
    case zlk_op_int_put:
    case zlk_op_int_update:
    {
        const zlk_int_put_op_t & p = op.type == zlk_op_int_put ? f.int_put : f.int_update;
        out.body = int_write_body(op.type == zlk_op_int_put ? operation::int_put : operation::int_update,
                                  alias, p.value, p.expiry_time);
        if (op.type == zlk_op_int_put)
        {
            out.required_access |= access_put;
        }
        break;
    }
    case zlk_op_int_get:
        out.body = get_body(0, 0, kernel::entry_type::integer);
        break;
    case zlk_op_int_add:
        out.body = int_add_body(f.int_add.addend);
        break;
    default:
        return zlk_e_invalid_argument;
    }
    if (out.body.error)
    {
        return make_error_from_code(out.body.error, local_origin);
    }
    return zlk_e_ok;
}

void shuffle_groups(std::vector<node_group> & groups, std::atomic<std::uint64_t> & state) noexcept
{
    const std::size_t n = groups.size();
    if (n < 2)
    {
        return;
    }
    std::uint64_t s = state.load(std::memory_order_relaxed);
    for (std::size_t i = n - 1; i > 0; --i)
    {
        const std::uint64_t bound = i + 1;
        const std::uint64_t mask = std::bit_ceil(bound) - 1;
        std::uint64_t draw = 0;
        do
        {
            s = s * 214013 + 2531011;
            draw = (s >> 16) & mask;
        } while (draw >= bound);
        std::swap(groups[i], groups[draw]);
    }
    state.store(s, std::memory_order_relaxed);
}

zlk_error_t group_batch(chord::cluster & c, const std::vector<batch_item> & items,
                        std::vector<node_group> & groups, const zlk::uuid & transaction)
{
    groups.clear();
    for (std::size_t i = 0; i < items.size(); ++i)
    {
        const batch_item & item = items[i];
        chord::node_info owner;
        if (c.map().find_owner(item.key, 0, false, owner))
        {
            return zlk_e_unstable_cluster;
        }
        // Sorted by node id, found by binary search.
        auto at =
            std::lower_bound(groups.begin(), groups.end(), owner.id,
                             [](const node_group & g, const chord::ring_id & id) { return g.node.id < id; });
        if (at == groups.end() || at->node.id != owner.id)
        {
            at = groups.insert(at, node_group{owner, {}});
        }
        request_record r;
        r.request = chord::make_carrier(item.key, i, item.required_access, item.body, transaction);
        r.slot = item.index;
        at->records.push_back(std::move(r));
    }
    return zlk_e_ok;
}

void read_batch_reply(zlk_operation_type_t type, const protocol::result & reply,
                      const std::shared_ptr<received_buffer> & frame, batch_result & out)
{
    out.status = reply.error ? make_error_from_code(reply.error, remote_origin) : zlk_e_ok;
    out.value = reply.value;
    if ((type == zlk_op_blob_update || type == zlk_op_int_update) && out.status == zlk_e_ok &&
        reply.value != 0)
    {
        out.status = zlk_e_ok_created;
    }
    const std::span<const std::uint8_t> stored = reply.content_view();
    if (kind_has_content(type) && !stored.empty() && type != zlk_op_entry_info &&
        type != zlk_op_entry_info_of)
    {
        if (!protocol::decompress_content(stored, out.decompressed))
        {
            // Handed out where it lies: the record's view keeps the whole reply alive.
            out.view = stored;
            out.frame = frame;
        }
    }
}

namespace
{

// Writes each reply's outcome into its record's result; the batch as a whole fails only by its sends.
struct update_results_batch_policy
{
    std::vector<batch_result> * results;
    const std::vector<zlk_operation_type_t> * types;

    boost::system::error_code on_reply(const request_record & record,
                                       const chord::chord_carrier_reply & reply,
                                       const std::shared_ptr<received_buffer> & frame)
    {
        read_batch_reply((*types)[record.slot], reply.result, frame, (*results)[record.slot]);
        return {};
    }
};

} // namespace

zlk_error_t run_batch_groups(chord::cluster & c, std::vector<node_group> & groups,
                             std::vector<batch_result> & results,
                             const std::vector<zlk_operation_type_t> & types)
{
    std::vector<std::vector<std::size_t>> slots(groups.size());
    for (std::size_t g = 0; g < groups.size(); ++g)
    {
        for (const request_record & r : groups[g].records)
        {
            slots[g].push_back(r.slot);
        }
    }
    update_results_batch_policy policy{&results, &types};
    const zlk_error_t overall = chord::run_groups(c, groups, policy);
    if (ZLK_FAILURE(overall))
    {
        for (const auto & group_slots : slots)
        {
            for (const std::size_t s : group_slots)
            {
                if (results[s].status == zlk_e_operation_skipped)
                {
                    results[s].status = overall;
                }
            }
        }
    }
    return overall;
}

} // namespace zlk::client
