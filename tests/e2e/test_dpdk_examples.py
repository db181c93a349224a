#!/usr/bin/env python3
"""DPDK's own example applications as clients of net_zorv1 ports.

l2fwd and l3fwd-power are built from Debian's dpdk-doc example sources
(/usr/share/dpdk/examples) against the installed DPDK, with their own
Makefiles, in the test's directory, and run with the driver loaded by -d:

  - l2fwd on two net_zorv1 ports (-p 0x3): a peer testpmd with two
    virtio-user ports, io forwarding, sends on its first port; l2fwd
    forwards port 0 -> 1 and 1 -> 0, so the frames go round. Both of the
    peer's ports must receive, and l2fwd's own statistics must show frames
    received and sent on both of its ports.
  - l3fwd-power with --pmd-mgmt=pause and --pmd-mgmt=monitor on one
    net_zorv1 port whose peer is a flowgen testpmd: the frames come back
    (no route matches, so l3fwd-power sends them back out of the port they
    came in on). The CPU time of the polling thread is sampled over a
    loaded and an idle window, and reported. Monitor mode needs the CPU's
    wait instructions (UMWAIT on Intel, MONITORX on AMD); where the CPU has
    neither, DPDK's power library refuses the queue and l3fwd-power exits
    with that error, which the test checks and reports as the reason the
    monitor run is skipped.

Exit code 77 with "SKIP: <why>" when the example sources or make are
missing (scripts/setup.sh installs dpdk-doc and build-essential).
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402

EXAMPLES = "/usr/share/dpdk/examples"
APP_BOUND = 120        # seconds an example may live, whatever happens to the test
WINDOW = 3.0           # seconds of each CPU-time sample
CLK_TCK = os.sysconf("SC_CLK_TCK")


def log(msg):
    print("[examples] " + msg, flush=True)


def build(work, name):
    src = os.path.join(EXAMPLES, name)
    dst = os.path.join(work, name)
    shutil.copytree(src, dst)
    r = subprocess.run(["make", "-s", "-C", dst], stdout=subprocess.PIPE,
                       stderr=subprocess.STDOUT, timeout=300)
    out = r.stdout.decode("utf-8", "replace")
    e2e.check(r.returncode == 0, "make %s failed:\n%s" % (name, out[-3000:]))
    binary = os.path.join(dst, "build", name)
    e2e.check(os.access(binary, os.X_OK), "make %s made no %s" % (name, binary))
    log("built %s from %s" % (name, src))
    return binary


class App:
    """An example application in a process group of its own, its output in
    a file, ended by SIGINT (then SIGKILL) and bounded by `timeout`."""

    def __init__(self, argv, log_path):
        self.log_path = log_path
        self.argv = argv
        with open(log_path, "wb") as f:
            self.proc = subprocess.Popen(
                ["timeout", "-s", "INT", "-k", "10", str(APP_BOUND), "stdbuf", "-o0", "-e0"]
                + argv, stdout=f, stderr=subprocess.STDOUT, start_new_session=True)

    def output(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode("utf-8", "replace")

    def wait_for(self, regex, timeout):
        ok = e2e.wait_until(lambda: re.search(regex, self.output()) is not None
                            or self.proc.poll() is not None, timeout, 0.1)
        return ok and re.search(regex, self.output()) is not None

    def app_pid(self):
        """The example's own pid (the child of timeout, after stdbuf's exec)."""
        try:
            kids = open("/proc/%d/task/%d/children" % (self.proc.pid, self.proc.pid)).read()
        except OSError:
            return None
        kids = kids.split()
        return int(kids[0]) if kids else None

    def stop(self, grace=15):
        if self.proc.poll() is None:
            os.killpg(self.proc.pid, signal.SIGINT)
        try:
            self.proc.wait(timeout=grace)
        except subprocess.TimeoutExpired:
            os.killpg(self.proc.pid, signal.SIGKILL)
            self.proc.wait()
        return self.proc.returncode


def eal(lib, prefix, lcores, vdevs):
    argv = ["-l", lcores, "--no-huge", "--no-pci", "-m", "512", "--file-prefix=" + prefix,
            "-d", os.path.abspath(lib), "--log-level=pmd.net.zorv1.*:notice"]
    for v in vdevs:
        argv += ["--vdev", v]
    return argv


def thread_cpu_seconds(pid, tid):
    with open("/proc/%d/task/%d/stat" % (pid, tid)) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / CLK_TCK  # utime + stime


def polling_thread(pid, lcore_name):
    """The thread whose name is the lcore's, or the main thread."""
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            name = open("/proc/%d/task/%s/comm" % (pid, tid)).read().strip()
        except OSError:
            continue
        if name == lcore_name:
            return int(tid)
    return pid


