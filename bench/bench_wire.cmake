# Wire codec: frame encoding of a small put, reply decoding, varints, content compression.
add_executable(bench_wire ${CMAKE_CURRENT_LIST_DIR}/bench_wire.cpp)
target_link_libraries(bench_wire PRIVATE zlk_wire zlk_bench_support)
