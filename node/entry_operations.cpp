#include "node/entry_operations.hpp"

#include <algorithm>
#include <cstring>

#include "base/error_categories.hpp"
#include "node/listing_operations.hpp"
#include "wire/content_compression.hpp"
#include "wire/marshal.hpp"
#include "wire/operations.hpp"

namespace zlk::node
{

using boost::system::error_code;
using kernel::entry_type;
namespace ser = zlk::serialization;

namespace
{

error_code kernel_error(kernel::error e) noexcept
{
    return make_error_code(e);
}

// What an operation on an existing entry of one type answers first.
error_code require(const entry_store::view & v, entry_type type) noexcept
{
    if (!v.entry)
    {
        return kernel_error(kernel::error::not_found);
    }
    if (v.entry->type != type)
    {
        return kernel_error(kernel::error::incompatible_type);
    }
    return {};
}

// An expiry as written: the (0, -1) form keeps what the entry has.
struct expiry_field
{
    timespec time;
    bool preserve = false;
};

error_code read_expiry(ser::cursor & c, expiry_field & out) noexcept
{
    if (error_code ec = ser::unmarshal(c, out.time))
    {
        return ec;
    }
    out.preserve = out.time.tv_sec == 0 && out.time.tv_nsec == -1;
    return {};
}

void apply_expiry(stored_entry & e, const expiry_field & f) noexcept
{
    if (!f.preserve)
    {
        e.expiry = f.time;
    }
}

// Content compares by what it stands for: a compressed and a raw form of the same bytes match.
bool same_content(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b)
{
    if (std::ranges::equal(a, b))
    {
        return true;
    }
    std::vector<std::uint8_t> da;
    std::vector<std::uint8_t> db;
    const bool ca = protocol::decompress_content(a, da);
    const bool cb = protocol::decompress_content(b, db);
    if (!ca && !cb)
    {
        return false;
    }
    return std::ranges::equal(ca ? std::span<const std::uint8_t>(da) : a,
                              cb ? std::span<const std::uint8_t>(db) : b);
}

bool has_kind(const stored_entry & e, std::uint8_t expected) noexcept
{
    return expected == kernel::any_entry_type || static_cast<std::uint8_t>(e.type) == expected;
}

void put_content(operation_context & ctx, std::span<const std::uint8_t> bytes)
{
    ctx.content().assign(bytes.begin(), bytes.end());
}

class entry_handlers
{
public:
    explicit entry_handlers(std::shared_ptr<entry_store> store)
        : _store(std::move(store))
    {
    }

    // Runs op on the request's key in the request's transaction; replicates a write that changed the
    // entry.
    template <typename Op>
    void run(operation_context & ctx, protocol::result & reply, bool writes, Op && op)
    {
        bool changed = false;
        auto body = [&](entry_store::view & v) -> error_code
        {
            const error_code ec = op(v);
            changed = v.changed;
            return ec;
        };
        reply.error = _store->apply(ctx.request().key, ctx.request().transaction, writes, body);
        if (!reply.error && writes && changed)
        {
            reply.error = ctx.replicate();
        }
    }

    error_code check_size(std::size_t size) const noexcept
    {
        return size > _store->limits().max_entry_size ? kernel_error(kernel::error::entry_too_large)
                                                      : error_code{};
    }

    void get(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        std::uint8_t kind = 0;
        if (error_code ec = read_all(c, offset, length, kind))
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, false,
            [&](entry_store::view & v) -> error_code
            {
                if (!v.entry)
                {
                    return kernel_error(kernel::error::not_found);
                }
                if (!has_kind(*v.entry, kind))
                {
                    return kernel_error(kernel::error::incompatible_type);
                }
                if (v.entry->type == entry_type::integer)
                {
                    reply.value = static_cast<std::uint64_t>(v.entry->integer());
                    return {};
                }
                const std::span<const std::uint8_t> all(v.entry->content);
                if (offset > all.size())
                {
                    return kernel_error(kernel::error::out_of_bounds);
                }
                const std::size_t left = all.size() - offset;
                const std::size_t n = length == 0 ? left : std::min<std::uint64_t>(length, left);
                put_content(ctx, all.subspan(offset, n));
                return {};
            });
    }

