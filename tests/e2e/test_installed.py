#!/usr/bin/env python3
"""The driver installed the DPDK way, and DPDK's own tools on its ports.

Installed into DPDK's plugin directory (/usr/lib/x86_64-linux-gnu/dpdk/
pmds-23.0 on Debian 12), the driver is loaded by every DPDK application at
start, with no -d: dpdk-testpmd, and the tools that have no -d at all or
must load drivers the same way as the primary (dpdk-dumpcap, dpdk-pdump,
dpdk-proc-info). Two ways of installing are checked, one after the other:
`cmake --install <build>` (uninstalled by removing the files of its
install_manifest.txt) and the Debian package made by cpack
(`dpkg -i librte-net-zorv1_<version>_amd64.deb`, then `dpkg -r`).

For each, with the driver installed:
  - testpmd (primary, on hugepages, no -d) creates the net_zorv1 port and
    forwards what it receives back to the sender (io, loop topology); the
    peer is a second testpmd with a virtio-user port, in rxonly mode, so each
    capture sees a bounded exchange: the peer's `start tx_first 8` sends 8
    bursts of testpmd's 64-byte UDP frames (198.18.0.1:9 -> 198.18.0.2:9),
    the port receives them and sends them back, and the peer drops them (two
    forwarding ports would loop the frames at full rate into the capture
    files). The primary's forwarding starts before a tool attaches: the
    ports a capture tool adds would keep testpmd from starting it;
  - dpdk-dumpcap -i net_zorv1 writes a pcapng that tshark reads back: the
    frames asked for, all of them such frames;
  - dpdk-pdump captures the port's receive and transmit sides into pcap
    files that tcpdump reads back, with such frames in both;
  - dpdk-proc-info (no -d) shows the port's statistics;
and after the uninstall testpmd finds no net_zorv1 driver any more.

The machine is not changed: everything runs in a mount namespace of its own
in which DPDK's plugin directory and dpkg's database are overlays whose
writable layer lives in the test's directory (dpkg logs there too). The
test checks from outside, afterwards, that the real plugin directory and
dpkg's status file are as they were. Hugepages (for the secondary
processes) are set up and put back as test_proc_info.py does. Exit code 77
with "SKIP: <why>" when the machine cannot (no root, no overlayfs, a tool
missing).
"""
import argparse
import glob
import hashlib
import os
import re
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402

PMD_DIR = "/usr/lib/x86_64-linux-gnu/dpdk/pmds-23.0"
DPKG_DIR = "/var/lib/dpkg"
PACKAGE = "librte-net-zorv1"
MEM_MB = 512
FRAMES = 200
BURSTS = 8      # tx_first bursts of 32 frames per exchange
TOOL_BOUND = 60  # seconds any capture tool may live, whatever happens to the test
TOOLS = ("dpdk-testpmd", "dpdk-dumpcap", "dpdk-pdump", "dpdk-proc-info", "tshark",
         "tcpdump", "unshare", "dpkg", "cmake", "cpack")


def log(msg):
    print("[installed] " + msg, flush=True)


def run(argv, timeout=120, check=True, stderr=subprocess.STDOUT, **kw):
    r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=stderr, timeout=timeout, **kw)
    out = r.stdout.decode("utf-8", "replace")
    if check:
        e2e.check(r.returncode == 0, "%s exited with %d:\n%s" % (" ".join(argv), r.returncode, out))
    return r.returncode, out


def snapshot():
    """What the test must leave as it found: the plugin directory and dpkg's
    record of installed packages."""
    files = sorted((f, os.lstat(os.path.join(PMD_DIR, f)).st_size) for f in os.listdir(PMD_DIR))
    with open(os.path.join(DPKG_DIR, "status"), "rb") as f:
        status = hashlib.sha256(f.read()).hexdigest()
    return {"plugins": files, "dpkg status": status}


# -- inside the namespace ------------------------------------------------------
def overlay(target, work, name):
    up, wk = os.path.join(work, name + ".up"), os.path.join(work, name + ".work")
    os.makedirs(up)
    os.makedirs(wk)
    rc, out = run(["mount", "-t", "overlay", "overlay", "-o",
                   "lowerdir=%s,upperdir=%s,workdir=%s" % (target, up, wk), target], check=False)
    if rc != 0:
        raise e2e.Skip("cannot mount an overlay on %s: %s" % (target, out.strip()))


def driver_installed():
    return os.path.exists(os.path.join(PMD_DIR, "librte_net_zorv1.so"))


def linked_mempool_drivers(binary):
    _, out = run(["ldd", binary])
    return {m.group(1): m.group(2) for m in
            re.finditer(r"^\s*(librte_mempool_\w+\.so[.\d]*) => (\S+)", out, re.M)}


