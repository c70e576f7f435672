# Tests of aggregation states, aggregate requests and their folding.
