// The canonical printed forms of expressions: generated column names and the names in messages.
#include <fmt/format.h>

#include "query/grammar/syntax_tree.hpp"

namespace zlk::query
{

namespace
{

constexpr std::string_view symbol(plus)
{
    return "+";
}
constexpr std::string_view symbol(minus)
{
    return "-";
}
constexpr std::string_view symbol(times)
{
    return "*";
}
constexpr std::string_view symbol(divide)
{
    return "/";
}
constexpr std::string_view symbol(bitwise_and)
{
    return "&";
}
constexpr std::string_view symbol(equal)
{
    return "=";
}
constexpr std::string_view symbol(not_equal)
{
    return "!=";
}
constexpr std::string_view symbol(less)
{
    return "<";
}
constexpr std::string_view symbol(less_equal)
{
    return "<=";
}
constexpr std::string_view symbol(greater)
{
    return ">";
}
constexpr std::string_view symbol(greater_equal)
{
    return ">=";
}
constexpr std::string_view symbol(match)
{
    return "~";
}
constexpr std::string_view symbol(no_match)
{
    return "!~";
}
constexpr std::string_view symbol(insensitive_match)
{
    return "~*";
}
constexpr std::string_view symbol(no_insensitive_match)
{
    return "!~*";
}
constexpr std::string_view symbol(and_)
{
    return "and";
}
constexpr std::string_view symbol(or_)
{
    return "or";
}

struct printer
{
    std::string & out;

    void operator()(std::uint64_t v) const { fmt::format_to(std::back_inserter(out), "{}", v); }
    void operator()(std::int64_t v) const { fmt::format_to(std::back_inserter(out), "{}", v); }
    void operator()(double v) const { fmt::format_to(std::back_inserter(out), "{:f}", v); }
    void operator()(bool v) const { out += v ? "true" : "false"; }
    void operator()(const timespec & t) const
    {
        fmt::format_to(std::back_inserter(out), "{}.{:09}", t.tv_sec, t.tv_nsec);
    }
    void operator()(const std::string & s) const { fmt::format_to(std::back_inserter(out), "'{}'", s); }
    void operator()(const regex & r) const
    {
        fmt::format_to(std::back_inserter(out), "r'{}'{}", r.source, r.case_sensitive ? "" : "<ci>");
    }
    void operator()(const identifier & id) const
    {
        if (!id.table.empty())
        {
            out += id.table;
            out += '.';
        }
        out += id.name;
    }
    void operator()(const nested_condition & n) const
    {
        std::visit(*this, static_cast<const conditional_variant &>(*n.condition));
    }
    void operator()(const expression & e) const
    {
        std::visit(*this, static_cast<const expression_variant &>(e));
    }
    void operator()(const sub_conditional & e) const
    {
        std::visit(*this, static_cast<const sub_conditional_variant &>(e));
    }
    void operator()(const conditional_expression & e) const
    {
        std::visit(*this, static_cast<const conditional_variant &>(e));
    }

    template <typename Operand>
    void call(const aggregation_op & op, const Operand & operand) const
    {
        out += aggregation_name(static_cast<std::uint64_t>(op.type));
        out += '(';
        (*this)(operand);
        if (op.window)
        {
            fmt::format_to(std::back_inserter(out), ",{}", *op.window);
        }
        out += ')';
    }
    template <typename Operand>
    void prefixed(std::string_view name, const Operand & operand) const
    {
        out += name;
        out += '(';
        (*this)(operand);
        out += ')';
    }
    template <typename Op, typename Operand>
    void binary(const Operand & left, const Operand & right) const
    {
        out += '(';
        (*this)(left);
        out += symbol(Op{});
        (*this)(right);
        out += ')';
    }

    void operator()(const unary_expression_operation<aggregation_op> & u) const { call(u.op, *u.operand); }
    void operator()(const unary_sub_conditional_expression_operation<aggregation_op> & u) const
    {
        call(u.op, *u.operand);
    }
    void operator()(const unary_expression_operation<negation> & u) const { prefixed("-", *u.operand); }
    void operator()(const unary_sub_conditional_expression_operation<negation> & u) const
    {
        prefixed("-", *u.operand);
    }
    void operator()(const unary_conditional_expression_operation<not_> & u) const
    {
        prefixed("not", *u.operand);
    }

    template <typename Op>
    void operator()(const binary_expression_operation<Op> & b) const
    {
        binary<Op>(*b.left, *b.right);
    }
    template <typename Op>
    void operator()(const binary_sub_conditional_expression_operation<Op> & b) const
    {
        binary<Op>(*b.left, *b.right);
    }
    template <typename Op>
    void operator()(const binary_conditional_expression_operation<Op> & b) const
    {
        binary<Op>(*b.left, *b.right);
    }
};

} // namespace

std::string to_string(const expression & e)
{
    std::string out;
    printer{out}(e);
    return out;
}

std::string to_string(const sub_conditional & e)
{
    std::string out;
    printer{out}(e);
    return out;
}

std::string to_string(const conditional_expression & e)
{
    std::string out;
    printer{out}(e);
    return out;
}

std::string to_string(const identifier & id)
{
    std::string out;
    printer{out}(id);
    return out;
}

std::string to_string(const client_function & f)
{
    return fmt::format("{}(\"{}\", {})", f.name, f.dictionary,
                       f.arguments.empty() ? "" : to_string(f.arguments[0]));
}

std::string to_string(const select_item & item)
{
    struct visitor
    {
        std::string operator()(const expression & e) const { return to_string(e); }
        std::string operator()(const client_function & f) const { return to_string(f); }
        std::string operator()(const named_expression & n) const
        {
            return fmt::format("{} AS {}", std::visit(*this, n.expression), n.alias);
        }
        std::string operator()(const selectable & v) const { return std::visit(*this, v); }
    };
    return std::visit(visitor{}, item);
}

} // namespace zlk::query
