#!/usr/bin/env python3
"""As many net_zorv1 ports as one testpmd holds, with and without peers.

DPDK's build here allows 32 ethdev ports per process. Run 1 fills them with
16 net_zorv1 ports and a virtio-user peer for each: all ports are attached
at run time to a testpmd that started without any, all peers connect (every
port's link comes up), io forwarding moves traffic through every port, then
everything is closed. The process must then be back where it was before the
first of the 32 ports: the same DPDK heap allocation (bytes and count), the
same open file descriptors, no card socket left in the socket directory and
the same files in DPDK's runtime directory (what the first port and the
first traffic of a process set up for good is made by a warm-up port and
peer before the reference is taken). While 16 ports are up, a port asking
for an interface name that a port already serves is refused: the
"iface_name(...) already exists." and check-failure lines, and one report
(kind 5, error 4) that reaches a subscriber of the agent's MQTT topic on a
mosquitto broker the scenario runs.

Run 2 starts testpmd with 32 net_zorv1 ports on its command line (no
peers): all are probed, configured and started, each serves its socket, a
33rd port is refused (no ethdev port left: "eth alloc fail", one report
with error 5) without leaving memory, files or a socket behind,
and closing all of them removes every socket and every port.
"""
import json
import os
import re
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

MAX_PORTS = 32            # RTE_MAX_ETHPORTS of this DPDK build
PAIRS = MAX_PORTS // 2    # run 1: a net_zorv1 port and its peer per pair
MBUFS = 65536
MIN_PKTS = 2000           # per port and direction in run 1
MSG_DEV_VHOST_ERR = 5     # report kind of a refused port creation
ERR_DEV_CHECK = 4         # ... whose name is taken
ERR_MEM_ALLOC = 5         # ... for which no port could be allocated


def attach(pmd, devargs, timeout=30):
    out = pmd.cmd("port attach " + devargs, timeout)
    m = re.search(r"Port (\d+) is attached", out)
    e2e.check(m is not None, "attaching %s failed:\n%s" % (devargs, out))
    return int(m.group(1))


def start_port(pmd, port):
    out = pmd.cmd("port start %d" % port, 30)
    e2e.check("Fail" not in out and "Invalid" not in out,
              "port %d did not start:\n%s" % (port, out))


def close_port(pmd, port):
    """Stops and closes a port; testpmd releases it at close."""
    pmd.cmd("port stop %d" % port, 30)
    out = pmd.cmd("port close %d" % port, 30)
    e2e.check("Port %d is closed" % port in out, "port %d did not close:\n%s" % (port, out))


def forward(pmd, ports, min_pkts, timeout=60):
    """io forwarding seeded with tx_first until every port moved min_pkts each way."""
    out = pmd.cmd("start tx_first 8")
    e2e.check("io packet forwarding" in out, "forwarding did not start:\n%s" % out)

    def moved():
        s = e2e.parse_port_stats(pmd.cmd("show port stats all"))
        return all(s[p]["RX-packets"] >= min_pkts and s[p]["TX-packets"] >= min_pkts
                   for p in ports)
    ok = e2e.wait_until(moved, timeout, 0.5)
    fwd = e2e.parse_fwd_stats(pmd.cmd("stop", 30))
    e2e.check(ok, "not every port moved %d packets each way: %r" % (min_pkts, fwd))
    return fwd


def drop_streams(pmd):
    """testpmd keeps a forwarding stream record per port of its last run until
    the next one; a run with no port left frees them."""
    out = pmd.cmd("start")
    e2e.check("ports=0" in out, "forwarding with ports left:\n%s" % out)
    pmd.cmd("stop")


def summary(pmd):
    return e2e.parse_summary(pmd.cmd("show port summary all"))


def fds(pid):
    """Kinds of the open file descriptors (socket, pipe, anon_inode:..., paths)."""
    out = []
    d = "/proc/%d/fd" % pid
    for f in os.listdir(d):
        try:
            link = os.readlink(os.path.join(d, f))
        except OSError:
            continue
        out.append(re.sub(r"\[\d+\]$", "", link))
    return sorted(out)


