// Shard writes of the batch writer: ts_batch_push (128), ts_batch_push_async (129) and
// ts_batch_push_truncate (135). Each carries the rows of one chunk of one bucket; the bucket node merges
// every column's rows into the bucket in time order, after erasing the given ranges for 135.
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "base/error_categories.hpp"
#include "node/node_state.hpp"
#include "node/ts_operations.hpp"
#include "timeseries/codec/shard_write.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

namespace
{

using boost::system::error_code;
using protocol::operation;
namespace ser = zlk::serialization;

error_code try_again() noexcept
{
    return boost::system::errc::make_error_code(boost::system::errc::resource_unavailable_try_again);
}

// Nanoseconds from the bucket's start, held to the 64-bit range.
std::int64_t offset_in_bucket(const zlk_timespec_t & t, std::int64_t shard_start_ms) noexcept
{
    const __int128 ns = static_cast<__int128>(t.tv_sec) * 1000000000 + t.tv_nsec -
                        static_cast<__int128>(shard_start_ms) * 1000000;
    if (ns > std::numeric_limits<std::int64_t>::max())
    {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (ns < std::numeric_limits<std::int64_t>::min())
    {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(ns);
}

class shard_writes
{
public:
    explicit shard_writes(ts_context ts)
        : _ts(std::move(ts))
    {
    }

    void write(operation_context & ctx, protocol::result & reply)
    {
        if (refused_by_fault(ctx))
        {
            reply.error = try_again();
            return;
        }
        // Counted while it runs; only the asynchronous form is turned away when the queue is full.
        const unsigned running = _in_progress.fetch_add(1, std::memory_order_acq_rel) + 1;
        struct leave
        {
            std::atomic<unsigned> & count;
            ~leave() { count.fetch_sub(1, std::memory_order_acq_rel); }
        } guard{_in_progress};
        if (!ctx.is_replica_copy() &&
            ctx.operation() == static_cast<std::uint16_t>(operation::ts_batch_push_async) &&
            running > ctx.settings().ts_write_queue)
        {
            reply.error = try_again();
            return;
        }
        reply.error = apply(ctx);
        if (!reply.error)
        {
            reply.error = ctx.replicate();
        }
    }

private:
    static bool refused_by_fault(const operation_context & ctx)
    {
        if (ctx.is_replica_copy())
        {
            return false;
        }
        const std::shared_ptr<const fault_settings> faults = ctx.node().faults();
        if (!faults || !faults->busy_shard_writes)
        {
            return false;
        }
        std::atomic<std::uint32_t> & left = *faults->busy_shard_writes;
        std::uint32_t n = left.load(std::memory_order_relaxed);
        while (n > 0)
        {
            if (left.compare_exchange_weak(n, n - 1, std::memory_order_relaxed))
            {
                return true;
            }
        }
        return false;
    }

    error_code apply(operation_context & ctx)
    {
        std::shared_ptr<const ts_table_schema> schema;
        const auto table_known = [&](std::string_view table) -> error_code
        { return table_schema(ctx, _ts, table, false, schema); };
        bool refreshed = false;
        std::string_view table_name;
        const auto type_of = [&](std::uint64_t index, kernel::column_type & type) -> error_code
        {
            const ts_column_schema * col = schema ? schema->find(index) : nullptr;
            if (!col && !refreshed)
            {
                // A column added since the schema was cached.
                refreshed = true;
                if (error_code ec = table_schema(ctx, _ts, table_name, true, schema))
                {
                    return ec;
                }
                col = schema ? schema->find(index) : nullptr;
            }
            if (!col)
            {
                return make_error_code(kernel::error::column_not_found);
            }
            type = col->type;
            return {};
        };
        const auto remember_table = [&](std::string_view table) -> error_code
        {
            table_name = table;
            return table_known(table);
        };

        ser::cursor c = ctx.fields();
        timeseries::shard_write_view message;
        if (error_code ec =
                timeseries::decode_shard_write(c, ctx.operation(), remember_table, type_of, message))
        {
            return ec;
        }
        if (!schema)
        {
            return make_error_code(kernel::error::not_found);
        }

        const std::int64_t shard_start = message.shard_start;
        const std::uint64_t shard_size = message.has_chunk ? message.shard_size : schema->shard_size;
        const auto init = [&](ts_bucket & b)
        {
            b.key.assign(message.bucket_key);
            b.table.assign(message.table);
            b.shard_start = shard_start;
            b.shard_size = shard_size;
        };
        std::vector<ts_received_column> received(message.columns.size());
        for (std::size_t i = 0; i < received.size(); ++i)
        {
            const timeseries::shard_write_column & col = message.columns[i];
            received[i].index = col.index;
            received[i].type = col.type;
            received[i].offsets = col.offsets;
            received[i].values.fixed = col.fixed;
            received[i].values.bytes = col.bytes;
        }
        const auto write = [&](ts_bucket * b) -> error_code
        {
            if (!b)
            {
                return make_error_code(kernel::error::internal_error);
            }
            for (const zlk_ts_range_t & r : message.ranges)
            {
                b->erase_between(offset_in_bucket(r.begin, b->shard_start),
                                 offset_in_bucket(r.end, b->shard_start));
            }
            return b->merge_received(received);
        };
        return _ts.buckets->with_bucket(ctx.request().key, true, init, write);
    }

    ts_context _ts;
    std::atomic<unsigned> _in_progress{0};
};

} // namespace

void add_ts_shard_write_operations(operation_registry & registry, const ts_context & ts)
{
    auto writes = std::make_shared<shard_writes>(ts);
    for (const operation op :
         {operation::ts_batch_push, operation::ts_batch_push_async, operation::ts_batch_push_truncate})
    {
        registry.add(
            static_cast<std::uint16_t>(op),
            [writes](operation_context & ctx, protocol::result & reply) { writes->write(ctx, reply); },
            handler_mode::may_wait);
    }
}

} // namespace zlk::node
