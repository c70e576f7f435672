#include "node/ts_store.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <numeric>

#include "base/error_categories.hpp"
#include "node/parallel_fill.hpp"

namespace zlk::node
{

namespace
{

boost::system::error_code kernel_code(kernel::error e) noexcept
{
    return make_error_code(e);
}

std::size_t fixed_width(kernel::column_type t) noexcept
{
    return t == kernel::column_type::timestamp ? 16 : 8;
}

template <typename T>
T read_le(const std::uint8_t * p) noexcept
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Appends rows [first, last) of `from` to `to` (moving byte strings); both of one type.
void append_rows(ts_column_data & to, ts_column_data & from, std::size_t first, std::size_t last)
{
    auto & offsets = to.offsets.edit();
    offsets.insert(offsets.end(), from.offsets.begin() + first, from.offsets.begin() + last);
    switch (to.type)
    {
    case kernel::column_type::double_:
        to.doubles.insert(to.doubles.end(), from.doubles.begin() + first, from.doubles.begin() + last);
        break;
    case kernel::column_type::int64:
        to.integers.insert(to.integers.end(), from.integers.begin() + first, from.integers.begin() + last);
        break;
    case kernel::column_type::timestamp:
        to.timestamps.insert(to.timestamps.end(), from.timestamps.begin() + first,
                             from.timestamps.begin() + last);
        break;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        to.bytes.insert(to.bytes.end(), std::make_move_iterator(from.bytes.begin() + first),
                        std::make_move_iterator(from.bytes.begin() + last));
        break;
    }
}

// Growth doubles, so that a bucket that takes push after push of new rows isn't copied whole on
// every one.
template <typename Vector>
void reserve_doubling(Vector & v, std::size_t n)
{
    if (n > v.capacity())
    {
        v.reserve(std::max(n, 2 * v.capacity()));
    }
}

// Room for n values.
void reserve_values(ts_column_data & c, std::size_t n)
{
    switch (c.type)
    {
    case kernel::column_type::double_:
        reserve_doubling(c.doubles, n);
        break;
    case kernel::column_type::int64:
        reserve_doubling(c.integers, n);
        break;
    case kernel::column_type::timestamp:
        reserve_doubling(c.timestamps, n);
        break;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        reserve_doubling(c.bytes, n);
        break;
    }
}

// Room for n rows, offsets made the column's own.
void reserve_rows(ts_column_data & c, std::size_t n)
{
    reserve_doubling(c.offsets.edit(), n);
    reserve_values(c, n);
}

void truncate_rows(ts_column_data & c, std::size_t n)
{
    c.offsets.edit().resize(n);
    switch (c.type)
    {
    case kernel::column_type::double_:
        c.doubles.resize(n);
        break;
    case kernel::column_type::int64:
        c.integers.resize(n);
        break;
    case kernel::column_type::timestamp:
        c.timestamps.resize(n);
        break;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        c.bytes.resize(n);
        break;
    }
}

// Appends incoming row i (its position in the request) to the column.
void append_incoming(ts_column_data & c, std::int64_t offset, const ts_incoming_values & values,
                     std::size_t i)
{
    c.offsets.edit().push_back(offset);
    switch (c.type)
    {
    case kernel::column_type::double_:
        c.doubles.push_back(read_le<double>(values.fixed.data() + i * 8));
        break;
    case kernel::column_type::int64:
        c.integers.push_back(read_le<std::int64_t>(values.fixed.data() + i * 8));
        break;
    case kernel::column_type::timestamp:
        c.timestamps.emplace_back(read_le<std::int64_t>(values.fixed.data() + i * 16),
                                  read_le<std::int64_t>(values.fixed.data() + i * 16 + 8));
        break;
    case kernel::column_type::blob:
    case kernel::column_type::string:
    {
        const auto b = values.bytes[i];
        c.bytes.emplace_back(reinterpret_cast<const char *>(b.data()), b.size());
        break;
    }
    }
}

// Appends n fixed-size values of a request, bytes as they are: the wire's fixed-size values are the
// host's own on a little-endian machine. False for a type that doesn't copy that way.
bool append_fixed_values(ts_column_data & c, const ts_incoming_values & values, std::size_t n)
{
    if constexpr (std::endian::native != std::endian::little)
    {
        return false;
    }
    switch (c.type)
    {
    case kernel::column_type::double_:
        std::memcpy(c.doubles.extend_uninitialized(n), values.fixed.data(), n * 8);
        return true;
    case kernel::column_type::int64:
        std::memcpy(c.integers.extend_uninitialized(n), values.fixed.data(), n * 8);
        return true;
    case kernel::column_type::timestamp:
        std::memcpy(c.timestamps.extend_uninitialized(n), values.fixed.data(), n * 16);
        return true;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        break;
    }
    return false;
}

// n elements more at the end of the vector, to copy `from` into (raw bytes, as the wire carries
// them: the host's own order on a little-endian machine).
template <typename T>
fill_job fill_of(timeseries::pod_vector<T> & v, std::span<const std::uint8_t> from, std::size_t n)
{
    auto * to = reinterpret_cast<std::uint8_t *>(v.extend_unpopulated(n));
    return {to, from.data(), n * sizeof(T), v.capacity_bytes()};
}

// The same for the value vector of a fixed-size column.
fill_job fill_of(ts_column_data & c, std::span<const std::uint8_t> from, std::size_t n)
{
    switch (c.type)
    {
    case kernel::column_type::double_:
        return fill_of(c.doubles, from, n);
    case kernel::column_type::int64:
        return fill_of(c.integers, from, n);
    case kernel::column_type::timestamp:
        return fill_of(c.timestamps, from, n);
    case kernel::column_type::blob:
    case kernel::column_type::string:
        break;
    }
    return {};
}

// Whether received offsets (8 little-endian bytes each) are in order and not before the stored ones.
bool received_in_order(std::span<const std::uint8_t> offsets, const ts_shared_offsets & stored) noexcept
{
    std::int64_t previous = stored.empty() ? INT64_MIN : stored.back();
    for (std::size_t i = 0; i < offsets.size() / sizeof(std::int64_t); ++i)
    {
        const auto o = read_le<std::int64_t>(offsets.data() + i * sizeof(std::int64_t));
        if (o < previous)
        {
            return false;
        }
        previous = o;
    }
    return true;
}

// Appends all incoming rows, already in time order, after the stored ones.
void append_in_order(ts_column_data & c, std::span<const std::int64_t> offsets,
                     const ts_incoming_values & values)
{
    const std::size_t n = offsets.size();
    if (append_fixed_values(c, values, n))
    {
        std::memcpy(c.offsets.edit().extend_uninitialized(n), offsets.data(), n * sizeof(std::int64_t));
        return;
    }
    for (std::size_t i = 0; i < n; ++i)
    {
        append_incoming(c, offsets[i], values, i);
    }
}

} // namespace

const ts_column_schema * ts_table_schema::find(std::uint64_t index) const noexcept
{
    for (const auto & c : columns)
    {
        if (c.index == index)
        {
            return &c;
        }
    }
    return nullptr;
}

const ts_column_schema * ts_table_schema::find(std::string_view name) const noexcept
{
    for (const auto & c : columns)
    {
        if (c.name == name)
        {
            return &c;
        }
    }
    return nullptr;
}

std::pair<std::size_t, std::size_t> ts_column_data::rows_between(std::int64_t begin_offset,
                                                                 std::int64_t end_offset) const noexcept
{
    if (end_offset <= begin_offset)
    {
        return {0, 0};
    }
    const auto first = std::lower_bound(offsets.begin(), offsets.end(), begin_offset);
    const auto last = std::lower_bound(first, offsets.end(), end_offset);
    return {static_cast<std::size_t>(first - offsets.begin()),
            static_cast<std::size_t>(last - offsets.begin())};
}

std::size_t ts_column_data::erase_between(std::int64_t begin_offset, std::int64_t end_offset)
{
    const auto [first, last] = rows_between(begin_offset, end_offset);
    if (first == last)
    {
        return 0;
    }
    const auto f = static_cast<std::ptrdiff_t>(first);
    const auto l = static_cast<std::ptrdiff_t>(last);
    auto & rows = offsets.edit();
    rows.erase(rows.begin() + f, rows.begin() + l);
    erase_values(first, last);
    return last - first;
}

void ts_column_data::erase_values(std::size_t first, std::size_t last)
{
    const auto f = static_cast<std::ptrdiff_t>(first);
    const auto l = static_cast<std::ptrdiff_t>(last);
    switch (type)
    {
    case kernel::column_type::double_:
        doubles.erase(doubles.begin() + f, doubles.begin() + l);
        break;
    case kernel::column_type::int64:
        integers.erase(integers.begin() + f, integers.begin() + l);
        break;
    case kernel::column_type::timestamp:
        timestamps.erase(timestamps.begin() + f, timestamps.begin() + l);
        break;
    case kernel::column_type::blob:
    case kernel::column_type::string:
        bytes.erase(bytes.begin() + f, bytes.begin() + l);
        break;
    }
}

std::size_t ts_column_data::byte_size() const noexcept
{
    std::size_t n = offsets.size() * sizeof(std::int64_t);
    if (kernel::holds_bytes(type))
    {
        for (const auto & b : bytes)
        {
            n += b.size() + sizeof(std::uint64_t);
        }
        return n;
    }
    return n + offsets.size() * fixed_width(type);
}

boost::system::error_code ts_bucket::column_for(std::uint64_t index, kernel::column_type type, std::size_t n,
                                                const ts_incoming_values & values, ts_column_data *& out)
{
    if (kernel::holds_bytes(type) ? values.bytes.size() != n : values.fixed.size() != n * fixed_width(type))
    {
        return kernel_code(kernel::error::unexpected_value);
    }
    auto [it, created] = columns.try_emplace(index);
    ts_column_data & column = it->second;
    if (created)
    {
        column.type = type;
    }
    else if (column.type != type)
    {
        return kernel_code(kernel::error::incompatible_type);
    }
    out = &column;
    return {};
}

boost::system::error_code ts_bucket::merge_received(std::uint64_t index, kernel::column_type type,
                                                    std::span<const std::uint8_t> offsets,
                                                    const ts_incoming_values & values)
{
    const std::size_t n = offsets.size() / sizeof(std::int64_t);
    if constexpr (std::endian::native == std::endian::little)
    {
        if (!kernel::holds_bytes(type) && n != 0)
        {
            ts_column_data * column = nullptr;
            if (boost::system::error_code ec = column_for(index, type, n, values, column))
            {
                return ec;
            }
            if (received_in_order(offsets, column->offsets))
            {
                reserve_rows(*column, column->size() + n);
                append_fixed_values(*column, values, n);
                std::memcpy(column->offsets.edit().extend_uninitialized(n), offsets.data(),
                            n * sizeof(std::int64_t));
                return {};
            }
        }
    }
    std::vector<std::int64_t> aligned(n);
    for (std::size_t i = 0; i < n; ++i)
    {
        aligned[i] = read_le<std::int64_t>(offsets.data() + i * sizeof(std::int64_t));
    }
    return merge(index, type, aligned, values);
}

boost::system::error_code ts_bucket::merge_received(std::span<const ts_received_column> columns)
{
    std::vector<bool> merged(columns.size());
    std::vector<ts_column_data *> group;
    std::vector<const ts_incoming_values *> group_values;
    std::vector<ts_shared_offsets *> holders;
    std::vector<fill_job> fills;
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        if (merged[i])
        {
            continue;
        }
        const ts_received_column & lead = columns[i];
        const std::size_t n = lead.offsets.size() / sizeof(std::int64_t);
        ts_column_data * first = nullptr;
        const bool appends = std::endian::native == std::endian::little && !kernel::holds_bytes(lead.type) &&
                             n != 0 && !column_for(lead.index, lead.type, n, lead.values, first) &&
                             received_in_order(lead.offsets, first->offsets);
        if (!appends)
        {
            if (boost::system::error_code ec =
                    merge_received(lead.index, lead.type, lead.offsets, lead.values))
            {
                return ec;
            }
            continue;
        }

        // The later columns that take the same rows after the same stored ones. A column that fails a
        // check is left for its turn, which reports it.
        group.assign(1, first);
        group_values.assign(1, &lead.values);
        for (std::size_t j = i + 1; j < columns.size(); ++j)
        {
            const ts_received_column & other = columns[j];
            ts_column_data * c = nullptr;
            if (merged[j] || kernel::holds_bytes(other.type) || other.offsets.size() != lead.offsets.size() ||
                column_for(other.index, other.type, n, other.values, c) ||
                std::find(group.begin(), group.end(), c) != group.end())
            {
                continue;
            }
            const bool same_stored =
                c->offsets.empty() ? first->offsets.empty() : c->offsets.shares_with(first->offsets);
            if (same_stored &&
                (other.offsets.data() == lead.offsets.data() ||
                 std::memcmp(other.offsets.data(), lead.offsets.data(), lead.offsets.size()) == 0))
            {
                group.push_back(c);
                group_values.push_back(&other.values);
                merged[j] = true;
            }
        }

        const std::size_t rows = first->size() + n;
        holders.clear();
        for (ts_column_data * c : group)
        {
            reserve_values(*c, rows);
            holders.push_back(&c->offsets);
        }
        auto & offsets = ts_shared_offsets::edit_together(holders);
        reserve_doubling(offsets, rows);
        fills.clear();
        fills.push_back(fill_of(offsets, lead.offsets, n));
        for (std::size_t k = 0; k < group.size(); ++k)
        {
            fills.push_back(fill_of(*group[k], group_values[k]->fixed, n));
        }
        run_fills(fills);
    }
    return {};
}