def tool_env(tool):
    """The environment under which a capture tool works with Debian's
    dpdk-testpmd as the primary. A capture tool's mempool is used by the
    primary through the index of its operations, and the indexes follow the
    order in which each process registered its mempool drivers: testpmd
    links one of them (librte_mempool_dpaa) and registers it before the
    plugins, the tools do not. Preloading what testpmd links and the tool
    does not gives both the same order (without it every captured frame is
    counted as dropped, whatever the port's driver)."""
    primary = linked_mempool_drivers(subprocess.run(
        ["sh", "-c", "command -v dpdk-testpmd"], stdout=subprocess.PIPE).stdout.decode().strip())
    mine = linked_mempool_drivers(subprocess.run(
        ["sh", "-c", "command -v " + tool], stdout=subprocess.PIPE).stdout.decode().strip())
    extra = [path for name, path in sorted(primary.items()) if name not in mine]
    env = dict(os.environ)
    if extra:
        env["LD_PRELOAD"] = " ".join(extra)
    return env


def frames_ok(rows, what):
    """rows: (length, source, destination, UDP destination port) per frame."""
    bad = [r for r in rows if r != ("64", "198.18.0.1", "198.18.0.2", "9")]
    e2e.check(not bad, "%s: frames other than testpmd's 64-byte UDP frames: %r" % (what, bad[:5]))


def exchange(peer):
    """One bounded exchange: BURSTS x 32 frames from the peer, sent back."""
    peer.pmd.cmd("stop")
    out = peer.pmd.cmd("start tx_first %d" % BURSTS)
    e2e.check("packet forwarding" in out, "the peer's forwarding did not start:\n%s" % out)
    time.sleep(0.5)


def bounded(argv):
    """A tool that ends by itself even if the test is killed meanwhile."""
    return ["timeout", "-s", "INT", "-k", "5", str(TOOL_BOUND)] + argv


def capture_with_dumpcap(pmd, peer, work, tag):
    path = os.path.join(work, "%s.pcapng" % tag)
    argv = ["dpdk-dumpcap", "--file-prefix=" + pmd.prefix, "-i", "net_zorv1", "-c", str(FRAMES),
            "-w", path, "-q"]
    env = tool_env("dpdk-dumpcap")
    proc = subprocess.Popen(bounded(argv), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            start_new_session=True, env=env)
    try:
        # dumpcap has attached once the primary logs the capture's start.
        e2e.check(e2e.wait_until(lambda: proc.poll() is not None or os.path.exists(path), 30, 0.1),
                  "%s: dpdk-dumpcap did not start" % tag)
        time.sleep(1)
        exchange(peer)
        out = proc.communicate(timeout=30)[0].decode("utf-8", "replace")
    finally:
        if proc.poll() is None:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.communicate()
    rc = proc.returncode
    e2e.check(rc == 0, "%s: %s exited with %d:\n%s" % (tag, " ".join(argv), rc, out))
    _, text = run(["tshark", "-r", path, "-T", "fields", "-e", "frame.len", "-e", "ip.src",
                   "-e", "ip.dst", "-e", "udp.dstport"], stderr=subprocess.DEVNULL)
    rows = [tuple(line.split("\t")) for line in text.splitlines() if line.strip()]
    # dumpcap stops after the burst that reaches the count.
    e2e.check(len(rows) >= FRAMES, "%s: tshark reads %d frames in the pcapng, want %d"
              % (tag, len(rows), FRAMES))
    frames_ok(rows, "%s: dpdk-dumpcap" % tag)
    log("%s: `%s%s` -> tshark reads %d frames, all 64-byte UDP 198.18.0.1:9 -> 198.18.0.2:9"
        % (tag, "LD_PRELOAD=%s " % env["LD_PRELOAD"] if "LD_PRELOAD" in env else "",
           " ".join(argv), len(rows)))


