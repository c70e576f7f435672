#!/usr/bin/env bash
# The demo of `make run`: starts a local ring of three zlkd nodes on 127.0.0.1, runs every example
# program against it (each gets the cluster's URI as its argument), then a short zlk-bench, and stops
# the ring.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."

uri=$(scripts/local-cluster.sh start -n 3 -b "$build")
trap 'scripts/local-cluster.sh stop -b "$build" >/dev/null 2>&1 || true' EXIT
echo "local cluster: $uri"

shopt -s nullglob
for ex in "$build"/examples/example_*; do
    echo
    echo "==== $(basename "$ex") $uri"
    "$ex" "$uri"
done

# A short load test of the same ring: a few seconds at most.
echo
echo "==== zlk-bench $uri"
"$build"/tools/zlk-bench --uri "$uri" -t put,get,update,int_add,batch,prefix -n 2000 -d 100 -c 2
"$build"/tools/zlk-bench --uri "$uri" -t ts_push,ts_aggregate -n 200000 -b 20000 -c 1
echo
echo "demo finished"
