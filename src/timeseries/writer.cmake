# The batch writer: staging by shard, the shard-write codec, the push modes; and the local table.
list(APPEND zlk_ts_sources
    table_writer.cpp
    batch_columns.cpp
    shard_write.cpp
    push.cpp
    local_table.cpp)
