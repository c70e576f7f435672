// Durations, dates, named instants and the range forms of `IN`.
#include <algorithm>
#include <climits>

#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

constexpr std::int64_t ns_per_second = 1'000'000'000;
constexpr std::int64_t end_of_time_seconds = 95'617'584'000;

struct named_instants : qi::symbols<char, int>
{
    named_instants()
    {
        add("epoch", 0)("yesterday", 1)("today", 2)("tomorrow", 3)("now", 4)("end_of_time", 5);
    }
};

// The clock part of a duration, in nanoseconds per unit.
struct clock_units : qi::symbols<char, std::int64_t>
{
    clock_units()
    {
        add("h", 3600 * ns_per_second)("hour", 3600 * ns_per_second)("min", 60 * ns_per_second)(
            "minute", 60 * ns_per_second)("s", ns_per_second)("second", ns_per_second)("ms", 1'000'000)(
            "millisecond", 1'000'000)("us", 1'000)("microsecond", 1'000)("ns", 1)("nanosecond", 1);
    }
};

// Calendar units: 0 months, 1 days, each with its multiplier.
struct calendar_units : qi::symbols<char, std::pair<int, int>>
{
    calendar_units()
    {
        add("years", {0, 12})("year", {0, 12})("y", {0, 12})("months", {0, 1})("month", {0, 1})(
            "mon", {0, 1})("weeks", {1, 7})("week", {1, 7})("w", {1, 7})("days", {1, 1})("day",
                                                                                         {1, 1})("d", {1, 1});
    }
};

struct month_names : qi::symbols<char, std::uint8_t>
{
    month_names()
    {
        add("january", 1)("jan", 1)("february", 2)("feb", 2)("march", 3)("mar", 3)("april", 4)("apr", 4)(
            "may", 5)("june", 6)("jun", 6)("july", 7)("jul", 7)("august", 8)("aug", 8)("september", 9)(
            "sep", 9)("october", 10)("oct", 10)("november", 11)("nov", 11)("december", 12)("dec", 12);
    }
};

struct weekday_names : qi::symbols<char, std::uint8_t>
{
    weekday_names()
    {
        add("monday", 1)("mon", 1)("tuesday", 2)("tue", 2)("wednesday", 3)("wed", 3)("thursday", 4)("thu", 4)(
            "friday", 5)("fri", 5)("saturday", 6)("sat", 6)("sunday", 0)("sun", 0);
    }
};

// Symbol tables are read-only once filled; one set serves every thread.
named_instants instants;
clock_units clock_table;
calendar_units calendar_table;
month_names months_table;
weekday_names weekdays_table;

std::int64_t day_start(const timespec & now) noexcept
{
    // Microseconds of the clock, divided by a day rounding toward minus infinity.
    const std::int64_t us = now.tv_sec * 1'000'000 + now.tv_nsec / 1'000;
    std::int64_t day = us / 86'400'000'000;
    if (us % 86'400'000'000 < 0)
    {
        --day;
    }
    return day * 86400;
}

timespec instant_value(int which)
{
    switch (which)
    {
    case 0:
        return timespec{0, 0};
    case 1:
        return timespec{day_start(parse_time()) - 86400, 0};
    case 2:
        return timespec{day_start(parse_time()), 0};
    case 3:
        return timespec{day_start(parse_time()) + 86400, 0};
    case 4:
        return parse_time();
    default:
        return timespec{end_of_time_seconds, 0};
    }
}

} // namespace

