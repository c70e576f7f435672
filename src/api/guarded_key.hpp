// A 32-byte key in guarded memory (libsodium): locked pages, guard pages around it, wiped on free.
// Empty until allocated; a key pair of the handle stays empty until credentials are given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace zlk::api
{

class guarded_key
{
public:
    static constexpr std::size_t size = 32;

    guarded_key() noexcept = default;
    ~guarded_key();

    guarded_key(const guarded_key &) = delete;
    guarded_key & operator=(const guarded_key &) = delete;

    // Throws std::bad_alloc. REQUIRES: sodium_init has run.
    void allocate();
    void reset() noexcept;

    bool empty() const noexcept { return _bytes == nullptr; }
    std::span<std::uint8_t, size> bytes() noexcept { return std::span<std::uint8_t, size>{_bytes, size}; }
    std::span<const std::uint8_t, size> bytes() const noexcept
    {
        return std::span<const std::uint8_t, size>{_bytes, size};
    }

private:
    std::uint8_t * _bytes = nullptr;
};

struct key_pair
{
    guarded_key public_key;
    guarded_key secret_key;

    bool empty() const noexcept { return public_key.empty(); }
};

// A fresh crypto_box key pair. Throws std::bad_alloc.
void generate_box_key_pair(key_pair & keys);

} // namespace zlk::api
