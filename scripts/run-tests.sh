#!/bin/sh
# Builds the library, tools and tests, then runs every test.
# Usage: scripts/run-tests.sh [BUILD_DIR] [extra cmake options...]
#   e.g. scripts/run-tests.sh build-asan -DQVN_SANITIZE=address,undefined
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup-deps.sh
dir=${1:-build}
[ $# -gt 0 ] && shift
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVN_WERROR=ON "$@"
cmake --build "$dir" -j"$(nproc)"
cd "$dir"
ctest --output-on-failure -j"$(nproc)"
