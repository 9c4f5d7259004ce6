#!/usr/bin/env bash
# The one entry point for working on ZNVStorage.
#
#   ./dev.sh deps    install the Debian packages the build needs (only the missing ones)
#   ./dev.sh build   configure and build (warnings are errors)
#   ./dev.sh test    deps + build + every test through CTest
#   ./dev.sh demo    deps + build + `znv demo` (upload, download and verify a sample file)
#   ./dev.sh bench   deps + build + the benchmarks of bench/
#   ./dev.sh package deps + a Debian package of library, headers and tools (build-package/)
#   ./dev.sh fuzz [SECONDS]  deps + the libFuzzer targets of tests/fuzz (clang,
#                    ASan + UBSan, build-fuzz), each run SECONDS (default 60)
#
# ZNV_SANITIZE=address (address + undefined behaviour) or ZNV_SANITIZE=thread builds
# into its own build directory (build-asan, build-tsan) and runs the tests there.
# Tests whose name contains "Heavy" (gigabyte transfers, memory ceilings) are left
# out of sanitizer runs, where they would measure the sanitizer, not the code.
set -euo pipefail
cd "$(dirname "$0")"
ROOT=$(pwd)

PACKAGES=(
  build-essential cmake ninja-build pkg-config ccache file
  libcurl4-openssl-dev nlohmann-json3-dev libspdlog-dev libfmt-dev uuid-dev
  libcli11-dev libcpp-httplib-dev libssl-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev hyperfine curl
  iproute2 help2man
  clang libclang-rt-14-dev
)

log() { printf '[dev.sh] %s\n' "$*" >&2; }

deps() {
  local missing=()
  for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$p")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    log "all packages present"
    return 0
  fi
  log "installing: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { log "not root and no sudo: install them by hand"; exit 1; }
    sudo="sudo"
  fi
  # The package lists are refreshed only when something is missing, so a
  # second run installs and downloads nothing.
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

build_dir() {
  case "${ZNV_SANITIZE:-}" in
    "") echo "$ROOT/build" ;;
    address) echo "$ROOT/build-asan" ;;
    thread) echo "$ROOT/build-tsan" ;;
    *) log "ZNV_SANITIZE must be empty, address or thread"; exit 2 ;;
  esac
}

jobs() { nproc 2>/dev/null || echo 2; }

build() {
  local dir
  dir=$(build_dir)
  cmake -S "$ROOT" -B "$dir" -G Ninja -DZNV_WERROR=ON -DZNV_SANITIZE="${ZNV_SANITIZE:-}" >/dev/null
  cmake --build "$dir" -j "$(jobs)"
}

run_tests() {
  local dir
  dir=$(build_dir)
  local args=(--test-dir "$dir" --output-on-failure -j "$(jobs)" --timeout 900)
  if [ -n "${ZNV_SANITIZE:-}" ]; then
    args+=(-E Heavy)
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
  fi
  ctest "${args[@]}" "$@"
}

# A Debian package (CPack) of what `cmake --install` installs, built for
# /usr in its own build directory without tests, benchmarks or examples.
package() {
  local dir="$ROOT/build-package"
  cmake -S "$ROOT" -B "$dir" -G Ninja -DZNV_WERROR=ON -DCMAKE_INSTALL_PREFIX=/usr \
    -DZNV_BUILD_TESTS=OFF -DZNV_BUILD_BENCH=OFF -DZNV_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$dir" -j "$(jobs)"
  rm -f "$dir"/*.deb
  (cd "$dir" && cpack -G DEB >/dev/null)
  local deb
  deb=$(ls "$dir"/*.deb)
  log "built $deb"
  log "install it with: sudo apt-get install $deb"
}

# Builds the fuzz targets into build-fuzz and runs each for $1 seconds from
# its seed corpus (tests/fuzz/corpus/<name>); inputs it finds go to
# build-fuzz/corpus/<name>, a crashing input to build-fuzz/crashes/<name>/.
fuzz() {
  local seconds=${1:-60} dir="$ROOT/build-fuzz" failed=0
  [[ "$seconds" =~ ^[0-9]+$ ]] || { log "fuzz takes a number of seconds"; exit 2; }
  CC=clang CXX=clang++ cmake -S "$ROOT" -B "$dir" -G Ninja -DZNV_FUZZ=ON \
    -DZNV_SANITIZE=address >/dev/null
  cmake --build "$dir" --target znv_fuzz -j "$(jobs)"
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
  for src in "$ROOT"/tests/fuzz/*_fuzz.cc; do
    local name
    name=$(basename "$src" _fuzz.cc)
    mkdir -p "$dir/corpus/$name" "$dir/crashes/$name" "$ROOT/tests/fuzz/corpus/$name"
    log "fuzzing $name for ${seconds}s"
    if ! "$dir/tests/fuzz/fuzz_$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -max_len=65536 -print_final_stats=1 -artifact_prefix="$dir/crashes/$name/" \
        "$dir/corpus/$name" "$ROOT/tests/fuzz/corpus/$name" 2>"$dir/fuzz-$name.log"; then
      tail -n 60 "$dir/fuzz-$name.log" >&2
      log "fuzz_$name failed; the input is in $dir/crashes/$name/"
      failed=1
    else
      grep -E '^stat::number_of_executed_units' "$dir/fuzz-$name.log" | sed "s/^/[$name] /" >&2
    fi
  done
  return $failed
}

cmd=${1:-}
[ $# -gt 0 ] && shift
case "$cmd" in
  deps) deps ;;
  build) deps; build ;;
  test) deps; build; run_tests "$@" ;;
  demo)
    deps; build
    znv="$(build_dir)/znv"
    if [ ! -x "$znv" ]; then
      log "the znv command-line client is not built yet; there is no demo to run"
      exit 1
    fi
    exec "$znv" demo "$@"
    ;;
  package) deps; package ;;
  fuzz) deps; fuzz "$@" ;;
  bench)
    deps; build
    if [ -x "$ROOT/bench/run.sh" ]; then
      exec "$ROOT/bench/run.sh" "$(build_dir)" "$@"
    fi
    log "no benchmarks yet (bench/run.sh is missing)"
    exit 1
    ;;
  *)
    sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'
    [ -z "$cmd" ] && exit 2 || { log "unknown verb: $cmd"; exit 2; }
    ;;
esac
