// Direct handles read what one node itself holds, never what the ring routes to.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "entries_test_support.hpp"

namespace
{

using zlk::entries_test::bytes;
using zlk::entries_test::connected_cluster;

std::string node_uri(const zlk::node::local_cluster & c, std::size_t i)
{
    const auto ep = c.endpoint(i);
    return "zlk://" + ep.address().to_string() + ":" + std::to_string(ep.port());
}

struct direct_handles
{
    direct_handles(connected_cluster & c)
        : parent(c.h)
    {
        for (std::size_t i = 0; i < c.cluster.slots(); ++i)
        {
            nodes.push_back(zlk_direct_connect(c.h, node_uri(c.cluster, i).c_str()));
            EXPECT_NE(nodes.back(), nullptr);
        }
    }
    ~direct_handles()
    {
        for (zlk_direct_handle_t d : nodes)
        {
            zlk_direct_close(d);
        }
    }

    zlk_handle_t parent;
    std::vector<zlk_direct_handle_t> nodes;
};

TEST(Direct, ExactlyTheNodesThatHoldAnEntryAnswerIt)
{
    connected_cluster c(3);
    direct_handles d(c);
    for (int i = 0; i < 12; ++i)
    {
        const std::string blob = "direct-blob-" + std::to_string(i);
        const std::string integer = "direct-int-" + std::to_string(i);
        ASSERT_EQ(zlk_blob_put(c.h, blob.c_str(), "payload", 7, zlk_never_expires), zlk_e_ok);
        ASSERT_EQ(zlk_int_put(c.h, integer.c_str(), -40 - i, zlk_never_expires), zlk_e_ok);

        std::size_t holders = 0;
        for (zlk_direct_handle_t node : d.nodes)
        {
            const void * content = nullptr;
            size_t length = 0;
            const zlk_error_t r = zlk_direct_blob_get(node, blob.c_str(), &content, &length);
            if (r == zlk_e_ok)
            {
                ++holders;
                EXPECT_EQ(std::string(static_cast<const char *>(content), length), "payload");
                zlk_release(c.h, content);
            }
            else
            {
                // Whatever the cluster holds, this node doesn't.
                EXPECT_EQ(r, zlk_e_alias_not_found);
                EXPECT_EQ(content, nullptr);
            }
        }
        // Replication factor 1: one node holds it.
        EXPECT_EQ(holders, 1u) << blob;

        std::size_t integer_holders = 0;
        for (zlk_direct_handle_t node : d.nodes)
        {
            int64_t value = 0;
            const zlk_error_t r = zlk_direct_int_get(node, integer.c_str(), &value);
            if (r == zlk_e_ok)
            {
                ++integer_holders;
                EXPECT_EQ(value, -40 - i);
            }
            else
            {
                EXPECT_EQ(r, zlk_e_alias_not_found);
            }
        }
        EXPECT_EQ(integer_holders, 1u) << integer;
    }
}

TEST(Direct, PurgeLeavesNothingForAnyNodeToAnswer)
{
    connected_cluster c(2);
    direct_handles d(c);
    ASSERT_EQ(zlk_blob_put(c.h, "gone-soon", "x", 1, zlk_never_expires), zlk_e_ok);
    ASSERT_EQ(zlk_purge_all(c.h, 60000), zlk_e_ok);
    for (zlk_direct_handle_t node : d.nodes)
    {
        const void * content = nullptr;
        size_t length = 0;
        EXPECT_EQ(zlk_direct_blob_get(node, "gone-soon", &content, &length), zlk_e_alias_not_found);
    }
}

TEST(Direct, WritesAreNotImplementedEvenWithoutAHandle)
{
    EXPECT_EQ(zlk_direct_blob_put(nullptr, "a", "x", 1, zlk_never_expires), zlk_e_not_implemented);
    EXPECT_EQ(zlk_direct_blob_update(nullptr, nullptr, nullptr, 0, 0), zlk_e_not_implemented);
    EXPECT_EQ(zlk_direct_remove(nullptr, "a"), zlk_e_not_implemented);
    EXPECT_EQ(zlk_direct_int_put(nullptr, "a", 1, 0), zlk_e_not_implemented);
    EXPECT_EQ(zlk_direct_int_update(nullptr, "a", 1, 0), zlk_e_not_implemented);
    EXPECT_EQ(zlk_direct_int_add(nullptr, "a", 1, nullptr), zlk_e_not_implemented);
}

TEST(Direct, BadArgumentsGiveClearErrors)
{
    connected_cluster c(1);
    EXPECT_EQ(zlk_direct_connect(c.h, nullptr), nullptr);
    EXPECT_THAT(c.last_error_text(), testing::EndsWith("Got NULL uri"));
    EXPECT_EQ(zlk_direct_connect(nullptr, "zlk://127.0.0.1:1"), nullptr);

    direct_handles d(c);
    const void * content = nullptr;
    size_t length = 0;
    EXPECT_EQ(zlk_direct_blob_get(d.nodes[0], "a", nullptr, &length), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_direct_blob_get(d.nodes[0], nullptr, &content, &length), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_direct_int_get(d.nodes[0], "a", nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_direct_blob_get(nullptr, "a", &content, &length), zlk_e_invalid_handle);
    zlk_direct_close(nullptr);
}

} // namespace
