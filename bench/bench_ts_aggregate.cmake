# The node's aggregation of one bucket: hourly count, mean and maximum over ten million rows.
add_executable(bench_ts_aggregate ${CMAKE_CURRENT_LIST_DIR}/bench_ts_aggregate.cpp)
target_link_libraries(bench_ts_aggregate PRIVATE zlk_node_core zlk_bench_support)
