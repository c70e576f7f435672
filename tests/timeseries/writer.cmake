# Tests of the batch writer, push modes and the local table.
