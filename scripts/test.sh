#!/usr/bin/env bash
# Builds everything and runs every test.
#   scripts/test.sh          normal build in build/
#   scripts/test.sh asan     AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
mode="${1:-}"
dir=build
flags=()
if [ "$mode" = asan ]; then
  dir=build-asan
  flags=(-DVARN_SANITIZE=ON -DVARN_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
fi
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
[ "$mode" = asan ] || scripts/check-tree.sh "$dir"
