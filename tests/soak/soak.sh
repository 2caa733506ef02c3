#!/usr/bin/env bash
# Crash soak: queues files of every server behaviour (ranged, small, ignoring
# ranges, dropping connections, an HLS playlist), kill -9s `shelf serve` at
# random moments, restarts it on the same root each time, waits for the queue
# to drain, then checks that every address landed in Documents exactly once
# and intact, and that nothing was left behind.
#
# Usage: soak.sh [--short]    (--short: 8 files, 5 kills; default: 30 files, 20 kills)
# Environment: SHELF_BINARY (default build-dev/shelf/shelf), SOAK_SEED (sizes,
# sleeps and drops), SOAK_TIMEOUT (seconds to wait for the queue to drain),
# SOAK_RATE (bytes per second the file server sends, all transfers together),
# SOAK_KEEP=1 keeps the work folder.
# Prints one line per failed check and, last, "soak_files_ok N/TOTAL".
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
shelf_binary=${SHELF_BINARY:-$repo/build-dev/shelf/shelf}
client=$here/soak_client.mjs

mode=long
case "${1:-}" in
  --short) mode=short ;;
  "") ;;
  *) echo "usage: $0 [--short]" >&2; exit 2 ;;
esac
if [[ $mode == short ]]; then
  n_large=2 n_small=3 n_ignore=1 n_drop=1 kills=5 hls_seconds=20 wait_timeout=${SOAK_TIMEOUT:-600}
else
  n_large=6 n_small=19 n_ignore=2 n_drop=2 kills=20 hls_seconds=60 wait_timeout=${SOAK_TIMEOUT:-3600}
fi

for tool in node ffmpeg ffprobe sha256sum; do
  command -v "$tool" >/dev/null || { echo "soak: $tool is missing" >&2; exit 2; }
done
[[ -x $shelf_binary ]] || { echo "soak: no shelf binary at $shelf_binary" >&2; exit 2; }
shelf_binary=$(readlink -f "$shelf_binary")

seed=${SOAK_SEED:-$((($(date +%s) ^ $$) % 1000000))}
RANDOM=$seed
export LANG=C.UTF-8 LC_ALL=C.UTF-8 LANGUAGE=

work=$(mktemp -d "${TMPDIR:-/tmp}/shelf-soak-XXXXXX")
root=$work/root
www=$work/www
mkdir -p "$root" "$www/files" "$work/logs" "$work/snapshots"

