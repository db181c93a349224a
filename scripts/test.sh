#!/usr/bin/env bash
# Set up the machine (idempotent), build, and run the whole test suite.
#   scripts/test.sh            normal build in ./build, all tests
#   ZORV_SANITIZERS=0 ...      skip the sanitizer builds
# Exits non-zero when any test fails.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
jobs=$(nproc)

scripts/setup.sh build

run_build() { # <dir> <build type> <label or ""> : build, then run that label's tests
  local dir=$1 type=$2 label=$3 targets=()
  [ "$dir" = build ] || scripts/setup.sh "$dir" >/dev/null
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" >/dev/null
  if [ -n "$label" ]; then
    # Only the binaries of that label (test name = target name for them).
    mapfile -t targets < <(cd "$dir" && ctest -N -L "$label" | sed -n 's/^ *Test *#[0-9]*: //p')
  fi
  ninja -C "$dir" -j"$jobs" "${targets[@]}"
  (cd "$dir" && ctest --output-on-failure -j1 ${label:+-L "$label"})
}

echo "== build and test (RelWithDebInfo)"
run_build build RelWithDebInfo ""

if [ "${ZORV_SANITIZERS:-1}" = 1 ]; then
  echo "== unit tests under AddressSanitizer + UndefinedBehaviorSanitizer"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_build build-asan Asan unit
  echo "== gate concurrency under ThreadSanitizer"
  TSAN_OPTIONS="halt_on_error=1 suppressions=$here/tests/tsan.supp" \
    run_build build-tsan Tsan tsan
fi
