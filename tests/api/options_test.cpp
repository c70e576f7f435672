#include <gtest/gtest.h>

#include "api/handle.hpp"
#include "frame_support.hpp"

namespace
{

using zlk::test::last_error;
using zlk::test::scoped_handle;

TEST(options, the_timeout_is_at_least_a_second_and_rounded_down_to_whole_seconds)
{
    scoped_handle h;
    int timeout = 0;
    EXPECT_EQ(zlk_option_set_timeout(h, 999), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_option_set_timeout(h, 1999), zlk_e_ok);
    EXPECT_EQ(zlk_option_get_timeout(h, &timeout), zlk_e_ok);
    EXPECT_EQ(timeout, 1000);
    EXPECT_EQ(zlk_option_get_timeout(h, nullptr), zlk_e_invalid_argument);
    EXPECT_EQ(last_error(h).second, "at zlk_option_get_timeout: The argument is invalid.");
}

// Both waits: 0 turns their retry off; otherwise at least a second and at least the timeout.
TEST(options, the_max_waits_are_zero_or_at_least_a_second_and_the_timeout)
{
    using setter = zlk_error_t (*)(zlk_handle_t, int);
    using getter = zlk_error_t (*)(zlk_handle_t, int *);
    const std::pair<setter, getter> waits[] = {
        {&zlk_option_set_stabilization_max_wait, &zlk_option_get_stabilization_max_wait},
        {&zlk_option_set_transaction_max_wait, &zlk_option_get_transaction_max_wait},
    };
    for (const auto & [set, get] : waits)
    {
        scoped_handle h;
        ASSERT_EQ(zlk_option_set_timeout(h, 1000), zlk_e_ok);
        EXPECT_EQ(set(h, 500), zlk_e_invalid_argument);
        EXPECT_EQ(set(h, 999), zlk_e_invalid_argument);
        EXPECT_EQ(set(h, 1000), zlk_e_ok);

        ASSERT_EQ(zlk_option_set_timeout(h, 5000), zlk_e_ok);
        EXPECT_EQ(set(h, 4999), zlk_e_invalid_argument);
        EXPECT_EQ(set(h, 0), zlk_e_ok);
        EXPECT_EQ(set(h, 5000), zlk_e_ok);
        int value = 0;
        EXPECT_EQ(get(h, &value), zlk_e_ok);
        EXPECT_EQ(value, 5000);
    }
}

TEST(options, compression_refuses_best_and_above_but_stores_negative_levels)
{
    scoped_handle h;
    const zlk_session & s = *static_cast<zlk_handle_t>(h);
    EXPECT_EQ(zlk_option_set_compression(h, zlk_comp_best), zlk_e_not_implemented);
    EXPECT_EQ(zlk_option_set_compression(h, 3), zlk_e_invalid_argument);
    EXPECT_EQ(s.compression.load(), zlk_comp_fast);
    EXPECT_EQ(zlk_option_set_compression(h, -1), zlk_e_ok);
    EXPECT_EQ(s.compression.load(), -1);
}

TEST(options, buffer_size_cardinality_and_push_timeout_limits_hold)
{
    scoped_handle h;
    EXPECT_EQ(zlk_option_set_max_cardinality(h, 99), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_option_set_max_cardinality(h, 100), zlk_e_ok);

    size_t size = 0;
    EXPECT_EQ(zlk_option_set_client_max_in_buf_size(h, 1023), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_option_set_client_max_in_buf_size(h, 1024), zlk_e_ok);
    EXPECT_EQ(zlk_option_get_client_max_in_buf_size(h, &size), zlk_e_ok);
    EXPECT_EQ(size, 1024u);
    EXPECT_EQ(zlk_option_get_cluster_max_in_buf_size(h, &size), zlk_e_ok);
    EXPECT_EQ(size, 0x10000000u);

    int timeout = 1;
    EXPECT_EQ(zlk_option_set_ts_batch_push_async_timeout(h, -1), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_option_set_ts_batch_push_async_timeout(h, 0), zlk_e_ok);
    EXPECT_EQ(zlk_option_get_ts_batch_push_async_timeout(h, &timeout), zlk_e_ok);
    EXPECT_EQ(timeout, 0);
}

} // namespace
