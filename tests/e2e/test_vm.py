#!/usr/bin/env python3
"""A Linux guest in QEMU as the peer of a net_zorv1 port.

    guest eth0 (virtio-net-pci, vhost-user) <-> net_zorv1 (port 0)
        <-> io forwarding <-> net_tap (port 1) <-> ztvm0 in namespace zvm

Cases (--case, one guest each):
  basic     link up, vid and sfi bound, the guest's eth0 up; ping both ways;
            20 MiB TCP both ways with matching sha256; the pool returns to
            its start once the guest is gone.
  mq        queues=2 and two vCPUs: `ethtool -L eth0 combined 2` in the
            guest; transfers from both vCPUs land on both receive queues of
            the port.
  offload   the guest's checksum and TSO offloads (as its kernel negotiates
            them): its 64 KiB TCP segments reach the namespace as correct,
            MTU-sized frames (the card segments them and completes the
            checksums); the namespace's kernel counts no checksum error.
  reboot    `reboot -f` in the guest while the namespace keeps sending: the
            link goes down and up by itself, traffic resumes; the repeated
            SET_MEM_TABLE of the boot is taken under traffic.
  kill      QEMU killed with SIGKILL under traffic, then started again on the
            same socket: link down, up, traffic; nothing lost from the pool.
  restart   testpmd killed and started again on the same interface while the
            guest runs (its chardev has reconnect=1): the guest comes back by
            itself; the time from the application's start to traffic.
  memtable  memory hot-added to the guest (a DIMM through QMP) while a TCP
            transfer runs through the port: QEMU sends a new memory table,
            the transfer completes intact.
Every case ends with testpmd alive and answering, and the mbuf pool as at
start once the guest is gone.
"""

import argparse
import os
import re
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import zorv_vm as vm  # noqa: E402
from zorv_netns import TCP_CLIENT, TCP_SERVER, NsProc, in_ns, run  # noqa: E402

TRANSFER = 20 * 1024 * 1024
CASES = ("basic", "mq", "offload", "reboot", "kill", "restart", "memtable")


def log(msg):
    print("[vm] " + msg, flush=True)


