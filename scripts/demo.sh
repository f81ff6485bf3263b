#!/usr/bin/env bash
# End-to-end run of the daemon on private folders against the reference search service on loopback:
# build, start vorlen-refserver and vorlend (its bag URL pointed at the reference service), type queries
# letter by letter as a browser would and show where each answer came from (network or query cache, and the
# local completion a request carried) before and after the user's history holds an engaged completion,
# engage with a result, upload the feedback session at once (vorlenctl feedback flush) and show what the
# reference service received, then stop both cleanly and show how the daemon ended.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh default vorlend vorlenctl vorlen-refserver

root=$(mktemp -d "${TMPDIR:-/tmp}/vorlend-demo-XXXXXX")
chmod 700 "$root"
cleanup() {
  [ -n "${daemon_pid:-}" ] && kill "$daemon_pid" 2>/dev/null || true
  [ -n "${ref_pid:-}" ] && kill "$ref_pid" 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT

export XDG_RUNTIME_DIR="$root/run" XDG_CONFIG_HOME="$root/config" XDG_CACHE_HOME="$root/cache" TMPDIR="$root"
export VORLEND_LOG_LEVEL=debug
mkdir -p "$XDG_RUNTIME_DIR"

echo "== starting the reference search service on loopback"
build/default/vorlen-refserver --port 0 >"$root/refserver.out" 2>"$root/refserver.log" &
ref_pid=$!
for _ in $(seq 1 100); do
  [ -s "$root/refserver.out" ] && break
  sleep 0.1
done
ref=$(head -n1 "$root/refserver.out")
[ -n "$ref" ] || { echo "vorlen-refserver did not start:"; cat "$root/refserver.log"; exit 1; }
echo "== reference service at $ref"
build/default/vorlenctl defaults write com.velmo.vorlend VORBagURL "$ref/bag"

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

ctl() { echo "\$ vorlenctl $*"; env -u VORLEND_LOG_LEVEL build/default/vorlenctl "$@"; }
browser=(--id com.velmo.demo.browser --agent "Voyant/17.0")
echo "== a browser client"
ctl status
for _ in $(seq 1 50); do
  env -u VORLEND_LOG_LEVEL build/default/vorlenctl "${browser[@]}" bag >/dev/null 2>&1 && break
  sleep 0.1
done
ctl "${browser[@]}" bag
echo
echo "== typing \"new york\": the first letter is below the bag's minimum length; \"ne\" goes to the"
echo "   network and completes to \"news\", so \"new\" is answered from the query cache"
ctl "${browser[@]}" type "new york" --refserver "$ref" --delay-ms 50
echo
echo "== the user's own history: once, after typing \"new y\", they picked \"new york marathon\"."
echo "   Engagements are kept in the local completion history below the daemon's caches folder."
ctl completions add "new york marathon" --input "new y" --client browser
ctl completions lookup "ne" --client browser
echo
echo "== typing \"new york\" again, in a second browser window (a client of its own, with an empty query"
echo "   cache): each search now carries that local completion, and the service puts it first"
second=(--id com.velmo.demo.browser.2 --agent "Voyant/17.0")
ctl "${second[@]}" type "new york" --refserver "$ref" --delay-ms 50
echo
ctl sessions
echo "== the feedback session those keystrokes opened (times in ms from its first event)"
ctl "${second[@]}" feedback current | head -n 12
echo "== its session file on disk, written as it grows (what a crash would leave for upload)"
ctl feedback stored
echo "== requests the reference service received"
curl -s "$ref/_counts" 2>/dev/null || true
echo
echo
echo "== the user engages: they open the result \"new york marathon\" of the last search"
ctl "${second[@]}" report '{"$class": "QXResultEngagementFeedback", "result": {"$class": "QXSearchResult",
  "identifier": "r1", "type": 1, "title": "new york marathon", "queryId": 8, "userInput": "new york",
  "completedQuery": "new york marathon"}}' --query-id 8
stored_before=$(env -u VORLEND_LOG_LEVEL build/default/vorlenctl feedback stored | awk '/^session\./ {print $1}')
echo "== uploading now instead of at the next background period: the open session ends, is stored and sent"
ctl feedback flush
echo "== what the reference service received, one line per event"
for _ in $(seq 1 50); do
  curl -s "$ref/_feedback" | grep -q "result_engagement" && break
  sleep 0.1
done
curl -s "$ref/_feedback" | python3 -c '
import json, sys
for r in json.load(sys.stdin)["records"]:
    rec = r.get("record") or {}
    agent = rec.get("agent", "?").rsplit(") ", 1)[-1]
    print("session from %s to /%s, %s, %d events" % (agent, r["endpoint"], "valid" if r["valid"] else "INVALID: " + r["reason"], len(rec.get("fb", []))))
    for e in rec.get("fb", []):
        result = e.get("result") if isinstance(e.get("result"), dict) else {}
        detail = e.get("input") or e.get("reason") or ("result %s" % result["id"] if "id" in result else "")
        print("  %6s ms  %-24s %s" % (e.get("timestamp"), e.get("type"), detail))
'
echo "== and the session files are gone:"
stored_after=$(env -u VORLEND_LOG_LEVEL build/default/vorlenctl feedback stored | awk '/^session\./ {print $1}')
for f in $stored_before; do
  if grep -qx "$f" <<<"$stored_after"; then echo "  $f is still stored"; else echo "  $f: sent and deleted"; fi
done
echo "   (a file stored since holds only the record that the flush tool's own connection closed)"
ctl feedback stored

echo "== stopping it with SIGTERM"
kill -TERM "$daemon_pid"
set +e
wait "$daemon_pid"
status=$?
set -e
daemon_pid=
kill -TERM "$ref_pid"; wait "$ref_pid" || true; ref_pid=
echo "== vorlend log (last 40 lines):"
tail -n 40 "$root/vorlend.log"
echo "== counters it kept"
build/default/vorlenctl stats
echo "== vorlend exited with status $status"
[ "$status" -eq 0 ]
