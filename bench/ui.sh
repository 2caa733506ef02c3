#!/usr/bin/env bash
# The browser front end with 10,000 queued downloads, Release build, headless
# Chromium (bench/ui_bench.mjs says what is measured): the first paint of the
# Downloads screen after a click on its menu item, 5 runs on new pages, and the
# cells the page received while scrolling the whole table. Prints
# ui_cells_materialized <count> and, last, ui_first_paint_ms_10000 <median ms>.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
source "$here/bench/lib.sh"
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build-bench}"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSHELF_TESTS=OFF >/dev/null
cmake --build "$build" -j "${BENCH_JOBS:-2}" --target shelf seed_queue >/dev/null

work=$(mktemp -d "${TMPDIR:-/tmp}/shelf-bench-ui-XXXXXX")
shelf_pid=""
cleanup() {
  if [[ -n "$shelf_pid" ]]; then kill "$shelf_pid" 2>/dev/null || true; wait "$shelf_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$build/bench/seed_queue" "$work/root" 10000 >/dev/null
"$build/shelf/shelf" serve --root "$work/root" --port 0 >"$work/serve.log" 2>&1 &
shelf_pid=$!
url=""
for _ in $(seq 100); do
  url=$(sed -n 's/^shelf: open \(http:[^ ]*\)$/\1/p' "$work/serve.log")
  [[ -n "$url" ]] && break
  kill -0 "$shelf_pid" 2>/dev/null || break
  sleep 0.1
done
[[ -n "$url" ]] || { echo "shelf serve did not start:" >&2; cat "$work/serve.log" >&2; exit 1; }
sleep 1  # let the server settle; the download manager is still not created (the first open does that)

node "$here/bench/ui_bench.mjs" "$url" 5
