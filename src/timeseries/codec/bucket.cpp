#include "timeseries/codec/bucket.hpp"

#include <fmt/format.h>

#include "base/entry_type.hpp"
#include "base/alias_hash.hpp"

namespace zlk::timeseries
{

namespace
{

using detail::ns_per_ms;
using detail::wrap_add;
using detail::wrap_mul;

constexpr std::string_view key_mark = kernel::reserved_alias_mark;
constexpr std::string_view key_head = "ts.";
constexpr std::string_view key_middle = ".bucket.";

// The nanosecond just before t, with the nanoseconds brought into [0, 1e9) so that the truncating
// millisecond of locate() doesn't round it up into the next millisecond.
timespec last_instant_before(const timespec & t) noexcept
{
    constexpr std::int64_t ns_per_s = 1000000000;
    std::int64_t sec = wrap_add(t.tv_sec, t.tv_nsec / ns_per_s);
    std::int64_t nsec = t.tv_nsec % ns_per_s;
    if (nsec < 0)
    {
        nsec += ns_per_s;
        sec = wrap_add(sec, -1);
    }
    if (nsec == 0)
    {
        return {wrap_add(sec, -1), ns_per_s - 1};
    }
    return {sec, nsec - 1};
}

} // namespace

bucket_position locate(const timespec & t, std::int64_t shard_size) noexcept
{
    const std::int64_t ms_of_ns = t.tv_nsec / ns_per_ms;
    const std::int64_t ms = wrap_add(wrap_mul(t.tv_sec, 1000), ms_of_ns);
    if (shard_size <= 0)
    {
        return {ms, t.tv_nsec - ms_of_ns * ns_per_ms};
    }
    // Truncating remainder: times before the epoch fall into the bucket whose start is nearer zero.
    const std::int64_t offset_ms = ms % shard_size;
    return {ms - offset_ms, wrap_add(t.tv_nsec - ms_of_ns * ns_per_ms, wrap_mul(offset_ms, ns_per_ms))};
}

chord::ring_id table_id(std::string_view alias) noexcept
{
    return chord::alias_hash(alias);
}

std::string id_text(const chord::ring_id & id)
{
    return chord::to_string(id);
}

void bucket_key_into(const chord::ring_id & table, std::int64_t start_ms, std::string & out)
{
    out.clear();
    out.append(key_mark);
    out.append(key_head);
    char id[chord::ring_id_text_max];
    out.append(id, chord::to_chars(id, table));
    out.append(key_middle);
    fmt::format_to(std::back_inserter(out), "{:018}", start_ms);
}

std::string bucket_key(const chord::ring_id & table, std::int64_t start_ms)
{
    std::string out;
    out.reserve(2 + key_head.size() + chord::ring_id_text_max + key_middle.size() + 20);
    bucket_key_into(table, start_ms, out);
    return out;
}

std::string bucket_prefix(const chord::ring_id & table)
{
    std::string out;
    out.append(key_mark);
    out.append(key_head);
    char id[chord::ring_id_text_max];
    out.append(id, chord::to_chars(id, table));
    out.append(key_middle);
    return out;
}

chord::ring_id table_of_bucket_key(std::string_view key) noexcept
{
    constexpr std::size_t skipped = 5; // the mark and "ts."
    if (key.size() < 13)
    {
        return {};
    }
    const auto end = key.find(key_middle, skipped);
    if (end == std::string_view::npos)
    {
        return {};
    }
    const auto parsed = chord::parse_ring_id(key.substr(skipped, end - skipped));
    return parsed.ok() ? parsed.id : chord::ring_id{};
}

std::uint64_t bucket_count_of(const timespec & begin, const timespec & end, std::int64_t shard_size) noexcept
{
    if (shard_size <= 0 || !before(begin, end))
    {
        return 0;
    }
    // The last bucket is that of the last nanosecond inside the range: bucket starts grow with time,
    // and before the epoch a bucket reaches further back than its start.
    const std::int64_t first = locate(begin, shard_size).start_ms;
    const std::int64_t last = locate(last_instant_before(end), shard_size).start_ms;
    if (last < first)
    {
        return 0;
    }
    const auto span = static_cast<__int128>(last) - static_cast<__int128>(first);
    return static_cast<std::uint64_t>(span / shard_size) + 1;
}

std::vector<std::int64_t> buckets_of(const timespec & begin, const timespec & end, std::int64_t shard_size)
{
    std::vector<std::int64_t> starts;
    const std::uint64_t count = bucket_count_of(begin, end, shard_size);
    if (count == 0)
    {
        return starts;
    }
    starts.reserve(count);
    std::int64_t s = locate(begin, shard_size).start_ms;
    for (std::uint64_t i = 0; i < count; ++i, s = wrap_add(s, shard_size))
    {
        starts.push_back(s);
    }
    return starts;
}

std::string time_text(const timespec & t)
{
    return fmt::format("{}.{}", t.tv_sec, t.tv_nsec);
}

std::string range_text(const timespec & begin, const timespec & end)
{
    return fmt::format("[{}.{}, {}.{})", begin.tv_sec, begin.tv_nsec, end.tv_sec, end.tv_nsec);
}

} // namespace zlk::timeseries
