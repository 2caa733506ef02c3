#!/usr/bin/env bash
# The chunked loader against curl -o on the same 1 GiB file from nginx on
# loopback, alternately, 3 runs each. Last line: the median of the pairwise
# wall-time ratios. Targets: ratio at most 1.25, peak RSS at most 48 MiB.
# The files go to $TMPDIR (default /var/tmp, on disk).
set -euo pipefail
source "$(dirname "$0")/lib.sh"
bench_build transfer_driver

work=$(mktemp -d "${TMPDIR:-/var/tmp}/shelf-bench-transfer-XXXXXX")
trap 'nginx_stop; rm -rf "$work"' EXIT
mkdir -p "$work/www" "$work/out"
size=$((1024 * 1024 * 1024))
head -c "$size" /dev/urandom > "$work/www/big.bin"
nginx_start "$work/www" "$work"
url="http://127.0.0.1:$NGINX_PORT/big.bin"

# One discarded run of each first: the first transfer after the file was
# written pays for the kernel's page allocation and is several times slower.
"$BENCH_BUILD/bench/transfer_driver" "$url" "$size" "$work/out/warm" >/dev/null
curl -s -o "$work/out/warm.bin" "$url"
rm -rf "$work/out/warm" "$work/out/warm.bin"

ratios=() rss=()
for run in 1 2 3; do
  sync
  t0=$(now_s)
  out=$("$BENCH_BUILD/bench/transfer_driver" "$url" "$size" "$work/out/loader")
  t1=$(now_s)
  rm -rf "$work/out/loader"
  sync
  t2=$(now_s)
  curl -s -o "$work/out/curl.bin" "$url"
  t3=$(now_s)
  rm -f "$work/out/curl.bin"
  loader_s=$(calc "$t1 - $t0") curl_s=$(calc "$t3 - $t2")
  ratio=$(calc "$loader_s / $curl_s")
  rss+=("$(echo "$out" | awk '/peak_rss_mib/ {print $2}')")
  ratios+=("$ratio")
  printf 'run %d: loader %.3f s, curl %.3f s, ratio %.3f, loader bytes %s\n' "$run" "$loader_s" "$curl_s" "$ratio" \
    "$(echo "$out" | awk '/^bytes/ {print $2}')"
done
printf 'chunked_loader_peak_rss_mib %s\n' "$(printf '%s\n' "${rss[@]}" | sort -g | tail -1)"
printf 'chunked_loader_wall_ratio_vs_curl %.3f\n' "$(printf '%s\n' "${ratios[@]}" | median)"
