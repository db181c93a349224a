#!/usr/bin/env bash
# Build the libFuzzer targets with clang (AddressSanitizer + UBSan) and run
# each for a bounded time from its seed corpus. Fails on any crash, leak,
# sanitizer report or wrong result a target detects.
#   scripts/fuzz.sh [seconds]      seconds per target (default 60)
#   ZORV_FUZZ_BUILD=<dir>          build tree (default ./build-fuzz)
#   ZORV_FUZZ_TARGETS="probe_args diag_ops card_tx"   which targets (default all)
#   ZORV_FUZZ_JOBS=<n>             parallel build jobs (default 2)
#   ZORV_FUZZ_CMAKE_ARGS="..."     more arguments for the configure step
# New inputs are kept in <build>/fuzz-corpus/<target>; an input that fails is
# written to <build>/fuzz-artifacts/ and its path printed.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
secs=${1:-60}
build=${ZORV_FUZZ_BUILD:-$here/build-fuzz}
targets=${ZORV_FUZZ_TARGETS:-probe_args diag_ops card_tx}
jobs=${ZORV_FUZZ_JOBS:-2}

case $secs in
  ''|*[!0-9]*) echo "usage: $0 [seconds]" >&2; exit 2 ;;
esac

# The driver-SDK headers: reuse a tree's copy, else fetch them for this tree.
sdk=${ZORV_SDK_INCLUDE:-}
if [ -z "$sdk" ] || [ ! -f "$sdk/ethdev_driver.h" ]; then
  if [ -f "$here/build/sdk/include/ethdev_driver.h" ]; then
    sdk=$here/build/sdk/include
  else
    scripts/setup.sh "$build" >/dev/null
    sdk=$build/sdk/include
  fi
fi

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DZORV_FUZZ=ON -DZORV_SDK_INCLUDE="$sdk" ${ZORV_FUZZ_CMAKE_ARGS:-} >/dev/null
ninja -C "$build" -j"$jobs" $(for t in $targets; do echo "fuzz_$t"; done)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=()
for t in $targets; do
  corpus=$build/fuzz-corpus/$t
  artifacts=$build/fuzz-artifacts
  mkdir -p "$corpus" "$artifacts"
  log=$build/fuzz-$t.log
  echo "== fuzz_$t for ${secs}s (log: $log)"
  if "$build/fuzz_$t" -max_total_time="$secs" -timeout=10 -rss_limit_mb=4096 \
       -print_final_stats=1 -artifact_prefix="$artifacts/$t-" \
       "$corpus" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
    grep -E '^stat::number_of_executed_units|^Done [0-9]+ runs' "$log" | sed 's/^/   /' || true
  else
    echo "   FAILED: fuzz_$t (exit $?); last lines of $log:"
    tail -n 30 "$log" | sed 's/^/   | /'
    failed+=("$t")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: ${#failed[@]} target(s) failed: ${failed[*]}"
  exit 1
fi
echo "fuzz: all targets ran ${secs}s without a finding"
