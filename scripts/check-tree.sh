#!/usr/bin/env bash
# Checks the tree's own rules after a build:
#   - the folders call one way (scripts/check-layers.sh);
#   - only platform/ (and tests, benchmarks) call the operating system directly;
#   - libvarn.so exports exactly the names that include/varn.h declares, and
#     libplugin_manager.so exactly its two calls;
#   - every source file is clang-formatted.
# Usage: scripts/check-tree.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
status=0

scripts/check-layers.sh "$build" || status=1

leaks=$(grep -rln --include='*.cc' --include='*.h' \
  -E '#include <(sys/[a-z_]+\.h|unistd\.h|pthread\.h|fcntl\.h|poll\.h)>' \
  core transport process services remote_file script plugin host quon include examples \
  2>/dev/null || true)
if [ -n "$leaks" ]; then
  echo "check-tree: operating-system headers outside platform/:"; echo "$leaks"; status=1
fi

declared=$(grep -ohE 'VARN_EXPORT [^;(]*[ *]([A-Za-z_][A-Za-z0-9_]*) *(\(|\[|;)' include/varn.h |
  sed -E 's/.*[ *]([A-Za-z_][A-Za-z0-9_]*) *(\(|\[|;)$/\1/' | sort -u)
# C++ names (the one call declared with C++ linkage) are compared by their
# function name: demangled, without the parameter list.
exported=$(nm -D -C --defined-only "$build/libvarn.so" | awk '{print $3}' | sed 's/(.*//' | sort -u)
if [ "$declared" != "$exported" ]; then
  echo "check-tree: exported symbols differ from include/varn.h (< declared, > exported):"
  diff <(echo "$declared") <(echo "$exported") || true
  status=1
fi

# The plug-in manager exports its two calls and nothing else.
manager=$(nm -D -C --defined-only "$build/host/plugin_manager/libplugin_manager.so" |
  awk '{$1=""; $2=""; sub(/^  /, ""); print}' | sort)
wanted=$'plugin_manager::GetInterface(char const*)\nplugin_manager::RegisterInterfaceDuringStartup(void*, char const*)'
if [ "$manager" != "$wanted" ]; then
  echo "check-tree: libplugin_manager.so exports:"; echo "$manager"; status=1
fi

if command -v clang-format >/dev/null; then
  unformatted=$(git ls-files '*.cc' '*.h' '*.c' | while read -r f; do
    clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || echo "$f"; done)
  if [ -n "$unformatted" ]; then
    echo "check-tree: not clang-formatted:"; echo "$unformatted"; status=1
  fi
fi
[ $status -eq 0 ] && echo "check-tree: platform confinement, exported symbols and formatting ok"
exit $status
