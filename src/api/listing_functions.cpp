// zlk_prefix_*, zlk_suffix_*, zlk_blob_scan*: listings that walk the whole ring.
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "api/call_frame.hpp"
#include "api/entry_support.hpp"
#include "api/retry_frame.hpp"
#include "zlk/listing.h"

namespace
{

using zlk::api::api_call;
using zlk::api::check_not_null;
namespace client = zlk::client;

// As long as an alias; nodes refuse longer ones, whose compilation recurses too deep.
constexpr std::size_t max_expression_length = zlk::api::max_alias_length;

// The syntax nodes compile with: ECMAScript, matched breadth-first where the library offers it (no
// back-references then).
#ifdef __GLIBCXX__
constexpr auto expression_syntax = std::regex::ECMAScript | std::regex_constants::__polynomial;
#else
constexpr auto expression_syntax = std::regex::ECMAScript;
#endif

template <typename Body>
zlk_error_t in_frame(zlk_handle_t handle, const char * name, Body && body)
{
    return api_call(handle, name, [&]() -> zlk_error_t { return zlk::api::run_with_retries(*handle, body); });
}

// A prefix passes the alias checks; a suffix may begin with the reserved mark.
std::string_view checked_affix(const char * affix, client::affix_kind kind)
{
    if (kind == client::affix_kind::prefix)
    {
        const auto s = zlk::api::check_prefix(affix, "prefix");
        return {s.data, s.length};
    }
    const auto s = zlk::api::check_string(affix, "suffix", zlk::api::max_alias_length);
    return {s.data, s.length};
}

void check_list_out(const char *** aliases, size_t * alias_count)
{
    if (!aliases || !alias_count)
    {
        throw zlk_e_invalid_argument;
    }
    *aliases = nullptr;
    *alias_count = 0;
}

zlk_error_t affix_get(zlk_handle_t handle, const char * name, client::affix_kind kind, const char * affix,
                      int64_t max_count, const char *** aliases, size_t * alias_count)
{
    return api_call(handle, name,
                    [&]() -> zlk_error_t
                    {
                        const std::string_view checked = checked_affix(affix, kind);
                        check_list_out(aliases, alias_count);
                        if (max_count <= 0)
                        {
                            return zlk_e_ok;
                        }
                        return zlk::api::run_with_retries(
                            *handle,
                            [&]() -> zlk_error_t
                            {
                                std::vector<std::string> found;
                                const zlk_error_t r =
                                    zlk::client::list_affix(handle->cluster, checked, kind,
                                                            static_cast<std::uint64_t>(max_count), found);
                                if (ZLK_SUCCESS(r))
                                {
                                    zlk::api::hand_out_alias_list(*handle, found, aliases, alias_count);
                                }
                                return r;
                            });
                    });
}

zlk_error_t affix_count(zlk_handle_t handle, const char * name, client::affix_kind kind, const char * affix,
                        uint64_t * count)
{
    return in_frame(handle, name,
                    [&]() -> zlk_error_t
                    {
                        const std::string_view checked = checked_affix(affix, kind);
                        if (!count)
                        {
                            throw zlk_e_invalid_argument;
                        }
                        *count = 0;
                        std::uint64_t n = 0;
                        const zlk_error_t r = zlk::client::count_affix(handle->cluster, checked, kind, n);
                        if (ZLK_SUCCESS(r))
                        {
                            *count = n;
                        }
                        return r;
                    });
}

zlk_error_t scan(zlk_handle_t handle, std::span<const std::uint8_t> pattern, client::scan_kind kind,
                 int64_t max_count, const char *** aliases, size_t * alias_count)
{
    check_list_out(aliases, alias_count);
    if (max_count <= 0)
    {
        return zlk_e_ok;
    }
    return zlk::api::run_with_retries(
        *handle,
        [&]() -> zlk_error_t
        {
            std::vector<std::string> found;
            const zlk_error_t r = zlk::client::scan_ring(handle->cluster, pattern, kind,
                                                         static_cast<std::uint64_t>(max_count), found);
            if (ZLK_SUCCESS(r))
            {
                zlk::api::hand_out_alias_list(*handle, found, aliases, alias_count);
            }
            return r;
        });
}

} // namespace

zlk_error_t zlk_prefix_get(zlk_handle_t handle, const char * prefix, int64_t max_count,
                           const char *** aliases, size_t * alias_count) noexcept
{
    return affix_get(handle, "zlk_prefix_get", client::affix_kind::prefix, prefix, max_count, aliases,
                     alias_count);
}

zlk_error_t zlk_prefix_count(zlk_handle_t handle, const char * prefix, uint64_t * count) noexcept
{
    return affix_count(handle, "zlk_prefix_count", client::affix_kind::prefix, prefix, count);
}

zlk_error_t zlk_suffix_get(zlk_handle_t handle, const char * suffix, int64_t max_count,
                           const char *** aliases, size_t * alias_count) noexcept
{
    return affix_get(handle, "zlk_suffix_get", client::affix_kind::suffix, suffix, max_count, aliases,
                     alias_count);
}

zlk_error_t zlk_suffix_count(zlk_handle_t handle, const char * suffix, uint64_t * count) noexcept
{
    return affix_count(handle, "zlk_suffix_count", client::affix_kind::suffix, suffix, count);
}

zlk_error_t zlk_blob_scan(zlk_handle_t handle, const void * pattern, size_t pattern_length, int64_t max_count,
                          const char *** aliases, size_t * alias_count) noexcept
{
    return api_call(handle, "zlk_blob_scan",
                    [&]() -> zlk_error_t
                    {
                        zlk::api::check_not_zero(pattern_length, "pattern");
                        check_not_null(pattern, "pattern");
                        const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t *>(pattern),
                                                                  pattern_length);
                        return scan(handle, bytes, client::scan_kind::plain, max_count, aliases, alias_count);
                    });
}

zlk_error_t zlk_blob_scan_regex(zlk_handle_t handle, const char * pattern, int64_t max_count,
                                const char *** aliases, size_t * alias_count) noexcept
{
    return api_call(handle, "zlk_blob_scan_regex",
                    [&]() -> zlk_error_t
                    {
                        const auto s = zlk::api::check_string(pattern, "pattern", max_expression_length);
                        // Refused here rather than by every node.
                        try
                        {
                            const std::regex expression(s.data, s.length, expression_syntax);
                        }
                        catch (const std::regex_error &)
                        {
                            throw zlk_e_invalid_regex;
                        }
                        const std::span<const std::uint8_t> bytes(
                            reinterpret_cast<const std::uint8_t *>(s.data), s.length);
                        return scan(handle, bytes, client::scan_kind::regex, max_count, aliases, alias_count);
                    });
}
