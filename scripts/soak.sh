#!/usr/bin/env bash
# The long form of the reliability scenarios, in one command: churn of the
# net_zorv1 port and its virtio peer under traffic (tests/e2e/test_churn.py),
# faults of the agent's broker under traffic (tests/e2e/test_broker_faults.py)
# and the seeded chaos (tests/e2e/test_chaos.py), with counts well above the
# CI form.
# Sets the machine up and builds the driver in ./build unless SOAK_LIB is set.
#   scripts/soak.sh                  1000 reconnects + 1000 restarts, 10
#                                    broker rounds, each scenario once, and
#                                    100,000 chaos steps
# Environment:
#   SOAK_RECONNECTS   peer disconnect/reconnect cycles (default 1000)
#   SOAK_RESTARTS     stop/start cycles of the port (default 1000)
#   SOAK_KILL_EVERY   every Nth disconnect is a SIGKILL of the peer (default 10)
#   SOAK_ROUNDS       kill/restart + freeze/resume rounds of the broker (default 10)
#   SOAK_REPEAT       runs of churn and broker faults (default 1)
#   SOAK_CHAOS_STEPS  chaos steps in all (default 100000)
#   SOAK_CHAOS_CHUNK  steps per chaos run, each with its own seed (default 5000)
#   SOAK_SEED         seed of the first chaos run; the next ones count up
#                     (default: from the clock); every run prints its seed
#   SOAK_PARTS        which parts run (default "churn broker chaos")
#   SOAK_BUILD        build directory (default build)
#   SOAK_LIB          use this librte_net_zorv1.so: no set-up, no build
# Each run's output goes to the terminal and to $SOAK_LOG_DIR (default
# /var/run/zorv1-soak/<date>); exits non-zero when any run failed.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"

reconnects=${SOAK_RECONNECTS:-1000}
restarts=${SOAK_RESTARTS:-1000}
kill_every=${SOAK_KILL_EVERY:-10}
rounds=${SOAK_ROUNDS:-10}
repeat=${SOAK_REPEAT:-1}
chaos_steps=${SOAK_CHAOS_STEPS:-100000}
chaos_chunk=${SOAK_CHAOS_CHUNK:-5000}
seed=${SOAK_SEED:-$(( $(date +%s) % 1000000 ))}
parts=${SOAK_PARTS:-churn broker chaos}
build=${SOAK_BUILD:-build}
logs=${SOAK_LOG_DIR:-/var/run/zorv1-soak/$(date -u +%Y%m%dT%H%M%SZ)}

for v in "$reconnects" "$restarts" "$kill_every" "$rounds" "$repeat" "$chaos_steps" \
         "$chaos_chunk" "$seed"; do
  case $v in ''|*[!0-9]*) echo "soak: counts must be numbers" >&2; exit 2 ;; esac
done
[ "$(id -u)" = 0 ] || { echo "soak: run as root (vhost-user sockets under /var/run)" >&2; exit 1; }

if [ -n "${SOAK_LIB:-}" ]; then
  lib=$(realpath "$SOAK_LIB")
else
  scripts/setup.sh "$build"
  gen=()
  [ -f "$build/CMakeCache.txt" ] || gen=(-G Ninja)
  cmake -S . -B "$build" "${gen[@]}" >/dev/null
  cmake --build "$build" -j 2 --target rte_net_zorv1
  lib=$here/$build/lib/librte_net_zorv1.so
fi
[ -f "$lib" ] || { echo "soak: $lib not built" >&2; exit 1; }
mkdir -p "$logs"

failed=0
passed=0
run() { # <name> <command...>
  local name=$1; shift
  local log=$logs/$name.log t0=$SECONDS
  echo "== $name: $*"
  if "$@" 2>&1 | tee "$log"; then
    passed=$((passed + 1))
    echo "== $name passed in $((SECONDS - t0)) s"
  else
    failed=$((failed + 1))
    echo "== $name FAILED after $((SECONDS - t0)) s (log: $log)"
  fi
}

has() { case " $parts " in *" $1 "*) return 0 ;; esac; return 1; }

for i in $(seq 1 "$repeat"); do
  has churn && run "churn_$i" python3 tests/e2e/test_churn.py --lib "$lib" \
    --reconnects "$reconnects" --restarts "$restarts" --kill-every "$kill_every"
  has broker && run "broker_faults_$i" python3 tests/e2e/test_broker_faults.py --lib "$lib" \
    --rounds "$rounds"
done

chaos_done=0 chaos_rx=0 chaos_tx=0 chaos_t0=$SECONDS
if has chaos; then
  while [ "$chaos_done" -lt "$chaos_steps" ]; do
    n=$(( chaos_steps - chaos_done < chaos_chunk ? chaos_steps - chaos_done : chaos_chunk ))
    run "chaos_seed_$seed" python3 tests/e2e/test_chaos.py --lib "$lib" --steps "$n" --seed "$seed"
    line=$(grep -o 'at least [0-9]* packets received and [0-9]* sent' "$logs/chaos_seed_$seed.log" || true)
    if [ -n "$line" ]; then
      set -- $line
      chaos_rx=$((chaos_rx + $3)) chaos_tx=$((chaos_tx + $7))
      chaos_done=$((chaos_done + n))
    else
      chaos_done=$((chaos_done + n))
    fi
    seed=$((seed + 1))
  done
  echo "chaos: $chaos_done steps in $((SECONDS - chaos_t0)) s; at least $chaos_rx packets" \
       "received and $chaos_tx sent by the port"
fi

echo "soak: logs in $logs"
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
