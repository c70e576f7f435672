// Blob entries end to end, against clusters of development nodes on 127.0.0.1.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "entries_test_support.hpp"
#include "node/entry_operations.hpp"

namespace zlk::entries_test
{
namespace
{

using ::testing::HasSubstr;

class blobs : public ::testing::TestWithParam<std::size_t>
{
protected:
    connected_cluster c{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(nodes, blobs, ::testing::Values(1, 3));

TEST_P(blobs, put_then_get_round_trips_the_bytes_and_a_second_put_finds_the_alias_taken)
{
    const auto data = bytes("some content");
    ASSERT_EQ(zlk_blob_put(c.h, "a", data.data(), data.size(), 0), zlk_e_ok);
    EXPECT_EQ(c.get("a"), data);
    EXPECT_EQ(zlk_blob_put(c.h, "a", data.data(), data.size(), 0), zlk_e_alias_already_exists);

    zlk_error_t status = 0;
    EXPECT_TRUE(c.get("missing", &status).empty());
    EXPECT_EQ(status, zlk_e_alias_not_found);
}

TEST_P(blobs, empty_content_is_a_real_blob_but_null_content_with_a_size_is_refused)
{
    ASSERT_EQ(zlk_blob_put(c.h, "empty", nullptr, 0, 0), zlk_e_ok);
    const void * content = &content;
    size_t length = 99;
    EXPECT_EQ(zlk_blob_get(c.h, "empty", &content, &length), zlk_e_ok);
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(length, 0u);

    EXPECT_EQ(zlk_blob_put(c.h, "b", nullptr, 1, 0), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got NULL blob with size > 0"));
    EXPECT_EQ(zlk_blob_get(c.h, "empty", nullptr, &length), zlk_e_invalid_argument);
    EXPECT_EQ(zlk_blob_get_noalloc(c.h, "empty", nullptr, &length), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got NULL blob destination"));
    EXPECT_EQ(zlk_blob_get_noalloc(c.h, "empty", &length, nullptr), zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got NULL blob length"));
}

TEST_P(blobs, reserved_aliases_are_refused_for_writes_but_may_be_read)
{
    const char reserved[] = "\xC0\x80sys";
    EXPECT_EQ(zlk_blob_put(c.h, reserved, "x", 1, 0), zlk_e_reserved_alias);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got alias with reserved alias name"));
    zlk_error_t status = 0;
    c.get(reserved, &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
    EXPECT_EQ(zlk_blob_put(c.h, "", "x", 1, 0), zlk_e_invalid_argument);
    const std::string too_long(1025, 'x');
    EXPECT_EQ(zlk_blob_put(c.h, too_long.c_str(), "x", 1, 0), zlk_e_alias_too_long);
}

TEST_P(blobs, update_creates_then_replaces)
{
    EXPECT_EQ(zlk_blob_update(c.h, "u", "one", 3, 0), zlk_e_ok_created);
    EXPECT_EQ(zlk_blob_update(c.h, "u", "two!", 4, 0), zlk_e_ok);
    EXPECT_EQ(c.get("u"), bytes("two!"));
}

TEST_P(blobs, compressible_content_survives_both_ways_and_reads_the_same_without_compression)
{
    std::vector<std::uint8_t> zeros(4096, 0);
    ASSERT_EQ(zlk_blob_put(c.h, "zeros", zeros.data(), zeros.size(), 0), zlk_e_ok);
    EXPECT_EQ(c.get("zeros"), zeros);
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_none), zlk_e_ok);
    EXPECT_EQ(c.get("zeros"), zeros);

    // Random bytes don't shrink: they go raw although compression is on.
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_fast), zlk_e_ok);
    std::mt19937 gen(7);
    std::vector<std::uint8_t> noise(1000);
    for (auto & b : noise)
    {
        b = static_cast<std::uint8_t>(gen());
    }
    ASSERT_EQ(zlk_blob_put(c.h, "noise", noise.data(), noise.size(), 0), zlk_e_ok);
    EXPECT_EQ(c.get("noise"), noise);
}

// Far more than a socket takes at once, both ways: the node writes what fits, then the rest as the
// client reads.
TEST_P(blobs, content_larger_than_socket_buffers_round_trips)
{
    std::mt19937_64 gen(11);
    std::vector<std::uint8_t> large((24u << 20) + 5);
    for (std::size_t i = 0; i + 8 <= large.size(); i += 8)
    {
        const std::uint64_t w = gen();
        std::memcpy(large.data() + i, &w, 8);
    }
    ASSERT_EQ(zlk_blob_put(c.h, "large", large.data(), large.size(), 0), zlk_e_ok);
    EXPECT_TRUE(c.get("large") == large);
    EXPECT_EQ(c.get("missing-after-large").size(), 0u);
}

TEST_P(blobs, stored_content_that_merely_begins_with_the_compression_mark_comes_back_unchanged)
{
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_none), zlk_e_ok);
    // "BB", then a length of 0; then "BB" with a length the rest doesn't decompress to.
    const std::vector<std::uint8_t> zero_length = {0x42, 0x42, 0, 0, 0, 0, 1, 2, 3};
    const std::vector<std::uint8_t> bad_block = {0x42, 0x42, 100, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    ASSERT_EQ(zlk_blob_put(c.h, "bb0", zero_length.data(), zero_length.size(), 0), zlk_e_ok);
    ASSERT_EQ(zlk_blob_put(c.h, "bb1", bad_block.data(), bad_block.size(), 0), zlk_e_ok);
    EXPECT_EQ(c.get("bb0"), zero_length);
    EXPECT_EQ(c.get("bb1"), bad_block);
}

TEST_P(blobs, get_noalloc_copies_or_says_how_much_room_it_needs)
{
    std::vector<std::uint8_t> big(300, 'q');
    ASSERT_EQ(zlk_blob_put(c.h, "n", big.data(), big.size(), 0), zlk_e_ok);
    std::vector<std::uint8_t> out(10);
    size_t length = out.size();
    EXPECT_EQ(zlk_blob_get_noalloc(c.h, "n", out.data(), &length), zlk_e_buffer_too_small);
    EXPECT_EQ(length, big.size());
    out.resize(length);
    EXPECT_EQ(zlk_blob_get_noalloc(c.h, "n", out.data(), &length), zlk_e_ok);
    EXPECT_EQ(out, big);
}

TEST_P(blobs, compare_and_swap_swaps_on_a_match_and_hands_out_the_stored_content_otherwise)
{
    ASSERT_EQ(zlk_blob_put(c.h, "cas", "old", 3, 0), zlk_e_ok);
    const void * original = nullptr;
    size_t length = 0;
    EXPECT_EQ(zlk_blob_compare_and_swap(c.h, "cas", "new", 3, "nope", 4, 0, &original, &length),
              zlk_e_unmatched_content);
    ASSERT_EQ(length, 3u);
    EXPECT_EQ(std::memcmp(original, "old", 3), 0);
    zlk_release(c.h, original);
    EXPECT_EQ(zlk_blob_compare_and_swap(c.h, "cas", "new", 3, "old", 3, 0, &original, &length), zlk_e_ok);
    EXPECT_EQ(original, nullptr);
    EXPECT_EQ(c.get("cas"), bytes("new"));
    EXPECT_EQ(zlk_blob_compare_and_swap(c.h, "nothing", "new", 3, "old", 3, 0, &original, &length),
              zlk_e_alias_not_found);
    EXPECT_EQ(zlk_blob_compare_and_swap(c.h, "cas", "new", 3, nullptr, 3, 0, &original, &length),
              zlk_e_invalid_argument);
    EXPECT_THAT(c.last_error_text(), HasSubstr("Got NULL comparand with size > 0"));
}

TEST_P(blobs, the_reads_that_write_give_the_old_content)
{
    ASSERT_EQ(zlk_blob_put(c.h, "g", "first", 5, 0), zlk_e_ok);
    const void * old = nullptr;
    size_t length = 0;
    ASSERT_EQ(zlk_blob_get_and_update(c.h, "g", "second", 6, 0, &old, &length), zlk_e_ok);
    EXPECT_EQ(std::string(static_cast<const char *>(old), length), "first");
    zlk_release(c.h, old);

    ASSERT_EQ(zlk_blob_get_and_remove(c.h, "g", &old, &length), zlk_e_ok);
    EXPECT_EQ(std::string(static_cast<const char *>(old), length), "second");
    zlk_release(c.h, old);
    EXPECT_EQ(zlk_blob_get_and_remove(c.h, "g", &old, &length), zlk_e_alias_not_found);
    EXPECT_EQ(old, nullptr);
}

TEST_P(blobs, remove_if_removes_only_on_a_match)
{
    std::vector<std::uint8_t> zeros(500, 0);
    ASSERT_EQ(zlk_blob_put(c.h, "r", zeros.data(), zeros.size(), 0), zlk_e_ok);
    EXPECT_EQ(zlk_blob_remove_if(c.h, "r", "x", 1), zlk_e_unmatched_content);
    // The comparand goes compressed as the content went: both forms stand for the same bytes.
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_none), zlk_e_ok);
    EXPECT_EQ(zlk_blob_remove_if(c.h, "r", zeros.data(), zeros.size()), zlk_e_ok);
    zlk_error_t status = 0;
    c.get("r", &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
}

TEST_P(blobs, blob_operations_on_an_integer_meet_an_incompatible_type)
{
    ASSERT_EQ(zlk_int_put(c.h, "i", 5, 0), zlk_e_ok);
    zlk_error_t status = 0;
    c.get("i", &status);
    EXPECT_EQ(status, zlk_e_incompatible_type);
    EXPECT_EQ(zlk_blob_update(c.h, "i", "x", 1, 0), zlk_e_incompatible_type);
}

TEST(entry_size_limit, content_beyond_the_nodes_limit_is_refused_and_stores_nothing)
{
    node::cluster_options options;
    auto registry = std::make_shared<node::operation_registry>();
    node::add_entry_operations(*registry, std::make_shared<node::entry_store>(node::entry_store_limits{16}));
    options.operations = registry;
    connected_cluster c(1, options);
    ASSERT_EQ(zlk_option_set_compression(c.h, zlk_comp_none), zlk_e_ok);
    const std::string fits(16, 'a');
    const std::string too_big(17, 'a');
    EXPECT_EQ(zlk_blob_put(c.h, "fits", fits.data(), fits.size(), 0), zlk_e_ok);
    EXPECT_EQ(zlk_blob_put(c.h, "big", too_big.data(), too_big.size(), 0), zlk_e_entry_too_large);
    zlk_error_t status = 0;
    c.get("big", &status);
    EXPECT_EQ(status, zlk_e_alias_not_found);
}

} // namespace
} // namespace zlk::entries_test
