#!/usr/bin/env bash
# The whole test suite, as CI runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
# Cache hits across clones of the repository: paths are hashed relative to the checkout.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD}
export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-true}
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

section() { printf '\n==== %s ====\n' "$1"; }

section "build (RelWithDebInfo)"
scripts/configure.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
section "tests (RelWithDebInfo)"
(cd build && ctest -j "$jobs" --output-on-failure --label-exclude bench)

section "build (address,undefined)"
scripts/configure.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DZLK_SANITIZE=address,undefined -DZLK_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
section "tests (address,undefined)"
(cd build-asan && ctest -j "$jobs" --output-on-failure)

section "build (thread)"
scripts/configure.sh build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZLK_SANITIZE=thread -DZLK_BUILD_BENCH=OFF
cmake --build build-tsan -j "$jobs" --target concurrency_tests
section "tests (thread, concurrency label)"
(cd build-tsan && ctest -j "$jobs" --output-on-failure -L concurrency)

section "fuzzing"
scripts/fuzz.sh
