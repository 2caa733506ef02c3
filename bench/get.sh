#!/usr/bin/env bash
# `shelf get` against `curl -o` on the same 1 GiB file from nginx on loopback,
# alternately, 3 runs each after one discarded warm-up of each. Prints the
# peak RSS of shelf get and, last, the median of the pairwise wall-time ratios.
# Target: ratio at most 1.3. The files go to $TMPDIR (default /var/tmp, on disk).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build shelf downloader_media

work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-get-XXXXXX")
trap 'nginx_stop; rm -rf "$work"' EXIT
mkdir -p "$work/www" "$work/out"
head -c $((1024 * 1024 * 1024)) /dev/urandom > "$work/www/big.dat"
nginx_start "$work/www" "$work"
url="http://127.0.0.1:$NGINX_PORT/big.dat"

"$BENCH_BUILD/shelf/shelf" get "$url" -o "$work/out/warm" >/dev/null 2>&1
curl -s -o "$work/out/warm.dat" "$url"
rm -rf "$work/out/warm" "$work/out/warm.dat"

ratios=() rss=()
for run in 1 2 3; do
  t0=$(now_s)
  /usr/bin/time -f '%M' -o "$work/rss" "$BENCH_BUILD/shelf/shelf" get "$url" -o "$work/out/get" >/dev/null 2>&1
  t1=$(now_s)
  cmp -s "$work/www/big.dat" "$work/out/get/big.dat" || { echo "shelf get produced a different file" >&2; exit 1; }
  rm -rf "$work/out/get"
  t2=$(now_s)
  curl -s -o "$work/out/curl.dat" "$url"
  t3=$(now_s)
  rm -f "$work/out/curl.dat"
  get_s=$(calc "$t1 - $t0") curl_s=$(calc "$t3 - $t2")
  ratio=$(calc "$get_s / $curl_s")
  ratios+=("$ratio")
  rss+=("$(tail -1 "$work/rss")")
  printf 'run %d: shelf get %.3f s, curl %.3f s, ratio %.3f\n' "$run" "$get_s" "$curl_s" "$ratio"
done
printf 'get_peak_rss_mib %.1f\n' "$(calc "$(printf '%s\n' "${rss[@]}" | sort -g | tail -1) / 1024")"
printf 'get_wall_ratio_vs_curl %.3f\n' "$(printf '%s\n' "${ratios[@]}" | median)"
