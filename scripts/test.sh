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

# Each ctest run's closing line is kept, so that the last line of the whole run adds them up.
summary=$(mktemp)
trap 'rm -f "$summary"' EXIT
run_ctest() {
    local dir=$1
    shift
    (cd "$dir" && ctest -j "$jobs" --output-on-failure "$@") | tee -a "$summary"
}

section "structure"
scripts/check-layers.sh

section "build (RelWithDebInfo)"
scripts/configure.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
scripts/check-layers.sh build
section "tests (RelWithDebInfo)"
run_ctest build

section "build (address,undefined)"
scripts/configure.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DZLK_SANITIZE=address,undefined -DZLK_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
section "tests (address,undefined)"
run_ctest build-asan

section "build (thread)"
scripts/configure.sh build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZLK_SANITIZE=thread -DZLK_BUILD_BENCH=OFF
cmake --build build-tsan -j "$jobs" --target concurrency_tests
section "tests (thread, concurrency label)"
run_ctest build-tsan -L concurrency

section "fuzzing"
scripts/fuzz.sh

passed=0
failed=0
while read -r line; do
    total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
    bad=$(sed -E 's/.*, ([0-9]+) tests? failed.*/\1/' <<<"$line")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
done < <(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$summary")
echo
echo "tests: $passed passed, $failed failed"
