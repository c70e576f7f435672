#include "timeseries/codec/shard_chunk.hpp"

#include <algorithm>
#include <utility>

namespace zlk::timeseries
{

column_payload_variant make_payload(kernel::column_type type)
{
    switch (type)
    {
    case kernel::column_type::double_:
        return double_payload{};
    case kernel::column_type::int64:
        return int64_payload{};
    case kernel::column_type::timestamp:
        return timestamp_payload{};
    case kernel::column_type::blob:
    case kernel::column_type::string:
        break;
    }
    return bytes_payload{};
}

std::size_t column_chunk::rows() const noexcept
{
    return std::visit([](const auto & p) { return p.values.size(); }, payload);
}

void shard_chunk::unshare()
{
    if (!shared_rows)
    {
        return;
    }
    std::vector<pod_vector<std::int64_t>> own;
    own.reserve(columns.size());
    for (const column_chunk & c : columns)
    {
        own.emplace_back(rows.begin(), rows.begin() + c.rows());
    }
    for (std::size_t i = 0; i < columns.size(); ++i)
    {
        std::visit([&](auto & p) { p.offsets = std::move(own[i]); }, columns[i].payload);
    }
    rows = pod_vector<std::int64_t>();
    shared_rows = false;
}

bool shard_chunk::empty() const noexcept
{
    return std::all_of(columns.begin(), columns.end(), [](const column_chunk & c) { return c.empty(); });
}

void shard_chunk::clear() noexcept
{
    for (column_chunk & c : columns)
    {
        std::visit(
            [](auto & p)
            {
                p.offsets.clear();
                p.values.clear();
            },
            c.payload);
    }
    rows.clear();
    shared_rows = true;
}

} // namespace zlk::timeseries
