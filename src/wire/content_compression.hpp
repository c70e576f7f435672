// Compression of user content (blob contents, comparands). Per content and invisible to the envelope:
// a node stores what it gets, and any reader recognises the compressed form by its head.
//
//   u16 0x4242 ("BB"), u32 uncompressed size, LZ4 block (default acceleration)
//
// Writing compresses content of 64 bytes up to below 0x7E000000, and keeps the result only when the
// block is strictly smaller than the content. Reading treats 6 bytes or more that begin with the mark
// and announce 1 to 0x7DFFFFFF bytes as compressed; if the block doesn't decompress to exactly the
// announced size the stored bytes are handed out as they are, without error: a blob that merely
// happens to begin with "BB" stays readable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace zlk::protocol
{

inline constexpr std::uint16_t compressed_mark = 0x4242;
inline constexpr std::size_t compressed_header_size = 6;
inline constexpr std::size_t min_compressed_content = 64;
// Writing: content from this size on goes as it is.
inline constexpr std::size_t max_compressed_content = 0x7E000000;
// Reading: the largest announced size taken as compressed.
inline constexpr std::uint32_t max_decompressed_size = 0x7DFFFFFF;

// Destination capacity for content of `size` bytes: the LZ4 block bound plus the header.
constexpr std::size_t compression_capacity(std::size_t size) noexcept
{
    return size + size / 255 + 22;
}

// Writes the compressed form of content into out and returns true; returns false (out unspecified)
// when the content goes as it is: compression off, outside the size window, or no gain. Reusing out
// across calls avoids allocating.
bool compress_content(std::span<const std::uint8_t> content, bool enabled, std::vector<std::uint8_t> & out);

// The same with a buffer of its own, null when the content goes as it is.
std::shared_ptr<std::vector<std::uint8_t>> compress_content(std::span<const std::uint8_t> content,
                                                            bool enabled);

// Decompresses stored content into out and returns true; returns false when the stored bytes are the
// content (not compressed, or not decompressible to the announced size).
bool decompress_content(std::span<const std::uint8_t> stored, std::vector<std::uint8_t> & out);

} // namespace zlk::protocol
