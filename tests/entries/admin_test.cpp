// Node documents, node_stop and the ring-wide purges against in-process nodes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "entries/node_config.hpp"
#include "entries_test_support.hpp"
#include "wire/operations.hpp"

namespace
{

using json = nlohmann::ordered_json;
using zlk::entries_test::bytes;
using zlk::entries_test::connected_cluster;

std::string node_uri(const zlk::node::local_cluster & c, std::size_t i)
{
    const auto ep = c.endpoint(i);
    return "zlk://" + ep.address().to_string() + ":" + std::to_string(ep.port());
}

std::vector<std::string> keys_of(const json & j)
{
    std::vector<std::string> out;
    for (const auto & [key, value] : j.items())
    {
        out.push_back(key);
    }
    return out;
}

using document_function = zlk_error_t (*)(zlk_handle_t, const char *, const char **, size_t *);

json read_document(zlk_handle_t h, document_function f, const std::string & uri)
{
    const char * text = nullptr;
    size_t length = 0;
    EXPECT_EQ(f(h, uri.c_str(), &text, &length), zlk_e_ok);
    if (!text)
    {
        return {};
    }
    json doc = json::parse(std::string(text, length));
    zlk_release(h, text);
    return doc;
}

TEST(NodeDocuments, StatusKeysComeInTheirFixedOrder)
{
    connected_cluster c(1);
    const json doc = read_document(c.h, &zlk_node_status, node_uri(c.cluster, 0));
    EXPECT_THAT(keys_of(doc),
                testing::ElementsAre("memory", "cpu_times", "disk_usage", "network", "node_id",
                                     "operating_system", "hardware_concurrency", "timestamp", "startup",
                                     "engine_version", "engine_build_date", "entries", "overall", "users"));
    EXPECT_EQ(doc["node_id"], zlk::chord::to_string(c.cluster.id(0)));
}

TEST(NodeDocuments, ConfigSectionsAndKeysComeInClassOrderAndCarryTheNodesValues)
{
    zlk::node::cluster_options options;
    options.node.enable_stop = true;
    connected_cluster c(2, options);
    const json doc = read_document(c.h, &zlk_node_config, node_uri(c.cluster, 1));
    EXPECT_THAT(keys_of(doc), testing::ElementsAre("global", "local"));
    EXPECT_THAT(keys_of(doc["global"]), testing::ElementsAre("security", "cluster"));
    EXPECT_THAT(keys_of(doc["local"]),
                testing::ElementsAre("chord", "network", "logger", "limiter", "user", "depot"));
    EXPECT_THAT(keys_of(doc["global"]["security"]),
                testing::ElementsAre("enable_stop", "enable_purge_all", "enabled", "encrypt_traffic",
                                     "cluster_private_file", "user_list"));
    EXPECT_THAT(keys_of(doc["local"]["depot"]), testing::ElementsAre("rocksdb", "async_ts"));
    EXPECT_THAT(
        keys_of(doc["local"]["depot"]["async_ts"]),
        testing::ElementsAre("pipelines", "pipeline_buffer_size", "pipeline_queue_length", "flush_deadline"));
    EXPECT_EQ(doc["global"]["security"]["enable_stop"], true);
    EXPECT_EQ(doc["local"]["chord"]["node_id"], zlk::chord::to_string(c.cluster.id(1)));
    EXPECT_EQ(doc["local"]["chord"]["bootstrapping_peers"].size(), 1u);
}

TEST(NodeDocuments, TopologyNamesTheNodeBetweenItsNeighbours)
{
    connected_cluster c(3);
    const json doc = read_document(c.h, &zlk_node_topology, node_uri(c.cluster, 1));
    EXPECT_THAT(keys_of(doc), testing::ElementsAre("predecessor", "center", "successor"));
    EXPECT_EQ(doc["predecessor"]["id"], zlk::chord::to_string(c.cluster.id(0)));
    EXPECT_EQ(doc["center"]["id"], zlk::chord::to_string(c.cluster.id(1)));
    EXPECT_EQ(doc["successor"]["id"], zlk::chord::to_string(c.cluster.id(2)));
}

TEST(NodeDocuments, BadArgumentsFailBeforeAnyRequestAndLeaveTheOutputsZeroed)
{
    connected_cluster c(1);
    const char * text = "untouched";
    size_t length = 7;

    const std::string long_uri(1001, 'a');
    EXPECT_EQ(zlk_node_status(c.h, long_uri.c_str(), &text, &length), zlk_e_alias_too_long);
    EXPECT_THAT(c.last_error_text(), testing::EndsWith("Got too big uri (max 1000 characters)"));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0u);

