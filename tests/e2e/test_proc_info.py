#!/usr/bin/env python3
"""dpdk-proc-info, attached as a secondary process, reads a net_zorv1 port.

testpmd runs as the primary process on hugepages with a net_zorv1 port (0)
and a virtio-user peer (1), forwards traffic of two frame sizes, and stops
so that the counters hold still. dpdk-proc-info then loads the driver with
-d (its probe in a secondary process attaches to the primary's port) and
prints the port's basic statistics and extended statistics. Both must equal
what the primary shows: RX/TX packets and bytes, the generic extended
statistics, and the driver's 28 extended statistics, name by name.

Hugepages are set up here (root) and put back as they were afterwards.
Without them the test is skipped with exit code 77 and a "SKIP:" line.
"""

import os
import re
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

MEM_MB = 512

# The driver's own extended statistics, in the order the port reports them
# (after DPDK's generic ones).
_XSTAT_ROWS = ["good_packets", "total_bytes", "missed_pkts", "broadcast_packets",
               "multicast_packets", "unicast_packets", "undersize_packets", "size_64_packets",
               "size_65_to_127_packets", "size_128_to_255_packets", "size_256_to_511_packets",
               "size_512_to_1023_packets", "size_1024_to_1522_packets",
               "size_1523_to_max_packets"]
ZORV1_XSTATS = ["rx_" + r for r in _XSTAT_ROWS] + ["tx_" + r for r in _XSTAT_ROWS]


def cmd(pmd, line, timeout=20):
    """Runs a testpmd command; its output up to the next prompt."""
    return pmd.cmd(line, timeout)


def log(msg):
    print("[proc_info] " + msg, flush=True)


def parse_basic(text, what):
    """RX/TX packets and bytes of a 'NIC statistics for port' block."""
    vals = {}
    for key in ("RX-packets", "RX-bytes", "TX-packets", "TX-bytes"):
        m = re.search(r"%s:\s+(\d+)" % key, text)
        e2e.check(m is not None, "%s: no %s in:\n%s" % (what, key, text))
        vals[key] = int(m.group(1))
    return vals


def parse_xstats(text, what):
    """[(name, value)] of the 'name: value' lines in order."""
    m = re.search(r"NIC extended statistics for port 0", text)
    e2e.check(m is not None, "%s: no extended statistics block in:\n%s" % (what, text))
    rows = re.findall(r"^\s*([a-z0-9_]+): (\d+)\s*$", text[m.end():], re.M)
    return [(n, int(v)) for n, v in rows]


