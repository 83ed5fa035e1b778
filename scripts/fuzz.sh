#!/usr/bin/env bash
# Runs one fuzz target for a given time on a scratch copy of its seed corpus.
#   scripts/fuzz.sh NAME SECONDS
# NAME is one of the targets in tests/fuzz/ (NAME_fuzz.cc, seeds in
# tests/fuzz/corpus/NAME/). The target is built as scripts/test.sh fuzz
# builds it, in build-fuzz/. The inputs it finds stay in
# build-fuzz/fuzz-corpus/NAME/ (the seed corpus is not written); findings
# (crash-*, leak-*, timeout-*) are saved in build-fuzz/findings/NAME/ and the
# fuzzer's output in build-fuzz/findings/NAME.log. Prints how many inputs
# were run; exits non-zero when the fuzzer stopped on a finding.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -ne 2 ] || ! [[ "$2" =~ ^[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh NAME SECONDS" >&2
  echo "targets: $(ls tests/fuzz/corpus | tr '\n' ' ')" >&2
  exit 2
fi
name=$1
seconds=$2
if [ ! -f "tests/fuzz/${name}_fuzz.cc" ] || [ ! -d "tests/fuzz/corpus/$name" ]; then
  echo "scripts/fuzz.sh: no fuzz target $name; targets: $(ls tests/fuzz/corpus | tr '\n' ' ')" >&2
  exit 2
fi
scripts/deps.sh
dir=build-fuzz
cmake -S . -B "$dir" -G Ninja -DVARN_SANITIZE=address -DVARN_BUILD_BENCH=OFF -DVARN_BUILD_FUZZ=ON \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$dir" -j "$(nproc)" --target "${name}_fuzz"

scratch="$dir/fuzz-corpus/$name"
findings="$dir/findings/$name"
log="$dir/findings/$name.log"
rm -rf "$scratch"
mkdir -p "$scratch" "$findings"
cp "tests/fuzz/corpus/$name"/* "$scratch"/
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:halt_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
status=0
"$dir/tests/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$findings/" "$scratch" >"$log" 2>&1 ||
  status=$?
grep -E '^#[0-9]+ +DONE|^stat::|^SUMMARY|^check failed|^artifact_prefix|Test unit written' "$log" || true
runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
echo "$name: ${runs:-?} inputs run in $seconds s; corpus $(ls "$scratch" | wc -l) inputs;" \
  "findings: $(ls "$findings" | wc -l) (in $findings)"
exit $status