    EXPECT_EQ(zlk_node_config(c.h, nullptr, &text, &length), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), testing::EndsWith("Got NULL uri"));
    EXPECT_EQ(zlk_node_topology(c.h, node_uri(c.cluster, 0).c_str(), nullptr, &length),
              zlk_e_invalid_argument);
    EXPECT_EQ(zlk_node_status(c.h, node_uri(c.cluster, 0).c_str(), &text, nullptr), zlk_e_invalid_argument);

    // A URI that doesn't parse keeps its own error, with the URI origin.
    const zlk_error_t bad = zlk_node_status(c.h, "zlk://no-port-here", &text, &length);
    EXPECT_TRUE(ZLK_FAILURE(bad));
    EXPECT_EQ(static_cast<std::uint32_t>(bad) & 0xF0000000u, 0xC0000000u);
}

TEST(NodeDocuments, ANodesFailureOrSilenceReachesTheCallerWithNothingHandedOut)
{
    connected_cluster c(2);
    zlk::node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(zlk::protocol::operation::node_status)};
    faults.operation_error = make_error_code(zlk::kernel::error::internal_error);
    c.cluster.set_faults(0, faults);
    const char * text = nullptr;
    size_t length = 0;
    EXPECT_TRUE(ZLK_FAILURE(zlk_node_status(c.h, node_uri(c.cluster, 0).c_str(), &text, &length)));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 0u);

    zlk::node::fault_settings garbage;
    garbage.garbage_replies = true;
    c.cluster.set_faults(1, garbage);
    EXPECT_TRUE(ZLK_FAILURE(zlk_node_config(c.h, node_uri(c.cluster, 1).c_str(), &text, &length)));
    EXPECT_EQ(text, nullptr);

    // The other document of the failing node still comes.
    EXPECT_FALSE(read_document(c.h, &zlk_node_topology, node_uri(c.cluster, 0)).empty());
}

TEST(NodeStop, IsRefusedUnlessTheNodeAllowsItAndStopsTheNodeWhenItDoes)
{
    {
        connected_cluster c(1);
        EXPECT_TRUE(ZLK_FAILURE(zlk_node_stop(c.h, node_uri(c.cluster, 0).c_str(), "maintenance")));
        EXPECT_EQ(zlk_node_stop(c.h, node_uri(c.cluster, 0).c_str(), nullptr), zlk_e_invalid_argument);
        EXPECT_THAT(c.last_error_text(), testing::EndsWith("Got NULL reason"));
        // Still serving.
        EXPECT_EQ(zlk_blob_put(c.h, "still-here", "x", 1, zlk_never_expires), zlk_e_ok);
    }
    {
        zlk::node::cluster_options options;
        options.node.enable_stop = true;
        connected_cluster c(1, options);
        EXPECT_EQ(zlk_node_stop(c.h, node_uri(c.cluster, 0).c_str(), "maintenance"), zlk_e_ok);
    }
}

TEST(Purge, PurgeAllEmptiesEveryNodeAndTheRingStaysUsable)
{
    connected_cluster c(3);
    std::vector<std::string> aliases;
    for (int i = 0; i < 24; ++i)
    {
        aliases.push_back("purged-" + std::to_string(i));
        ASSERT_EQ(zlk_blob_put(c.h, aliases.back().c_str(), "abc", 3, zlk_never_expires), zlk_e_ok);
    }
    EXPECT_EQ(zlk_purge_all(c.h, 60000), zlk_e_ok);
    for (const std::string & a : aliases)
    {
        zlk_error_t status = zlk_e_ok;
        EXPECT_TRUE(c.get(a.c_str(), &status).empty());
        EXPECT_EQ(status, zlk_e_alias_not_found) << a;
    }
    EXPECT_EQ(zlk_blob_put(c.h, aliases.front().c_str(), "new", 3, zlk_never_expires), zlk_e_ok);
    EXPECT_EQ(c.get(aliases.front().c_str()), bytes("new"));

    EXPECT_EQ(zlk_trim_all(c.h, 60000), zlk_e_ok);
    EXPECT_EQ(zlk_purge_cache(c.h, 60000), zlk_e_ok);
    EXPECT_EQ(c.get(aliases.front().c_str()), bytes("new"));
    EXPECT_EQ(zlk_purge_all(c.h, -1), zlk_e_invalid_argument);
}

TEST(Purge, ANodeThatDisablesPurgeRefusesItAndKeepsItsEntries)
{
    zlk::node::cluster_options options;
    options.node.enable_purge_all = false;
    connected_cluster c(1, options);
    ASSERT_EQ(zlk_blob_put(c.h, "kept", "abc", 3, zlk_never_expires), zlk_e_ok);
    EXPECT_EQ(zlk_purge_all(c.h, 60000), zlk_e_operation_disabled);
    EXPECT_EQ(c.get("kept"), bytes("abc"));
}