def heap(prefix):
    h = e2e.telemetry_one(prefix, "/eal/heap_info,0")
    e2e.check(h is not None, "no heap information over telemetry")
    return h["Alloc_size"], h["Alloc_count"]


def footprint(pmd, run):
    return {
        "heap": heap(pmd.prefix),
        "fds": fds(pmd.proc.pid),
        "sockets": sorted(f for f in os.listdir(run) if f.startswith("vhost")),
        "runtime": sorted(os.listdir(os.path.join(e2e.DPDK_RUN_DIR, pmd.prefix))),
    }


def check_same_footprint(before, after, when):
    e2e.check(after["sockets"] == [], "%s: card sockets left: %r" % (when, after["sockets"]))
    e2e.check(after["heap"] == before["heap"],
              "%s: DPDK heap holds %d bytes in %d allocations, %d bytes in %d before"
              % ((when,) + after["heap"] + before["heap"]))
    e2e.check(after["fds"] == before["fds"],
              "%s: open files differ; before %d: %r, after %d: %r"
              % (when, len(before["fds"]), before["fds"], len(after["fds"]), after["fds"]))
    e2e.check(after["runtime"] == before["runtime"], "%s: runtime directory %r, was %r"
              % (when, after["runtime"], before["runtime"]))


def cp_stats(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")


def no_crash(pmd):
    e2e.check(not re.search(r"Segmentation fault|Aborted|PANIC|AddressSanitizer", pmd.output),
              "testpmd crashed")


class Reports:
    """The agent's reports, as a subscriber on the broker receives them."""

    def __init__(self, sub, topic):
        self.sub, self.topic = sub, topic

    def all(self):
        out = []
        for line in self.sub.lines():
            if line.startswith(self.topic + " "):
                out.append(json.loads(line[len(self.topic) + 1:]))
        return out

    def wait(self, device, kind, error, iface, queues, timeout=10):
        want = {"device": device, "kind": kind, "error": error, "iface": iface, "queues": queues}
        found = e2e.wait_until(
            lambda: [r for r in self.all() if {k: r.get(k) for k in want} == want], timeout, 0.1)
        e2e.check(found and len(found) == 1, "not one report %r within %ss; received: %r"
                  % (want, timeout, self.all()))


def refuse(pmd, reports, name, sock, error, lines):
    """Attaching `name` on `sock` fails with `lines` logged and one report."""
    ports = summary(pmd)
    sockets = sorted(os.listdir(os.path.dirname(sock)))
    send_fail = cp_stats(pmd)["send_msg_fail"]
    mark = pmd.pos
    out = pmd.cmd("port attach %s,iface=%s,queues=1" % (name, sock), 30)
    e2e.check("is attached" not in out, "%s on %s was attached:\n%s" % (name, sock, out))
    for line in lines:
        pmd.wait_for(re.escape(line), 10, since=mark)
    reports.wait(name, MSG_DEV_VHOST_ERR, error, sock, 1)
    e2e.check(cp_stats(pmd)["send_msg_fail"] == send_fail, "the report was not handed over")
    e2e.check(summary(pmd) == ports, "the refused port changed the port list")
    e2e.check(sorted(os.listdir(os.path.dirname(sock))) == sockets,
              "the refused port changed the socket directory")


def refuse_taken_iface(pmd, reports, name, sock):
    """A port naming an interface that a configured port serves is refused."""
    refuse(pmd, reports, name, sock, ERR_DEV_CHECK,
           ["iface_name(%s) already exists." % sock, "name(%s-%s) check fail!!!." % (name, sock)])


def run_with_peers(args, env, reports):
    run = e2e.work_dir("scale")
    try:
        with e2e.Testpmd(args.lib, app_args=["--total-num-mbufs=%d" % MBUFS], env=env,
                         log_path=os.path.join(run, "testpmd-peers.log")) as pmd:
            pmd.start()
            # A port and a peer forward a little and are closed first: the
            # ethdev layer's shared data, the vhost library's event pipe and
            # the mbuf library's dynamic-field zone are made once per
            # process, by the first port and the first traffic; they are not
            # the ports' to free.
            warm_sock = os.path.join(run, "vhost_warm")
            warm = attach(pmd, "net_zorv1_warm,iface=%s,queues=1" % warm_sock)
            start_port(pmd, warm)
            # The first report also starts the agent's connection to the broker.
            refuse_taken_iface(pmd, reports, "net_zorv1_dup_warm", warm_sock)
            warm_peer = pmd.attach_virtio_user(warm_sock, name="net_virtio_user_warm")
            start_port(pmd, warm_peer)
            forward(pmd, [warm], 100)
            close_port(pmd, warm_peer)
            close_port(pmd, warm)
            e2e.check(summary(pmd) == {}, "ports left after the warm-up")
            drop_streams(pmd)
            before = footprint(pmd, run)

            zorv = []
            for i in range(PAIRS):
                zorv.append(attach(pmd, "net_zorv1_%d,iface=%s,queues=1"
                                   % (i, os.path.join(run, "vhost%d" % i))))
                start_port(pmd, zorv[-1])
            e2e.check(sorted(f for f in os.listdir(run) if f.startswith("vhost")) ==
                      sorted("vhost%d" % i for i in range(PAIRS)),
                      "sockets of %d ports: %r" % (PAIRS, os.listdir(run)))
            refuse_taken_iface(pmd, reports, "net_zorv1_dup", os.path.join(run, "vhost3"))

            new_conn = cp_stats(pmd)["new_conn"]
            peers = []
            for i in range(PAIRS):
                peers.append(pmd.attach_virtio_user(os.path.join(run, "vhost%d" % i),
                                                    name="net_virtio_user%d" % i))
                start_port(pmd, peers[-1])
            e2e.check(len(summary(pmd)) == MAX_PORTS, "not %d ports: %r" % (MAX_PORTS, summary(pmd)))

            def all_up():
                s = summary(pmd)
                return all(s.get(p, (None,) * 5)[3] == "up" for p in zorv)
            e2e.check(e2e.wait_until(all_up, 30, 0.2),
                      "links not all up: %r" % {p: summary(pmd).get(p) for p in zorv})
            e2e.check(cp_stats(pmd)["new_conn"] == new_conn + PAIRS,
                      "new_conn grew by %d, not %d" % (cp_stats(pmd)["new_conn"] - new_conn, PAIRS))

            # Traffic through every port: io forwarding of paired ports.
            fwd = forward(pmd, zorv, MIN_PKTS)
            for p in zorv + peers:
                e2e.check(fwd.get(p, {}).get("RX-packets", 0) > 0 and
                          fwd.get(p, {}).get("TX-packets", 0) > 0,
                          "no traffic both ways through port %d: %r" % (p, fwd.get(p)))

            # Peers first: a peer whose socket went away first is stopped
            # by a write on a dead socket.
            for p in peers:
                close_port(pmd, p)
            for p in zorv:
                close_port(pmd, p)
            e2e.check(summary(pmd) == {}, "ports left: %r" % summary(pmd))
            e2e.check(e2e.telemetry_one(pmd.prefix, "/zorv1/ports") in ([], None),
                      "zorv1 ports still listed")
            drop_streams(pmd)
            # The vhost library closes a connection's descriptors on its own thread.
            e2e.wait_until(lambda: fds(pmd.proc.pid) == before["fds"], 10, 0.2)
            after = footprint(pmd, run)
            check_same_footprint(before, after, "after closing %d ports" % MAX_PORTS)
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
            no_crash(pmd)
            print("run 1: %d net_zorv1 ports and %d peers up and forwarding, all closed; "
                  "heap %d bytes in %d allocations and %d open files as before"
                  % (PAIRS, PAIRS, after["heap"][0], after["heap"][1], len(after["fds"])))
    finally:
        e2e.remove_tree(run)


def run_full_table(args, env, reports):
    run = e2e.work_dir("scale32")
    try:
        vdevs = ["net_zorv1_%d,iface=%s,queues=1" % (i, os.path.join(run, "vhost%d" % i))
                 for i in range(MAX_PORTS)]
        with e2e.Testpmd(args.lib, vdevs=vdevs, app_args=["--total-num-mbufs=%d" % MBUFS],
                         env=env, log_path=os.path.join(run, "testpmd-32.log")) as pmd:
            pmd.start(60)
            s = summary(pmd)
            e2e.check(sorted(s) == list(range(MAX_PORTS)), "ports %r" % sorted(s))
            e2e.check(all(row[2] == "net_zorv1" for row in s.values()), "drivers %r" % s)
            sockets = sorted(f for f in os.listdir(run) if f.startswith("vhost"))
            e2e.check(sockets == sorted("vhost%d" % i for i in range(MAX_PORTS)),
                      "sockets of %d started ports: %r" % (MAX_PORTS, sockets))
            names = e2e.telemetry_one(pmd.prefix, "/zorv1/ports")
            e2e.check(names is not None and len(names) == MAX_PORTS, "ports listed: %r" % names)
            stats = cp_stats(pmd)
            e2e.check(stats["vhost_driver_setup"] == MAX_PORTS and stats["eth_dev_start"] >= MAX_PORTS,
                      "control-plane counters after start: %r" % stats)

            # A taken interface is refused with a full table too; its report
            # also starts the agent's connection to the broker.
            refuse_taken_iface(pmd, reports, "net_zorv1_dup", os.path.join(run, "vhost31"))

            # No ethdev port is left for a 33rd: refused, and nothing of it stays.
            fp = (heap(pmd.prefix), fds(pmd.proc.pid))
            extra = "net_zorv1_%d" % MAX_PORTS
            extra_sock = os.path.join(run, "vhost%d" % MAX_PORTS)
            refuse(pmd, reports, extra, extra_sock, ERR_MEM_ALLOC,
                   ["name(%s-%s) eth alloc fail!." % (extra, extra_sock)])
            e2e.check(not os.path.exists(extra_sock), "the refused port serves a socket")
            e2e.check((heap(pmd.prefix), fds(pmd.proc.pid)) == fp,
                      "the refused port left memory or files behind: %r, was %r"
                      % ((heap(pmd.prefix), fds(pmd.proc.pid)), fp))

            pmd.cmd("port stop all", 60)
            out = pmd.cmd("port close all", 60)
            e2e.check(out.count("is closed") == MAX_PORTS, "not all ports closed:\n%s" % out)
            e2e.check(summary(pmd) == {}, "ports left: %r" % summary(pmd))
            left = sorted(f for f in os.listdir(run) if f.startswith("vhost"))
            e2e.check(left == [], "card sockets left after close: %r" % left)
            e2e.check(e2e.telemetry_one(pmd.prefix, "/zorv1/ports") in ([], None),
                      "zorv1 ports still listed")
            stats = cp_stats(pmd)
            e2e.check(stats["eth_dev_close"] == MAX_PORTS, "eth_dev_close %d" % stats["eth_dev_close"])
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
            no_crash(pmd)
            print("run 2: %d net_zorv1 ports probed, configured, started and closed; "
                  "a 33rd refused" % MAX_PORTS)
    finally:
        e2e.remove_tree(run)


def scenario(args):
    run = e2e.work_dir("scale_agent")
    topic = "zorv1/e2e/%d/scale" % os.getpid()
    broker = e2e.Mosquitto()
    sub = None
    try:
        broker.start()
        sub = e2e.Subscriber(broker.port, topic, os.path.join(run, "sub.out")).start()
        env = {"ZORV1_MQTT_BROKER": broker.address, "ZORV1_MQTT_TOPIC": topic}
        reports = Reports(sub, topic)
        run_with_peers(args, env, reports)
        run_full_table(args, env, reports)
    finally:
        if sub:
            sub.stop()
        broker.stop()
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
