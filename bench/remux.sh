#!/usr/bin/env bash
# The playlist loader against `ffmpeg -map 0:p:1 -c copy` on the same 60-second
# two-variant HLS fixture from nginx on loopback, alternately, 3 runs each.
# Prints the packet counts of both outputs, whether every packet is the same
# (ffmpeg's framemd5: timestamps, sizes and hashes) and, last, the median of
# the pairwise wall-time ratios. Target: at most 1.2, with identical packets.
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
# Every packet (stream, dts, pts, duration, size, hash), then without the duration.
hashes() { ffmpeg -v error -nostdin -i "$1" -map 0 -c copy -f framemd5 - | grep -v '^#'; }
hashes "$work/loader.mov" > "$work/loader.packets"
hashes "$work/ffmpeg.mov" > "$work/ffmpeg.packets"
if cmp -s "$work/loader.packets" "$work/ffmpeg.packets"; then
  echo "packet_hashes identical"
elif cmp -s <(cut -d, -f1-3,5- "$work/loader.packets") <(cut -d, -f1-3,5- "$work/ffmpeg.packets"); then
  echo "packet_hashes identical, durations differ in $(diff "$work/loader.packets" "$work/ffmpeg.packets" | grep -c '^<') packet(s)"
else
  echo "packet_hashes differ"
fi
printf 'remux_wall_ratio_vs_ffmpeg %.3f\n' "$(printf '%s\n' "${ratios[@]}" | median)"
