// The entries a node holds, in memory: blobs and integers by their 256-bit key, with their expiry,
// modification time and version, and the writes that transactions have staged but not committed yet.
//
// Sharded by key, one mutex per shard: requests on different keys seldom meet. Every operation runs
// whole under its shard's lock, so a read-modify-write (integer add, compare and swap) is atomic.
//
// Each committed entry is also kept in an ordered index by key, with its alias and type, so that a
// node can list, count and walk what it holds in one stable order: ring order, from the first key after
// a given predecessor id. The index has a lock of its own, always taken after a shard's.
//
// Transactions: a write carrying a transaction stamp goes to the key's staged slot and stays invisible
// to everyone else until the stamp's commit. While another stamp holds the key, a write (or a
// transactional read) answers a conflict; a plain read sees the committed entry.
#pragma once

#include <boost/system/error_code.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/entry_type.hpp"
#include "base/ring_id.hpp"
#include "base/time_value.hpp"
#include "base/uuid.hpp"

namespace zlk::node
{

struct stored_entry
{
    kernel::entry_type type = kernel::entry_type::blob;
    // The entry's name, without the terminating zero the wire carries. Empty when the write that made
    // the entry didn't carry it; such an entry is walked but never listed.
    std::string alias;
    // A blob's bytes as the client sent them (maybe compressed); an integer's 8-byte value.
    std::vector<std::uint8_t> content;
    // All zero: never expires.
    timespec expiry;
    timespec modified;
    std::uint64_t version = 0;

    std::int64_t integer() const noexcept;
    void set_integer(std::int64_t v);
};

// An alias as the store keeps it: the wire's form without its terminating zero.
inline std::string_view stored_alias(std::string_view wire) noexcept
{
    return !wire.empty() && wire.back() == '\0' ? wire.substr(0, wire.size() - 1) : wire;
}

// The transaction states a client asks for (transaction_state operation).
enum class transaction_step : std::uint8_t
{
    precommit = 1,
    commit = 2,
    rollback = 3,
    commit_single = 4,
};

struct entry_store_limits
{
    // Largest content of an entry, in bytes; beyond it a write answers entry_too_large.
    std::size_t max_entry_size = 64u << 20;
    // A staged write whose transaction hasn't ended after this long is dropped, so that a client that
    // went away mid-transaction doesn't hold its keys for ever.
    std::int64_t abandoned_after_seconds = 60;
};

class entry_store
{
public:
    using clock = std::function<timespec()>;

    explicit entry_store(entry_store_limits limits = {}, clock now = {});

    entry_store(const entry_store &) = delete;
    entry_store & operator=(const entry_store &) = delete;

    const entry_store_limits & limits() const noexcept { return _limits; }
    timespec now() const;

    // What an operation sees of a key and may change. `entry` is the visible entry (or empty); the
    // operation changes it through the view, and the store writes it back when `changed` is set.
    struct view
    {
        std::optional<stored_entry> entry;
        bool changed = false;
        timespec now;
    };

    // Runs op(view) under the key's lock, in the transaction `stamp` (none: outside any). Answers a
    // kernel conflict without running op when another transaction holds the key and op writes
    // (`writes`) or runs in a transaction. What op returns is the result; a failed op changes nothing.
    // A read (writes false) is lent the stored entry itself for the call, not a copy: it must leave
    // the entry as it found it unless it sets `changed`.
    boost::system::error_code apply(const chord::ring_id & key, const zlk::uuid & stamp, bool writes,
                                    const std::function<boost::system::error_code(view &)> & op);

    // Moves the stamp's staged write of the key to the state asked for. A key the stamp doesn't hold
    // accepts every step (it was only read, or never touched on this node).
    boost::system::error_code set_transaction_state(const chord::ring_id & key, const zlk::uuid & stamp,
                                                    transaction_step step);

    // Committed live entries, for tests and the status record.
    std::size_t size() const;

    // The keys of (predecessor, self], round through zero; equal ids stand for the whole ring.
    struct key_arc
    {
        chord::ring_id predecessor;
        chord::ring_id self;
    };

    // What a listing sees of an entry. `listed_type` is the entry's type, except for a tag link, which
    // stands for the tagged entry and so gives that entry's type (the first byte of its content).
    struct summary
    {
        const chord::ring_id & key;
        std::string_view alias;
        kernel::entry_type type;
        std::uint8_t listed_type;
        // The alias's first and last eight bytes (all of it, zero-padded, when shorter), kept beside
        // the key: a listing turns most entries away on them without reading the alias itself.
        std::uint64_t alias_head;
        std::uint64_t alias_tail;

        // Whether the alias begins (`suffix` false) or ends with `affix`. Tested on every entry of a
        // walk, most of which don't match: an affix of eight bytes or more is first compared with
        // alias_head or alias_tail, and only entries that pass read the alias itself, a cache miss each.
        bool has_affix(std::string_view affix, bool suffix) const noexcept;
    };

    // Calls f for each committed live entry of the arc, in ring order from the arc's first key, until f
    // returns false. f runs under the index lock and must not call the store.
    void visit(const key_arc & arc, const std::function<bool(const summary &)> & f) const;

