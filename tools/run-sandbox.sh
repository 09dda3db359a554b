#!/usr/bin/env bash
# Runs vesta-monitor in a throw-away sandbox: every fixed path of the
# system lives under a temporary VESTA_ROOT, the daemon's own paths come
# from a configuration file inside it.  Stops on Ctrl-C, or after
# RUN_SECONDS when that is set.
set -euo pipefail
build=${1:-build}
bin="$(cd "$build" && pwd)/monitor/vesta-monitor"
root=$(mktemp -d /tmp/vesta-sandbox-XXXXXX)
export VESTA_ROOT=$root
mkdir -p "$root/run" "$root/log" "$root/volume1"
cat > "$root/monitor.conf" <<CONF
pid_file = $root/run/vesta-monitord.pid
system_db_path = $root/system.sqlite
socket_path = $root/run/tarn-monitor.sock
log_level_file = $root/log.levels
CONF
printf 'monitor_daemon=7\n' > "$root/log.levels"

stop() {
  [ -f "$root/run/vesta-monitord.pid" ] && kill "$(cat "$root/run/vesta-monitord.pid")" 2>/dev/null || true
  for _ in $(seq 50); do [ -f "$root/run/vesta-monitord.pid" ] || break; sleep 0.1; done
  echo "stopped; sandbox left in $root"
}
trap stop EXIT

echo "sandbox: $root"
"$bin" "$root/monitor.conf"
for _ in $(seq 50); do [ -f "$root/run/vesta-monitord.pid" ] && break; sleep 0.1; done
echo "pid file $root/run/vesta-monitord.pid: $(cat "$root/run/vesta-monitord.pid")"
if [ -n "${RUN_SECONDS:-}" ]; then
  sleep "$RUN_SECONDS"
else
  echo "running; Ctrl-C stops it"
  while [ -f "$root/run/vesta-monitord.pid" ]; do sleep 1; done
fi