def capture_with_pdump(pmd, peer, work, tag):
    # dpdk-pdump cuts device arguments at a few dozen characters (a longer
    # path becomes a file of another name): short paths, relative to the
    # tool's own directory.
    pdir = os.path.join(work, "%s.pdump" % tag)
    os.makedirs(pdir)
    rx, tx = os.path.join(pdir, "rx.pcap"), os.path.join(pdir, "tx.pcap")
    spec = "port=0,queue=*,rx-dev=rx.pcap,tx-dev=tx.pcap"
    argv = ["dpdk-pdump", "--file-prefix=" + pmd.prefix, "--", "--pdump", spec]
    log_path = os.path.join(pdir, "pdump.log")
    with open(log_path, "wb") as log_file:
        proc = subprocess.Popen(bounded(argv), stdout=log_file, stderr=subprocess.STDOUT,
                                start_new_session=True, env=tool_env("dpdk-pdump"), cwd=pdir)
    try:
        time.sleep(3)
        e2e.check(proc.poll() is None, "%s: dpdk-pdump ended early" % tag)
        exchange(peer)
        time.sleep(1)
    finally:
        t0 = time.monotonic()
        if proc.poll() is None:
            os.killpg(proc.pid, signal.SIGINT)
        try:
            proc.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
        with open(log_path, "rb") as f:
            out = f.read().decode("utf-8", "replace")
        log("%s: dpdk-pdump took %.1f s to end after SIGINT" % (tag, time.monotonic() - t0))
    e2e.check(proc.returncode == 0, "%s: dpdk-pdump exited with %d after SIGINT:\n%s"
              % (tag, proc.returncode, out[-3000:]))
    counts = {}
    for side, path in (("rx", rx), ("tx", tx)):
        _, text = run(["tcpdump", "-r", path, "-nn", "-v", "-e"])
        lines = [l for l in text.splitlines() if " > " in l and "length 64" in l]
        counts[side] = len(lines)
        e2e.check(lines, "%s: no 64-byte frames in the %s capture of dpdk-pdump:\n%s\n%s"
                  % (tag, side, text[-2000:], out[-2000:]))
        _, text = run(["tcpdump", "-r", path, "-nn", "udp"])
        e2e.check("198.18.0.1.9 > 198.18.0.2.9: UDP" in text,
                  "%s: the %s capture holds no testpmd UDP frame:\n%s" % (tag, side, text[-1000:]))
    log("%s: `%s` -> tcpdump reads %d received and %d sent 64-byte frames"
        % (tag, " ".join(argv), counts["rx"], counts["tx"]))


def tools_on_the_installed_driver(huge, work, tag):
    e2e.check(driver_installed(), "%s: the driver is not in %s" % (tag, PMD_DIR))
    sock = os.path.join(work, "%s.sock" % tag)
    # No -d: the driver comes from the plugin directory.
    pmd = e2e.Testpmd(None, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                      eal_args=["--single-file-segments"], mem_mb=MEM_MB,
                      app_args=["--port-topology=loop"],
                      log_path=os.path.join(work, "%s.testpmd.log" % tag))
    pmd.argv.remove("--no-huge")
    huge.prefixes.append(pmd.prefix)
    with pmd:
        start = pmd.start()
        e2e.check("[offload_smartnic]" in start and "net_zorv1" in start,
                  "%s: testpmd did not create the port from the installed driver:\n%s"
                  % (tag, start[-2000:]))
        since = pmd.pos
        out = pmd.cmd("start")
        e2e.check("packet forwarding" in out, "%s: forwarding did not start:\n%s" % (tag, out))
        peer = cp.Peer(sock, "ipeer", os.path.join(work, "%s.peer.log" % tag), mode="rxonly")
        try:
            peer.start()
            pmd.wait_for(r"Port 0: link state change event", 20, since)
            capture_with_dumpcap(pmd, peer, work, tag)
            capture_with_pdump(pmd, peer, work, tag)
        finally:
            peer.close()
        out = e2e.proc_info(None, pmd.prefix, "--stats")
        m = re.search(r"NIC statistics for port 0.*?RX-packets:\s+(\d+)", out, re.S)
        e2e.check(m is not None and int(m.group(1)) > 0,
                  "%s: dpdk-proc-info (no -d) does not show port 0 receiving:\n%s" % (tag, out))
        log("%s: `dpdk-proc-info --file-prefix=<primary> -- -p 0x1 --stats` (no -d) -> port 0 "
            "RX-packets %s" % (tag, m.group(1)))
        for line in ("stop", "port stop 0", "port close 0"):
            pmd.cmd(line)
        e2e.check(pmd.quit() == 0, "%s: testpmd exit code %s" % (tag, pmd.proc.returncode))


