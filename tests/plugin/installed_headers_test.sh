#!/usr/bin/env bash
# The installed headers are enough to build a plug-in: the test plug-in is
# compiled against the installed include directory alone and linked against
# the installed plug-in manager alone, with no symbol left undefined.
# Usage: installed_headers_test.sh BUILD_DIR SOURCE_DIR CXX
set -euo pipefail
build=$1 source=$2 cxx=$3
prefix="$build/test-output/installed-headers"
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for header in varn.h varn_codes.h varn_export.h varn_plugin.h plugin_manager.h; do
  [ -f "$prefix/include/$header" ] || { echo "not installed: $header"; exit 1; }
done
"$cxx" -std=c++20 -Wall -Wextra -Werror -shared -fPIC -I"$prefix/include" \
  "$source/tests/plugin/test_plugin.cc" -o "$prefix/plugin.so" \
  -L"$prefix/lib" -lplugin_manager -Wl,--no-undefined
echo "a plug-in builds against the installed headers"
