// The ring position of an alias: Skein-256-256 over the alias bytes and the zero that terminates them,
// the 32-byte digest read as four little-endian words (digest byte 0 is the lowest byte of word 0).
// Every client and every node must agree on this to the bit: it decides which node owns an entry.
#pragma once

#include "base/ring_id.hpp"

#include <cstddef>
#include <string_view>

namespace zlk::chord
{

// REQUIRES: alias points at length_with_zero bytes whose last one is the terminating zero, as the alias
// check hands them over (strlen + 1).
ring_id alias_hash(const char * alias, std::size_t length_with_zero) noexcept;

// The same position for an alias given without its terminating zero; the zero is hashed without
// copying the alias.
ring_id alias_hash(std::string_view alias) noexcept;

} // namespace zlk::chord
