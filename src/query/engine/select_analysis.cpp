#include "query/engine/select_analysis.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace zlk::query
{

namespace
{

constexpr std::int64_t end_of_time_seconds = 95'617'584'000;

bool is_special(const identifier & id) noexcept
{
    return id.name == "$timestamp" || id.name == "$table";
}

bool is_transformation(aggregation_type f) noexcept
{
    const auto v = static_cast<unsigned>(f);
    return v >= 23 && v <= 28;
}

std::string_view type_name(std::optional<kernel::column_type> t) noexcept
{
    return t ? column_type_name(*t) : std::string_view{"unknown"};
}

// Every function call of a plain expression tree, outermost first.
template <typename F>
void each_call(const expression & e, F && f)
{
    std::visit(
        [&](const auto & node)
        {
            using T = std::decay_t<decltype(node)>;
            if constexpr (std::is_same_v<T, unary_expression_operation<aggregation_op>>)
            {
                f(node);
                each_call(*node.operand, f);
            }
            else if constexpr (std::is_same_v<T, unary_expression_operation<negation>>)
            {
                each_call(*node.operand, f);
            }
            else if constexpr (requires { node.left; })
            {
                each_call(*node.left, f);
                each_call(*node.right, f);
            }
        },
        static_cast<const expression_variant &>(e));
}

constexpr std::string_view symbol_of(const binary_expression_operation<plus> &)
{
    return "+";
}
constexpr std::string_view symbol_of(const binary_expression_operation<minus> &)
{
    return "-";
}
constexpr std::string_view symbol_of(const binary_expression_operation<times> &)
{
    return "*";
}
constexpr std::string_view symbol_of(const binary_expression_operation<divide> &)
{
    return "/";
}
constexpr std::string_view symbol_of(const binary_expression_operation<bitwise_and> &)
{
    return "&";
}

// The identifiers of a plain expression, each with the operator or function applied right above it.
template <typename F>
void each_identifier(expression & e, std::string_view applied, F && f)
{
    std::visit(
        [&](auto & node)
        {
            using T = std::decay_t<decltype(node)>;
            if constexpr (std::is_same_v<T, identifier>)
            {
                f(node, applied);
            }
            else if constexpr (std::is_same_v<T, unary_expression_operation<aggregation_op>>)
            {
                each_identifier(*node.operand, aggregation_name(static_cast<std::uint64_t>(node.op.type)), f);
            }
            else if constexpr (std::is_same_v<T, unary_expression_operation<negation>>)
            {
                each_identifier(*node.operand, "-", f);
            }
            else if constexpr (requires { node.left; })
            {
                const std::string_view op = symbol_of(node);
                each_identifier(*node.left, op, f);
                each_identifier(*node.right, op, f);
            }
        },
        static_cast<expression_variant &>(e));
}

// The identifiers of a condition.
template <typename F>
void each_identifier(sub_conditional & e, F && f);

template <typename F>
void each_identifier(conditional_expression & c, F && f)
{
    std::visit(
        [&](auto & node)
        {
            using T = std::decay_t<decltype(node)>;
            if constexpr (std::is_same_v<T, sub_conditional>)
            {
                each_identifier(node, f);
            }
            else if constexpr (requires { node.left; })
            {
                each_identifier(*node.left, f);
                each_identifier(*node.right, f);
            }
            else
            {
                each_identifier(*node.operand, f);
            }
        },
        static_cast<conditional_variant &>(c));
}

template <typename F>
void each_identifier(sub_conditional & e, F && f)
{
    std::visit(
        [&](auto & node)
        {
            using T = std::decay_t<decltype(node)>;
            if constexpr (std::is_same_v<T, identifier>)
            {
                f(node);
            }
            else if constexpr (std::is_same_v<T, nested_condition>)
            {
                each_identifier(*node.condition, f);
            }
            else if constexpr (requires { node.left; })
            {
                each_identifier(*node.left, f);
                each_identifier(*node.right, f);
            }
            else if constexpr (requires { node.operand; })
            {
                each_identifier(*node.operand, f);
            }
        },
        static_cast<sub_conditional_variant &>(e));
}

class select_analysis
{
public:
    select_analysis(ast::parsed_select & s, query_context & ctx)
        : s_(s)
        , ctx_(ctx)
    {
    }

    zlk_error_t run()
    {
        for (auto stage :
             {&select_analysis::composition, &select_analysis::special_columns, &select_analysis::group_by,
              &select_analysis::where, &select_analysis::ranges, &select_analysis::resolution,
              &select_analysis::output_names, &select_analysis::ordering, &select_analysis::grouping_rules,
              &select_analysis::comparisons, &select_analysis::asof})
        {
            if (const zlk_error_t r = (this->*stage)(); ZLK_FAILURE(r))
            {
                return r;
            }
        }
        ctx_.limit = s_.limit;
        ctx_.offset = s_.offset;
        return zlk_e_ok;
    }

private:
    // A selected entry as the statement wrote it, beside what the context keeps of it.
    struct entry
    {
        expression * tree = nullptr;
        std::string printed;
        bool named = false;
        bool lookup = false;
    };

    zlk_error_t composition()
    {
        for (select_item & item : s_.select_list)
        {
            expression * e = expression_of(item);
            if (!e)
            {
                continue;
            }
            zlk_error_t r = zlk_e_ok;
            each_call(
                *e,
                [&](const unary_expression_operation<aggregation_op> & outer)
                {
                    each_call(
                        *outer.operand,
                        [&](const unary_expression_operation<aggregation_op> & inner)
                        {
                            if (ZLK_FAILURE(r))
                            {
                                return;
                            }
                            if (is_transformation(inner.op.type))
                            {
                                r = ctx_.fail(
                                    zlk_e_invalid_query,
                                    fmt::format("Composed transformations such as '{}' are not supported.",
                                                to_string(*e)));
                            }
                            else if (!s_.order_by.empty())
                            {
                                r = ctx_.fail(
                                    zlk_e_invalid_query,
                                    fmt::format("ORDER BY clauses are not supported with composed functions "
                                                "such as '{}'.",
                                                to_string(*e)));
                            }
                        });
                });
            if (ZLK_FAILURE(r))
            {
                return r;
            }
        }
        return zlk_e_ok;
    }

    static expression * expression_of(select_item & item)
    {
        if (auto * e = std::get_if<expression>(&item))
        {
            return e;
        }
        if (auto * n = std::get_if<named_expression>(&item))
        {
            return std::get_if<expression>(&n->expression);
        }
        return nullptr;
    }

    zlk_error_t special_columns()
    {
        for (select_item & item : s_.select_list)
        {
            entry en;
            std::string alias;
            if (auto * n = std::get_if<named_expression>(&item))
            {
                en.named = true;
                alias = n->alias;
            }
            const client_function * lookup = nullptr;
            if (auto * f = std::get_if<client_function>(&item))
            {
                lookup = f;
            }
            else if (auto * n = std::get_if<named_expression>(&item))
            {
                lookup = std::get_if<client_function>(&n->expression);
            }
            en.lookup = lookup != nullptr;
            en.tree = lookup ? nullptr : expression_of(item);
            expression * tree = lookup ? const_cast<expression *>(&lookup->arguments.at(0)) : en.tree;
            en.printed = lookup ? to_string(*lookup) : to_string(*tree);

            if (const auto * id = std::get_if<identifier>(tree))
            {
                if (id->table.empty() && is_special(*id))
                {
                    if (en.named)
                    {
                        return ctx_.fail(zlk_e_not_implemented,
                                         fmt::format("Special column '{}' cannot be aliased.", id->name));
                    }
                    if (en.lookup)
                    {
                        return ctx_.fail(zlk_e_invalid_query,
                                         fmt::format("Special column '{}' cannot be in a LOOKUP.", id->name));
                    }
                    (id->name == "$timestamp" ? ctx_.has_timestamp : ctx_.has_table) = true;
                    continue;
                }
                if (!id->table.empty() && is_special(*id))
                {
                    return ctx_.fail(zlk_e_invalid_query,
                                     fmt::format("Special column '{}' cannot be qualified.", id->name));
                }
                if (id->table.empty() && id->name == "*")
                {
                    ctx_.has_timestamp = ctx_.has_table = true;
                }
            }
            zlk_error_t r = zlk_e_ok;
            each_identifier(*tree, std::string_view{},
                            [&](identifier & id, std::string_view applied)
                            {
                                if (ZLK_SUCCESS(r) && is_special(id) && !applied.empty())
                                {
                                    r = ctx_.fail(zlk_e_invalid_query,
                                                  fmt::format("Cannot apply '{}' on special column '{}'.",
                                                              applied, id.name));
                                }
                            });
            if (ZLK_FAILURE(r))
            {
                return r;
            }

            selected_column c;
            c.lookup = en.lookup;
            c.name = en.named ? alias : en.printed;
            if (const auto * id = std::get_if<identifier>(tree))
            {
                c.table = id->table;
                c.column = id->name;
            }
            else if (const auto * call = std::get_if<unary_expression_operation<aggregation_op>>(tree);
                     call && std::holds_alternative<identifier>(*call->operand))
            {
                c.function = call->op.type;
                c.table = std::get<identifier>(*call->operand).table;
                c.column = std::get<identifier>(*call->operand).name;
            }
            else
            {
                c.tree = *tree;
            }
            ctx_.selected_columns.push_back(std::move(c));
            entries_.push_back(std::move(en));
        }
        return zlk_e_ok;
    }

    zlk_error_t group_by()
    {
        if (!s_.group_by)
        {
            return zlk_e_ok;
        }
        if (ctx_.from_tables.empty())
        {
            return ctx_.fail(zlk_e_invalid_argument, "GROUP BY clause without tables is not allowed.");
        }
        bool duration_seen = false;
        for (ast::group_by_item & item : *s_.group_by)
        {
            if (const auto * d = std::get_if<time::duration>(&item))
            {
                if (duration_seen)
                {
                    return ctx_.fail(zlk_e_invalid_query, "GROUP BY clause may have at most one duration.");
                }
                duration_seen = true;
                if (d->has_date_part() && d->has_time_part())
                {
                    return ctx_.fail(
                        zlk_e_invalid_query,
                        "GROUP BY duration may specify grouping by either date (years, months, days) "
                        "or time (seconds, nanoseconds), but not both.");
                }
                ctx_.group_by_duration = *d;
                ctx_.has_timestamp = true;
                continue;
            }
            identifier & id = std::get<identifier>(item);
            if (id.name == "$table")
            {
                if (!id.table.empty())
                {
                    return ctx_.fail(zlk_e_invalid_query,
                                     fmt::format("The special column {} cannot be qualified (see '{}').",
                                                 id.name, to_string(id)));
                }
                if (ctx_.group_by_table)
                {
                    return ctx_.fail(zlk_e_invalid_query, fmt::format("Cannot GROUP BY {} twice.", id.name));
                }
                ctx_.group_by_table = true;
                continue;
            }
            if (!id.table.empty())
            {
                const table_info * t = from_table(id.table);
                if (!t)
                {
                    return ctx_.fail(
                        zlk_e_invalid_query,
                        fmt::format("GROUP BY on table '{}' which is not in FROM clause.", id.table));
                }
                if (!t->find(id.name))
                {
                    return ctx_.fail(
                        zlk_e_column_not_found,
                        fmt::format("GROUP BY column '{}' is not present in table '{}'.", id.name, id.table));
                }
                add_group_column(id.table, id.name);
                continue;
            }
            bool found = false;
            for (const std::string & table : ctx_.from_tables)
            {
                const table_info * t = ctx_.find_table(table);
                if (t && t->find(id.name))
                {
                    add_group_column(table, id.name);
                    found = true;
                }
            }
            if (!found)
            {
                return ctx_.fail(zlk_e_column_not_found,
                                 fmt::format("GROUP BY column '{}' is not present in table '{}'.", id.name,
                                             ctx_.from_tables.front()));
            }
        }
        return zlk_e_ok;
    }

    void add_group_column(const std::string & table, const std::string & column)
    {
        auto & list = ctx_.group_by_columns[table];
        const auto it = std::lower_bound(list.begin(), list.end(), column);
        if (it == list.end() || *it != column)
        {
            list.insert(it, column);
        }
    }

    const table_info * from_table(std::string_view name) const
    {
        const bool in_from =
            std::find(ctx_.from_tables.begin(), ctx_.from_tables.end(), name) != ctx_.from_tables.end();
        return in_from ? ctx_.find_table(name) : nullptr;
    }

    zlk_error_t where()
    {
        if (s_.where)
        {
            ctx_.where_kind = classify(*s_.where);
            ctx_.where_expression = *s_.where;
        }
        return zlk_e_ok;
    }

    zlk_error_t ranges()
    {
        std::vector<time::interval> list =
            s_.time_ranges.ranges.empty()
                ? std::vector<time::interval>{{timespec{0, 0}, timespec{end_of_time_seconds, 0}}}
                : s_.time_ranges.ranges;
        std::sort(list.begin(), list.end(),
                  [](const time::interval & a, const time::interval & b) {
                      return std::pair(a.begin.tv_sec, a.begin.tv_nsec) <
                             std::pair(b.begin.tv_sec, b.begin.tv_nsec);
                  });
        ctx_.in_ranges.clear();
        for (const time::interval & r : list)
        {
            auto later = [](const timespec & a, const timespec & b)
            { return std::pair(a.tv_sec, a.tv_nsec) > std::pair(b.tv_sec, b.tv_nsec); };
            if (!ctx_.in_ranges.empty() && !later(r.begin, ctx_.in_ranges.back().end))
            {
                if (later(r.end, ctx_.in_ranges.back().end))
                {
                    ctx_.in_ranges.back().end = r.end;
                }
                continue;
            }
            ctx_.in_ranges.push_back(r);
        }
        if (!ctx_.group_by_duration.is_zero() && !ctx_.in_ranges.empty() &&
            ctx_.in_ranges.back().end.tv_sec >= end_of_time_seconds)
        {
            return ctx_.fail(zlk_e_invalid_query, "GROUP BY clause with duration requires IN RANGE");
        }
        return zlk_e_ok;
    }

    // A column reference: qualified in place when FROM holds several tables.
    zlk_error_t resolve(identifier & id)
    {
        if (is_special(id) || id.name == "*")
        {
            return zlk_e_ok;
        }
        if (!id.table.empty())
        {
            const table_info * t = ctx_.find_table(id.table);
            if (!t)
            {
                return ctx_.fail(zlk_e_alias_not_found,
                                 fmt::format("Could not find table '{}' (looking for qualified column '{}').",
                                             id.table, id.name));
            }
            if (!t->find(id.name))
            {
                return ctx_.fail(zlk_e_column_not_found, fmt::format("Could not find column '{}'.", id.name));
            }
            return zlk_e_ok;
        }
        if (ctx_.from_tables.size() + (s_.join ? 1 : 0) > 1)
        {
            const table_info * first = nullptr;
            for (const table_info & t : ctx_.tables_info)
            {
                if (!t.find(id.name))
                {
                    continue;
                }
                if (first)
                {
                    return ctx_.fail(
                        zlk_e_invalid_query,
                        fmt::format("Ambiguous unqualified column '{}' in JOIN request (can reference "
                                    "'{}' or '{}.{}')",
                                    id.name, first->name, t.name, id.name));
                }
                first = &t;
            }
            if (!first)
            {
                return ctx_.fail(zlk_e_column_not_found, fmt::format("Could not find column '{}'.", id.name));
            }
            id.table = first->name;
            return zlk_e_ok;
        }
        const table_info * t = ctx_.from_tables.empty() ? nullptr : ctx_.find_table(ctx_.from_tables.front());
        if (!t || !t->find(id.name))
        {
            return ctx_.fail(zlk_e_column_not_found, fmt::format("Could not find column '{}'.", id.name));
        }
        id.table = t->name;
        return zlk_e_ok;
    }

    zlk_error_t resolution()
    {
        if (ctx_.from_tables.empty())
        {
            return zlk_e_ok;
        }
        zlk_error_t r = zlk_e_ok;
        for (std::size_t i = 0; i < entries_.size() && ZLK_SUCCESS(r); ++i)
        {
            if (!entries_[i].tree)
            {
                continue;
            }
            each_identifier(*entries_[i].tree, std::string_view{},
                            [&](identifier & id, std::string_view)
                            {
                                if (ZLK_SUCCESS(r))
                                {
                                    r = resolve(id);
                                }
                            });
            selected_column & c = ctx_.selected_columns[i];
            if (ZLK_SUCCESS(r) && !c.tree && !c.column.empty() && c.column != "*")
            {
                // The column's table, now known.
                each_identifier(*entries_[i].tree, std::string_view{},
                                [&](identifier & id, std::string_view) { c.table = id.table; });
            }
        }
        if (ZLK_SUCCESS(r) && ctx_.where_expression)
        {
            each_identifier(*ctx_.where_expression,
                            [&](identifier & id)
                            {
                                if (ZLK_SUCCESS(r))
                                {
                                    r = resolve(id);
                                }
                            });
        }
        return r;
    }

    zlk_error_t output_names()
    {
        std::vector<std::string_view> names;
        for (const selected_column & c : ctx_.selected_columns)
        {
            names.push_back(c.name);
        }
        std::sort(names.begin(), names.end());
        if (std::adjacent_find(names.begin(), names.end()) != names.end())
        {
            return ctx_.fail(zlk_e_invalid_query, "expression names shall be unique");
        }
        return zlk_e_ok;
    }

    zlk_error_t ordering()
    {
        for (const ast::order_by_clause & o : s_.order_by)
        {
            const bool desc = o.sort_order == ast::sort_order::desc;
            if (const auto * id = std::get_if<identifier>(&o.expression); id && id->table.empty())
            {
                if (id->name == "*")
                {
                    return ctx_.fail(zlk_e_invalid_query, "'ORDER BY *' is forbidden.");
                }
                if (is_special(*id))
                {
                    const bool timestamp = id->name == "$timestamp";
                    if (!(timestamp ? ctx_.has_timestamp : ctx_.has_table))
                    {
                        return ctx_.fail(
                            zlk_e_invalid_query,
                            fmt::format("Special column '{}' in ORDER BY was not selected.", id->name));
                    }
                    ctx_.order_by.emplace_back(timestamp ? order_by_timestamp : order_by_table, desc);
                    continue;
                }
            }
            const std::string printed = to_string(o.expression);
            std::int32_t position = -3;
            for (std::size_t i = 0; i < entries_.size(); ++i)
            {
                if (entries_[i].printed == printed || ctx_.selected_columns[i].name == printed)
                {
                    position = static_cast<std::int32_t>(i);
                    break;
                }
            }
            if (position < 0)
            {
                return ctx_.fail(zlk_e_invalid_query,
                                 "All expressions in ORDER BY should be present in SELECT.");
            }
            ctx_.order_by.emplace_back(position, desc);
        }
        return zlk_e_ok;
    }

    zlk_error_t grouping_rules()
    {
        if (!s_.group_by)
        {
            return zlk_e_ok;
        }
        bool aggregated = false;
        for (std::size_t i = 0; i < ctx_.selected_columns.size(); ++i)
        {
            const selected_column & c = ctx_.selected_columns[i];
            if (is_transformation(c.function))
            {
                return ctx_.fail(
                    zlk_e_not_implemented,
                    fmt::format("Transformations such as '{}' are not supported together with GROUP BY "
                                "clause.",
                                entries_[i].printed));
            }
            aggregated = aggregated || (c.function != aggregation_type::none);
        }
        if (!aggregated)
        {
            return ctx_.fail(zlk_e_invalid_query,
                             "A group by expects an aggregation function applied to columns.");
        }
        for (const selected_column & c : ctx_.selected_columns)
        {
            if (c.function != aggregation_type::none || c.tree || c.column.empty())
            {
                continue;
            }
            const bool grouped = std::any_of(s_.group_by->begin(), s_.group_by->end(),
                                             [&](const auto & item)
                                             {
                                                 const auto * id = std::get_if<identifier>(&item);
                                                 return id && id->name == c.column &&
                                                        (id->table.empty() || id->table == c.table);
                                             });
            if (!grouped)
            {
                return ctx_.fail(zlk_e_invalid_query,
                                 "A group by time expects an aggregation function applied to columns.");
            }
        }
        return zlk_e_ok;
    }

    // The running type of one comparison over its two sides.
    zlk_error_t compare_operand(const sub_conditional & operand, std::optional<kernel::column_type> & running)
    {
        using kernel::column_type;
        std::optional<column_type> type;
        std::vector<column_type> accepted;
        if (std::holds_alternative<std::uint64_t>(operand) || std::holds_alternative<std::int64_t>(operand))
        {
            type = column_type::int64;
            accepted = {column_type::int64, column_type::double_};
        }
        else if (std::holds_alternative<double>(operand))
        {
            type = column_type::double_;
            accepted = {column_type::int64, column_type::double_};
        }
        else if (std::holds_alternative<timespec>(operand))
        {
            type = column_type::timestamp;
            accepted = {column_type::timestamp};
        }
        else if (std::holds_alternative<std::string>(operand) || std::holds_alternative<regex>(operand))
        {
            type = column_type::string;
            accepted = {column_type::string, column_type::blob};
        }
        else if (const auto * id = std::get_if<identifier>(&operand); id && !is_special(*id))
        {
            const table_info * t = ctx_.find_table(id->table);
            if (!t)
            {
                return ctx_.fail(zlk_e_alias_not_found, fmt::format("Cannot find table '{}'.", id->table));
            }
            const column_info * col = t->find(id->name);
            if (!col)
            {
                return ctx_.fail(zlk_e_column_not_found,
                                 fmt::format("Cannot find column '{}' in table '{}'.", id->name, id->table));
            }
            type = col->type;
            accepted = {col->type};
            if (col->type == column_type::double_ || col->type == column_type::int64)
            {
                accepted = {column_type::double_, column_type::int64};
            }
            else if (col->type == column_type::blob || col->type == column_type::string)
            {
                accepted = {column_type::blob, column_type::string};
            }
        }
        else
        {
            return zlk_e_ok;
        }
        if (running && std::find(accepted.begin(), accepted.end(), *running) == accepted.end())
        {
            return ctx_.fail(zlk_e_invalid_query,
                             fmt::format("Cannot compare {} to {}.", type_name(running), type_name(type)));
        }
        if (!running)
        {
            running = type;
        }
        return zlk_e_ok;
    }

    template <typename Op>
    zlk_error_t check_comparison(const binary_sub_conditional_expression_operation<Op> & node)
    {
        std::optional<kernel::column_type> running;
        if (const zlk_error_t r = compare_operand(*node.left, running); ZLK_FAILURE(r))
        {
            return r;
        }
        return compare_operand(*node.right, running);
    }

    zlk_error_t check_sub(const sub_conditional & e)
    {
        return std::visit(
            [&](const auto & node) -> zlk_error_t
            {
                using T = std::decay_t<decltype(node)>;
                if constexpr (std::is_same_v<T, nested_condition>)
                {
                    return check_condition(*node.condition);
                }
                else if constexpr (requires { node.left; })
                {
                    using op = decltype(op_of(node));
                    if constexpr (std::is_same_v<op, equal> || std::is_same_v<op, not_equal> ||
                                  std::is_same_v<op, less> || std::is_same_v<op, less_equal> ||
                                  std::is_same_v<op, greater> || std::is_same_v<op, greater_equal> ||
                                  std::is_same_v<op, match> || std::is_same_v<op, no_match> ||
                                  std::is_same_v<op, insensitive_match> ||
                                  std::is_same_v<op, no_insensitive_match>)
                    {
                        return check_comparison(node);
                    }
                    if (const zlk_error_t r = check_sub(*node.left); ZLK_FAILURE(r))
                    {
                        return r;
                    }
                    return check_sub(*node.right);
                }
                else
                {
                    return zlk_e_ok;
                }
            },
            static_cast<const sub_conditional_variant &>(e));
    }

    template <typename Op>
    static Op op_of(const binary_sub_conditional_expression_operation<Op> &);

    zlk_error_t check_condition(const conditional_expression & c)
    {
        return std::visit(
            [&](const auto & node) -> zlk_error_t
            {
                using T = std::decay_t<decltype(node)>;
                if constexpr (std::is_same_v<T, sub_conditional>)
                {
                    return check_sub(node);
                }
                else if constexpr (requires { node.left; })
                {
                    if (const zlk_error_t r = check_condition(*node.left); ZLK_FAILURE(r))
                    {
                        return r;
                    }
                    return check_condition(*node.right);
                }
                else
                {
                    return check_condition(*node.operand);
                }
            },
            static_cast<const conditional_variant &>(c));
    }

    zlk_error_t comparisons()
    {
        if (ctx_.where_kind != condition_kind::evaluated || !ctx_.where_expression)
        {
            return zlk_e_ok;
        }
        return check_condition(*ctx_.where_expression);
    }

    zlk_error_t asof()
    {
        if (!s_.join || s_.join->type == join_type::none)
        {
            return zlk_e_ok;
        }
        const auto type = static_cast<unsigned>(s_.join->type);
        if (type < 4 || type > 7)
        {
            return ctx_.fail(zlk_e_not_implemented, "Joins are currently not implemented.");
        }
        if (ctx_.from_tables.size() + (s_.join->table.empty() ? 0 : 1) > 2)
        {
            return ctx_.fail(zlk_e_not_implemented,
                             "ASOF JOIN is only supported with a maximum of two tables");
        }
        if (type == 7 && s_.time_ranges.ranges.empty())
        {
            return ctx_.fail(zlk_e_invalid_argument, "Need a range interval for time asof join");
        }
        if (type != 7 && s_.join->table.empty())
        {
            return ctx_.fail(zlk_e_invalid_argument, "Need a right table for the asof join");
        }
        if (ctx_.from_tables.size() != 1)
        {
            return ctx_.fail(zlk_e_not_implemented,
                             "ASOF join is currently supported with only one table on the left.");
        }
        for (const selected_column & c : ctx_.selected_columns)
        {
            if (c.function != aggregation_type::none && !is_transformation(c.function))
            {
                return ctx_.fail(zlk_e_not_implemented,
                                 "ASOF joins are currently not supported with aggregations.");
            }
        }
        if (type != 7 && !ctx_.find_table(s_.join->table))
        {
            return ctx_.fail(zlk_e_internal_local, "cannot find the right join table in the set");
        }
        return zlk_e_ok;
    }

    ast::parsed_select & s_;
    query_context & ctx_;
    std::vector<entry> entries_;
};

condition_kind literal_kind(const sub_conditional & e)
{
    return std::visit(
        [](const auto & v)
        {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::uint64_t> || std::is_same_v<T, std::int64_t>)
            {
                return v != 0 ? condition_kind::constant_true : condition_kind::constant_false;
            }
            else if constexpr (std::is_same_v<T, double>)
            {
                return std::isnan(v)
                           ? condition_kind::evaluated
                           : (v == 0.0 ? condition_kind::constant_false : condition_kind::constant_true);
            }
            else if constexpr (std::is_same_v<T, bool>)
            {
                return v ? condition_kind::constant_true : condition_kind::constant_false;
            }
            else if constexpr (std::is_same_v<T, timespec>)
            {
                return v.tv_sec != 0 || v.tv_nsec != 0 ? condition_kind::constant_true
                                                       : condition_kind::constant_false;
            }
            else
            {
                return condition_kind::evaluated;
            }
        },
        static_cast<const sub_conditional_variant &>(e));
}

} // namespace

condition_kind classify(const conditional_expression & condition)
{
    const auto * sub = std::get_if<sub_conditional>(&condition);
    return sub ? literal_kind(*sub) : condition_kind::evaluated;
}

zlk_error_t analyse_select(ast::parsed_select & statement, query_context & ctx)
{
    return select_analysis(statement, ctx).run();
}

} // namespace zlk::query