class Scenario:
    def __init__(self, args, work):
        self.args = args
        self.work = work
        self.files = vm.vm_files(args.build)
        self.procs = []
        self.host = None
        self.guest = None

    # -- set-up ---------------------------------------------------------------
    def start_host(self, queues=1):
        self.host = vm.Host(self.args.lib, self.work, queues=queues).start()
        self.host.fwd_start()
        return self.host

    def new_guest(self, queues=1, smp=1, reconnect=0, hotplug_mb=0):
        kernel, initramfs = self.files
        return vm.Guest(self.host.sock, self.work, kernel, initramfs, queues=queues, smp=smp,
                        reconnect=reconnect, hotplug_mb=hotplug_mb)

    def boot_guest(self, **kw):
        self.guest = self.new_guest(**kw)
        secs = self.guest.boot()
        log("guest booted to its shell in %.1f s" % secs)
        self.host.wait_link("up", 60)
        return secs

    def ns_proc(self, code, *args):
        p = NsProc(vm.NS, code, *args)
        self.procs.append(p)
        return p

    def close(self):
        for p in self.procs:
            p.stop()
        if self.guest is not None:
            self.guest.close()
        if self.host is not None:
            self.host.remove()

    # -- checks -----------------------------------------------------------------
    def check_bound(self):
        info = self.host.port_info()
        e2e.check(info.get("vid", -1) >= 0 and info.get("sfi") not in (None, 0xFFFFFFFF),
                  "the port is not bound to a connection: %r" % info)
        log("port bound: vid %d sfi %d" % (info["vid"], info["sfi"]))

    def ping_both(self, count=5):
        rtt = vm.ping(in_ns(vm.NS), vm.GUEST_ADDR, count)
        out = self.guest.sh_ok("ping -c %d -W 5 %s" % (count, vm.HOST_ADDR), timeout=60)
        m = re.search(r"(\d+) packets transmitted, (\d+) packets received", out)
        e2e.check(m is not None and m.group(2) == str(count), "guest ping: %s" % out)
        grtt = [float(x) for x in re.findall(r"time=([\d.]+) ms", out)]
        log("ping namespace->guest rtt ms %s; guest->namespace %s" % (
            " ".join("%.2f" % x for x in rtt), " ".join("%.2f" % x for x in grtt)))
        return rtt + grtt

    def guest_file(self, size=TRANSFER):
        out = self.guest.sh_ok("dd if=/dev/urandom of=/tmp/d bs=1M count=%d 2>/dev/null; "
                               "sha256sum /tmp/d" % (size // (1 << 20)), timeout=120)
        return re.search(r"([0-9a-f]{64})", out).group(1)

    def guest_to_ns(self, sha, port=5201, prefix=""):
        """Sends the guest's /tmp/d to the namespace; the rate in MB/s."""
        srv = self.ns_proc(TCP_SERVER, vm.HOST_ADDR, port)
        e2e.check(srv.readline(20) == "listening", "TCP server in the namespace did not start")
        t0 = time.monotonic()
        out = self.guest.sh_ok("%snc %s %d </tmp/d" % (prefix, vm.HOST_ADDR, port), timeout=300)
        secs = time.monotonic() - t0
        rc, sout, serr = srv.finish(60)
        g = re.search(r"^got (\d+) ([0-9a-f]{64})$", sout, re.M)
        e2e.check(rc == 0 and g is not None, "namespace server: rc=%d %s %s %s" % (rc, sout, serr, out))
        e2e.check(g.group(2) == sha, "guest sent sha256 %s, the namespace received %s bytes "
                  "with %s" % (sha, g.group(1), g.group(2)))
        rate = int(g.group(1)) / secs / 1e6
        log("TCP guest->namespace: %s bytes in %.2f s (%.1f MB/s), sha256 matches" % (
            g.group(1), secs, rate))
        return rate

    def ns_to_guest(self, size=TRANSFER, port=5202, during=None):
        """Sends size random bytes from the namespace to the guest; MB/s.
        during(), if given, runs while the transfer is under way."""
        start = self.guest.pos
        self.guest.send("nc -l -p %d | sha256sum; echo NC-DONE-%d" % (port, port))
        time.sleep(1)  # nc listening
        t0 = time.monotonic()
        cl = self.ns_proc(TCP_CLIENT, vm.GUEST_ADDR, port, size)
        if during is not None:
            time.sleep(0.5)
            during()
            e2e.check(cl.proc.poll() is None, "the transfer ended before the change was made")
        rc, out, err = cl.finish(300)
        secs = time.monotonic() - t0
        e2e.check(rc == 0, "namespace client: rc=%d %s %s" % (rc, out, err))
        m = re.search(r"^sent (\d+) ([0-9a-f]{64}) ([\d.]+)$", out, re.M)
        self.guest.wait_for("NC-DONE-%d" % port, 60, start)
        got = re.search(r"([0-9a-f]{64})  -", self.guest.output[start:])
        e2e.check(m is not None and got is not None and got.group(1) == m.group(2),
                  "namespace sent sha256 %s, the guest computed %s" % (
                      m.group(2) if m else "?", got.group(1) if got else "?"))
        rate = size / float(m.group(3)) / 1e6
        log("TCP namespace->guest: %d bytes in %.2f s (%.1f MB/s), sha256 matches" % (
            size, secs, rate))
        return rate

    def traffic_resumes(self, timeout=60):
        """Seconds until the namespace gets an answer from the guest again."""
        t0 = time.monotonic()
        ok = e2e.wait_until(lambda: run(in_ns(vm.NS, "ping", "-c", "1", "-W", "1", vm.GUEST_ADDR),
                                        timeout=10, check=False)[0] == 0, timeout, 0.1)
        e2e.check(ok, "no answer from the guest within %ss" % timeout)
        return time.monotonic() - t0

    def pool_baseline(self):
        self.host.fwd_stop()
        base = self.host.in_use()
        self.host.fwd_start()
        return base

    def check_pool(self, base, where):
        """With the guest gone and forwarding stopped, the pool is as at start."""
        self.host.fwd_stop()
        ok = e2e.wait_until(lambda: self.host.in_use() == base, 10, 0.1)
        n = self.host.in_use()
        e2e.check(ok, "%s: %d mbufs out of the pool, %d at start" % (where, n, base))
        log("%s: %d mbufs out of the pool, as at start" % (where, n))
        self.host.fwd_start()

    def flood(self, seconds):
        """The namespace sends to the guest for `seconds` (pings every 10 ms)."""
        return self.ns_proc(FLOODER, vm.GUEST_ADDR, seconds)

    def stop_guest(self):
        self.guest.kill()
        self.host.wait_link("down", 30)
        self.guest = None

    def set_mem_tables(self):
        return len(re.findall(r"VHOST_USER_SET_MEM_TABLE", self.host.pmd.output))


    def ns_counters(self):
        counters = {}
        for f in ("/proc/net/snmp", "/proc/net/netstat"):
            _, out, _ = run(in_ns(vm.NS, "cat", f))
            lines = out.splitlines()
            for names, values in zip(lines[0::2], lines[1::2]):
                group, names = names.split(":", 1)
                for n, v in zip(names.split(), values.split(":", 1)[1].split()):
                    counters["%s.%s" % (group, n)] = int(v)
        return counters


    def card_counter(self, name):
        stats = e2e.telemetry_one(self.host.prefix, "/zorv1/cp_stats")
        e2e.check(isinstance(stats, dict) and name in stats,
                  "no %s in /zorv1/cp_stats: %r" % (name, stats))
        return stats[name]


# Pings the guest every 10 ms until time runs out; prints answered/sent.
FLOODER = r"""
import subprocess, sys, time
addr, secs = sys.argv[1], float(sys.argv[2])
p = subprocess.run(["ping", "-q", "-i", "0.01", "-W", "1", "-w", str(int(secs)), addr],
                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
print(p.stdout.decode().strip().splitlines()[-2] if p.stdout else "", flush=True)
"""


def case_basic(s):
    base = None
    s.start_host()
    s.boot_guest()
    s.check_bound()
    # The carrier comes up once QEMU has started the device on the socket.
    link = s.guest.sh_ok("for i in $(seq 1 300); do [ $(cat /sys/class/net/eth0/operstate) = up ] "
                         "&& break; sleep 0.1; done; cat /sys/class/net/eth0/operstate")
    e2e.check(link.strip() == "up", "the guest's eth0 is not up: %s" % link)
    base = s.pool_baseline()
    s.ping_both()
    sha = s.guest_file()
    s.guest_to_ns(sha)
    s.ns_to_guest()
    s.stop_guest()
    s.check_pool(base, "guest gone")


def case_mq(s):
    s.start_host(queues=2)
    s.boot_guest(queues=2, smp=2)
    s.guest.sh_ok("ethtool -L eth0 combined 2")
    out = s.guest.sh_ok("ethtool -l eth0")
    cur = re.findall(r"Combined:\s+(\d+)", out)
    e2e.check(cur[-1:] == ["2"], "the guest uses %s queue pairs:\n%s" % (cur[-1:], out))
    s.ping_both()
    before = s.host.queue_xstats(0)
    sha = s.guest_file(8 << 20)
    # One transfer from each vCPU: each CPU transmits on its own queue.
    for cpu in (1, 2):
        s.guest_to_ns(sha, port=5200 + cpu, prefix="taskset %d " % cpu)
    s.ns_to_guest(8 << 20)
    after = s.host.queue_xstats(0)
    delta = {n: after.get(n, 0) - before.get(n, 0) for n in after}
    log("port 0 per-queue packets during the transfers: %s" % delta)
    for q in (0, 1):
        e2e.check(delta.get("rx_q%d_packets" % q, 0) > 100,
                  "receive queue %d of the port carried %d packets" % (
                      q, delta.get("rx_q%d_packets" % q, 0)))


def case_offload(s):
    s.start_host()
    s.boot_guest()
    feats = s.guest.sh_ok("ethtool -k eth0")
    for f in ("tx-checksumming", "tcp-segmentation-offload"):
        e2e.check(re.search(r"^%s: on" % f, feats, re.M),
                  "the guest has %s off:\n%s" % (f, feats))
    log("guest: tx-checksumming on, tcp-segmentation-offload on")
    counters = s.ns_counters()
    gso0 = s.card_counter("rx_gso_frames")
    sha = s.guest_file()
    s.guest_to_ns(sha)
    gso = s.card_counter("rx_gso_frames") - gso0
    after = s.ns_counters()
    bad = after.get("Tcp.InCsumErrors", 0) - counters.get("Tcp.InCsumErrors", 0)
    e2e.check(bad == 0, "the namespace's kernel counted %d TCP checksum errors" % bad)
    e2e.check(gso > 0, "the guest sent no large segment through the port")
    log("guest TSO segments the card cut to MTU-sized frames: %d; TCP checksum errors: 0" % gso)
    s.ns_to_guest()


def case_reboot(s):
    s.start_host()
    s.boot_guest()
    base = s.pool_baseline()
    s.ping_both(3)
    tables0 = s.set_mem_tables()
    fl = s.flood(40)
    since = s.guest.pos
    t0 = time.monotonic()
    s.guest.send("reboot -f")
    s.host.wait_link("down", 60)
    t_down = time.monotonic() - t0
    secs = s.guest.wait_booted(since, 180)
    s.host.wait_link("up", 60)
    t_up = time.monotonic() - t0
    resume = s.traffic_resumes()
    log("reboot: link down after %.1f s, guest shell after %.1f s, link up after %.1f s, "
        "traffic %.1f s later" % (t_down, secs, t_up, resume))
    log("SET_MEM_TABLE messages during the reboot: %d" % (s.set_mem_tables() - tables0))
    e2e.check(s.set_mem_tables() > tables0, "the guest sent no new memory table")
    fl.finish(60)
    s.ping_both(3)
    sha = s.guest_file(4 << 20)
    s.guest_to_ns(sha)
    s.stop_guest()
    s.check_pool(base, "after the reboot, guest gone")


def case_kill(s):
    s.start_host()
    s.boot_guest()
    base = s.pool_baseline()
    fl = s.flood(60)
    time.sleep(2)
    s.stop_guest()
    log("QEMU killed under traffic: link down")
    s.check_pool(base, "QEMU killed")
    t0 = time.monotonic()
    s.boot_guest()
    s.traffic_resumes()
    log("QEMU started again: traffic %.1f s after its start" % (time.monotonic() - t0))
    fl.stop()
    s.ping_both(3)
    s.stop_guest()
    s.check_pool(base, "second guest gone")


def case_restart(s):
    s.start_host()
    s.boot_guest(reconnect=1)
    s.ping_both(3)
    pmd = s.host.pmd
    os.killpg(pmd.proc.pid, 9)
    pmd.proc.wait(timeout=10)
    pmd.stop_process()
    log("testpmd killed with SIGKILL while the guest runs")
    time.sleep(2)
    t0 = time.monotonic()
    s.host.start()
    s.host.fwd_start()
    s.host.wait_link("up", 60)
    t_link = time.monotonic() - t0
    t_traffic = s.traffic_resumes() + t_link
    log("application restarted: link up %.1f s and traffic %.1f s after its start; the guest "
        "was not touched" % (t_link, t_traffic))
    s.check_bound()
    s.ping_both(3)


def case_memtable(s):
    s.start_host()
    s.boot_guest(hotplug_mb=256)
    tables0 = s.set_mem_tables()

    def hot_add():
        s.guest.qmp("object-add", **{"qom-type": "memory-backend-memfd", "id": "hp0",
                                      "size": 256 << 20, "share": True})
        s.guest.qmp("device_add", driver="pc-dimm", id="dimm0", memdev="hp0")
        log("a 256 MiB DIMM was added to the guest under traffic")

    s.ns_to_guest(64 << 20, port=5204, during=hot_add)
    added = s.set_mem_tables() - tables0
    e2e.check(added > 0, "QEMU sent no new memory table for the DIMM")
    log("%d new memory tables while the transfer ran" % added)
    sha = s.guest_file(4 << 20)
    s.guest_to_ns(sha)
    s.ping_both(3)


def scenario(args):
    why = vm.skip_reason(args.build)
    if why:
        print("SKIP: %s" % why, flush=True)
        sys.exit(vm.SKIP)
    work = e2e.work_dir("vm_" + args.case)
    s = Scenario(args, work)
    try:
        globals()["case_" + args.case](s)
        if s.host.pmd is not None:
            out = s.host.pmd.cmd("show port summary all")
            e2e.check("net_zorv1" in out, "testpmd does not answer: %s" % out)
    finally:
        s.close()
        if not args.verbose:
            e2e.remove_tree(work)
        else:
            log("logs kept in %s" % work)


def parse(argv=None):
    p = argparse.ArgumentParser(description=__doc__,
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--lib", required=True)
    p.add_argument("--build", required=True, help="the build tree (its vm/ holds the guest)")
    p.add_argument("--case", choices=CASES, required=True)
    p.add_argument("-v", "--verbose", action="store_true")
    return p.parse_args(argv)


if __name__ == "__main__":
    a = parse()
    a.lib = os.path.abspath(a.lib)
    e2e.main(lambda _: scenario(a), argv=["--lib", a.lib] + (["-v"] if a.verbose else []))
