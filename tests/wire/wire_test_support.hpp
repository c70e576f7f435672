// Helpers shared by the wire tests: byte literals and one-call encoding.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "wire/marshal.hpp"
#include "wire/scatter.hpp"

namespace zlk::wire_test
{

using bytes = std::vector<std::uint8_t>;

// "51 7E 23 00" -> {0x51, 0x7E, 0x23, 0x00}
inline bytes hex(std::string_view text)
{
    bytes out;
    std::string digit;
    for (char ch : text)
    {
        if (ch == ' ')
        {
            continue;
        }
        digit.push_back(ch);
        if (digit.size() == 2)
        {
            out.push_back(static_cast<std::uint8_t>(std::strtoul(digit.c_str(), nullptr, 16)));
            digit.clear();
        }
    }
    return out;
}

inline bytes repeat(std::uint8_t value, std::size_t n)
{
    return bytes(n, value);
}

inline bytes concat(std::initializer_list<bytes> parts)
{
    bytes out;
    for (const bytes & p : parts)
    {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// Runs write(writer &) over a scratch area of `bound` bytes and returns the flattened message.
template <typename Write>
bytes encode(std::size_t bound, Write && write)
{
    serialization::small_scatter<8> scatter;
    std::vector<std::uint8_t> scratch(bound);
    serialization::writer w(scatter, scratch);
    write(w);
    bytes out;
    serialization::flatten_into(scatter, out);
    return out;
}

} // namespace zlk::wire_test
