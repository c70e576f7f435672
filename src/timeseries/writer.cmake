list(APPEND zlk_ts_sources)
