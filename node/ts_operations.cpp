#include "node/ts_operations.hpp"

#include <algorithm>
#include <atomic>

#include "base/alias_hash.hpp"
#include "base/error_categories.hpp"
#include "log/logger.hpp"
#include "node/node_state.hpp"
#include "node/sync_client.hpp"
#include "timeseries/codec/bucket.hpp"
#include "timeseries/codec/ts_messages.hpp"
#include "wire/operation_body.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;
using kernel::entry_type;
using protocol::operation;
namespace ser = zlk::serialization;
namespace ts = zlk::timeseries;

namespace
{

error_code kernel_error(kernel::error e) noexcept
{
    return make_error_code(e);
}

constexpr std::uint16_t number(operation op) noexcept
{
    return static_cast<std::uint16_t>(op);
}

// Tables made on this node, in order: a table dropped and made again gets another tag.
std::atomic<std::uint64_t> table_serial{0};

// The table entry's content is the listing reply itself (ts_messages: encode_table_listing), so that
// ts_list_columns answers it as it stands.
std::vector<std::uint8_t> encode_schema(const ts_table_schema & s)
{
    std::vector<ts::listed_column> listed;
    listed.reserve(s.columns.size());
    for (const auto & c : s.columns)
    {
        listed.push_back({c.name, c.type, c.index});
    }
    std::vector<std::uint8_t> out;
    ts::encode_table_listing(out, s.tag, s.shard_size, listed);
    return out;
}

error_code decode_schema(std::span<const std::uint8_t> content, ts_table_schema & out)
{
    ts::table_listing listing;
    if (error_code ec = ts::decode_table_listing(content, listing))
    {
        return ec;
    }
    out.tag = listing.tag;
    out.shard_size = listing.shard_size;
    out.columns.clear();
    out.columns.reserve(listing.columns.size());
    for (const auto & c : listing.columns)
    {
        out.columns.push_back({std::string(c.name), c.type, c.index});
    }
    return {};
}

error_code require_table(const entry_store::view & v) noexcept
{
    if (!v.entry)
    {
        return kernel_error(kernel::error::not_found);
    }
    if (v.entry->type != entry_type::table)
    {
        return kernel_error(kernel::error::incompatible_type);
    }
    return {};
}

// The schema of the table the view holds, after the checks of require_table.
error_code table_schema(const entry_store::view & v, ts_table_schema & out)
{
    if (error_code ec = require_table(v))
    {
        return ec;
    }
    return decode_schema(v.entry->content, out);
}

// Names must be present, and unique among themselves and against `existing`.
error_code check_new_columns(std::span<const ts::column_description> columns,
                             const ts_table_schema * existing) noexcept
{
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        if (columns[i].name.empty())
        {
            return kernel_error(kernel::error::unexpected_value);
        }
        for (std::size_t j = 0; j < i; ++j)
        {
            if (columns[j].name == columns[i].name)
            {
                return kernel_error(kernel::error::unexpected_value);
            }
        }
        if (existing && existing->find(columns[i].name))
        {
            return kernel_error(kernel::error::already_exists);
        }
    }
    return {};
}

void append_columns(ts_table_schema & s, std::span<const ts::column_description> columns)
{
    std::uint64_t next = 0;
    for (const auto & c : s.columns)
    {
        next = std::max(next, c.index + 1);
    }
    for (const auto & c : columns)
    {
        s.columns.push_back({std::string(c.name), c.type, next++});
    }
}

