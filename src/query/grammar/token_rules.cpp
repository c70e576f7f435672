// Keywords, names, quoted strings and numbers.
// Boost's real number parser trips a false maybe-uninitialized warning of g++ once inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <cmath>

#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

// A dot is required; nan and infinity are no numbers of the language.
template <typename Base>
struct finite_policies : Base
{
    template <typename Iterator, typename Attribute>
    static bool parse_nan(Iterator &, const Iterator &, Attribute &)
    {
        return false;
    }
    template <typename Iterator, typename Attribute>
    static bool parse_inf(Iterator &, const Iterator &, Attribute &)
    {
        return false;
    }
};

// The characters that end a raw name, besides whitespace. A '-' at the end of a set is itself.
constexpr const char * identifier_stops = "(),+/*=<>!~&|^;\".-";
constexpr const char * entry_name_stops = "(),+/*=<>!~&|^;\".";

void keyword(rule<> & r, const char * upper)
{
    std::string lower(upper);
    for (char & c : lower)
    {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    r = qi::lexeme[qi::no_case[qi::lit(lower)] >> !qi::char_("0-9a-zA-Z_")];
    r.name(std::string("'") + upper + "'");
}

} // namespace

namespace detail
{
template <typename T>
struct strict_finite_real_policies : finite_policies<qi::strict_ureal_policies<T>>
{
};
template <typename T>
struct strict_finite_signed_real_policies : finite_policies<qi::strict_real_policies<T>>
{
};
} // namespace detail

void define_tokens(rules & r)
{
    keywords & k = r.kw;
    keyword(k.add, "ADD");
    keyword(k.all_, "ALL");
    keyword(k.alter, "ALTER");
    keyword(k.and_, "AND");
    keyword(k.as, "AS");
    keyword(k.asof, "ASOF");
    keyword(k.by, "BY");
    keyword(k.column, "COLUMN");
    keyword(k.create, "CREATE");
    keyword(k.days, "DAYS");
    keyword(k.delete_, "DELETE");
    keyword(k.disk_usage, "DISK_USAGE");
    keyword(k.drop, "DROP");
    keyword(k.exists, "EXISTS");
    keyword(k.find, "FIND");
    keyword(k.from, "FROM");
    keyword(k.grant, "GRANT");
    keyword(k.grants, "GRANTS");
    keyword(k.group, "GROUP");
    keyword(k.having, "HAVING");
    keyword(k.if_, "IF");
    keyword(k.in, "IN");
    keyword(k.insert, "INSERT");
    keyword(k.into, "INTO");
    keyword(k.join, "JOIN");
    keyword(k.limit, "LIMIT");
    keyword(k.lookup, "LOOKUP");
    keyword(k.months, "MONTHS");
    keyword(k.not_, "NOT");
    keyword(k.null, "NULL");
    keyword(k.offset, "OFFSET");
    keyword(k.on, "ON");
    keyword(k.or_, "OR");
    keyword(k.order, "ORDER");
    keyword(k.prefix, "PREFIX");
    keyword(k.range, "RANGE");
    keyword(k.rename, "RENAME");
    keyword(k.revoke, "REVOKE");
    keyword(k.select, "SELECT");
    keyword(k.shard_size, "SHARD_SIZE");
    keyword(k.show, "SHOW");
    keyword(k.table, "TABLE");
    keyword(k.tables, "TABLES");
    keyword(k.tag, "TAG");
    keyword(k.time, "TIME");
    keyword(k.to, "TO");
    keyword(k.type, "TYPE");
    keyword(k.values, "VALUES");
    keyword(k.where, "WHERE");
    keyword(k.with, "WITH");

    r.raw_identifier %= +(~qi::char_(identifier_stops) - qi::ascii::space);
    r.raw_identifier.name("raw identifier");
    r.quoted_identifier %= '"' >> *(qi::char_ - '"') >> '"';
    r.quoted_identifier.name("quoted identifier");
    r.raw_unquoted_string %= +(~qi::char_(entry_name_stops) - qi::ascii::space);
    r.raw_unquoted_string.name("raw unquoted string");
    r.quoted_string %= ('\'' >> *(qi::char_ - '\'') >> '\'') | ('"' >> *(qi::char_ - '"') >> '"');
    r.quoted_string.name("quoted string");

    // `name`, `"name"`, `table.name`, each part raw or quoted.
    auto first_part = [](auto & s, auto & ctx, bool &)
    {
        value_of(ctx).name = std::move(s);
        value_of(ctx).quoted = false;
    };
    auto first_quoted = [](auto & s, auto & ctx, bool &)
    {
        value_of(ctx).name = std::move(s);
        value_of(ctx).quoted = true;
    };
    auto second_part = [](auto & s, auto & ctx, bool &)
    {
        identifier & id = value_of(ctx);
        id.table = std::move(id.name);
        id.name = std::move(s);
    };
    auto second_quoted = [](auto & s, auto & ctx, bool &)
    {
        identifier & id = value_of(ctx);
        id.table = std::move(id.name);
        id.name = std::move(s);
        id.quoted = true;
    };
    // A name in an expression doesn't start with a digit, so that a number too large for 64 bits is no name.
    r.identifier_ = !qi::digit >> (r.raw_identifier[first_part] | r.quoted_identifier[first_quoted]) >>
                    -('.' >> (r.raw_identifier[second_part] | r.quoted_identifier[second_quoted]));
    r.identifier_.name("column_name");

    r.column_name %= r.raw_identifier | r.quoted_identifier;
    r.column_name.name("column_name");
    r.table_name %= r.raw_identifier | r.quoted_identifier;
    r.table_name.name("table_name");
    r.entry_name %= r.quoted_string | r.raw_unquoted_string;
    r.entry_name.name("entry_name");

    r.real %= qi::real_parser<double, detail::strict_finite_real_policies<double>>();
    r.real.name("real");
    r.signed_real %= qi::real_parser<double, detail::strict_finite_signed_real_policies<double>>();
    r.signed_real.name("real");
    r.uinteger %= qi::uint_parser<std::uint64_t>();
    r.uinteger.name("unsigned integer");
    r.sinteger %= qi::int_parser<std::int64_t>();
    r.sinteger.name("integer");

    r.end_of_input = qi::eoi;
    r.end_of_input.name("end of input");
    r.max_rows_count %= r.uinteger;
    r.max_rows_count.name("max_rows_count");
    r.skipped_rows_count %= r.uinteger;
    r.skipped_rows_count.name("skipped_rows_count");
}

} // namespace zlk::query::grammar
