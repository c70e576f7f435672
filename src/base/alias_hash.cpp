#include "base/alias_hash.hpp"

#include "base/skein256.hpp"

namespace zlk::chord
{

ring_id alias_hash(const char * alias, std::size_t length_with_zero) noexcept
{
    return ring_id{skein256_hash_words(alias, length_with_zero)};
}

ring_id alias_hash(std::string_view alias) noexcept
{
    skein256 h;
    h.update(alias);
    const char terminator = '\0';
    h.update(&terminator, 1);
    return ring_id{h.final_words()};
}

} // namespace zlk::chord
