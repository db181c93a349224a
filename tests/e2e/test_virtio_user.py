#!/usr/bin/env python3
"""Traffic between a net_zorv1 port and a virtio-user peer in one testpmd.

The peer (DPDK's virtio-user) connects to the port's vhost-user socket. The
scenario checks that the link comes up only once the port is started and
connected, that 64-byte frames flow both ways with io forwarding, that the
port's basic and extended statistics agree with each other and with the
peer's counters, that stopping the port closes its queues and takes the link
down, that the peer's disconnect unbinds the port (sfi all ones, vid kept)
and that a new peer on the same socket brings the link and traffic back.
"""
import os
import re
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

INVALID_SFI = 0xFFFFFFFF
FRAME = 64  # testpmd's tx_first frames (default --txpkts)
SIZE_BINS = ("undersize_packets", "size_64_packets", "size_65_to_127_packets",
             "size_128_to_255_packets", "size_256_to_511_packets",
             "size_512_to_1023_packets", "size_1024_to_1522_packets",
             "size_1523_to_max_packets")


def link_status(pmd, port):
    row = e2e.parse_summary(pmd.cmd("show port summary all")).get(port)
    e2e.check(row is not None, "port %d missing from the summary" % port)
    return row[3]


def wait_link(pmd, port, want, timeout=10):
    got = e2e.wait_until(lambda: link_status(pmd, port) == want, timeout, 0.1)
    e2e.check(got, "link of port %d is not %s after %ss (now %s)"
              % (port, want, timeout, link_status(pmd, port)))