std::size_t ts_bucket::erase_between(std::int64_t begin_offset, std::int64_t end_offset)
{
    std::size_t erased = 0;
    // Columns that share their offsets are cut together, so that they go on sharing them.
    std::vector<ts_column_data *> pending;
    for (auto & [index, column] : columns)
    {
        pending.push_back(&column);
    }
    std::vector<ts_column_data *> group;
    std::vector<ts_shared_offsets *> holders;
    while (!pending.empty())
    {
        ts_column_data * first = pending.back();
        pending.pop_back();
        group.assign(1, first);
        std::size_t kept = 0;
        for (std::size_t k = 0; k < pending.size(); ++k)
        {
            if (pending[k]->offsets.shares_with(first->offsets))
            {
                group.push_back(pending[k]);
            }
            else
            {
                pending[kept++] = pending[k];
            }
        }
        pending.resize(kept);

        const auto [lo, hi] = first->rows_between(begin_offset, end_offset);
        if (lo == hi)
        {
            continue;
        }
        holders.clear();
        for (ts_column_data * c : group)
        {
            c->erase_values(lo, hi);
            holders.push_back(&c->offsets);
        }
        auto & rows = ts_shared_offsets::edit_together(holders);
        rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(lo),
                   rows.begin() + static_cast<std::ptrdiff_t>(hi));
        erased += (hi - lo) * group.size();
    }
    return erased;
}

