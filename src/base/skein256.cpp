#include "base/skein256.hpp"

#include <bit>
#include <cstring>
#include <utility>

namespace zlk::chord
{

namespace
{

using u64 = std::uint64_t;

// Threefish's key schedule parity constant.
constexpr u64 key_parity = 0x1BD11BDAA9FC1A22ull;

// The high tweak word: block type in bits 56..61, first-block flag in bit 62, final-block flag in bit 63.
constexpr u64 type_config = 4ull << 56;
constexpr u64 type_message = 48ull << 56;
constexpr u64 type_output = 63ull << 56;
constexpr u64 flag_first = 1ull << 62;
constexpr u64 flag_final = 1ull << 63;

inline u64 load_le64(const std::uint8_t * p) noexcept
{
    u64 v;
    std::memcpy(&v, p, sizeof v);
    if constexpr (std::endian::native == std::endian::big)
    {
        v = __builtin_bswap64(v);
    }
    return v;
}

inline void store_le64(std::uint8_t * p, u64 v) noexcept
{
    if constexpr (std::endian::native == std::endian::big)
    {
        v = __builtin_bswap64(v);
    }
    std::memcpy(p, &v, sizeof v);
}

struct block_words
{
    u64 w[4];
};

inline block_words load_block(const std::uint8_t * p) noexcept
{
    return {{load_le64(p), load_le64(p + 8), load_le64(p + 16), load_le64(p + 24)}};
}

// Subkey s added to the state: key words rotate through the five of the extended key, tweak words through
// the three of the extended tweak, and the last word also takes s.
template <unsigned S>
[[gnu::always_inline]] inline void inject(u64 & x0, u64 & x1, u64 & x2, u64 & x3, const u64 (&k)[5],
                                          const u64 (&t)[3]) noexcept
{
    x0 += k[S % 5];
    x1 += k[(S + 1) % 5] + t[S % 3];
    x2 += k[(S + 2) % 5] + t[(S + 1) % 3];
    x3 += k[(S + 3) % 5] + S;
}

// Two MIX functions side by side. The word permutation of Threefish-256 only swaps words 1 and 3, so
// instead of moving words the odd rounds pass them in the other order.
template <int R0, int R1>
[[gnu::always_inline]] inline void mix(u64 & a, u64 & b, u64 & c, u64 & d) noexcept
{
    a += b;
    b = std::rotl(b, R0) ^ a;
    c += d;
    d = std::rotl(d, R1) ^ c;
}

// Eight rounds with the subkeys 2I and 2I + 1; after four rounds the permutation is back to identity.
template <unsigned I>
[[gnu::always_inline]] inline void eight_rounds(u64 & x0, u64 & x1, u64 & x2, u64 & x3, const u64 (&k)[5],
                                                const u64 (&t)[3]) noexcept
{
    inject<2 * I>(x0, x1, x2, x3, k, t);
    mix<14, 16>(x0, x1, x2, x3);
    mix<52, 57>(x0, x3, x2, x1);
    mix<23, 40>(x0, x1, x2, x3);
    mix<5, 37>(x0, x3, x2, x1);
    inject<2 * I + 1>(x0, x1, x2, x3, k, t);
    mix<25, 33>(x0, x1, x2, x3);
    mix<46, 12>(x0, x3, x2, x1);
    mix<58, 22>(x0, x1, x2, x3);
    mix<32, 32>(x0, x3, x2, x1);
}

template <std::size_t... I>
[[gnu::always_inline]] inline void seventy_two_rounds(std::index_sequence<I...>, u64 & x0, u64 & x1, u64 & x2,
                                                      u64 & x3, const u64 (&k)[5], const u64 (&t)[3]) noexcept
{
    (eight_rounds<I>(x0, x1, x2, x3, k, t), ...);
}

// One UBI step: the chaining value keys Threefish-256 over the message block, and the ciphertext
// XOR the block is the new chaining value.
inline void ubi_block(skein256::words & chain, const block_words & m, u64 t0, u64 t1) noexcept
{
    const u64 k[5] = {chain[0], chain[1], chain[2], chain[3],
                      chain[0] ^ chain[1] ^ chain[2] ^ chain[3] ^ key_parity};
    const u64 t[3] = {t0, t1, t0 ^ t1};
    u64 x0 = m.w[0];
    u64 x1 = m.w[1];
    u64 x2 = m.w[2];
    u64 x3 = m.w[3];
    seventy_two_rounds(std::make_index_sequence<9>{}, x0, x1, x2, x3, k, t);
    inject<18>(x0, x1, x2, x3, k, t);
    chain[0] = x0 ^ m.w[0];
    chain[1] = x1 ^ m.w[1];
    chain[2] = x2 ^ m.w[2];
    chain[3] = x3 ^ m.w[3];
}

// Absorbs whole blocks that are known not to be the last one.
inline void absorb(skein256::words & chain, const std::uint8_t * p, std::size_t blocks, u64 & processed,
                   bool & first) noexcept
{
    for (; blocks > 0; --blocks, p += skein256::block_size)
    {
        processed += skein256::block_size;
        ubi_block(chain, load_block(p), processed, type_message | (first ? flag_first : 0));
        first = false;
    }
}

// The last message block (zero padded; an empty message is one block of zeros), then the output
// block, whose message is the counter 0 as an 8-byte value.
inline void finish(skein256::words & chain, const std::uint8_t (&last)[skein256::block_size], u64 processed,
                   bool first) noexcept
{
    ubi_block(chain, load_block(last), processed, type_message | flag_final | (first ? flag_first : 0));
    ubi_block(chain, block_words{{0, 0, 0, 0}}, 8, type_output | flag_first | flag_final);
}

skein256::digest to_digest(const skein256::words & w) noexcept
{
    skein256::digest d;
    for (std::size_t i = 0; i < 4; ++i)
    {
        store_le64(d.data() + 8 * i, w[i]);
    }
    return d;
}

} // namespace

void skein256::init() noexcept
{
    chain_ = initial_chain;
    processed_ = 0;
    first_ = true;
    buffered_ = 0;
}

void skein256::update(const void * data, std::size_t size) noexcept
{
    if (size == 0)
    {
        return;
    }
    auto p = static_cast<const std::uint8_t *>(data);
    if (buffered_ + size > block_size)
    {
        // More bytes follow whatever completes the buffer, so the buffered block isn't the last.
        if (buffered_ > 0)
        {
            const std::size_t fill = block_size - buffered_;
            std::memcpy(buffer_.data() + buffered_, p, fill);
            p += fill;
            size -= fill;
            absorb(chain_, buffer_.data(), 1, processed_, first_);
            buffered_ = 0;
        }
        // Keep at least one byte back for final().
        const std::size_t blocks = (size - 1) / block_size;
        absorb(chain_, p, blocks, processed_, first_);
        p += blocks * block_size;
        size -= blocks * block_size;
    }
    std::memcpy(buffer_.data() + buffered_, p, size);
    buffered_ += static_cast<std::uint32_t>(size);
}

skein256::words skein256::final_words() noexcept
{
    std::uint8_t last[block_size] = {};
    std::memcpy(last, buffer_.data(), buffered_);
    finish(chain_, last, processed_ + buffered_, first_);
    return chain_;
}

skein256::digest skein256::final() noexcept
{
    return to_digest(final_words());
}

skein256::words skein256::configure(std::uint64_t output_bits) noexcept
{
    // Bytes 0..3 "SHA3", 4..5 version 1, 8..15 output length in bits, 16..18 tree parameters (zero:
    // sequential), the rest reserved.
    const block_words config{{0x0000000133414853ull, output_bits, 0, 0}};
    words chain = {0, 0, 0, 0};
    ubi_block(chain, config, block_size, type_config | flag_first | flag_final);
    return chain;
}

skein256::words skein256_hash_words(const void * data, std::size_t size) noexcept
{
    skein256::words chain = skein256::initial_chain;
    std::uint64_t processed = 0;
    bool first = true;
    auto p = static_cast<const std::uint8_t *>(data);
    if (size > skein256::block_size)
    {
        const std::size_t blocks = (size - 1) / skein256::block_size;
        absorb(chain, p, blocks, processed, first);
        p += blocks * skein256::block_size;
        size -= blocks * skein256::block_size;
    }
    std::uint8_t last[skein256::block_size] = {};
    if (size > 0)
    {
        std::memcpy(last, p, size);
    }
    finish(chain, last, processed + size, first);
    return chain;
}

skein256::digest skein256_hash(const void * data, std::size_t size) noexcept
{
    return to_digest(skein256_hash_words(data, size));
}

} // namespace zlk::chord
