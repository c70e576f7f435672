// Ranges cut by WITH TIME, WITH DAYS and WITH MONTHS. 2021-01-01 is a Friday; the expected intervals are
// written out in seconds from the calendar.
#include <gtest/gtest.h>

#include <vector>

#include "query/engine/direct_select.hpp"
#include "query/engine/time_range_expansion.hpp"

namespace
{

using namespace zlk::query;
using zlk::time::interval;

constexpr std::int64_t day = 86400;
constexpr std::int64_t hour = 3600;
constexpr std::int64_t jan1 = 1609459200; // 2021-01-01, a Friday

interval at(std::int64_t b, std::int64_t e)
{
    return interval{zlk::timespec{b, 0}, zlk::timespec{e, 0}};
}

std::pair<zlk::time::duration, zlk::time::duration> clock(std::int64_t b, std::int64_t e)
{
    return {zlk::time::duration{0, 0, 0, b, 0}, zlk::time::duration{0, 0, 0, e, 0}};
}

struct expansion_case
{
    const char * what;
    time_ranges_spec ranges;
    std::vector<interval> expected;
};

TEST(time_range_expansion, clauses_cut_the_base_ranges)
{
    const std::vector<expansion_case> cases = {
        {"no clause: the base as it is",
         {{at(jan1 + day, jan1 + 2 * day), at(jan1, jan1 + hour)}, {}, {}, {}},
         {at(jan1 + day, jan1 + 2 * day), at(jan1, jan1 + hour)}},
        {"office hours over three days",
         {{at(jan1, jan1 + 3 * day)}, {clock(9 * hour, 17 * hour)}, {}, {}},
         {at(jan1 + 9 * hour, jan1 + 17 * hour), at(jan1 + day + 9 * hour, jan1 + day + 17 * hour),
          at(jan1 + 2 * day + 9 * hour, jan1 + 2 * day + 17 * hour)}},
        {"the base's ends cut the first and last parts",
         {{at(jan1 + 10 * hour, jan1 + day + 10 * hour)}, {clock(9 * hour, 17 * hour)}, {}, {}},
         {at(jan1 + 10 * hour, jan1 + 17 * hour), at(jan1 + day + 9 * hour, jan1 + day + 10 * hour)}},
        {"nights wrap over midnight and join",
         {{at(jan1, jan1 + 2 * day)}, {clock(22 * hour, 6 * hour)}, {}, {}},
         {at(jan1, jan1 + 6 * hour), at(jan1 + 22 * hour, jan1 + day + 6 * hour),
          at(jan1 + day + 22 * hour, jan1 + 2 * day)}},
        {"a weekend: Saturday up to Monday, days joined",
         {{at(jan1, jan1 + 7 * day)}, {}, {{6, 1}}, {}},
         {at(jan1 + day, jan1 + 3 * day)}},
        {"weekend mornings",
         {{at(jan1, jan1 + 7 * day)}, {clock(8 * hour, 12 * hour)}, {{6, 1}}, {}},
         {at(jan1 + day + 8 * hour, jan1 + day + 12 * hour),
          at(jan1 + 2 * day + 8 * hour, jan1 + 2 * day + 12 * hour)}},
        {"winter wraps over the new year",
         {{at(1605398400 /* 2020-11-15 */, 1615334400 /* 2021-03-10 */)}, {}, {}, {{12, 3}}},
         {at(1606780800 /* 2020-12-01 */, 1614556800 /* 2021-03-01 */)}},
        {"a clause that excludes everything", {{at(jan1, jan1 + 7 * day)}, {}, {}, {{2, 3}}}, {}},
        {"an empty time clause range excludes everything",
         {{at(jan1, jan1 + day)}, {clock(hour, hour)}, {}, {}},
         {}},
        {"overlapping bases come out merged",
         {{at(jan1 + day, jan1 + 3 * day), at(jan1, jan1 + 2 * day)}, {clock(0, 12 * hour)}, {}, {}},
         {at(jan1, jan1 + 12 * hour), at(jan1 + day, jan1 + day + 12 * hour),
          at(jan1 + 2 * day, jan1 + 2 * day + 12 * hour)}},
    };
    for (const expansion_case & c : cases)
    {
        EXPECT_EQ(expand_time_ranges(c.ranges), c.expected) << c.what;
    }
}

TEST(group_buckets, buckets_walk_from_each_range_begin)
{
    const zlk::time::duration month{0, 1, 0, 0, 0};
    // From January 31 the next month starts on March 3 in a common year.
    EXPECT_EQ(group_buckets({at(1612051200, 1618012800)}, month),
              (std::vector<interval>{at(1612051200, 1614729600), at(1614729600, 1617408000),
                                     at(1617408000, 1618012800)}));
    // From the 15th every bucket starts on a 15th; the last one ends with the range.
    EXPECT_EQ(group_buckets({at(1610668800, 1616198400)}, month),
              (std::vector<interval>{at(1610668800, 1613347200), at(1613347200, 1615766400),
                                     at(1615766400, 1616198400)}));
    // Each range walks on its own; an empty range gives nothing.
    EXPECT_EQ(group_buckets({at(jan1, jan1 + 90 * 60), at(jan1 + day, jan1 + day),
                             at(jan1 + 2 * day, jan1 + 2 * day + 10)},
                            zlk::time::duration{0, 0, 0, hour, 0}),
              (std::vector<interval>{at(jan1, jan1 + hour), at(jan1 + hour, jan1 + 90 * 60),
                                     at(jan1 + 2 * day, jan1 + 2 * day + 10)}));
}

} // namespace