def cpu_share(pid, tid):
    t0, c0 = time.monotonic(), thread_cpu_seconds(pid, tid)
    time.sleep(WINDOW)
    return (thread_cpu_seconds(pid, tid) - c0) / (time.monotonic() - t0)


# -- l2fwd -----------------------------------------------------------------------
def run_l2fwd(lib, work, binary):
    socks = [os.path.join(work, "l2fwd%d" % i) for i in range(2)]
    app = App([binary] + eal(lib, e2e.unique_prefix("l2fwd"), "1",
                             ["net_zorv1%d,iface=%s,queues=1" % (i, s)
                              for i, s in enumerate(socks)])
              + ["--", "-p", "0x3", "-T", "1", "-q", "2"], os.path.join(work, "l2fwd.log"))
    peer = None
    try:
        e2e.check(app.wait_for(r"L2FWD: entering main loop on lcore", 30),
                  "l2fwd did not reach its main loop:\n%s" % app.output()[-3000:])
        vdevs = ["net_virtio_user%d,path=%s,queues=1" % (i, s) for i, s in enumerate(socks)]
        eal_args = list(cp.PEER_LCORE_ARGS)
        for v in vdevs:
            eal_args += ["--vdev", v]
        peer = e2e.Testpmd(None, prefix=e2e.unique_prefix("l2peer"), eal_args=eal_args,
                           mem_mb=cp.PEER_MEM_MB, app_args=["--forward-mode=io"],
                           log_path=os.path.join(work, "l2peer.log"))
        peer.start(60)
        out = peer.cmd("start tx_first 4")
        e2e.check("packet forwarding" in out, "the peer's forwarding did not start:\n%s" % out)
        base = [cp.port_stats(peer, p) for p in (0, 1)]

        def both_received():
            now = [cp.port_stats(peer, p) for p in (0, 1)]
            return all(now[p]["RX-packets"] - base[p]["RX-packets"] >= 10000 for p in (0, 1))
        e2e.check(e2e.wait_until(both_received, 30, 0.5),
                  "l2fwd forwarded too little: peer stats %r" % [cp.port_stats(peer, p)
                                                                 for p in (0, 1)])
        time.sleep(1.5)  # one more statistics print of l2fwd
        text = app.output()
        ports = {}
        for m in re.finditer(r"Statistics for port (\d+) -+\s*Packets sent:\s+(\d+)\s*"
                             r"Packets received:\s+(\d+)", text):
            ports[int(m.group(1))] = (int(m.group(2)), int(m.group(3)))
        e2e.check(set(ports) == {0, 1} and all(s > 0 and r > 0 for s, r in ports.values()),
                  "l2fwd's statistics do not show both ports forwarding: %r\n%s"
                  % (ports, text[-2000:]))
        now = [cp.port_stats(peer, p)["RX-packets"] for p in (0, 1)]
        log("l2fwd -p 0x3 on two net_zorv1 ports: its last statistics (sent, received) "
            "port 0 %r, port 1 %r; the peer's ports received %d and %d frames"
            % (ports[0], ports[1], now[0], now[1]))
        peer.cmd("stop")
    finally:
        if peer is not None:
            peer.close()
        rc = app.stop()
    e2e.check(rc == 0, "l2fwd exit code %s:\n%s" % (rc, app.output()[-2000:]))
    e2e.check("Bye..." in app.output(), "l2fwd did not end cleanly:\n%s" % app.output()[-2000:])


# -- l3fwd-power ---------------------------------------------------------------------
def cpu_can_monitor():
    flags = set()
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("flags"):
                flags.update(line.split(":", 1)[1].split())
                break
    return bool(flags & {"waitpkg", "monitorx"}), flags & {"waitpkg", "monitorx"}


