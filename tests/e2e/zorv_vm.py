"""A Linux virtual machine as the peer of a net_zorv1 port (stdlib only).

The guest is QEMU under TCG (no KVM is needed) with the cloud kernel of
Debian's linux-image-cloud-amd64 and the initramfs that
scripts/vm/build-initramfs.sh builds from busybox-static and the kernel's
virtio modules (build/vm/). Its NIC is a virtio-net-pci device on a
vhost-user socket: the port's interface. Guest memory is a shared memfd, as
a vhost-user backend needs. The guest's shell is on its serial console,
which is QEMU's stdin/stdout here.

The host side of every scenario is one dpdk-testpmd: port 0 is net_zorv1 on
the guest's socket, port 1 is net_tap whose kernel end sits in the network
namespace NS with HOST_ADDR; io forwarding joins them, so the guest at
GUEST_ADDR and the namespace talk through the port.

vm_files(build_dir)          -> (kernel, initramfs) or None when not built.
skip_reason(build_dir)       -> why a VM scenario cannot run here, or None.
class Guest(sock, work, kernel, initramfs, queues=1, smp=1, mem_mb=512,
            reconnect=0, hotplug_mb=0)
    .boot(timeout)           -> seconds from start to the guest's shell.
    .sh(command, timeout=60) -> (rc, output) of one shell command line.
    .wait_booted(since, timeout) -> seconds until the next boot completes
                                (after a reboot), counted from now.
    .qmp(command, **arguments) -> the "return" of a QMP command.
    .kill()                  -> SIGKILL to QEMU, waits for it.
    .close()                 -> stops QEMU if alive.
class Host(lib, work, queues=1, reconnect_sock=None)
    .pmd (e2e.Testpmd), .ns (zorv_netns.Namespace), .sock (the socket path)
    .start(), .fwd_start(), .fwd_stop(), .close()
    .link_up(timeout), .link_down(timeout), .port_info() (telemetry)
    .in_use() mbufs out of the pool; .stats(port); .queue_stats(port)
"""

import json
import os
import re
import socket
import subprocess
import time

import zorv_e2e as e2e
import churn_peer as cp
from zorv_netns import Namespace, in_ns, link_exists, run

SKIP = 77
NS = "zvm"
TAP = "ztvm0"
HOST_ADDR = "10.77.0.1"
GUEST_ADDR = "10.77.0.2"
GUEST_MAC = "52:54:00:5a:00:02"
QEMU = "qemu-system-x86_64"
BOOT_LINE = r"zorv-guest: up, \S+, eth0 (\S+)"


def vm_files(build_dir):
    kernel = os.path.join(build_dir, "vm", "vmlinuz")
    initramfs = os.path.join(build_dir, "vm", "initramfs.cpio.gz")
    if os.path.exists(kernel) and os.path.exists(initramfs):
        return kernel, initramfs
    return None


def skip_reason(build_dir):
    if os.geteuid() != 0:
        return "needs root for network namespaces and TAP interfaces"
    if not os.path.exists("/dev/net/tun"):
        return "/dev/net/tun is missing"
    for tool in (QEMU, "ip", "ping", "dpdk-testpmd"):
        if subprocess.run(["sh", "-c", "command -v " + tool], stdout=subprocess.DEVNULL).returncode:
            return "%s is not installed (scripts/setup.sh installs it)" % tool
    if vm_files(build_dir) is None:
        return "the guest is not built: scripts/vm/build-initramfs.sh %s/vm" % build_dir
    return None


