// Skein-256-256: the Skein hash (version 1.3) with a 256-bit state and a 256-bit output, no key.
//
// Every alias is hashed to its ring position with it, once per routed request, so the hash never
// allocates and runs Threefish-256 fully unrolled. Bytes are read and written little-endian whatever
// the platform's byte order.
//
// Streaming use: update() any number of times, then final() once. A finished object must be init()ed
// before it hashes again. One object is not safe for concurrent use; separate objects are.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zlk::chord
{

class skein256
{
public:
    static constexpr std::size_t block_size = 32;
    static constexpr std::size_t digest_size = 32;

    using digest = std::array<std::uint8_t, digest_size>;
    // The digest as four words, word i being digest bytes 8i .. 8i+7 read little-endian.
    using words = std::array<std::uint64_t, 4>;

    // The chaining value that the configuration block for a 256-bit output leaves behind, i.e. the
    // state every unkeyed Skein-256-256 hash starts from. Kept as a constant so that a hash costs two
    // Threefish calls and not three; configure(256) recomputes it.
    static constexpr words initial_chain = {0xFC9DA860D048B449ull, 0x2FCA66479FA7D833ull,
                                            0xB33BC3896656840Full, 0x6A54E920FDE8DA69ull};

    skein256() noexcept { init(); }

    void init() noexcept;
    void update(const void * data, std::size_t size) noexcept;
    void update(std::string_view bytes) noexcept { update(bytes.data(), bytes.size()); }

    // Both end the hash; call one of them once.
    digest final() noexcept;
    words final_words() noexcept;

    // The chaining value after the standard configuration block (schema "SHA3", version 1, sequential
    // tree) for an output of output_bits, starting from the zero key.
    static words configure(std::uint64_t output_bits) noexcept;

private:
    words chain_;
    // Bytes absorbed so far, excluding the buffer; the low word of the tweak. Messages of 2^64 bytes
    // and more are out of reach.
    std::uint64_t processed_;
    // The next message block is the first one (tweak flag).
    bool first_;
    // The last block is held back: only final() knows it is the last one and sets its flag.
    std::uint32_t buffered_;
    std::array<std::uint8_t, block_size> buffer_;
};

skein256::digest skein256_hash(const void * data, std::size_t size) noexcept;
skein256::words skein256_hash_words(const void * data, std::size_t size) noexcept;

} // namespace zlk::chord
