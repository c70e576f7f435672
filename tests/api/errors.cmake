zlk_test(NAME test_errors SOURCES test_errors.cpp LINK zlk_errors LABELS unit)
# The test reads the public header to check that every status it declares has a text of its own.
target_compile_definitions(test_errors PRIVATE ZLK_ERROR_HEADER="${PROJECT_SOURCE_DIR}/include/zlk/error.h")
