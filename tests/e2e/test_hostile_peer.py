#!/usr/bin/env python3
"""A hostile or stuck vhost-user peer never holds the application.

dpdk-testpmd runs two net_zorv1 ports (A and B) with io forwarding in loop
topology. For each behaviour of hostile_peer.py (a header without its
payload, part of a header, requests whose replies are never read, a flood
of connections, garbage) a hostile peer connects to A's socket and holds
it; then, with the peer still there:
  - `port stop`, `port close` and the detach (`device detach`) of A each finish within
    --bound seconds (1 s);
  - a new port attached on the same interface serves a well-behaved
    virtio-user peer (a second testpmd process), and traffic flows both ways
    through it.
Also, while a flood of stalling connections hits A, a well-behaved peer on
B connects and carries traffic within --served-bound seconds, and B's
stop/start under the same flood stays within the bound.
And with A open and no other peer, a peer that stalls inside a message
(half, header) or sends garbage is cut off by the card: counted in
`peers_cut` (/zorv1/card,<port> and /zorv1/cp_stats), logged once for the
run of them, and A then serves a good peer without being re-created.
"""
import argparse
import os
import re
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402
import hostile_peer as hp  # noqa: E402

# Behaviours the card cuts off on its own (a reply never read is not one:
# the library only gives up on such a peer when it sends again).
CUT_MODES = ("half", "header", "garbage")


def own_args(argv=None):
    p = argparse.ArgumentParser(epilog="Also: --lib <librte_net_zorv1.so> (required), -v.")
    p.add_argument("--bound", type=float, default=1.0,
                   help="seconds a stop, close or detach may take")
    p.add_argument("--served-bound", type=float, default=30.0,
                   help="seconds a good peer on another socket may wait for traffic")
    p.add_argument("--modes", default=",".join(hp.MODES))
    p.add_argument("--min-pkts", type=int, default=2000)
    return p.parse_known_args(argv)


class Ports:
    """The primary's ports, with timed commands."""

    def __init__(self, pmd, bound, run):
        self.pmd = pmd
        self.bound = bound
        self.run = run
        self.times = []

    def timed(self, line, what):
        t0 = time.monotonic()
        out = self.pmd.cmd(line, timeout=60)
        dt = time.monotonic() - t0
        self.times.append((what, line, dt))
        print("  %-28s %-24s %.3f s" % (what, line, dt), flush=True)
        e2e.check(dt <= self.bound, "%s: `%s` took %.3f s (bound %.1f s)"
                  % (what, line, dt, self.bound))
        e2e.check("Fail" not in out and "Invalid" not in out, "%s: `%s`:\n%s" % (what, line, out))
        return out

    def attach(self, name, sock):
        out = self.pmd.cmd("port attach %s,iface=%s,queues=1" % (name, sock), timeout=30)
        m = re.search(r"Port (\d+) is attached", out)
        e2e.check(m is not None, "attach of %s failed:\n%s" % (name, out))
        port = int(m.group(1))
        out = self.pmd.cmd("port start %d" % port, timeout=30)
        e2e.check("Fail" not in out, "port start %d:\n%s" % (port, out))
        return port


def accepted(pmd, sock, since):
    """Waits until the vhost library accepted a connection on sock (its event
    thread picks up a new listening socket within a second), and a little
    more so that it is inside the peer's first message."""
    pmd.wait_for(r"\(%s\) new vhost user connection" % re.escape(sock), 20, since)
    time.sleep(0.2)


def traffic_with_good_peer(ports, port, sock, tag, min_pkts, timeout):
    """A virtio-user peer on sock carries traffic both ways through port."""
    pmd = ports.pmd
    peer = cp.Peer(sock, prefix_tag=tag, log_path=os.path.join(ports.run, tag + ".log"))
    try:
        t0 = time.monotonic()
        peer.start(timeout=timeout)
        out = pmd.cmd("start")
        e2e.check("packet forwarding" in out or "already started" in out,
                  "forwarding did not start:\n%s" % out)
        base = cp.port_stats(pmd, port)
        cp.wait_traffic(pmd, port, base, min_pkts, max(1.0, timeout - (time.monotonic() - t0)))
        pmd.cmd("stop")
        return time.monotonic() - t0
    finally:
        peer.close()


