// A handle connected to an in-process cluster of development nodes, and the small readings the entry
// tests make of it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "node/local_cluster.hpp"
#include "zlk/zlk.h"

namespace zlk::entries_test
{

inline node::cluster_options replicated(unsigned factor)
{
    node::cluster_options o;
    o.node.replication_factor = factor;
    return o;
}

struct connected_cluster
{
    explicit connected_cluster(std::size_t nodes, node::cluster_options options = {})
        : cluster(nodes, std::move(options))
    {
        EXPECT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        // Generous for a loaded machine; a silent node still ends the test.
        EXPECT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
        EXPECT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
    }
    ~connected_cluster() { zlk_close(h); }

    connected_cluster(const connected_cluster &) = delete;
    connected_cluster & operator=(const connected_cluster &) = delete;

    std::string last_error_text() const
    {
        zlk_error_t e = 0;
        zlk_string_t text{nullptr, 0};
        zlk_get_last_error(h, &e, &text);
        return std::string(text.data, text.length);
    }

    // The blob's content, or an empty vector (with the status in `status`).
    std::vector<std::uint8_t> get(const char * alias, zlk_error_t * status = nullptr) const
    {
        const void * content = nullptr;
        size_t length = 0;
        const zlk_error_t r = zlk_blob_get(h, alias, &content, &length);
        if (status)
        {
            *status = r;
        }
        std::vector<std::uint8_t> out;
        if (content)
        {
            const auto * p = static_cast<const std::uint8_t *>(content);
            out.assign(p, p + length);
            zlk_release(h, content);
        }
        return out;
    }

    node::local_cluster cluster;
    zlk_handle_t h = nullptr;
};

inline std::vector<std::uint8_t> bytes(std::string_view s)
{
    return {s.begin(), s.end()};
}

} // namespace zlk::entries_test
