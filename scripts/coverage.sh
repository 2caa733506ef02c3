#!/usr/bin/env bash
# Coverage: builds with gcc --coverage (no sanitizers) in its own folder, runs every
# ctest test but the kill soak, and prints gcovr's line, function and branch summary
# for module/, shelfkit/ and shelf/. Not part of the test command.
#   scripts/coverage.sh                 whole summary
#   COVERAGE_TESTS=regex scripts/coverage.sh   only the ctest tests matching regex
#   COVERAGE_FILES=1 scripts/coverage.sh       also one line per source file
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
if ! command -v gcovr >/dev/null; then
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends gcovr
fi
build="${BUILD_DIR:-$here/build-coverage}"

# Atomic counters: the engine's threads would otherwise tear them, and gcovr stops at
# the negative count a torn counter can leave.
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -O0" \
  -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic -O0" \
  -DCMAKE_EXE_LINKER_FLAGS="--coverage" -DCMAKE_SHARED_LINKER_FLAGS="--coverage" >/dev/null
# Counts of an earlier build would clash with the test listing run at build time.
find "$build" -name '*.gcda' -delete
cmake --build "$build" -j "$(nproc)"
find "$build" -name '*.gcda' -delete

cd "$build"
ctest --output-on-failure -j 1 --timeout 600 -E '^soak' ${COVERAGE_TESTS:+-R "$COVERAGE_TESTS"} || true

filters=(--root "$here" --filter "$here/module/" --filter "$here/shelfkit/" --filter "$here/shelf/"
         --exclude-unreachable-branches --exclude-throw-branches)
# One line per file with COVERAGE_FILES set; the summary in any case. (gcovr
# replaces its output file, so it never writes to a device such as /dev/null.)
report="$build/coverage.txt"
gcovr "${filters[@]}" "$build" --print-summary --txt "$report"
[[ -z "${COVERAGE_FILES:-}" ]] || cat "$report"
