#!/usr/bin/env bash
# Forwarding throughput and control-plane timings of net_zorv1 in dpdk-testpmd,
# next to DPDK's vhost-user port (same virtio-user peer) and two ring ports.
# Sets the machine up, builds the driver (Release) in ./build, runs
# bench/throughput.py (which also measures net_zorv1 with 1,000 flow rules that
# match nothing, 64 B / 1 queue, once per round) and bench/ctrlplane.py and writes
# bench/results/throughput_latest.md and bench/results/throughput_latest.png.
# The method is described in bench/THROUGHPUT.md.
#
# Environment:
#   BENCH_QUICK=1       quick mode: 2 rounds, 0.5 s warm-up, 1 s windows,
#                       1 control-plane repetition (about 3 minutes; full: 8-10)
#   BENCH_ROUNDS        rounds of the throughput matrix (default 5)
#   BENCH_WARMUP        warm-up before each window, s (default 0.5)
#   BENCH_WINDOW        measuring window, s (default 2)
#   BENCH_DEBUG_WINDOW  window of the DEBUG-logging row, s (default 1; 0 skips)
#   BENCH_CTRL_REPS     repetitions of each control-plane case (default 3)
#   BENCH_BUILD         build directory (default build)
#   BENCH_LIB           measure this librte_net_zorv1.so instead: no set-up, no build
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

build=${BENCH_BUILD:-build}
if [ "${BENCH_QUICK:-0}" = 1 ]; then
  rounds=${BENCH_ROUNDS:-2}; warmup=${BENCH_WARMUP:-0.5}; window=${BENCH_WINDOW:-1}
  dbg_window=${BENCH_DEBUG_WINDOW:-0.5}; reps=${BENCH_CTRL_REPS:-1}; mode=quick
else
  rounds=${BENCH_ROUNDS:-5}; warmup=${BENCH_WARMUP:-0.5}; window=${BENCH_WINDOW:-2}
  dbg_window=${BENCH_DEBUG_WINDOW:-1}; reps=${BENCH_CTRL_REPS:-3}; mode=full
fi
out=bench/results/throughput_latest.md
png=bench/results/throughput_latest.png

[ "$(id -u)" = 0 ] || { echo "bench: run as root (vhost-user sockets under /var/run)" >&2; exit 1; }
# The commit as built (taken before the build: it may move during the run).
commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
# What was built may differ from the commit: name the changed sources.
changed=$(git status --porcelain -- drivers CMakeLists.txt 2>/dev/null | awk '{print $2}' | tr '\n' ' ')
[ -z "$changed" ] || commit="$commit, plus uncommitted changes to: ${changed% }"
if [ -n "${BENCH_LIB:-}" ]; then
  # A driver built elsewhere: no set-up, no build.
  lib=$(realpath "$BENCH_LIB")
  built="given as BENCH_LIB=$lib, built $(date -u -r "$lib" '+%Y-%m-%d %H:%M UTC') (not by this run: the commit below is the tree's at the run, not necessarily the library's)"
else
  scripts/setup.sh "$build"
  gen=()
  [ -f "$build/CMakeCache.txt" ] || gen=(-G Ninja)
  cmake -S . -B "$build" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" -j 2 --target rte_net_zorv1
  lib=$root/$build/lib/librte_net_zorv1.so
  cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
  built="built from this tree in $build with $("$cxx" --version | head -n1), CMake build type Release"
fi
[ -f "$lib" ] || { echo "bench: $lib not built" >&2; exit 1; }
command -v dpdk-testpmd >/dev/null || { echo "bench: dpdk-testpmd not found" >&2; exit 1; }
command -v stdbuf >/dev/null || { echo "bench: stdbuf (coreutils) not found" >&2; exit 1; }
command -v gnuplot >/dev/null || echo "bench: gnuplot not found (Debian package gnuplot-nox): no chart" >&2

export PYTHONDONTWRITEBYTECODE=1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
load0=$(cut -d' ' -f1-3 /proc/loadavg)
others=$(ps -eo comm= | grep -c -x -E 'dpdk-testpmd|dpdk-proc-info|dpdk-test' || true)
t0=$(date +%s)
date0=$(date -u '+%Y-%m-%d %H:%M:%S UTC')

echo "bench: throughput matrix ($mode: $rounds rounds, ${warmup} s warm-up, ${window} s windows)" >&2
rc=0
python3 bench/throughput.py --lib "$lib" --rounds "$rounds" --warmup "$warmup" \
  --window "$window" --debug-window "$dbg_window" \
  --md "$work/throughput.md" --json "$work/throughput.json" --png "$work/chart.png" || rc=1
echo "bench: control plane ($reps repetitions)" >&2
python3 bench/ctrlplane.py --lib "$lib" --reps "$reps" --md "$work/ctrlplane.md" || rc=1
load1=$(cut -d' ' -f1-3 /proc/loadavg)

mkdir -p bench/results
{
  echo "# Throughput of net_zorv1 in dpdk-testpmd: latest run"
  echo
  echo "- machine: $(lscpu | sed -n 's/^Model name:[[:space:]]*//p' | head -n1), $(nproc) CPUs (nproc), $(free -g | awk '/^Mem:/{print $2}') GiB"
  echo "- cores: \`-l 0-1\`: lcore 0 = main (commands, statistics) on CPU 0, lcore 1 = the one forwarding core on CPU 1 (\`--nb-cores=1\`); every queue of both ports is polled by that core"
  echo "- date: $date0 (wall time of the run: $(( $(date +%s) - t0 )) s, mode: $mode)"
  echo "- load average before / after: $load0 / $load1; other DPDK processes running at the start: $others"
  echo "- DPDK $(pkg-config --modversion libdpdk) (Debian package dpdk $(dpkg-query -W -f='${Version}' dpdk 2>/dev/null || echo '?'))"
  echo "- net_zorv1: $built"
  echo "- commit: $commit"
  echo "- testpmd: \`dpdk-testpmd -l 0-1 --no-huge --no-pci -m 512 --file-prefix=<unique> [-d <librte_net_zorv1.so>] --vdev <port> -- -i --nb-cores=1 --rxq=<q> --txq=<q> --total-num-mbufs=16384 --disable-link-check --forward-mode=io\`"
  echo "- ports: \`net_zorv1,iface=<socket>,queues=<q>\` or \`net_vhost0,iface=<socket>,queues=<q>\`, each with \`port attach net_virtio_user0,path=<socket>,queues=<q>\` + \`port start 1\` in the same process; or \`--vdev net_ring0 --vdev net_ring1\`"
  echo "- method: bench/THROUGHPUT.md; command: \`scripts/bench.sh\`$( [ $mode = quick ] && echo ' with BENCH_QUICK=1')"
  if [ -f "$work/chart.png" ]; then
    echo "- chart: throughput_latest.png"
  fi
  echo
  cat "$work/throughput.md"
  echo
  cat "$work/ctrlplane.md" 2>/dev/null || echo "## Control plane: failed"
} > "$out.tmp"
mv "$out.tmp" "$out"
[ -f "$work/chart.png" ] && mv "$work/chart.png" "$png"
cat "$out"
[ $rc = 0 ] || echo "bench: some measurements failed (listed in $out)" >&2
exit $rc
