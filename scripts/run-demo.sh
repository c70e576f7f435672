#!/usr/bin/env bash
# The demo of `make run`: starts a local ring of three zlkd nodes on 127.0.0.1, runs every example
# program against it (each gets the cluster's URI as its argument), and stops the ring.
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
echo
echo "demo finished"
