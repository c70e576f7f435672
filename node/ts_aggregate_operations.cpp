#include "node/ts_operations.hpp"

namespace zlk::node
{

void add_ts_aggregate_operations(operation_registry &, const ts_context &) {}

} // namespace zlk::node