def scenario(common, args):
    run = e2e.work_dir("hostile")
    sock_a = os.path.join(run, "vhost_a")
    sock_b = os.path.join(run, "vhost_b")
    hostile = None
    try:
        with e2e.Testpmd(common.lib, vdevs=["net_zorv1_a,iface=%s,queues=1" % sock_a,
                                            "net_zorv1_b,iface=%s,queues=1" % sock_b],
                         app_args=["--port-topology=loop"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            ports = Ports(pmd, args.bound, run)
            port_a, port_b = 0, 1

            # Another socket of the process keeps being served while a flood
            # of stalling connections hits A.
            since = pmd.pos
            hostile = hp.Hostile(sock_a, "flood", hold=300, count=200).start()
            accepted(pmd, sock_a, since)
            dt = traffic_with_good_peer(ports, port_b, sock_b, "peer_b", args.min_pkts,
                                        args.served_bound)
            print("  peer on B carried traffic %.2f s after it started, during the flood" % dt)
            ports.timed("port stop %d" % port_b, "B under the flood")
            ports.timed("port start %d" % port_b, "B under the flood")
            hostile.stop()
            hostile = None

            for mode in args.modes.split(","):
                since = pmd.pos
                hostile = hp.Hostile(sock_a, mode, hold=300).start()
                accepted(pmd, sock_a, since)
                ports.timed("port stop %d" % port_a, mode)
                ports.timed("port close %d" % port_a, mode)
                # The port is released at close; its device is detached by name.
                ports.timed("device detach net_zorv1_a", mode)
                e2e.check(hostile.alive(), "the %s peer died before the port went" % mode)
                port_a = ports.attach("net_zorv1_a", sock_a)
                hostile.stop()
                hostile = None
                dt = traffic_with_good_peer(ports, port_a, sock_a, "peer_a_" + mode,
                                            args.min_pkts, 60)
                print("  after %s: a good peer on a new port carried traffic in %.2f s"
                      % (mode, dt), flush=True)

            # Peers the card cuts off while the port stays.
            cut0 = e2e.telemetry_one(pmd.prefix, "/zorv1/card,net_zorv1_a")["peers_cut"]
            since = pmd.pos
            for n, mode in enumerate(CUT_MODES, 1):
                hostile = hp.Hostile(sock_a, mode, hold=300, seed=n).start()
                ok = e2e.wait_until(lambda: e2e.telemetry_one(
                    pmd.prefix, "/zorv1/card,net_zorv1_a")["peers_cut"] >= cut0 + n, 10, 0.1)
                e2e.check(ok, "the %s peer was not cut off: %r" % (mode, e2e.telemetry_one(
                    pmd.prefix, "/zorv1/card,net_zorv1_a")))
                hostile.stop()
                hostile = None
            total = e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")["peers_cut"]
            e2e.check(total >= cut0 + len(CUT_MODES), "peers_cut total %d" % total)
            said = pmd.output[since:].count("peer cut off")
            e2e.check(said == 1, "cut-offs logged %d times, want once for the run" % said)
            dt = traffic_with_good_peer(ports, port_a, sock_a, "peer_a_after_cuts",
                                        args.min_pkts, 60)
            print("  %d peers cut off (%s), logged once; a good peer then carried traffic "
                  "in %.2f s" % (len(CUT_MODES), ",".join(CUT_MODES), dt), flush=True)

            worst = max(t for _, _, t in ports.times)
            print("worst stop/close/detach: %.3f s over %d commands" % (worst, len(ports.times)))
            for line in ("port stop all", "port close all"):
                pmd.cmd(line)
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
    finally:
        if hostile is not None:
            hostile.stop()
        e2e.remove_tree(run)


if __name__ == "__main__":
    opts, rest = own_args()
    e2e.main(lambda a: scenario(a, opts), rest)
