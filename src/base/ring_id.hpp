// A position on the chord ring, also the id of a node: one unsigned 256-bit number held as four
// 64-bit words, word 0 the least significant (and the first on the wire).
//
// Included by the wire codec and the ring map's look-ups, so it stays small: comparison and increment
// are inline, the text form writes into the caller's memory without allocating.
#pragma once

#include <fmt/core.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zlk::chord
{

struct ring_id
{
    std::array<std::uint64_t, 4> words{};

    static constexpr ring_id max() noexcept { return {{~0ull, ~0ull, ~0ull, ~0ull}}; }

    constexpr bool is_zero() const noexcept { return (words[0] | words[1] | words[2] | words[3]) == 0; }

    // Adds one, carrying across all words; the largest id wraps to zero.
    constexpr ring_id & operator++() noexcept
    {
        for (auto & w : words)
        {
            if (++w != 0)
            {
                break;
            }
        }
        return *this;
    }

    constexpr ring_id operator++(int) noexcept
    {
        ring_id before = *this;
        ++*this;
        return before;
    }

    friend constexpr bool operator==(const ring_id &, const ring_id &) noexcept = default;

    // As one 256-bit unsigned number: the most significant word decides first.
    friend constexpr std::strong_ordering operator<=>(const ring_id & a, const ring_id & b) noexcept
    {
        if (a.words[3] != b.words[3])
        {
            return a.words[3] <=> b.words[3];
        }
        if (a.words[2] != b.words[2])
        {
            return a.words[2] <=> b.words[2];
        }
        if (a.words[1] != b.words[1])
        {
            return a.words[1] <=> b.words[1];
        }
        return a.words[0] <=> b.words[0];
    }
};

// The text form: words 3 to 0, each in lower-case hexadecimal without leading zeros ("0" for a zero
// word), joined by "-". At most 4 * 16 + 3 characters.
inline constexpr std::size_t ring_id_text_max = 67;

// Writes the text form at out, which must have room for ring_id_text_max characters; returns the end.
// No terminating zero is written.
char * to_chars(char * out, const ring_id & id) noexcept;
std::string to_string(const ring_id & id);

// Failures of the "zlk id parser". The parser accepts exactly the text form above and nothing else: no
// upper-case digits, no leading zeros, no blanks, no prefix.
enum class id_parse_error : std::uint8_t
{
    none = 0,
    empty_input = 1,
    unexpected_character = 2,
    empty_word = 3,
    leading_zero = 4,
    word_too_long = 5,
    too_few_words = 6,
    too_many_words = 7,
};

struct id_parse_result
{
    ring_id id;
    id_parse_error error = id_parse_error::none;
    // On failure, the offset in the text where the parser gave up.
    std::size_t position = 0;

    constexpr bool ok() const noexcept { return error == id_parse_error::none; }
};

id_parse_result parse_ring_id(std::string_view text) noexcept;

// A sentence for a person reading a command line's complaint.
std::string_view describe(id_parse_error e) noexcept;

} // namespace zlk::chord

// "{}" gives the text form; width, fill and alignment apply to it as a whole, as to a string.
template <>
struct fmt::formatter<zlk::chord::ring_id> : fmt::formatter<fmt::string_view>
{
    fmt::format_context::iterator format(const zlk::chord::ring_id & id, fmt::format_context & ctx) const;
};
