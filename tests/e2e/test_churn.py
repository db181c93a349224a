#!/usr/bin/env python3
"""Churn of a net_zorv1 port and its virtio peer under traffic.

The primary dpdk-testpmd runs one net_zorv1 port with io forwarding in loop
topology (what the port receives goes back out of it). The peer is a second
dpdk-testpmd, in its own process, whose virtio-user port sits on the port's
vhost-user socket and runs flowgen (it sends continuously and drains what
comes back), so traffic flows both ways through the net_zorv1 port.

The peer disconnects and reconnects many times (detaching its port, which
closes the socket, and now and then dying by SIGKILL and coming back as a
new process), and the net_zorv1 port is stopped and started as many times,
in three interleavings: the peer leaves and returns under traffic and then
the port restarts under traffic; the peer leaves while the port is stopped
and returns after the port restarted; the peer leaves and returns while the
port is stopped. The primary process runs throughout. Checked:
  - every reconnect and every restart carries traffic again both ways
    (the port's RX and TX packets grow within a bounded wait);
  - the port's basic statistics, its extended statistics and the family's
    control-plane counters never go backwards (nothing is cleared);
  - each connection and disconnection is counted once (new_conn, del_conn),
    each stop and start once, and no failure counter of the connection
    handling moves; nothing was reported to the agent (send_msg_fail);
  - no mbuf leaks: whenever forwarding is stopped and no peer is connected,
    the primary's mbuf pool has exactly as many mbufs out as at start; with
    a peer connected and the port stopped, no more than the card may hold
    for one queue; and at the end, the same count as at start.

Counts are parameters: --reconnects, --restarts, --kill-every (the soak
script runs the long form).
"""
import argparse
import os
import re
import statistics
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402

# Transmitted mbufs the card may keep per queue until the next burst or the
# end of the connection (ZORV_CARD_TX_HOLD).
CARD_TX_HOLD = 512
# Out of the pool while forwarding runs: held by the card, plus a burst in
# flight on the forwarding core.
RUNNING_OUT_BOUND = CARD_TX_HOLD + 2 * 32
# Control-plane counters that count failures of connection handling and
# port life cycle; churn of a healthy peer must not move any of them.
FAILURE_COUNTERS = ("new_conn_err", "del_conn_err", "vring_state_fail", "del_device_null",
                    "add_device_null", "add_device_install_err", "vhost_setup_fail",
                    "vhost_regist_fail", "vhost_driver_start_err", "close_dev_null",
                    "flow_start_fail", "flow_close_fail", "get_ethdev_fail",
                    "send_msg_fail", "set_owner_fail", "cache_start_flag_err")


def own_args(argv=None):
    p = argparse.ArgumentParser(epilog="Also: --lib <librte_net_zorv1.so> (required), -v.")
    p.add_argument("--reconnects", type=int,
                   default=int(os.environ.get("ZORV_CHURN_RECONNECTS", "200")),
                   help="peer disconnect/reconnect cycles")
    p.add_argument("--restarts", type=int,
                   default=int(os.environ.get("ZORV_CHURN_RESTARTS", "200")),
                   help="stop/start cycles of the net_zorv1 port")
    p.add_argument("--kill-every", type=int,
                   default=int(os.environ.get("ZORV_CHURN_KILL_EVERY", "10")),
                   help="every Nth disconnect is a SIGKILL of the peer process")
    p.add_argument("--min-pkts", type=int, default=2000,
                   help="packets each way that prove traffic after a change")
    p.add_argument("--traffic-timeout", type=float, default=20.0,
                   help="seconds allowed for traffic to resume")
    p.add_argument("--deadline", type=float,
                   default=float(os.environ.get("ZORV_CHURN_DEADLINE", "0")),
                   help="fail (and clean up) after this many seconds of cycles; "
                        "0 = no limit")
    return p.parse_known_args(argv)