class Guest(e2e.Console):
    """QEMU with the test guest; its serial console is the shell (see module doc)."""

    name = "qemu"

    def __init__(self, sock, work, kernel, initramfs, queues=1, smp=1, mem_mb=512,
                 reconnect=0, hotplug_mb=0):
        self.qmp_path = os.path.join(work, "qmp-%d.sock" % id(self))
        mem = "%dM" % mem_mb
        if hotplug_mb:
            mem += ",slots=2,maxmem=%dM" % (mem_mb + hotplug_mb)
        chardev = "socket,id=chr0,path=%s" % sock
        if reconnect:
            chardev += ",reconnect=%d" % reconnect
        argv = [QEMU, "-accel", "tcg", "-machine", "pc", "-smp", str(smp), "-m", mem,
                "-object", "memory-backend-memfd,id=mem0,size=%dM,share=on" % mem_mb,
                "-numa", "node,memdev=mem0",
                "-kernel", kernel, "-initrd", initramfs,
                "-append", "console=ttyS0 quiet loglevel=1 panic=-1 zorv_ip=%s/24" % GUEST_ADDR,
                "-chardev", chardev,
                "-netdev", "vhost-user,id=net0,chardev=chr0,queues=%d" % queues,
                # MSI-X under TCG crashes QEMU 7.2 with a vhost-user backend:
                # the guest uses INTx (vectors=0).
                "-device", "virtio-net-pci,netdev=net0,mac=%s,mq=%s,vectors=0" % (
                    GUEST_MAC, "on" if queues > 1 else "off"),
                "-nodefaults", "-no-user-config", "-display", "none", "-serial", "stdio",
                "-qmp", "unix:%s,server=on,wait=off" % self.qmp_path]
        e2e.Console.__init__(self, argv, log_path=os.path.join(work, "guest.log"))
        self._serial = 0
        self.mac = None

    def boot(self, timeout=180):
        t0 = time.monotonic()
        self.spawn()
        return self._booted(0, t0, timeout)

    def _booted(self, since, t0, timeout):
        m = self.wait_for(BOOT_LINE, timeout, since)
        self.mac = m.group(1)
        e2e.check(self.mac != "missing", "the guest found no network interface:\n%s"
                  % self.output[-3000:])
        # The shell answers: the console is ready for commands.
        self.sh("true", timeout=60)
        return time.monotonic() - t0

    def wait_booted(self, since, timeout=180):
        return self._booted(since, time.monotonic(), timeout)

    def sh(self, command, timeout=60):
        """Runs one command line in the guest's shell; (exit code, output)."""
        self._serial += 1
        tag = "@@zr%d" % self._serial
        start = self.pos
        self.send("%s; echo %s=$?" % (command, tag))
        # Not anchored: the tag may follow a line without its newline.
        m = self.wait_for(r"(?<![=\w])%s=(\d+)\b" % tag, timeout, start)
        out = self.output[start:m.start()].replace("\r", "")
        return int(m.group(1)), out

    def sh_ok(self, command, timeout=60):
        rc, out = self.sh(command, timeout)
        e2e.check(rc == 0, "guest: `%s` failed (rc=%d):\n%s" % (command, rc, out))
        return out

    def qmp(self, command, **arguments):
        """One QMP command on a fresh connection; its "return" value."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(30)
            s.connect(self.qmp_path)
            f = s.makefile("rw")
            json.loads(f.readline())  # greeting
            for req in ({"execute": "qmp_capabilities"},
                        {"execute": command, "arguments": arguments}):
                f.write(json.dumps(req) + "\n")
                f.flush()
                while True:
                    reply = json.loads(f.readline())
                    if "return" in reply or "error" in reply:
                        break  # events come in between
                e2e.check("error" not in reply, "QMP %s: %s" % (req["execute"], reply))
            return reply["return"]

    def kill(self):
        if self.alive():
            os.killpg(self.proc.pid, 9)
            self.proc.wait(timeout=10)
        self.stop_process()

    def close(self):
        self.stop_process()
        try:
            os.unlink(self.qmp_path)
        except OSError:
            pass


class Host:
    """dpdk-testpmd with net_zorv1 (port 0) and a TAP port into namespace NS (port 1)."""

    def __init__(self, lib, work, queues=1, prefix=None):
        self.work = work
        self.queues = queues
        self.sock = os.path.join(work, "vm0")
        self.lib = lib
        self.prefix = prefix or e2e.unique_prefix("vm")
        self.pmd = None
        self.ns = Namespace(NS)
        self.pool_base = None

    def start(self, timeout=60):
        """Starts testpmd (again, with the same --file-prefix and socket)."""
        if not os.path.exists(os.path.join("/var/run/netns", NS)):
            self.ns.create()
        elif link_exists(TAP, NS):
            # The TAP interface goes with the testpmd that made it.
            e2e.wait_until(lambda: not link_exists(TAP, NS), 10)
        q = self.queues
        self.pmd = e2e.Testpmd(
            self.lib,
            vdevs=["net_zorv1,iface=%s,queues=%d" % (self.sock, q),
                   "net_tap0,iface=%s" % TAP],
            app_args=["--rxq=%d" % q, "--txq=%d" % q, "--forward-mode=io",
                      "--total-num-mbufs=32768"],
            prefix=self.prefix,
            log_path=os.path.join(self.work, "testpmd.log"))
        self.pmd.start(timeout)
        self.ns.take_tap(TAP, HOST_ADDR + "/24")
        e2e.wait_until(lambda: os.path.exists(self.sock), 10)
        e2e.check(os.path.exists(self.sock), "net_zorv1 did not create %s" % self.sock)
        return self

    def link(self, port=0):
        out = self.pmd.cmd("show port info %d" % port)
        m = re.search(r"Link status:\s+(\w+)", out)
        e2e.check(m is not None, "no link status in `show port info %d`:\n%s" % (port, out))
        return m.group(1)

    def wait_link(self, state, timeout=60):
        ok = e2e.wait_until(lambda: self.link() == state, timeout, 0.2)
        e2e.check(ok, "port 0 link did not go %s within %ss" % (state, timeout))

    def port_info(self):
        info = e2e.telemetry_one(self.prefix, "/zorv1/port_info,net_zorv1")
        e2e.check(isinstance(info, dict), "no /zorv1/port_info for net_zorv1: %r" % (info,))
        return info

    def fwd_start(self):
        self.pmd.cmd("start")

    def fwd_stop(self):
        self.pmd.cmd("stop")

    def in_use(self):
        return cp.mempool_in_use(self.pmd)

    def stats(self, port):
        return cp.port_stats(self.pmd, port)

    def queue_xstats(self, port):
        """Per-queue packet counters of a port from its xstats: {name: value}."""
        xs = e2e.parse_xstats(self.pmd.cmd("show port xstats %d" % port))
        return {n: v for n, v in xs if re.match(r"[rt]x_q\d+_packets$", n)}

    def close(self):
        if self.pmd is not None:
            self.pmd.close()
            self.pmd = None

    def remove(self):
        self.close()
        self.ns.remove()


def ping(src_argv, dst, count=5, timeout=60):
    """count echo requests; the round-trip times in ms (all must come back)."""
    rc, out, err = run(src_argv + ["ping", "-c", str(count), "-i", "0.2", "-W", "5", dst],
                       timeout=timeout, check=False)
    m = re.search(r"(\d+) packets transmitted, (\d+) (?:packets )?received", out)
    e2e.check(rc == 0 and m is not None and m.group(2) == str(count),
              "ping %s: rc=%d\n%s%s" % (dst, rc, out, err))
    return [float(x) for x in re.findall(r"time=([\d.]+) ms", out)]


def ns_argv():
    return in_ns(NS)
