// Statements that define tables and change their rows: CREATE, ALTER, DROP, INSERT, DELETE.
#include <fmt/format.h>

#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

struct column_types : qi::symbols<char, kernel::column_type>
{
    column_types()
    {
        using t = kernel::column_type;
        add("binary", t::blob)("blob", t::blob)("float", t::double_)("double", t::double_)(
            "bigint", t::int64)("int64", t::int64)("string", t::string)("timestamp", t::timestamp);
    }
};

column_types column_type_words;

} // namespace

void define_tables(rules & r)
{
    const auto word_end = qi::copy(qi::no_skip[!qi::char_("0-9a-zA-Z_")]);

    r.column_type = qi::no_case[column_type_words][assign()] >> word_end;
    r.column_type.name("column_type");
    r.column_definition = r.column_name[assign_to(&column_description::name)] >
                          r.column_type[assign_to(&column_description::type)];
    r.column_definition.name("column_name column_type");
    r.column_definitions = r.column_definition[append()] % ',';
    r.column_definitions.name("column_name column_type, ...");

    r.create_target = -(r.kw.if_ >> r.kw.not_ >>
                        r.kw.exists)[([](auto &, auto & ctx, bool &) { value_of(ctx).first = true; })] >>
                      r.table_name[([](std::string & name, auto & ctx, bool &)
                                    { value_of(ctx).second = std::move(name); })];
    r.create_target.name("[IF NOT EXISTS] table_name");

    r.columns_close = qi::lit(')');
    r.columns_close.name("',' or ')'");
    r.create_columns = ('(' >> (r.column_definition[append()] % ',')) > r.columns_close;
    r.create_columns.name("(column_name column_type, ...)");
    r.shard_size = r.duration[assign()];
    r.shard_size.name("shard_size (with duration unit)");

    using ast::parsed_create_table;
    r.create_table =
        (r.kw.create > r.kw.table > r.create_target[(
                                        [](std::pair<bool, std::string> & t, auto & ctx, bool &)
                                        {
                                            value_of(ctx).if_not_exists = t.first;
                                            value_of(ctx).table = std::move(t.second);
                                        })] > r.create_columns[assign_to(&parsed_create_table::columns)]) >>
        -(r.kw.shard_size > '=' > r.shard_size[assign_to(&parsed_create_table::shard_size)]);
    r.create_table.name("create table");

    using ast::parsed_alter_table;
    r.column_renaming = (r.column_name >> r.kw.to >> r.column_name)[(
        [](auto & parts, auto & ctx, bool &) {
            value_of(ctx) = {std::move(boost::fusion::at_c<0>(parts)),
                             std::move(boost::fusion::at_c<1>(parts))};
        })];
    r.column_renaming.name("column_name TO new_column_name");
    r.column_renamings = r.column_renaming[append()] % ',';
    r.column_renamings.name("column_name TO new_column_name");
    r.alter_action =
        (r.kw.add > r.column_definitions[assign_to(&parsed_alter_table::adds)]) |
        ((r.kw.rename >> r.kw.column) > r.column_renamings[assign_to(&parsed_alter_table::renames)]);
    r.alter_action.name("ADD or RENAME");
    r.alter_table = r.kw.alter > r.kw.table > r.table_name[assign_to(&parsed_alter_table::table)] >
                    r.alter_action[(
                        [](parsed_alter_table & a, auto & ctx, bool &)
                        {
                            value_of(ctx).adds = std::move(a.adds);
                            value_of(ctx).renames = std::move(a.renames);
                        })];
    r.alter_table.name("alter table");

    r.drop_table = r.kw.drop > r.kw.table > r.table_list[assign_to(&ast::parsed_drop_table::tables)];
    r.drop_table.name("drop table");

    r.delete_ = r.kw.delete_ > r.kw.from > r.table_name[assign_to(&ast::parsed_delete::table)] > r.kw.in >
                r.time_ranges[assign_to(&ast::parsed_delete::time_ranges)];
    r.delete_.name("delete");

    // The column list starts with $timestamp; the rows are counted against it.
    r.insert_columns =
        qi::lit('(') >>
        qi::no_case[qi::lit("$timestamp")]
                   [([](auto &, auto & ctx, bool &) { value_of(ctx).push_back("$timestamp"); })] >>
        *(',' >> r.column_name[append()]) >> ')';
    r.insert_columns.name("($timestamp, column_name, ...)");

    r.row_time = r.time_point[assign()];
    r.row_time.name("absolute_time");
    // An integer followed by "." is a real's business, one followed by "-" a date's.
    r.column_value = r.signed_real[assign()] | (r.sinteger >> !(qi::lit('.') | '-'))[assign()] |
                     r.time_point[assign()] | r.quoted_string[assign()] |
                     r.kw.null[([](auto &, auto & ctx, bool &) { value_of(ctx) = std::monostate{}; })];
    r.column_value.name("column_value");

    r.insert_row =
        qi::raw[qi::lit('(')]
               [([](auto & range, auto &, bool &) { current_context().row_start = range.begin(); })] >>
        r.row_time[assign_to(&ast::insert_row::timestamp)] >>
        *(',' > r.column_value[append_to(&ast::insert_row::values)]) >> ')' >>
        qi::eps[(
            [](auto &, auto & ctx, bool &)
            {
                const parse_context & c = current_context();
                const std::size_t found = value_of(ctx).values.size() + 1;
                if (found != c.insert_columns)
                {
                    throw qi::expectation_failure<iterator>(
                        c.row_start, c.row_start,
                        boost::spirit::info(fmt::format("{} values instead of {}", found, c.insert_columns)));
                }
            })];
    r.insert_row.name("(absolute_time, column_value, ...)");
    r.insert_rows = r.insert_row[append()] >> *(',' > r.insert_row[append()]);
    r.insert_rows.name("(absolute_time, column_value, ...), ...");

    using ast::parsed_insert_table;
    r.insert_table = r.kw.insert > r.kw.into > r.table_name[assign_to(&parsed_insert_table::table)] >
                     r.insert_columns[(
                         [](std::vector<std::string> & columns, auto & ctx, bool &)
                         {
                             current_context().insert_columns = columns.size();
                             value_of(ctx).columns = std::move(columns);
                         })] > r.kw.values > r.insert_rows[assign_to(&parsed_insert_table::rows)];
    r.insert_table.name("insert table");
}

} // namespace zlk::query::grammar
