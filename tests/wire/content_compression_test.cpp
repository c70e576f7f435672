#include <gtest/gtest.h>
#include <lz4.h>

#include <random>
#include <string>

#include "wire/content_compression.hpp"
#include "wire_test_support.hpp"

namespace zlk::protocol
{
namespace
{

using wire_test::bytes;

bytes text(std::size_t n)
{
    bytes out;
    const std::string line = "ts.4f2a.bucket.0000042 value=17.25 host=node-3;";
    while (out.size() < n)
    {
        out.insert(out.end(), line.begin(), line.end());
    }
    out.resize(n);
    return out;
}

bytes noise(std::size_t n)
{
    std::mt19937 random(42);
    bytes out(n);
    for (auto & b : out)
    {
        b = static_cast<std::uint8_t>(random());
    }
    return out;
}

TEST(content_compression, compresses_only_from_64_bytes_with_compression_on_and_some_gain)
{
    bytes out;
    EXPECT_FALSE(compress_content(text(63), true, out));
    EXPECT_FALSE(compress_content(text(4096), false, out));
    EXPECT_FALSE(compress_content(noise(4096), true, out));
    EXPECT_EQ(compress_content(noise(4096), true), nullptr);

    const bytes content = text(64);
    ASSERT_TRUE(compress_content(content, true, out));
    ASSERT_GE(out.size(), compressed_header_size);
    EXPECT_LT(out.size() - compressed_header_size, content.size());
    EXPECT_EQ(out[0], 0x42);
    EXPECT_EQ(out[1], 0x42);
    EXPECT_EQ(out[2], 64);
    EXPECT_EQ(out[3], 0);
}

TEST(content_compression, round_trips_and_reuses_the_destination)
{
    for (std::size_t size : {64u, 1000u, 65536u})
    {
        const bytes content = text(size);
        const auto compressed = compress_content(content, true);
        ASSERT_NE(compressed, nullptr) << size;
        EXPECT_LE(compressed->capacity(), compression_capacity(size));
        bytes back = text(3);
        ASSERT_TRUE(decompress_content(*compressed, back));
        EXPECT_EQ(back, content);
    }
}

// The block is LZ4's one-shot block at default acceleration, byte for byte, whatever was compressed
// before: a comparand is compressed apart from the stored content it is compared with, and a node may
// compare the two as they are. (A reused compressor table gives other, history-dependent bytes.)
TEST(content_compression, the_block_is_the_one_shot_block_whatever_came_before)
{
    bytes similar = text(100);
    similar[50] = 'X';
    for (const bytes & content : {text(100), similar, text(70000), text(5000), text(64)})
    {
        bytes block;
        ASSERT_TRUE(compress_content(content, true, block)) << content.size();
        bytes expected(compression_capacity(content.size()));
        const int size = LZ4_compress_default(
            reinterpret_cast<const char *>(content.data()), reinterpret_cast<char *>(expected.data()),
            static_cast<int>(content.size()), static_cast<int>(expected.size()));
        ASSERT_GT(size, 0);
        ASSERT_EQ(block.size(), compressed_header_size + static_cast<std::size_t>(size)) << content.size();
        EXPECT_TRUE(
            std::equal(expected.begin(), expected.begin() + size, block.begin() + compressed_header_size))
            << content.size();
    }
}

TEST(content_compression, takes_short_unmarked_or_out_of_range_content_as_raw)
{
    bytes out;
    const bytes cases[] = {
        wire_test::hex("42 42 01 00 00"),          // under six bytes
        wire_test::hex("42 43 05 00 00 00 50 61"), // no mark
        wire_test::hex("42 42 00 00 00 00 10 00"), // announces 0 bytes
        wire_test::hex("42 42 00 00 00 7E 10 00"), // announces 0x7E000000 bytes
        wire_test::hex("42 42 FF FF FF FF 10 00"), // announces 4 GiB
    };
    for (const bytes & stored : cases)
    {
        EXPECT_FALSE(decompress_content(stored, out));
    }
}

TEST(content_compression, keeps_the_stored_bytes_when_the_block_does_not_give_the_announced_size)
{
    const bytes content = text(500);
    bytes compressed;
    ASSERT_TRUE(compress_content(content, true, compressed));
    bytes out;

    bytes longer = compressed;
    longer[2] = static_cast<std::uint8_t>(longer[2] + 1);
    EXPECT_FALSE(decompress_content(longer, out));

    bytes shorter = compressed;
    shorter[2] = static_cast<std::uint8_t>(shorter[2] - 1);
    EXPECT_FALSE(decompress_content(shorter, out));

    // A blob that merely begins with "BB".
    const std::string blob = "BB: a note that starts like compressed content";
    EXPECT_FALSE(decompress_content(bytes(blob.begin(), blob.end()), out));

    // A huge announced size that a block this small could never reach.
    bytes forged = wire_test::hex("42 42 FF FF FF 7D 1F 00");
    EXPECT_FALSE(decompress_content(forged, out));
}

} // namespace
} // namespace zlk::protocol
