#include "node/entry_store.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "wire/node_info.hpp"

#include "base/error_categories.hpp"

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

// The type a listing filters on: a tag link is listed under the type of entry it tags.
std::uint8_t listed_type_of(const stored_entry & e) noexcept
{
    if (e.type == kernel::entry_type::tag_link && !e.content.empty())
    {
        return e.content.front();
    }
    return static_cast<std::uint8_t>(e.type);
}

// Whether the index holds the same record for both versions of an entry.
bool indexed_alike(const stored_entry & a, const stored_entry & b) noexcept
{
    return a.type == b.type && a.expiry == b.expiry && listed_type_of(a) == listed_type_of(b) &&
           a.alias == b.alias;
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

const entry_store::shard & entry_store::shard_of(const chord::ring_id & key) const noexcept
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
    const bool transactional = !stamp.is_none();

    view v;
    v.now = now;
    auto found = writes ? s.slots.try_emplace(key).first : s.slots.find(key);
    if (found == s.slots.end())
    {
        // Nothing to see, and a read makes no slot.
        return op(v);
    }
    slot & sl = found->second;

    if (sl.pending && sl.pending->stamp != stamp && abandoned(*sl.pending, now))
    {
        sl.pending.reset();
    }
    const bool held_by_other = (sl.pending != nullptr) && sl.pending->stamp != stamp;
    if (held_by_other && (writes || transactional))
    {
        return make_error_code(kernel::error::conflict);
    }
    if (sl.committed && expired(*sl.committed, now))
    {
        sl.committed.reset();
        reindex(key, sl.committed);
    }

    const bool own_pending = transactional && (sl.pending != nullptr);
    std::optional<stored_entry> & source = own_pending ? sl.pending->value : sl.committed;
    const bool visible = source.has_value() && !expired(*source, now);
    // A read borrows the stored entry rather than copying it (its content may be large) and gives it
    // back; a write works on a copy, so that a failed write changes nothing.
    const bool lent = visible && !writes;
    if (lent)
    {
        v.entry = std::move(source);
    }
    else if (visible)
    {
        v.entry = source;
    }

    error_code ec;
    try
    {
        ec = op(v);
    }
    catch (...)
    {
        // The lent entry goes back whatever happens to the read.
        if (lent)
        {
            source = std::move(v.entry);
        }
        throw;
    }
    if (lent)
    {
        if (!ec && v.changed)
        {
            source = v.entry;
        }
        else
        {
            source = std::move(v.entry);
        }
    }
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
                sl.pending = std::make_unique<staged>(std::move(fresh));
            }
            sl.pending->value = std::move(v.entry);
        }
        else
        {
            // A rewrite that leaves what the index shows as it was (an update of the content, the
            // common case) skips the index: no record built, no index lock taken.
            const bool index_unchanged =
                writes && sl.committed && v.entry && indexed_alike(*sl.committed, *v.entry);
            sl.committed = std::move(v.entry);
            if (!index_unchanged)
            {
                reindex(key, sl.committed);
            }
        }
    }
    if (!sl.committed && !sl.pending)
    {
        s.slots.erase(found);
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
        reindex(key, sl.committed);
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

void entry_store::reindex(const chord::ring_id & key, const std::optional<stored_entry> & committed)
{
    index_change change{key, std::nullopt};
    if (committed)
    {
        // Built apart and moved in: clang doesn't take the record for default constructible inside
        // the optional of a nested type.
        index_record r;
        r.alias = committed->alias;
        const std::size_t word = std::min(r.alias.size(), sizeof(std::uint64_t));
        std::memcpy(&r.alias_head, r.alias.data(), word);
        std::memcpy(&r.alias_tail, r.alias.data() + r.alias.size() - word, word);
        r.type = committed->type;
        r.listed_type = listed_type_of(*committed);
        r.expiry = committed->expiry;
        change.record = std::move(r);
    }
    std::lock_guard lock{_index_mutex};
    _index_changes.push_back(std::move(change));
    if (_index_changes.size() >= std::max(min_index_merge, _index.size()))
    {
        merge_index_changes();
    }
}

void entry_store::merge_index_changes() const
{
    if (_index_changes.empty())
    {
        return;
    }
    std::stable_sort(_index_changes.begin(), _index_changes.end(),
                     [](const index_change & a, const index_change & b) { return a.key < b.key; });
    if (_index_changes.size() <= max_changes_in_place)
    {
        // A listing right after a write (as every removal makes) finds a change or two: each goes in
        // place, a shift of the tail, where a new index would move every record into fresh memory.
        for (std::size_t i = 0; i < _index_changes.size(); ++i)
        {
            if (i + 1 < _index_changes.size() && _index_changes[i + 1].key == _index_changes[i].key)
            {
                continue; // the last change of a key is the one that counts
            }
            index_change & change = _index_changes[i];
            const auto at =
                std::lower_bound(_index.begin(), _index.end(), change.key,
                                 [](const index_entry & e, const chord::ring_id & k) { return e.first < k; });
            const bool found = at != _index.end() && at->first == change.key;
            note_affixes(change.key, found ? &at->second : nullptr,
                         change.record ? &*change.record : nullptr);
            if (change.record && found)
            {
                at->second = std::move(*change.record);
            }
            else if (change.record)
            {
                _index.emplace(at, change.key, std::move(*change.record));
            }
            else if (found)
            {
                _index.erase(at);
            }
        }
        _index_changes.clear();
        return;
    }
    std::vector<index_entry> merged;
    merged.reserve(_index.size() + _index_changes.size());
    auto kept = _index.begin();
    for (std::size_t i = 0; i < _index_changes.size();)
    {
        // The last change of a key is the one that counts.
        std::size_t last = i;
        while (last + 1 < _index_changes.size() && _index_changes[last + 1].key == _index_changes[i].key)
        {
            ++last;
        }
        index_change & change = _index_changes[last];
        while (kept != _index.end() && kept->first < change.key)
        {
            merged.push_back(std::move(*kept++));
        }
        const bool found = kept != _index.end() && kept->first == change.key;
        note_affixes(change.key, found ? &kept->second : nullptr, change.record ? &*change.record : nullptr);
        if (found)
        {
            ++kept;
        }
        if (change.record)
        {
            merged.emplace_back(change.key, std::move(*change.record));
        }
        i = last + 1;
    }
    std::move(kept, _index.end(), std::back_inserter(merged));
    _index = std::move(merged);
    _index_changes.clear();
}

namespace
{

std::string reversed(std::string_view text)
{
    return std::string(text.rbegin(), text.rend());
}

// Keeps one affix index in line: `was` and `is` tell whether the old and new alias belong in it.
void note_affix(std::set<std::pair<std::string, chord::ring_id>> & index, const chord::ring_id & key,
                const std::string * was, const std::string * is, bool from_end)
{
    if (was != nullptr && is != nullptr && *was == *is)
    {
        return;
    }
    if (was != nullptr)
    {
        index.erase({from_end ? reversed(*was) : *was, key});
    }
    if (is != nullptr)
    {
        index.emplace(from_end ? reversed(*is) : *is, key);
    }
}

} // namespace

void entry_store::note_affixes(const chord::ring_id & key, const index_record * before,
                               const index_record * after) const
{
    const auto with = [&](const index_record * r, bool suffix) -> const std::string *
    {
        if (r == nullptr)
        {
            return nullptr;
        }
        const bool has = suffix ? r->alias.ends_with(indexed_suffix) : r->alias.starts_with(indexed_prefix);
        return has ? &r->alias : nullptr;
    };
    note_affix(_prefix_index, key, with(before, false), with(after, false), false);
    note_affix(_suffix_index, key, with(before, true), with(after, true), true);
}

namespace
{

template <typename Index>
auto index_upper_bound(Index & index, const chord::ring_id & key)
{
    return std::upper_bound(index.begin(), index.end(), key,
                            [](const chord::ring_id & k, const auto & e) { return k < e.first; });
}

template <typename Index>
auto index_lower_bound(Index & index, const chord::ring_id & key)
{
    return std::lower_bound(index.begin(), index.end(), key,
                            [](const auto & e, const chord::ring_id & k) { return e.first < k; });
}

} // namespace

void entry_store::visit(const key_arc & arc, const std::function<bool(const summary &)> & f) const
{
    const timespec now = _now();
    std::lock_guard lock{_index_mutex};
    merge_index_changes();
    walk(arc, now, f);
}

void entry_store::walk(const key_arc & arc, const timespec & now,
                       const std::function<bool(const summary &)> & f) const
{
    auto visit_range = [&](auto first, auto last)
    {
        for (auto it = first; it != last; ++it)
        {
            if (!offer(*it, now, f))
            {
                return false;
            }
        }
        return true;
    };
    const auto after_predecessor = index_upper_bound(_index, arc.predecessor);
    if (arc.predecessor < arc.self)
    {
        visit_range(after_predecessor, index_upper_bound(_index, arc.self));
        return;
    }
    // The arc goes round through zero (or is the whole ring): its top part first.
    if (visit_range(after_predecessor, _index.end()))
    {
        visit_range(_index.begin(), index_upper_bound(_index, arc.self));
    }
}

void entry_store::visit_affix(const key_arc & arc, std::string_view affix, bool suffix,
                              const std::function<bool(const summary &)> & f) const
{
    const timespec now = _now();
    std::lock_guard lock{_index_mutex};
    merge_index_changes();
    const auto walk_matches = [&]
    { walk(arc, now, [&](const summary & s) { return !s.has_affix(affix, suffix) || f(s); }); };
    const bool indexed = suffix ? affix.ends_with(indexed_suffix) : affix.starts_with(indexed_prefix);
    if (!indexed)
    {
        walk_matches();
        return;
    }
    // Past this many matches, sorting them into ring order costs more than walking everything.
    const std::size_t most_matches = std::max<std::size_t>(_index.size() / 16, 1024);
    const affix_index & index = suffix ? _suffix_index : _prefix_index;
    const std::string needle = suffix ? reversed(affix) : std::string(affix);
    const bool whole_ring = arc.predecessor == arc.self;
    const auto in_arc = [&](const chord::ring_id & key)
    {
        if (whole_ring)
        {
            return true;
        }
        return arc.predecessor < arc.self ? arc.predecessor < key && key <= arc.self
                                          : arc.predecessor < key || key <= arc.self;
    };
    std::vector<chord::ring_id> keys;
    for (auto it = index.lower_bound({needle, chord::ring_id{}});
         it != index.end() && it->first.starts_with(needle); ++it)
    {
        if (in_arc(it->second))
        {
            keys.push_back(it->second);
        }
        if (keys.size() > most_matches)
        {
            walk_matches();
            return;
        }
    }
    // The walk's order: the keys after the predecessor first, then those that come round through zero.
    std::sort(keys.begin(), keys.end(),
              [&](const chord::ring_id & a, const chord::ring_id & b)
              {
                  const bool a_high = arc.predecessor < a;
                  const bool b_high = arc.predecessor < b;
                  return a_high != b_high ? a_high : a < b;
              });
    for (const chord::ring_id & key : keys)
    {
        const auto it = index_lower_bound(_index, key);
        if (it != _index.end() && it->first == key && !offer(*it, now, f))
        {
            return;
        }
    }
}

bool entry_store::summary::has_affix(std::string_view affix, bool suffix) const noexcept
{
    const std::size_t n = affix.size();
    if (n == 0)
    {
        return true;
    }
    if (alias.size() < n)
    {
        return false;
    }
    if (n >= sizeof(std::uint64_t))
    {
        std::uint64_t word = 0;
        std::memcpy(&word, affix.data() + (suffix ? n - sizeof word : 0), sizeof word);
        if (word != (suffix ? alias_tail : alias_head))
        {
            return false;
        }
    }
    return suffix ? alias.ends_with(affix) : alias.starts_with(affix);
}

bool entry_store::offer(const index_entry & e, const timespec & now,
                        const std::function<bool(const summary &)> & f)
{
    const index_record & r = e.second;
    const bool never = r.expiry.tv_sec == 0 && r.expiry.tv_nsec == 0;
    if (!never && before_or_at(r.expiry, now))
    {
        return true;
    }
    return f(summary{e.first, r.alias, r.type, r.listed_type, r.alias_head, r.alias_tail});
}

bool entry_store::read_committed(const chord::ring_id & key, const timespec & now, stored_entry & out) const
{
    const shard & s = shard_of(key);
    std::lock_guard lock{s.mutex};
    const auto it = s.slots.find(key);
    if (it == s.slots.end() || !it->second.committed || expired(*it->second.committed, now))
    {
        return false;
    }
    out = *it->second.committed;
    return true;
}

void entry_store::visit_entries(
    const key_arc & arc, const std::function<bool(const chord::ring_id &, const stored_entry &)> & f) const
{
    // The keys first, so that no shard lock is taken under the index lock.
    std::vector<chord::ring_id> keys;
    visit(arc,
          [&](const summary & s)
          {
              keys.push_back(s.key);
              return true;
          });
    const timespec now = _now();
    stored_entry e;
    for (const chord::ring_id & key : keys)
    {
        if (read_committed(key, now, e) && !f(key, e))
        {
            return;
        }
    }
}

std::optional<chord::ring_id> entry_store::neighbour(const key_arc & arc, const chord::ring_id & from,
                                                     bool started, bool backward) const
{
    merge_index_changes();
    if (_index.empty())
    {
        return std::nullopt;
    }
    if (!backward)
    {
        // Circularly after `from` (the predecessor id when not started yet), up to the arc's end.
        if (started && from == arc.self)
        {
            return std::nullopt;
        }
        const chord::ring_id & start = started ? from : arc.predecessor;
        auto it = index_upper_bound(_index, start);
        if (it == _index.end())
        {
            it = _index.begin();
        }
        if (started && it->first == from)
        {
            return std::nullopt;
        }
        if (!chord::arc_contains(start, arc.self, it->first))
        {
            return std::nullopt;
        }
        return it->first;
    }
    // Circularly before `from` (at or before the arc's end when not started yet), down to its start.
    auto it = started ? index_lower_bound(_index, from) : index_upper_bound(_index, arc.self);
    if (it == _index.begin())
    {
        it = _index.end();
    }
    --it;
    if (started && it->first == from)
    {
        return std::nullopt;
    }
    const chord::ring_id & end = started ? from : arc.self;
    if (!chord::arc_contains(arc.predecessor, end, it->first))
    {
        return std::nullopt;
    }
    return it->first;
}

bool entry_store::step(const key_arc & arc, const chord::ring_id & from, bool backward, chord::ring_id & key,
                       stored_entry & out) const
{
    const timespec now = _now();
    bool started = from != arc.predecessor && chord::arc_contains(arc.predecessor, arc.self, from);
    chord::ring_id at = from;
    // Bounded by the index: each round moves one key further, and an entry that vanished since is
    // stepped over.
    for (;;)
    {
        std::optional<chord::ring_id> next;
        {
            std::lock_guard lock{_index_mutex};
            next = neighbour(arc, at, started, backward);
        }
        if (!next)
        {
            return false;
        }
        if (read_committed(*next, now, out))
        {
            key = *next;
            return true;
        }
        at = *next;
        started = true;
    }
}

} // namespace zlk::node
