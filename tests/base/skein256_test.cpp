#include "base/skein256.hpp"

#include "known_answers.hpp"
#include "base/ring_id.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

namespace zlk::chord
{
namespace
{

using kat::known_answer;
using kat::known_answers;

std::vector<std::uint8_t> to_vector(const skein256::digest & d)
{
    return {d.begin(), d.end()};
}

std::vector<std::uint8_t> counting_bytes(std::size_t n)
{
    std::vector<std::uint8_t> bytes(n);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

TEST(skein256, one_shot_and_streaming_hashes_match_every_known_answer_as_bytes_words_and_text)
{
    // A truncated copy of the file would let this pass vacuously.
    ASSERT_GE(known_answers().size(), 45u);
    for (const known_answer & a : known_answers())
    {
        SCOPED_TRACE(a.name);
        EXPECT_EQ(to_vector(skein256_hash(a.input.data(), a.input.size())), a.digest);
        const skein256::words w = skein256_hash_words(a.input.data(), a.input.size());
        EXPECT_EQ(w, (skein256::words{a.words[0], a.words[1], a.words[2], a.words[3]}));
        EXPECT_EQ(fmt::format("{}", ring_id{w}), a.text);

        skein256 h;
        h.update(a.input.data(), a.input.size());
        EXPECT_EQ(to_vector(h.final()), a.digest);
    }
}

TEST(skein256, initial_chain_is_what_the_configuration_block_for_256_bits_produces)
{
    EXPECT_EQ(skein256::configure(256), skein256::initial_chain);
    // The output length is part of the configuration: another length must give another chain.
    EXPECT_NE(skein256::configure(128), skein256::initial_chain);
}

TEST(skein256, updates_split_at_any_one_or_two_positions_equal_the_one_shot_hash)
{
    // Lengths around block multiples decide whether the held-back last block is ever flushed too early.
    for (std::size_t n : {1u, 31u, 32u, 33u, 64u, 97u})
    {
        const auto message = counting_bytes(n);
        const auto expected = skein256_hash(message.data(), n);
        // a == 0 or b == n leaves a single cut.
        for (std::size_t a = 0; a <= n; ++a)
        {
            for (std::size_t b = a; b <= n; ++b)
            {
                skein256 h;
                h.update(message.data(), a);
                h.update(message.data() + a, b - a);
                h.update(message.data() + b, n - b);
                ASSERT_EQ(h.final(), expected) << "length " << n << " cuts at " << a << " and " << b;
            }
        }
    }
}

TEST(skein256, byte_at_a_time_updates_and_empty_updates_change_nothing)
{
    const auto & a = kat::known_answer_named("kat_rand_2048");
    skein256 h;
    for (std::uint8_t byte : a.input)
    {
        h.update(nullptr, 0);
        h.update(&byte, 1);
    }
    EXPECT_EQ(to_vector(h.final()), a.digest);
}

TEST(skein256, init_makes_a_finished_object_hash_afresh)
{
    const auto & empty = kat::known_answer_named("empty");
    const auto & ff = kat::known_answer_named("ff_1");
    skein256 h;
    h.update("garbage that must be forgotten, longer than a block");
    (void)h.final();
    h.init();
    EXPECT_EQ(to_vector(h.final()), empty.digest);
    h.init();
    h.update(ff.input.data(), ff.input.size());
    EXPECT_EQ(to_vector(h.final()), ff.digest);
}

} // namespace
} // namespace zlk::chord