    // Aliases that begin with indexed_prefix (the reserved mark every tag link carries) or end with
    // indexed_suffix (how tag links end) are also kept in indexes of their own, by their bytes from
    // the start and from the end: listing the links of one tag, or of one entry (every removal does),
    // would otherwise walk everything the node holds.
    static constexpr std::string_view indexed_prefix = kernel::tag_link_mark;
    static constexpr std::string_view indexed_suffix = kernel::tag_link_tail;

    // The walk of visit() restricted to the aliases that begin (`suffix` false) or end with `affix`,
    // in the same order. Served from an affix index, without walking the other entries, when `affix`
    // begins with indexed_prefix (a prefix) or ends with indexed_suffix (a suffix).
    void visit_affix(const key_arc & arc, std::string_view affix, bool suffix,
                     const std::function<bool(const summary &)> & f) const;

    // The same walk with each entry whole, read under its shard's lock (content included).
    void visit_entries(const key_arc & arc,
                       const std::function<bool(const chord::ring_id &, const stored_entry &)> & f) const;

    // The committed live entry after `from` in the arc's order (backward: before it), into key and out.
    // A `from` outside the arc, or equal to its predecessor id, starts from the arc's first (backward:
    // last) entry. False when there is none.
    bool step(const key_arc & arc, const chord::ring_id & from, bool backward, chord::ring_id & key,
              stored_entry & out) const;

private:
    struct staged
    {
        zlk::uuid stamp;
        timespec since;
        bool precommitted = false;
        // Empty: the transaction removes the entry.
        std::optional<stored_entry> value;
    };

    struct slot
    {
        std::optional<stored_entry> committed;
        // Rare, and large: kept out of line so that the table's slots stay small.
        std::unique_ptr<staged> pending;
    };

    struct key_hash
    {
        std::size_t operator()(const chord::ring_id & id) const noexcept
        {
            return static_cast<std::size_t>(id.words[0] ^ id.words[1] ^ id.words[2] ^ id.words[3]);
        }
    };

    struct shard
    {
        mutable std::mutex mutex;
        // Open addressing: a look-up touches one group of slots, not a chain of nodes.
        boost::unordered_flat_map<chord::ring_id, slot, key_hash> slots;
    };

    static constexpr std::size_t shard_count = 16;

    struct index_record
    {
        std::string alias;
        std::uint64_t alias_head = 0;
        std::uint64_t alias_tail = 0;
        kernel::entry_type type = kernel::entry_type::blob;
        std::uint8_t listed_type = 0;
        timespec expiry;
    };

    shard & shard_of(const chord::ring_id & key) noexcept;
    const shard & shard_of(const chord::ring_id & key) const noexcept;
    // Brings the index in line with the key's committed entry. Called under the key's shard lock.
    void reindex(const chord::ring_id & key, const std::optional<stored_entry> & committed);
    // The key circularly next to (backward: before) `from` among the indexed ones, if it falls in the
    // arc's part that the walk may still reach. Under the index lock, changes merged.
    std::optional<chord::ring_id> neighbour(const key_arc & arc, const chord::ring_id & from, bool started,
                                            bool backward) const;
    // The committed live entry of the key, copied.
    bool read_committed(const chord::ring_id & key, const timespec & now, stored_entry & out) const;
    bool expired(const stored_entry & e, const timespec & now) const noexcept;
    bool abandoned(const staged & p, const timespec & now) const noexcept;

    entry_store_limits _limits;
    clock _now;
    std::array<shard, shard_count> _shards;
    // The index, ordered by key, and the changes not merged into it yet (a change without a record
    // removes its key; the last change of a key wins). A write only notes its change; the changes
    // are merged in one sorted pass before a walk reads the index, or once they are as many as the
    // entries: far cheaper than a tree insertion per write. Both under _index_mutex; mutable because
    // a walk, which changes nothing that can be seen, merges first.
    using index_entry = std::pair<chord::ring_id, index_record>;
    struct index_change
    {
        chord::ring_id key;
        std::optional<index_record> record;
    };
    static constexpr std::size_t min_index_merge = 4096;
    // Up to this many changes are merged in place, one shift of the index's tail each.
    static constexpr std::size_t max_changes_in_place = 8;
    void merge_index_changes() const;
    // Keeps the affix indexes in line with a key's index record going from `before` to `after`
    // (either may be null). Under the index lock.
    void note_affixes(const chord::ring_id & key, const index_record * before,
                      const index_record * after) const;

    // visit() under the index lock, changes merged.
    void walk(const key_arc & arc, const timespec & now,
              const std::function<bool(const summary &)> & f) const;
    // Calls f with the entry's summary unless it has expired; false when f says stop.
    static bool offer(const index_entry & e, const timespec & now,
                      const std::function<bool(const summary &)> & f);

    mutable std::mutex _index_mutex;
    mutable std::vector<index_entry> _index;
    mutable std::vector<index_change> _index_changes;
    // (alias, key) for every indexed alias that begins with indexed_prefix, and (alias reversed, key)
    // for every one that ends with indexed_suffix; merged with the index, under _index_mutex.
    using affix_index = std::set<std::pair<std::string, chord::ring_id>>;
    mutable affix_index _prefix_index;
    mutable affix_index _suffix_index;
};

} // namespace zlk::node
