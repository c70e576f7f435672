# bench_ts_writer: row staging of the batch table writer (through the C setters and through the staging
# alone) and zlk_ts_batch_push of ten million rows to a one-node ring.
add_executable(bench_ts_writer ${CMAKE_CURRENT_LIST_DIR}/bench_ts_writer.cpp)
target_link_libraries(bench_ts_writer PRIVATE zlk_api zlk_node_core zlk_bench_support)
