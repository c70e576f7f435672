// The row offsets of a bucket column, shareable between the columns of a bucket.
//
// The columns that one shard write carries nearly always have the same offsets: the batch writer
// fills in skipped columns so that they do. Held once, they no longer take half of a bucket of
// doubles, and a large load touches that much less fresh memory. Reading is as from a vector; a
// change goes through edit(), which first copies a vector that other columns still hold.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "timeseries/codec/pod_vector.hpp"

namespace zlk::node
{

class ts_shared_offsets
{
public:
    using vector = timeseries::pod_vector<std::int64_t>;

    std::size_t size() const noexcept { return _v ? _v->size() : 0; }
    bool empty() const noexcept { return size() == 0; }
    const std::int64_t * data() const noexcept { return _v ? _v->data() : nullptr; }
    const std::int64_t * begin() const noexcept { return data(); }
    const std::int64_t * end() const noexcept { return data() + size(); }
    std::int64_t operator[](std::size_t i) const noexcept { return (*_v)[i]; }
    std::int64_t back() const noexcept { return _v->back(); }
    std::span<const std::int64_t> view() const noexcept { return {data(), size()}; }

    // The vector to change, made this column's own first.
    vector & edit()
    {
        if (!_v)
        {
            _v = std::make_shared<vector>();
        }
        else if (_v.use_count() > 1)
        {
            _v = std::make_shared<vector>(*_v);
        }
        return *_v;
    }

    bool shares_with(const ts_shared_offsets & other) const noexcept { return _v && _v == other._v; }

    // One vector for all of `holders`, which share one already or are empty, to change for all of
    // them at once. It is copied only when a column outside `holders` holds it too.
    static vector & edit_together(std::span<ts_shared_offsets * const> holders)
    {
        std::shared_ptr<vector> v = holders.front()->_v;
        for (ts_shared_offsets * h : holders)
        {
            h->_v.reset();
        }
        if (!v)
        {
            v = std::make_shared<vector>();
        }
        else if (v.use_count() > 1)
        {
            v = std::make_shared<vector>(*v);
        }
        for (ts_shared_offsets * h : holders)
        {
            h->_v = v;
        }
        return *v;
    }

    friend bool operator==(const ts_shared_offsets & a, const std::vector<std::int64_t> & b) noexcept
    {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
    }
    friend bool operator==(const ts_shared_offsets & a, const ts_shared_offsets & b) noexcept
    {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
    }

private:
    std::shared_ptr<vector> _v;
};

} // namespace zlk::node
