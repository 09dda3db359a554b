#!/usr/bin/env bash
# Runs every benchmark binary of a build, one after the other.
set -euo pipefail
build=${1:-build-bench}
results=$build/bench-results
rm -rf "$results"
mkdir -p "$results"
found=0
while IFS= read -r b; do
  found=1
  echo "== $b"
  "$b" --benchmark_counters_tabular=true \
       --benchmark_out="$results/$(basename "$b").json" --benchmark_out_format=json
done < <(find "$build/bench" -path '*/CMakeFiles' -prune -o -type f -executable -print | sort)
[ $found -eq 1 ] || echo "no benchmarks built"

# The daemon's idle footprint: resident memory and CPU over an idle minute.
echo "== bench/monitor/idle.sh"
bench/monitor/idle.sh "$build"

# One line per goal: the measured ratio beside its bound.
python3 "$(dirname "$0")/bench_summary.py" "$results"
