#include "timeseries/table_writer.hpp"

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

#include "timeseries/codec/bucket.hpp"

namespace zlk::timeseries
{

namespace
{

template <typename Value>
Value filler() noexcept
{
    if constexpr (std::is_same_v<Value, double>)
    {
        return std::bit_cast<double>(double_filler_bits);
    }
    else if constexpr (std::is_same_v<Value, std::int64_t>)
    {
        return int64_filler;
    }
    else if constexpr (std::is_same_v<Value, timespec>)
    {
        return timestamp_filler;
    }
    else
    {
        return byte_view{};
    }
}

// Growth by half rather than doubling: staged rows stay within 1.5 times their size on the wire.
template <typename T>
void grow_for_one(pod_vector<T> & v)
{
    if (v.size() == v.capacity())
    {
        const std::size_t c = v.capacity();
        v.reserve(c < 16 ? 16 : c + c / 2);
    }
}

const pod_vector<std::int64_t> & offsets_of(const column_payload_variant & p) noexcept
{
    return std::visit([](const auto & x) -> const pod_vector<std::int64_t> & { return x.offsets; }, p);
}

} // namespace

std::uint64_t payload_estimate(const column_payload_variant & payload) noexcept
{
    return std::visit(
        [](const auto & p) -> std::uint64_t
        {
            using value_type = typename std::decay_t<decltype(p)>::value_type;
            const std::uint64_t offset_bytes = p.values.size() * sizeof(std::int64_t);
            if constexpr (std::is_same_v<value_type, byte_view>)
            {
                std::uint64_t total = offset_bytes;
                for (const byte_view & v : p.values)
                {
                    total += v.size;
                }
                return total;
            }
            else if constexpr (std::is_same_v<value_type, timespec>)
            {
                return 3 * offset_bytes;
            }
            else
            {
                return 2 * offset_bytes;
            }
        },
        payload);
}

std::uint64_t chunk_estimate(const shard_chunk & chunk, std::size_t table_name_size) noexcept
{
    std::uint64_t total = table_name_size + 140;
    for (const column_chunk & c : chunk.columns)
    {
        total += c.name.size() + 80 + payload_estimate(c.payload);
    }
    return total;
}

template <typename Value>
void sort_by_offset(pod_vector<std::int64_t> & offsets, pod_vector<Value> & values)
{
    const std::size_t n = offsets.size();
    if (n < 2 || std::is_sorted(offsets.begin(), offsets.end()))
    {
        return;
    }
    using row = std::pair<std::int64_t, Value>;
    const auto by_offset = [](const row & a, const row & b) { return a.first < b.first; };
    std::unique_ptr<row[]> rows(new (std::nothrow) row[n]);
    if (rows)
    {
        for (std::size_t i = 0; i < n; ++i)
        {
            rows[i] = row{offsets[i], values[i]};
        }
        // std::stable_sort asks for its own buffer, halving the request until it fits, and merges in
        // place when none can be had.
        std::stable_sort(rows.get(), rows.get() + n, by_offset);
        for (std::size_t i = 0; i < n; ++i)
        {
            offsets[i] = rows[i].first;
            values[i] = rows[i].second;
        }
        return;
    }
    // No room for the pairs: insertion by binary search, moving both vectors alike. Slow, but it needs
    // nothing.
    for (std::size_t i = 1; i < n; ++i)
    {
        const std::int64_t o = offsets[i];
        const std::size_t at = static_cast<std::size_t>(
            std::upper_bound(offsets.begin(), offsets.begin() + static_cast<std::ptrdiff_t>(i), o) -
            offsets.begin());
        if (at == i)
        {
            continue;
        }
        std::rotate(offsets.begin() + static_cast<std::ptrdiff_t>(at),
                    offsets.begin() + static_cast<std::ptrdiff_t>(i),
                    offsets.begin() + static_cast<std::ptrdiff_t>(i + 1));
        std::rotate(values.begin() + static_cast<std::ptrdiff_t>(at),
                    values.begin() + static_cast<std::ptrdiff_t>(i),
                    values.begin() + static_cast<std::ptrdiff_t>(i + 1));
    }
}

template void sort_by_offset(pod_vector<std::int64_t> &, pod_vector<double> &);
template void sort_by_offset(pod_vector<std::int64_t> &, pod_vector<std::int64_t> &);
template void sort_by_offset(pod_vector<std::int64_t> &, pod_vector<timespec> &);
template void sort_by_offset(pod_vector<std::int64_t> &, pod_vector<byte_view> &);

table_writer::table_writer(std::string table, std::int64_t shard_size, std::uint64_t max_chunk_size)
    : _table(std::move(table))
    , _shard_size(shard_size)
    , _max_chunk_size(max_chunk_size)
{
}

std::size_t table_writer::add_column(const column_entry & entry)
{
    for (std::size_t i = 0; i < _columns.size(); ++i)
    {
        if (_columns[i].index == entry.index)
        {
            return i;
        }
    }
    const auto add_to = [&entry](shard_chunk & chunk)
    {
        column_chunk c;
        c.index = entry.index;
        c.name = entry.column;
        c.payload = make_payload(entry.type);
        std::visit(
            [&chunk](auto & p)
            {
                p.shard_size = chunk.shard_size;
                p.shard_start = chunk.shard_start;
            },
            c.payload);
        chunk.columns.push_back(std::move(c));
    };
    _columns.reserve(_columns.size() + 1);
    _cursors.reserve(_columns.size() + 1);
    _cursor_offsets.reserve(_columns.size() + 1);
    // The new column starts empty beside columns that hold rows: they part ways.
    for (auto & [start, chunks] : _shards)
    {
        for (const auto & chunk : chunks)
        {
            if (!chunk->empty())
            {
                chunk->unshare();
            }
        }
    }
    for (auto & [start, chunks] : _shards)
    {
        for (const auto & chunk : chunks)
        {
            add_to(*chunk);
        }
    }
    for (const auto & chunk : _spares)
    {
        add_to(*chunk);
    }
    _columns.push_back(entry);
    _cursors.push_back(nullptr);
    _cursor_offsets.push_back(nullptr);
    if (_current)
    {
        point_cursors();
    }
    return _columns.size() - 1;
}

void table_writer::fill_short_columns()
{
    std::vector<column_chunk> & columns = _current->columns;
    std::size_t longest = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        const std::size_t r = columns[i].rows();
        if (r > n)
        {
            n = r;
            longest = i;
        }
    }
    if (n == 0)
    {
        return;
    }
    const pod_vector<std::int64_t> & reference = offsets_of(columns[longest].payload);
    for (column_chunk & c : columns)
    {
        std::visit(
            [&](auto & p)
            {
                using value_type = typename std::decay_t<decltype(p)>::value_type;
                // Fillers travel like values: counted as a setter counts, or a table whose rows set few
                // of its columns would grow chunks well past what a node accepts.
                constexpr std::uint64_t per_row =
                    std::is_same_v<value_type, double> || std::is_same_v<value_type, std::int64_t> ? 16 : 24;
                if (p.offsets.size() >= n)
                {
                    return;
                }
                if (p.offsets.empty())
                {
                    p.offsets.assign(reference.begin(), reference.end());
                    p.values.assign(n, filler<value_type>());
                    _approx_size += per_row * n;
                    return;
                }
                grow_for_one(p.offsets);
                grow_for_one(p.values);
                p.offsets.push_back(reference.back());
                p.values.push_back(filler<value_type>());
                _approx_size += per_row;
            },
            c.payload);
    }
}

