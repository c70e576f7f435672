# The time series and listing decoders alone, client and node side. Corpus in fuzz/corpus/ts_decoders/.
target_compile_options(zlk_timeseries_objects PRIVATE -fsanitize=fuzzer-no-link)
add_executable(fuzz_ts_decoders ${CMAKE_CURRENT_LIST_DIR}/fuzz_ts_decoders.cpp)
target_compile_options(fuzz_ts_decoders PRIVATE -fsanitize=fuzzer)
target_link_options(fuzz_ts_decoders PRIVATE -fsanitize=fuzzer)
target_link_libraries(fuzz_ts_decoders PRIVATE zlk_timeseries zlk_entries)

# Writes the seeds of fuzz_ts_decoders and the time series seeds of fuzz_node_request (run by hand once).
add_executable(make_ts_corpus ${CMAKE_CURRENT_LIST_DIR}/make_ts_corpus.cpp)
target_link_libraries(make_ts_corpus PRIVATE zlk_timeseries zlk_entries)
