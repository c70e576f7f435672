list(APPEND zlk_ts_sources
    bucket.cpp
    column_requests.cpp
    pod_vector.cpp
    table_metadata.cpp
    table_requests.cpp
    ts_messages.cpp)
