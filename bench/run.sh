#!/usr/bin/env bash
# Builds the benchmarks (RelWithDebInfo) and runs them all, each figure
# printed beside its floor measured in the same run.
#   bench/run.sh [BUILD_DIR]      default build-bench
# The hub's own lines (and the bus daemon's) go to BUILD_DIR/bench-hub.log.
# Installs what the build needs (scripts/deps.sh) and what library_bench's
# bus leg needs (sd-bus's headers, a bus daemon) when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build-bench}"
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARN_SANITIZE=OFF -DVARN_BUILD_BENCH=ON)
if [ ! -f "$dir/CMakeCache.txt" ]; then
  scripts/deps.sh
  flags+=(-G Ninja -DVARN_BUILD_TESTS=OFF)
fi

# library_bench's bus leg needs sd-bus (found through pkg-config when the
# build is configured) and a bus daemon; without them it skips that leg.
bus_need=()
command -v pkg-config >/dev/null || bus_need+=(pkg-config)
pkg-config --exists libsystemd 2>/dev/null || bus_need+=(libsystemd-dev)
command -v dbus-daemon >/dev/null || bus_need+=(dbus-daemon)
if [ ${#bus_need[@]} -gt 0 ]; then
  echo "installing for the bus leg: ${bus_need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  if ! { $SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive \
      $SUDO apt-get install -y -qq "${bus_need[@]}"; } >/dev/null 2>&1; then
    echo "bus leg skipped: could not install ${bus_need[*]}"
  fi
fi

cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" --target handover_bench quon_relay_bench quon_isolation_bench \
  library_bench >/dev/null
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
run "$dir/bench/quon/quon_isolation_bench"
run "$dir/bench/library_bench"
# The same on one core: no wake-up crosses cores, so the figures move far
# less from run to run (the floors above depend on where the scheduler
# puts the two pipe processes).
if command -v taskset >/dev/null; then
  run taskset -c 0 "$dir/bench/library_bench"
  # Every packet through the hub, as before links: the relay's own figures
  # (its CPU per packet from 2 to 50 clients).
  run taskset -c 0 "$dir/bench/library_bench" --no-links
fi
