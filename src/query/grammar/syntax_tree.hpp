// The syntax tree of expressions. Plain expressions appear in select lists and ORDER BY; conditional
// expressions, with comparisons, booleans, regular expressions and literals of every kind, in WHERE and
// HAVING. The engine walks these records; the parser is the only place that builds them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/time_value.hpp"
#include "timeseries/codec/aggregation_state.hpp"

namespace zlk::query
{

// A heap cell with value semantics: the recursive alternatives of the expression variants.
template <typename T>
class box
{
public:
    box()
        : p_(std::make_unique<T>())
    {
    }
    box(T v)
        : p_(std::make_unique<T>(std::move(v)))
    {
    }
    box(const box & o)
        : p_(std::make_unique<T>(*o.p_))
    {
    }
    box(box &&) noexcept = default;
    box & operator=(const box & o)
    {
        *p_ = *o.p_;
        return *this;
    }
    box & operator=(box && o) noexcept = default;
    ~box() = default;

    T & operator*() noexcept { return *p_; }
    const T & operator*() const noexcept { return *p_; }
    T * operator->() noexcept { return p_.get(); }
    const T * operator->() const noexcept { return p_.get(); }

private:
    std::unique_ptr<T> p_;
};

// A column or a `$` name, possibly qualified by its table.
struct identifier
{
    std::string table;
    std::string name;
    bool quoted = false;

    friend bool operator==(const identifier &, const identifier &) = default;
};

// The right side of a match operator; the pattern is compiled when the query is analysed.
struct regex
{
    std::string source;
    bool case_sensitive = true;

    friend bool operator==(const regex &, const regex &) = default;
};

// Operator tags.
struct plus
{
};
struct minus
{
};
struct times
{
};
struct divide
{
};
struct bitwise_and
{
};
struct equal
{
};
struct not_equal
{
};
struct less
{
};
struct less_equal
{
};
struct greater
{
};
struct greater_equal
{
};
struct match
{
};
struct no_match
{
};
struct insensitive_match
{
};
struct no_insensitive_match
{
};
struct and_
{
};
struct or_
{
};
struct not_
{
};
struct negation
{
};

// A function call: `count(*)` has the operand `*`; the moving functions carry their window.
struct aggregation_op
{
    aggregation_type type = aggregation_type::none;
    std::optional<std::uint64_t> window;
};

struct expression;

template <typename Op>
struct unary_expression_operation
{
    Op op{};
    box<expression> operand;
};

template <typename Op>
struct binary_expression_operation
{
    box<expression> left;
    box<expression> right;
};

using expression_variant =
    std::variant<std::uint64_t, double, identifier, unary_expression_operation<aggregation_op>,
                 unary_expression_operation<negation>, binary_expression_operation<plus>,
                 binary_expression_operation<minus>, binary_expression_operation<times>,
                 binary_expression_operation<divide>, binary_expression_operation<bitwise_and>>;

struct expression : expression_variant
{
    using expression_variant::expression_variant;
    using expression_variant::operator=;
    expression() = default;
};

struct conditional_expression;
struct sub_conditional;

template <typename Op>
struct binary_sub_conditional_expression_operation
{
    box<sub_conditional> left;
    box<sub_conditional> right;
};

template <typename Op>
struct unary_sub_conditional_expression_operation
{
    Op op{};
    box<sub_conditional> operand;
};

// A condition in parentheses inside an operand: `NOT (a OR b)`, `(a = 1) & b`.
struct nested_condition
{
    box<conditional_expression> condition;
};

using sub_conditional_variant = std::variant<
    std::uint64_t, std::int64_t, double, bool, timespec, std::string, regex, identifier, nested_condition,
    binary_sub_conditional_expression_operation<plus>, binary_sub_conditional_expression_operation<minus>,
    binary_sub_conditional_expression_operation<times>, binary_sub_conditional_expression_operation<divide>,
    binary_sub_conditional_expression_operation<bitwise_and>,
    binary_sub_conditional_expression_operation<equal>,
    binary_sub_conditional_expression_operation<not_equal>, binary_sub_conditional_expression_operation<less>,
    binary_sub_conditional_expression_operation<less_equal>,
    binary_sub_conditional_expression_operation<greater>,
    binary_sub_conditional_expression_operation<greater_equal>,
    binary_sub_conditional_expression_operation<match>, binary_sub_conditional_expression_operation<no_match>,
    binary_sub_conditional_expression_operation<insensitive_match>,
    binary_sub_conditional_expression_operation<no_insensitive_match>,
    unary_sub_conditional_expression_operation<negation>,
    unary_sub_conditional_expression_operation<aggregation_op>>;

struct sub_conditional : sub_conditional_variant
{
    using sub_conditional_variant::sub_conditional_variant;
    using sub_conditional_variant::operator=;
    sub_conditional() = default;
};

template <typename Op>
struct binary_conditional_expression_operation
{
    box<conditional_expression> left;
    box<conditional_expression> right;
};

template <typename Op>
struct unary_conditional_expression_operation
{
    box<conditional_expression> operand;
};

using conditional_variant =
    std::variant<sub_conditional, binary_conditional_expression_operation<or_>,
                 binary_conditional_expression_operation<and_>, unary_conditional_expression_operation<not_>>;

struct conditional_expression : conditional_variant
{
    using conditional_variant::conditional_variant;
    using conditional_variant::operator=;
    conditional_expression() = default;
};

// A function the client evaluates itself; the grammar makes only LOOKUP(dictionary, expression).
struct client_function
{
    std::string name;
    std::string dictionary;
    std::vector<expression> arguments;
};

// What a name can be given to in a select list.
using selectable = std::variant<expression, client_function>;

struct named_expression
{
    selectable expression;
    std::string alias;
};

// `*` is the plain identifier named "*".
using select_item = std::variant<expression, client_function, named_expression>;

// The canonical printed forms, used for generated column names and in messages.
std::string to_string(const expression & e);
std::string to_string(const sub_conditional & e);
std::string to_string(const conditional_expression & e);
std::string to_string(const client_function & f);
std::string to_string(const select_item & item);
std::string to_string(const identifier & id);

} // namespace zlk::query
