#include "base/ring_id.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace zlk::chord
{
namespace
{

constexpr std::uint64_t all_ones = ~0ull;

ring_id id_of(std::uint64_t w3, std::uint64_t w2, std::uint64_t w1, std::uint64_t w0)
{
    return ring_id{{w0, w1, w2, w3}};
}

TEST(ring_id, orders_as_one_number_with_word_three_most_significant)
{
    // Each pair would compare the other way round if word 0 decided first.
    EXPECT_LT(id_of(0, 0, 0, all_ones), id_of(0, 0, 1, 0));
    EXPECT_LT(id_of(0, all_ones, all_ones, all_ones), id_of(1, 0, 0, 0));
    EXPECT_GT(id_of(2, 0, 0, 0), id_of(1, all_ones, all_ones, all_ones));
    EXPECT_LT(id_of(5, 5, 5, 4), id_of(5, 5, 5, 5));
    EXPECT_EQ(id_of(1, 2, 3, 4) <=> id_of(1, 2, 3, 4), std::strong_ordering::equal);
    EXPECT_NE(id_of(1, 2, 3, 4), id_of(4, 3, 2, 1));

    std::vector<ring_id> ids = {ring_id::max(),    id_of(0, 0, 1, 0), ring_id{},
                                id_of(0, 1, 0, 0), id_of(1, 0, 0, 0), id_of(0, 0, 0, 1)};
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<ring_id>{ring_id{}, id_of(0, 0, 0, 1), id_of(0, 0, 1, 0), id_of(0, 1, 0, 0),
                                         id_of(1, 0, 0, 0), ring_id::max()}));
}

TEST(ring_id, increment_carries_across_words_and_wraps_at_the_top)
{
    ring_id id = id_of(0, 0, 0, 41);
    EXPECT_EQ(++id, id_of(0, 0, 0, 42));

    id = id_of(7, 0, all_ones, all_ones);
    EXPECT_EQ(++id, id_of(7, 1, 0, 0));

    id = id_of(0, all_ones, all_ones, all_ones);
    EXPECT_EQ(++id, id_of(1, 0, 0, 0));

    id = ring_id::max();
    EXPECT_EQ(++id, ring_id{});
    EXPECT_TRUE(id.is_zero());
    EXPECT_FALSE(id_of(1ull << 63, 0, 0, 0).is_zero());
    EXPECT_FALSE(id_of(0, 0, 0, 1).is_zero());

    id = ring_id::max();
    EXPECT_EQ(id++, ring_id::max());
    EXPECT_EQ(id, ring_id{});
}

TEST(ring_id, text_form_is_hex_words_from_the_most_significant_without_leading_zeros)
{
    EXPECT_EQ(to_string(ring_id{}), "0-0-0-0");
    EXPECT_EQ(to_string(id_of(0x10, 0xabc, 0, 1)), "10-abc-0-1");
    EXPECT_EQ(to_string(id_of(0x0123456789abcdef, 0xf, 0x100000000, 0x8000000000000000)),
              "123456789abcdef-f-100000000-8000000000000000");

    const std::string longest = to_string(ring_id::max());
    EXPECT_EQ(longest.size(), ring_id_text_max);
    EXPECT_EQ(longest, "ffffffffffffffff-ffffffffffffffff-ffffffffffffffff-ffffffffffffffff");
}

TEST(ring_id, formats_with_fmt_like_its_text_and_honours_width)
{
    const ring_id id = id_of(0x10, 0xabc, 0, 1);
    EXPECT_EQ(fmt::format("successor for {}", id), "successor for 10-abc-0-1");
    EXPECT_EQ(fmt::format("[{:>12}]", id), "[  10-abc-0-1]");
    EXPECT_EQ(fmt::format("[{:<9}]", ring_id{}), "[0-0-0-0  ]");
}

TEST(ring_id_parser, reads_back_every_text_it_writes)
{
    std::mt19937_64 random(20240611);
    std::vector<ring_id> ids = {ring_id{}, ring_id::max(), id_of(0x10, 0xabc, 0, 1)};
    for (int i = 0; i < 500; ++i)
    {
        ring_id id;
        for (auto & w : id.words)
        {
            // Vary the word widths so that short and zero words are well represented.
            w = random() >> (random() % 65 == 64 ? 0 : random() % 64);
            if (random() % 5 == 0)
            {
                w = 0;
            }
        }
        ids.push_back(id);
    }
    for (const ring_id & id : ids)
    {
        const std::string text = to_string(id);
        const id_parse_result parsed = parse_ring_id(text);
        ASSERT_TRUE(parsed.ok()) << text << ": " << describe(parsed.error);
        EXPECT_EQ(parsed.id, id) << text;
    }
}

