# bench_ring: the ring map's look-up from its cache, and a routed synchronous no-op against a one-node
# zlkd next to a bare blocking ping-pong of the same frame with the same node.
add_executable(bench_ring ${CMAKE_CURRENT_LIST_DIR}/bench_ring.cpp)
target_link_libraries(bench_ring PRIVATE zlk_api zlk_node_core benchmark::benchmark)
# It replaces operator new/delete with malloc/free to count allocations; GCC takes the pairing for a
# mismatch once they are inlined.
target_compile_options(bench_ring PRIVATE -Wno-mismatched-new-delete)