class Primary:
    """The primary testpmd, with every sample checked for monotonic counters."""

    def __init__(self, pmd):
        self.pmd = pmd
        self.tel = cp.Telemetry(pmd.prefix)
        self.stats_mono = cp.Monotonic("port statistics of port 0")
        self.xstats_mono = cp.Monotonic("extended statistics of port 0")
        self.cp_mono = cp.Monotonic("control-plane counters")
        self.cp_base = None
        self.pool_base = None
        self.forwarding = False

    def stats(self, where):
        s = cp.port_stats(self.pmd, 0)
        self.stats_mono.update(s, where)
        return s

    def cp_stats(self, where):
        c = self.tel.query("/zorv1/cp_stats")
        e2e.check(isinstance(c, dict) and "new_conn" in c, "cp_stats reply: %r" % c)
        self.cp_mono.update(c, where)
        if self.cp_base is not None:
            moved = {k: c[k] - self.cp_base[k] for k in FAILURE_COUNTERS
                     if c[k] != self.cp_base[k]}
            e2e.check(not moved, "failure counters moved by %s: %r" % (where, moved))
        return c

    def sample(self, where):
        """One sample of everything that must never go backwards."""
        self.stats(where)
        xs = self.tel.query("/ethdev/xstats,0")
        e2e.check(isinstance(xs, dict) and "rx_good_packets" in xs, "xstats reply: %r" % xs)
        self.xstats_mono.update(xs, where)
        return self.cp_stats(where)

    def wait_cp(self, key, want, where, timeout=15):
        got = e2e.wait_until(lambda: self.cp_stats(where)[key] >= want, timeout, 0.02)
        c = self.cp_stats(where)
        e2e.check(got and c[key] == want, "%s is %d after %s, want %d"
                  % (key, c[key], where, want))

    def in_use(self):
        return cp.mempool_in_use(self.pmd)

    def check_pool_idle(self, where, timeout=10):
        """Nothing in flight and no connection: the pool is as at start."""
        e2e.wait_until(lambda: self.in_use() == self.pool_base, timeout, 0.05)
        n = self.in_use()
        e2e.check(n == self.pool_base, "%d mbufs out of the pool after %s, %d at start"
                  % (n, where, self.pool_base))

    def check_pool_bound(self, bound, where):
        n = self.in_use()
        e2e.check(n <= self.pool_base + bound, "%d mbufs out of the pool after %s "
                  "(at most %d + %d allowed)" % (n, where, self.pool_base, bound))

    def fwd_start(self):
        out = self.pmd.cmd("start")
        e2e.check("io packet forwarding" in out, "forwarding did not start:\n%s" % out)
        self.forwarding = True

    def fwd_stop(self):
        self.pmd.cmd("stop")
        self.forwarding = False

    def port_stop(self):
        out = self.pmd.cmd("port stop 0")
        e2e.check("Fail" not in out and "Please" not in out, "port stop failed:\n%s" % out)

    def port_start(self):
        out = self.pmd.cmd("port start 0")
        e2e.check("Fail" not in out and "Please" not in out, "port start failed:\n%s" % out)


class Churn:
    def __init__(self, primary, peer, opts):
        self.pri = primary
        self.peer = peer
        self.opts = opts
        self.connects = 1  # the peer's first connection, made before the loop
        self.disconnects = 0
        self.kills = 0
        self.stops = 0
        self.starts = 0
        self.cp0 = None
        self.durations = {"reconnect": [], "cycle": []}
        self._t_disconnect = 0.0

    # -- the peer ------------------------------------------------------
    def disconnect(self, i, where):
        self._t_disconnect = time.monotonic()
        kill = self.opts.kill_every > 0 and i % self.opts.kill_every == self.opts.kill_every - 1
        if kill:
            self.peer.kill()
            self.kills += 1
        else:
            self.peer.detach()
        self.disconnects += 1
        self.pri.wait_cp("del_conn", self.cp0["del_conn"] + self.disconnects,
                         "%s (%s)" % (where, "SIGKILL" if kill else "detach"))
        return kill

    def connect(self, killed, where):
        if killed:
            self.peer.start()
        else:
            self.peer.attach()
        self.connects += 1
        self.pri.wait_cp("new_conn", self.cp0["new_conn"] + self.connects, where)
        self.durations["reconnect"].append(time.monotonic() - self._t_disconnect)

    def reconnect(self, i, where):
        killed = self.disconnect(i, where)
        self.connect(killed, where)

    # -- the net_zorv1 port ---------------------------------------------
    def stop(self, where):
        if self.pri.forwarding:
            self.pri.fwd_stop()
        self.pri.port_stop()
        self.stops += 1
        self.pri.wait_cp("eth_dev_stop", self.cp0["eth_dev_stop"] + self.stops, where)

    def start(self, where):
        self.pri.port_start()
        self.starts += 1
        self.pri.wait_cp("eth_dev_start", self.cp0["eth_dev_start"] + self.starts, where)
        self.pri.fwd_start()

    def traffic(self, where):
        base = self.pri.stats(where)
        s = cp.wait_traffic(self.pri.pmd, 0, base, self.opts.min_pkts, self.opts.traffic_timeout)
        self.pri.stats_mono.update(s, where)

    # -- one cycle -------------------------------------------------------
    def cycle(self, i, do_reconnect, do_restart):
        tag = "cycle %d" % i
        order = i % 3 if (do_reconnect and do_restart) else 0
        t0 = time.monotonic()
        if order == 0:
            # The peer leaves and comes back while the port forwards, then
            # the port restarts while the peer keeps sending.
            if do_reconnect:
                self.reconnect(i, tag + ": reconnect under traffic")
                self.traffic(tag + ": reconnect under traffic")
            if do_restart:
                self.stop(tag + ": stop under traffic")
                self.pri.check_pool_bound(CARD_TX_HOLD, tag + ": stop under traffic")
                self.start(tag + ": start under traffic")
                self.traffic(tag + ": start under traffic")
        elif order == 1:
            # The peer leaves while the port is stopped; the port starts
            # alone and the peer comes back to a started port.
            self.stop(tag + ": stop")
            killed = self.disconnect(i, tag + ": disconnect from a stopped port")
            self.pri.check_pool_idle(tag + ": disconnect from a stopped port")
            self.start(tag + ": start without a peer")
            self.pri.check_pool_bound(RUNNING_OUT_BOUND, tag + ": start without a peer")
            self.connect(killed, tag + ": connect to a started port")
            self.traffic(tag + ": connect to a started port")
        else:
            # The peer leaves and comes back while the port is stopped.
            self.stop(tag + ": stop")
            killed = self.disconnect(i, tag + ": disconnect from a stopped port")
            self.pri.check_pool_idle(tag + ": disconnect from a stopped port")
            self.connect(killed, tag + ": connect to a stopped port")
            self.start(tag + ": start with a connected peer")
            self.traffic(tag + ": start with a connected peer")
        e2e.check(self.pri.pmd.alive(), "primary testpmd exited at %s" % tag)
        self.pri.sample(tag)
        self.pri.check_pool_bound(RUNNING_OUT_BOUND, tag)
        self.durations["cycle"].append(time.monotonic() - t0)


