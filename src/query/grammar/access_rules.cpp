// FIND, SHOW, GRANT and REVOKE, and the top of the grammar.
#include "query/grammar/grammar_rules.hpp"

namespace zlk::query::grammar
{

namespace
{

struct entry_types : qi::symbols<char, std::uint8_t>
{
    entry_types()
    {
        for (const auto & [word, type] : words)
        {
            add(word, type);
        }
    }

    // The words of FIND's TYPE and the node's type byte of each.
    static constexpr std::pair<const char *, std::uint8_t> words[] = {
        {"blob", 0}, {"integer", 1}, {"hset", 2}, {"tag", 5}, {"stream", 8}, {"deque", 4}, {"ts", 18},
    };
};

struct privilege_words : qi::symbols<char, privilege>
{
    privilege_words()
    {
        using p = privilege;
        add("denied", p::denied)("select", p::select)("insert", p::insert)("update", p::update)(
            "delete", p::delete_)("index", p::index)("alter", p::alter)("create", p::create)("drop", p::drop)(
            "grant", p::grant)("user_manage", p::user_manage)("system", p::system)("set_acl", p::set_acl)(
            "get_acl", p::get_acl)("set_transaction", p::set_transaction)("all", p::all);
    }
};

// GRANT and REVOKE: privileges, entries, grantees.
template <typename Record>
auto access()
{
    return [](auto & parts, auto & ctx, bool &)
    {
        using boost::fusion::at_c;
        value_of(ctx) =
            Record{std::move(at_c<0>(parts)), std::move(at_c<1>(parts)), std::move(at_c<2>(parts))};
    };
}

entry_types entry_type_words;
privilege_words privilege_table;

} // namespace

void define_access(rules & r)
{
    const auto word_end = qi::copy(qi::no_skip[!qi::char_("0-9a-zA-Z_")]);

    r.quoted_tag_name = r.quoted_string[assign()];
    r.quoted_tag_name.name("quoted_tag_name");
    r.quoted_prefix_name = r.quoted_string[assign()];
    r.quoted_prefix_name.name("quoted_prefix_name");
    r.find_entry_type =
        (qi::no_case[entry_type_words] >>
         word_end)[([](std::uint8_t t, auto & ctx, bool &) { value_of(ctx).kernel_type = t; })];
    r.find_entry_type.name(one_of("entry_type", {"BLOB", "INTEGER", "HSET", "TAG", "STREAM", "DEQUE", "TS"}));

    r.find_expression =
        (r.kw.tag > '=' > r.quoted_tag_name)[([](std::string & s, auto & ctx, bool &)
                                              { value_of(ctx) = find_request::tag{std::move(s)}; })] |
        (r.kw.not_ > r.kw.tag > '=' > r.quoted_tag_name)[(
            [](std::string & s, auto & ctx, bool &) {
                value_of(ctx) = find_request::negation<find_request::tag>{find_request::tag{std::move(s)}};
            })] |
        (r.kw.prefix > '=' >
         r.quoted_prefix_name)[([](std::string & s, auto & ctx, bool &)
                                { value_of(ctx) = find_request::prefix{std::move(s)}; })] |
        (r.kw.type > '=' > r.find_entry_type)[assign()];
    r.find_expression.name("TYPE, PREFIX, TAG or NOT TAG");

    r.find_open = qi::lit('(');
    r.find_open.name("(find_expression AND ...)");
    r.find_close = qi::lit(')');
    r.find_close.name("AND or ')'");
    r.find = ((r.kw.find > r.find_open > r.find_expression[append_to(&find_request::items)]) >>
              *(r.kw.and_ > r.find_expression[append_to(&find_request::items)])) > r.find_close;
    r.find.name("FIND(...)");

    r.privilege_ = (qi::no_case[privilege_table] >> word_end)[assign()];
    r.privilege_.name("privilege");
    r.privileges = r.privilege_[append()] % ',';
    r.privileges.name("privilege, ...");
    r.grantee = r.quoted_string[assign()] | r.raw_unquoted_string[assign()];
    r.grantee.name("user");
    r.grantees = r.grantee[append()] % ',';
    r.grantees.name("user, ...");
    r.grant_on = r.kw.on;
    r.grant_on.name("ON or ','");
    r.grant_to = r.kw.to;
    r.grant_to.name("TO or ','");
    r.revoke_from = r.kw.from;
    r.revoke_from.name("FROM or ','");

    r.grant = (r.kw.grant > r.privileges > r.grant_on > r.entry_list > r.grant_to >
               r.grantees)[access<ast::parsed_grant>()];
    r.grant.name("grant");
    r.revoke = (r.kw.revoke > r.privileges > r.grant_on > r.entry_list > r.revoke_from >
                r.grantees)[access<ast::parsed_revoke>()];
    r.revoke.name("revoke");

    // SHOW's second word decides; SHOW DISK_USAGE takes ON as a third.
    r.show_rest =
        (r.kw.grants > r.kw.on >
         r.entry_list)[([](auto & entries, auto & ctx, bool &)
                        { value_of(ctx) = ast::parsed_show_grants{std::move(entries)}; })] |
        (r.kw.disk_usage > r.kw.on >
         r.entry_list)[([](auto & entries, auto & ctx, bool &)
                        { value_of(ctx) = ast::parsed_show_disk_usage{std::move(entries)}; })] |
        r.kw.tables[([](auto &, auto & ctx, bool &) { value_of(ctx) = ast::parsed_show_tables{}; })];
    r.show_rest.name("DISK_USAGE ON, GRANTS ON or TABLES");
    r.show = r.kw.show > r.show_rest[assign()];
    r.show.name("show");

    r.statement = r.alter_table[assign()] | r.create_table[assign()] | r.delete_[assign()] |
                  r.drop_table[assign()] | r.insert_table[assign()] | r.select[assign()] | r.show[assign()] |
                  r.grant[assign()] | r.revoke[assign()];
    r.statement.name(
        "ALTER TABLE, CREATE TABLE, DELETE, DROP TABLE, INSERT INTO, SELECT, SHOW GRANTS ON, SHOW "
        "TABLES, SHOW DISK_USAGE, GRANT or REVOKE");

    r.query = (r.statement[assign()] >> -qi::lit(';')) > r.end_of_input;
    r.query.name("query");
    r.find_query = (r.find[assign()] >> -qi::lit(';')) > r.end_of_input;
    r.find_query.name("find");
}

} // namespace zlk::query::grammar
