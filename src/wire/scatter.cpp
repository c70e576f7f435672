#include "wire/scatter.hpp"

#include <algorithm>
#include <cstring>

namespace zlk::serialization
{

void scatter_list::grow()
{
    if (_spill == nullptr)
    {
        // A fixed list has room for the message it was sized for; more entries mean a builder that
        // doesn't match its message, reported as the one failure a writer has.
        throw std::bad_alloc();
    }
    const std::size_t capacity = std::max<std::size_t>(_capacity * 2, 16);
    if (_entries == _spill->data())
    {
        _spill->resize(capacity);
    }
    else
    {
        _spill->resize(capacity);
        std::copy(_entries, _entries + _count, _spill->begin());
    }
    _entries = _spill->data();
    _capacity = capacity;
}

void flatten_into(const scatter_list & scatter, std::vector<std::uint8_t> & out)
{
    out.resize(scatter.total_size());
    std::uint8_t * at = out.data();
    for (const scatter_entry & e : scatter)
    {
        std::memcpy(at, e.data, e.size);
        at += e.size;
    }
}

std::shared_ptr<std::vector<std::uint8_t>> flatten(const scatter_list & scatter)
{
    auto out = std::make_shared<std::vector<std::uint8_t>>();
    flatten_into(scatter, *out);
    return out;
}

} // namespace zlk::serialization
