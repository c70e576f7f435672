#!/usr/bin/env bash
# configure.sh DIR [cmake options...]: configures DIR with Ninja once; later calls reuse it.
set -euo pipefail
dir=$1
shift
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja "$@"
fi
