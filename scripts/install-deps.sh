#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the benchmarks need.
# Idempotent: asks apt only when something is missing, and refreshes its lists once.
set -euo pipefail

packages=(
    g++ cmake ninja-build ccache pkg-config make
    libsodium-dev liblz4-dev libboost1.81-dev libboost-system1.81-dev
    libasio-dev libfmt-dev nlohmann-json3-dev libtbb-dev libhowardhinnant-date-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    clang-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
