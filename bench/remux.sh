#!/usr/bin/env bash
# The playlist loader against `ffmpeg -map 0:p:1 -c copy` on the same 60-second
# two-variant HLS fixture from nginx on loopback, alternately, 3 runs each.
# Prints the packet counts of both outputs and, last, the median of the
# pairwise wall-time ratios. Target: at most 1.3, with the same packet counts.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build remux_driver downloader_media
here=$(cd "$(dirname "$0")/.." && pwd)

work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-remux-XXXXXX")
trap 'nginx_stop; rm -rf "$work"' EXIT
HLS_SECONDS=60 "$here/tests/media/make_fixtures.sh" "$work/www"
nginx_start "$work/www" "$work"
url="http://127.0.0.1:$NGINX_PORT/hls/master.m3u8"

counts() {
  ffprobe -v error -count_packets -show_entries stream=codec_type,nb_read_packets -of csv=p=0 "$1" | tr '\n' ' '
}

ratios=()
for run in 1 2 3; do
  t0=$(now_s)
  "$BENCH_BUILD/bench/remux_driver" "$url" "$work/loader.mov" >/dev/null
  t1=$(now_s)
  ffmpeg -v error -nostdin -y -i "$url" -map 0:p:1 -c copy "$work/ffmpeg.mov"
  t2=$(now_s)
  loader_s=$(calc "$t1 - $t0") ffmpeg_s=$(calc "$t2 - $t1")
  ratio=$(calc "$loader_s / $ffmpeg_s")
  ratios+=("$ratio")
  printf 'run %d: loader %.3f s, ffmpeg %.3f s, ratio %.3f\n' "$run" "$loader_s" "$ffmpeg_s" "$ratio"
done
echo "loader_packets $(counts "$work/loader.mov")"
echo "ffmpeg_packets $(counts "$work/ffmpeg.mov")"
printf 'remux_wall_ratio_vs_ffmpeg %.3f\n' "$(printf '%s\n' "${ratios[@]}" | median)"
