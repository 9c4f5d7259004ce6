#!/usr/bin/env bash
# Fails when a library source includes a header of a layer above its own.
# Layers, lowest first; each may include only itself and the layers before it.
# A directory under znv/ that is not listed here fails too, so that a new
# layer has to be given its place.
#
#   tools/check_layers.sh [SOURCE_DIR]
set -euo pipefail
root=${1:-$(dirname "$0")/..}
layers=(platform account foundation protocol session tasks upload managers)

rank() {
  local i
  for i in "${!layers[@]}"; do
    [ "${layers[$i]}" = "$1" ] && { echo "$i"; return; }
  done
  echo -1
}

status=0
while IFS= read -r -d '' file; do
  rel=${file#"$root"/znv/}
  layer=${rel%%/*}
  [ "$layer" = "$rel" ] && continue  # znv/znv.h and friends: above every layer
  own=$(rank "$layer")
  if [ "$own" -lt 0 ]; then
    echo "$file: directory znv/$layer is not a known layer" >&2
    status=1
    continue
  fi
  while IFS= read -r line; do
    target=$(sed -E 's/^[0-9]+:[[:space:]]*#[[:space:]]*include[[:space:]]*["<]znv\/([^/">]+)\/.*/\1/' <<<"$line")
    other=$(rank "$target")
    if [ "$other" -lt 0 ] || [ "$other" -gt "$own" ]; then
      echo "$file:${line%%:*}: znv/$layer includes znv/$target, which is not below it" >&2
      status=1
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]znv/[^/">]+/' "$file" || true)
done < <(find "$root/znv" -type f \( -name '*.h' -o -name '*.cc' -o -name '*.inc' \) -print0)
exit $status