boost::system::error_code ts_bucket::merge(std::uint64_t index, kernel::column_type type,
                                           std::span<const std::int64_t> offsets,
                                           const ts_incoming_values & values)
{
    const std::size_t n = offsets.size();
    ts_column_data * found = nullptr;
    if (boost::system::error_code ec = column_for(index, type, n, values, found))
    {
        return ec;
    }
    ts_column_data & column = *found;
    if (n == 0)
    {
        return {};
    }

    // Incoming rows in time order; equal offsets keep the order of the request.
    const bool sorted = std::is_sorted(offsets.begin(), offsets.end());
    std::vector<std::uint32_t> order;
    if (!sorted)
    {
        order.resize(n);
        std::iota(order.begin(), order.end(), 0u);
        std::stable_sort(order.begin(), order.end(),
                         [&](std::uint32_t a, std::uint32_t b) { return offsets[a] < offsets[b]; });
    }
    const auto incoming_at = [&](std::size_t k) { return sorted ? k : order[k]; };

    // The common case, rows arriving in order after all that is there: copied in bulk.
    if (sorted && (column.offsets.empty() || offsets[0] >= column.offsets.back()))
    {
        reserve_rows(column, column.size() + n);
        append_in_order(column, offsets, values);
        return {};
    }
    if (column.offsets.empty() || offsets[incoming_at(0)] >= column.offsets.back())
    {
        reserve_rows(column, column.size() + n);
        for (std::size_t k = 0; k < n; ++k)
        {
            const std::size_t i = incoming_at(k);
            append_incoming(column, offsets[i], values, i);
        }
        return {};
    }

    // Otherwise the rows already stored before the first incoming one stay where they are, and the
    // tail is merged; stored rows go first among equal offsets, having arrived earlier.
    const std::size_t keep = static_cast<std::size_t>(
        std::upper_bound(column.offsets.begin(), column.offsets.end(), offsets[incoming_at(0)]) -
        column.offsets.begin());
    ts_column_data tail;
    tail.type = type;
    reserve_rows(tail, column.size() - keep);
    append_rows(tail, column, keep, column.size());
    truncate_rows(column, keep);
    reserve_rows(column, keep + tail.size() + n);
    std::size_t a = 0;
    std::size_t k = 0;
    while (a < tail.size() || k < n)
    {
        if (k == n || (a < tail.size() && tail.offsets[a] <= offsets[incoming_at(k)]))
        {
            std::size_t b = a + 1;
            while (b < tail.size() && (k == n || tail.offsets[b] <= offsets[incoming_at(k)]))
            {
                ++b;
            }
            append_rows(column, tail, a, b);
            a = b;
        }
        else
        {
            const std::size_t i = incoming_at(k++);
            append_incoming(column, offsets[i], values, i);
        }
    }
    return {};
}