TEST(Purge, OneFailingNodeFailsTheCallWhileTheOthersStillPurge)
{
    connected_cluster c(3);
    std::vector<std::string> aliases;
    for (int i = 0; i < 24; ++i)
    {
        aliases.push_back("kept-" + std::to_string(i));
        ASSERT_EQ(zlk_blob_put(c.h, aliases.back().c_str(), "abc", 3, zlk_never_expires), zlk_e_ok);
    }
    zlk::node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(zlk::protocol::operation::purge_all)};
    faults.operation_error = make_error_code(zlk::kernel::error::internal_error);
    c.cluster.set_faults(1, faults);

    EXPECT_TRUE(ZLK_FAILURE(zlk_purge_all(c.h, 60000)));

    // Node 1 kept its own arc's entries; the other two nodes lost theirs.
    std::size_t kept = 0;
    for (const std::string & a : aliases)
    {
        zlk_error_t status = zlk_e_ok;
        const auto content = c.get(a.c_str(), &status);
        if (status == zlk_e_ok)
        {
            EXPECT_EQ(content, bytes("abc"));
            ++kept;
        }
        else
        {
            EXPECT_EQ(status, zlk_e_alias_not_found);
        }
    }
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, aliases.size());
}

TEST(Purge, AStoppedNodeFailsTheCallAndTheRingRecovers)
{
    connected_cluster c(3);
    ASSERT_EQ(zlk_blob_put(c.h, "survivor", "abc", 3, zlk_never_expires), zlk_e_ok);
    c.cluster.stop_node(2);
    EXPECT_TRUE(ZLK_FAILURE(zlk_purge_all(c.h, 60000)));
    c.cluster.restart_node(2);
    // The restarted node comes back empty; the ring is usable again.
    EXPECT_EQ(zlk_blob_put(c.h, "after", "x", 1, zlk_never_expires), zlk_e_ok);
    EXPECT_EQ(c.get("after"), bytes("x"));
}

TEST(Purge, FailuresToStopOrRestartMigrationLeaveThePurgesResult)
{
    connected_cluster c(2);
    ASSERT_EQ(zlk_blob_put(c.h, "purged", "abc", 3, zlk_never_expires), zlk_e_ok);
    zlk::node::fault_settings faults;
    faults.failing_operations = {static_cast<std::uint16_t>(zlk::protocol::operation::range_updater)};
    faults.operation_error = make_error_code(zlk::kernel::error::internal_error);
    c.cluster.set_faults(0, faults);
    c.cluster.set_faults(1, faults);

    EXPECT_EQ(zlk_purge_all(c.h, 60000), zlk_e_ok);
    zlk_error_t status = zlk_e_ok;
    c.get("purged", &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
}

TEST(ConfigClasses, ReadingBackRefusesWrongKindsAndNamesThePlace)
{
    zlk::config::node_configuration config;
    config.global.cluster.replication_factor = 2;
    config.local.chord.bootstrapping_peers = {"a@1.2.3.4:5"};
    json doc = config;
    const auto back = doc.get<zlk::config::node_configuration>();
    EXPECT_EQ(back.global.cluster.replication_factor, 2u);
    EXPECT_EQ(back.local.chord.bootstrapping_peers, config.local.chord.bootstrapping_peers);

    auto failure = [](const json & d) -> std::string
    {
        try
        {
            zlk::config::parse_configuration(d.dump());
        }
        catch (const zlk::config::config_error & e)
        {
            return e.what();
        }
        return "no failure";
    };
    json wrong = doc;
    wrong["global"]["cluster"]["storage_engine"] = 3;
    EXPECT_THAT(failure(wrong),
                testing::StartsWith("At key 'global': At key 'cluster': At key 'storage_engine': "
                                    "type must be string, but is "));
    wrong = doc;
    wrong["local"]["user"]["daemon"] = "yes";
    EXPECT_THAT(failure(wrong), testing::HasSubstr("type must be boolean, but is "));
    wrong = doc;
    wrong["local"]["depot"]["async_ts"]["pipelines"] = false;
    EXPECT_THAT(failure(wrong), testing::HasSubstr("type must be number, but is "));
    wrong = doc;
    wrong["local"].erase("logger");
    EXPECT_THAT(failure(wrong), testing::HasSubstr("At key 'logger'"));

    try
    {
        zlk::config::parse_configuration("{\"global\": ");
        ADD_FAILURE() << "truncated text parsed";
    }
    catch (const zlk::config::config_error & e)
    {
        EXPECT_THAT(e.what(), testing::StartsWith("At line "));
    }
}

} // namespace
