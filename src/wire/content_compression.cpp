#include "wire/content_compression.hpp"

#include <lz4.h>

#include "wire/marshal.hpp"

namespace zlk::protocol
{

using serialization::detail::load_le;
using serialization::detail::store_le;

bool compress_content(std::span<const std::uint8_t> content, bool enabled, std::vector<std::uint8_t> & out)
{
    const std::size_t size = content.size();
    if (!enabled || size < min_compressed_content || size >= max_compressed_content)
    {
        return false;
    }
    out.resize(compression_capacity(size));
    const int block =
        LZ4_compress_default(reinterpret_cast<const char *>(content.data()),
                             reinterpret_cast<char *>(out.data() + compressed_header_size),
                             static_cast<int>(size), static_cast<int>(out.size() - compressed_header_size));
    if (block <= 0 || static_cast<std::size_t>(block) >= size)
    {
        return false;
    }
    store_le(out.data(), compressed_mark);
    store_le(out.data() + 2, static_cast<std::uint32_t>(size));
    out.resize(compressed_header_size + static_cast<std::size_t>(block));
    return true;
}

std::shared_ptr<std::vector<std::uint8_t>> compress_content(std::span<const std::uint8_t> content,
                                                            bool enabled)
{
    if (!enabled || content.size() < min_compressed_content || content.size() >= max_compressed_content)
    {
        return nullptr;
    }
    auto out = std::make_shared<std::vector<std::uint8_t>>();
    if (!compress_content(content, enabled, *out))
    {
        return nullptr;
    }
    return out;
}

bool decompress_content(std::span<const std::uint8_t> stored, std::vector<std::uint8_t> & out)
{
    if (stored.size() < compressed_header_size || load_le<std::uint16_t>(stored.data()) != compressed_mark)
    {
        return false;
    }
    const std::uint32_t size = load_le<std::uint32_t>(stored.data() + 2);
    if (size == 0 || size > max_decompressed_size)
    {
        return false;
    }
    const std::size_t block = stored.size() - compressed_header_size;
    if (block > static_cast<std::size_t>(LZ4_MAX_INPUT_SIZE))
    {
        return false;
    }
    // An LZ4 block expands at most about 255 times (one length byte per 255 bytes of match); an
    // announced size beyond that can't be reached, so nothing is allocated for it.
    if (size / 255 > block + 1)
    {
        return false;
    }
    out.resize(size);
    const int produced = LZ4_decompress_safe(
        reinterpret_cast<const char *>(stored.data() + compressed_header_size),
        reinterpret_cast<char *>(out.data()), static_cast<int>(block), static_cast<int>(size));
    if (produced < 0 || static_cast<std::uint32_t>(produced) != size)
    {
        return false;
    }
    return true;
}

} // namespace zlk::protocol
