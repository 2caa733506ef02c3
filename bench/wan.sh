#!/usr/bin/env bash
# `shelf get` against `curl -o` and `aria2c -x4 -s4` over an emulated network
# link: nginx on loopback behind link_emulator, which adds 25 ms each way and
# limits each connection to 1000 Mbit/s (setting 1g), then to 100 Mbit/s
# (setting 100m). For each setting one discarded warm-up of each tool, then
# WAN_RUNS runs (default 3), each run the three tools one after the other.
# Every output file is compared with the source. Prints the wall times of each
# run, then per setting the medians and the median pairwise ratios; the last
# line is the median of both settings' ratios against aria2c.
# WAN_SIZE_MIB sets the file size (default 128). The files go to $TMPDIR
# (default /var/tmp, on disk).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build shelf downloader_media link_emulator

size_mib=${WAN_SIZE_MIB:-128}
runs=${WAN_RUNS:-3}
download_timeout=300
delay_ms=25

work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-wan-XXXXXX")
trap 'emulator_stop; nginx_stop; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
mkdir -p "$work/www" "$work/out"
head -c $((size_mib * 1024 * 1024)) /dev/urandom > "$work/www/big.dat"
nginx_start "$work/www" "$work"

# timed TOOL URL: downloads with TOOL, checks the file, prints the wall time.
timed() {
  local tool=$1 url=$2 file t0 t1 status=0
  rm -rf "$work/out"; mkdir -p "$work/out"
  sync  # the previous output's writeback must not land in this run
  t0=$(now_s)
  case $tool in
    get) timeout "$download_timeout" "$BENCH_BUILD/shelf/shelf" get "$url" -o "$work/out/get" \
           > "$work/tool.log" 2>&1 || status=$?
         file="$work/out/get/big.dat" ;;
    curl) timeout "$download_timeout" curl -s -o "$work/out/curl.dat" "$url" > "$work/tool.log" 2>&1 || status=$?
          file="$work/out/curl.dat" ;;
    aria2c) timeout "$download_timeout" aria2c -x4 -s4 -q --allow-overwrite=true --file-allocation=none \
              -d "$work/out" -o aria2c.dat "$url" > "$work/tool.log" 2>&1 || status=$?
            file="$work/out/aria2c.dat" ;;
  esac
  t1=$(now_s)
  if ((status != 0)); then
    echo "$tool failed with status $status" >&2
    cat "$work/tool.log" >&2
    exit 1
  fi
  cmp -s "$work/www/big.dat" "$file" || { echo "$tool produced a different file" >&2; exit 1; }
  calc "$t1 - $t0"
}

all_vs_aria2c=()
for setting in "1g 1000" "100m 100"; do
  read -r name rate <<< "$setting"
  # Never outlives the bench: a bound above the worst case of one setting.
  emulator_start "$work" --delay-ms "$delay_ms" --rate-mbit "$rate" \
    --max-seconds $(((runs + 1) * 3 * download_timeout + 60))
  url="http://127.0.0.1:$EMU_PORT/big.dat"
  for tool in get curl aria2c; do timed "$tool" "$url" > /dev/null; done  # warm-up, discarded
  gets=() curls=() arias=() vs_curl=() vs_aria2c=()
  for run in $(seq "$runs"); do
    get_s=$(timed get "$url")
    curl_s=$(timed curl "$url")
    aria2c_s=$(timed aria2c "$url")
    gets+=("$get_s") curls+=("$curl_s") arias+=("$aria2c_s")
    vs_curl+=("$(calc "$get_s / $curl_s")") vs_aria2c+=("$(calc "$get_s / $aria2c_s")")
    printf '%s run %d: shelf get %.3f s, curl %.3f s, aria2c %.3f s\n' "$name" "$run" "$get_s" "$curl_s" "$aria2c_s"
  done
  emulator_stop
  printf '%s link (%d ms each way, %d Mbit/s per connection): %s\n' "$name" "$delay_ms" "$rate" \
    "$(tail -1 "$work/emulator.log")"
  printf 'wan_%s_get_s %.3f\n' "$name" "$(printf '%s\n' "${gets[@]}" | median)"
  printf 'wan_%s_curl_s %.3f\n' "$name" "$(printf '%s\n' "${curls[@]}" | median)"
  printf 'wan_%s_aria2c_s %.3f\n' "$name" "$(printf '%s\n' "${arias[@]}" | median)"
  printf 'wan_%s_ratio_vs_curl %.3f\n' "$name" "$(printf '%s\n' "${vs_curl[@]}" | median)"
  printf 'wan_%s_ratio_vs_aria2c %.3f\n' "$name" "$(printf '%s\n' "${vs_aria2c[@]}" | median)"
  all_vs_aria2c+=("${vs_aria2c[@]}")
done
printf 'wan_get_ratio_vs_aria2c %.3f\n' "$(printf '%s\n' "${all_vs_aria2c[@]}" | median)"
