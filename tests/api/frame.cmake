# The call frame: handles, the last-error record, argument checks, retries, the object tracker,
# options, profiles and the log functions.
zlk_test(NAME test_frame
    SOURCES
        test_argument_checks.cpp
        test_call_frame.cpp
        test_handle.cpp
        test_objects_tracker.cpp
        test_options.cpp
        test_profiles_and_log.cpp
        test_retry_frame.cpp
    LINK zlk_api
    LABELS unit)
target_compile_definitions(test_frame PRIVATE ZLK_EXPECTED_VERSION="${PROJECT_VERSION}")

zlk_test(NAME test_frame_stress SOURCES test_frame_stress.cpp LINK zlk_api LABELS concurrency)
