#!/usr/bin/env bash
# Runs vesta-monitor in a throw-away sandbox: every fixed path of the
# system lives under a temporary VESTA_ROOT (service configuration, shared
# folders, the sync daemon's socket), the daemon's own paths come from a
# configuration file inside it.  A simulated sync daemon answers on
# $VESTA_ROOT/tmp/tarn.sock and a simulated remote server on a loopback
# port; both record what they are asked.  The monitor's log is shown live
# while a short demonstration runs, each step printed as it happens: the
# sync daemon loses the sample connection and finds it again, a listing
# renames the sample session, an error notification pauses it.  Stops on
# Ctrl-C, or after RUN_SECONDS when that is set.
#
#   tools/run-sandbox.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/.." && pwd)
build=$(cd "${1:-build}" && pwd)
bin="$build/monitor/vesta-monitor"
ctl="$build/tools/monitorctl/vesta-monitorctl"
root=$(mktemp -d /tmp/vesta-sandbox-XXXXXX)
export VESTA_ROOT=$root

volume=$root/volume1
mkdir -p "$root/run" "$root/tmp" "$volume/@FernboxTandem/log" "$volume/@FernboxTandem/session" \
         "$root/var/packages/Fernbox/etc/tandem" "$root/etc/vesta/shares" "$volume/docs"
echo "volume=$volume" > "$root/var/packages/Fernbox/etc/tandem/service.conf"
# A local shared folder for the sample session.
printf 'path=%s\n' "$volume/docs" > "$root/etc/vesta/shares/docs.conf"
printf 'monitor_daemon=7\nipc=6\nsystem_db_debug=6\ndefault_component=6\n' > "$root/log.levels"
cat > "$root/monitor.conf" <<CONF
pid_file = $root/run/vesta-monitord.pid
system_db_path = $root/system.sqlite
socket_path = $root/run/tarn-monitor.sock
log_level_file = $root/log.levels
update_status_period = 2
CONF

# What the sync daemon says about the sample connection: `daemon_reports WORD`.
daemon_reports() {
  cat > "$root/sync-daemon-script.json.tmp" <<JSON
{"replies": {"get_status": {"connection_list": [{"connection_id": 1, "status": "$1",
              "server_ip": "127.0.0.1", "server_port": $server_port, "connection_mode": 1,
              "package_major": 3, "package_minor": 1, "package_version": 10001,
              "protocol_version": 70, "nx_id": "nx-sample", "restore_id": "",
              "tunnel_ip": "", "tunnel_port": 0}]},
             "*": {"ack": "ok"}}}
JSON
  mv "$root/sync-daemon-script.json.tmp" "$root/sync-daemon-script.json"
}
# What the remote server calls the sample session's view 100: `server_names NAME`.
server_names() {
  cat > "$root/remote-server-script.json.tmp" <<JSON
{"replies": {"query_user_info": {"uid": 1026, "gid": 100, "is_admin_group": 0,
  "view_list": [{"view_id": 100, "name": "$1", "privilege": "read-write"}]}}}
JSON
  mv "$root/remote-server-script.json.tmp" "$root/remote-server-script.json"
}
server_names team

log=$volume/@FernboxTandem/log/tarn_monitor.log
pidfile=$root/run/vesta-monitord.pid
sock=$root/run/tarn-monitor.sock
pids=()

stop() {
  trap - EXIT INT TERM
  echo
  if [ -f "$pidfile" ]; then
    "$ctl" --socket "$sock" stop >/dev/null 2>&1 || kill "$(cat "$pidfile")" 2>/dev/null || true
    for _ in $(seq 60); do [ -f "$pidfile" ] || break; sleep 0.1; done
  fi
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
  echo "stopped; sandbox left in $root"
  echo "requests the sync daemon received: $root/sync-daemon.jsonl"
  echo "requests the remote server received: $root/remote-server.jsonl"
}
trap stop EXIT INT TERM

