#!/usr/bin/env python3
"""One peer per port: a second peer on the port's socket is refused.

testpmd runs a net_zorv1 port with a virtio-user peer attached in the same
process. While that peer is connected, two further peers try the same
socket, each a dpdk-testpmd process of its own with a virtio-user device:
the card refuses and closes both (their virtio-user device fails, so they
have no port), counts them in /zorv1/card and /zorv1/cp_stats
(peers_refused) and logs the first refusal only. The connected peer keeps
its binding and its traffic. Once it leaves, the next peer connects and
carries traffic.
"""
import os
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

PORT_NAME = "net_zorv1"
REFUSAL = "a peer is connected"


def card(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/card," + PORT_NAME)


def link_up(pmd, port):
    row = e2e.parse_summary(pmd.cmd("show port summary all")).get(port)
    return row is not None and row[3] == "up"


def traffic(pmd, ports):
    """io forwarding seeded with tx_first; the forward statistics of `ports`."""
    out = pmd.cmd("start tx_first 4")
    e2e.check("forwarding" in out, "forwarding did not start:\n%s" % out)
    e2e.wait_until(lambda: False, 1.0)
    fwd = e2e.parse_fwd_stats(pmd.cmd("stop"))
    for p in ports:
        e2e.check(fwd.get(p, {}).get("RX-packets", 0) > 0 and
                  fwd.get(p, {}).get("TX-packets", 0) > 0,
                  "port %d carries no traffic both ways: %r" % (p, fwd))
    return fwd


# virtio-user writes to its socket without MSG_NOSIGNAL: a testpmd whose
# connection was closed dies of SIGPIPE. Peers run with SIGPIPE ignored, as
# QEMU does, so that the refusal shows as a failed device, not a dead peer.
IGNORING_SIGPIPE = [sys.executable, "-c",
                    "import os, signal, sys; signal.signal(signal.SIGPIPE, signal.SIG_IGN); "
                    "os.execvp(sys.argv[1], sys.argv[1:])"]


def other_peer(sock, run, tag):
    """A peer process: testpmd without the driver, one virtio-user device."""
    peer = e2e.Testpmd(None, vdevs=["net_virtio_user0,path=%s,queues=1" % sock],
                       prefix=e2e.unique_prefix("peer" + tag), lcores="0-1", mem_mb=512,
                       log_path=os.path.join(run, "peer%s.log" % tag))
    peer.argv = IGNORING_SIGPIPE + peer.argv
    return peer


def scenario(args):
    run = e2e.work_dir("onepeer")
    sock = os.path.join(run, "vhost0")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            peer = pmd.attach_virtio_user(sock)
            pmd.cmd("port start %d" % peer)
            e2e.check(e2e.wait_until(lambda: link_up(pmd, 0), 10, 0.1), "link stays down")
            c0 = card(pmd)
            cp0 = e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")
            e2e.check(c0["vid"] >= 0 and c0["peers_refused"] == 0, "card: %r" % c0)

            for tag in ("1", "2"):
                with other_peer(sock, run, tag) as other:
                    text = other.start()
                    summary = e2e.parse_summary(other.cmd("show port summary all"))
                    e2e.check(summary == {}, "refused peer %s has a port: %r\n%s"
                              % (tag, summary, text[-2000:]))
                    e2e.check(other.quit() == 0, "peer %s exit code %s"
                              % (tag, other.proc.returncode))
            c1 = e2e.wait_until(lambda: (lambda c: c if c["peers_refused"] == 2 else None)(
                card(pmd)), 5, 0.1)
            e2e.check(c1 is not None, "peers_refused: %r" % card(pmd))
            cp1 = e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")
            e2e.check(cp1["peers_refused"] - cp0["peers_refused"] == 2 and
                      cp1["new_conn"] == cp0["new_conn"],
                      "cp_stats: %r -> %r" % (cp0, cp1))
            logged = pmd.output.count(REFUSAL)
            e2e.check(logged == 1, "refusals logged %d times, want once" % logged)
            print("two peers refused: peers_refused %d, log lines %d" % (c1["peers_refused"],
                                                                          logged), flush=True)

            # The first peer keeps the port and its traffic.
            e2e.check(c1["vid"] == c0["vid"] and c1["sfi"] == c0["sfi"], "card: %r" % c1)
            e2e.check(link_up(pmd, 0) and link_up(pmd, peer), "a link went down")
            traffic(pmd, (0, peer))

            # It leaves; the next peer connects (in another process) and carries traffic.
            pmd.cmd("port stop %d" % peer)
            pmd.cmd("port close %d" % peer)
            e2e.check(e2e.wait_until(lambda: card(pmd)["vid"] < 0, 10, 0.1),
                      "the first peer's connection stays: %r" % card(pmd))
            with other_peer(sock, run, "3") as other:
                other.start()
                summary = e2e.parse_summary(other.cmd("show port summary all"))
                e2e.check(list(summary) == [0], "the next peer has no port: %r" % summary)
                e2e.check(e2e.wait_until(lambda: link_up(pmd, 0), 10, 0.1),
                          "link stays down with the next peer")
                c2 = card(pmd)
                e2e.check(c2["vid"] >= 0 and c2["peers_refused"] == 2, "card: %r" % c2)
                other.cmd("set fwd rxonly")
                other.cmd("start")
                pmd.cmd("set fwd txonly")
                pmd.cmd("start")
                e2e.wait_until(lambda: False, 1.0)
                pmd.cmd("stop")
                got = e2e.parse_fwd_stats(other.cmd("stop"))
                e2e.check(got.get(0, {}).get("RX-packets", 0) > 0,
                          "the next peer received nothing: %r" % got)
                print("next peer received %d frames" % got[0]["RX-packets"], flush=True)
                e2e.check(other.quit() == 0, "next peer exit code %s" % other.proc.returncode)
            e2e.check(pmd.output.count(REFUSAL) == 1, "a refusal logged after the peers left")

            pmd.cmd("port stop 0")
            pmd.cmd("port close 0")
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