def port_info(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/port_info,net_zorv1")


def cp_stats(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")


def port_stats(pmd):
    return e2e.parse_port_stats(pmd.cmd("show port stats all"))


def driver_xstats(pmd, port):
    """The driver's 28 extended statistics (the last 28 listed)."""
    xs = e2e.parse_xstats(pmd.cmd("show port xstats %d" % port))
    e2e.check(len(xs) >= 28, "fewer than 28 xstats: %r" % xs)
    return dict(xs[-28:]), dict(xs[:-28])


def forward(pmd, peer, min_pkts=10000, timeout=20):
    """Runs io forwarding seeded with tx_first until both directions moved."""
    out = pmd.cmd("start tx_first 8")
    e2e.check("io packet forwarding" in out, "forwarding did not start:\n%s" % out)

    def moved():
        s = port_stats(pmd)
        return s[0]["RX-packets"] >= min_pkts and s[0]["TX-packets"] >= min_pkts
    ok = e2e.wait_until(moved, timeout, 0.2)
    out = pmd.cmd("stop")
    fwd = e2e.parse_fwd_stats(out)
    e2e.check(ok, "fewer than %d packets each way within %ss: %r" % (min_pkts, timeout, fwd))
    for p in (0, peer):
        e2e.check(fwd.get(p, {}).get("RX-packets", 0) > 0 and
                  fwd.get(p, {}).get("TX-packets", 0) > 0,
                  "forward statistics of port %d show no traffic both ways: %r" % (p, fwd))
    return fwd


def drain(pmd, peer, timeout=10):
    """Receives what is still in flight without sending, so counters settle."""
    pmd.cmd("set fwd rxonly")
    pmd.cmd("start")

    def settled():
        s = port_stats(pmd)
        return (s[0]["RX-packets"] == s[peer]["TX-packets"] and
                s[0]["TX-packets"] == s[peer]["RX-packets"])
    e2e.wait_until(settled, timeout, 0.1)
    pmd.cmd("stop")
    pmd.cmd("set fwd io")
    return port_stats(pmd)


def check_counters(pmd, peer):
    s = drain(pmd, peer)
    z, p = s[0], s[peer]
    e2e.check(z["RX-packets"] > 0 and z["TX-packets"] > 0, "no traffic counted: %r" % s)
    e2e.check(z["RX-packets"] == p["TX-packets"],
              "port RX-packets %d != peer TX-packets %d" % (z["RX-packets"], p["TX-packets"]))
    e2e.check(z["TX-packets"] == p["RX-packets"],
              "port TX-packets %d != peer RX-packets %d" % (z["TX-packets"], p["RX-packets"]))
    e2e.check(z["RX-bytes"] == FRAME * z["RX-packets"],
              "RX-bytes %d != %d x %d" % (z["RX-bytes"], FRAME, z["RX-packets"]))
    e2e.check(z["TX-bytes"] == FRAME * z["TX-packets"],
              "TX-bytes %d != %d x %d" % (z["TX-bytes"], FRAME, z["TX-packets"]))
    e2e.check(p["RX-bytes"] == z["TX-bytes"] and p["TX-bytes"] == z["RX-bytes"],
              "byte counts differ from the peer's: %r" % s)

    xs, generic = driver_xstats(pmd, 0)
    for d, key in (("rx", "RX"), ("tx", "TX")):
        n = z[key + "-packets"]
        e2e.check(xs[d + "_good_packets"] == n, "%s_good_packets %d != %d"
                  % (d, xs[d + "_good_packets"], n))
        e2e.check(xs[d + "_total_bytes"] == z[key + "-bytes"], "%s_total_bytes %d != %d"
                  % (d, xs[d + "_total_bytes"], z[key + "-bytes"]))
        e2e.check(xs[d + "_size_64_packets"] == n, "%s_size_64_packets %d != %d"
                  % (d, xs[d + "_size_64_packets"], n))
        e2e.check(xs[d + "_unicast_packets"] == n, "%s_unicast_packets %d != %d"
                  % (d, xs[d + "_unicast_packets"], n))
        others = {b: xs["%s_%s" % (d, b)] for b in SIZE_BINS if b != "size_64_packets"}
        others[d + "_broadcast"] = xs[d + "_broadcast_packets"]
        others[d + "_multicast"] = xs[d + "_multicast_packets"]
        e2e.check(all(v == 0 for v in others.values()), "unexpected %s counts: %r" % (d, others))
        e2e.check(generic.get(d + "_good_packets") == n and generic.get(d + "_q0_packets") == n,
                  "generic %s xstats disagree with the port stats: %r" % (d, generic))
    e2e.check(xs["rx_missed_pkts"] == 0, "rx_missed_pkts %d" % xs["rx_missed_pkts"])
    return s


def scenario(args):
    run = e2e.work_dir("virtio")
    sock = os.path.join(run, "vhost0")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            e2e.check(link_status(pmd, 0) == "down", "link up before any peer")
            info = port_info(pmd)
            e2e.check(info["vid"] == -1 and info["sfi"] == INVALID_SFI and info["start_flag"] == 1,
                      "never-connected port: %r" % info)

            # Connect: the link comes up once the peer has set up its queues
            # (virtio-user may do that at attach or at start).
            mark = pmd.pos
            peer = pmd.attach_virtio_user(sock)
            out = pmd.cmd("port start %d" % peer)
            e2e.check("Fail" not in out, "peer start failed:\n%s" % out)
            pmd.wait_for(r"Port 0: link state change event", 10, since=mark)
            wait_link(pmd, 0, "up")
            info = port_info(pmd)
            vid = info["vid"]
            e2e.check(vid >= 0 and 1 <= info["sfi"] <= 8191,
                      "connected port has vid %r sfi %r" % (vid, info["sfi"]))
            e2e.check(cp_stats(pmd)["new_conn"] == 1, "new_conn not counted once")

            # Traffic both ways, then the counters of both sides.
            forward(pmd, peer)
            check_counters(pmd, peer)

            # Stop closes the port's gates and takes the link down.
            mark = pmd.pos
            pmd.cmd("port stop 0")
            pmd.wait_for(r"Port 0: link state change event", 10, since=mark)
            wait_link(pmd, 0, "down")
            for qid in (0, 1):
                q = e2e.telemetry_one(pmd.prefix, "/zorv1/queue_info,net_zorv1,%d" % qid)
                e2e.check(q["valid"] == 1 and q["allow_queuing"] == 0 and q["while_queuing"] == 0,
                          "queue %d of a stopped port: %r" % (qid, q))
            e2e.check(port_info(pmd)["start_flag"] == 0, "stopped port still flagged started")
            out = pmd.cmd("port start 0")
            e2e.check("Fail" not in out, "restart failed:\n%s" % out)
            wait_link(pmd, 0, "up")

            # The peer goes away: the port is unbound, keeps its vid.
            del_conn = cp_stats(pmd)["del_conn"]
            mark = pmd.pos
            pmd.cmd("port stop %d" % peer)
            pmd.cmd("port close %d" % peer)
            pmd.cmd("port detach %d" % peer)  # testpmd may have released it at close
            pmd.wait_for(r"Port 0: link state change event", 10, since=mark)
            wait_link(pmd, 0, "down")
            e2e.check(peer not in e2e.parse_summary(pmd.cmd("show port summary all")),
                      "peer port still listed")
            info = port_info(pmd)
            e2e.check(info["sfi"] == INVALID_SFI, "sfi after disconnect: %r" % info)
            e2e.check(info["vid"] == vid, "vid after disconnect: %r (was %d)" % (info["vid"], vid))
            e2e.check(cp_stats(pmd)["del_conn"] == del_conn + 1, "del_conn not counted")

            # A new peer on the same socket: link and traffic come back.
            peer = pmd.attach_virtio_user(sock, name="net_virtio_user1")
            out = pmd.cmd("port start %d" % peer)
            e2e.check("Fail" not in out, "second peer start failed:\n%s" % out)
            wait_link(pmd, 0, "up")
            info = port_info(pmd)
            e2e.check(info["vid"] >= 0 and 1 <= info["sfi"] <= 8191, "reconnected: %r" % info)
            # A basic reset clears packets and bytes only; the size and
            # destination counters go with an extended reset.
            before, _ = driver_xstats(pmd, 0)
            pmd.cmd("clear port stats all")
            s = port_stats(pmd)
            e2e.check(s[0]["RX-packets"] == 0 and s[0]["TX-packets"] == 0 and
                      s[0]["RX-bytes"] == 0 and s[0]["TX-bytes"] == 0,
                      "stats not cleared: %r" % s[0])
            xs, _ = driver_xstats(pmd, 0)
            e2e.check(xs["rx_good_packets"] == 0 and xs["tx_total_bytes"] == 0,
                      "basic reset left the basic counters in the xstats: %r" % xs)
            e2e.check(xs["rx_size_64_packets"] == before["rx_size_64_packets"] > 0 and
                      xs["tx_unicast_packets"] == before["tx_unicast_packets"] > 0,
                      "basic reset touched the size/destination counters: %r" % xs)
            pmd.cmd("clear port xstats all")
            xs, _ = driver_xstats(pmd, 0)
            e2e.check(all(v == 0 for v in xs.values()), "xstats not cleared: %r" % xs)
            forward(pmd, peer)
            check_counters(pmd, peer)

            # The peer leaves before the port closes (its socket goes away).
            for line in ("port stop %d" % peer, "port close %d" % peer,
                         "port stop 0", "port close 0"):
                pmd.cmd(line)
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
            e2e.check(not re.search(r"Segmentation fault|Aborted|PANIC", pmd.output),
                      "testpmd crashed")
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
