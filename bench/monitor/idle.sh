#!/usr/bin/env bash
# vesta-monitor's resident memory when idle and its CPU time over one idle
# minute (IDLE_SECONDS, default 60), with the default periods (status every
# 5 s, nothing to list).  Not part of ctest.
#   bench/monitor/idle.sh BUILD_DIR
set -euo pipefail
build=$(cd "${1:-build-bench}" && pwd)
seconds=${IDLE_SECONDS:-60}
root=$(mktemp -d /tmp/vesta-idle-XXXXXX)
export VESTA_ROOT=$root
volume=$root/volume1
mkdir -p "$volume/@FernboxTandem/log" "$root/var/packages/Fernbox/etc/tandem" "$root/tmp"
echo "volume=$volume" > "$root/var/packages/Fernbox/etc/tandem/service.conf"
echo "monitor_daemon=4" > "$root/levels"
printf 'pid_file=%s\nsystem_db_path=%s\nsocket_path=%s\nlog_level_file=%s\n' \
  "$root/monitor.pid" "$root/system.sqlite" "$root/monitor.sock" "$root/levels" > "$root/monitor.conf"
"$build/monitor/vesta-monitor" "$root/monitor.conf"
for _ in $(seq 50); do [ -S "$root/monitor.sock" ] && break; sleep 0.1; done
pid=$(cat "$root/monitor.pid")
ticks=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
c0=$(cpu)
sleep "$seconds"
c1=$(cpu)
rss=$(awk '/^VmRSS/ {print $2}' "/proc/$pid/status")
echo "vesta-monitor idle: VmRSS ${rss} kB; CPU $(( (c1 - c0) * 1000 / ticks )) ms over ${seconds} s"
echo "baseline (sleep 1 loop of this shell): VmRSS $(awk '/^VmRSS/ {print $2}' /proc/$$/status) kB"
kill "$pid"
for _ in $(seq 60); do [ -f "$root/monitor.pid" ] || break; sleep 0.1; done
rm -rf "$root"