// Asks the owner of the table for its listing, over a connection of its own.
error_code fetch_schema(operation_context & ctx, const chord::node_info & owner, std::string_view table,
                        ts_table_schema & out)
{
    const protocol::operation_body body = ts::build_list_columns(table);
    if (body.error)
    {
        return body.error;
    }
    const chord::chord_carrier_request carrier = chord::make_carrier(ts::table_id(table), 0, 0, body);
    sync_client client(ctx.settings().peer_timeout);
    if (error_code ec = client.connect(owner.endpoint))
    {
        return ec;
    }
    std::vector<std::uint8_t> buffer;
    protocol::message reply;
    if (error_code ec = client.exchange(protocol::message{carrier}, buffer, reply))
    {
        return ec;
    }
    if (const auto * r = std::get_if<chord::chord_carrier_reply>(&reply))
    {
        if (r->result.error)
        {
            return r->result.error;
        }
        return decode_schema(r->result.content_view(), out);
    }
    if (const auto * refusal = std::get_if<protocol::result>(&reply); refusal && refusal->error)
    {
        return refusal->error;
    }
    return make_error_code(chord::error::unexpected_reply);
}

class ts_handlers
{
public:
    explicit ts_handlers(ts_context ts)
        : _ts(std::move(ts))
    {
    }

    const ts_context & context() const noexcept { return _ts; }

    // ---- tables ----

    void create(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        ts::table_columns_fields f;
        if ((reply.error = ts::decode_create_table(c, f)))
        {
            return;
        }
        if (f.shard_size == 0 || f.shard_size > static_cast<std::uint64_t>(INT64_MAX))
        {
            reply.error = kernel_error(kernel::error::unexpected_value);
            return;
        }
        if ((reply.error = check_new_columns(f.columns, nullptr)))
        {
            return;
        }
        write_table(ctx, reply,
                    [&](entry_store::view & v) -> error_code
                    {
                        if (v.entry)
                        {
                            return kernel_error(kernel::error::already_exists);
                        }
                        ts_table_schema s;
                        s.tag = table_serial.fetch_add(1, std::memory_order_relaxed) + 1;
                        s.shard_size = f.shard_size;
                        append_columns(s, f.columns);
                        v.entry.emplace();
                        v.entry->type = entry_type::table;
                        v.entry->alias = std::string(f.alias);
                        v.entry->content = encode_schema(s);
                        v.changed = true;
                        return {};
                    });
    }

    void insert_columns(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        ts::table_columns_fields f;
        if ((reply.error = ts::decode_insert_columns(c, f)))
        {
            return;
        }
        write_table(ctx, reply,
                    [&](entry_store::view & v) -> error_code
                    {
                        ts_table_schema s;
                        if (error_code ec = table_schema(v, s))
                        {
                            return ec;
                        }
                        if (error_code ec = check_new_columns(f.columns, &s))
                        {
                            return ec;
                        }
                        if (f.columns.empty())
                        {
                            return {};
                        }
                        append_columns(s, f.columns);
                        v.entry->content = encode_schema(s);
                        v.changed = true;
                        return {};
                    });
    }

    void list_columns(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view alias;
        if ((reply.error = ts::decode_list_columns(c, alias)))
        {
            return;
        }
        reply.error =
            _ts.entries->apply(ctx.request().key, ctx.request().transaction, false,
                               [&](entry_store::view & v) -> error_code
                               {
                                   if (error_code ec = require_table(v))
                                   {
                                       return ec;
                                   }
                                   ctx.content().assign(v.entry->content.begin(), v.entry->content.end());
                                   return {};
                               });
    }

    void shard_info(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view column;
        if ((reply.error = ts::decode_shard_info(c, column)))
        {
            return;
        }
        reply.error =
            _ts.entries->apply(ctx.request().key, ctx.request().transaction, false,
                               [&](entry_store::view & v) -> error_code
                               {
                                   ts_table_schema s;
                                   if (error_code ec = table_schema(v, s))
                                   {
                                       return ec;
                                   }
                                   const ts_column_schema * col = s.find(column);
                                   if (!col)
                                   {
                                       return kernel_error(kernel::error::column_not_found);
                                   }
                                   ts::encode_shard_info(ctx.content(), s.shard_size, col->type, col->index);
                                   return {};
                               });
    }

    void expire_by_size(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view alias;
        std::uint64_t limit = 0;
        if ((reply.error = ts::decode_expire_by_size(c, alias, limit)))
        {
            return;
        }
        reply.value = _ts.buckets->expire_by_size(ts::bucket_prefix(ts::table_id(alias)), limit);
    }

