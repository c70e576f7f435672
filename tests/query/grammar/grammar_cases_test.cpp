// The grammar as data: each file under cases/ holds statements with the record they print as or the
// exact message they fail with. The clock is fixed at 2024-02-29T13:45:30.123456789Z.
//
//   > text           a line of the statement (several lines join with line feeds)
//   find> text       a FIND request, parsed as zlk_query_find parses it
//   = printed        the expected record
//   ! line           a line of the expected message
//
// Cases are separated by blank lines; lines starting with # are comments.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/error_categories.hpp"
#include "query/grammar/parse_query.hpp"

namespace
{

using namespace zlk::query;

struct grammar_case
{
    std::string file;
    int line = 0;
    bool find = false;
    std::string text;
    std::string expected;
    bool expect_error = false;
};

void append_line(std::string & to, const std::string & line)
{
    if (!to.empty())
    {
        to += '\n';
    }
    to += line;
}

std::vector<grammar_case> read_cases(const std::filesystem::path & path)
{
    std::vector<grammar_case> cases;
    std::ifstream in(path);
    std::string line;
    int number = 0;
    grammar_case current;
    bool open = false;
    auto close = [&]
    {
        if (open)
        {
            cases.push_back(current);
        }
        current = grammar_case{};
        open = false;
    };
    auto rest = [&line](std::size_t skip) { return line.size() > skip ? line.substr(skip) : std::string(); };
    while (std::getline(in, line))
    {
        ++number;
        if (line.empty())
        {
            close();
            continue;
        }
        if (line[0] == '#')
        {
            continue;
        }
        if (!open)
        {
            current.file = path.filename().string();
            current.line = number;
            open = true;
        }
        if (line.rfind("find>", 0) == 0)
        {
            current.find = true;
            append_line(current.text, rest(6));
        }
        else if (line[0] == '>')
        {
            // An empty query is a lone ">".
            append_line(current.text, rest(2));
        }
        else if (line[0] == '=')
        {
            current.expected = rest(2);
        }
        else if (line[0] == '!')
        {
            current.expect_error = true;
            current.expected += current.expected.empty() ? "" : "\n";
            current.expected += rest(2);
        }
        else
        {
            ADD_FAILURE() << path << ":" << number << ": unreadable line: " << line;
        }
    }
    close();
    return cases;
}

std::vector<std::string> case_files()
{
    std::vector<std::string> files;
    for (const auto & entry : std::filesystem::directory_iterator(ZLK_GRAMMAR_CASES))
    {
        if (entry.path().extension() == ".txt")
        {
            files.push_back(entry.path().stem().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

parse_options fixed_clock()
{
    parse_options o;
    o.clock = [] { return zlk::timespec{1709214330, 123456789}; };
    return o;
}

class grammar_cases : public ::testing::TestWithParam<std::string>
{
};

TEST_P(grammar_cases, parse_as_written)
{
    const auto cases = read_cases(std::filesystem::path(ZLK_GRAMMAR_CASES) / (GetParam() + ".txt"));
    ASSERT_FALSE(cases.empty());
    const parse_options options = fixed_clock();
    for (const grammar_case & c : cases)
    {
        SCOPED_TRACE(c.file + ":" + std::to_string(c.line));
        std::string message;
        std::string printed;
        boost::system::error_code ec;
        if (c.find)
        {
            find_request f;
            ec = parse_find(c.text, f, message, options);
            printed = ec ? std::string() : to_string(f);
        }
        else
        {
            ast::statement s;
            ec = parse_query(c.text, s, message, options);
            printed = ec ? std::string() : ast::to_string(s);
        }
        if (c.expect_error)
        {
            EXPECT_EQ(ec, make_error_code(zlk::query::error::malformed)) << c.text;
            EXPECT_EQ(message, c.expected) << c.text;
        }
        else
        {
            EXPECT_FALSE(ec) << c.text << "\n" << message;
            EXPECT_EQ(printed, c.expected) << c.text;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(files, grammar_cases, ::testing::ValuesIn(case_files()),
                         [](const auto & info) { return info.param; });

} // namespace
