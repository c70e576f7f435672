// Stored content as a reader meets it, then the same bytes through the writer: decompression never
// reads or writes out of bounds, and what the writer compresses reads back unchanged.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "wire/content_compression.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    using namespace zlk::protocol;
    const std::span<const std::uint8_t> input(data, size);

    std::vector<std::uint8_t> out;
    if (decompress_content(input, out) && (size < compressed_header_size || out.empty()))
    {
        __builtin_trap();
    }

    std::vector<std::uint8_t> compressed;
    if (compress_content(input, true, compressed))
    {
        std::vector<std::uint8_t> back;
        if (compressed.size() - compressed_header_size >= size || !decompress_content(compressed, back) ||
            !std::equal(back.begin(), back.end(), input.begin(), input.end()))
        {
            __builtin_trap();
        }
    }
    return 0;
}