sql() { sqlite3 -cmd ".timeout 10000" "$root/system.sqlite" "$1"; }
# Waits up to 30 s for a condition; says what was seen, or that it was not.
await() {
  local what=$1
  shift
  for _ in $(seq 300); do
    if "$@" >/dev/null 2>&1; then echo "<<< $what"; return 0; fi
    sleep 0.1
  done
  echo "<<< not seen within 30 s: $what"
}
logged() { grep -qF "$1" "$log"; }
step() { echo; echo ">>> $*"; }
ctl() { echo ">>> vesta-monitorctl $* -> $("$ctl" --socket "$sock" "$@")"; }

echo "sandbox: $root"
python3 "$src/tests/peers/remote_server.py" --port 0 --record "$root/remote-server.jsonl" \
  --script "$root/remote-server-script.json" --ready "$root/tmp/remote-server.ready" &
pids+=($!)
for _ in $(seq 50); do [ -f "$root/tmp/remote-server.ready" ] && break; sleep 0.1; done
server_port=$(cat "$root/tmp/remote-server.ready")
echo "simulated remote server on 127.0.0.1:$server_port"
daemon_reports connected
python3 "$src/tests/peers/sync_daemon.py" --record "$root/sync-daemon.jsonl" \
  --script "$root/sync-daemon-script.json" --ready "$root/tmp/sync-daemon.ready" &
pids+=($!)
for _ in $(seq 50); do [ -f "$root/tmp/sync-daemon.ready" ] && break; sleep 0.1; done

"$bin" "$root/monitor.conf"
for _ in $(seq 50); do [ -S "$sock" ] && break; sleep 0.1; done
[ -S "$sock" ] || { echo "vesta-monitor did not start; see $log"; exit 1; }
echo "vesta-monitor runs as pid $(cat "$pidfile"), socket $sock"

# The monitor created the schema; add a sample connection and session.
sql "INSERT INTO connection_table (id, conn_mode, server_name, server_ip, server_port, username,
  nx_id, session, protocol_version, linked, package_version, major, minor, use_ssl)
  VALUES (1, 1, 'sample-nas', '127.0.0.1', $server_port, 'alice', 'nx-sample', 'sid', 70, 1,
  10001, 3, 1, 0);
INSERT INTO session_table (id, conn_id, share_name, remote_path, view_id, sync_folder,
  is_daemon_enable) VALUES (1, 1, 'team', '/', 100, 'docs/', 1);"

tail -n +1 -F "$log" 2>/dev/null &
pids+=($!)

step "the sync daemon reports connection 1 as not connected"
daemon_reports disconnected
await "connection 1 is connecting" logged "Switch connection 1 (sample-nas) to connecting status"
step "the sync daemon reports connection 1 as connected again"
daemon_reports connected
await "connection 1 recovered" logged "Connection 1 is recovered to connected status"
echo "    connection 1 status|error: $(sql 'SELECT status, error FROM connection_table')"

step "the remote server renames view 100 to 'projects'; ask for a listing of connection 1"
server_names projects
ctl refresh-session 1
renamed() { [ "$(sql 'SELECT share_name FROM session_table WHERE id = 1')" = projects ]; }
await "session 1 renamed to 'projects'" renamed

step "the sync daemon reports that session 1's quota is full (-15)"
ctl notify-error 1 1 -15
notes=$root/var/lib/vesta/notifications.jsonl
await "a notification to the administrators" test -s "$notes"
[ -s "$notes" ] && echo "    $(tail -n 1 "$notes")"
paused() { grep -q '"action": "pause", "session_id": 1' "$root/sync-daemon.jsonl"; }
await "the sync daemon is told to pause session 1" paused
echo "    session 1 status|error: $(sql 'SELECT status, error FROM session_table WHERE id = 1')"

step "more requests"
for req in "fast-monitor" "share-hook docs set_privilege_change"; do
  # shellcheck disable=SC2086
  ctl $req
done

if [ -n "${RUN_SECONDS:-}" ]; then
  sleep "$RUN_SECONDS"
else
  echo "running; Ctrl-C stops it"
  while [ -f "$pidfile" ]; do sleep 1; done
fi