    void drop_buckets(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::string_view alias;
        if ((reply.error = ts::decode_drop_buckets(c, alias)))
        {
            return;
        }
        drop_local(alias, reply.value);
    }

    void drop_local(std::string_view alias, std::uint64_t & dropped)
    {
        dropped = _ts.buckets->drop_prefix(ts::bucket_prefix(ts::table_id(alias)));
        _ts.buckets->forget_schema(alias);
    }

    // Tells every member (this one directly) to drop the table's buckets. A member that can't be
    // reached keeps them; they are unreachable by key once the table is made again with a new tag,
    // and a later drop of the same name takes them.
    void drop_everywhere(operation_context & ctx, std::string_view alias)
    {
        std::uint64_t dropped = 0;
        drop_local(alias, dropped);
        const protocol::operation_body body = ts::build_drop_buckets(alias);
        if (body.error)
        {
            return;
        }
        const chord::chord_carrier_request carrier = chord::make_carrier(chord::ring_id{}, 0, 0, body);
        const auto ring = ctx.node().ring();
        for (const chord::node_info & member : ring->members())
        {
            if (member.id == ctx.self().id)
            {
                continue;
            }
            const forward_outcome outcome = ctx.node().peers().forward(member.endpoint, carrier);
            if (!outcome.ok())
            {
                log::log(log::level::warning, "could not drop the buckets of table {} on {}: {}", alias,
                         member.id, (outcome.transport ? outcome.transport : outcome.remote).message());
            }
        }
    }

    // ---- columns ----

    void column_insert(operation_context & ctx, protocol::result & reply, kernel::column_type op_type)
    {
        ser::cursor c = ctx.fields();
        ts::decoded_column_insert f;
        if ((reply.error = ts::decode_column_insert(c, op_type, f)))
        {
            return;
        }
        if (f.value_count != f.offsets.size())
        {
            reply.error = kernel_error(kernel::error::unexpected_value);
            return;
        }
        if ((reply.error = check_bucket_key(ctx, f.alias, f.bucket_key)))
        {
            return;
        }
        kernel::column_type type = op_type;
        if (!ctx.is_replica_copy())
        {
            const ts_column_schema * col = nullptr;
            std::shared_ptr<const ts_table_schema> schema;
            if ((reply.error = column_of(ctx, f.alias, f.index, schema, col)))
            {
                return;
            }
            // 111 serves both byte-string types.
            const bool matches =
                kernel::holds_bytes(op_type) ? kernel::holds_bytes(col->type) : col->type == op_type;
            if (!matches)
            {
                reply.error = kernel_error(kernel::error::incompatible_type);
                return;
            }
            type = col->type;
        }
        else if (kernel::holds_bytes(op_type))
        {
            // A replica takes the type the bucket already has for the column, blob when it is new.
            _ts.buckets->with_bucket(ctx.request().key, false, {},
                                     [&](ts_bucket * b) -> error_code
                                     {
                                         if (b)
                                         {
                                             if (const auto it = b->columns.find(f.index);
                                                 it != b->columns.end())
                                             {
                                                 type = it->second.type;
                                             }
                                         }
                                         return {};
                                     });
        }
        const ts_incoming_values values{f.fixed, f.bytes};
        reply.error = _ts.buckets->with_bucket(
            ctx.request().key, true,
            [&](ts_bucket & b)
            {
                b.key = std::string(f.bucket_key);
                b.table = std::string(f.alias);
                b.shard_start = f.shard_start;
                b.shard_size = f.shard_size;
            },
            [&](ts_bucket * b) { return b->merge(f.index, type, f.offsets, values); });
        if (!reply.error)
        {
            reply.error = ctx.replicate();
        }
    }

