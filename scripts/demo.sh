#!/usr/bin/env bash
# The demo: one net_zorv1 port in dpdk-testpmd with a virtio-user peer in the
# same process; forwards traffic for a few seconds, then shows the link, the
# port statistics, the 28 extended statistics and a telemetry answer of the
# driver's diagnostics, and stops cleanly.
# VM=1: a Linux guest in QEMU is the peer instead (scripts/vm/demo.py).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
secs=${ZORV_DEMO_SECONDS:-5}

scripts/setup.sh build
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
ninja -C build rte_net_zorv1 >/dev/null
lib=$here/build/lib/librte_net_zorv1.so
if [ "${VM:-0}" = 1 ]; then
  exec python3 scripts/vm/demo.py --lib "$lib" --build "$here/build"
fi

run=/var/run/zorv1-demo
prefix=zorv1_demo_$$
mkdir -p "$run"
sock=$run/vhost0
rm -f "$sock"
work=$(mktemp -d)
log=$work/testpmd.log
fifo=$work/cmd
mkfifo "$fifo"
cleanup() {
  exec 3>&- 2>/dev/null || true
  [ -n "${pmd:-}" ] && kill "$pmd" 2>/dev/null || true
  rm -rf "$work" "/var/run/dpdk/$prefix"
}
trap cleanup EXIT

# testpmd reads its commands from the fifo; fd 3 keeps it open.
dpdk-testpmd -l 0-1 --no-huge --no-pci -m 1024 --file-prefix="$prefix" \
  -d "$lib" --vdev "net_zorv1,iface=$sock,queues=1" \
  -- -i --nb-cores=1 --total-num-mbufs=16384 <"$fifo" >"$log" 2>&1 &
pmd=$!
exec 3>"$fifo"
say() { echo "$*" >&3; }
wait_for() { # <pattern> <seconds>
  for _ in $(seq 1 $(( $2 * 10 ))); do grep -q "$1" "$log" && return 0; sleep 0.1; done
  echo "demo: timed out waiting for: $1" >&2; cat "$log" >&2; exit 1
}

wait_for 'testpmd>' 20
echo "== net_zorv1 port 0 created; attaching a virtio-user peer to $sock"
say "port attach net_virtio_user0,path=$sock,queues=1"
wait_for 'Port 1 is attached' 20
say "port start 1"
wait_for 'Port 0: link state change event' 20
say "show port summary all"
say "start tx_first 8"
sleep "$secs"
say "stop"
say "show port stats 0"
say "show port xstats 0"
sleep 1
echo "/zorv1/ports" > "$work/tel.in"
echo "/zorv1/port_info,net_zorv1" >> "$work/tel.in"
echo "/zorv1/queue_stats,net_zorv1,0" >> "$work/tel.in"
dpdk-telemetry.py -f "$prefix" < "$work/tel.in" > "$work/telemetry.out" 2>&1 || true
say "port stop 1"
say "port close 1"
say "port stop 0"
say "port close 0"
say "quit"
exec 3>&-
wait "$pmd" || true
pmd=

# What a user wants to see, without the vhost library's chatter.
grep -v -E '^VHOST_CONFIG|^EAL:|^\s*$' "$log"
echo
echo "== telemetry (dpdk-telemetry.py -f $prefix)"
cat "$work/telemetry.out"
grep -q 'RX-packets: [1-9]' "$log" || { echo "demo: no traffic went through the port" >&2; exit 1; }
echo "== demo done: traffic went through net_zorv1"
