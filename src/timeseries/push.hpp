// Sending what a batch table staged. Four modes share the finishing (rows closed, columns sorted, empty
// chunks put aside), the grouping of chunks into sends under the node's input limit, and one carrier per
// node for each send; they differ in the message, and in what a failure does:
//
//   normal, fast  ts_batch_push (fast flag 0 or 1); a send that fails in part empties what succeeded,
//                 so that pushing again sends only the rest;
//   truncate      ts_batch_push_truncate: every chunk carries the part of the ranges inside it, and the
//                 node erases those first; every row must lie in a range;
//   async         ts_batch_push_async: requests a node refused with "try again" are split in halves and
//                 sent again after a growing pause, until the time-out.
//
// After a successful push the writers are reset; a failed push leaves the rows staged.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "ring/cluster.hpp"
#include "timeseries/batch_columns.hpp"
#include "zlk/error.h"
#include "zlk/types.h"

namespace zlk::timeseries
{

enum class push_mode : std::uint8_t
{
    normal,
    fast,
    async,
    truncate,
};

struct push_settings
{
    push_mode mode = push_mode::normal;
    // Bytes a send may carry: cluster_max_in_buf_size * 3 / 4.
    std::uint64_t budget = 0;
    // The handle's generator, which orders the nodes of each send.
    std::atomic<std::uint64_t> * shuffle_state = nullptr;
    // truncate: checked, non-empty ranges.
    std::span<const zlk_ts_range_t> ranges;
    // async: how long the push may spend waiting for nodes that refused, ms.
    std::int64_t async_timeout_ms = 60000;
    // async: the pause between rounds (this_thread::sleep_for when empty).
    std::function<void(std::chrono::milliseconds)> sleep;
};

// Sends the staged rows. zlk_e_invalid_argument for a table without columns and, under truncate, for
// a row outside every range ("No given range covers the row with timestamp {}", thrown as an
// api_exception inside the call frame).
zlk_error_t push(chord::cluster & c, batch_columns & columns, const push_settings & settings);

// "{} B", "{:.2f} KiB", ... with base 1024.
std::string readable_size(std::uint64_t bytes);

// The pauses of the asynchronous push: from 1000 + r to 30000 + r' ms, r and r' drawn in 0..1000 from
// the generator s = s * 214013 + 2531011 (ten bits, above 1000 drawn again).
struct async_delays
{
    std::int64_t min_delay = 1000;
    std::int64_t max_delay = 30000;
};
async_delays draw_async_delays(std::uint64_t seed) noexcept;

} // namespace zlk::timeseries
