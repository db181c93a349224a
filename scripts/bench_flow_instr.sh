#!/usr/bin/env bash
# Instructions per packet of the flow engine on the card's receive path,
# under callgrind: bench_flow --count-calls N, one dump per cell. Prints per
# cell the hook's instructions per packet and the difference to the bare
# loop (what the engine adds). Unlike cycle counts, these do not move with
# the machine's load.
#
# Usage: scripts/bench_flow_instr.sh [build dir] (default ./build, which must
# hold a built bench/bench_flow). Environment: BENCH_CALLS (default 300).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
calls=${BENCH_CALLS:-300}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

valgrind --tool=callgrind --callgrind-out-file="$out/cg" \
  "$build/bench/bench_flow" --count-calls "$calls" --cpu 0 >"$out/stdout" 2>"$out/stderr" || {
  cat "$out/stderr" >&2; echo "bench_flow_instr: run failed" >&2; exit 1; }

for f in "$out"/cg.*; do
  desc=$(sed -n 's/^desc: Trigger: Client Request: flow //p' "$f")
  total=$(sed -n 's/^totals: //p' "$f")
  [ -n "$desc" ] && echo "$desc|$total"
done | python3 -c '
import sys
rows = []
for line in sys.stdin:
    desc, ir = line.rstrip("\n").split("|")
    name, pkts = desc.rsplit(" packets ", 1)
    rows.append((name, int(ir) / int(pkts)))
bare = dict(rows).get("bare (no hook)", 0.0)
print("| cell | Ir/packet | minus bare |")
print("|---|---:|---:|")
for name, v in rows:
    print(f"| {name} | {v:.1f} | {v - bare:+.1f} |")
'