    // put (30) and update (31).
    void put_blob(operation_context & ctx, protocol::result & reply, bool replace)
    {
        ser::cursor c = ctx.fields();
        std::string_view alias;
        std::span<const std::uint8_t> content;
        expiry_field expiry;
        if (error_code ec = read_alias_content_expiry(c, alias, content, expiry))
        {
            reply.error = ec;
            return;
        }
        if ((reply.error = check_size(content.size())))
        {
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (v.entry && !replace)
                {
                    return kernel_error(kernel::error::already_exists);
                }
                if (v.entry && v.entry->type != entry_type::blob)
                {
                    return kernel_error(kernel::error::incompatible_type);
                }
                reply.value = v.entry ? 0 : 1;
                if (!v.entry)
                {
                    v.entry.emplace();
                }
                v.entry->type = entry_type::blob;
                v.entry->alias = stored_alias(alias);
                v.entry->content.assign(content.begin(), content.end());
                apply_expiry(*v.entry, expiry);
                v.changed = true;
                return {};
            });
    }

    // int_put (70) and int_update (71).
    void put_integer(operation_context & ctx, protocol::result & reply, bool replace)
    {
        ser::cursor c = ctx.fields();
        std::string_view alias;
        std::int64_t value = 0;
        expiry_field expiry;
        error_code ec =
            ser::read_fields(c, alias, ser::as_fixed(value), ser::with_reader(read_expiry, expiry));
        if (ec)
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (v.entry && !replace)
                {
                    return kernel_error(kernel::error::already_exists);
                }
                if (v.entry && v.entry->type != entry_type::integer)
                {
                    return kernel_error(kernel::error::incompatible_type);
                }
                reply.value = v.entry ? 0 : 1;
                if (!v.entry)
                {
                    v.entry.emplace();
                }
                v.entry->type = entry_type::integer;
                v.entry->alias = stored_alias(alias);
                v.entry->set_integer(value);
                apply_expiry(*v.entry, expiry);
                v.changed = true;
                return {};
            });
    }

    void int_add(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::int64_t addend = 0;
        expiry_field expiry;
        error_code ec = ser::read_fields(c, ser::as_fixed(addend), ser::with_reader(read_expiry, expiry));
        if (ec)
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (const error_code e = require(v, entry_type::integer))
                {
                    return e;
                }
                std::int64_t sum = 0;
                if (__builtin_add_overflow(v.entry->integer(), addend, &sum))
                {
                    return kernel_error(addend > 0 ? kernel::error::overflow : kernel::error::underflow);
                }
                v.entry->set_integer(sum);
                apply_expiry(*v.entry, expiry);
                reply.value = static_cast<std::uint64_t>(sum);
                v.changed = true;
                return {};
            });
    }

    // remove (12) and get_and_remove (4): both name the type they expect.
    void remove(operation_context & ctx, protocol::result & reply, bool answer_content)
    {
        ser::cursor c = ctx.fields();
        std::uint8_t expected = 0;
        if ((reply.error = ser::read_u8(c, expected)))
        {
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (!v.entry)
                {
                    return kernel_error(kernel::error::not_found);
                }
                if (!has_kind(*v.entry, expected))
                {
                    return kernel_error(kernel::error::incompatible_type);
                }
                reply.value = static_cast<std::uint8_t>(v.entry->type);
                if (answer_content)
                {
                    put_content(ctx, v.entry->content);
                }
                v.entry.reset();
                v.changed = true;
                return {};
            });
    }

    void remove_if(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::span<const std::uint8_t> comparand;
        std::uint8_t flags = 0;
        error_code ec = ser::read_fields(c, comparand, flags);
        if (ec)
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (const error_code e = require(v, entry_type::blob))
                {
                    return e;
                }
                if (!same_content(v.entry->content, comparand))
                {
                    return kernel_error(kernel::error::unmatched_content);
                }
                reply.value = static_cast<std::uint8_t>(v.entry->type);
                v.entry.reset();
                v.changed = true;
                return {};
            });
    }

    void compare_and_swap(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::span<const std::uint8_t> replacement;
        std::span<const std::uint8_t> comparand;
        expiry_field expiry;
        error_code ec = ser::read_fields(c, replacement, comparand, ser::with_reader(read_expiry, expiry));
        if (ec || (ec = check_size(replacement.size())))
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (const error_code e = require(v, entry_type::blob))
                {
                    return e;
                }
                if (!same_content(v.entry->content, comparand))
                {
                    // The caller learns what is stored.
                    put_content(ctx, v.entry->content);
                    return kernel_error(kernel::error::unmatched_content);
                }
                v.entry->content.assign(replacement.begin(), replacement.end());
                apply_expiry(*v.entry, expiry);
                v.changed = true;
                return {};
            });
    }

    void get_and_update(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::span<const std::uint8_t> content;
        std::uint8_t flags = 0;
        expiry_field expiry;
        error_code ec = ser::read_fields(c, content, flags, ser::with_reader(read_expiry, expiry));
        if (ec || (ec = check_size(content.size())))
        {
            reply.error = ec;
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (const error_code e = require(v, entry_type::blob))
                {
                    return e;
                }
                put_content(ctx, v.entry->content);
                v.entry->content.assign(content.begin(), content.end());
                apply_expiry(*v.entry, expiry);
                v.changed = true;
                return {};
            });
    }

    // expires_at (11) and expires_from_now (14).
    void set_expiry(operation_context & ctx, protocol::result & reply, bool relative)
    {
        ser::cursor c = ctx.fields();
        expiry_field expiry;
        std::int64_t milliseconds = 0;
        if ((reply.error = relative ? ser::read_varint(c, milliseconds) : read_expiry(c, expiry)))
        {
            return;
        }
        run(ctx, reply, true,
            [&](entry_store::view & v) -> error_code
            {
                if (!v.entry)
                {
                    return kernel_error(kernel::error::not_found);
                }
                if (relative)
                {
                    const std::int64_t ns = v.now.tv_nsec + (milliseconds % 1000) * 1000000;
                    std::int64_t sec = v.now.tv_sec + milliseconds / 1000 + ns / 1000000000;
                    std::int64_t nsec = ns % 1000000000;
                    if (nsec < 0)
                    {
                        nsec += 1000000000;
                        --sec;
                    }
                    expiry.time = timespec{sec, nsec};
                }
                apply_expiry(*v.entry, expiry);
                v.changed = true;
                return {};
            });
    }

    void get_entry_info(operation_context & ctx, protocol::result & reply)
    {
        run(ctx, reply, false,
            [&](entry_store::view & v) -> error_code
            {
                if (!v.entry)
                {
                    return kernel_error(kernel::error::not_found);
                }
                std::vector<std::uint8_t> & out = ctx.content();
                out.resize(entry_info_size);
                std::uint8_t * p = out.data();
                for (const std::uint64_t w : ctx.request().key.words)
                {
                    ser::detail::store_le(p, w);
                    p += 8;
                }
                *p++ = static_cast<std::uint8_t>(v.entry->type);
                const std::uint64_t words[] = {
                    v.entry->content.size(),
                    static_cast<std::uint64_t>(v.entry->modified.tv_sec),
                    static_cast<std::uint64_t>(v.entry->modified.tv_nsec),
                    static_cast<std::uint64_t>(v.entry->expiry.tv_sec),
                    static_cast<std::uint64_t>(v.entry->expiry.tv_nsec),
                };
                for (const std::uint64_t w : words)
                {
                    ser::detail::store_le(p, w);
                    p += 8;
                }
                reply.value = v.entry->version;
                return {};
            });
    }

    void transaction_state(operation_context & ctx, protocol::result & reply)
    {
        ser::cursor c = ctx.fields();
        std::uint8_t step = 0;
        if ((reply.error = ser::read_u8(c, step)))
        {
            return;
        }
        if (step < 1 || step > 4 || ctx.request().transaction.is_none())
        {
            reply.error = kernel_error(kernel::error::unexpected_value);
            return;
        }
        reply.error = _store->set_transaction_state(ctx.request().key, ctx.request().transaction,
                                                    static_cast<transaction_step>(step));
        if (!reply.error)
        {
            reply.error = ctx.replicate();
        }
    }

    const std::shared_ptr<entry_store> & store() const noexcept { return _store; }