    void erase_ranges(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        ts::decoded_erase_ranges f;
        if ((reply.error = ts::decode_erase_ranges(c, f)))
        {
            return;
        }
        std::uint64_t erased = 0;
        reply.error = _ts.buckets->with_bucket(
            ctx.request().key, false, {},
            [&](ts_bucket * b) -> error_code
            {
                if (!b)
                {
                    return {};
                }
                for (const zlk_ts_range_t & r : f.ranges)
                {
                    const std::int64_t begin = ts::offset_of(b->shard_start, r.begin);
                    const std::int64_t end = ts::offset_of(b->shard_start, r.end);
                    if (f.flag != ts::erase_one_column)
                    {
                        erased += b->erase_between(begin, end);
                    }
                    else if (auto it = b->columns.find(f.index); it != b->columns.end())
                    {
                        erased += it->second.erase_between(begin, end);
                    }
                }
                return {};
            });
        reply.value = erased;
        if (!reply.error && erased != 0)
        {
            reply.error = ctx.replicate();
        }
    }

    void get_ranges(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        ts::decoded_get_ranges f;
        if ((reply.error = ts::decode_get_ranges(c, f)))
        {
            return;
        }
        std::vector<std::uint8_t> & out = ctx.content();
        reply.error = _ts.buckets->with_bucket(
            ctx.request().key, false, {},
            [&](ts_bucket * b) -> error_code
            {
                ts::encode_rows_count(out, f.columns.size());
                for (const ts::wire_column & want : f.columns)
                {
                    const ts_column_data * column = nullptr;
                    if (b)
                    {
                        if (const auto it = b->columns.find(want.index); it != b->columns.end())
                        {
                            column = &it->second;
                        }
                    }
                    // Blob and string rows are stored alike; a replica may have taken one for the other.
                    if (column && column->type != want.type &&
                        !(kernel::holds_bytes(column->type) && kernel::holds_bytes(want.type)))
                    {
                        return kernel_error(kernel::error::incompatible_type);
                    }
                    collect_rows(b, column, f.ranges, f.row_limit);
                    write_rows(out, want, column);
                }
                return {};
            });
        if (reply.error)
        {
            out.clear();
        }
    }

    void get_timestamps(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        ts::decoded_get_timestamps f;
        if ((reply.error = ts::decode_get_timestamps(c, f)))
        {
            return;
        }
        if (f.columns.size() != 1)
        {
            reply.error = kernel_error(kernel::error::unexpected_value);
            return;
        }
        std::vector<std::uint8_t> & out = ctx.content();
        reply.error = _ts.buckets->with_bucket(
            ctx.request().key, false, {},
            [&](ts_bucket * b) -> error_code
            {
                const ts_column_data * column = nullptr;
                if (b)
                {
                    if (const auto it = b->columns.find(f.columns[0].index); it != b->columns.end())
                    {
                        column = &it->second;
                    }
                }
                collect_rows(b, column, f.ranges, 0);
                ts::content_writer w(out);
                w.put_varint(_rows);
                if (column)
                {
                    for (const auto & [first, last] : _spans)
                    {
                        w.put_raw(column->offsets.data() + first, (last - first) * sizeof(std::int64_t));
                    }
                }
                return {};
            });
    }

    // ---- schemas on bucket nodes ----

