#!/usr/bin/env bash
# Builds the benchmarks (RelWithDebInfo) and runs them all, each figure
# printed beside its floor measured in the same run.
#   bench/run.sh [BUILD_DIR]      default build-bench
# The hub's own lines go to BUILD_DIR/bench-hub.log.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build-bench}"
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARN_SANITIZE=OFF -DVARN_BUILD_BENCH=ON)
if [ ! -f "$dir/CMakeCache.txt" ]; then
  scripts/deps.sh
  flags+=(-G Ninja -DVARN_BUILD_TESTS=OFF)
fi
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" --target handover_bench quon_relay_bench library_bench >/dev/null
log="$dir/bench-hub.log"
: >"$log"

run() {
  echo "== $*"
  if ! "$@" 2>>"$log"; then
    echo "failed: $*; the hub's log:" >&2
    tail -n 20 "$log" >&2
    exit 1
  fi
  echo
}

echo "$(nproc) cores, $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo)," \
  "$(. /etc/os-release && echo "$PRETTY_NAME"), $(g++ -dumpfullversion 2>/dev/null || echo "g++ ?")"
echo
run "$dir/bench/handover_bench" 100000
run "$dir/bench/quon/quon_relay_bench"
run "$dir/bench/library_bench"
# The same on one core: no wake-up crosses cores, so the figures move far
# less from run to run (the floors above depend on where the scheduler
# puts the two pipe processes).
if command -v taskset >/dev/null; then
  run taskset -c 0 "$dir/bench/library_bench"
fi
