// The time series operations of a node: tables (create, columns, listing, expiry), column inserts,
// reads, erasure (ts_operations.cpp), aggregates (ts_aggregate_operations.cpp) and shard writes of the
// batch writer (ts_shard_write_operations.cpp). All run over the generation's entry store (table
// schemas) and bucket store.
#pragma once

#include <boost/system/error_code.hpp>

#include <memory>
#include <string_view>

#include "node/entry_store.hpp"
#include "node/operation_table.hpp"
#include "node/ts_store.hpp"

namespace zlk::node
{

struct ts_context
{
    std::shared_ptr<entry_store> entries;
    std::shared_ptr<ts_store> buckets;
};

// Registers every time series operation.
void add_ts_operations(operation_registry & registry, const ts_context & ts);
void add_ts_aggregate_operations(operation_registry & registry, const ts_context & ts);
void add_ts_shard_write_operations(operation_registry & registry, const ts_context & ts);

// The schema of a table by alias: from the local entry store when this node owns the table, else from
// the bucket store's cache or by asking the owner (ts_list_columns). `refresh` skips the cache. Kernel
// code 1 for a table that doesn't exist. Blocks when it asks: only may_wait handlers call it.
boost::system::error_code table_schema(operation_context & ctx, const ts_context & ts, std::string_view table,
                                       bool refresh, std::shared_ptr<const ts_table_schema> & out);

} // namespace zlk::node