    error_code schema(operation_context & ctx, std::string_view table, bool refresh,
                      std::shared_ptr<const ts_table_schema> & out)
    {
        const chord::ring_id id = ts::table_id(table);
        const auto ring = ctx.node().ring();
        if (ring->members().empty())
        {
            return make_error_code(chord::error::node_not_found);
        }
        const chord::node_info & owner = ring->members()[ring->owner_index(id)];
        if (owner.id == ctx.self().id)
        {
            auto s = std::make_shared<ts_table_schema>();
            const error_code ec =
                _ts.entries->apply(id, zlk::uuid{}, false,
                                   [&](entry_store::view & v) -> error_code { return table_schema(v, *s); });
            if (!ec)
            {
                out = std::move(s);
            }
            return ec;
        }
        if (!refresh)
        {
            if (auto cached = _ts.buckets->cached_schema(table))
            {
                out = std::move(cached);
                return {};
            }
        }
        auto s = std::make_shared<ts_table_schema>();
        if (error_code ec = fetch_schema(ctx, owner, table, *s))
        {
            return ec;
        }
        _ts.buckets->cache_schema(table, s);
        out = std::move(s);
        return {};
    }

private:
    template <typename Op>
    void write_table(operation_context & ctx, protocol::result & reply, Op && op)
    {
        bool changed = false;
        reply.error = _ts.entries->apply(ctx.request().key, ctx.request().transaction, true,
                                         [&](entry_store::view & v) -> error_code
                                         {
                                             const error_code ec = op(v);
                                             changed = v.changed;
                                             return ec;
                                         });
        if (!reply.error && changed)
        {
            reply.error = ctx.replicate();
        }
    }

    // The bucket key must name the table and be the key the request is routed by.
    static error_code check_bucket_key(const operation_context & ctx, std::string_view alias,
                                       std::string_view key) noexcept
    {
        if (ts::table_of_bucket_key(key) != ts::table_id(alias) ||
            chord::alias_hash(key) != ctx.request().key)
        {
            return kernel_error(kernel::error::unexpected_value);
        }
        return {};
    }

    // The column by index; the cached schema is refreshed once when it doesn't know the index.
    error_code column_of(operation_context & ctx, std::string_view table, std::uint64_t index,
                         std::shared_ptr<const ts_table_schema> & schema, const ts_column_schema *& col)
    {
        if (error_code ec = this->schema(ctx, table, false, schema))
        {
            return ec;
        }
        col = schema->find(index);
        if (!col)
        {
            if (error_code ec = this->schema(ctx, table, true, schema))
            {
                return ec;
            }
            col = schema->find(index);
        }
        return col ? error_code{} : kernel_error(kernel::error::column_not_found);
    }

    // The row spans of the ranges in the column, in range order, cut at `limit` rows (0: none). Into
    // _spans and _rows, reused between requests of this thread.
    void collect_rows(const ts_bucket * b, const ts_column_data * column,
                      std::span<const zlk_ts_range_t> ranges, std::uint64_t limit)
    {
        _spans.clear();
        _rows = 0;
        if (!b || !column)
        {
            return;
        }
        for (const zlk_ts_range_t & r : ranges)
        {
            auto [first, last] = column->rows_between(ts::offset_of(b->shard_start, r.begin),
                                                      ts::offset_of(b->shard_start, r.end));
            if (limit != 0 && _rows + (last - first) > limit)
            {
                last = first + static_cast<std::size_t>(limit - _rows);
            }
            if (first != last)
            {
                _spans.emplace_back(first, last);
                _rows += last - first;
            }
            if (limit != 0 && _rows >= limit)
            {
                break;
            }
        }
    }

    void write_rows(std::vector<std::uint8_t> & out, const ts::wire_column & want,
                    const ts_column_data * column)
    {
        ts::encode_rows_head(out, want, _rows);
        if (!column)
        {
            return;
        }
        ts::content_writer w(out);
        for (const auto & [first, last] : _spans)
        {
            w.put_raw(column->offsets.data() + first, (last - first) * sizeof(std::int64_t));
        }
        for (const auto & [first, last] : _spans)
        {
            switch (column->type)
            {
            case kernel::column_type::double_:
                w.put_raw(column->doubles.data() + first, (last - first) * sizeof(double));
                break;
            case kernel::column_type::int64:
                w.put_raw(column->integers.data() + first, (last - first) * sizeof(std::int64_t));
                break;
            case kernel::column_type::timestamp:
                w.put_raw(column->timestamps.data() + first, (last - first) * sizeof(timespec));
                break;
            case kernel::column_type::blob:
            case kernel::column_type::string:
                for (std::size_t i = first; i < last; ++i)
                {
                    w.put_bytes(column->bytes[i].data(), column->bytes[i].size());
                }
                break;
            }
        }
    }