private:
    static error_code read_all(ser::cursor & c, std::uint64_t & offset, std::uint64_t & length,
                               std::uint8_t & kind) noexcept
    {
        return ser::read_fields(c, ser::as_varint(offset), ser::as_varint(length), kind);
    }

    static error_code read_alias_content_expiry(ser::cursor & c, std::string_view & alias,
                                                std::span<const std::uint8_t> & content,
                                                expiry_field & expiry) noexcept
    {
        return ser::read_fields(c, alias, content, ser::with_reader(read_expiry, expiry));
    }

    std::shared_ptr<entry_store> _store;
};

} // namespace

void add_entry_operations(operation_registry & registry, std::shared_ptr<entry_store> store)
{
    using protocol::operation;
    auto h = std::make_shared<entry_handlers>(std::move(store));
    const auto number = [](operation op) { return static_cast<std::uint16_t>(op); };
    const auto waits = handler_mode::replicates;

    registry.add(number(operation::get), [h](operation_context & c, protocol::result & r) { h->get(c, r); });
    registry.add(number(operation::get_entry_info),
                 [h](operation_context & c, protocol::result & r) { h->get_entry_info(c, r); });
    registry.add(
        number(operation::put),
        [h](operation_context & c, protocol::result & r) { h->put_blob(c, r, false); }, waits);
    registry.add(
        number(operation::update),
        [h](operation_context & c, protocol::result & r) { h->put_blob(c, r, true); }, waits);
    registry.add(
        number(operation::int_put),
        [h](operation_context & c, protocol::result & r) { h->put_integer(c, r, false); }, waits);
    registry.add(
        number(operation::int_update),
        [h](operation_context & c, protocol::result & r) { h->put_integer(c, r, true); }, waits);
    registry.add(
        number(operation::int_add), [h](operation_context & c, protocol::result & r) { h->int_add(c, r); },
        waits);
    registry.add(
        number(operation::remove),
        [h](operation_context & c, protocol::result & r) { h->remove(c, r, false); }, waits);
    registry.add(
        number(operation::get_and_remove),
        [h](operation_context & c, protocol::result & r) { h->remove(c, r, true); }, waits);
    registry.add(
        number(operation::remove_if),
        [h](operation_context & c, protocol::result & r) { h->remove_if(c, r); }, waits);
    registry.add(
        number(operation::compare_and_swap),
        [h](operation_context & c, protocol::result & r) { h->compare_and_swap(c, r); }, waits);
    registry.add(
        number(operation::get_and_update),
        [h](operation_context & c, protocol::result & r) { h->get_and_update(c, r); }, waits);
    registry.add(
        number(operation::expires_at),
        [h](operation_context & c, protocol::result & r) { h->set_expiry(c, r, false); }, waits);
    registry.add(
        number(operation::expires_from_now),
        [h](operation_context & c, protocol::result & r) { h->set_expiry(c, r, true); }, waits);
    registry.add(
        number(operation::transaction_state),
        [h](operation_context & c, protocol::result & r) { h->transaction_state(c, r); }, waits);
    add_listing_operations(registry, h->store());
    add_tag_operations(registry, h->store());
}

} // namespace zlk::node
