// The checks exported functions run on their arguments, inside the call frame. Each throws a
// zlk::api_exception with the caller-facing message; {} in a message is the argument's label ("alias",
// "blob", "source buffer", ...).
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/api_exception.hpp"

struct zlk_session;

namespace zlk::api
{

// Longest alias or prefix, in bytes.
inline constexpr std::size_t max_alias_length = 1024;

struct checked_string
{
    const char * data;
    std::size_t length;
};

// An alias ready for routing: length counts the terminating zero, which the entry's id covers.
struct checked_alias
{
    const char * data;
    std::size_t length;
};

// "Got NULL {}"
void check_not_null(const void * p, const char * label);
// "Got NULL {} with size > 0"
void check_content(const void * p, std::size_t size, const char * label);
// "Got zero {}"
void check_not_zero(std::uint64_t count, const char * label);

// The handle a table or an iterator carries: "Got NULL handle", "Got corrupted handle"
// (zlk_e_invalid_handle).
void check_owner_handle(const zlk_session * h);

// "Got NULL iterator" for a null iterator, "Got invalid iterator" for one that isn't intact
// (zlk_e_invalid_iterator).
void check_iterator(const void * iterator, bool intact);

// Not null ("Got NULL {}"), not empty ("Got empty {}"), at most limit bytes ("Got too big {} (max {}
// characters)", zlk_e_alias_too_long). Reads at most limit + 1 bytes.
checked_string check_string(const char * s, const char * label, std::size_t limit);

// check_string with the alias limit, then the reserved mark ("Got {} with reserved alias name",
// zlk_e_reserved_alias). The zlk_reserved_... functions use check_string alone.
checked_alias check_alias(const char * alias, const char * label = "alias");

// A prefix passes the same checks as an alias; its length doesn't count a terminating zero.
checked_string check_prefix(const char * prefix, const char * label = "prefix");

} // namespace zlk::api
