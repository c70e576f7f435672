# Tests of table metadata, shard addressing, column requests and aggregates.
