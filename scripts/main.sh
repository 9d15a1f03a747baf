#!/usr/bin/env bash
# The main job: install what is missing, build (Release, in build/), start the demo host, drive it from
# another process with examples/drive_demo.lua through the front end, and stop the host. The script
# server that the host starts on demand ends by itself once its last connection has gone; this waits
# for that too, so nothing started here is left running. Arguments go to the script (e.g. timeout=30).
# Every option is given, so the build is the same whatever configured build/ before.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=Release -DORVEX_BUILD_TESTS=OFF -DORVEX_BUILD_BENCH=OFF \
  -DORVEX_FUZZ=OFF -DORVEX_SANITIZE= -DORVEX_WERROR=OFF

port=10251
# True while something listens on TCP $port (read from /proc, so no extra tool is needed).
listening() {
  awk -v port="$(printf ':%04X' "$port")" \
    '$4 == "0A" && substr($2, length($2) - 4) == port { found = 1 } END { exit !found }' \
    /proc/net/tcp /proc/net/tcp6 2>/dev/null
}
# Waits up to $1 tenths of a second for the command in the other arguments to succeed.
wait_for() {
  local tenths="$1"; shift
  for ((i = 0; i < tenths; i++)); do
    "$@" && return 0
    sleep 0.1
  done
  "$@"
}

server_before=false
if listening; then server_before=true; fi

host_log=$(mktemp)
./build/bin/orvexDemoHost >"$host_log" 2>&1 &
host=$!
host_alive() { kill -0 "$host" 2>/dev/null; }
host_gone() { ! host_alive; }
stop_host() {
  if host_alive; then
    kill -TERM "$host" 2>/dev/null || true
    wait_for 100 host_gone || { echo "main: the demo host ignored SIGTERM; killing it" >&2; kill -KILL "$host"; }
  fi
  wait "$host" 2>/dev/null || true
}
trap 'stop_host; rm -f "$host_log"' EXIT

host_ready() { grep -qx "orvexDemo ready" "$host_log" || host_gone; }
wait_for 200 host_ready || true
if ! grep -qx "orvexDemo ready" "$host_log"; then
  echo "main: the demo host did not get ready within 20 s:" >&2
  cat "$host_log" >&2
  exit 1
fi
echo "main: orvexDemoHost (pid $host) is ready"

status=0
./build/bin/orvexScript examples/drive_demo.lua "$@" || status=$?

stop_host
echo "main: orvexDemoHost stopped"
if ! $server_before; then
  not_listening() { ! listening; }
  if wait_for 100 not_listening; then
    echo "main: the script server has ended"
  else
    echo "main: the script server still listens on port $port (it ends when its last connection goes)" >&2
  fi
fi
exit $status
