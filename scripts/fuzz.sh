#!/usr/bin/env bash
# Builds the libFuzzer targets with clang 14 and runs each for a short while over its corpus.
# FUZZ_SECONDS sets the time per target.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-10}
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
if [ ! -f build-fuzz/build.ninja ]; then
    CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DZLK_BUILD_FUZZ=ON -DZLK_BUILD_TESTS=OFF -DZLK_BUILD_BENCH=OFF -DZLK_SANITIZE=address,undefined
fi
cmake --build build-fuzz -j "$(nproc)" --target fuzz_targets
shopt -s nullglob
targets=(build-fuzz/fuzz/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
    echo "no fuzz target yet"
    exit 0
fi
for t in "${targets[@]}"; do
    name=$(basename "$t")
    corpus=fuzz/corpus/${name#fuzz_}
    mkdir -p "$corpus"
    work=$(mktemp -d)
    echo "-- $name ($seconds s)"
    # New inputs go to a scratch folder: the committed corpus changes only by hand.
    "$t" -max_total_time="$seconds" -print_final_stats=0 -artifact_prefix=fuzz/ "$work" "$corpus" 2>&1 | tail -n 3
    rm -rf "$work"
done
echo "fuzzing: ${#targets[@]} targets passed"
