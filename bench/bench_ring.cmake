# bench_ring: the ring map's look-up from its cache, and a routed synchronous no-op against a one-node
# zlkd next to a bare blocking ping-pong of the same frame with the same node.
add_executable(bench_ring ${CMAKE_CURRENT_LIST_DIR}/bench_ring.cpp)
target_include_directories(bench_ring PRIVATE ${PROJECT_SOURCE_DIR}/tests/network)
target_link_libraries(bench_ring PRIVATE zlk_api zlk_node_core zlk_bench_support)
