// The rules of the query grammar, declared in one place and defined in several translation units (the
// rules are heavy to compile). Rules hold each other by reference, so one `rules` object is built per
// thread and never moves. Composite rules build their records in semantic actions; only the token rules
// propagate their attributes by themselves.
#pragma once

#include <boost/fusion/include/at_c.hpp>
#include <boost/spirit/include/qi.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/time_value.hpp"
#include "query/grammar/parse_query.hpp"
#include "query/grammar/statements.hpp"

namespace zlk::query::grammar
{

namespace qi = boost::spirit::qi;

using iterator = const char *;
using skipper = qi::ascii::space_type;

template <typename T = qi::unused_type>
using rule = qi::rule<iterator, T(), skipper>;

// Implied lexemes: whitespace is skipped before them, never inside.
template <typename T = qi::unused_type>
using token = qi::rule<iterator, T()>;

// What the semantic actions of one parse share.
struct parse_context
{
    const parse_options * options = nullptr;
    bool clock_read = false;
    timespec now;
    iterator row_start = nullptr;
    std::size_t insert_columns = 0;
    std::size_t operators = 0;
};

// Thrown by count_operator past max_operators; ends the parse.
struct too_many_operators
{
};

// Every operator node the actions make is counted.
void count_operator();

parse_context & current_context() noexcept;

// The time of the parse, read once so that `now` and `today` of one query agree.
timespec parse_time();

// The synthesized attribute of the rule whose action runs.
template <typename Context>
auto & value_of(Context & ctx)
{
    return boost::fusion::at_c<0>(ctx.attributes);
}

// Semantic actions that store the attribute they are given.
inline auto assign()
{
    return [](auto & attr, auto & ctx, bool &) { value_of(ctx) = std::move(attr); };
}

template <typename Member>
auto assign_to(Member member)
{
    return [member](auto & attr, auto & ctx, bool &) { value_of(ctx).*member = std::move(attr); };
}

template <typename Member>
auto append_to(Member member)
{
    return [member](auto & attr, auto & ctx, bool &) { (value_of(ctx).*member).push_back(std::move(attr)); };
}

inline auto append()
{
    return [](auto & attr, auto & ctx, bool &) { value_of(ctx).push_back(std::move(attr)); };
}

// "At line N: expected WHAT." with the line and a caret under the failing position.
std::string compose_parse_error(std::string_view text, std::size_t position, std::string_view what);

// "name (one of a, b or c)".
std::string one_of(std::string_view name, const std::vector<std::string> & keys);

// Where the `time range(s)` grammar wants an end: a time, or an offset from the begin.
struct range_end
{
    enum class kind : std::uint8_t
    {
        at,
        after,
        before,
    };
    kind how = kind::at;
    timespec time;
    time::duration offset;
};

struct keywords
{
    rule<> add, all_, alter, and_, as, asof, by, column, create, days, delete_, disk_usage, drop, exists,
        find, from, grant, grants, group, having, if_, in, insert, into, join, limit, lookup, months, not_,
        null, offset, on, or_, order, prefix, range, rename, revoke, select, shard_size, show, table, tables,
        tag, time, to, type, values, where, with;
};

struct rules
{
    rules();
    rules(const rules &) = delete;
    rules & operator=(const rules &) = delete;

    keywords kw;

    // Function names without regard to case; the moving ones take a window.
    qi::symbols<char, aggregation_type> plain_functions, moving_functions;
    qi::symbols<char, int> compare_operators, regex_operators;

    // Tokens.
    token<std::string> raw_identifier, quoted_identifier, raw_unquoted_string, quoted_string;
    token<identifier> identifier_;
    token<std::string> column_name, table_name, entry_name;
    token<double> real, signed_real;
    token<std::uint64_t> uinteger;
    token<std::int64_t> sinteger;
    rule<> end_of_input;
    rule<std::uint64_t> max_rows_count, skipped_rows_count;

    // Time.
    token<std::int64_t> fraction;
    token<std::int64_t> time_of_day;
    token<timespec> absolute_time, named_instant;
    token<time::duration> duration_term;
    rule<time::duration> duration;
    rule<timespec> relative_time, time_point;
    rule<range_end> time_range_end;
    rule<time::interval> time_range;
    rule<std::vector<time::interval>> multi_ranges;
    rule<std::pair<time::duration, time::duration>> hours_range;
    rule<std::pair<std::uint8_t, std::uint8_t>> days_range, months_range;
    rule<time_ranges_spec> hours_ranges, days_ranges, months_ranges, time_ranges;

