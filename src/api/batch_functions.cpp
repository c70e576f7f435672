// zlk_init_operations, zlk_run_batch and zlk_run_transaction: operation records run together.
#include <memory>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "entries/batch.hpp"
#include "entries/transaction.hpp"
#include "zlk/batch.h"
#include "zlk/transaction.h"

namespace
{

using zlk::api::api_call;
namespace client = zlk::client;

// Hands content to the caller, tracked under its own address; empty content gives null.
void hand_out(zlk_session & h, std::vector<std::uint8_t> & content, const void *& at, size_t & length)
{
    at = nullptr;
    length = 0;
    if (content.empty())
    {
        return;
    }
    auto owned = std::make_unique<std::vector<std::uint8_t>>(std::move(content));
    const void * data = owned->data();
    const std::size_t size = owned->size();
    h.objects_tracker.track(data, owned, "associated buffer");
    at = data;
    length = size;
}

// Copies one record's result into the caller's record.
void write_back(zlk_session & h, zlk_operation_t & op, client::batch_result & r)
{
    op.error = r.status;
    auto & f = op.fields;
    switch (op.type)
    {
    case zlk_op_blob_get:
        if (ZLK_SUCCESS(r.status))
        {
            hand_out(h, r.content, f.blob_get.content, f.blob_get.content_length);
        }
        break;
    case zlk_op_blob_cas:
        hand_out(h, r.content, f.blob_cas.original_content, f.blob_cas.original_content_length);
        break;
    case zlk_op_blob_get_and_update:
        if (ZLK_SUCCESS(r.status))
        {
            hand_out(h, r.content, f.blob_get_and_update.original_content,
                     f.blob_get_and_update.original_content_length);
        }
        break;
    case zlk_op_int_get:
        if (ZLK_SUCCESS(r.status))
        {
            f.int_get.result = static_cast<int64_t>(r.value);
        }
        break;
    case zlk_op_int_add:
        if (ZLK_SUCCESS(r.status))
        {
            f.int_add.result = static_cast<int64_t>(r.value);
        }
        break;
    default:
        break;
    }
}

// Prepares the records in order until one fails: that one gets its status, the later ones stay skipped.
// Returns the failure, or 0.
zlk_error_t prepare_records(zlk_session & h, zlk_operation_t * operations, size_t count, std::uint16_t access,
                            std::vector<client::batch_item> & items,
                            std::vector<zlk_operation_type_t> & types, size_t & failed)
{
    const bool compress = zlk::api::compression_enabled(h);
    items.clear();
    types.assign(count, zlk_op_uninitialized);
    for (size_t i = 0; i < count; ++i)
    {
        operations[i].error = zlk_e_operation_skipped;
    }
    for (size_t i = 0; i < count; ++i)
    {
        types[i] = operations[i].type;
        client::batch_item item;
        const zlk_error_t e = client::prepare_batch_record(operations[i], i, compress, access, item);
        if (ZLK_FAILURE(e))
        {
            operations[i].error = e;
            failed = i;
            return e;
        }
        items.push_back(std::move(item));
    }
    return zlk_e_ok;
}

bool counts_as_success(zlk_error_t e) noexcept
{
    return e == zlk_e_ok || e == zlk_e_ok_created;
}

} // namespace

zlk_error_t zlk_init_operations(zlk_operation_t * operations, size_t count) noexcept
{
    return zlk::api::api_call_no_handle("zlk_init_operations",
                                        [&]() -> zlk_error_t
                                        {
                                            if (!operations)
                                            {
                                                zlk::api::check_content(operations, count, "operations");
                                                return zlk_e_invalid_argument;
                                            }
                                            for (size_t i = 0; i < count; ++i)
                                            {
                                                operations[i] = zlk_operation_t{};
                                                operations[i].type = zlk_op_uninitialized;
                                                operations[i].error = zlk_e_uninitialized;
                                            }
                                            return zlk_e_ok;
                                        });
}

