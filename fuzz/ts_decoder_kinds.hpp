// The decoders fuzz_ts_decoders drives, by number: the low five bits of an input's first byte.
// make_ts_corpus writes its seeds with the same numbers.
#pragma once

#include <cstdint>

namespace zlk::fuzz
{

enum decoder : std::uint8_t
{
    create_table = 0,
    insert_columns,
    list_columns,
    table_listing_reply,
    shard_info_request,
    shard_info_reply,
    expire_by_size,
    drop_buckets,
    column_insert,
    erase_ranges,
    get_ranges,
    rows_reply,
    get_timestamps,
    offsets_reply,
    shard_write_message,
    state,
    aggregate_request,
    aggregate_reply,
    alias_list,
    walk_reply,
    decoder_count
};

} // namespace zlk::fuzz
