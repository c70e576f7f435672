// Conditional expressions: WHERE and HAVING, with comparisons, booleans, regular expressions and
// literals of every kind.
#include <cmath>

#include "query/grammar/geohash.hpp"
#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

template <typename Op>
auto combine_sub()
{
    return [](sub_conditional & right, auto & ctx, bool &)
    {
        count_operator();
        sub_conditional & v = value_of(ctx);
        sub_conditional left = std::move(v);
        v = binary_sub_conditional_expression_operation<Op>{box<sub_conditional>(std::move(left)),
                                                            box<sub_conditional>(std::move(right))};
    };
}

template <typename Op>
auto combine_condition()
{
    return [](conditional_expression & right, auto & ctx, bool &)
    {
        count_operator();
        conditional_expression & v = value_of(ctx);
        conditional_expression left = std::move(v);
        v = binary_conditional_expression_operation<Op>{box<conditional_expression>(std::move(left)),
                                                        box<conditional_expression>(std::move(right))};
    };
}

template <typename Op>
sub_conditional make_binary(sub_conditional left, sub_conditional right)
{
    return binary_sub_conditional_expression_operation<Op>{box<sub_conditional>(std::move(left)),
                                                           box<sub_conditional>(std::move(right))};
}

enum comparison : int
{
    eq,
    ne,
    lt,
    le,
    gt,
    ge,
    re_match,
    re_no_match,
    re_insensitive_match,
    re_no_insensitive_match,
};

} // namespace

