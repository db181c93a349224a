#!/usr/bin/env python3
"""A net_zorv1 port as dpdk-testpmd sees it before any peer connects.

testpmd loads the driver with -d and creates two ports from --vdev:
net_zorv1 (queues=2) and net_zorv1_b (queues=4). Checked: the port
information (MAC address from the port id, 10 Gbps full duplex, link down,
maximum queue counts equal to the queues argument, which testpmd enforces),
the port summary, and the names and order of the extended statistics.
"""
import os
import re
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

# The driver's own extended statistics, after DPDK's generic ones.
DRIVER_XSTATS = [
    "%s_%s" % (d, n)
    for d in ("rx", "tx")
    for n in ("good_packets", "total_bytes", "missed_pkts", "broadcast_packets",
              "multicast_packets", "unicast_packets", "undersize_packets",
              "size_64_packets", "size_65_to_127_packets", "size_128_to_255_packets",
              "size_256_to_511_packets", "size_512_to_1023_packets",
              "size_1024_to_1522_packets", "size_1523_to_max_packets")
]
GENERIC_XSTATS = ["rx_good_packets", "tx_good_packets", "rx_good_bytes", "tx_good_bytes",
                  "rx_missed_errors", "rx_errors", "tx_errors", "rx_mbuf_allocation_errors"]


def field(text, label):
    m = re.search(r"^%s:\s*(.*?)\s*$" % re.escape(label), text, re.M)
    e2e.check(m is not None, "no %r in:\n%s" % (label, text))
    return m.group(1)


def xstats(text):
    """Ordered (name, value) pairs of `show port xstats`."""
    pairs = re.findall(r"^(\w+):\s+(\d+)\s*$", text, re.M)
    return [(n, int(v)) for n, v in pairs]


def summary_row(text, port):
    m = re.search(r"^%d\s+(\S+)\s+(\S+)\s+(\S+)\s+(\S+)\s+(.*?)\s*$" % port, text, re.M)
    e2e.check(m is not None, "port %d not in the summary:\n%s" % (port, text))
    return m.groups()  # mac, name, driver, status, link


def check_info(info, name, mac, queues):
    e2e.check(field(info, "MAC address") == mac, "MAC of %s: %r" % (name, field(info, "MAC address")))
    e2e.check(field(info, "Device name") == name, "device name: %r" % field(info, "Device name"))
    e2e.check(field(info, "Driver name") == "net_zorv1", "driver name: %r" % field(info, "Driver name"))
    e2e.check(field(info, "Link status") == "down", "link of %s before any peer: %r"
              % (name, field(info, "Link status")))
    e2e.check(field(info, "Link speed") == "10 Gbps", "link speed: %r" % field(info, "Link speed"))
    e2e.check(field(info, "Link duplex") == "full-duplex", "duplex: %r" % field(info, "Link duplex"))
    e2e.check(field(info, "Promiscuous mode") == "enabled", "promiscuous mode not enabled")
    e2e.check(field(info, "Allmulticast mode") == "enabled", "all-multicast mode not enabled")
    e2e.check(field(info, "Max possible RX queues") == str(queues),
              "max RX queues of %s: %r, want %d" % (name, field(info, "Max possible RX queues"), queues))
    e2e.check(field(info, "Max possible TX queues") == str(queues),
              "max TX queues of %s: %r, want %d" % (name, field(info, "Max possible TX queues"), queues))


def scenario(args):
    run = e2e.work_dir("port")
    sock_a = os.path.join(run, "vhost_a")
    sock_b = os.path.join(run, "vhost_b")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=2" % sock_a,
                                          "net_zorv1_b,iface=%s,queues=4" % sock_b],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            boot = pmd.start()
            e2e.check("Initializing zorv1_dpu_dev for net_zorv1" in boot,
                      "probe log line missing:\n%s" % boot)

            # Configuring the port serves its interface: the socket exists.
            e2e.check(os.path.exists(sock_a), "socket %s not created" % sock_a)

            check_info(pmd.cmd("show port info 0"), "net_zorv1", "44:56:44:45:56:00", 2)
            check_info(pmd.cmd("show port info 1"), "net_zorv1_b", "44:56:44:45:56:01", 4)

            summary = pmd.cmd("show port summary all")
            e2e.check(re.search(r"Number of available ports: 2", summary) is not None,
                      "summary:\n%s" % summary)
            mac, name, driver, status, link = summary_row(summary, 0)
            e2e.check((mac, name, driver, status, link) ==
                      ("44:56:44:45:56:00", "net_zorv1", "net_zorv1", "down", "10 Gbps"),
                      "summary row of port 0: %r" % ((mac, name, driver, status, link),))

            # testpmd configured one queue pair; the driver's 28 follow the
            # generic statistics and the per-queue ones of that pair.
            xs = xstats(pmd.cmd("show port xstats 0"))
            names = [n for n, _ in xs]
            e2e.check(names[:len(GENERIC_XSTATS)] == GENERIC_XSTATS,
                      "generic xstats: %r" % names[:len(GENERIC_XSTATS)])
            e2e.check(len(names) >= 28 and names[-28:] == DRIVER_XSTATS,
                      "the last 28 xstats are not the driver's, in order: %r" % names)
            middle = names[len(GENERIC_XSTATS):-28]
            e2e.check(middle == ["rx_q0_packets", "rx_q0_bytes", "rx_q0_errors",
                                 "tx_q0_packets", "tx_q0_bytes"],
                      "per-queue xstats: %r" % middle)
            e2e.check(all(v == 0 for _, v in xs), "counters not zero before traffic: %r" % xs)

            # testpmd holds every port to the smallest maximum (port 0's 2):
            # three queue pairs are refused, two are set up and started.
            pmd.cmd("port stop all")
            out = pmd.cmd("port config all rxq 3")
            e2e.check(re.search(r"rxq \(3\) can't be greater than max_rx_queues \(2\) of port 0",
                                out) is not None, "3 receive queues not refused: %r" % out)
            out = pmd.cmd("port config all txq 3")
            e2e.check(re.search(r"txq \(3\) can't be greater than max_tx_queues \(2\) of port 0",
                                out) is not None, "3 transmit queues not refused: %r" % out)
            out = pmd.cmd("port config all rxq 2") + pmd.cmd("port config all txq 2")
            e2e.check("Fail" not in out, "2 queue pairs refused: %r" % out)
            out = pmd.cmd("port start all")
            e2e.check("Fail" not in out, "port start with 2 queue pairs: %r" % out)
            info = pmd.cmd("show port info 0")
            e2e.check(field(info, "Current number of RX queues") == "2" and
                      field(info, "Current number of TX queues") == "2",
                      "queue pairs after reconfiguration:\n%s" % info)
            e2e.check(field(info, "Link status") == "down", "link up without a peer")
            names = [n for n, _ in xstats(pmd.cmd("show port xstats 0"))]
            e2e.check(names[-28:] == DRIVER_XSTATS and "rx_q1_packets" in names and
                      "tx_q1_bytes" in names, "xstats with 2 queue pairs: %r" % names)

            for line in ("port stop all", "port close all"):
                pmd.cmd(line)
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
