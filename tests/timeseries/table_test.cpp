// Tables as a caller sees them: creation, columns, shard size, expiry and removal, with the failures
// of each, against clusters of development nodes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/handle.hpp"
#include "tests/timeseries/ts_test_support.hpp"
#include "timeseries/table_metadata.hpp"

namespace zlk::ts_test
{
namespace
{

const zlk_ts_column_info two_columns[] = {{"value", zlk_ts_column_double}, {"Value", zlk_ts_column_string}};

struct listed
{
    std::string name;
    zlk_ts_column_type type;
    friend bool operator==(const listed &, const listed &) = default;
};

std::vector<listed> list(ts_cluster & c, const char * alias, zlk_error_t expected = zlk_e_ok)
{
    zlk_ts_column_info * columns = reinterpret_cast<zlk_ts_column_info *>(1);
    size_t count = 99;
    EXPECT_EQ(zlk_ts_list_columns(c.h, alias, &columns, &count), expected);
    std::vector<listed> out;
    for (size_t i = 0; i < count; ++i)
    {
        out.push_back({columns[i].name, columns[i].type});
    }
    if (count == 0)
    {
        EXPECT_EQ(columns, nullptr);
    }
    zlk_release(c.h, columns);
    return out;
}

TEST(ts_table, a_created_table_lists_its_columns_in_order_and_its_shard_size)
{
    ts_cluster c(1);
    ASSERT_EQ(zlk_ts_create(c.h, "t", 60000, two_columns, 2), zlk_e_ok);
    EXPECT_EQ(list(c, "t"),
              (std::vector<listed>{{"value", zlk_ts_column_double}, {"Value", zlk_ts_column_string}}));
    uint64_t shard = 0;
    EXPECT_EQ(zlk_ts_shard_size(c.h, "t", &shard), zlk_e_ok);
    EXPECT_EQ(shard, 60000u);

    const zlk_ts_column_info more[] = {{"n", zlk_ts_column_int64}, {"b", zlk_ts_column_blob}};
    ASSERT_EQ(zlk_ts_insert_columns(c.h, "t", more, 2), zlk_e_ok);
    const auto after = list(c, "t");
    ASSERT_EQ(after.size(), 4u);
    EXPECT_EQ(after[3], (listed{"b", zlk_ts_column_blob}));
}

TEST(ts_table, a_table_without_columns_lists_nothing)
{
    ts_cluster c(1);
    ASSERT_EQ(zlk_ts_create(c.h, "empty", 1000, nullptr, 0), zlk_e_ok);
    EXPECT_TRUE(list(c, "empty").empty());
}

TEST(ts_table, bad_column_arrays_fail_before_anything_is_sent)
{
    ts_cluster c(1);
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, nullptr, 1), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "Got NULL column names with size > 0");

    const zlk_ts_column_info bad_type[] = {column_with_type_word("a", 5)};
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, bad_type, 1), zlk_e_invalid_argument);
    // Only the low byte of the type is read.
    const zlk_ts_column_info high_bits[] = {column_with_type_word("a", 0x100 | zlk_ts_column_int64)};
    const zlk_ts_column_info null_name[] = {{nullptr, zlk_ts_column_double}};
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, null_name, 1), zlk_e_invalid_argument);
    const zlk_ts_column_info empty_name[] = {{"", zlk_ts_column_double}};
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, empty_name, 1), zlk_e_invalid_argument);
    const zlk_ts_column_info reserved[] = {{"\xC0\x80x", zlk_ts_column_double}};
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, reserved, 1), zlk_e_reserved_alias);
    const zlk_ts_column_info twice[] = {
        {"a", zlk_ts_column_double}, {"b", zlk_ts_column_blob}, {"a", zlk_ts_column_int64}};
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, twice, 3), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_create(c.h, "t", 0, two_columns, 2), zlk_e_invalid_argument);
    EXPECT_EQ(c.last_error_text(), "shard size must be strictly positive");

    // Nothing reached the cluster.
    list(c, "t", zlk_e_alias_not_found);
    ASSERT_EQ(zlk_ts_create(c.h, "t", 1000, high_bits, 1), zlk_e_ok);
    EXPECT_EQ(list(c, "t"), (std::vector<listed>{{"a", zlk_ts_column_int64}}));
}

TEST(ts_table, a_long_column_name_is_cut_to_its_first_1024_bytes)
{
    ts_cluster c(1);
    const std::string name(2000, 'n');
    const zlk_ts_column_info columns[] = {{name.c_str(), zlk_ts_column_double}};
    ASSERT_EQ(zlk_ts_create(c.h, "t", 1000, columns, 1), zlk_e_ok);
    const auto listed_columns = list(c, "t");
    ASSERT_EQ(listed_columns.size(), 1u);
    EXPECT_EQ(listed_columns[0].name, name.substr(0, 1024));
}

