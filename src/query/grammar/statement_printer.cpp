// One line for a whole statement: what the tests compare and what a shell may show.
#include <fmt/format.h>

#include "query/grammar/statements.hpp"

namespace zlk::query
{

namespace
{

template <typename Range, typename F>
std::string list(const Range & items, F && print)
{
    std::string out = "[";
    bool first = true;
    for (const auto & item : items)
    {
        if (!first)
        {
            out += ", ";
        }
        first = false;
        out += print(item);
    }
    out += ']';
    return out;
}

std::string reference(const entry_reference & r)
{
    if (const auto * name = std::get_if<std::string>(&r))
    {
        return *name;
    }
    return to_string(std::get<find_request>(r));
}

std::string references(const std::vector<entry_reference> & refs)
{
    return list(refs, reference);
}

std::string value(const ast::column_value & v)
{
    struct visitor
    {
        std::string operator()(std::monostate) const { return "NULL"; }
        std::string operator()(double d) const { return fmt::format("{:f}", d); }
        std::string operator()(std::int64_t i) const { return fmt::format("{}", i); }
        std::string operator()(const timespec & t) const { return to_string(t); }
        std::string operator()(const std::string & s) const { return fmt::format("'{}'", s); }
    };
    return std::visit(visitor{}, v);
}

std::string join_name(join_type t)
{
    switch (t)
    {
    case join_type::asof_left:
        return "left";
    case join_type::asof_right:
        return "right";
    case join_type::asof_full:
        return "full";
    case join_type::asof_range:
        return "range";
    case join_type::none:
        break;
    }
    return "none";
}

struct statement_printer
{
    std::string operator()(const ast::parsed_select & s) const
    {
        std::string out = "select " + list(s.select_list, [](const select_item & i) { return to_string(i); });
        if (!s.from_clause.empty())
        {
            out += " from " + references(s.from_clause);
        }
        if (s.join)
        {
            out += fmt::format(" join {} {}", join_name(s.join->type), s.join->table);
        }
        if (!s.time_ranges.ranges.empty())
        {
            out += " in " + to_string(s.time_ranges);
        }
        if (s.where)
        {
            out += " where " + to_string(*s.where);
        }
        if (s.group_by)
        {
            out += " group_by " + list(*s.group_by,
                                       [](const ast::group_by_item & g)
                                       {
                                           if (const auto * d = std::get_if<time::duration>(&g))
                                           {
                                               return to_string(*d);
                                           }
                                           return to_string(std::get<identifier>(g));
                                       });
        }
        if (s.having)
        {
            out += " having " + to_string(*s.having);
        }
        if (!s.order_by.empty())
        {
            out += " order_by " + list(s.order_by,
                                       [](const ast::order_by_clause & o) {
                                           return to_string(o.expression) +
                                                  (o.sort_order == ast::sort_order::asc ? " asc" : " desc");
                                       });
        }
        if (s.limit)
        {
            out += fmt::format(" limit {}", *s.limit);
        }
        if (s.offset != 0)
        {
            out += fmt::format(" offset {}", s.offset);
        }
        return out;
    }
    std::string operator()(const ast::parsed_create_table & c) const
    {
        return fmt::format("create {}{} {} shard_size {}", c.if_not_exists ? "if_not_exists " : "", c.table,
                           list(c.columns, [](const column_description & d)
                                { return d.name + " " + std::string(column_type_name(d.type)); }),
                           to_string(c.shard_size));
    }
    std::string operator()(const ast::parsed_alter_table & a) const
    {
        std::string out = "alter " + a.table;
        if (!a.adds.empty())
        {
            out += " add " + list(a.adds, [](const column_description & d)
                                  { return d.name + " " + std::string(column_type_name(d.type)); });
        }
        if (!a.renames.empty())
        {
            out += " rename " + list(a.renames, [](const auto & p) { return p.first + " to " + p.second; });
        }
        return out;
    }
    std::string operator()(const ast::parsed_insert_table & i) const
    {
        return fmt::format("insert {} {} values {}", i.table,
                           list(i.columns, [](const std::string & c) { return c; }),
                           list(i.rows,
                                [](const ast::insert_row & r)
                                {
                                    std::string out = "(" + to_string(r.timestamp);
                                    for (const auto & v : r.values)
                                    {
                                        out += ", " + value(v);
                                    }
                                    return out + ")";
                                }));
    }
    std::string operator()(const ast::parsed_delete & d) const
    {
        return fmt::format("delete {} in {}", d.table, to_string(d.time_ranges));
    }
    std::string operator()(const ast::parsed_drop_table & d) const { return "drop " + references(d.tables); }
    std::string operator()(const ast::parsed_show_tables &) const { return "show tables"; }
    std::string operator()(const ast::parsed_show_grants & s) const
    {
        return "show grants " + references(s.entries);
    }
    std::string operator()(const ast::parsed_show_disk_usage & s) const
    {
        return "show disk_usage " + references(s.entries);
    }
    template <typename Access>
    std::string access(std::string_view verb, std::string_view towards, const Access & a) const
    {
        return fmt::format("{} {} on {} {} {}", verb,
                           list(a.privileges, [](privilege p) { return std::string(privilege_name(p)); }),
                           references(a.entries), towards,
                           list(a.grantees, [](const std::string & g) { return g; }));
    }
    std::string operator()(const ast::parsed_grant & g) const { return access("grant", "to", g); }
    std::string operator()(const ast::parsed_revoke & r) const { return access("revoke", "from", r); }
};

} // namespace

std::string_view column_type_name(kernel::column_type t) noexcept
{
    switch (t)
    {
    case kernel::column_type::double_:
        return "double";
    case kernel::column_type::blob:
        return "blob";
    case kernel::column_type::int64:
        return "int64";
    case kernel::column_type::timestamp:
        return "timestamp";
    case kernel::column_type::string:
        return "string";
    }
    return "unknown";
}

std::string_view privilege_name(privilege p) noexcept
{
    static constexpr std::string_view names[] = {
        "DENIED", "SELECT", "INSERT",      "UPDATE", "DELETE",  "INDEX",   "ALTER",           "CREATE",
        "DROP",   "GRANT",  "USER_MANAGE", "SYSTEM", "SET_ACL", "GET_ACL", "SET_TRANSACTION", "ALL",
    };
    const auto i = static_cast<std::size_t>(p);
    return i < std::size(names) ? names[i] : std::string_view{"UNKNOWN"};
}

std::string to_string(const timespec & t)
{
    return fmt::format("{}.{:09}", t.tv_sec, t.tv_nsec);
}

std::string to_string(const time::duration & d)
{
    std::string out;
    auto part = [&out](std::int64_t v, std::string_view unit)
    {
        if (v != 0)
        {
            fmt::format_to(std::back_inserter(out), "{}{}{}", out.empty() ? "" : " ", v, unit);
        }
    };
    part(d.years, "y");
    part(d.months, "months");
    part(d.days, "d");
    part(d.seconds, "s");
    part(d.nanoseconds, "ns");
    return out.empty() ? "0s" : out;
}

std::string to_string(const time_ranges_spec & r)
{
    std::string out = list(r.ranges, [](const time::interval & i)
                           { return fmt::format("({}, {})", to_string(i.begin), to_string(i.end)); });
    if (!r.times.empty())
    {
        out += " times " + list(r.times, [](const auto & p)
                                { return fmt::format("({}, {})", to_string(p.first), to_string(p.second)); });
    }
    if (!r.days.empty())
    {
        out += " days " +
               list(r.days, [](const auto & p) { return fmt::format("({}, {})", p.first, p.second); });
    }
    if (!r.months.empty())
    {
        out += " months " +
               list(r.months, [](const auto & p) { return fmt::format("({}, {})", p.first, p.second); });
    }
    return out;
}

std::string to_string(const find_request & f)
{
    std::string out = "FIND(";
    bool first = true;
    for (const auto & item : f.items)
    {
        out += first ? "" : " AND ";
        first = false;
        if (const auto * t = std::get_if<find_request::tag>(&item))
        {
            out += fmt::format("TAG='{}'", t->name);
        }
        else if (const auto * n = std::get_if<find_request::negation<find_request::tag>>(&item))
        {
            out += fmt::format("NOT TAG='{}'", n->value.name);
        }
        else if (const auto * p = std::get_if<find_request::prefix>(&item))
        {
            out += fmt::format("PREFIX='{}'", p->value);
        }
        else
        {
            out += fmt::format("TYPE={}", std::get<find_request::entry_type>(item).kernel_type);
        }
    }
    return out + ")";
}

namespace ast
{
std::string to_string(const statement & s)
{
    return std::visit(statement_printer{}, s);
}
} // namespace ast

} // namespace zlk::query
