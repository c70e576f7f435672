// Plain expressions: select items and ORDER BY.
#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

template <typename Op>
auto combine()
{
    return [](expression & right, auto & ctx, bool &)
    {
        count_operator();
        expression & v = value_of(ctx);
        expression left = std::move(v);
        v = binary_expression_operation<Op>{box<expression>(std::move(left)),
                                            box<expression>(std::move(right))};
    };
}

void fill_function_names(rules & r)
{
    using f = aggregation_type;
    r.plain_functions.add("first", f::first)("last", f::last)("min", f::min)("max", f::max)(
        "arithmetic_mean", f::arithmetic_mean)("avg", f::arithmetic_mean)("harmonic_mean", f::harmonic_mean)(
        "geometric_mean", f::geometric_mean)("quadratic_mean", f::quadratic_mean)("count", f::count)(
        "sum", f::sum)("sum_of_squares", f::sum_of_squares)("spread", f::spread)(
        "sample_variance", f::sample_variance)("sample_stddev", f::sample_stddev)(
        "population_variance", f::population_variance)("population_stddev", f::population_stddev)(
        "abs_min", f::abs_min)("abs_max", f::abs_max)("product", f::product)("skewness", f::skewness)(
        "kurtosis", f::kurtosis)("adjacent_count", f::adjacent_count)("distinct_count", f::distinct_count)(
        "cumulative_sum", f::cumulative_sum)("cumsum", f::cumulative_sum)(
        "cumulative_product", f::cumulative_product)("cumprod", f::cumulative_product);
    r.moving_functions.add("moving_average", f::moving_average)("ma", f::moving_average)(
        "moving_sum", f::moving_sum)("moving_min", f::moving_min)("moving_max", f::moving_max);
}

} // namespace

void define_expressions(rules & r)
{
    fill_function_names(r);

    define_function_call<expression, unary_expression_operation<aggregation_op>>(r, r.function_call,
                                                                                 r.expression_);

    r.primary = r.function_call[assign()] | (('(' >> r.expression_) > ')')[assign()] | r.real[assign()] |
                r.uinteger[assign()] | r.identifier_[assign()];
    r.primary.name("expression");

    // Signs are collected and applied from the inside out, so that a run of them doesn't recurse.
    r.unary_level = (*qi::char_("+-") >> r.primary)[(
        [](auto & parts, auto & ctx, bool &)
        {
            const auto & signs = boost::fusion::at_c<0>(parts);
            expression e = std::move(boost::fusion::at_c<1>(parts));
            for (auto it = signs.rbegin(); it != signs.rend(); ++it)
            {
                if (*it == '-')
                {
                    count_operator();
                    e = unary_expression_operation<negation>{negation{}, box<expression>(std::move(e))};
                }
            }
            value_of(ctx) = std::move(e);
        })];
    r.unary_level.name("expression");

    r.mul_level = r.unary_level[assign()] >>
                  *(('*' > r.unary_level)[combine<times>()] | ('/' > r.unary_level)[combine<divide>()]);
    r.mul_level.name("expression");
    r.add_level = r.mul_level[assign()] >>
                  *(('+' > r.mul_level)[combine<plus>()] | ('-' > r.mul_level)[combine<minus>()]);
    r.add_level.name("expression");
    r.bit_level = r.add_level[assign()] >> *('&' > r.add_level)[combine<bitwise_and>()];
    r.bit_level.name("expression");
    r.expression_ = r.bit_level[assign()];
    r.expression_.name("expression");

    r.lookup = ((r.kw.lookup >> '(') > (r.quoted_string | r.raw_identifier) > ',' > r.expression_ > ')')[(
        [](auto & parts, auto & ctx, bool &)
        {
            client_function & f = value_of(ctx);
            f.name = "lookup";
            f.dictionary = std::move(boost::fusion::at_c<0>(parts));
            f.arguments.push_back(std::move(boost::fusion::at_c<1>(parts)));
        })];
    r.lookup.name("lookup function");

    auto named = [](std::string & alias, auto & ctx, bool &)
    {
        select_item & item = value_of(ctx);
        named_expression n;
        if (auto * e = std::get_if<expression>(&item))
        {
            n.expression = std::move(*e);
        }
        else
        {
            n.expression = std::move(std::get<client_function>(item));
        }
        n.alias = std::move(alias);
        item = std::move(n);
    };
    r.select_item_ =
        (qi::lit('*')[(
             [](auto &, auto & ctx, bool &) {
                 value_of(ctx) = expression(identifier{"", "*", false});
             })] |
         r.lookup[assign()] |
         r.expression_[([](expression & e, auto & ctx, bool &) { value_of(ctx) = std::move(e); })]) >>
        -(r.kw.as > r.column_name[named]);
    r.select_item_.name("'*', column_name or function(column_name)");

    r.select_list = r.select_item_[append()] % ',';
    r.select_list.name("'*', column_name or function(column_name), ...");
}

} // namespace zlk::query::grammar