def run_l3fwd_power(lib, work, binary, mode):
    sock = os.path.join(work, "l3p_%s" % mode)
    app = App([binary] + eal(lib, e2e.unique_prefix("l3p"), "1",
                             ["net_zorv1,iface=%s,queues=1" % sock])
              + ["--", "-p", "0x1", "--config=(0,0,1)", "--parse-ptype",
                 "--pmd-mgmt=%s" % mode], os.path.join(work, "l3fwd-power-%s.log" % mode))
    peer = None
    try:
        # It waits for the port's link before forwarding: the peer comes now.
        e2e.check(app.wait_for(r"Checking link status", 30) or app.proc.poll() is not None,
                  "l3fwd-power did not get to its ports:\n%s" % app.output()[-3000:])
        if app.proc.poll() is not None:
            return None, app.output()
        peer = cp.Peer(sock, "l3peer", os.path.join(work, "l3peer-%s.log" % mode),
                       mode="flowgen")
        peer.start()
        e2e.check(app.wait_for(r"entering main telemetry loop|entering main loop", 30),
                  "l3fwd-power did not start forwarding:\n%s" % app.output()[-3000:])
        pid = app.app_pid()
        e2e.check(pid is not None, "no l3fwd-power process under timeout")
        tid = polling_thread(pid, "lcore-worker-1")
        base = cp.port_stats(peer.pmd, 0)["RX-packets"]
        loaded = cpu_share(pid, tid)
        back = cp.port_stats(peer.pmd, 0)["RX-packets"] - base
        e2e.check(back > 1000, "l3fwd-power sent back %d frames in %.0f s" % (back, WINDOW))
        peer.pmd.cmd("stop")
        time.sleep(0.5)
        idle = cpu_share(pid, tid)
        return (loaded, idle, back), app.output()
    finally:
        if peer is not None:
            peer.close()
        app.stop()


def scenario(common):
    if not os.path.isdir(os.path.join(EXAMPLES, "l3fwd-power")):
        raise e2e.Skip("%s has no example sources (apt-get install dpdk-doc)" % EXAMPLES)
    if shutil.which("make") is None:
        raise e2e.Skip("no make (apt-get install build-essential)")
    work = e2e.work_dir("examples")
    try:
        l2fwd = build(work, "l2fwd")
        l3p = build(work, "l3fwd-power")
        run_l2fwd(common.lib, work, l2fwd)

        got, out = run_l3fwd_power(common.lib, work, l3p, "pause")
        e2e.check(got is not None, "l3fwd-power --pmd-mgmt=pause ended early:\n%s" % out[-3000:])
        loaded, idle, back = got
        log("l3fwd-power --pmd-mgmt=pause: %d frames back to the peer in %.0f s; polling "
            "thread CPU %.0f%% loaded, %.0f%% idle" % (back, WINDOW, 100 * loaded, 100 * idle))

        can, which = cpu_can_monitor()
        got, out = run_l3fwd_power(common.lib, work, l3p, "monitor")
        if can:
            e2e.check(got is not None, "l3fwd-power --pmd-mgmt=monitor ended early on a CPU "
                      "with %s:\n%s" % (which, out[-3000:]))
            loaded, idle, back = got
            log("l3fwd-power --pmd-mgmt=monitor: %d frames back in %.0f s; polling thread "
                "CPU %.0f%% loaded, %.0f%% idle" % (back, WINDOW, 100 * loaded, 100 * idle))
            e2e.check(idle < loaded / 2, "monitor mode: the idle core did not sleep "
                      "(%.0f%% vs %.0f%%)" % (100 * idle, 100 * loaded))
        else:
            e2e.check(got is None and "rte_power_ethdev_pmgmt_queue_enable: err=-95" in out,
                      "on a CPU without UMWAIT/MONITORX l3fwd-power --pmd-mgmt=monitor should "
                      "be refused by DPDK's power library (ENOTSUP):\n%s" % out[-3000:])
            log("l3fwd-power --pmd-mgmt=monitor: skipped, this CPU has neither waitpkg "
                "(UMWAIT) nor monitorx; DPDK's power library refuses the queue: "
                "'rte_power_ethdev_pmgmt_queue_enable: err=-95, port=0'")
    finally:
        if not common.verbose:
            e2e.remove_tree(work)


if __name__ == "__main__":
    def guarded(common):
        try:
            scenario(common)
        except e2e.Skip as why:
            print("SKIP: %s" % why, flush=True)
            sys.exit(e2e.SKIP)
    e2e.main(guarded)
