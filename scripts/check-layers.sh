#!/usr/bin/env bash
# Checks that the folders call one way, as docs/design.md draws them:
#   platform <- host <- core <- transport <- process <- services
#            <- remote_file <- script <- plugin
# A folder may include headers of the folders before it in that order (and
# its own); the hub (quon/) may include only platform/ and the wire module
# of transport/ (transport/wire_*.h). With a build directory, the objects
# of the library are checked too: a function that a folder calls (through
# the public header, say) must be defined in that folder or one before it.
# Prints every include and call that breaks this.
# Usage: scripts/check-layers.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
order=(platform host core transport process services remote_file script plugin)
rank() {
  local i
  for i in "${!order[@]}"; do [ "${order[$i]}" = "$1" ] && { echo "$i"; return; }; done
  echo -1
}
status=0
for folder in "${order[@]}" quon; do
  [ -d "$folder" ] || continue
  while IFS=: read -r file line include; do
    target=${include%%/*}
    if [ "$folder" = quon ]; then
      case "$include" in
        platform/* | quon/* | transport/wire_*) continue ;;
      esac
      echo "check-layers: $file:$line: the hub includes $include"; status=1
      continue
    fi
    [ "$target" = "$folder" ] && continue
    r=$(rank "$target")
    [ "$r" -lt 0 ] && continue  # not a folder of the library
    if [ "$r" -gt "$(rank "$folder")" ]; then
      echo "check-layers: $file:$line: $folder/ includes $include, a layer above it"; status=1
    fi
  done < <(grep -rnoE '^#include "[a-z_]+/[^"]+"' "$folder" --include='*.h' --include='*.cc' |
           sed -E 's/#include "([^"]+)"/\1/')
done
build="${1:-}"
objects="$build/CMakeFiles/varn_obj.dir"
if [ -n "$build" ] && [ -d "$objects" ]; then
  defs=$(mktemp)
  trap 'rm -f "$defs"' EXIT
  # Only objects of sources that exist: a build directory may keep old ones.
  for folder in "${order[@]}"; do
    for src in $(git ls-files "$folder/*.cc"); do
      obj="$objects/$src.o"
      [ -f "$obj" ] || continue
      nm --defined-only "$obj" | awk -v f="$folder" '$2 ~ /^[TDBRW]$/ {print $3, f}'
    done
  done | sort -u > "$defs"
  for folder in "${order[@]}"; do
    for src in $(git ls-files "$folder/*.cc"); do
      obj="$objects/$src.o"
      [ -f "$obj" ] || continue
      while read -r sym; do
        target=$(awk -v s="$sym" '$1 == s {print $2; exit}' "$defs")
        [ -z "$target" ] || [ "$target" = "$folder" ] && continue
        if [ "$(rank "$target")" -gt "$(rank "$folder")" ]; then
          echo "check-layers: $src calls $(echo "$sym" | c++filt) of $target/, a layer above it"
          status=1
        fi
      done < <(nm -u "$obj" | awk '{print $2}')
    done
  done
fi
[ $status -eq 0 ] && echo "check-layers: every folder calls only the layers below it"
exit $status
