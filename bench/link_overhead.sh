#!/usr/bin/env bash
# What link_emulator costs by itself: N curls at once (N = 1, 4, 8) fetch the
# same file from nginx on loopback directly, then through the emulator with
# no delay and no rate limit, alternately, 3 runs each after a warm-up. Prints
# the aggregate MB/s of both and the emulator's CPU seconds per run. Then 4
# curls at once through a 25 ms, 1000 Mbit/s link against the time the link
# allows (set-up 4 x delay plus size / rate). Last line: the median of the
# pairwise wall-time ratios (emulated / direct) with 4 connections.
# LINK_SIZE_MIB sets the file size (default 512).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build link_emulator

size_mib=${LINK_SIZE_MIB:-512}
size=$((size_mib * 1024 * 1024))
work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-link-XXXXXX")
trap 'emulator_stop; nginx_stop; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
mkdir -p "$work/www"
head -c "$size" /dev/urandom > "$work/www/big.dat"
nginx_start "$work/www" "$work"


fetch() {  # N PORT: N curls at once into /dev/null, each checked for the whole size
  local pids=() i
  for i in $(seq "$1"); do
    timeout 300 curl -s -o /dev/null -w '%{size_download}\n' "http://127.0.0.1:$2/big.dat" > "$work/curl.$i" &
    pids+=($!)
  done
  for i in "${!pids[@]}"; do
    wait "${pids[$i]}" || { echo "curl failed" >&2; exit 1; }
    [[ $(cat "$work/curl.$((i + 1))") == "$size" ]] || { echo "curl got a short file" >&2; exit 1; }
  done
}

cpu_s() { awk '{ printf "%.2f", ($14 + $15) / 100 }' "/proc/$EMU_PID/stat"; }

emulator_start "$work" --max-seconds 1800 --delay-ms 0 --rate-mbit 0
fetch 1 "$NGINX_PORT"; fetch 1 "$EMU_PORT"  # warm-up
for n in 1 4 8; do
  ratios=()
  for run in 1 2 3; do
    t0=$(now_s); fetch "$n" "$NGINX_PORT"; t1=$(now_s)
    c0=$(cpu_s); fetch "$n" "$EMU_PORT"; t2=$(now_s); c1=$(cpu_s)
    direct_s=$(calc "$t1 - $t0") emulated_s=$(calc "$t2 - $t1")
    ratios+=("$(calc "$emulated_s / $direct_s")")
    printf '%d connections, run %d: direct %.3f s (%.0f MB/s), emulated %.3f s (%.0f MB/s), emulator CPU %.2f s\n' \
      "$n" "$run" "$direct_s" "$(calc "$n * $size / 1e6 / $direct_s")" \
      "$emulated_s" "$(calc "$n * $size / 1e6 / $emulated_s")" "$(calc "$c1 - $c0")"
  done
  printf 'link_overhead_ratio_%d %.3f\n' "$n" "$(printf '%s\n' "${ratios[@]}" | median)"
  if [[ $n == 4 ]]; then headline=$(printf '%s\n' "${ratios[@]}" | median); fi
done
emulator_stop

emulator_start "$work" --max-seconds 1800 --delay-ms 25 --rate-mbit 1000
fetch 1 "$EMU_PORT"  # warm-up
ideal_s=$(calc "4 * 0.025 + $size / 125e6")
for run in 1 2 3; do
  t0=$(now_s); c0=$(cpu_s); fetch 4 "$EMU_PORT"; t1=$(now_s); c1=$(cpu_s)
  printf '4 connections at 25 ms, 1000 Mbit/s, run %d: %.3f s (the link allows %.3f s), emulator CPU %.2f s\n' \
    "$run" "$(calc "$t1 - $t0")" "$ideal_s" "$(calc "$c1 - $c0")"
done
emulator_stop
printf 'link_overhead_ratio %.3f\n' "$headline"