    // Plain expressions.
    rule<expression> expression_, expression_operand, bit_level, add_level, mul_level, unary_level, primary,
        function_call;
    rule<client_function> lookup;
    rule<select_item> select_item_;
    rule<std::vector<select_item>> select_list;

    // Conditional expressions.
    rule<conditional_expression> condition, where_condition, or_level, and_level, not_level;
    rule<sub_conditional> c_bit_level, c_compare_level, c_add_level, c_mul_level, c_unary_level, c_primary,
        c_function_call, c_literal, c_operand;
    rule<timespec> datetime_literal;
    rule<std::int64_t> geohash_literal;
    rule<std::uint64_t> ip_literal;
    rule<regex> regex_operand;

    // SELECT.
    rule<ast::parsed_select> select;
    rule<entry_reference> entry_reference_;
    rule<entry_reference> table_reference;
    rule<std::vector<entry_reference>> entry_list, table_list, from_list;
    rule<std::vector<ast::group_by_item>> group_by;
    rule<ast::sort_order> sort_order;
    rule<ast::order_by_clause> order_item;
    rule<std::vector<ast::order_by_clause>> order_by;
    rule<joined_table> join_clause;

    // Tables and rows.
    rule<column_description> column_definition;
    rule<std::vector<column_description>> column_definitions, create_columns;
    rule<std::pair<std::string, std::string>> column_renaming;
    rule<ast::parsed_create_table> create_table;
    rule<ast::parsed_alter_table> alter_table, alter_action;
    rule<std::vector<std::pair<std::string, std::string>>> column_renamings;
    rule<kernel::column_type> column_type;
    rule<std::pair<bool, std::string>> create_target;
    rule<> columns_close;
    rule<time::duration> shard_size;
    rule<ast::parsed_drop_table> drop_table;
    rule<ast::parsed_delete> delete_;
    rule<ast::parsed_insert_table> insert_table;
    rule<std::vector<std::string>> insert_columns;
    rule<ast::insert_row> insert_row;
    rule<std::vector<ast::insert_row>> insert_rows;
    rule<ast::column_value> column_value;
    rule<timespec> row_time;

    // Access and listings.
    rule<find_request> find;
    rule<find_request::item> find_expression;
    rule<std::string> quoted_tag_name, quoted_prefix_name;
    rule<find_request::entry_type> find_entry_type;
    rule<privilege> privilege_;
    rule<std::vector<privilege>> privileges;
    rule<std::string> grantee;
    rule<std::vector<std::string>> grantees;
    rule<> find_open, find_close, grant_on, grant_to, revoke_from;
    rule<ast::statement> show, show_rest, grant, revoke;

    rule<ast::statement> statement;
    rule<ast::statement> query;
    rule<find_request> find_query;
};

void define_tokens(rules & r);
void define_time(rules & r);
void define_expressions(rules & r);
void define_conditions(rules & r);
void define_select(rules & r);
void define_tables(rules & r);
void define_access(rules & r);

// count(*), a moving function with its window, a plain function, over operands of either expression
// level. The name backtracks until "(" so that `first_seen` or `max` without a call are names.
template <typename Node, typename Call>
void define_function_call(rules & r, rule<Node> & call, rule<Node> & operand)
{
    auto make = [](aggregation_type f, std::optional<std::uint64_t> window, Node operand) {
        return Call{aggregation_op{f, window}, box<Node>(std::move(operand))};
    };
    call =
        (qi::no_case[qi::lit("count")] >> '(' >> '*' >> ')')[(
            [make](auto &, auto & ctx, bool &) {
                value_of(ctx) = make(aggregation_type::count, std::nullopt, Node(identifier{"", "*", false}));
            })] |
        ((qi::no_case[r.moving_functions] >> '(') > operand > ',' > r.uinteger > ')')[(
            [make](auto & parts, auto & ctx, bool &)
            {
                using boost::fusion::at_c;
                value_of(ctx) = make(at_c<0>(parts), at_c<2>(parts), std::move(at_c<1>(parts)));
            })] |
        ((qi::no_case[r.plain_functions] >> '(') > operand > ')')[(
            [make](auto & parts, auto & ctx, bool &)
            {
                using boost::fusion::at_c;
                value_of(ctx) = make(at_c<0>(parts), std::nullopt, std::move(at_c<1>(parts)));
            })];
    call.name("function(column_name)");
}

// The rules of the calling thread, built at its first query.
rules & thread_rules();

} // namespace zlk::query::grammar
