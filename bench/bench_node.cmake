# The node's request path (zlkd): decode, dispatch, encode, in memory.
add_executable(bench_node ${CMAKE_CURRENT_LIST_DIR}/bench_node.cpp)
target_link_libraries(bench_node PRIVATE zlk_node_core benchmark::benchmark)
# It replaces operator new/delete with malloc/free to count allocations; GCC takes the pairing for a
# mismatch once they are inlined.
target_compile_options(bench_node PRIVATE -Wno-mismatched-new-delete)