server_pid= shelf_pid= watchdog_pid=
cleanup() {
  if [[ -n $shelf_pid ]]; then
    kill -9 "$shelf_pid" 2>/dev/null
    wait "$shelf_pid" 2>/dev/null
  fi
  if [[ -n $server_pid ]]; then
    kill "$server_pid" 2>/dev/null
    wait "$server_pid" 2>/dev/null
  fi
  if [[ -n $watchdog_pid ]]; then
    kill "$watchdog_pid" 2>/dev/null
    wait "$watchdog_pid" 2>/dev/null
  fi
  if [[ ${SOAK_KEEP:-0} == 1 ]]; then
    echo "soak: kept $work"
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Should this script die without its trap, the watchdog ends the shelf it left.
(
  while kill -0 $$ 2>/dev/null; do sleep 2; done
  pid=$(cat "$work/shelf.pid" 2>/dev/null) && kill -9 "$pid" 2>/dev/null
  [[ ${SOAK_KEEP:-0} == 1 ]] || rm -rf "$work"
) &
watchdog_pid=$!

t0=${EPOCHREALTIME/./}
elapsed() { local t=${EPOCHREALTIME/./}; printf '%d.%01d' $(((t - t0) / 1000000)) $(((t - t0) / 100000 % 10)); }
say() { echo "[$(elapsed)s] $*"; }
timeline() { echo "$(elapsed)s $*" >>"$work/timeline"; }
# Sets r; no subshell, so SOAK_SEED replays the same numbers.
rand_between() { r=$(($1 + ((RANDOM << 15) | RANDOM) % ($2 - $1 + 1))); }

failures=()
fail() {
  failures+=("$1")
  echo "FAIL: $1"
}

# --- Files -------------------------------------------------------------------

names=() modes=()
add_file() {  # NAME MODE MIN_BYTES MAX_BYTES
  rand_between "$3" "$4"
  head -c "$r" /dev/urandom >"$www/files/$1"
  names+=("$1") modes+=("$2")
}
exts=(zip dat txt pdf)
for ((i = 1; i <= n_large; i++)); do add_file "large_$i.${exts[i % 4]}" ranged 20000000 60000000; done
for ((i = 1; i <= n_small; i++)); do add_file "small_$i.${exts[i % 4]}" ranged 10000 2000000; done
for ((i = 1; i <= n_ignore; i++)); do add_file "whole_$i.dat" ignore 5000000 10000000; done
for ((i = 1; i <= n_drop; i++)); do add_file "flaky_$i.zip" drop 9000000 11000000; done
if ! HLS_SECONDS=$hls_seconds "$repo/tests/media/make_fixtures.sh" "$work/fixtures" >"$work/logs/fixtures.log" 2>&1; then
  cat "$work/logs/fixtures.log"
  echo "soak: the HLS fixture could not be made" >&2
  exit 2
fi
playlist_path=/hls/master.m3u8 reference_path=/ref/master.m3u8
playlist_output=master.mov
total=$((${#names[@]} + 1))

declare -A source_sha
{
  echo '{"files": {'
  sep=
  for i in "${!names[@]}"; do
    source_sha[${names[i]}]=$(sha256sum "$www/files/${names[i]}" | cut -d' ' -f1)
    printf '%s"/files/%s": {"path": "%s", "mode": "%s"}\n' "$sep" "${names[i]}" "$www/files/${names[i]}" "${modes[i]}"
    sep=,
  done
  # The playlist's parts come slower than real time, so kills catch the remux;
  # /ref/ serves them at full speed for ffmpeg's reference copy.
  printf '}, "dirs": {"/hls/": {"path": "%s", "mode": "ranged", "rate": 40000},\n' "$work/fixtures/hls"
  printf '          "/ref/": {"path": "%s", "mode": "ranged"}}}\n' "$work/fixtures/hls"
} >"$work/manifest.json"
bytes_total=$(du -cb "$www/files" "$work/fixtures/hls" | tail -1 | cut -f1)
# Paced so that the transfers outlast the kills (about 4.75 s apart) by half:
# bytes / (kills * 4.75 s * 1.5).
rate=${SOAK_RATE:-$((bytes_total * 8 / (kills * 57)))}
say "seed $seed, $mode form: $total files ($((bytes_total / 1000000)) MB, with a ${hls_seconds}-second playlist), $kills kills, served at $((rate / 1000)) kB/s"

node "$here/soak_server.mjs" --manifest "$work/manifest.json" --log "$work/logs/server.log" --parent $$ \
  --ttl $((wait_timeout + 1800)) --seed "$seed" --rate "$rate" >"$work/server.out" 2>"$work/logs/server.err" &
server_pid=$!
for ((i = 0; i < 100; i++)); do
  grep -q '^port ' "$work/server.out" 2>/dev/null && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
server_port=$(sed -n 's/^port //p' "$work/server.out")
[[ -n $server_port ]] || { cat "$work/logs/server.err"; echo "soak: the file server did not start" >&2; exit 2; }
origin=http://127.0.0.1:$server_port

# --- shelf -------------------------------------------------------------------

run=0 base=
show_tail() {  # FILE [LINES]
  echo "---- tail of ${1#"$work"/} ----"
  tail -n "${2:-40}" "$1"
  echo "----"
}

start_shelf() {
  run=$((run + 1))
  local log=$work/logs/shelf.$run.log
  : >"$log"
  "$shelf_binary" serve --root "$root" --port 0 >"$log" 2>&1 &
  shelf_pid=$!
  echo "$shelf_pid" >"$work/shelf.pid"
  local port=
  for ((i = 0; i < 1200; i++)); do
    port=$(sed -n 's|^shelf: open http://127\.0\.0\.1:\([0-9]*\)/.*|\1|p' "$log")
    [[ -n $port ]] && break
    kill -0 "$shelf_pid" 2>/dev/null || break
    sleep 0.1
  done
  if [[ -z $port ]]; then
    fail "shelf run $run did not start (pid $shelf_pid)"
    show_tail "$log"
    echo "soak_files_ok 0/$total"
    exit 1
  fi
  # The pid must be shelf's own, not a wrapper's.
  if [[ $(readlink -f "/proc/$shelf_pid/exe") != "$shelf_binary" ]] ||
    ! grep -q "\"pid\": $shelf_pid\b" "$root/Library/Server.json"; then
    fail "pid $shelf_pid is not the shelf process of run $run"
    echo "soak_files_ok 0/$total"
    exit 1
  fi
  base=http://127.0.0.1:$port/
  timeline "run $run started, pid $shelf_pid, port $port"
}

# Sanitizer reports and unexpected exits count as failures.
check_exit() {  # STATUS EXPECTED WHAT
  if [[ $1 != "$2" ]]; then
    fail "shelf run $run exited with status $1 ($3)"
    show_tail "$work/logs/shelf.$run.log"
  fi
}

stop_shelf_kill() {
  kill -9 "$shelf_pid"
  wait "$shelf_pid" 2>/dev/null
  check_exit $? 137 "kill -9"
  shelf_pid=
  rm -f "$work/shelf.pid"
}

stop_shelf_term() {
  kill -TERM "$shelf_pid"
  local status
  for ((i = 0; i < 300; i++)); do
    kill -0 "$shelf_pid" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$shelf_pid" 2>/dev/null; then
    fail "shelf run $run did not stop within 30 s of SIGTERM"
    kill -9 "$shelf_pid"
  fi
  wait "$shelf_pid" 2>/dev/null
  status=$?
  check_exit $status 0 "SIGTERM"
  shelf_pid=
  rm -f "$work/shelf.pid"
}

queue_line=
queue() {  # [SAVE]: sets queue_line to "count sumPosition sumSize"
  queue_line=$(node "$client" queue "$base" "${1:-}")
}

documents_summary() {
  local count bytes
  count=$(find "$root/Documents" -maxdepth 1 -type f 2>/dev/null | wc -l)
  bytes=$(du -sb "$root/Documents" 2>/dev/null | cut -f1)
  echo "$count files, $((bytes / 1000000)) MB"
}

start_shelf
say "file server on port $server_port, shelf run 1 pid $shelf_pid"

# --- Queueing ----------------------------------------------------------------

declare -A unique_of
add_address() {  # PATH LABEL
  local out
  out=$(node "$client" add "$base" "$origin$1")
  if [[ $out != 201\ * ]]; then
    fail "adding $origin$1 was answered: $out"
    return
  fi
  read -r _ uid output <<<"$out"
  unique_of[$2]=$uid
  echo "$2 $uid $output" >>"$work/added"
  timeline "added $2 as $uid ($output)"
}
# The playlist first (it runs at once), the rest in a shuffled order.
order=("${names[@]}")
for ((i = ${#order[@]} - 1; i > 0; i--)); do
  j=$((RANDOM % (i + 1)))
  tmp=${order[i]} order[i]=${order[j]} order[j]=$tmp
done
add_address "$playlist_path" "$playlist_output"
for name in "${order[@]}"; do add_address "/files/$name" "$name"; done
queue
say "queued ${#unique_of[@]}/$total addresses; queue: $queue_line"

# --- Kills -------------------------------------------------------------------

for ((k = 1; k <= kills; k++)); do
  rand_between 500 6000
  ms=$r
  sleep "$((ms / 1000)).$(printf '%03d' $((ms % 1000)))"
  queue "$work/snapshots/before-kill-$k.json" || queue_line="no answer ($queue_line)"
  timeline "kill $k of run $run (pid $shelf_pid) after ${ms} ms; queue $queue_line; documents $(documents_summary)"
  stop_shelf_kill
  start_shelf
  queue "$work/snapshots/after-restart-$k.json" || queue_line="no answer ($queue_line)"
  say "kill $k/$kills after ${ms} ms; run $run pid $shelf_pid; queue (count position size): $queue_line"
done

# --- Draining ----------------------------------------------------------------

say "waiting for the queue to drain (up to $wait_timeout s)"
deadline=$((SECONDS + wait_timeout)) next_report=$SECONDS drained=0
while ((SECONDS < deadline)); do
  if ! kill -0 "$shelf_pid" 2>/dev/null; then
    wait "$shelf_pid" 2>/dev/null
    check_exit $? "running" "while draining"
    timeline "run $run died on its own"
    start_shelf
  fi
  if queue "$work/snapshots/last.json"; then
    read -r count position size <<<"$queue_line"
    if [[ $count == 0 ]]; then
      drained=1
      break
    fi
    if ((SECONDS >= next_report)); then
      say "progress: queue $count, $((position / 1000000))/$((size / 1000000)) MB of the queued files, documents $(documents_summary)"
      next_report=$((SECONDS + 10))
    fi
  fi
  sleep 2
done
timeline "drained=$drained"
if ((drained)); then
  say "queue empty; documents $(documents_summary)"
else
  fail "the queue did not drain within $wait_timeout s: $(cat "$work/snapshots/last.json")"
fi

# A clean stop and one more start: nothing may come back from the database.
stop_shelf_term
start_shelf
sleep 3
if queue "$work/snapshots/final.json"; then
  [[ ${queue_line%% *} == 0 ]] || fail "records left after the restart: $(cat "$work/snapshots/final.json")"
else
  fail "the final run gave no queue: $queue_line"
fi
stop_shelf_term

# --- Checks ------------------------------------------------------------------

ok=0 bad_names=()
declare -A expected
for name in "${names[@]}"; do
  expected[$name]=1
  file=$root/Documents/$name
  if [[ ! -f $file ]]; then
    fail "missing in Documents: $name (uniqueId ${unique_of[$name]:-none})"
    bad_names+=("$name")
  elif [[ $(sha256sum "$file" | cut -d' ' -f1) != "${source_sha[$name]}" ]]; then
    fail "content differs: $name ($(stat -c %s "$file") bytes, source $(stat -c %s "$www/files/$name"))"
    bad_names+=("$name")
  else
    ok=$((ok + 1))
  fi
done

# The playlist against ffmpeg's own copy of the smallest variant.
expected[$playlist_output]=1
counts() {
  ffprobe -v error -count_packets -show_entries stream=codec_type,nb_read_packets -of csv=p=0 "$1" | sort | tr '\n' ' '
}
layout() {  # the streams' codecs and shapes, which tell the variants apart
  ffprobe -v error -show_entries stream=codec_type,codec_name,width,height,sample_rate,channels -of csv=p=0 "$1" |
    sort | tr '\n' ' '
}
payloads() {  # stream, size and hash of every packet, without timestamps
  ffmpeg -v error -nostdin -i "$1" -map 0 -c copy -f framemd5 - | grep -v '^#' | cut -d, -f1,5,6 | sha256sum
}
movie=$root/Documents/$playlist_output
if [[ ! -f $movie ]]; then
  fail "missing in Documents: $playlist_output (uniqueId ${unique_of[$playlist_output]:-none})"
else
  ffprobe -v error -show_programs -of json "$origin$reference_path" >"$work/programs.json" 2>"$work/logs/ffprobe.log"
  program=$(node "$client" smallest-program "$work/programs.json")
  if [[ -z $program ]] ||
    ! ffmpeg -v error -nostdin -y -i "$origin$reference_path" -map "0:p:$program" -c copy "$work/reference.mov" \
      2>"$work/logs/reference.log"; then
    fail "no reference copy of the playlist (program ${program:-none}): $(tail -3 "$work/logs/reference.log")"
  else
    streams=$(ffprobe -v error -show_entries stream=codec_type -of csv=p=0 "$movie" | sort | tr '\n' ' ')
    got=$(counts "$movie")
    want=$(counts "$work/reference.mov")
    if [[ $streams != "audio video " ]]; then
      fail "$playlist_output holds streams [$streams], not one video and one audio"
    elif [[ $got != "$want" ]]; then
      fail "$playlist_output packet counts [$got] differ from ffmpeg's [$want] (program $program)"
    elif [[ $(layout "$movie") != "$(layout "$work/reference.mov")" ]]; then
      fail "$playlist_output streams [$(layout "$movie")] differ from ffmpeg's [$(layout "$work/reference.mov")]"
    elif [[ $(payloads "$movie") != "$(payloads "$work/reference.mov")" ]]; then
      fail "$playlist_output packet data differs from ffmpeg's copy of program $program"
    else
      ok=$((ok + 1))
    fi
  fi
fi

# Exactly the expected names: no "(1)" copies, nothing else.
while IFS= read -r -d '' file; do
  name=${file##*/}
  [[ -n ${expected[$name]:-} ]] || fail "unexpected file in Documents: $name ($(stat -c %s "$file") bytes)"
done < <(find "$root/Documents" -mindepth 1 -print0)

leftovers=$(find "$root/Library/DownloaderTmpFiles" -mindepth 1 2>/dev/null | sed "s|^$root/||")
[[ -z $leftovers ]] || fail "left in Library/DownloaderTmpFiles: $(echo $leftovers)"
stale=$(find "$root/Library/Caches/URLSessionDownloads" -type f 2>/dev/null | wc -l)
((stale == 0)) || say "note: $stale transfer file(s) left in Library/Caches/URLSessionDownloads"

if grep -l -E 'ERROR: (AddressSanitizer|LeakSanitizer)|runtime error:' "$work"/logs/shelf.*.log >"$work/sanitized" 2>/dev/null; then
  while read -r log; do
    fail "sanitizer report in ${log#"$work"/}"
    grep -m1 -A20 -E 'ERROR: (AddressSanitizer|LeakSanitizer)|runtime error:' "$log"
  done <"$work/sanitized"
fi

say "$(grep -c drop-after "$work/logs/server.log") connections dropped, $((run)) shelf runs"
if ((${#failures[@]})); then
  echo "==== kills and restarts ===="
  cat "$work/timeline"
  echo "==== added ===="
  cat "$work/added" 2>/dev/null
  echo "==== what the runs logged beyond the usual ===="
  grep -v -E '^shelf: |Checking URL|File added to download queue|advertisement requested|Manage your downloads|The downloaded files' \
    "$work"/logs/shelf.*.log | sed "s|^$work/logs/||" | tail -n 40
  for name in "${bad_names[@]}"; do
    echo "==== requests for $name ===="
    grep -F "/files/$name " "$work/logs/server.log" | tail -n 15
  done
  echo "==== failed checks ===="
  printf '%s\n' "${failures[@]}"
fi
echo "soak_files_ok $ok/$total"
((${#failures[@]} == 0 && ok == total))
