#include "query/grammar/parse_query.hpp"

#include <fmt/format.h>

#include <chrono>

#include "base/error_categories.hpp"
#include "query/grammar/grammar_rules.hpp"

namespace zlk::query
{

namespace grammar
{

rules::rules()
{
    define_tokens(*this);
    define_time(*this);
    define_expressions(*this);
    define_conditions(*this);
    define_select(*this);
    define_tables(*this);
    define_access(*this);
}

rules & thread_rules()
{
    thread_local rules r;
    return r;
}

parse_context & current_context() noexcept
{
    thread_local parse_context c;
    return c;
}

timespec parse_time()
{
    parse_context & c = current_context();
    if (!c.clock_read)
    {
        c.now = c.options && c.options->clock ? c.options->clock() : system_clock_now();
        c.clock_read = true;
    }
    return c.now;
}

void count_operator()
{
    if (++current_context().operators > max_operators)
    {
        throw too_many_operators{};
    }
}

std::string one_of(std::string_view name, const std::vector<std::string> & keys)
{
    std::string out(name);
    out += " (one of ";
    for (std::size_t i = 0; i < keys.size(); ++i)
    {
        if (i > 0)
        {
            out += i + 1 == keys.size() ? " or " : ", ";
        }
        out += keys[i];
    }
    out += ')';
    return out;
}

namespace
{

// What an expectation wanted, in the words users read.
std::string describe(const boost::spirit::info & what)
{
    using boost::spirit::info;
    if (const auto * text = boost::get<std::string>(&what.value))
    {
        if (what.tag == "literal-char" || what.tag == "literal-string" ||
            what.tag == "no-case-literal-string")
        {
            return "'" + *text + "'";
        }
    }
    if (what.tag == "eoi")
    {
        return "end of input";
    }
    if (const auto * branches = boost::get<std::list<info>>(&what.value);
        branches && what.tag == "alternative")
    {
        std::vector<std::string> names;
        for (const info & b : *branches)
        {
            names.push_back(describe(b));
        }
        return one_of("", names).substr(1);
    }
    return what.tag;
}

// The deepest nesting of brackets outside quoted text.
std::size_t nesting_depth(std::string_view text) noexcept
{
    std::size_t depth = 0;
    std::size_t deepest = 0;
    char quote = 0;
    for (char c : text)
    {
        if (quote != 0)
        {
            quote = c == quote ? 0 : quote;
        }
        else if (c == '\'' || c == '"')
        {
            quote = c;
        }
        else if (c == '(' || c == '[')
        {
            deepest = std::max(deepest, ++depth);
        }
        else if ((c == ')' || c == ']') && depth > 0)
        {
            --depth;
        }
    }
    return deepest;
}

bool is_blank(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

class context_scope
{
public:
    explicit context_scope(const parse_options & options) noexcept
    {
        parse_context & c = current_context();
        c = parse_context{};
        c.options = &options;
    }
    ~context_scope() { current_context() = parse_context{}; }
    context_scope(const context_scope &) = delete;
    context_scope & operator=(const context_scope &) = delete;
};

template <typename Rule, typename Out>
boost::system::error_code run(std::string_view text, const Rule & start, Out & out, std::string & message,
                              const parse_options & options)
{
    if (nesting_depth(text) > max_nesting_depth)
    {
        message = fmt::format("the query nests brackets more than {} levels deep", max_nesting_depth);
        return make_error_code(error::malformed);
    }
    context_scope scope(options);
    iterator first = text.data();
    const iterator last = text.data() + text.size();
    try
    {
        Out parsed;
        if (!qi::phrase_parse(first, last, start, qi::ascii::space, parsed))
        {
            message = "invalid query string";
            return make_error_code(error::malformed);
        }
        out = std::move(parsed);
        return {};
    }
    catch (const too_many_operators &)
    {
        message = fmt::format("the query has more than {} operators", max_operators);
        return make_error_code(error::malformed);
    }
    catch (const qi::expectation_failure<iterator> & e)
    {
        message =
            compose_parse_error(text, static_cast<std::size_t>(e.first - text.data()), describe(e.what_));
        return make_error_code(error::malformed);
    }
}

} // namespace

std::string compose_parse_error(std::string_view text, std::size_t position, std::string_view what)
{
    // The caret goes under the token that failed, not under the blanks before it.
    while (position < text.size() && is_blank(text[position]))
    {
        ++position;
    }
    std::size_t line = 1;
    std::size_t line_start = 0;
    for (std::size_t i = 0; i < position; ++i)
    {
        if (text[i] == '\n')
        {
            ++line;
            line_start = i + 1;
        }
    }
    std::size_t line_end = text.find('\n', position);
    if (line_end == std::string_view::npos)
    {
        line_end = text.size();
    }
    return fmt::format("At line {}: expected {}.\n{}\n{}^", line, what,
                       text.substr(line_start, line_end - line_start),
                       std::string(position - line_start, ' '));
}

} // namespace grammar

timespec system_clock_now() noexcept
{
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
    return timespec{ns / 1'000'000'000, ns % 1'000'000'000};
}

boost::system::error_code parse_query(std::string_view text, ast::statement & out, std::string & message,
                                      const parse_options & options)
{
    return grammar::run(text, grammar::thread_rules().query, out, message, options);
}

boost::system::error_code parse_find(std::string_view text, find_request & out, std::string & message,
                                     const parse_options & options)
{
    if (auto ec = grammar::run(text, grammar::thread_rules().find_query, out, message, options))
    {
        return ec;
    }
    return check_find(out, message);
}

boost::system::error_code check_find(const find_request & request, std::string & message)
{
    std::size_t prefixes = 0;
    bool accepted = false;
    for (const auto & item : request.items)
    {
        if (std::holds_alternative<find_request::prefix>(item))
        {
            if (++prefixes > 1)
            {
                message = "FIND request does not supports multiple prefixes.";
                return make_error_code(error::malformed);
            }
            accepted = true;
        }
        accepted = accepted || std::holds_alternative<find_request::tag>(item);
    }
    if (!accepted)
    {
        message = "FIND requests must give an accepted tag or an accepted prefix.";
        return make_error_code(error::malformed);
    }
    return {};
}

} // namespace zlk::query
