// Columns of a shard write that share one offsets vector must read exactly as if each had its own:
// a write or an erasure that reaches only some of them must leave the others as they were.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "base/error_categories.hpp"
#include "node/ts_store.hpp"

namespace zlk::node
{
namespace
{

using kernel::column_type;

// A column of a shard write, owning the bytes the request would carry.
struct written_column
{
    std::uint64_t index;
    column_type type;
    std::vector<std::uint8_t> offsets;
    std::vector<std::uint8_t> values;
};

written_column column_of(std::uint64_t index, const std::vector<std::int64_t> & offsets,
                         std::int64_t first_value)
{
    // Columns 0 and 1 hold doubles, 2 int64, 3 timestamps.
    const column_type type = index < 2    ? column_type::double_
                             : index == 2 ? column_type::int64
                                          : column_type::timestamp;
    written_column c{index, type, std::vector<std::uint8_t>(offsets.size() * 8), {}};
    if (!offsets.empty())
    {
        std::memcpy(c.offsets.data(), offsets.data(), c.offsets.size());
    }
    for (std::size_t i = 0; i < offsets.size(); ++i)
    {
        const std::int64_t v = first_value + static_cast<std::int64_t>(i);
        std::uint8_t element[16];
        if (type == column_type::double_)
        {
            const double d = static_cast<double>(v);
            std::memcpy(element, &d, 8);
        }
        else
        {
            std::memcpy(element, &v, 8);
            std::memcpy(element + 8, &v, 8);
        }
        c.values.insert(c.values.end(), element, element + (type == column_type::timestamp ? 16 : 8));
    }
    return c;
}

std::vector<ts_received_column> as_received(const std::vector<written_column> & columns)
{
    std::vector<ts_received_column> out;
    for (const auto & c : columns)
    {
        out.push_back({c.index, c.type, c.offsets, ts_incoming_values{c.values, {}}});
    }
    return out;
}

// Each column merged on its own, the way a column insert does it.
boost::system::error_code merge_one_by_one(ts_bucket & b, const std::vector<written_column> & columns)
{
    for (const auto & c : columns)
    {
        if (auto ec = b.merge_received(c.index, c.type, c.offsets, ts_incoming_values{c.values, {}}))
        {
            return ec;
        }
    }
    return {};
}

void expect_same_rows(const ts_bucket & actual, const ts_bucket & expected)
{
    ASSERT_EQ(actual.columns.size(), expected.columns.size());
    for (const auto & [index, e] : expected.columns)
    {
        const ts_column_data & a = actual.columns.at(index);
        EXPECT_EQ(a.offsets, e.offsets) << "column " << index;
        EXPECT_EQ(a.doubles, e.doubles) << "column " << index;
        EXPECT_EQ(a.integers, e.integers) << "column " << index;
        ASSERT_EQ(a.timestamps.size(), e.timestamps.size()) << "column " << index;
        for (std::size_t i = 0; i < a.timestamps.size(); ++i)
        {
            EXPECT_EQ(a.timestamps[i].tv_sec, e.timestamps[i].tv_sec) << "column " << index << " row " << i;
        }
    }
}

TEST(ts_shared_offsets, columns_written_together_share_until_one_is_written_alone)
{
    ts_bucket b;
    const std::vector<std::int64_t> first{1, 2, 2, 5};
    ASSERT_FALSE(b.merge_received(as_received({column_of(0, first, 0), column_of(1, first, 10),
                                               column_of(2, first, 20), column_of(3, first, 30)})));
    const std::vector<std::int64_t> second{5, 9};
    ASSERT_FALSE(b.merge_received(as_received({column_of(0, second, 4), column_of(1, second, 14),
                                               column_of(2, second, 24), column_of(3, second, 34)})));
    for (std::uint64_t i = 1; i < 4; ++i)
    {
        EXPECT_TRUE(b.columns.at(i).offsets.shares_with(b.columns.at(0).offsets));
    }
    EXPECT_EQ(b.columns.at(2).offsets, (std::vector<std::int64_t>{1, 2, 2, 5, 5, 9}));
    EXPECT_EQ(b.columns.at(2).integers, (std::vector<std::int64_t>{20, 21, 22, 23, 24, 25}));

    // Column 0 alone: its rows grow, the three others keep theirs and still share them.
    ASSERT_FALSE(b.merge_received(as_received({column_of(0, {12}, 6)})));
    EXPECT_EQ(b.columns.at(0).offsets, (std::vector<std::int64_t>{1, 2, 2, 5, 5, 9, 12}));
    EXPECT_EQ(b.columns.at(1).offsets, (std::vector<std::int64_t>{1, 2, 2, 5, 5, 9}));
    EXPECT_TRUE(b.columns.at(3).offsets.shares_with(b.columns.at(1).offsets));
    EXPECT_FALSE(b.columns.at(0).offsets.shares_with(b.columns.at(1).offsets));

    // An erasure of the whole bucket cuts each group once and keeps it shared; one of one column
    // leaves the others alone.
    EXPECT_EQ(b.erase_between(2, 6), 4u * 4u);
    EXPECT_EQ(b.columns.at(0).offsets, (std::vector<std::int64_t>{1, 9, 12}));
    EXPECT_EQ(b.columns.at(3).offsets, (std::vector<std::int64_t>{1, 9}));
    EXPECT_TRUE(b.columns.at(3).offsets.shares_with(b.columns.at(1).offsets));
    EXPECT_EQ(b.columns.at(1).erase_between(0, 2), 1u);
    EXPECT_EQ(b.columns.at(1).offsets, (std::vector<std::int64_t>{9}));
    EXPECT_EQ(b.columns.at(2).offsets, (std::vector<std::int64_t>{1, 9}));
    EXPECT_EQ(b.columns.at(2).integers, (std::vector<std::int64_t>{20, 25}));
}

// Random shard writes (some columns, sometimes one twice or with rows of its own, in order or not)
// and erasures, against the same applied column by column.
TEST(ts_shared_offsets, any_mix_of_writes_and_erasures_reads_as_column_by_column)
{
    std::mt19937_64 random(20261123);
    for (int round = 0; round < 200; ++round)
    {
        ts_bucket grouped;
        ts_bucket reference;
        std::int64_t next_offset = 0;
        std::int64_t next_value = 0;
        for (int step = 0; step < 12; ++step)
        {
            if (random() % 5 == 0)
            {
                const std::int64_t begin = static_cast<std::int64_t>(random() % 60) - 5;
                const std::int64_t end = begin + static_cast<std::int64_t>(random() % 20);
                if (random() % 3 == 0)
                {
                    const std::uint64_t index = random() % 4;
                    std::size_t a = 0;
                    std::size_t e = 0;
                    if (auto it = grouped.columns.find(index); it != grouped.columns.end())
                    {
                        a = it->second.erase_between(begin, end);
                        e = reference.columns.at(index).erase_between(begin, end);
                    }
                    EXPECT_EQ(a, e);
                }
                else
                {
                    std::size_t e = 0;
                    for (auto & [index, column] : reference.columns)
                    {
                        e += column.erase_between(begin, end);
                    }
                    EXPECT_EQ(grouped.erase_between(begin, end), e);
                }
            }
            else
            {
                const std::size_t rows = random() % 5;
                std::vector<std::int64_t> offsets;
                const bool in_order = random() % 4 != 0;
                for (std::size_t i = 0; i < rows; ++i)
                {
                    next_offset += static_cast<std::int64_t>(random() % 3);
                    offsets.push_back(in_order ? next_offset : static_cast<std::int64_t>(random() % 50));
                }
                std::vector<written_column> write;
                for (std::uint64_t index = 0; index < 4; ++index)
                {
                    const auto pick = random() % 6;
                    if (pick == 0)
                    {
                        continue;
                    }
                    if (pick == 1)
                    {
                        // Rows of its own.
                        write.push_back(column_of(index, {next_offset + 1}, next_value));
                    }
                    else
                    {
                        write.push_back(column_of(index, offsets, next_value));
                    }
                    if (pick == 2)
                    {
                        write.push_back(column_of(index, offsets, next_value + 100));
                    }
                    next_value += 1000;
                }
                std::shuffle(write.begin(), write.end(), random);
                EXPECT_EQ(grouped.merge_received(as_received(write)), merge_one_by_one(reference, write));
            }
            expect_same_rows(grouped, reference);
            if (testing::Test::HasFailure())
            {
                FAIL() << "round " << round << " step " << step;
            }
        }
    }
}

// Writes large enough to be copied on several threads, into an empty bucket and after stored rows.
TEST(ts_shared_offsets, large_writes_land_whole)
{
    ts_bucket grouped;
    ts_bucket reference;
    std::int64_t start = 0;
    for (const std::size_t rows : {std::size_t{700000}, std::size_t{300001}})
    {
        std::vector<std::int64_t> offsets(rows);
        for (std::size_t i = 0; i < rows; ++i)
        {
            offsets[i] = start + static_cast<std::int64_t>(i / 3);
        }
        start = offsets.back();
        const std::vector<written_column> write{column_of(0, offsets, 0), column_of(3, offsets, 1 << 20),
                                                column_of(1, offsets, 1 << 21)};
        ASSERT_FALSE(grouped.merge_received(as_received(write)));
        ASSERT_FALSE(merge_one_by_one(reference, write));
    }
    expect_same_rows(grouped, reference);
    EXPECT_TRUE(grouped.columns.at(3).offsets.shares_with(grouped.columns.at(1).offsets));
}

TEST(ts_shared_offsets, a_column_of_another_type_fails_without_stopping_the_shared_ones_before_it)
{
    ts_bucket b;
    const std::vector<std::int64_t> rows{1, 2};
    ASSERT_FALSE(b.merge_received(as_received({column_of(0, rows, 0), column_of(1, rows, 10)})));
    const std::vector<written_column> columns{column_of(0, {3}, 2), column_of(1, {3}, 12)};
    auto write = as_received(columns);
    write[1].type = column_type::int64;
    EXPECT_EQ(b.merge_received(write), make_error_code(kernel::error::incompatible_type));
    EXPECT_EQ(b.columns.at(0).offsets, (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(b.columns.at(1).offsets, (std::vector<std::int64_t>{1, 2}));
    EXPECT_EQ(b.columns.at(1).doubles, (std::vector<double>{10, 11}));
}

} // namespace
} // namespace zlk::node