void define_time(rules & r)
{
    const auto word_end = qi::copy(qi::no_skip[!qi::char_("0-9a-zA-Z_")]);
    using digits2 = qi::uint_parser<unsigned, 10, 1, 2>;
    using exact2 = qi::uint_parser<unsigned, 10, 2, 2>;
    using exact4 = qi::uint_parser<unsigned, 10, 4, 4>;

    // Digits of a decimal fraction of a second; those past the ninth change nothing and are ignored.
    r.fraction = qi::raw[+qi::digit][(
        [](auto & range, auto & ctx, bool &)
        {
            std::int64_t ns = 0;
            int n = 0;
            for (char c : range)
            {
                if (n++ < 9)
                {
                    ns = ns * 10 + (c - '0');
                }
            }
            for (; n < 9; ++n)
            {
                ns *= 10;
            }
            value_of(ctx) = ns;
        })];
    r.fraction.name("fraction seconds");

    // hh:mm[:ss[.fraction]], as nanoseconds since midnight.
    r.time_of_day = (digits2() >> ':' >> exact2() >> -(':' >> exact2() >> -('.' > r.fraction)))[(
        [](auto & parts, auto & ctx, bool & pass)
        {
            using boost::fusion::at_c;
            const unsigned h = at_c<0>(parts);
            const unsigned m = at_c<1>(parts);
            unsigned s = 0;
            std::int64_t ns = 0;
            if (const auto & rest = at_c<2>(parts))
            {
                s = at_c<0>(*rest);
                ns = at_c<1>(*rest).value_or(0);
            }
            pass = h < 24 && m < 60 && s < 60;
            value_of(ctx) = ((h * 60 + m) * 60 + s) * ns_per_second + ns;
        })];
    r.time_of_day.name("time of day");

    // yyyy-m-d[Thh:mm[:ss[.f]]][Z], or a bare year. An invalid date is a plain mismatch.
    r.absolute_time =
        (exact4() >> '-' >> digits2() >> '-' >> digits2() >> -('T' >> r.time_of_day) >> -qi::lit('Z'))[(
            [](auto & parts, auto & ctx, bool & pass)
            {
                using boost::fusion::at_c;
                const auto seconds = time::civil_seconds(at_c<0>(parts), at_c<1>(parts), at_c<2>(parts));
                pass = seconds.has_value();
                if (pass)
                {
                    const std::int64_t tod = at_c<3>(parts).value_or(0);
                    value_of(ctx) = timespec{*seconds + tod / ns_per_second, tod % ns_per_second};
                }
            })] |
        (exact4() >> !qi::digit)[(
            [](unsigned year, auto & ctx, bool &) {
                value_of(ctx) = timespec{*time::civil_seconds(year, 1, 1), 0};
            })];
    r.absolute_time.name("absolute_time");

    r.named_instant = (qi::no_case[instants] >> word_end >>
                       -(qi::lit('(') >> qi::omit[*qi::ascii::space] >>
                         ')'))[([](int which, auto & ctx, bool &) { value_of(ctx) = instant_value(which); })];
    r.named_instant.name("named instant");

    // One term: an optional signed count and a unit, calendar units first.
    r.duration_term = (-qi::int_parser<std::int64_t>() >> qi::no_case[calendar_table] >> word_end)[(
                          [](auto & parts, auto & ctx, bool & pass)
                          {
                              using boost::fusion::at_c;
                              const std::int64_t n = at_c<0>(parts).value_or(1);
                              const auto [kind, factor] = at_c<1>(parts);
                              time::duration d;
                              std::int64_t v = 0;
                              pass = !__builtin_mul_overflow(n, factor, &v);
                              if (kind == 0)
                              {
                                  pass = pass && v >= INT32_MIN && v <= INT32_MAX;
                                  d.months = static_cast<std::int32_t>(v);
                              }
                              else
                              {
                                  d.days = v;
                              }
                              value_of(ctx) = d;
                          })] |
                      (-qi::int_parser<std::int64_t>() >> qi::no_case[clock_table] >> word_end)[(
                          [](auto & parts, auto & ctx, bool & pass)
                          {
                              using boost::fusion::at_c;
                              const std::int64_t n = at_c<0>(parts).value_or(1);
                              const std::int64_t step = at_c<1>(parts);
                              // Whole seconds and the rest apart, so that large counts of small units don't
                              // overflow.
                              time::duration d;
                              const std::int64_t per_second = ns_per_second / std::min(step, ns_per_second);
                              if (step >= ns_per_second)
                              {
                                  pass = !__builtin_mul_overflow(n, step / ns_per_second, &d.seconds);
                              }
                              else
                              {
                                  d.seconds = n / per_second;
                                  d.nanoseconds = (n % per_second) * step;
                              }
                              value_of(ctx) = d;
                          })];
    r.duration_term.name("duration");

    r.duration = +r.duration_term[([](time::duration & d, auto & ctx, bool &) { value_of(ctx) += d; })];
    r.duration.name("duration");

    // A named instant, optionally moved: `now - 1h`, clamped at the epoch.
    r.relative_time = r.named_instant[assign()] >> -(('+' >> r.duration)[(
                                                         [](time::duration & d, auto & ctx, bool & pass)
                                                         {
                                                             const auto t = time::add(value_of(ctx), d);
                                                             pass = t.has_value();
                                                             if (pass)
                                                             {
                                                                 value_of(ctx) = *t;
                                                             }
                                                         })] |
                                                     ('-' >> r.duration)[(
                                                         [](time::duration & d, auto & ctx, bool & pass)
                                                         {
                                                             const auto t =
                                                                 time::subtract_clamped(value_of(ctx), d);
                                                             pass = t.has_value();
                                                             if (pass)
                                                             {
                                                                 value_of(ctx) = *t;
                                                             }
                                                         })]);
    r.relative_time.name("relative time");

    r.time_point = r.absolute_time[assign()] | r.relative_time[assign()];
    r.time_point.name("absolute_time");

    r.time_range_end = r.time_point[(
                           [](timespec & t, auto & ctx, bool &)
                           {
                               value_of(ctx).how = range_end::kind::at;
                               value_of(ctx).time = t;
                           })] |
                       ('+' >> r.duration)[(
                           [](time::duration & d, auto & ctx, bool &)
                           {
                               value_of(ctx).how = range_end::kind::after;
                               value_of(ctx).offset = d;
                           })] |
                       ('-' >> r.duration)[(
                           [](time::duration & d, auto & ctx, bool &)
                           {
                               value_of(ctx).how = range_end::kind::before;
                               value_of(ctx).offset = d;
                           })];

    // RANGE(begin, end), RANGE(begin, +offset), RANGE(end, -offset); the keyword may be left out.
    r.time_range = (-r.kw.range >> '(' >> r.time_point >> ',' >> r.time_range_end >> ')')[(
        [](auto & parts, auto & ctx, bool & pass)
        {
            using boost::fusion::at_c;
            const timespec t = at_c<0>(parts);
            const range_end & e = at_c<1>(parts);
            time::interval & out = value_of(ctx);
            switch (e.how)
            {
            case range_end::kind::at:
                out = {t, e.time};
                break;
            case range_end::kind::after:
            {
                const auto end = time::add(t, e.offset);
                pass = end.has_value();
                out = {t, end.value_or(t)};
                break;
            }
            case range_end::kind::before:
            {
                const auto begin = time::subtract_clamped(t, e.offset);
                pass = begin.has_value();
                out = {begin.value_or(t), t};
                break;
            }
            }
        })];
    r.time_range.name("time range");

    r.multi_ranges = '[' >> (r.time_range[append()] % ',') >> ']';
    r.multi_ranges.name("multi ranges");

    auto pair_of = [](auto & parts, auto & ctx, bool &) {
        value_of(ctx) = {boost::fusion::at_c<0>(parts), boost::fusion::at_c<1>(parts)};
    };
    r.hours_range = (-r.kw.range >> '(' >> r.time_of_day >> ',' >> r.time_of_day >> ')')[(
        [](auto & parts, auto & ctx, bool &)
        {
            auto as_duration = [](std::int64_t ns) {
                return time::duration{0, 0, 0, ns / ns_per_second, ns % ns_per_second};
            };
            value_of(ctx) = {as_duration(boost::fusion::at_c<0>(parts)),
                             as_duration(boost::fusion::at_c<1>(parts))};
        })];
    r.hours_range.name("hours range");
    r.days_range = (-r.kw.range >> '(' >> qi::no_case[weekdays_table] >> word_end >> ',' >>
                    qi::no_case[weekdays_table] >> word_end >> ')')[pair_of];
    r.days_range.name("days range");
    r.months_range = (-r.kw.range >> '(' >> qi::no_case[months_table] >> word_end >> ',' >>
                      qi::no_case[months_table] >> word_end >> ')')[pair_of];
    r.months_range.name("months range");

    r.hours_ranges = ('[' >> (r.hours_range[append_to(&time_ranges_spec::times)] % ',') >> ']') |
                     r.hours_range[append_to(&time_ranges_spec::times)];
    r.hours_ranges.name("hours range");
    r.days_ranges = ('[' >> (r.days_range[append_to(&time_ranges_spec::days)] % ',') >> ']') |
                    r.days_range[append_to(&time_ranges_spec::days)];
    r.days_ranges.name("days range");
    r.months_ranges = ('[' >> (r.months_range[append_to(&time_ranges_spec::months)] % ',') >> ']') |
                      r.months_range[append_to(&time_ranges_spec::months)];
    r.months_ranges.name("months range");

    // The base list, then the restrictions in their order. A clause adds to the record it is given.
    auto merge = [](time_ranges_spec & part, auto & ctx, bool &)
    {
        time_ranges_spec & out = value_of(ctx);
        out.times.insert(out.times.end(), part.times.begin(), part.times.end());
        out.days.insert(out.days.end(), part.days.begin(), part.days.end());
        out.months.insert(out.months.end(), part.months.begin(), part.months.end());
    };
    r.time_ranges = (r.multi_ranges[assign_to(&time_ranges_spec::ranges)] |
                     r.time_range[append_to(&time_ranges_spec::ranges)]) >>
                    -((r.kw.with >> r.kw.time >> r.kw.in) > r.hours_ranges[merge]) >>
                    -((r.kw.with >> r.kw.days >> r.kw.in) > r.days_ranges[merge]) >>
                    -((r.kw.with >> r.kw.months >> r.kw.in) > r.months_ranges[merge]);
    r.time_ranges.name("[RANGE(begin, end or +/-offset), ...]");
}

} // namespace zlk::query::grammar
