#!/usr/bin/env bash
# Set-up, build, then run the host on its defaults. Extra arguments go to `shelf serve`.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
"$here/scripts/setup.sh"
build="${BUILD_DIR:-$here/build}"
cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j "$(nproc)" --target shelf
exec "$build/shelf/shelf" serve "$@"
