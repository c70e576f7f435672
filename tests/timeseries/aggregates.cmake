# Tests of aggregation states, aggregate requests and their folding.
zlk_test(NAME test_ts_aggregate_state
    SOURCES
        aggregate_state_test.cpp
    LINK zlk_timeseries
    LABELS unit)

zlk_test(NAME test_ts_aggregate_requests
    SOURCES
        aggregate_requests_test.cpp
    LINK zlk_timeseries zlk_node_core
    LABELS unit)

zlk_test(NAME test_ts_aggregate_cluster
    SOURCES
        aggregate_cluster_test.cpp
    LINK zlk_api zlk_node_core
    LABELS cluster)
