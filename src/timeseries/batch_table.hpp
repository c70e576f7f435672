// The object behind zlk_batch_table_t: the staging of a batch table, the handle it belongs to, and the
// copies the copying setters made. Owned by the handle's objects tracker ("batch table").
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/time_value.hpp"
#include "timeseries/batch_columns.hpp"

struct zlk_session;

struct zlk_batch_table
{
    // The handle's magic while alive, so that a stale or foreign pointer is caught as a handle's is.
    std::uint64_t magic;
    zlk_session * handle;
    zlk::timespec current_timestamp;
    zlk::timeseries::batch_columns columns;
    // Copies of blob and string values, referenced by the staged rows until a push has succeeded.
    std::vector<std::unique_ptr<std::uint8_t[]>> blob_store;

    zlk_batch_table(std::uint64_t live, zlk_session * h, std::uint64_t max_chunk_size)
        : magic(live)
        , handle(h)
        , columns(max_chunk_size)
    {
    }
    ~zlk_batch_table() { magic = 0; }

    zlk_batch_table(const zlk_batch_table &) = delete;
    zlk_batch_table & operator=(const zlk_batch_table &) = delete;
};
