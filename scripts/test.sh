#!/usr/bin/env bash
# Set-up, then build everything under AddressSanitizer and UndefinedBehaviorSanitizer
# and run every test: the fuzz targets briefly on their corpus (built with clang
# for libFuzzer), the GoogleTest programs, the browser tests and the short kill
# soak; then every test program again, whole, under ThreadSanitizer.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build-test}"
jobs=$(nproc)

cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSHELF_SANITIZE=ON
cmake --build "$build" -j "$jobs"
cmake -S "$here/fuzz" -B "$build/fuzz" -G Ninja -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build/fuzz" -j "$jobs"

(cd "$build/fuzz" && ctest --output-on-failure)
cd "$build"
ctest --output-on-failure -j "$jobs" --timeout 600
BUILD_DIR="$build-tsan" "$here/scripts/tsan.sh"
