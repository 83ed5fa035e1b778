#!/usr/bin/env bash
# Builds everything and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)"
exec build/quon/quon --path build/examples build/examples/demo_client
