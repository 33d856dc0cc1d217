#!/bin/sh
# Builds the library and the quorvane tool, then runs a search on the
# bundled demo corpus: the 5 rows nearest to a sweet-and-creamy query.
# Extra arguments are passed to `quorvane search` (try --help).
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup-deps.sh
cmake -S . -B build-main -DCMAKE_BUILD_TYPE=Release -DQVN_BUILD_TESTS=OFF >/dev/null
cmake --build build-main -j"$(nproc)" --target quorvane_cli
if [ $# -eq 0 ]; then
    set -- 1,0,0,0,0,0,0,0.6 -k 5
fi
exec ./build-main/tools/quorvane search "$@"
