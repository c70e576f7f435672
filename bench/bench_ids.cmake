# Ring ids: the alias hash on the request path, Skein-256 throughput, id comparison.
add_executable(bench_ids ${CMAKE_CURRENT_LIST_DIR}/bench_ids.cpp)
target_link_libraries(bench_ids PRIVATE zlk_base benchmark::benchmark)
