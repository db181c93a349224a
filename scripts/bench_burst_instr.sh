#!/usr/bin/env bash
# Instructions per packet of the port's bursts, under callgrind: a figure that
# does not move with the machine's load, unlike the cycle counts of
# scripts/bench_burst.sh. Runs bench_burst --count-calls N with collection
# limited to its timed loop, one dump per cell, and prints per burst size the
# driver's instructions per packet, the bare transport loop's, and the
# difference (what the driver adds).
#
# Usage: scripts/bench_burst_instr.sh [build dir] (default ./build, which
# must hold a built bench/bench_burst). Environment: BENCH_CALLS (default 2000).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
calls=${BENCH_CALLS:-2000}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

valgrind --tool=callgrind --callgrind-out-file="$out/cg" \
  --toggle-collect='*time_loop*' \
  "$build/bench/bench_burst" --count-calls "$calls" >"$out/stdout" 2>"$out/stderr" || {
  cat "$out/stderr" >&2; echo "bench_burst_instr: run failed" >&2; exit 1; }

# Each dump names its cell ("rx driver 32 packets 64000") and carries the total.
for f in "$out"/cg.*; do
  desc=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
  total=$(sed -n 's/^totals: //p' "$f")
  [ -n "$desc" ] && echo "$desc $total"
done | python3 -c '
import sys
cells = {}
for line in sys.stdin:
    d, what, burst, _, pkts, ir = line.split()
    cells[(d, what, int(burst))] = int(ir) / int(pkts)
print("| direction | burst | driver Ir/pkt | bare Ir/pkt | driver adds Ir/pkt |")
print("|---|---:|---:|---:|---:|")
for d in ("rx", "tx"):
    for b in sorted({k[2] for k in cells if k[0] == d}):
        drv, bare = cells[(d, "driver", b)], cells[(d, "bare", b)]
        print(f"| {d} | {b} | {drv:.2f} | {bare:.2f} | {drv - bare:.2f} |")
'
