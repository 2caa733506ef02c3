#!/usr/bin/env bash
# Builds the tests under ThreadSanitizer and runs each test program whole (all
# its tests in one process, so races between tests show too). Exits non-zero on
# any report.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build-tsan}"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSHELF_TSAN=ON >/dev/null
cmake --build "$build" -j "$(nproc)"
status=0
for program in "$build"/tests/*_test; do
  log=$(mktemp)
  if TSAN_OPTIONS="second_deadlock_stack=1" "$program" >"$log" 2>&1; then
    echo "clean   $(basename "$program")"
  else
    echo "FAILED  $(basename "$program") ($(grep -c 'WARNING: ThreadSanitizer' "$log") reports)"
    grep -A40 'WARNING: ThreadSanitizer' "$log" | head -80
    status=1
  fi
  rm -f "$log"
done
exit $status