TEST(ts_table, existing_and_missing_tables_answer_with_the_nodes_status)
{
    ts_cluster c(1);
    ASSERT_EQ(zlk_ts_create(c.h, "t", 1000, two_columns, 2), zlk_e_ok);
    EXPECT_EQ(zlk_ts_create(c.h, "t", 1000, two_columns, 2), zlk_e_alias_already_exists);
    const zlk_ts_column_info again[] = {{"value", zlk_ts_column_int64}};
    EXPECT_EQ(zlk_ts_insert_columns(c.h, "t", again, 1), zlk_e_alias_already_exists);
    EXPECT_EQ(list(c, "t").size(), 2u);

    EXPECT_EQ(zlk_ts_insert_columns(c.h, "missing", again, 1), zlk_e_alias_not_found);
    uint64_t shard = 7;
    EXPECT_EQ(zlk_ts_shard_size(c.h, "missing", &shard), zlk_e_alias_not_found);
    EXPECT_EQ(shard, 0u);
    EXPECT_EQ(zlk_ts_shard_size(c.h, "t", nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_ts_list_columns(c.h, "t", nullptr, nullptr), zlk_e_invalid_argument);

    ASSERT_EQ(zlk_blob_put(c.h, "a blob", "x", 1, 0), zlk_e_ok);
    EXPECT_EQ(zlk_ts_create(c.h, "a blob", 1000, two_columns, 2), zlk_e_alias_already_exists);
    EXPECT_EQ(zlk_ts_list_columns(c.h, "a blob", nullptr, nullptr), zlk_e_invalid_argument);
    list(c, "a blob", zlk_e_incompatible_type);
}

TEST(ts_table, tables_spread_over_a_ring_of_three_are_each_found_by_their_owner)
{
    ts_cluster c(3, replicated(2));
    for (int i = 0; i < 12; ++i)
    {
        const std::string alias = "table " + std::to_string(i);
        ASSERT_EQ(zlk_ts_create(c.h, alias.c_str(), 1000 + i, two_columns, 2), zlk_e_ok) << alias;
    }
    for (int i = 0; i < 12; ++i)
    {
        const std::string alias = "table " + std::to_string(i);
        uint64_t shard = 0;
        ASSERT_EQ(zlk_ts_shard_size(c.h, alias.c_str(), &shard), zlk_e_ok);
        EXPECT_EQ(shard, 1000u + i);
    }
}

TEST(ts_table, the_listings_of_many_tables_come_back_each_in_its_place)
{
    ts_cluster c(3);
    std::vector<std::string> names;
    for (int i = 0; i < 6; ++i)
    {
        names.push_back("listed " + std::to_string(i));
        const std::vector<zlk_ts_column_info> cols(two_columns, two_columns + i % 3);
        ASSERT_EQ(zlk_ts_create(c.h, names.back().c_str(), 100 * (i + 1), cols.data(), cols.size()),
                  zlk_e_ok);
    }
    std::vector<std::string_view> aliases(names.begin(), names.end());
    std::vector<std::shared_ptr<const timeseries::timeseries_table>> tables;
    ASSERT_EQ(timeseries::get_tables(c.h->cluster, aliases, tables), zlk_e_ok);
    ASSERT_EQ(tables.size(), 6u);
    for (int i = 0; i < 6; ++i)
    {
        ASSERT_NE(tables[i], nullptr);
        EXPECT_EQ(tables[i]->shard_size, 100u * (i + 1));
        EXPECT_EQ(tables[i]->columns.size(), static_cast<std::size_t>(i % 3));
    }
    EXPECT_EQ(tables[2]->find("Value")->index, 1u);
    EXPECT_EQ(tables[2]->find("VALUE"), nullptr);

    timeseries::column_lookup found;
    ASSERT_EQ(timeseries::find_column(c.h->cluster, "listed 2", "Value", found), zlk_e_ok);
    EXPECT_EQ(found.shard_size, 300u);
    EXPECT_EQ(found.type, kernel::column_type::string);
    EXPECT_EQ(timeseries::find_column(c.h->cluster, "listed 2", "nothing", found), zlk_e_column_not_found);

    aliases.push_back("not a table");
    EXPECT_EQ(timeseries::get_tables(c.h->cluster, aliases, tables), zlk_e_alias_not_found);
}

} // namespace
} // namespace zlk::ts_test
