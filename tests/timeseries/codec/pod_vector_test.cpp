#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "timeseries/codec/pod_vector.hpp"

namespace zlk::timeseries
{

namespace
{

// Far past the size at which the storage becomes a mapping of its own, so that growth by the kernel
// is exercised as well as growth on the heap.
constexpr std::size_t many = 3'000'000;

TEST(pod_vector, keeps_every_element_through_growth_from_heap_to_mapping)
{
    pod_vector<std::int64_t> v;
    std::vector<std::int64_t> expected;
    for (std::size_t i = 0; i < many; ++i)
    {
        v.push_back(static_cast<std::int64_t>(i * 7));
        expected.push_back(static_cast<std::int64_t>(i * 7));
        ASSERT_LE(v.size(), v.capacity());
    }
    EXPECT_EQ(v, expected);
    // Growth by half: the capacity stays within 1.5 times the size (and a page).
    EXPECT_LE(v.capacity(), v.size() + v.size() / 2 + 4096);
}

TEST(pod_vector, bulk_appends_inserts_and_erases_move_the_tail)
{
    pod_vector<double> v{1.0, 2.0, 3.0};
    const std::vector<double> middle{9.0, 8.0};
    v.insert(v.begin() + 1, middle.begin(), middle.end());
    EXPECT_EQ(v, (std::vector<double>{1.0, 9.0, 8.0, 2.0, 3.0}));
    v.erase(v.begin(), v.begin() + 2);
    EXPECT_EQ(v, (std::vector<double>{8.0, 2.0, 3.0}));
    double * tail = v.extend_uninitialized(2);
    tail[0] = 4.0;
    tail[1] = 5.0;
    EXPECT_EQ(v, (std::vector<double>{8.0, 2.0, 3.0, 4.0, 5.0}));
    // A range taken from the vector itself survives the move of its storage.
    v.insert(v.end(), v.begin(), v.end());
    EXPECT_EQ(v, (std::vector<double>{8.0, 2.0, 3.0, 4.0, 5.0, 8.0, 2.0, 3.0, 4.0, 5.0}));
    v.push_back(v[0]);
    EXPECT_EQ(v.back(), 8.0);
}

TEST(pod_vector, resize_zeroes_new_elements_and_copies_are_deep)
{
    pod_vector<std::int64_t> v(many);
    std::iota(v.begin(), v.end(), 0);
    pod_vector<std::int64_t> copy = v;
    v.resize(10);
    v.resize(20);
    EXPECT_EQ(v[9], 9);
    EXPECT_EQ(v[10], 0);
    EXPECT_EQ(v[19], 0);
    ASSERT_EQ(copy.size(), many);
    EXPECT_EQ(copy[many - 1], static_cast<std::int64_t>(many - 1));

    pod_vector<std::int64_t> moved = std::move(copy);
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(moved.size(), many);
    moved.assign(3, 5);
    EXPECT_EQ(moved, (std::vector<std::int64_t>{5, 5, 5}));
    moved.clear();
    EXPECT_TRUE(moved.empty());
}

} // namespace

} // namespace zlk::timeseries
