# Tests of table metadata, shard addressing, column requests and aggregates.
zlk_test(NAME test_ts_addressing
    SOURCES
        bucket_test.cpp
        pod_vector_test.cpp
        ts_messages_test.cpp
    LINK zlk_timeseries
    LABELS unit)

zlk_test(NAME test_ts_tables
    SOURCES
        table_test.cpp
        column_test.cpp
    LINK zlk_api zlk_node_core
    LABELS cluster)