TEST(ring_id_parser, rejects_anything_but_the_exact_text_form_and_says_where)
{
    struct rejection
    {
        std::string text;
        id_parse_error error;
        std::size_t position;
    };
    const rejection cases[] = {
        {"", id_parse_error::empty_input, 0},
        {"0", id_parse_error::too_few_words, 1},
        {"0-0-0", id_parse_error::too_few_words, 5},
        {"0-0-0-", id_parse_error::empty_word, 6},
        {"-0-0-0", id_parse_error::empty_word, 0},
        {"0--0-0", id_parse_error::empty_word, 2},
        {"0-0-0-0-", id_parse_error::too_many_words, 7},
        {"0-0-0-0-0", id_parse_error::too_many_words, 7},
        {"A-0-0-0", id_parse_error::unexpected_character, 0},
        {"0-0-0-fF", id_parse_error::unexpected_character, 7},
        {"0-g-0-0", id_parse_error::unexpected_character, 2},
        {" 0-0-0-0", id_parse_error::unexpected_character, 0},
        {"0-0-0-0 ", id_parse_error::unexpected_character, 7},
        {"0x1-0-0-0", id_parse_error::unexpected_character, 1},
        {"+1-0-0-0", id_parse_error::unexpected_character, 0},
        {"0_0-0-0", id_parse_error::unexpected_character, 1},
        {std::string("0-0\0-0-0", 8), id_parse_error::unexpected_character, 3},
        {"00-0-0-0", id_parse_error::leading_zero, 0},
        {"0-0-0-01", id_parse_error::leading_zero, 6},
        {"1-10000000000000000-0-0", id_parse_error::word_too_long, 18},
        {"0-0-0-fffffffffffffffff", id_parse_error::word_too_long, 22},
    };
    for (const auto & c : cases)
    {
        const id_parse_result r = parse_ring_id(c.text);
        EXPECT_FALSE(r.ok()) << '"' << c.text << '"';
        EXPECT_EQ(r.error, c.error) << '"' << c.text << "\": " << describe(r.error);
        EXPECT_EQ(r.position, c.position) << '"' << c.text << '"';
        EXPECT_TRUE(r.id.is_zero()) << "a failed parse must not leak a partial id";
    }
}

// Random input must never crash the parser (the sanitizer build watches), and whatever it accepts must
// be canonical: printing the id gives back the very same text.
TEST(ring_id_parser, random_input_is_either_rejected_or_canonical)
{
    std::mt19937_64 random(7);
    const std::string alphabet = std::string("0123456789abcdef-----AFgx +\xff", 29) + std::string(1, '\0');
    std::size_t accepted = 0;
    for (int i = 0; i < 5000; ++i)
    {
        std::string text;
        if (i % 2 == 0)
        {
            // Pure noise, mostly from the id's own characters.
            text.resize(random() % 80);
            for (auto & c : text)
            {
                c = alphabet[random() % alphabet.size()];
            }
        }
        else
        {
            // A valid text with one character changed, inserted or erased.
            ring_id id;
            for (auto & w : id.words)
            {
                w = random() >> (random() % 64);
            }
            text = to_string(id);
            const std::size_t at = random() % text.size();
            switch (random() % 3)
            {
            case 0:
                text[at] = alphabet[random() % alphabet.size()];
                break;
            case 1:
                text.insert(text.begin() + at, alphabet[random() % alphabet.size()]);
                break;
            default:
                text.erase(at, 1);
                break;
            }
        }
        const id_parse_result r = parse_ring_id(text);
        if (r.ok())
        {
            ++accepted;
            EXPECT_EQ(to_string(r.id), text);
        }
        else
        {
            EXPECT_LE(r.position, text.size()) << text;
        }
    }
    // Both outcomes must be exercised for the test to mean anything.
    EXPECT_GT(accepted, 100u);
    EXPECT_LT(accepted, 4000u);
}

} // namespace
} // namespace zlk::chord
