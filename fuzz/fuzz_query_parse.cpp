// Query text as a user may type it: every input parses into a record that prints, or fails with the
// invalid-query code and a message. FIND requests go through their own entry point as well.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/error_categories.hpp"
#include "query/grammar/parse_query.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t * data, std::size_t size)
{
    using namespace zlk::query;
    // The library refuses longer texts before parsing them.
    if (size > 100000)
    {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    parse_options options;
    options.clock = [] { return zlk::timespec{1709214330, 123456789}; };

    std::string message;
    ast::statement statement;
    if (const auto ec = parse_query(text, statement, message, options))
    {
        if (ec != make_error_code(error::malformed) || message.empty())
        {
            __builtin_trap();
        }
    }
    else if (ast::to_string(statement).empty())
    {
        __builtin_trap();
    }

    find_request find;
    message.clear();
    if (const auto ec = parse_find(text, find, message, options))
    {
        if (message.empty())
        {
            __builtin_trap();
        }
    }
    else if (to_string(find).empty())
    {
        __builtin_trap();
    }
    return 0;
}
