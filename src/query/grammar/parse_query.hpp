// Query text to records. The parser knows nothing of execution or the network: it gives a statement, a
// FIND request, or a failure whose message says where the text went wrong.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "base/time_value.hpp"
#include "query/grammar/statements.hpp"

namespace zlk::query
{

// The clock the named instants (`now`, `today`, ...) read when the text is parsed. Tests give their own;
// an empty function is the system clock.
struct parse_options
{
    std::function<timespec()> clock;
};

// Deeper nesting of parentheses and brackets than this is refused before parsing, so that no query
// text can exhaust the stack.
inline constexpr std::size_t max_nesting_depth = 64;

// Operators (and signs) in one query beyond this are refused: the records are trees, and a chain of
// operators is as deep as it is long.
inline constexpr std::size_t max_operators = 2000;

// The whole text must be one statement, optionally followed by ";". On failure the code is
// query::error::malformed (zlk_e_invalid_query) and `message` holds the text for the caller.
boost::system::error_code parse_query(std::string_view text, ast::statement & out, std::string & message,
                                      const parse_options & options = {});

// The FIND language alone, as zlk_query_find takes it; the request's checks are applied too.
boost::system::error_code parse_find(std::string_view text, find_request & out, std::string & message,
                                     const parse_options & options = {});

// At most one prefix, and at least one accepted tag or a prefix.
boost::system::error_code check_find(const find_request & request, std::string & message);

// The reading of a clock in the system's terms.
timespec system_clock_now() noexcept;

} // namespace zlk::query
