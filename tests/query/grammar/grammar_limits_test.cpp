// What the data files can't say: inputs at the size limit, nesting that would exhaust the stack, the
// system clock, and the calendar arithmetic of durations.
#include <gtest/gtest.h>

#include <string>

#include "base/error_categories.hpp"
#include "query/grammar/duration.hpp"
#include "query/grammar/parse_query.hpp"

namespace
{

using namespace zlk::query;
using zlk::timespec;
namespace time = zlk::time;

boost::system::error_code parse(const std::string & text, std::string & message)
{
    ast::statement s;
    return parse_query(text, s, message);
}

TEST(grammar_limits, large_inputs_parse_or_fail_cleanly)
{
    std::string message;

    // 100000 bytes of brackets: refused before the parser recurses.
    const std::string deep =
        "SELECT * FROM t WHERE " + std::string(50000, '(') + "a" + std::string(49978, ')');
    EXPECT_EQ(parse(deep, message), make_error_code(error::malformed));
    EXPECT_EQ(message, "the query nests brackets more than 64 levels deep");

    // At the limit the parser still recurses safely.
    const std::string at_limit = "SELECT * FROM t WHERE " + std::string(64, '(') + "a" + std::string(64, ')');
    EXPECT_FALSE(parse(at_limit, message)) << message;

    // Brackets inside quotes are text, not nesting.
    const std::string quoted = "SELECT * FROM t WHERE a = '" + std::string(1000, '(') + "'";
    EXPECT_FALSE(parse(quoted, message)) << message;

    // Operator chains are trees as deep as they are long: 1999 operators pass, 100000 bytes of them don't.
    std::string flat = "SELECT * FROM t WHERE a = 0";
    for (int i = 0; i < 999; ++i)
    {
        flat += " OR a = 1";
    }
    EXPECT_FALSE(parse(flat, message)) << message;
    while (flat.size() < 100000)
    {
        flat += " OR a = 1";
    }
    EXPECT_EQ(parse(flat, message), make_error_code(error::malformed));
    EXPECT_EQ(message, "the query has more than 2000 operators");
    EXPECT_EQ(parse("SELECT " + std::string(99990, '-') + "1", message), make_error_code(error::malformed));
    EXPECT_EQ(message, "the query has more than 2000 operators");
    // Unary plus adds no node.
    EXPECT_FALSE(parse("SELECT " + std::string(99990, '+') + "1", message)) << message;

    // Long garbage of every kind fails with a message, never a crash.
    EXPECT_EQ(parse(std::string(100000, 'x'), message), make_error_code(error::malformed));
    EXPECT_EQ(parse("SELECT * FROM t WHERE a = \"" + std::string(100000, 'x'), message),
              make_error_code(error::malformed));
    EXPECT_EQ(parse(std::string(100000, '\xff'), message), make_error_code(error::malformed));
}

TEST(grammar_limits, now_without_a_given_clock_reads_the_system_clock)
{
    const timespec before = system_clock_now();
    ast::statement s;
    std::string message;
    ASSERT_FALSE(parse_query("DELETE FROM t IN RANGE(now, +1s)", s, message)) << message;
    const timespec after = system_clock_now();
    const auto & range = std::get<ast::parsed_delete>(s).time_ranges.ranges.at(0);
    auto ns = [](const timespec & t) { return t.tv_sec * 1'000'000'000 + t.tv_nsec; };
    EXPECT_LE(ns(before), ns(range.begin));
    EXPECT_LE(ns(range.begin), ns(after));
}

TEST(grammar_limits, one_query_reads_the_clock_once)
{
    int reads = 0;
    parse_options o;
    o.clock = [&reads] { return timespec{1000000 + 86400 * reads++, 0}; };
    ast::statement s;
    std::string message;
    ASSERT_FALSE(
        parse_query("SELECT * FROM t IN [RANGE(today, now), RANGE(yesterday, tomorrow)]", s, message, o));
    EXPECT_EQ(reads, 1);
}

TEST(duration_arithmetic, calendar_and_clock_parts)
{
    const timespec jan31{1612051200, 0}; // 2021-01-31
    // A month from January 31 is "February 31", which is March 3 in a common year.
    EXPECT_EQ(time::add(jan31, time::duration{0, 1, 0, 0, 0}), (timespec{1614729600, 0}));
    // Twelve months from a leap day: February 29 of a common year rolls into March 1.
    EXPECT_EQ(time::add(timespec{1582934400, 0}, time::duration{0, 12, 0, 0, 0}), (timespec{1614556800, 0}));
    // Months keep the time of day; nanoseconds carry into seconds both ways.
    EXPECT_EQ(time::add(timespec{1612051200 + 3723, 5}, time::duration{0, -1, 0, 0, 0}),
              (timespec{1609372800 + 3723, 5}));
    EXPECT_EQ(time::add(timespec{10, 999'999'999}, time::duration{0, 0, 0, 0, 2}), (timespec{11, 1}));
    EXPECT_EQ(time::add(timespec{10, 0}, time::duration{0, 0, 0, 0, -1}), (timespec{9, 999'999'999}));
    // Before the epoch a subtraction stops at 0; an overflow is no time at all.
    EXPECT_EQ(time::subtract_clamped(timespec{100, 0}, time::duration{0, 0, 1, 0, 0}), (timespec{0, 0}));
    EXPECT_FALSE(time::add(timespec{INT64_MAX - 1, 0}, time::duration{0, 0, 0, 2, 0}));

    time::duration d{0, 14, 0, 0, 0};
    d += time::duration{0, 0, 0, 1, 1'500'000'000};
    EXPECT_EQ(d, (time::duration{0, 14, 0, 2, 500'000'000}));
    EXPECT_TRUE(d.has_date_part() && d.has_time_part());
}

TEST(duration_arithmetic, proleptic_gregorian_dates)
{
    EXPECT_EQ(time::civil_seconds(1970, 1, 1), 0);
    EXPECT_EQ(time::civil_seconds(2000, 2, 29), 951782400);
    EXPECT_FALSE(time::civil_seconds(1900, 2, 29));
    EXPECT_FALSE(time::civil_seconds(2021, 2, 29));
    EXPECT_FALSE(time::civil_seconds(2021, 13, 1));
    EXPECT_FALSE(time::civil_seconds(2021, 4, 31));
    EXPECT_FALSE(time::civil_seconds(2021, 1, 0));
}

} // namespace