void define_conditions(rules & r)
{
    const auto word_end = qi::copy(qi::no_skip[!qi::char_("0-9a-zA-Z_")]);
    // Longest match tells `>=` from `>` and `!~*` from `!~`.
    r.compare_operators.add(">=", ge)("<=", le)("!=", ne)("<", lt)("=", eq)(">", gt);
    r.regex_operators.add("~", re_match)("~*", re_insensitive_match)("!~", re_no_match)(
        "!~*", re_no_insensitive_match);

    r.datetime_literal = (qi::no_case[qi::lit("datetime")] >> '(') > r.time_point[assign()] > ')';
    r.datetime_literal.name("datetime(absolute_time)");

    r.geohash_literal =
        ((qi::no_case[qi::lit("geohash64")] >> '(') > r.signed_real > ',' > r.signed_real > ')')[(
            [](auto & parts, auto & ctx, bool & pass)
            {
                const auto h = geohash64(boost::fusion::at_c<0>(parts), boost::fusion::at_c<1>(parts));
                pass = h.has_value();
                value_of(ctx) = h.value_or(0);
            })];
    r.geohash_literal.name("GEOHASH64(latitude, longitude)");

    using byte_parser = qi::uint_parser<unsigned, 10, 1, 3>;
    r.ip_literal =
        (qi::no_case[qi::lit("ip")] >> '(' >>
         qi::lexeme[byte_parser() >> '.' >> byte_parser() >> '.' >> byte_parser() >> '.' >> byte_parser()] >>
         ')')[(
            [](auto & parts, auto & ctx, bool & pass)
            {
                using boost::fusion::at_c;
                const unsigned b[4] = {at_c<0>(parts), at_c<1>(parts), at_c<2>(parts), at_c<3>(parts)};
                std::uint64_t v = 0;
                for (unsigned x : b)
                {
                    pass = pass && x <= 255;
                    v = (v << 8) | x;
                }
                value_of(ctx) = v;
            })];
    r.ip_literal.name("ip(address)");

    r.c_literal =
        r.real[assign()] | r.uinteger[assign()] |
        (qi::no_case[qi::lit("true")] >>
         word_end)[([](auto &, auto & ctx, bool &) { value_of(ctx) = true; })] |
        (qi::no_case[qi::lit("false")] >>
         word_end)[([](auto &, auto & ctx, bool &) { value_of(ctx) = false; })] |
        r.datetime_literal[assign()] |
        r.geohash_literal[([](std::int64_t v, auto & ctx, bool &) { value_of(ctx) = v; })] |
        r.ip_literal[([](std::uint64_t v, auto & ctx, bool &) { value_of(ctx) = v; })] |
        r.quoted_string[([](std::string & s, auto & ctx, bool &) { value_of(ctx) = std::move(s); })];
    r.c_literal.name("literal");

    define_function_call<sub_conditional, unary_sub_conditional_expression_operation<aggregation_op>>(
        r, r.c_function_call, r.c_operand);

    // A condition in parentheses that is only an operand stays an operand: `(a + b) * 2`.
    r.c_primary = r.c_function_call[assign()] |
                  (('(' >> r.condition) > ')')[(
                      [](conditional_expression & c, auto & ctx, bool &)
                      {
                          if (auto * sub = std::get_if<sub_conditional>(&c))
                          {
                              sub_conditional inner = std::move(*sub);
                              value_of(ctx) = std::move(inner);
                          }
                          else
                          {
                              value_of(ctx) = nested_condition{box<conditional_expression>(std::move(c))};
                          }
                      })] |
                  r.c_literal[assign()] | r.identifier_[assign()];
    r.c_primary.name("expression");

    // A minus on an integer literal makes a signed literal; on anything else a negation.
    r.c_unary_level = (*qi::char_("+-") >> r.c_primary)[(
        [](auto & parts, auto & ctx, bool &)
        {
            const auto & signs = boost::fusion::at_c<0>(parts);
            sub_conditional e = std::move(boost::fusion::at_c<1>(parts));
            for (auto it = signs.rbegin(); it != signs.rend(); ++it)
            {
                if (*it != '-')
                {
                    continue;
                }
                count_operator();
                const auto * u = std::get_if<std::uint64_t>(&e);
                if (u && *u <= (std::uint64_t{1} << 63))
                {
                    e = static_cast<std::int64_t>(0 - *u);
                }
                else
                {
                    e = unary_sub_conditional_expression_operation<negation>{
                        negation{}, box<sub_conditional>(std::move(e))};
                }
            }
            value_of(ctx) = std::move(e);
        })];
    r.c_unary_level.name("expression");

    r.c_mul_level = r.c_unary_level[assign()] >> *(('*' > r.c_unary_level)[combine_sub<times>()] |
                                                   ('/' > r.c_unary_level)[combine_sub<divide>()]);
    r.c_mul_level.name("expression");
    r.c_add_level = r.c_mul_level[assign()] >> *(('+' > r.c_mul_level)[combine_sub<plus>()] |
                                                 ('-' > r.c_mul_level)[combine_sub<minus>()]);
    r.c_add_level.name("expression");
    r.c_operand = r.c_add_level[assign()];
    r.c_operand.name("expression");

    r.regex_operand =
        r.quoted_string[([](std::string & s, auto & ctx, bool &) { value_of(ctx).source = std::move(s); })];
    r.regex_operand.name("quoted regular expression");

    // Not associative: `a = b = c` leaves `= c` unparsed.
    r.c_compare_level = r.c_add_level[assign()] >>
                        -((r.regex_operators > r.regex_operand)[(
                              [](auto & parts, auto & ctx, bool &)
                              {
                                  count_operator();
                                  const int op = boost::fusion::at_c<0>(parts);
                                  regex re = std::move(boost::fusion::at_c<1>(parts));
                                  re.case_sensitive = op == re_match || op == re_no_match;
                                  sub_conditional & v = value_of(ctx);
                                  sub_conditional left = std::move(v);
                                  switch (op)
                                  {
                                  case re_match:
                                      v = make_binary<match>(std::move(left), std::move(re));
                                      break;
                                  case re_no_match:
                                      v = make_binary<no_match>(std::move(left), std::move(re));
                                      break;
                                  case re_insensitive_match:
                                      v = make_binary<insensitive_match>(std::move(left), std::move(re));
                                      break;
                                  default:
                                      v = make_binary<no_insensitive_match>(std::move(left), std::move(re));
                                      break;
                                  }
                              })] |
                          (r.compare_operators > r.c_add_level)[(
                              [](auto & parts, auto & ctx, bool &)
                              {
                                  count_operator();
                                  const int op = boost::fusion::at_c<0>(parts);
                                  sub_conditional right = std::move(boost::fusion::at_c<1>(parts));
                                  sub_conditional & v = value_of(ctx);
                                  sub_conditional left = std::move(v);
                                  switch (op)
                                  {
                                  case eq:
                                      v = make_binary<equal>(std::move(left), std::move(right));
                                      break;
                                  case ne:
                                      v = make_binary<not_equal>(std::move(left), std::move(right));
                                      break;
                                  case lt:
                                      v = make_binary<less>(std::move(left), std::move(right));
                                      break;
                                  case le:
                                      v = make_binary<less_equal>(std::move(left), std::move(right));
                                      break;
                                  case gt:
                                      v = make_binary<greater>(std::move(left), std::move(right));
                                      break;
                                  default:
                                      v = make_binary<greater_equal>(std::move(left), std::move(right));
                                      break;
                                  }
                              })]);
    r.c_compare_level.name("expression");

    r.c_bit_level = r.c_compare_level[assign()] >> *('&' > r.c_compare_level)[combine_sub<bitwise_and>()];
    r.c_bit_level.name("expression");

    auto as_condition = [](sub_conditional & s, auto & ctx, bool &) { value_of(ctx) = std::move(s); };
    r.not_level = (r.kw.not_ >> r.c_bit_level)[(
                      [](sub_conditional & s, auto & ctx, bool &)
                      {
                          value_of(ctx) = unary_conditional_expression_operation<not_>{
                              box<conditional_expression>(conditional_expression(std::move(s)))};
                      })] |
                  r.c_bit_level[as_condition];
    r.not_level.name("condition");
    r.and_level = r.not_level[assign()] >> *(r.kw.and_ > r.not_level)[combine_condition<and_>()];
    r.and_level.name("condition");
    r.or_level = r.and_level[assign()] >> *(r.kw.or_ > r.and_level)[combine_condition<or_>()];
    r.or_level.name("condition");
    r.condition = r.or_level[assign()];
    r.condition.name("condition");
    r.where_condition = r.or_level[assign()];
    r.where_condition.name("[NOT] condition [AND or OR condition ...]");
}

} // namespace zlk::query::grammar
