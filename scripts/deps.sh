#!/usr/bin/env bash
# Installs the build tools and libraries the project needs, when missing.
# Debian packages only; safe to run again.
set -euo pipefail
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v clang++ >/dev/null || need+=(clang)
command -v clang-format >/dev/null || need+=(clang-format)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev libgmock-dev)
# clang's sanitizer runtime, for the thread-sanitizer build.
if ! command -v clang++ >/dev/null ||
   [ ! -f "$(clang++ --print-resource-dir)/lib/linux/libclang_rt.tsan-x86_64.a" ]; then
  need+=(libclang-rt-14-dev)
fi
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
fi
