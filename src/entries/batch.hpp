// Batches of operation records (zlk_operation_t): preparation into requests, grouping by the node that
// owns each key, and the reading of the replies into per-record results. The exported functions copy
// the results into the caller's records and track what they hand out.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "entries/entry_requests.hpp"
#include "network/received_buffer.hpp"
#include "ring/routing.hpp"
#include "zlk/batch.h"

namespace zlk::client
{

// One record made ready to send.
struct batch_item
{
    std::size_t index = 0;
    chord::ring_id key{};
    std::uint16_t required_access = 0;
    protocol::operation_body body;
    // Compressed content and comparand, held until the reply is in.
    outgoing_content first;
    outgoing_content second;
};

// What the reply of one record brought.
struct batch_result
{
    zlk_error_t status = zlk_e_operation_skipped;
    // Content, when the kind hands content out: decompressed into `decompressed`, or else a view of
    // the received reply (`view`), which `frame` keeps alive.
    std::vector<std::uint8_t> decompressed;
    std::span<const std::uint8_t> view;
    std::shared_ptr<const received_buffer> frame;
    std::uint64_t value = 0;
};

// Checks and builds one record. The status is what goes into the record on failure; `access` is or'ed
// into the carrier's access (a transaction's 0x20).
zlk_error_t prepare_batch_record(const zlk_operation_t & op, std::size_t index, bool compress,
                                 std::uint16_t access, batch_item & out);

// Whether the kind hands content back (blob get, compare and swap, get and update).
bool kind_has_content(zlk_operation_type_t type) noexcept;

// The node groups of the prepared items, in the order of the nodes' ids; client ids are the items'
// positions, and every carrier holds `transaction` (zero outside one). zlk_e_unstable_cluster when a key
// has no owner in the map.
zlk_error_t group_batch(chord::cluster & c, const std::vector<batch_item> & items,
                        std::vector<node_group> & groups, const zlk::uuid & transaction = {});

// The order of n groups: a Fisher-Yates walk driven by s = s * 214013 + 2531011, rejecting draws beyond
// the needed power-of-two mask.
void shuffle_groups(std::vector<node_group> & groups, std::atomic<std::uint64_t> & state) noexcept;

// Sends the groups and reads each reply into results[item index], the kind of which is types[index]. The
// first failure of a send, or 0; records of a group that failed as a whole get its status.
zlk_error_t run_batch_groups(chord::cluster & c, std::vector<node_group> & groups,
                             std::vector<batch_result> & results,
                             const std::vector<zlk_operation_type_t> & types);

// Reads one reply of a record into its result: the translated status, the content (decompressed, or a
// view into `frame`, the received reply that holds it), the value; zlk_e_ok_created for an update that
// created.
void read_batch_reply(zlk_operation_type_t type, const protocol::result & reply,
                      const std::shared_ptr<received_buffer> & frame, batch_result & out);

} // namespace zlk::client
