#!/usr/bin/env bash
# `shelf get` of a playlist against `ffmpeg -i URL -map 0:p:1 -c copy` over an
# emulated network link: nginx on loopback behind link_emulator, 25 ms each
# way, WAN_RATE_MBIT per connection (default 100). The playlist is the
# two-variant HLS fixture, WAN_HLS_SECONDS long (default 600) in 2-second
# segments. One discarded warm-up of each tool, then WAN_RUNS runs (default 3),
# each run the two tools one after the other. Both outputs must hold the same
# packets: ffmpeg's framemd5 of every packet (stream, dts, pts, size, hash)
# must match; packets whose duration alone differs are counted and shown.
# Prints the wall times of each run, the medians and, last, the median of the
# pairwise ratios. Target: at most 0.5.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build shelf downloader_media link_emulator
here=$(cd "$(dirname "$0")/.." && pwd)

hls_seconds=${WAN_HLS_SECONDS:-600}
rate=${WAN_RATE_MBIT:-100}
runs=${WAN_RUNS:-3}
download_timeout=600
delay_ms=25

work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-wan-remux-XXXXXX")
trap 'emulator_stop; nginx_stop; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
HLS_SECONDS=$hls_seconds HLS_SEGMENT_SECONDS=2 "$here/tests/media/make_fixtures.sh" "$work/www"
nginx_start "$work/www" "$work"
emulator_start "$work" --delay-ms "$delay_ms" --rate-mbit "$rate" \
  --max-seconds $(((runs + 1) * 2 * download_timeout + 60))
url="http://127.0.0.1:$EMU_PORT/hls/master.m3u8"

packets() {  # every packet's stream, timestamps, size and hash (duration left out)
  ffmpeg -v error -nostdin -i "$1" -map 0 -c copy -f framemd5 - | grep -v '^#' | cut -d, -f1-3,5-
}
durations() {  # how many packets' durations differ
  diff <(ffmpeg -v error -nostdin -i "$1" -map 0 -c copy -f framemd5 - | grep -v '^#') \
       <(ffmpeg -v error -nostdin -i "$2" -map 0 -c copy -f framemd5 - | grep -v '^#') | grep -c '^<' || true
}

# timed TOOL: remuxes with TOOL into $work/TOOL.mov and prints the wall time.
timed() {
  local tool=$1 t0 t1 status=0
  rm -rf "$work/out" "$work/$tool.mov"; mkdir -p "$work/out"
  sync
  t0=$(now_s)
  case $tool in
    get) timeout "$download_timeout" "$BENCH_BUILD/shelf/shelf" get "$url" -o "$work/out" \
           > "$work/tool.log" 2>&1 || status=$?
         [[ $status -ne 0 ]] || mv "$work/out/master.mov" "$work/get.mov" ;;
    ffmpeg) timeout "$download_timeout" ffmpeg -v error -nostdin -y -i "$url" -map 0:p:1 -c copy \
              "$work/ffmpeg.mov" > "$work/tool.log" 2>&1 || status=$? ;;
  esac
  t1=$(now_s)
  if ((status != 0)); then
    echo "$tool failed with status $status" >&2
    cat "$work/tool.log" >&2
    exit 1
  fi
  calc "$t1 - $t0"
}

for tool in get ffmpeg; do timed "$tool" > /dev/null; done  # warm-up, discarded
gets=() ffmpegs=() ratios=()
for run in $(seq "$runs"); do
  get_s=$(timed get)
  packets "$work/get.mov" > "$work/get.packets"
  ffmpeg_s=$(timed ffmpeg)
  packets "$work/ffmpeg.mov" > "$work/ffmpeg.packets"
  cmp -s "$work/get.packets" "$work/ffmpeg.packets" || { echo "run $run: the packets differ" >&2; exit 1; }
  gets+=("$get_s") ffmpegs+=("$ffmpeg_s") ratios+=("$(calc "$get_s / $ffmpeg_s")")
  printf 'run %d: shelf get %.3f s, ffmpeg %.3f s (%d packets identical, durations differ in %d)\n' "$run" \
    "$get_s" "$ffmpeg_s" "$(wc -l < "$work/get.packets")" "$(durations "$work/get.mov" "$work/ffmpeg.mov")"
done
emulator_stop
printf 'link (%d ms each way, %d Mbit/s per connection): %s\n' "$delay_ms" "$rate" "$(tail -1 "$work/emulator.log")"
printf 'wan_remux_get_s %.3f\n' "$(printf '%s\n' "${gets[@]}" | median)"
printf 'wan_remux_ffmpeg_s %.3f\n' "$(printf '%s\n' "${ffmpegs[@]}" | median)"
printf 'wan_remux_ratio_vs_ffmpeg %.3f\n' "$(printf '%s\n' "${ratios[@]}" | median)"
