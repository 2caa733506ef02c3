#!/usr/bin/env bash
# Set-up, then build everything under AddressSanitizer and UndefinedBehaviorSanitizer and run every test.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build-test}"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSHELF_SANITIZE=ON
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
