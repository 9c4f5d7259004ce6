#!/usr/bin/env bash
# Fails when the README's library example differs from the lines of
# examples/upload_file.cc between the two "// [readme-example]" markers
# (compared without the function body's indentation).
#
#   tools/check_readme_example.sh [SOURCE_DIR]
set -euo pipefail
root=${1:-$(dirname "$0")/..}
example=$root/examples/upload_file.cc
readme=$root/README.md

from_example=$(awk '/\/\/ \[readme-example\]/ { inside = !inside; next } inside' "$example" |
  sed 's/^    //')
# The first ```cpp block after the README's marker comment.
from_readme=$(awk '/<!-- readme-example: examples\/upload_file.cc -->/ { found = 1; next }
  found && /^```cpp/ { inside = 1; next }
  inside && /^```/ { exit }
  inside' "$readme")

if [ -z "$from_example" ] || [ -z "$from_readme" ]; then
  echo "check_readme_example: a marker is missing in $example or $readme" >&2
  exit 1
fi
if [ "$from_example" != "$from_readme" ]; then
  echo "check_readme_example: README.md's example differs from $example:" >&2
  diff <(printf '%s\n' "$from_readme") <(printf '%s\n' "$from_example") >&2 || true
  exit 1
fi
