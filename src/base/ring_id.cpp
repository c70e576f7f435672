#include "base/ring_id.hpp"

#include <fmt/format.h>

#include <bit>

namespace zlk::chord
{

namespace
{

constexpr char hex_digits[] = "0123456789abcdef";

char * write_word(char * out, std::uint64_t w) noexcept
{
    // A zero word still has one digit.
    const int digits = w == 0 ? 1 : (64 - std::countl_zero(w) + 3) / 4;
    for (int i = digits - 1; i >= 0; --i)
    {
        *out++ = hex_digits[(w >> (4 * i)) & 0xF];
    }
    return out;
}

// The value of a lower-case hexadecimal digit, or -1.
int digit_value(char c) noexcept
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f')
    {
        return c - 'a' + 10;
    }
    return -1;
}

id_parse_result failure(id_parse_error e, std::size_t position) noexcept
{
    return {ring_id{}, e, position};
}

} // namespace

char * to_chars(char * out, const ring_id & id) noexcept
{
    out = write_word(out, id.words[3]);
    for (int i = 2; i >= 0; --i)
    {
        *out++ = '-';
        out = write_word(out, id.words[i]);
    }
    return out;
}

std::string to_string(const ring_id & id)
{
    char text[ring_id_text_max];
    return std::string(text, to_chars(text, id));
}

id_parse_result parse_ring_id(std::string_view text) noexcept
{
    if (text.empty())
    {
        return failure(id_parse_error::empty_input, 0);
    }
    ring_id id;
    std::size_t pos = 0;
    for (int word = 3; word >= 0; --word)
    {
        const std::size_t start = pos;
        std::uint64_t value = 0;
        for (; pos < text.size() && text[pos] != '-'; ++pos)
        {
            const int d = digit_value(text[pos]);
            if (d < 0)
            {
                return failure(id_parse_error::unexpected_character, pos);
            }
            if (pos - start == 16)
            {
                return failure(id_parse_error::word_too_long, pos);
            }
            if (pos - start == 1 && text[start] == '0')
            {
                return failure(id_parse_error::leading_zero, start);
            }
            value = (value << 4) | static_cast<std::uint64_t>(d);
        }
        if (pos == start)
        {
            return failure(id_parse_error::empty_word, pos);
        }
        id.words[word] = value;
        if (word > 0)
        {
            if (pos == text.size())
            {
                return failure(id_parse_error::too_few_words, pos);
            }
            ++pos;
        }
    }
    if (pos != text.size())
    {
        return failure(id_parse_error::too_many_words, pos);
    }
    return {id, id_parse_error::none, 0};
}

std::string_view describe(id_parse_error e) noexcept
{
    switch (e)
    {
    case id_parse_error::none:
        return "no error";
    case id_parse_error::empty_input:
        return "zlk id parser: the id is empty";
    case id_parse_error::unexpected_character:
        return "zlk id parser: expected a lower-case hexadecimal digit or '-'";
    case id_parse_error::empty_word:
        return "zlk id parser: a word of the id has no digits";
    case id_parse_error::leading_zero:
        return "zlk id parser: a word of the id has a leading zero";
    case id_parse_error::word_too_long:
        return "zlk id parser: a word of the id has more than 16 digits";
    case id_parse_error::too_few_words:
        return "zlk id parser: the id has fewer than four words";
    case id_parse_error::too_many_words:
        return "zlk id parser: the id has more than four words";
    }
    return "zlk id parser: unknown error";
}

} // namespace zlk::chord

fmt::format_context::iterator fmt::formatter<zlk::chord::ring_id>::format(const zlk::chord::ring_id & id,
                                                                          fmt::format_context & ctx) const
{
    char text[zlk::chord::ring_id_text_max];
    const char * end = zlk::chord::to_chars(text, id);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text, end - text), ctx);
}
