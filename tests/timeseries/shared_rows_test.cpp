// A chunk keeps the offsets of its columns once while rows set each column at most once. Whatever the
// caller does (columns set twice, skipped or added late, pinned columns, rows out of order or across
// shards and chunk limits), the staged columns must be exactly those of a writer whose columns all
// keep offsets of their own.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "staging_test_support.hpp"
#include "timeseries/table_writer.hpp"

namespace zlk::timeseries
{
namespace
{

using kernel::column_type;

constexpr std::int64_t shard_ms = 1000;

column_entry entry(std::string column, column_type type, std::uint64_t index)
{
    return staging_test::entry("t", std::move(column), type, index, shard_ms);
}

using staging_test::at_ms;

// Runs the same calls on a writer left to share rows and on one whose chunks never do.
struct writer_pair
{
    // A small chunk limit, so that shards take several chunks.
    table_writer shared{"t", shard_ms, 4000};
    table_writer own{"t", shard_ms, 4000};

    void add_column(const column_entry & e)
    {
        shared.add_column(e);
        own.add_column(e);
    }

    void start_row(std::int64_t ms)
    {
        ASSERT_EQ(shared.start_row(at_ms(ms)), own.start_row(at_ms(ms)));
        own.unshare_current();
    }

    void set(std::size_t position, std::int64_t v)
    {
        const auto one = [&](table_writer & w)
        {
            switch (position % 3)
            {
            case 0:
                return w.set_double(position, static_cast<double>(v));
            case 1:
                return w.set_int64(position, v);
            default:
                return w.set_timestamp(position, timespec{v, 0});
            }
        };
        ASSERT_EQ(one(shared), one(own));
    }

    // A pinned double column (position 0) of `count` rows at ms.
    void pin(std::int64_t ms, std::size_t count, std::int64_t v)
    {
        for (table_writer * w : {&shared, &own})
        {
            ASSERT_EQ(w->select_chunk(at_ms(ms)), zlk_e_ok);
            double_payload * p = w->pin<double_payload>(0, count);
            ASSERT_NE(p, nullptr);
            for (std::size_t i = 0; i < count; ++i)
            {
                p->offsets[i] = static_cast<std::int64_t>(i) * 1000;
                p->values[i] = static_cast<double>(v + static_cast<std::int64_t>(i));
            }
        }
    }
};

void expect_same_staging(const table_writer & actual, const table_writer & expected)
{
    EXPECT_EQ(actual.approx_size(), expected.approx_size());
    ASSERT_EQ(actual.shards().size(), expected.shards().size());
    for (const auto & [start, chunks] : expected.shards())
    {
        const chunk_list & other = actual.shards().at(start);
        ASSERT_EQ(other.size(), chunks.size()) << "shard " << start;
        for (std::size_t k = 0; k < chunks.size(); ++k)
        {
            const shard_chunk & e = *chunks[k];
            const shard_chunk & a = *other[k];
            ASSERT_EQ(a.columns.size(), e.columns.size());
            for (std::size_t c = 0; c < e.columns.size(); ++c)
            {
                const auto ao = a.offsets_of(a.columns[c]);
                const auto eo = e.offsets_of(e.columns[c]);
                EXPECT_EQ(std::vector<std::int64_t>(ao.begin(), ao.end()),
                          std::vector<std::int64_t>(eo.begin(), eo.end()))
                    << "shard " << start << " chunk " << k << " column " << c;
                std::visit(
                    [&](const auto & ep)
                    {
                        const auto & ap = std::get<std::decay_t<decltype(ep)>>(a.columns[c].payload);
                        ASSERT_EQ(ap.values.size(), ep.values.size()) << "column " << c;
                        if (ep.values.empty())
                        {
                            return;
                        }
                        EXPECT_EQ(std::memcmp(ap.values.data(), ep.values.data(),
                                              ep.values.size() * sizeof(ep.values[0])),
                                  0)
                            << "shard " << start << " chunk " << k << " column " << c;
                    },
                    e.columns[c].payload);
            }
        }
    }
}

TEST(shared_rows, rows_that_set_each_column_once_keep_one_offsets_vector_and_stage_alike)
{
    writer_pair w;
    for (std::size_t c = 0; c < 3; ++c)
    {
        w.add_column(entry("c" + std::to_string(c),
                           c == 0   ? column_type::double_
                           : c == 1 ? column_type::int64
                                    : column_type::timestamp,
                           c));
    }
    for (std::int64_t r = 0; r < 50; ++r)
    {
        w.start_row(r * 7);
        w.set(0, r);
        if (r % 3 != 0)
        {
            w.set(1, r); // skipped now and then: a filler
        }
        w.set(2, r);
    }
    EXPECT_TRUE(w.shared.current_chunk()->shared_rows);
    EXPECT_TRUE(w.shared.current_chunk()->columns[0].payload.index() == 0);
    w.shared.finish(false);
    w.own.finish(false);
    expect_same_staging(w.shared, w.own);
}

// A pinned column selects another shard's chunk in the middle of a row: the row left open is closed
// when its chunk is current again, even by a row that sets nothing.
TEST(shared_rows, a_row_left_open_by_a_pinned_column_is_filled_later)
{
    writer_pair w;
    w.add_column(entry("a", column_type::double_, 0));
    w.add_column(entry("b", column_type::int64, 1));
    w.start_row(10);
    w.set(1, 5);
    w.pin(1500, 2, 7);
    w.start_row(20);
    w.start_row(30);
    w.set(0, 6);
    w.shared.finish(false);
    w.own.finish(false);
    expect_same_staging(w.shared, w.own);
}

TEST(shared_rows, any_sequence_of_calls_stages_as_with_offsets_of_their_own)
{
    std::mt19937_64 random(112233);
    for (int round = 0; round < 300; ++round)
    {
        writer_pair w;
        std::size_t columns = 1 + random() % 3;
        for (std::size_t c = 0; c < columns; ++c)
        {
            w.add_column(entry("c" + std::to_string(c),
                               c % 3 == 0   ? column_type::double_
                               : c % 3 == 1 ? column_type::int64
                                            : column_type::timestamp,
                               c));
        }
        std::int64_t now = static_cast<std::int64_t>(random() % 3000) - 1500;
        for (int step = 0; step < 60; ++step)
        {
            const auto what = random() % 100;
            if (what < 2 && columns < 5)
            {
                w.add_column(entry("c" + std::to_string(columns),
                                   columns % 3 == 0   ? column_type::double_
                                   : columns % 3 == 1 ? column_type::int64
                                                      : column_type::timestamp,
                                   columns));
                ++columns;
            }
            else if (what < 4)
            {
                w.pin(now, 1 + random() % 4, step);
            }
            else if (what < 6)
            {
                w.shared.finish(false);
                w.own.finish(false);
                expect_same_staging(w.shared, w.own);
            }
            else
            {
                // Mostly forward, at times back, now and then into another shard.
                now += static_cast<std::int64_t>(random() % 40) - (random() % 8 == 0 ? 60 : 0);
                w.start_row(now);
                const std::size_t sets = random() % (columns + 2);
                for (std::size_t s = 0; s < sets; ++s)
                {
                    w.set(random() % columns, step * 10 + static_cast<std::int64_t>(s));
                }
            }
            if (testing::Test::HasFailure())
            {
                FAIL() << "round " << round << " step " << step;
            }
        }
        w.shared.finish(false);
        w.own.finish(false);
        expect_same_staging(w.shared, w.own);
        if (testing::Test::HasFailure())
        {
            FAIL() << "round " << round;
        }
    }
}

} // namespace
} // namespace zlk::timeseries
