#include "timeseries/batch_columns.hpp"

#include <algorithm>

namespace zlk::timeseries
{

table_writer * batch_columns::writer_of(std::string_view table) noexcept
{
    const auto it = _table_index.find(std::string(table));
    return it == _table_index.end() ? nullptr : &_writers[it->second];
}

zlk_error_t batch_columns::fetch_and_add(chord::cluster & c,
                                         std::span<const zlk_ts_batch_column_info> columns)
{
    std::vector<std::string_view> aliases;
    std::vector<std::size_t> table_of(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        const std::string_view name = columns[i].timeseries;
        const auto at = std::find(aliases.begin(), aliases.end(), name);
        table_of[i] = static_cast<std::size_t>(at - aliases.begin());
        if (at == aliases.end())
        {
            aliases.push_back(name);
        }
    }
    std::vector<std::shared_ptr<const timeseries_table>> tables;
    const zlk_error_t fetched = get_tables(c, aliases, tables);
    if (ZLK_FAILURE(fetched))
    {
        return fetched;
    }
    if (tables.size() != aliases.size())
    {
        return zlk_e_invalid_reply;
    }
    std::vector<column_entry> entries;
    entries.reserve(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        const timeseries_table * table = tables[table_of[i]].get();
        const column_record * record = table ? table->find(columns[i].column) : nullptr;
        if (!record)
        {
            return zlk_e_column_not_found;
        }
        column_entry e;
        e.table = aliases[table_of[i]];
        e.column = record->name;
        e.shard_size = table->shard_size;
        e.type = record->type;
        e.index = record->index;
        e.rows_hint = columns[i].elements_count_hint;
        entries.push_back(std::move(e));
    }
    add(entries);
    return zlk_e_ok;
}

void batch_columns::add(std::span<const column_entry> entries)
{
    _entries.reserve(_entries.size() + entries.size());
    _places.reserve(_places.size() + entries.size());
    for (const column_entry & e : entries)
    {
        auto [it, inserted] = _table_index.try_emplace(e.table, _writers.size());
        if (inserted)
        {
            try
            {
                _writers.emplace_back(e.table, static_cast<std::int64_t>(e.shard_size), _max_chunk_size);
            }
            catch (...)
            {
                _table_index.erase(it);
                throw;
            }
        }
        const std::size_t w = it->second;
        const std::size_t position = _writers[w].add_column(e);
        _entries.push_back(e);
        _places.push_back(column_place{w, position});
    }
}

zlk_error_t batch_columns::start_row(std::string_view table, const timespec & t)
{
    table_writer * w = writer_of(table);
    return w ? w->start_row(t) : zlk_e_invalid_argument;
}

zlk_error_t batch_columns::start_row(const timespec & t)
{
    for (table_writer & w : _writers)
    {
        const zlk_error_t e = w.start_row(t);
        if (ZLK_FAILURE(e))
        {
            return e;
        }
    }
    return zlk_e_ok;
}

std::size_t batch_columns::staged_rows() const noexcept
{
    std::size_t total = 0;
    for (const table_writer & w : _writers)
    {
        total += w.staged_rows();
    }
    return total;
}

void batch_columns::reset() noexcept
{
    for (table_writer & w : _writers)
    {
        w.reset();
    }
}

} // namespace zlk::timeseries