std::size_t ts_bucket::byte_size() const noexcept
{
    std::size_t n = key.size() + table.size();
    for (const auto & [index, column] : columns)
    {
        n += column.byte_size();
    }
    return n;
}

boost::system::error_code
ts_store::with_bucket(const chord::ring_id & id, bool create, const std::function<void(ts_bucket &)> & init,
                      const std::function<boost::system::error_code(ts_bucket *)> & f)
{
    shard & s = _shards[id_hash{}(id) % shard_count];
    std::lock_guard lock(s.mutex);
    auto it = s.buckets.find(id);
    if (it == s.buckets.end())
    {
        if (!create)
        {
            return f(nullptr);
        }
        auto bucket = std::make_unique<ts_bucket>();
        if (init)
        {
            init(*bucket);
        }
        it = s.buckets.emplace(id, std::move(bucket)).first;
    }
    return f(it->second.get());
}

std::size_t ts_store::drop_prefix(std::string_view prefix)
{
    std::size_t dropped = 0;
    for (auto & s : _shards)
    {
        std::lock_guard lock(s.mutex);
        dropped += boost::unordered::erase_if(
            s.buckets, [&](const auto & kv) { return std::string_view(kv.second->key).starts_with(prefix); });
    }
    return dropped;
}

std::size_t ts_store::expire_by_size(std::string_view prefix, std::uint64_t limit)
{
    struct held
    {
        chord::ring_id id;
        std::int64_t start;
        std::size_t bytes;
    };
    std::vector<held> buckets;
    std::uint64_t total = 0;
    for (auto & s : _shards)
    {
        std::lock_guard lock(s.mutex);
        for (const auto & [id, bucket] : s.buckets)
        {
            if (std::string_view(bucket->key).starts_with(prefix))
            {
                const std::size_t bytes = bucket->byte_size();
                buckets.push_back({id, bucket->shard_start, bytes});
                total += bytes;
            }
        }
    }
    std::sort(buckets.begin(), buckets.end(),
              [](const held & a, const held & b) { return a.start < b.start; });
    std::size_t dropped = 0;
    for (const auto & b : buckets)
    {
        if (total <= limit)
        {
            break;
        }
        shard & s = _shards[id_hash{}(b.id) % shard_count];
        std::lock_guard lock(s.mutex);
        if (s.buckets.erase(b.id) != 0)
        {
            ++dropped;
        }
        total -= b.bytes;
    }
    return dropped;
}

std::size_t ts_store::bucket_count() const
{
    std::size_t n = 0;
    for (const auto & s : _shards)
    {
        std::lock_guard lock(s.mutex);
        n += s.buckets.size();
    }
    return n;
}

std::shared_ptr<const ts_table_schema> ts_store::cached_schema(std::string_view table) const
{
    std::lock_guard lock(_schema_mutex);
    const auto it = _schemas.find(std::string(table));
    return it == _schemas.end() ? nullptr : it->second;
}

void ts_store::cache_schema(std::string_view table, std::shared_ptr<const ts_table_schema> schema)
{
    std::lock_guard lock(_schema_mutex);
    _schemas.insert_or_assign(std::string(table), std::move(schema));
}

void ts_store::forget_schema(std::string_view table)
{
    std::lock_guard lock(_schema_mutex);
    _schemas.erase(std::string(table));
}

} // namespace zlk::node
