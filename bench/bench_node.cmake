# The node's request path (zlkd): decode, dispatch, encode, in memory.
add_executable(bench_node ${CMAKE_CURRENT_LIST_DIR}/bench_node.cpp)
target_link_libraries(bench_node PRIVATE zlk_node_core zlk_bench_support)
