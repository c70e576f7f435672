list(APPEND zlk_ts_sources
    aggregate_requests.cpp
    aggregation_state.cpp)
