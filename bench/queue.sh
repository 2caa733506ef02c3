#!/usr/bin/env bash
# Manager creation with 10,000 saved records (open + load + sort), Release build.
# and adding one download to that queue (queue_add_ms_10000, median; target at
# most 50 ms). Last line: queue_load_ms_10000 <median ms>. Target: at most 100 ms.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build-bench}"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSHELF_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target queue_bench >/dev/null
"$build/bench/queue_bench" 10000 11
