// zlk_init_operations, zlk_run_batch and zlk_run_transaction: operation records run together.
#include <memory>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "entries/batch.hpp"
#include "entries/transaction.hpp"
#include "log/logger.hpp"
#include "zlk/batch.h"
#include "zlk/transaction.h"

namespace
{

using zlk::api::api_call;
namespace client = zlk::client;

// Hands content to the caller, tracked under its own address: the decompressed bytes, or a view of
// the received reply kept alive by the tracker. Empty content gives null.
void hand_out(zlk_session & h, client::batch_result & r, const void *& at, size_t & length)
{
    at = nullptr;
    length = 0;
    if (!r.decompressed.empty())
    {
        const void * data = r.decompressed.data();
        const std::size_t size = r.decompressed.size();
        h.objects_tracker.track(data, r.decompressed, "associated buffer");
        at = data;
        length = size;
        return;
    }
    if (r.view.empty() || !r.frame)
    {
        return;
    }
    h.objects_tracker.track(r.view.data(), r.frame, "associated buffer");
    at = r.view.data();
    length = r.view.size();
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
            hand_out(h, r, f.blob_get.content, f.blob_get.content_length);
        }
        break;
    case zlk_op_blob_cas:
        hand_out(h, r, f.blob_cas.original_content, f.blob_cas.original_content_length);
        break;
    case zlk_op_blob_get_and_update:
        if (ZLK_SUCCESS(r.status))
        {
            hand_out(h, r, f.blob_get_and_update.original_content,
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

namespace
{

// The records of a transaction, one frame per node under the token's stamp. The first failed record (by
// position) is the transaction's failure; the records after it stay skipped, even those that a node
// already ran: the rollback undoes them. A record's slot is its position: every record was prepared.
zlk_error_t send_transaction_records(zlk_session & h, client::transaction_state & state,
                                     const client::transaction_token & token, zlk_operation_t * operations,
                                     const std::vector<client::batch_item> & items,
                                     const std::vector<zlk_operation_type_t> & types, size_t & failed_index)
{
    std::vector<client::node_group> groups;
    if (ZLK_FAILURE(client::group_batch(h.cluster, items, groups, token.stamp)))
    {
        zlk::log::log(zlk::log::level::error,
                      "could not find successor for {} while sending a transactional request",
                      items.front().key);
        return zlk_e_unstable_cluster;
    }
    std::vector<client::batch_result> results(types.size());
    std::size_t failed = items.size();
    zlk_error_t result = zlk_e_ok;
    std::vector<std::size_t> slots;
    for (client::node_group & g : groups)
    {
        // Sending consumes the group's records.
        slots.clear();
        for (const client::request_record & r : g.records)
        {
            state.touch(items[r.slot].key);
            slots.push_back(r.slot);
        }
        std::vector<client::node_group> one{std::move(g)};
        const zlk_error_t sent = client::run_batch_groups(h.cluster, one, results, types);
        for (const std::size_t slot : slots)
        {
            if (ZLK_FAILURE(results[slot].status) && slot < failed)
            {
                failed = slot;
            }
        }
        if (ZLK_FAILURE(sent) && failed == items.size())
        {
            failed = slots.front();
            results[failed].status = sent;
        }
        if (failed != items.size())
        {
            break;
        }
    }
    const std::size_t written = failed == items.size() ? items.size() : failed + 1;
    for (std::size_t i = 0; i < written; ++i)
    {
        write_back(h, operations[i], results[i]);
    }
    if (failed != items.size())
    {
        failed_index = failed;
        result = results[failed].status;
    }
    return result;
}

} // namespace

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
                                return state.end(send_transaction_records(h, state, token, operations, items,
                                                                          types, *failed_index));
                            });
                    });
}
