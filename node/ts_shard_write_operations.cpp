#include "node/ts_operations.hpp"

namespace zlk::node
{

void add_ts_shard_write_operations(operation_registry &, const ts_context &) {}

} // namespace zlk::node
