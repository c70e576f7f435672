#include "node/ts_operations.hpp"

namespace zlk::node
{

void add_ts_operations(operation_registry & registry, const ts_context & ts)
{
    add_ts_aggregate_operations(registry, ts);
    add_ts_shard_write_operations(registry, ts);
}

} // namespace zlk::node
