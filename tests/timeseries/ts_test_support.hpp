// A handle on an in-process cluster with the small helpers the table and column tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "node/local_cluster.hpp"
#include "zlk/zlk.h"

namespace zlk::ts_test
{

inline node::cluster_options replicated(unsigned factor)
{
    node::cluster_options o;
    o.node.replication_factor = factor;
    return o;
}

struct ts_cluster
{
    explicit ts_cluster(std::size_t nodes, node::cluster_options options = {})
        : cluster(nodes, std::move(options))
    {
        EXPECT_EQ(zlk_open(&h, zlk_p_tcp), zlk_e_ok);
        EXPECT_EQ(zlk_option_set_timeout(h, 20000), zlk_e_ok);
        EXPECT_EQ(zlk_connect(h, cluster.uri().c_str()), zlk_e_ok);
    }
    ~ts_cluster() { zlk_close(h); }

    ts_cluster(const ts_cluster &) = delete;
    ts_cluster & operator=(const ts_cluster &) = delete;

    // The last error's text without the function's "at ...: " prefix.
    std::string last_error_text() const
    {
        zlk_error_t e = 0;
        zlk_string_t text{nullptr, 0};
        zlk_get_last_error(h, &e, &text);
        const std::string all(text.data, text.length);
        const auto colon = all.find(": ");
        return all.starts_with("at ") && colon != std::string::npos ? all.substr(colon + 2) : all;
    }

    node::local_cluster cluster;
    zlk_handle_t h = nullptr;
};

// A column whose type word has bits above the low byte, as a C caller may pass it.
inline zlk_ts_column_info column_with_type_word(const char * name, std::uint32_t word)
{
    zlk_ts_column_info c{name, zlk_ts_column_double};
    std::memcpy(&c.type, &word, sizeof word);
    return c;
}

inline zlk_timespec_t at(std::int64_t sec, std::int64_t nsec = 0)
{
    return zlk_timespec_t{sec, nsec};
}

inline zlk_ts_range_t range(zlk_timespec_t begin, zlk_timespec_t end)
{
    return zlk_ts_range_t{begin, end};
}

// Every time the tests write: a few hundred one-second shards around the epoch.
inline zlk_ts_range_t all_time()
{
    return range(at(-100), at(200));
}

} // namespace zlk::ts_test
