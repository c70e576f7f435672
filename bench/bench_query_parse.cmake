# The query parser: typical statements from text to records, with the allocations each costs.
add_executable(bench_query_parse ${CMAKE_CURRENT_LIST_DIR}/bench_query_parse.cpp)
target_link_libraries(bench_query_parse PRIVATE zlk_query_grammar zlk_bench_support)
