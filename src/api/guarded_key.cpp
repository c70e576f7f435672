#include "api/guarded_key.hpp"

#include <sodium.h>

#include <new>

namespace zlk::api
{

static_assert(guarded_key::size == crypto_box_PUBLICKEYBYTES);
static_assert(guarded_key::size == crypto_box_SECRETKEYBYTES);

guarded_key::~guarded_key()
{
    reset();
}

void guarded_key::allocate()
{
    if (_bytes)
    {
        return;
    }
    _bytes = static_cast<std::uint8_t *>(sodium_malloc(size));
    if (!_bytes)
    {
        throw std::bad_alloc{};
    }
}

void guarded_key::reset() noexcept
{
    // sodium_free wipes the bytes before giving the pages back.
    sodium_free(_bytes);
    _bytes = nullptr;
}

void generate_box_key_pair(key_pair & keys)
{
    keys.public_key.allocate();
    keys.secret_key.allocate();
    crypto_box_keypair(keys.public_key.bytes().data(), keys.secret_key.bytes().data());
}

} // namespace zlk::api
