#!/usr/bin/env bash
# Runs vesta-monitor in a throw-away sandbox: every fixed path of the
# system lives under a temporary VESTA_ROOT (service configuration, shared
# folders, the sync daemon's socket), the daemon's own paths come from a
# configuration file inside it.  A simulated sync daemon answers on
# $VESTA_ROOT/tmp/tarn.sock and records what it is told; the monitor's log is
# shown live; a few requests are sent with vesta-monitorctl.  Stops on
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
update_status_period = 5
CONF
# The sync daemon reports the sample connection as connected.
cat > "$root/sync-daemon-script.json" <<'JSON'
{"replies": {"get_status": {"connection_list": [{"connection_id": 1, "status": "connected",
              "server_ip": "192.0.2.10", "server_port": 6690, "connection_mode": 0,
              "package_major": 3, "package_minor": 1, "package_version": 10001,
              "protocol_version": 70, "nx_id": "nx-sample", "restore_id": "",
              "tunnel_ip": "", "tunnel_port": 0}]},
             "*": {"ack": "ok"}}}
JSON

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
}
trap stop EXIT INT TERM

echo "sandbox: $root"
python3 "$src/tests/peers/sync_daemon.py" --record "$root/sync-daemon.jsonl" \
  --script "$root/sync-daemon-script.json" --ready "$root/tmp/sync-daemon.ready" &
pids+=($!)
for _ in $(seq 50); do [ -f "$root/tmp/sync-daemon.ready" ] && break; sleep 0.1; done

"$bin" "$root/monitor.conf"
for _ in $(seq 50); do [ -S "$sock" ] && break; sleep 0.1; done
[ -S "$sock" ] || { echo "vesta-monitor did not start; see $log"; exit 1; }
echo "vesta-monitor runs as pid $(cat "$pidfile"), socket $sock"

# The monitor created the schema; add a sample connection and session.
sqlite3 "$root/system.sqlite" <<SQL
INSERT INTO connection_table (id, server_name, server_ip, server_port, username, nx_id,
  session, protocol_version, linked, package_version, major, minor)
  VALUES (1, 'sample-nas', '192.0.2.10', 6690, 'alice', 'nx-sample', 'sid', 70, 1, 10001, 3, 1);
INSERT INTO session_table (id, conn_id, share_name, remote_path, view_id, sync_folder,
  is_daemon_enable) VALUES (1, 1, 'team', '/', 100, '$volume/docs/', 1);
SQL

tail -n +1 -F "$log" 2>/dev/null &
pids+=($!)

sleep 1
for req in "fast-monitor" "refresh-session 1" "notify-error 1 1 -18" "share-hook docs set_privilege_change"; do
  # shellcheck disable=SC2086
  echo ">>> vesta-monitorctl $req -> $("$ctl" --socket "$sock" $req)"
done

if [ -n "${RUN_SECONDS:-}" ]; then
  sleep "$RUN_SECONDS"
else
  echo "running; Ctrl-C stops it"
  while [ -f "$pidfile" ]; do sleep 1; done
fi
