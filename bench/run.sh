#!/usr/bin/env bash
# Runs the benchmarks built into a build directory and prints their figures.
#
#   bench/run.sh <build dir> [--quick] [benchmark name...]
#
# With no names every znv_bench_* executable of the build directory runs, one
# after another (they measure wall-clock time; run nothing else meanwhile).
# --quick runs each at small sizes, to check them on a busy machine (the
# figures then say little). Exits non-zero when any benchmark misses its bar.
set -euo pipefail
build=${1:?usage: bench/run.sh <build dir> [benchmark name...]}
shift
names=()
flags=()
for arg in "$@"; do
  case "$arg" in
    --quick) flags+=("$arg") ;;
    *) names+=("$arg") ;;
  esac
done
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
  if [ "$name" = archive_bench ]; then
    # A google-benchmark program: it has its own flags.
    "$build/znv_bench_$name" || status=1
  else
    "$build/znv_bench_$name" ${flags[@]+"${flags[@]}"} || status=1
  fi
done
exit $status
