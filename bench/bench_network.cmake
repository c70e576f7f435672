# bench_network: a synchronous exchange over loopback next to a bare blocking-socket ping-pong of the
# same sizes, the bare ping-pong on 32 threads against an epoll responder, and the broker's pool-hit path.
add_executable(bench_network
    ${CMAKE_CURRENT_LIST_DIR}/bench_network.cpp
    ${PROJECT_SOURCE_DIR}/tests/network/scripted_peer.cpp
    ${CMAKE_CURRENT_LIST_DIR}/support/epoll_responder.cpp)
target_include_directories(bench_network PRIVATE ${PROJECT_SOURCE_DIR}/tests/network)
target_link_libraries(bench_network PRIVATE zlk_network zlk_bench_support)
