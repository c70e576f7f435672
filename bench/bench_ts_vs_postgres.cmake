# bench_ts_vs_postgres: push and hourly aggregation of the same ten million rows in zlk and in PostgreSQL
# (run by scripts/bench-ts-vs-postgres.sh). Built only where libpq is found.
find_package(PostgreSQL QUIET)
if(PostgreSQL_FOUND)
    add_executable(bench_ts_vs_postgres ${CMAKE_CURRENT_LIST_DIR}/bench_ts_vs_postgres.cpp)
    target_link_libraries(bench_ts_vs_postgres PRIVATE zlk::zlk zlk_build_settings PostgreSQL::PostgreSQL)
endif()
