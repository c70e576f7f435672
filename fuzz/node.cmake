# The node's request path (zlkd): header check, decoding, dispatch and reply encoding over arbitrary
# bytes, in memory. Corpus in fuzz/corpus/node_request/.
target_compile_options(zlk_node_core PRIVATE -fsanitize=fuzzer-no-link)
add_executable(fuzz_node_request ${CMAKE_CURRENT_LIST_DIR}/fuzz_node_request.cpp)
target_compile_options(fuzz_node_request PRIVATE -fsanitize=fuzzer)
target_link_options(fuzz_node_request PRIVATE -fsanitize=fuzzer)
target_link_libraries(fuzz_node_request PRIVATE zlk_node_core)
