#include "node/read_mostly.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace zlk::node
{
namespace
{

TEST(ReadMostlyTest, AReplacementShowsOnEveryThreadWhileHeldValuesStay)
{
    read_mostly<int> cell(std::make_shared<const int>(1));
    const std::shared_ptr<const int> first = cell.get();
    EXPECT_EQ(*cell.get(), 1);

    cell.set(std::make_shared<const int>(2));
    EXPECT_EQ(*cell.get(), 2);
    EXPECT_EQ(*first, 1) << "a value handed out stays valid after its replacement";

    int seen_elsewhere = 0;
    std::thread([&] { seen_elsewhere = *cell.get(); }).join();
    EXPECT_EQ(seen_elsewhere, 2);

    cell.set(std::make_shared<const int>(3));
    std::thread([&] { seen_elsewhere = *cell.get(); }).join();
    EXPECT_EQ(seen_elsewhere, 3);
}

TEST(ReadMostlyTest, ManyValuesOnOneThreadEachGiveTheirOwn)
{
    // More than a thread keeps references for, read in turn: a slot taken over must not answer for
    // its former owner.
    std::vector<std::unique_ptr<read_mostly<int>>> cells;
    for (int i = 0; i < 20; ++i)
    {
        cells.push_back(std::make_unique<read_mostly<int>>(std::make_shared<const int>(i)));
    }
    for (int round = 0; round < 3; ++round)
    {
        for (int i = 0; i < 20; ++i)
        {
            ASSERT_EQ(*cells[i]->get(), i + round * 100);
            cells[i]->set(std::make_shared<const int>(i + (round + 1) * 100));
        }
    }
}

TEST(ReadMostlyTest, ANewValueAtAnOldOnesAddressIsNotTakenForIt)
{
    std::optional<read_mostly<int>> cell;
    cell.emplace(std::make_shared<const int>(1));
    EXPECT_EQ(*cell->get(), 1);
    cell.reset();
    cell.emplace(std::make_shared<const int>(2));
    EXPECT_EQ(*cell->get(), 2);
}

TEST(ReadMostlyTest, ReadersOnManyThreadsWhileTheValueIsReplaced)
{
    // Run under ThreadSanitizer: readers copy and drop values while a writer replaces them.
    read_mostly<std::vector<int>> cell(std::make_shared<const std::vector<int>>(16, 0));
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
    {
        readers.emplace_back(
            [&]
            {
                for (int i = 0; i < 20000; ++i)
                {
                    const auto value = cell.get();
                    ASSERT_EQ(value->size(), 16u);
                    ASSERT_EQ(value->front(), value->back()) << "a value is seen whole";
                }
            });
    }
    for (int v = 1; v <= 500; ++v)
    {
        cell.set(std::make_shared<const std::vector<int>>(16, v));
    }
    for (std::thread & r : readers)
    {
        r.join();
    }
    EXPECT_EQ(cell.get()->front(), 500);
}

} // namespace
} // namespace zlk::node
