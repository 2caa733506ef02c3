# Shared helpers for the benchmark scripts: a Release build, a free loopback
# port, nginx on loopback started and stopped by process id, and medians.

bench_build() {  # targets...
  local here; here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  "$here/scripts/setup.sh"
  local missing=()
  command -v nginx >/dev/null || missing+=(nginx)
  command -v curl >/dev/null || missing+=(curl)
  command -v aria2c >/dev/null || missing+=(aria2)
  [[ -x /usr/bin/time ]] || missing+=(time)
  if ((${#missing[@]})); then
    local sudo=""; [[ $(id -u) -eq 0 ]] || sudo="sudo"
    $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
  fi
  BENCH_BUILD="${BUILD_DIR:-$here/build-bench}"
  cmake -S "$here" -B "$BENCH_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DSHELF_TESTS=OFF >/dev/null
  cmake --build "$BENCH_BUILD" -j "$(nproc)" --target "$@" >/dev/null
}

free_port() {  # a loopback port nothing listens on, chosen at random
  local port
  for _ in $(seq 100); do
    port=$((20000 + RANDOM % 40000))
    (echo > "/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return 0; }
  done
  return 1
}

# nginx_start DOCROOT WORKDIR: serves DOCROOT on 127.0.0.1:$NGINX_PORT; sets NGINX_PID.
nginx_start() {
  local root=$1 work=$2
  NGINX_PORT=$(free_port)
  mkdir -p "$work/nginx"
  chmod a+rx "$work" "$root"  # nginx's workers read the files as an unprivileged user
  cat > "$work/nginx/nginx.conf" <<CONF
daemon off;
worker_processes 1;
error_log $work/nginx/error.log;
pid $work/nginx/nginx.pid;
events { worker_connections 256; }
http {
  access_log off;
  sendfile on;
  keepalive_requests 100000;
  client_body_temp_path $work/nginx;
  proxy_temp_path $work/nginx;
  fastcgi_temp_path $work/nginx;
  uwsgi_temp_path $work/nginx;
  scgi_temp_path $work/nginx;
  types { application/vnd.apple.mpegurl m3u8; video/mp2t ts; }
  default_type application/octet-stream;
  server { listen 127.0.0.1:$NGINX_PORT; root $root; }
}
CONF
  nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" &
  NGINX_PID=$!
  for _ in $(seq 50); do
    curl -s -o /dev/null "http://127.0.0.1:$NGINX_PORT/" && return 0
    sleep 0.1
  done
  echo "nginx did not start" >&2
  return 1
}

nginx_stop() {
  [[ -n "${NGINX_PID:-}" ]] && kill "$NGINX_PID" 2>/dev/null && wait "$NGINX_PID" 2>/dev/null
  NGINX_PID=""
}

median() {  # numbers on stdin
  sort -g | awk '{a[NR]=$1} END {if (NR%2) print a[(NR+1)/2]; else printf "%.4f\n", (a[NR/2]+a[NR/2+1])/2}'
}

now_s() { date +%s.%N; }
calc() { awk "BEGIN { printf \"%.6f\", $* }"; }

# emulator_start WORKDIR OPTIONS...: link_emulator in front of nginx on $NGINX_PORT;
# sets EMU_PID and EMU_PORT. emulator_stop stops it by process id.
EMU_PID=""
emulator_start() {
  local work=$1; shift
  rm -f "$work/emulator.port"
  "$BENCH_BUILD/bench/link_emulator" --listen-port 0 --target "127.0.0.1:$NGINX_PORT" "$@" \
    > "$work/emulator.port" 2> "$work/emulator.log" &
  EMU_PID=$!
  for _ in $(seq 50); do
    [[ -s "$work/emulator.port" ]] && { read -r EMU_PORT < "$work/emulator.port"; return 0; }
    sleep 0.1
  done
  echo "link_emulator did not start" >&2
  cat "$work/emulator.log" >&2
  return 1
}

emulator_stop() {
  [[ -n "$EMU_PID" ]] && kill "$EMU_PID" 2>/dev/null && wait "$EMU_PID" 2>/dev/null
  EMU_PID=""
}
