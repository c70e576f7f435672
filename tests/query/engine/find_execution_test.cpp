// FIND over a three-node cluster: tags intersected, excluded tags removed, a prefix and a type applied,
// and the cardinality limit counted before anything is read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/handle.hpp"
#include "node/local_cluster.hpp"
#include "query/engine/find_execution.hpp"
#include "zlk/zlk.h"

namespace
{

using zlk::query::find_criteria;

struct find_fixture : ::testing::Test
{
    zlk::node::local_cluster cluster{3};
    zlk_handle_t h = nullptr;

    void SetUp() override
    {
        ASSERT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        ASSERT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
        ASSERT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
        // blob.a: red, big; blob.b: red; int.c: red, big; other.d: big.
        for (const char * a : {"blob.a", "blob.b", "other.d"})
        {
            ASSERT_EQ(zlk_blob_put(h, a, "v", 1, 0), zlk_e_ok);
        }
        ASSERT_EQ(zlk_int_put(h, "int.c", 1, 0), zlk_e_ok);
        for (const char * a : {"blob.a", "blob.b", "int.c"})
        {
            ASSERT_EQ(zlk_attach_tag(h, a, "red"), zlk_e_ok);
        }
        for (const char * a : {"blob.a", "int.c", "other.d"})
        {
            ASSERT_EQ(zlk_attach_tag(h, a, "big"), zlk_e_ok);
        }
    }
    void TearDown() override { zlk_close(h); }

    std::vector<std::string> find(const find_criteria & f, std::uint64_t max_cardinality = 1000)
    {
        std::vector<std::string> out;
        std::string message;
        EXPECT_EQ(zlk::query::run_find(h->cluster, f, max_cardinality, out, message), zlk_e_ok) << message;
        return out;
    }
};

using list = std::vector<std::string>;

TEST_F(find_fixture, tags_prefix_and_type_narrow_the_set)
{
    constexpr std::uint8_t blob = 0;
    constexpr std::uint8_t integer = 1;
    struct find_case
    {
        const char * name;
        find_criteria criteria;
        list expected;
    };
    const std::vector<find_case> cases = {
        {"one tag", {{"red"}, {}, {}, {}}, {"blob.a", "blob.b", "int.c"}},
        {"two tags intersect", {{"red", "big"}, {}, {}, {}}, {"blob.a", "int.c"}},
        {"an excluded tag", {{"red"}, {"big"}, {}, {}}, {"blob.b"}},
        {"a prefix alone", {{}, {}, std::string("blob."), {}}, {"blob.a", "blob.b"}},
        {"a prefix with a tag", {{"big"}, {}, std::string("blob."), {}}, {"blob.a"}},
        {"a type", {{"big"}, {}, {}, integer}, {"int.c"}},
        {"a type with a prefix", {{}, {}, std::string("blob."), blob}, {"blob.a", "blob.b"}},
        {"a tag nobody has", {{"green"}, {}, {}, {}}, {}},
        {"excluding everything", {{"red"}, {"red"}, {}, {}}, {}},
    };
    for (const find_case & c : cases)
    {
        EXPECT_EQ(find(c.criteria), c.expected) << c.name;
    }
}

TEST_F(find_fixture, the_cardinality_limit_counts_what_must_be_read_before_reading)
{
    std::vector<std::string> out;
    std::string message;
    // red has 3 links, big 3: six aliases to read.
    const find_criteria f{{"red"}, {"big"}, {}, {}};
    EXPECT_EQ(zlk::query::run_find(h->cluster, f, 5, out, message), zlk_e_invalid_query);
    EXPECT_EQ(message, "The FIND request needs to query at least 6 alias, but the client has a maximum "
                       "cardinality of 5.");
    EXPECT_TRUE(out.empty());
    message.clear();
    EXPECT_EQ(zlk::query::run_find(h->cluster, f, 6, out, message), zlk_e_ok);
    EXPECT_EQ(out, list{"blob.b"});
}

// The C entry: text in, a tracked list out, and every refusal with its code and last error.
TEST_F(find_fixture, query_find_runs_the_text_end_to_end)
{
    auto query_find = [this](const char * text, zlk_error_t want)
    {
        const char ** aliases = nullptr;
        size_t count = 7;
        EXPECT_EQ(zlk_query_find(h, text, &aliases, &count), want) << (text ? text : "null");
        list out(aliases, aliases + count);
        if (aliases)
        {
            zlk_release(h, aliases);
        }
        return out;
    };
    auto last_error = [this]
    {
        zlk_error_t e = zlk_e_ok;
        zlk_string_t m{};
        EXPECT_EQ(zlk_get_last_error(h, &e, &m), zlk_e_ok);
        return std::string(m.data ? m.data : "", m.length);
    };

    EXPECT_EQ(query_find("FIND(TAG='red' AND NOT TAG='big')", zlk_e_ok), list{"blob.b"});
    EXPECT_EQ(query_find("find(tag='big' and type=integer);", zlk_e_ok), list{"int.c"});
    EXPECT_EQ(query_find("FIND(PREFIX='blob.' AND TAG='big')", zlk_e_ok), list{"blob.a"});
    EXPECT_EQ(query_find("FIND(TAG='red' AND TYPE=BLOB AND TYPE=INTEGER)", zlk_e_ok), list{});
    EXPECT_EQ(query_find("FIND(TAG='nobody')", zlk_e_ok), list{});

    EXPECT_EQ(query_find("FIND(PREFIX='x' AND PREFIX='y')", zlk_e_invalid_query), list{});
    EXPECT_EQ(last_error(), "at zlk_query_find: FIND request does not supports multiple prefixes.");
    EXPECT_EQ(query_find("FIND(NOT TAG='red')", zlk_e_invalid_query), list{});
    EXPECT_EQ(last_error(),
              "at zlk_query_find: FIND requests must give an accepted tag or an accepted prefix.");
    query_find("FIND(TAG=red)", zlk_e_invalid_query);
    EXPECT_EQ(last_error(),
              "at zlk_query_find: At line 1: expected quoted_tag_name.\nFIND(TAG=red)\n         ^");
    query_find("", zlk_e_invalid_query);
    query_find(nullptr, zlk_e_invalid_argument);
    query_find(std::string(100001, ' ').c_str(), zlk_e_alias_too_long);

    const char ** aliases = nullptr;
    EXPECT_EQ(zlk_query_find(h, "FIND(TAG='red')", &aliases, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_query_find(nullptr, "FIND(TAG='red')", &aliases, nullptr), zlk_e_invalid_handle);
}

} // namespace
