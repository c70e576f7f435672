#!/usr/bin/env bash
# Runs the example programs against what the library offers today.
set -euo pipefail
build=${1:-build}
cd "$(dirname "$0")/.."
shopt -s nullglob
for ex in "$build"/examples/example_*; do
    echo "==== $(basename "$ex")"
    "$ex"
done
