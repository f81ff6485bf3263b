#!/usr/bin/env bash
# End-to-end run of the daemon on private folders: build, start vorlend, talk to it as a client with
# vorlenctl (configure, search, list sessions), stop it with SIGTERM and show how it ended.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh default vorlend vorlenctl

root=$(mktemp -d "${TMPDIR:-/tmp}/vorlend-demo-XXXXXX")
chmod 700 "$root"
cleanup() {
  [ -n "${daemon_pid:-}" ] && kill "$daemon_pid" 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT

export XDG_RUNTIME_DIR="$root/run" XDG_CONFIG_HOME="$root/config" XDG_CACHE_HOME="$root/cache" TMPDIR="$root"
export VORLEND_LOG_LEVEL=debug
mkdir -p "$XDG_RUNTIME_DIR"

echo "== starting vorlend with private folders under $root"
build/default/vorlend 2>"$root/vorlend.log" &
daemon_pid=$!

for _ in $(seq 1 100); do
  grep -q "vorlend started" "$root/vorlend.log" 2>/dev/null && break
  sleep 0.1
done
if ! kill -0 "$daemon_pid" 2>/dev/null; then
  echo "vorlend exited early:"; cat "$root/vorlend.log"; exit 1
fi
echo "== vorlend is running as pid $daemon_pid"
ps -o pid,rss,etime,cmd -p "$daemon_pid" || true
echo "== its folders:"
find "$root" -mindepth 1 -maxdepth 4 \( -type d -o -type s -o -type f \) ! -name vorlend.log -printf '%M %p\n' | sort

ctl() { echo "\$ vorlenctl $*"; build/default/vorlenctl "$@"; }
echo "== a client session"
ctl status
ctl configure --id com.velmo.demo --agent "voyant/1.0"
# No bag server is configured for this run, so the daemon answers every query with its bag time-out
# error; vorlenctl prints it and exits 1.
ctl search --id com.velmo.demo --agent "voyant/1.0" "weather" || echo "(search exit status $?)"
ctl sessions
ctl --json sessions

echo "== stopping it with SIGTERM"
kill -TERM "$daemon_pid"
set +e
wait "$daemon_pid"
status=$?
set -e
daemon_pid=
echo "== vorlend log:"
cat "$root/vorlend.log"
echo "== counters it kept"
build/default/vorlenctl stats
echo "== vorlend exited with status $status"
[ "$status" -eq 0 ]
