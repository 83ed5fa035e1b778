#!/usr/bin/env bash
# Builds everything and runs every test.
#   scripts/test.sh          normal build in build/, then the tree checks
#   scripts/test.sh asan     AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh tsan     clang build with ThreadSanitizer and the compiler's
#                            thread-safety analysis (-Wthread-safety -Werror) in build-tsan/
#   scripts/test.sh fuzz     clang build of the fuzz targets with AddressSanitizer and
#                            UndefinedBehaviorSanitizer in build-fuzz/, each run over its
#                            seed corpus for a bounded number of inputs (tests/fuzz/)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
mode="${1:-}"
dir=build
flags=()
targets=()  # what to build; empty: everything
labels=()   # which tests to run; empty: all
case "$mode" in
  asan)
    dir=build-asan
    flags=(-DVARN_SANITIZE=address -DVARN_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
    ;;
  tsan)
    dir=build-tsan
    flags=(-DVARN_SANITIZE=thread -DVARN_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug
           -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
    ;;
  fuzz)
    dir=build-fuzz
    flags=(-DVARN_SANITIZE=address -DVARN_BUILD_BENCH=OFF -DVARN_BUILD_FUZZ=ON
           -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
    targets=(--target varn_fuzz_targets)
    labels=(-L fuzz)
    ;;
  "") ;;
  *)
    echo "usage: scripts/test.sh [asan|tsan|fuzz]" >&2
    exit 2
    ;;
esac
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)" "${targets[@]}"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="second_deadlock_stack=1"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" "${labels[@]}"
[ -n "$mode" ] || scripts/check-tree.sh "$dir"
