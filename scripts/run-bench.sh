#!/usr/bin/env bash
# Runs every benchmark of the build.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
shopt -s nullglob
for b in "$build"/bench/bench_*; do
    echo "==== $(basename "$b")"
    "$b" --benchmark_min_time=0.2
done