def scenario(args, huge):
    wd = e2e.work_dir("proc_info")
    sock = os.path.join(wd, "vhost0")
    pmd = e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                      eal_args=["--single-file-segments"], mem_mb=MEM_MB,
                      log_path=os.path.join(wd, "testpmd.log"))
    # A secondary process attaches only to a primary that runs on hugepages.
    pmd.argv.remove("--no-huge")
    huge.prefixes.append(pmd.prefix)
    virtio_open = False
    try:
        with pmd:
            pmd.start()
            # The peer connects while it is attached: its link event may come
            # before or after "port start".
            since = pmd.pos
            out = cmd(pmd, "port attach net_virtio_user0,path=%s,queues=1" % sock)
            e2e.check("Port 1 is attached" in out, "virtio-user did not attach: %s" % out)
            virtio_open = True
            cmd(pmd, "port start 1")
            pmd.wait_for(r"Port 0: link state change event", 20, since)
            # Two frame sizes, so that different counters move.
            for size in (64, 700):
                cmd(pmd, "set txpkts %d" % size)
                cmd(pmd, "start tx_first 4")
                time.sleep(1.0)
                cmd(pmd, "stop")
            primary_basic = parse_basic(cmd(pmd, "show port stats 0"), "testpmd")
            primary_x = parse_xstats(cmd(pmd, "show port xstats 0"), "testpmd")
            e2e.check(primary_basic["RX-packets"] > 0 and primary_basic["TX-packets"] > 0,
                      "no traffic went through port 0: %s" % primary_basic)
            log("testpmd, port 0: %s" % primary_basic)

            stats_out = e2e.proc_info(args.lib, pmd.prefix, "--stats")
            xstats_out = e2e.proc_info(args.lib, pmd.prefix, "--xstats")
            secondary_basic = parse_basic(stats_out[stats_out.find("NIC statistics for port 0"):],
                                          "dpdk-proc-info --stats")
            secondary_x = parse_xstats(xstats_out, "dpdk-proc-info --xstats")
            log("dpdk-proc-info, port 0: %s" % secondary_basic)
            e2e.check(secondary_basic == primary_basic,
                      "basic statistics differ: testpmd %s, dpdk-proc-info %s"
                      % (primary_basic, secondary_basic))

            e2e.check(len(primary_x) >= len(ZORV1_XSTATS) and
                      [n for n, _ in primary_x[-len(ZORV1_XSTATS):]] == ZORV1_XSTATS,
                      "testpmd does not show the driver's 28 extended statistics last: %s"
                      % [n for n, _ in primary_x])
            e2e.check([n for n, _ in secondary_x] == [n for n, _ in primary_x],
                      "extended statistics names differ:\n testpmd %s\n dpdk-proc-info %s"
                      % ([n for n, _ in primary_x], [n for n, _ in secondary_x]))
            diffs = ["%s: testpmd %d, dpdk-proc-info %d" % (a[0], a[1], b[1])
                     for a, b in zip(primary_x, secondary_x) if a[1] != b[1]]
            e2e.check(not diffs, "extended statistics values differ: %s" % "; ".join(diffs))
            own = dict(secondary_x[-len(ZORV1_XSTATS):])
            for name, basic in (("rx_good_packets", "RX-packets"), ("tx_good_packets", "TX-packets"),
                                ("rx_total_bytes", "RX-bytes"), ("tx_total_bytes", "TX-bytes")):
                e2e.check(own[name] == primary_basic[basic],
                          "driver's %s is %d, port statistics say %s %d"
                          % (name, own[name], basic, primary_basic[basic]))
            for name in ("rx_size_64_packets", "rx_size_512_to_1023_packets",
                         "tx_size_64_packets", "tx_size_512_to_1023_packets"):
                e2e.check(own[name] > 0, "no packets counted in %s: %s" % (name, own))
            log("dpdk-proc-info shows the same %d extended statistics, the driver's 28 among "
                "them: %s" % (len(secondary_x),
                              ", ".join("%s=%d" % (n, v) for n, v in own.items() if v)))

            # virtio-user leaves before the port it is connected to.
            cmd(pmd, "port stop 1")
            cmd(pmd, "port close 1")
            virtio_open = False
            rc = pmd.quit(30)
            e2e.check(rc == 0, "testpmd exited with %s" % rc)
    finally:
        if virtio_open and pmd.alive():
            try:
                cmd(pmd, "port stop 1", timeout=10)
                cmd(pmd, "port close 1", timeout=10)
            except e2e.E2EFailure:
                pass
        pmd.close()
        if not args.verbose:
            e2e.remove_tree(wd)
        else:
            log("logs kept in %s" % wd)


def run(args):
    for tool in ("dpdk-testpmd", "dpdk-proc-info"):
        if subprocess.run(["sh", "-c", "command -v " + tool], stdout=subprocess.DEVNULL).returncode:
            raise e2e.Skip("%s is not installed" % tool)
    with e2e.Hugepages(MEM_MB) as huge:
        scenario(args, huge)


if __name__ == "__main__":
    def guarded(args):
        try:
            run(args)
        except e2e.Skip as why:
            print("SKIP: %s" % why, flush=True)
            sys.exit(e2e.SKIP)
    e2e.main(guarded)