void table_writer::close_shared_row()
{
    if (_sets_in_row == 0)
    {
        _rows->pop_back();
        return;
    }
    const std::size_t n = _rows->size();
    for (column_chunk & c : _current->columns)
    {
        std::visit(
            [&](auto & p)
            {
                using value_type = typename std::decay_t<decltype(p)>::value_type;
                constexpr std::uint64_t per_row =
                    std::is_same_v<value_type, double> || std::is_same_v<value_type, std::int64_t> ? 16 : 24;
                if (p.values.size() < n)
                {
                    grow_for_one(p.values);
                    p.values.push_back(filler<value_type>());
                    _approx_size += per_row;
                }
            },
            c.payload);
    }
}

void table_writer::unshare_current()
{
    if (_current && _current->shared_rows)
    {
        _current->unshare();
        _rows = nullptr;
    }
}

bool table_writer::unshare_current_noexcept() noexcept
{
    try
    {
        unshare_current();
        return true;
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

std::shared_ptr<shard_chunk> table_writer::make_chunk(std::int64_t start)
{
    std::shared_ptr<shard_chunk> chunk;
    if (!_spares.empty())
    {
        chunk = std::move(_spares.back());
        _spares.pop_back();
    }
    else
    {
        chunk = std::make_shared<shard_chunk>();
        chunk->columns.reserve(_columns.size());
        for (const column_entry & e : _columns)
        {
            column_chunk c;
            c.index = e.index;
            c.name = e.column;
            c.payload = make_payload(e.type);
            chunk->columns.push_back(std::move(c));
        }
    }
    chunk->shard_size = static_cast<std::uint64_t>(_shard_size);
    chunk->shard_start = start;
    chunk->clear();
    // The caller's row count sizes the first chunk only: later shards would each reserve it.
    const auto hinted_rows = [&](std::size_t i) -> std::size_t
    {
        if (_hint_used || i >= _columns.size() || _columns[i].rows_hint == 0)
        {
            return 0;
        }
        const std::uint64_t cap = _max_chunk_size / 16 + 1;
        return static_cast<std::size_t>(std::min(_columns[i].rows_hint, cap));
    };
    for (std::size_t i = 0; i < chunk->columns.size(); ++i)
    {
        const std::size_t rows = hinted_rows(i);
        std::visit(
            [&](auto & p)
            {
                p.shard_size = chunk->shard_size;
                p.shard_start = start;
                p.values.reserve(rows);
            },
            chunk->columns[i].payload);
        chunk->rows.reserve(rows);
    }
    _hint_used = true;
    return chunk;
}

void table_writer::point_cursors()
{
    for (std::size_t i = 0; i < _cursors.size(); ++i)
    {
        _cursors[i] = _current ? &_current->columns[i].payload : nullptr;
        _cursor_offsets[i] =
            _current ? std::visit([](auto & p) { return &p.offsets; }, _current->columns[i].payload)
                     : nullptr;
    }
    _rows = _current && _current->shared_rows ? &_current->rows : nullptr;
}

zlk_error_t table_writer::start_row(const timespec & t)
{
    close_row();
    const zlk_error_t selected = select_chunk(t);
    if (selected == zlk_e_ok && _rows)
    {
        // The offset goes in once for every column; the setters only check that they follow it.
        if (_rows->size() == _rows->capacity())
        {
            try
            {
                grow_for_one(*_rows);
            }
            catch (const std::bad_alloc &)
            {
                return zlk_e_no_memory_local;
            }
        }
        _rows->push_back(_row_offset);
        _row_in_rows = true;
    }
    return selected;
}

zlk_error_t table_writer::select_chunk(const timespec & t)
{
    if (_rows && _row_in_rows)
    {
        // A row left open (a pinned column selects a chunk without closing it): its columns may differ
        // in length, which only offsets of their own can tell.
        unshare_current();
    }
    _row_in_rows = false;
    _sets_in_row = 0;
    const bucket_position at = locate_near(t, _shard_size, _row_shard);
    const bool same_shard = _has_row && _current && at.start_ms == _row_shard;
    _row_shard = at.start_ms;
    _row_offset = at.offset_ns;
    _has_row = true;
    if (same_shard && _max_chunk_size >= _approx_size)
    {
        return zlk_e_ok;
    }
    chunk_list & chunks = _shards[_row_shard];
    std::shared_ptr<shard_chunk> found;
    for (const auto & c : chunks)
    {
        if (chunk_estimate(*c, _table.size()) < _max_chunk_size)
        {
            found = c;
            break;
        }
    }
    if (!found)
    {
        found = make_chunk(_row_shard);
        if (!found)
        {
            return zlk_e_no_memory_local;
        }
        chunks.push_back(found);
    }
    _current = std::move(found);
    point_cursors();
    _approx_size = chunk_estimate(*_current, _table.size());
    return zlk_e_ok;
}

template <typename Value>
bool table_writer::grow_for_row(pod_vector<std::int64_t> & offsets, pod_vector<Value> & values) noexcept
{
    try
    {
        grow_for_one(offsets);
        grow_for_one(values);
        return true;
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

template bool table_writer::grow_for_row(pod_vector<std::int64_t> &, pod_vector<double> &) noexcept;
template bool table_writer::grow_for_row(pod_vector<std::int64_t> &, pod_vector<std::int64_t> &) noexcept;
template bool table_writer::grow_for_row(pod_vector<std::int64_t> &, pod_vector<timespec> &) noexcept;
template bool table_writer::grow_for_row(pod_vector<std::int64_t> &, pod_vector<byte_view> &) noexcept;

template <typename Value>
bool table_writer::grow_for_values(pod_vector<Value> & values) noexcept
{
    try
    {
        grow_for_one(values);
        return true;
    }
    catch (const std::bad_alloc &)
    {
        return false;
    }
}

template bool table_writer::grow_for_values(pod_vector<double> &) noexcept;
template bool table_writer::grow_for_values(pod_vector<std::int64_t> &) noexcept;
template bool table_writer::grow_for_values(pod_vector<timespec> &) noexcept;
template bool table_writer::grow_for_values(pod_vector<byte_view> &) noexcept;

void table_writer::finish(bool keep_lone_empty)
{
    close_row();
    for (auto & [start, chunks] : _shards)
    {
        for (const auto & chunk : chunks)
        {
            if (chunk->shared_rows && std::is_sorted(chunk->rows.begin(), chunk->rows.end()))
            {
                continue;
            }
            chunk->unshare();
            for (column_chunk & c : chunk->columns)
            {
                std::visit([](auto & p) { sort_by_offset(p.offsets, p.values); }, c.payload);
            }
        }
    }
    // The current chunk may go to the spares below: the next row looks its chunk up again.
    _current.reset();
    point_cursors();
    std::size_t chunk_count = 0;
    for (const auto & [start, chunks] : _shards)
    {
        chunk_count += chunks.size();
    }
    _spares.reserve(_spares.size() + chunk_count);
    boost::unordered::erase_if(_shards,
                               [&](auto & slot)
                               {
                                   chunk_list & chunks = slot.second;
                                   if (keep_lone_empty && chunks.size() == 1)
                                   {
                                       return false;
                                   }
                                   auto kept = chunks.begin();
                                   for (auto & chunk : chunks)
                                   {
                                       if (chunk->empty())
                                       {
                                           _spares.push_back(std::move(chunk));
                                       }
                                       else
                                       {
                                           *kept++ = std::move(chunk);
                                       }
                                   }
                                   chunks.erase(kept, chunks.end());
                                   return chunks.empty();
                               });
}

void table_writer::reset() noexcept
{
    _row_offset = -1000000;
    _row_shard = -1;
    _current.reset();
    point_cursors();
    _approx_size = 0;
    _has_row = false;
    try
    {
        for (auto & [start, chunks] : _shards)
        {
            for (auto & chunk : chunks)
            {
                chunk->clear();
                _spares.push_back(std::move(chunk));
            }
        }
    }
    catch (const std::bad_alloc &)
    {
        // The spares are a saving only.
    }
    _shards.clear();
}

zlk_error_t table_writer::shrink_pinned(std::size_t position, std::size_t count) noexcept
{
    if (position >= _cursors.size())
    {
        return zlk_e_out_of_bounds;
    }
    column_payload_variant * cursor = _cursors[position];
    if (!cursor)
    {
        return zlk_e_ok;
    }
    if (!unshare_current_noexcept())
    {
        return zlk_e_no_memory_local;
    }
    return std::visit(
        [count](auto & p) -> zlk_error_t
        {
            if (count > p.offsets.size() || count > p.values.size())
            {
                return zlk_e_invalid_argument;
            }
            p.offsets.resize(count);
            p.values.resize(count);
            return zlk_e_ok;
        },
        *cursor);
}

zlk_error_t table_writer::resize_pinned(std::size_t position, std::size_t count)
{
    if (position >= _cursors.size())
    {
        return zlk_e_out_of_bounds;
    }
    column_payload_variant * cursor = _cursors[position];
    if (!cursor)
    {
        return zlk_e_ok;
    }
    unshare_current();
    std::visit(
        [count](auto & p)
        {
            p.offsets.resize(count);
            p.values.resize(count);
        },
        *cursor);
    return zlk_e_ok;
}

std::size_t table_writer::staged_rows() const noexcept
{
    std::size_t total = 0;
    for (const auto & [start, chunks] : _shards)
    {
        for (const auto & chunk : chunks)
        {
            if (!chunk->columns.empty())
            {
                total += chunk->columns.front().rows();
            }
        }
    }
    return total;
}

} // namespace zlk::timeseries
