# The cost of the call frame around a trivial exported function (target: under 50 ns, no allocation).
add_executable(bench_frame bench_frame.cpp)
target_link_libraries(bench_frame PRIVATE zlk_api zlk_bench_support)
