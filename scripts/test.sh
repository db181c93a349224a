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

run_build() { # <dir> <build type> <ctest args...>
  local dir=$1 type=$2; shift 2
  [ "$dir" = build ] || scripts/setup.sh "$dir" >/dev/null
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" >/dev/null
  ninja -C "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure -j1 "$@")
}

echo "== build and test (RelWithDebInfo)"
run_build build RelWithDebInfo

if [ "${ZORV_SANITIZERS:-1}" = 1 ]; then
  echo "== unit tests under AddressSanitizer + UndefinedBehaviorSanitizer"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_build build-asan Asan -L unit
  echo "== gate concurrency under ThreadSanitizer"
  TSAN_OPTIONS="halt_on_error=1 suppressions=$here/tests/tsan.supp" \
    run_build build-tsan Tsan -L tsan
fi
