#!/usr/bin/env bash
# Burst micro-benchmark of the port driver: builds bench_burst (Release) in
# ./build, runs it pinned to one CPU and writes bench/results/burst_latest.md
# with the machine and the results table. Run from anywhere; paths are taken
# from the repository root.
#
# Environment: BENCH_CPU (CPU to pin to, default 0), BENCH_RUNS (runs per
# cell, default 7), BENCH_CELL_MS (time per cell and run, default 200).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

build=build
cpu=${BENCH_CPU:-0}
runs=${BENCH_RUNS:-7}
cell_ms=${BENCH_CELL_MS:-200}
out=bench/results/burst_latest.md

scripts/setup.sh "$build"
gen=()
[ -f "$build/CMakeCache.txt" ] || gen=(-G Ninja)
cmake -S . -B "$build" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j 2 --target bench_burst

cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
load=$(cut -d' ' -f1-3 /proc/loadavg)
cmd=(taskset -c "$cpu" "$build/bench/bench_burst" --runs "$runs" --cell-ms "$cell_ms" --cpu "$cpu")
echo "bench_burst: ${cmd[*]}" >&2
errlog=$(mktemp)
trap 'rm -f "$errlog" "$out.tmp"' EXIT
if ! table=$("${cmd[@]}" 2>"$errlog"); then
  cat "$errlog" >&2
  echo "bench_burst: failed; $out left as it was" >&2
  exit 1
fi

mkdir -p bench/results
{
  echo "# Burst cost of net_zorv1: latest run"
  echo
  echo "- machine: $(lscpu | sed -n 's/^Model name:[[:space:]]*//p' | head -n1), $(nproc) CPUs (nproc)"
  echo "- date: $(date -u '+%Y-%m-%d %H:%M:%S UTC')"
  echo "- load average before the run: $load"
  echo "- DPDK $(pkg-config --modversion libdpdk); $("$cxx" --version | head -n1); CMake build type Release"
  echo "- command: \`${cmd[*]}\`"
  echo "- logging: default levels (INFO), DEBUG off: the condition measured"
  echo
  echo "$table"
} > "$out.tmp"
mv "$out.tmp" "$out"
cat "$out"
