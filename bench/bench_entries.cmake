# bench_entries: synchronous blob get and put through the C interface against a one-node zlkd, next to
# a bare blocking ping-pong of the same get with the same node, and a batch of 10,000 puts over three
# nodes.
add_executable(bench_entries ${CMAKE_CURRENT_LIST_DIR}/bench_entries.cpp)
target_include_directories(bench_entries PRIVATE ${PROJECT_SOURCE_DIR}/tests/network)
target_link_libraries(bench_entries PRIVATE zlk_api zlk_node_core zlk_bench_support)
