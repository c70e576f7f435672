# The logger: the cost of a log call below and above the minimum level (no allocation per call).
add_executable(bench_log ${CMAKE_CURRENT_LIST_DIR}/bench_log.cpp)
target_link_libraries(bench_log PRIVATE zlk_log zlk_bench_support)
