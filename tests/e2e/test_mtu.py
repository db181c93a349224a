#!/usr/bin/env python3
"""The port's MTU is the card's: range, both directions, named drop counters.

testpmd runs a net_zorv1 port with a virtio-user peer in the same process.
The scenario checks that the port advertises the MTUs the card's firmware
accepts (68..9600: `port config mtu` refuses 67 and 9601 and keeps the MTU),
that an MTU set through testpmd reaches the card (/zorv1/card), that frames
longer than it are dropped both ways and counted by direction in
/zorv1/card and /zorv1/cp_stats, that frames within it pass, and that a
jumbo MTU carries 9000-byte frames both ways.
"""
import os
import re
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

PORT_NAME = "net_zorv1"


def card(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/card," + PORT_NAME)


def cp_stats(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")


def mtu_of(pmd, port):
    m = re.search(r"^MTU: (\d+)", pmd.cmd("show port info %d" % port), re.M)
    e2e.check(m is not None, "no MTU in show port info %d" % port)
    return int(m.group(1))


def link_up(pmd, port):
    row = e2e.parse_summary(pmd.cmd("show port summary all")).get(port)
    return row is not None and row[3] == "up"


def one_round(pmd, size):
    """tx_first 4 with frames of `size` bytes (one segment or several),
    then lets what is in flight arrive; returns the forward statistics."""
    pmd.cmd("set txpkts %s" % size)
    out = pmd.cmd("start tx_first 4")
    e2e.check("forwarding" in out, "forwarding did not start:\n%s" % out)
    # io forwarding keeps passing what arrived; a second is enough to settle.
    e2e.wait_until(lambda: False, 1.0)
    return e2e.parse_fwd_stats(pmd.cmd("stop"))


def scenario(args):
    run = e2e.work_dir("mtu")
    sock = os.path.join(run, "vhost0")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                         # 9000-byte frames go as chains of 2 KB mbufs.
                         app_args=["--tx-offloads=0x8000"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            info = pmd.cmd("show port info 0")
            e2e.check(mtu_of(pmd, 0) == 1500, "default MTU: %s" % info)

            c = card(pmd)
            e2e.check(c["mtu_min"] == 68 and c["mtu_max"] == 9600 and c["mtu"] == 0,
                      "card before any MTU was set: %r" % c)

            # Outside the firmware's range: refused by DPDK, nothing changes.
            for bad in (67, 9601):
                out = pmd.cmd("port config mtu 0 %d" % bad)
                e2e.check(re.search(r"MTU \(%d\) [<>] device (min|max) MTU" % bad, out),
                          "mtu %d not refused by the device's range: %r" % (bad, out))
                e2e.check(mtu_of(pmd, 0) == 1500, "mtu %d changed the port's MTU" % bad)
            e2e.check(card(pmd)["mtu"] == 0, "a refused MTU reached the card")
            e2e.check("Failed to set mtu" not in pmd.output and
                      "out of range" not in pmd.output,
                      "a refused MTU reached the firmware:\n%s" % pmd.output[-2000:])

            out = pmd.cmd("port config mtu 0 1000")
            e2e.check(mtu_of(pmd, 0) == 1000, "mtu 1000 not set: %r" % out)
            c = card(pmd)
            e2e.check(c["mtu"] == 1000, "card mtu after port config mtu 0 1000: %r" % c)

            peer = pmd.attach_virtio_user(sock)
            pmd.cmd("port start %d" % peer)
            e2e.check(e2e.wait_until(lambda: link_up(pmd, 0), 10, 0.1), "link stays down")
            cp0 = cp_stats(pmd)
            c0 = card(pmd)

            # 1100-byte frames: over 1000 + 14, dropped both ways.
            fwd = one_round(pmd, 1100)
            c1 = card(pmd)
            cp1 = cp_stats(pmd)
            port_tx = fwd[0]["TX-packets"]
            peer_tx = fwd[peer]["TX-packets"]
            e2e.check(port_tx > 0 and peer_tx > 0, "nothing sent: %r" % fwd)
            e2e.check(fwd[0]["RX-packets"] == 0 and fwd[peer]["RX-packets"] == 0,
                      "frames over the MTU arrived: %r" % fwd)
            e2e.check(c1["tx_mtu_drops"] - c0["tx_mtu_drops"] == port_tx,
                      "tx_mtu_drops moved by %d, the port sent %d"
                      % (c1["tx_mtu_drops"] - c0["tx_mtu_drops"], port_tx))
            e2e.check(c1["rx_mtu_drops"] - c0["rx_mtu_drops"] == peer_tx,
                      "rx_mtu_drops moved by %d, the peer sent %d"
                      % (c1["rx_mtu_drops"] - c0["rx_mtu_drops"], peer_tx))
            e2e.check(cp1["tx_mtu_drops"] - cp0["tx_mtu_drops"] == port_tx and
                      cp1["rx_mtu_drops"] - cp0["rx_mtu_drops"] == peer_tx,
                      "cp_stats totals: %r -> %r" % (
                          {k: cp0[k] for k in ("rx_mtu_drops", "tx_mtu_drops")},
                          {k: cp1[k] for k in ("rx_mtu_drops", "tx_mtu_drops")}))
            print("1100 B at MTU 1000: port sent %d, peer sent %d, received 0/0; card "
                  "tx_mtu_drops +%d rx_mtu_drops +%d" % (
                      port_tx, peer_tx, c1["tx_mtu_drops"] - c0["tx_mtu_drops"],
                      c1["rx_mtu_drops"] - c0["rx_mtu_drops"]), flush=True)

            # 1014-byte frames: exactly MTU + 14, they pass and nothing is dropped.
            fwd = one_round(pmd, 1014)
            c2 = card(pmd)
            e2e.check(fwd[0]["RX-packets"] > 0 and fwd[peer]["RX-packets"] > 0,
                      "frames within the MTU did not pass: %r" % fwd)
            e2e.check(c2["tx_mtu_drops"] == c1["tx_mtu_drops"] and
                      c2["rx_mtu_drops"] == c1["rx_mtu_drops"],
                      "frames within the MTU counted as drops: %r -> %r" % (c1, c2))

            # The largest MTU carries jumbo frames both ways.
            pmd.cmd("port stop 0")
            out = pmd.cmd("port config mtu 0 9600")
            pmd.cmd("port start 0")
            e2e.check(mtu_of(pmd, 0) == 9600 and card(pmd)["mtu"] == 9600,
                      "mtu 9600 not applied: %r" % out)
            e2e.check(e2e.wait_until(lambda: link_up(pmd, 0), 10, 0.1), "link stays down")
            fwd = one_round(pmd, "2000,2000,2000,2000,1000")
            c3 = card(pmd)
            e2e.check(fwd[0]["RX-packets"] > 0 and fwd[peer]["RX-packets"] > 0,
                      "9000-byte frames did not pass at MTU 9600: %r" % fwd)
            stats = e2e.parse_port_stats(pmd.cmd("show port stats 0"))[0]
            e2e.check(c3["tx_mtu_drops"] == c2["tx_mtu_drops"] and
                      c3["rx_mtu_drops"] == c2["rx_mtu_drops"],
                      "9000-byte frames dropped at MTU 9600: %r" % c3)
            print("9000 B at MTU 9600: port received %d, peer received %d" % (
                fwd[0]["RX-packets"], fwd[peer]["RX-packets"]), flush=True)
            e2e.check(stats["RX-bytes"] >= 9000 * fwd[0]["RX-packets"] // 2,
                      "received bytes %r for %d frames" % (stats, fwd[0]["RX-packets"]))

            # The peer leaves before the port closes (its socket goes away).
            for line in ("port stop %d" % peer, "port close %d" % peer,
                         "port stop 0", "port close 0"):
                pmd.cmd(line)
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
