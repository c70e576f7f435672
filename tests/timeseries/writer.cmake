# Tests of the batch writer, push modes and the local table.
zlk_test(NAME test_ts_batch_staging
    SOURCES
        batch_staging_test.cpp
        shared_rows_test.cpp
    LINK zlk_timeseries
    LABELS unit)

zlk_test(NAME test_ts_batch_push
    SOURCES
        batch_push_test.cpp
    LINK zlk_api zlk_node_core
    LABELS cluster)

zlk_test(NAME test_ts_local_table
    SOURCES
        local_table_test.cpp
    LINK zlk_api zlk_node_core
    LABELS cluster)