def summary(name, values):
    if not values:
        return "%s: none" % name
    return "%s: n=%d median %.2fs min %.2fs max %.2fs" % (
        name, len(values), statistics.median(values), min(values), max(values))


def scenario(args, opts):
    e2e.check(opts.reconnects >= 0 and opts.restarts >= 0, "negative counts")
    run = e2e.work_dir("churn")
    sock = os.path.join(run, "vhost0")
    peer = cp.Peer(sock, log_path=os.path.join(run, "peer.log"))
    t_start = time.monotonic()
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                         app_args=["--port-topology=loop", "--forward-mode=io"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            pri = Primary(pmd)
            pri.pool_base = pri.in_use()
            pri.cp_base = pri.tel.query("/zorv1/cp_stats")
            e2e.check(isinstance(pri.cp_base, dict), "no cp_stats: %r" % pri.cp_base)
            churn = Churn(pri, peer, opts)
            churn.cp0 = dict(pri.cp_base)
            pri.sample("start-up")

            pri.fwd_start()
            peer.start()
            pri.wait_cp("new_conn", churn.cp0["new_conn"] + 1, "first connection")
            churn.traffic("first connection")

            cycles = max(opts.reconnects, opts.restarts)
            last_report = time.monotonic()
            for i in range(cycles):
                churn.cycle(i, i < opts.reconnects, i < opts.restarts)
                e2e.check(not opts.deadline or time.monotonic() - t_start < opts.deadline,
                          "only %d of %d cycles within the deadline of %.0fs"
                          % (i + 1, cycles, opts.deadline))
                if time.monotonic() - last_report >= 30 or i == cycles - 1:
                    s = pri.stats("progress")
                    print("cycle %d/%d: %d reconnects (%d by SIGKILL), %d restarts, "
                          "RX %d TX %d packets, %.0fs" % (
                              i + 1, cycles, churn.disconnects, churn.kills, churn.stops,
                              s["RX-packets"], s["TX-packets"],
                              time.monotonic() - t_start), flush=True)
                    last_report = time.monotonic()

            # The end: the peer goes, the port stops; every mbuf is back.
            pri.fwd_stop()
            peer.detach()
            churn.disconnects += 1
            pri.wait_cp("del_conn", churn.cp0["del_conn"] + churn.disconnects, "final disconnect")
            peer.pmd.quit()
            peer.close()
            churn.stop("final stop")
            pri.check_pool_idle("the end")
            end = pri.sample("the end")
            e2e.check(end["new_conn"] - churn.cp0["new_conn"] == churn.connects and
                      end["del_conn"] - churn.cp0["del_conn"] == churn.disconnects,
                      "connections counted %d/%d, made %d/%d" % (
                          end["new_conn"] - churn.cp0["new_conn"],
                          end["del_conn"] - churn.cp0["del_conn"],
                          churn.connects, churn.disconnects))
            e2e.check(churn.disconnects >= opts.reconnects and churn.stops >= opts.restarts,
                      "ran %d reconnects and %d restarts" % (churn.disconnects, churn.stops))
            final = pri.stats("the end")
            e2e.check(final["RX-nombuf"] == 0, "RX-nombuf %d" % final["RX-nombuf"])

            pmd.cmd("port close 0")
            e2e.check(pmd.quit() == 0, "primary exit code %s" % pmd.proc.returncode)
            e2e.check(not re.search(r"Segmentation fault|Aborted|PANIC", pmd.output),
                      "primary crashed")
            print("churn done: %d reconnects (%d by SIGKILL), %d stop/start cycles of the "
                  "port, RX %d TX %d packets, pool back to %d out" % (
                      churn.connects - 1, churn.kills, churn.starts, final["RX-packets"],
                      final["TX-packets"], pri.pool_base), flush=True)
            print(summary("reconnect (disconnect + connect)", churn.durations["reconnect"]))
            print(summary("cycle (with its traffic checks)", churn.durations["cycle"]))
    finally:
        peer.close()
        e2e.remove_tree(run)


if __name__ == "__main__":
    opts, rest = own_args()
    e2e.main(lambda a: scenario(a, opts), rest)