    ts_context _ts;
    static thread_local std::vector<std::pair<std::size_t, std::size_t>> _spans;
    static thread_local std::size_t _rows;
};

thread_local std::vector<std::pair<std::size_t, std::size_t>> ts_handlers::_spans;
thread_local std::size_t ts_handlers::_rows = 0;

// A removal of a table entry (whatever asked for it) takes the table's buckets along: the alias is
// read before the removal runs, since the removal answers only the removed entry's type.
void wrap_removal(operation_registry & registry, std::uint16_t op, std::shared_ptr<ts_handlers> h)
{
    const operation_registry::entry * found = registry.find(op);
    if (!found)
    {
        return;
    }
    operation_handler inner = found->handler;
    registry.add(
        op,
        [inner, h](operation_context & ctx, protocol::result & reply)
        {
            std::string table;
            if (!ctx.is_replica_copy())
            {
                (void)h->context().entries->apply(ctx.request().key, zlk::uuid{}, false,
                                                  [&](entry_store::view & v) -> error_code
                                                  {
                                                      if (v.entry && v.entry->type == entry_type::table)
                                                      {
                                                          table = v.entry->alias;
                                                      }
                                                      return {};
                                                  });
            }
            inner(ctx, reply);
            if (!reply.error && !table.empty() &&
                reply.value == static_cast<std::uint64_t>(entry_type::table))
            {
                h->drop_everywhere(ctx, table);
            }
        },
        handler_mode::may_wait);
}

} // namespace

boost::system::error_code table_schema(operation_context & ctx, const ts_context & ts, std::string_view table,
                                       bool refresh, std::shared_ptr<const ts_table_schema> & out)
{
    ts_handlers h(ts);
    return h.schema(ctx, table, refresh, out);
}

void add_ts_operations(operation_registry & registry, const ts_context & ts)
{
    auto h = std::make_shared<ts_handlers>(ts);
    const auto waits = handler_mode::may_wait;
    registry.add(
        number(operation::ts_create), [h](operation_context & c, protocol::result & r) { h->create(c, r); },
        waits);
    registry.add(
        number(operation::ts_insert_columns),
        [h](operation_context & c, protocol::result & r) { h->insert_columns(c, r); }, waits);
    registry.add(number(operation::ts_list_columns),
                 [h](operation_context & c, protocol::result & r) { h->list_columns(c, r); });
    registry.add(number(operation::ts_shard_info),
                 [h](operation_context & c, protocol::result & r) { h->shard_info(c, r); });
    registry.add(number(operation::ts_expire_by_size),
                 [h](operation_context & c, protocol::result & r) { h->expire_by_size(c, r); });
    registry.add(ts::ts_drop_buckets,
                 [h](operation_context & c, protocol::result & r) { h->drop_buckets(c, r); });
    for (const kernel::column_type t : {kernel::column_type::blob, kernel::column_type::double_,
                                        kernel::column_type::int64, kernel::column_type::timestamp})
    {
        registry.add(
            number(ts::column_insert_operation(t)),
            [h, t](operation_context & c, protocol::result & r) { h->column_insert(c, r, t); }, waits);
    }
    registry.add(
        number(operation::ts_erase_ranges),
        [h](operation_context & c, protocol::result & r) { h->erase_ranges(c, r); }, waits);
    registry.add(number(operation::ts_get_ranges),
                 [h](operation_context & c, protocol::result & r) { h->get_ranges(c, r); });
    registry.add(number(operation::ts_get_timestamps),
                 [h](operation_context & c, protocol::result & r) { h->get_timestamps(c, r); });
    for (const operation op : {operation::remove, operation::get_and_remove, operation::remove_if})
    {
        wrap_removal(registry, number(op), h);
    }

    add_ts_aggregate_operations(registry, ts);
    add_ts_shard_write_operations(registry, ts);
}

} // namespace zlk::node
