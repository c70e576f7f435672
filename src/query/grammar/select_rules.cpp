// SELECT and the entry lists that FROM, DROP, SHOW, GRANT and REVOKE share.
#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

struct asof_types : qi::symbols<char, join_type>
{
    asof_types()
    {
        // OUTER is the word users write for the full join.
        add("left", join_type::asof_left)("right", join_type::asof_right)("full", join_type::asof_full)(
            "outer", join_type::asof_full);
    }
};

struct sort_orders : qi::symbols<char, ast::sort_order>
{
    sort_orders() { add("asc", ast::sort_order::asc)("desc", ast::sort_order::desc); }
};

asof_types join_words;
sort_orders sort_words;

} // namespace

void define_select(rules & r)
{
    const auto word_end = qi::copy(qi::no_skip[!qi::char_("0-9a-zA-Z_")]);
    using ast::parsed_select;

    r.table_reference = r.find[assign()] | r.table_name[assign()];
    r.table_reference.name("table_name or FIND(...)");
    r.entry_reference_ = r.find[assign()] | r.entry_name[assign()];
    r.entry_reference_.name("entry_name or FIND(...)");
    r.table_list = r.table_reference[append()] % ',';
    r.table_list.name("table_name or FIND(...), ...");
    r.entry_list = r.entry_reference_[append()] % ',';
    r.entry_list.name("entry_name or FIND(...), ...");
    r.from_list = r.table_reference[append()] % ',';
    r.from_list.name("table_name or FIND(...), ... [(LEFT or RIGHT or OUTER) ASOF JOIN table_name]");

    // [LEFT | RIGHT | OUTER] ASOF JOIN table; a bare ASOF JOIN keeps every row of the left table.
    r.join_clause = (-(qi::no_case[join_words] >>
                       word_end)[([](join_type t, auto & ctx, bool &) { value_of(ctx).type = t; })] >>
                     r.kw.asof >> r.kw.join) >
                    r.table_name[(
                        [](std::string & name, auto & ctx, bool &)
                        {
                            joined_table & j = value_of(ctx);
                            if (j.type == join_type::none)
                            {
                                j.type = join_type::asof_left;
                            }
                            j.table = std::move(name);
                        })];
    r.join_clause.name("JOIN clause");

    // A list of one kind or the other; the analysis refuses a second duration.
    r.group_by = (r.duration[append()] | r.identifier_[append()]) % ',';
    r.group_by.name("duration or column_name, ...");

    r.sort_order = qi::no_case[sort_words][assign()] >> word_end;
    r.sort_order.name("sort order");
    r.order_item = r.expression_[assign_to(&ast::order_by_clause::expression)] >>
                   -r.sort_order[assign_to(&ast::order_by_clause::sort_order)];
    r.order_item.name("column_name [ASC or DESC]");
    r.order_by = r.order_item[append()] % ',';
    r.order_by.name("column_name [ASC or DESC], ...");

    r.select = (r.kw.select > r.select_list[assign_to(&parsed_select::select_list)]) >>
               -((r.kw.from > r.from_list[assign_to(&parsed_select::from_clause)]) >>
                 -r.join_clause[assign_to(&parsed_select::join)] >>
                 -(r.kw.in > r.time_ranges[assign_to(&parsed_select::time_ranges)]) >>
                 -(r.kw.where > r.where_condition[assign_to(&parsed_select::where)]) >>
                 -((r.kw.group >> r.kw.by) > r.group_by[assign_to(&parsed_select::group_by)]) >>
                 -(r.kw.having > r.where_condition[assign_to(&parsed_select::having)]) >>
                 -((r.kw.order >> r.kw.by) > r.order_by[assign_to(&parsed_select::order_by)])) >>
               -(r.kw.limit > r.max_rows_count[assign_to(&parsed_select::limit)]) >>
               -(r.kw.offset > r.skipped_rows_count[assign_to(&parsed_select::offset)]);
    r.select.name("select");
}

} // namespace zlk::query::grammar
