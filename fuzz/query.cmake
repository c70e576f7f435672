# The query parser: any text gives a record or a message, never a crash, a hang or a deep recursion.
# Corpus in fuzz/corpus/query_parse/.
target_compile_options(zlk_query_grammar_objects PRIVATE -fsanitize=fuzzer-no-link)
add_executable(fuzz_query_parse ${CMAKE_CURRENT_LIST_DIR}/fuzz_query_parse.cpp)
target_compile_options(fuzz_query_parse PRIVATE -fsanitize=fuzzer)
target_link_options(fuzz_query_parse PRIVATE -fsanitize=fuzzer)
target_link_libraries(fuzz_query_parse PRIVATE zlk_query_grammar)
