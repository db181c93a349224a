#!/usr/bin/env bash
# Set up the machine (idempotent), build, and run the whole test suite.
#   scripts/test.sh            every stage below, in order
#   ZORV_SANITIZERS=0 ...      the normal stage only
# Stages:
#   1. normal build (./build, RelWithDebInfo): every test (unit, services,
#      end-to-end with the real peers, the virtual machine, fuzzing smoke);
#   2. AddressSanitizer + UndefinedBehaviorSanitizer (./build-asan): the
#      unit tests and the services' tests (LeakSanitizer on), then the chaos
#      (300 steps) and the hostile peers with that build of the driver loaded
#      into dpdk-testpmd;
#   3. ThreadSanitizer (./build-tsan): the queuing gate under polling threads
#      and the chaos of every thread with the real card.
# Every stage runs even when an earlier one failed; the script exits
# non-zero when any stage failed, and says which.
set -uo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
jobs=$(nproc)

scripts/setup.sh build || exit 1

failed=()

run_build() { # <dir> <build type> <label regex or ""> : build, then run those tests
  local dir=$1 type=$2 label=$3 targets=()
  if [ "$dir" != build ]; then
    scripts/setup.sh "$dir" >/dev/null || return 1
  fi
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" >/dev/null || return 1
  if [ -n "$label" ]; then
    # Only the binaries of those labels (test name = target name for them),
    # and the driver for the end-to-end ones.
    mapfile -t targets < <(cd "$dir" && ctest -N -L "$label" |
      sed -n 's/^ *Test *#[0-9]*: //p' | grep -v '^e2e_')
    targets+=(rte_net_zorv1)
  fi
  ninja -C "$dir" -j"$jobs" "${targets[@]}" || return 1
  (cd "$dir" && ctest --output-on-failure -j1 ${label:+-L "$label"})
}

stage() { # <name> <command...>
  local name=$1 t0=$SECONDS
  shift
  echo "== $name"
  if "$@"; then
    echo "== $name: passed in $((SECONDS - t0)) s"
  else
    echo "== $name: FAILED after $((SECONDS - t0)) s"
    failed+=("$name")
  fi
}

stage "build and test (RelWithDebInfo)" run_build build RelWithDebInfo ""

if [ "${ZORV_SANITIZERS:-1}" = 1 ]; then
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export LSAN_OPTIONS="suppressions=$here/tests/lsan.supp:print_suppressions=0"
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  stage "AddressSanitizer + UndefinedBehaviorSanitizer: unit, services, chaos" \
    run_build build-asan Asan 'unit|service|asan'
  unset ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS
  export TSAN_OPTIONS="halt_on_error=1 suppressions=$here/tests/tsan.supp"
  stage "ThreadSanitizer: gate concurrency, chaos of every thread" \
    run_build build-tsan Tsan tsan
  unset TSAN_OPTIONS
fi

if [ ${#failed[@]} -gt 0 ]; then
  printf 'FAILED stages:\n'
  printf '  %s\n' "${failed[@]}"
  exit 1
fi
echo "all stages passed"