size_t zlk_run_batch(zlk_handle_t handle, zlk_operation_t * operations, size_t count) noexcept
{
    size_t succeeded = 0;
    api_call(handle, "zlk_run_batch",
             [&]() -> zlk_error_t
             {
                 zlk::api::check_content(operations, count, "operations");
                 if (count == 0)
                 {
                     return zlk_e_ok;
                 }
                 zlk_session & h = *handle;
                 const zlk_error_t result = zlk::api::run_with_retries(
                     h,
                     [&]() -> zlk_error_t
                     {
                         std::vector<client::batch_item> items;
                         std::vector<zlk_operation_type_t> types;
                         size_t failed = 0;
                         // A record that can't be prepared keeps its status; those before it still run.
                         prepare_records(h, operations, count, 0, items, types, failed);
                         if (items.empty())
                         {
                             return zlk_e_ok;
                         }
                         const zlk_error_t connected = h.cluster.ensure_connected();
                         if (ZLK_FAILURE(connected))
                         {
                             return connected;
                         }
                         std::vector<client::node_group> groups;
                         const zlk_error_t grouped = client::group_batch(h.cluster, items, groups);
                         if (ZLK_FAILURE(grouped))
                         {
                             return grouped;
                         }
                         client::shuffle_groups(groups, h.cluster.replica_random());
                         std::vector<client::batch_result> results(count);
                         const zlk_error_t overall =
                             client::run_batch_groups(h.cluster, groups, results, types);
                         for (const client::batch_item & item : items)
                         {
                             write_back(h, operations[item.index], results[item.index]);
                         }
                         return overall;
                     });
                 for (size_t i = 0; i < count; ++i)
                 {
                     succeeded += counts_as_success(operations[i].error) ? 1 : 0;
                 }
                 return result;
             });
    return succeeded;
}

zlk_error_t zlk_run_transaction(zlk_handle_t handle, zlk_operation_t * operations, size_t count,
                                size_t * failed_index) noexcept
{
    return api_call(handle, "zlk_run_transaction",
                    [&]() -> zlk_error_t
                    {
                        zlk::api::check_content(operations, count, "operations");
                        if (!failed_index)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *failed_index = 0;
                        zlk_session & h = *handle;
                        return zlk::api::run_with_retries(
                            h,
                            [&]() -> zlk_error_t
                            {
                                *failed_index = 0;
                                for (size_t i = 0; i < count; ++i)
                                {
                                    operations[i].error = zlk_e_operation_skipped;
                                }
                                if (count == 0)
                                {
                                    return zlk_e_invalid_argument;
                                }
                                std::vector<client::batch_item> items;
                                std::vector<zlk_operation_type_t> types;
                                const zlk_error_t prepared =
                                    prepare_records(h, operations, count, client::access_transaction, items,
                                                    types, *failed_index);
                                if (ZLK_FAILURE(prepared))
                                {
                                    return prepared;
                                }
                                const zlk_error_t connected = h.cluster.ensure_connected();
                                if (ZLK_FAILURE(connected))
                                {
                                    return connected;
                                }
                                client::transaction_token token;
                                const zlk_error_t built = client::build_transaction_token(
                                    h.cluster, items.front().key, true, token);
                                if (ZLK_FAILURE(built))
                                {
                                    return built;
                                }
                                client::transaction_state state(h.cluster, token);
                                std::vector<client::batch_result> results(count);
                                zlk_error_t result = zlk_e_ok;
                                for (const client::batch_item & item : items)
                                {
                                    zlk::chord::owner_reply reply;
                                    auto body = [&item] { return item.body; };
                                    const zlk_error_t r =
                                        state.send(item.key, item.required_access,
                                                   client::kind_has_content(types[item.index]), body, reply);
                                    client::batch_result & out = results[item.index];
                                    if (const zlk::chord::chord_carrier_reply * rep = reply.reply())
                                    {
                                        client::read_batch_reply(types[item.index], rep->result, out);
                                    }
                                    else
                                    {
                                        out.status = r;
                                    }
                                    write_back(h, operations[item.index], out);
                                    if (ZLK_FAILURE(r))
                                    {
                                        *failed_index = item.index;
                                        result = r;
                                        break;
                                    }
                                }
                                return state.end(result);
                            });
                    });
}
