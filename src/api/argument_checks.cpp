#include "api/argument_checks.hpp"

#include <cstring>

#include "api/handle.hpp"
#include "base/entry_type.hpp"

namespace zlk::api
{

namespace
{

bool has_reserved_mark(const checked_string & s) noexcept
{
    return std::string_view(s.data, s.length).starts_with(kernel::reserved_alias_mark);
}

} // namespace

void check_not_null(const void * p, const char * label)
{
    if (!p)
    {
        throw api_exception{zlk_e_invalid_argument, "Got NULL {}", label};
    }
}

void check_content(const void * p, std::size_t size, const char * label)
{
    if (!p && size != 0)
    {
        throw api_exception{zlk_e_invalid_argument, "Got NULL {} with size > 0", label};
    }
}

void check_not_zero(std::uint64_t count, const char * label)
{
    if (count == 0)
    {
        throw api_exception{zlk_e_invalid_argument, "Got zero {}", label};
    }
}

void check_owner_handle(const zlk_session * h)
{
    if (!h)
    {
        throw api_exception{zlk_e_invalid_handle, "Got NULL handle"};
    }
    if (!is_valid_handle(h))
    {
        throw api_exception{zlk_e_invalid_handle, "Got corrupted handle"};
    }
}

void check_iterator(const void * iterator, bool intact)
{
    if (!iterator)
    {
        throw api_exception{zlk_e_invalid_iterator, "Got NULL iterator"};
    }
    if (!intact)
    {
        throw api_exception{zlk_e_invalid_iterator, "Got invalid iterator"};
    }
}

checked_string check_string(const char * s, const char * label, std::size_t limit)
{
    check_not_null(s, label);
    const std::size_t length = ::strnlen(s, limit + 1);
    if (length == 0)
    {
        throw api_exception{zlk_e_invalid_argument, "Got empty {}", label};
    }
    if (length > limit)
    {
        throw api_exception{zlk_e_alias_too_long, "Got too big {} (max {} characters)", label, limit};
    }
    return {s, length};
}

checked_alias check_alias(const char * alias, const char * label)
{
    const checked_string s = check_string(alias, label, max_alias_length);
    if (has_reserved_mark(s))
    {
        throw api_exception{zlk_e_reserved_alias, "Got {} with reserved alias name", label};
    }
    return {s.data, s.length + 1};
}

checked_string check_prefix(const char * prefix, const char * label)
{
    const checked_string s = check_string(prefix, label, max_alias_length);
    if (has_reserved_mark(s))
    {
        throw api_exception{zlk_e_reserved_alias, "Got {} with reserved alias name", label};
    }
    return s;
}

} // namespace zlk::api