def no_driver_any_more(work, tag):
    e2e.check(not driver_installed(), "%s: the driver is still in %s" % (tag, PMD_DIR))
    sock = os.path.join(work, "%s.gone.sock" % tag)
    argv = ["dpdk-testpmd", "-l", "0-1", "--no-huge", "--no-pci", "-m", "256",
            "--file-prefix=" + e2e.unique_prefix("gone"), "--vdev",
            "net_zorv1,iface=%s" % sock, "--", "--total-num-mbufs=2048", "--auto-start",
            "--stats-period=1"]
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            start_new_session=True)
    try:
        out = proc.communicate(timeout=20)[0].decode("utf-8", "replace")
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out = proc.communicate()[0].decode("utf-8", "replace")
    e2e.check("[offload_smartnic]" not in out and proc.returncode != 0,
              "%s: after the uninstall testpmd still made a net_zorv1 port (rc %s):\n%s"
              % (tag, proc.returncode, out[-2000:]))
    log("%s: uninstalled; testpmd --vdev net_zorv1 now fails (rc %d): %s"
        % (tag, proc.returncode, [l for l in out.splitlines() if "net_zorv1" in l][:1]))


def inside(args):
    work = args.work
    overlay(PMD_DIR, work, "pmds")
    overlay(DPKG_DIR, work, "dpkg")
    e2e.check(not driver_installed(), "the driver is installed on this machine already")
    with e2e.Hugepages(MEM_MB) as huge:
        # cmake --install, then the files it installed removed.
        _, out = run(["cmake", "--install", args.build])
        log("cmake --install %s: %s" % (args.build, out.strip().splitlines()[-1]))
        tools_on_the_installed_driver(huge, work, "cmake")
        with open(os.path.join(args.build, "install_manifest.txt")) as f:
            for path in f.read().split():
                os.unlink(path)
        no_driver_any_more(work, "cmake")

        # The Debian package.
        dpkg = ["dpkg", "--log=%s" % os.path.join(work, "dpkg.log")]
        run(dpkg + ["-i", args.deb])
        _, out = run(["dpkg", "-s", PACKAGE])
        e2e.check("Status: install ok installed" in out, "dpkg -s %s:\n%s" % (PACKAGE, out))
        log("dpkg -i %s: %s installed" % (os.path.basename(args.deb), PACKAGE))
        tools_on_the_installed_driver(huge, work, "deb")
        run(dpkg + ["-r", PACKAGE])
        _, out = run(["dpkg", "-s", PACKAGE], check=False)
        e2e.check("Status: install ok installed" not in out, "still installed:\n%s" % out)
        no_driver_any_more(work, "deb")


# -- outside -------------------------------------------------------------------
def outside(common, args):
    missing = [t for t in TOOLS if subprocess.run(["sh", "-c", "command -v " + t],
                                                   stdout=subprocess.DEVNULL).returncode]
    if missing:
        raise e2e.Skip("not installed: %s (scripts/setup.sh installs them)" % ", ".join(missing))
    if os.geteuid() != 0:
        raise e2e.Skip("installing into %s needs root" % PMD_DIR)
    if os.path.exists(os.path.join(PMD_DIR, "librte_net_zorv1.so")):
        e2e.fail("a net_zorv1 driver is installed on this machine already (%s)" % PMD_DIR)
    build = os.path.abspath(args.build)
    work = e2e.work_dir("installed")
    try:
        # The package of this build, made here (its files stay in the build tree).
        run(["cpack", "-G", "DEB", "-B", work, "--config",
             os.path.join(build, "CPackConfig.cmake")], timeout=300)
        debs = glob.glob(os.path.join(work, "%s_*_amd64.deb" % PACKAGE))
        e2e.check(len(debs) == 1, "cpack made %r" % debs)
        before = snapshot()
        argv = ["unshare", "--mount", "--propagation", "private", sys.executable,
                os.path.abspath(__file__), "--lib", common.lib, "--build", build, "--work", work,
                "--deb", debs[0], "--inside"]
        proc = subprocess.run(argv, timeout=900)
        after = snapshot()
        if proc.returncode == e2e.SKIP:
            raise e2e.Skip("the namespace could not be set up (see above)")
        e2e.check(after == before, "the machine changed: before %r, after %r" % (before, after))
        log("outside the test's namespace %s and dpkg's status are as they were" % PMD_DIR)
        e2e.check(proc.returncode == 0, "the installed-driver checks failed (exit %d)"
                  % proc.returncode)
    finally:
        if not common.verbose:
            e2e.remove_tree(work)


def parse():
    p = argparse.ArgumentParser()
    p.add_argument("--build", required=True, help="the build tree (cmake --install, cpack)")
    p.add_argument("--work")
    p.add_argument("--deb")
    p.add_argument("--inside", action="store_true")
    return p.parse_known_args()


if __name__ == "__main__":
    opts, rest = parse()

    def guarded(common):
        try:
            if opts.inside:
                inside(opts)
            else:
                outside(common, opts)
        except e2e.Skip as why:
            print("SKIP: %s" % why, flush=True)
            sys.exit(e2e.SKIP)
    e2e.main(guarded, rest)
