#!/usr/bin/env bash
# Runs the benchmarks built into a build directory and prints their figures.
#
#   bench/run.sh <build dir> [benchmark name...]
#
# With no names every znv_bench_* executable of the build directory runs, one
# after another (they measure wall-clock time; run nothing else meanwhile).
# Exits non-zero when any benchmark misses its bar.
set -euo pipefail
build=${1:?usage: bench/run.sh <build dir> [benchmark name...]}
shift
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for exe in "$build"/znv_bench_*; do
    [ -x "$exe" ] && names+=("$(basename "$exe" | sed 's/^znv_bench_//')")
  done
fi
if [ ${#names[@]} -eq 0 ]; then
  echo "no benchmarks built in $build" >&2
  exit 1
fi
status=0
for name in "${names[@]}"; do
  echo "== $name"
  "$build/znv_bench_$name" || status=1
done
exit $status
