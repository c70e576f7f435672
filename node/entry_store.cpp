#include "node/entry_store.hpp"

#include <cstring>

#include "api/error_categories.hpp"

namespace zlk::node
{

using boost::system::error_code;

std::int64_t stored_entry::integer() const noexcept
{
    std::int64_t v = 0;
    if (content.size() == sizeof(v))
    {
        std::memcpy(&v, content.data(), sizeof(v));
    }
    return v;
}

void stored_entry::set_integer(std::int64_t v)
{
    content.resize(sizeof(v));
    std::memcpy(content.data(), &v, sizeof(v));
}

namespace
{

timespec system_now()
{
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    return timespec{ns / 1000000000, ns % 1000000000};
}

bool before_or_at(const timespec & a, const timespec & b) noexcept
{
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec <= b.tv_nsec);
}

} // namespace

entry_store::entry_store(entry_store_limits limits, clock now)
    : _limits(limits)
    , _now(now ? std::move(now) : clock(&system_now))
{
}

timespec entry_store::now() const
{
    return _now();
}

entry_store::shard & entry_store::shard_of(const chord::ring_id & key) noexcept
{
    return _shards[key_hash{}(key) % shard_count];
}

bool entry_store::expired(const stored_entry & e, const timespec & now) const noexcept
{
    const bool never = e.expiry.tv_sec == 0 && e.expiry.tv_nsec == 0;
    return !never && before_or_at(e.expiry, now);
}

bool entry_store::abandoned(const staged & p, const timespec & now) const noexcept
{
    return now.tv_sec - p.since.tv_sec >= _limits.abandoned_after_seconds;
}

error_code entry_store::apply(const chord::ring_id & key, const zlk::uuid & stamp, bool writes,
                              const std::function<error_code(view &)> & op)
{
    shard & s = shard_of(key);
    const timespec now = _now();
    std::lock_guard lock{s.mutex};
    slot & sl = s.slots[key];

    const bool transactional = !stamp.is_none();
    if (sl.pending && sl.pending->stamp != stamp && abandoned(*sl.pending, now))
    {
        sl.pending.reset();
    }
    const bool held_by_other = sl.pending.has_value() && sl.pending->stamp != stamp;
    if (held_by_other && (writes || transactional))
    {
        return make_error_code(kernel::error::conflict);
    }
    if (sl.committed && expired(*sl.committed, now))
    {
        sl.committed.reset();
    }

    view v;
    v.now = now;
    const bool own_pending = transactional && sl.pending.has_value();
    v.entry = own_pending ? sl.pending->value : sl.committed;
    if (v.entry && expired(*v.entry, now))
    {
        v.entry.reset();
    }

    const error_code ec = op(v);
    if (!ec && v.changed)
    {
        if (v.entry)
        {
            v.entry->modified = now;
            ++v.entry->version;
        }
        if (transactional)
        {
            if (!sl.pending)
            {
                // Built whole: clang takes a nested type with member initialisers for not default
                // constructible inside its enclosing class.
                staged fresh{stamp, now, false, std::nullopt};
                sl.pending = std::move(fresh);
            }
            sl.pending->value = std::move(v.entry);
        }
        else
        {
            sl.committed = std::move(v.entry);
        }
    }
    if (!sl.committed && !sl.pending)
    {
        s.slots.erase(key);
    }
    return ec;
}

error_code entry_store::set_transaction_state(const chord::ring_id & key, const zlk::uuid & stamp,
                                              transaction_step step)
{
    shard & s = shard_of(key);
    std::lock_guard lock{s.mutex};
    const auto it = s.slots.find(key);
    if (it == s.slots.end() || !it->second.pending || it->second.pending->stamp != stamp)
    {
        if (it != s.slots.end() && it->second.pending && step == transaction_step::precommit)
        {
            // Another transaction got there first and holds the key.
            return make_error_code(kernel::error::conflict);
        }
        return {};
    }
    slot & sl = it->second;
    switch (step)
    {
    case transaction_step::precommit:
        sl.pending->precommitted = true;
        break;
    case transaction_step::commit:
    case transaction_step::commit_single:
        sl.committed = std::move(sl.pending->value);
        sl.pending.reset();
        break;
    case transaction_step::rollback:
        sl.pending.reset();
        break;
    default:
        return make_error_code(kernel::error::unexpected_value);
    }
    if (!sl.committed && !sl.pending)
    {
        s.slots.erase(it);
    }
    return {};
}

std::size_t entry_store::size() const
{
    const timespec now = _now();
    std::size_t n = 0;
    for (const shard & s : _shards)
    {
        std::lock_guard lock{s.mutex};
        for (const auto & [key, sl] : s.slots)
        {
            n += sl.committed && !expired(*sl.committed, now) ? 1 : 0;
        }
    }
    return n;
}

} // namespace zlk::node
