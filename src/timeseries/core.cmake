list(APPEND zlk_ts_sources
    bucket.cpp
    table_metadata.cpp)
