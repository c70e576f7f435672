#include "api/objects_tracker.hpp"

#include "log/logger.hpp"

#include <fmt/format.h>

#include <string>

namespace zlk::api
{

namespace
{

void destroy(const objects_tracker::tracked_object & o) noexcept
{
    if (o.deleter != nullptr)
    {
        o.deleter(o.object);
    }
}

} // namespace

void objects_tracker::track(const void * key, std::vector<std::uint8_t> & bytes, const char * label)
{
    table_type::accessor entry;
    const bool created = _table.insert(entry, key);
    try
    {
        entry->second.push_back(tracked_object{nullptr, nullptr, label, std::vector<std::uint8_t>{}});
    }
    catch (...)
    {
        if (created)
        {
            _table.erase(entry);
        }
        throw;
    }
    // Stored: now the bytes move in, which neither allocates nor throws, and keeps their address.
    std::get<std::vector<std::uint8_t>>(entry->second.back().held) = std::move(bytes);
}

void objects_tracker::track_raw(const void * key, tracked_object && object)
{
    table_type::accessor entry;
    const bool created = _table.insert(entry, key);
    try
    {
        entry->second.push_back(std::move(object));
    }
    catch (...)
    {
        // Don't leave an empty entry behind: the report would name a key that holds nothing.
        if (created)
        {
            _table.erase(entry);
        }
        throw;
    }
}

void objects_tracker::release(const void * key) noexcept
{
    if (!key)
    {
        return;
    }
    object_list objects;
    {
        table_type::accessor entry;
        if (!_table.find(entry, key))
        {
            return;
        }
        objects = std::move(entry->second);
        _table.erase(entry);
    }
    // Destroyed outside the bucket lock: a deleter may be slow (a whole query result).
    for (const auto & o : objects)
    {
        destroy(o);
    }
}

std::size_t objects_tracker::key_count() const noexcept
{
    return _table.size();
}

std::size_t objects_tracker::object_count() const noexcept
{
    std::size_t n = 0;
    for (const auto & [key, objects] : _table)
    {
        n += objects.size();
    }
    return n;
}

void objects_tracker::report_leftovers() const noexcept
{
    try
    {
        const std::size_t objects = object_count();
        log::log(log::level::warning,
                 "At objects tracker destructor, got {} tracked pointers with {} associated objects:",
                 _table.size(), objects);

        std::size_t budget = report_budget;
        std::string labels;
        for (const auto & [key, list] : _table)
        {
            labels.clear();
            const bool fits = list.size() <= budget;
            const std::size_t shown = fits ? list.size() : budget;
            for (std::size_t i = 0; i < shown; ++i)
            {
                if (i != 0)
                {
                    labels += ", ";
                }
                labels += list[i].label;
            }
            if (!fits)
            {
                log::log(log::level::warning, " | objects tracked at {}: {}, ...", key, labels);
                break;
            }
            log::log(log::level::warning, " | objects tracked at {}: {}", key, labels);
            budget -= shown;
            if (budget == 0)
            {
                break;
            }
        }
        if (objects > report_budget)
        {
            log::log(log::level::warning, " | got {} more objects...", objects - report_budget);
        }
    }
    catch (...)
    {
        // The report is a courtesy; the objects are freed whatever happens to it.
    }
}

objects_tracker::~objects_tracker()
{
    if (_table.empty())
    {
        return;
    }
    report_leftovers();
    for (const auto & [key, objects] : _table)
    {
        for (const auto & o : objects)
        {
            destroy(o);
        }
    }
}

} // namespace zlk::api
