"""Network namespaces as test hosts (Python 3 standard library only).

The kernel of a namespace is a traffic peer of the ports under test: a TAP
interface of DPDK's net_tap is moved into it and given an address, and small
programs run inside it.

run(argv, timeout=30, check=True) -> (rc, stdout, stderr); fails the scenario
                                on a timeout, or on a non-zero exit with check.
in_ns(ns, *argv)             -> argv that runs inside namespace ns.
link_exists(name, ns=None)   -> True when the interface exists (in ns).
NsProc(ns, code, *args)      -> python3 -c code args... inside ns, in its own
                                process group: .readline(timeout),
                                .finish(timeout) -> (rc, out, err), .stop().
TCP_SERVER (addr, port)      -> accepts one connection, prints "listening"
                                first, then "got <bytes> <sha256>" (also sent
                                back to the client) when the peer closes.
TCP_CLIENT (addr, port, n)   -> sends n random bytes, prints
                                "sent <n> <sha256> <seconds>" and the reply.
Namespace(name)              -> .create() makes it anew, with lo up and IPv6
                                off, and returns it; .take_tap(ifc, addr) moves a TAP interface in
                                and gives it addr (with its prefix length);
                                .remove() deletes it (and what is in it).
"""

import os
import select
import signal
import subprocess
import time

import zorv_e2e as e2e

TCP_SERVER = r"""
import hashlib, socket, sys
addr, port = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind((addr, port))
s.listen(1)
s.settimeout(60)
print("listening", flush=True)
c, _ = s.accept()
c.settimeout(60)
h = hashlib.sha256()
n = 0
while True:
    b = c.recv(1 << 16)
    if not b:
        break
    h.update(b)
    n += len(b)
reply = "got %d %s" % (n, h.hexdigest())
c.sendall((reply + "\n").encode())
c.close()
print(reply, flush=True)
"""

TCP_CLIENT = r"""
import hashlib, os, socket, sys, time
addr, port, n = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
data = os.urandom(n)
t0 = time.monotonic()
c = socket.create_connection((addr, port), timeout=60)
c.sendall(data)
c.shutdown(socket.SHUT_WR)
reply = b""
while True:
    b = c.recv(4096)
    if not b:
        break
    reply += b
c.close()
print("sent %d %s %.2f" % (n, hashlib.sha256(data).hexdigest(), time.monotonic() - t0))
print("reply " + reply.decode().strip(), flush=True)
"""


def run(argv, timeout=30, check=True):
    try:
        r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           timeout=timeout)
    except subprocess.TimeoutExpired:
        e2e.fail("%s timed out after %ss" % (" ".join(argv), timeout))
    out = r.stdout.decode("utf-8", "replace")
    err = r.stderr.decode("utf-8", "replace")
    if check and r.returncode != 0:
        e2e.fail("%s exited with %d: %s%s" % (" ".join(argv), r.returncode, out, err))
    return r.returncode, out, err


def in_ns(ns, *argv):
    return ["ip", "netns", "exec", ns] + list(argv)


class NsProc:
    """A program running inside a namespace; killed with its group on stop()."""

    def __init__(self, ns, code, *args):
        self.proc = subprocess.Popen(in_ns(ns, "python3", "-c", code, *[str(a) for a in args]),
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, start_new_session=True)

    def readline(self, timeout):
        """One line of the program's output, read unbuffered so finish() gets the rest."""
        fd = self.proc.stdout.fileno()
        line = b""
        deadline = time.monotonic() + timeout
        while not line.endswith(b"\n"):
            left = deadline - time.monotonic()
            ready, _, _ = select.select([fd], [], [], max(left, 0))
            if not ready:
                self.stop()
                e2e.fail("no output within %ss from a program in a namespace" % timeout)
            b = os.read(fd, 1)
            if not b:
                break
            line += b
        return line.decode("utf-8", "replace").strip()

    def finish(self, timeout):
        try:
            out, err = self.proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.stop()
            e2e.fail("a program in a namespace did not finish within %ss" % timeout)
        return self.proc.returncode, out.decode("utf-8", "replace"), err.decode("utf-8", "replace")

    def stop(self):
        if self.proc.poll() is None:
            try:
                os.killpg(self.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            self.proc.wait(timeout=5)


def link_exists(name, ns=None):
    argv = ["ip"] + (["-n", ns] if ns else []) + ["link", "show", "dev", name]
    return subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


class Namespace:
    """A network namespace of the test's own; remove() deletes it."""

    def __init__(self, name):
        self.name = name

    def create(self):
        """Makes the namespace anew (an old one of that name is deleted)."""
        name = self.name
        self.remove()
        run(["ip", "netns", "add", name])
        run(in_ns(name, "ip", "link", "set", "lo", "up"))
        # IPv6 off: only the test's own IPv4 traffic crosses the path.
        for conf in ("all", "default"):
            run(in_ns(name, "sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/%s/disable_ipv6" % conf))
        return self

    def take_tap(self, ifc, addr, timeout=10):
        """Moves a TAP interface that net_tap created in the root namespace here."""
        if not e2e.wait_until(lambda: link_exists(ifc), timeout):
            e2e.fail("net_tap did not create %s" % ifc)
        run(["ip", "link", "set", ifc, "netns", self.name])
        run(["ip", "-n", self.name, "addr", "add", addr, "dev", ifc])
        run(["ip", "-n", self.name, "link", "set", ifc, "up"])

    def remove(self):
        if os.path.exists(os.path.join("/var/run/netns", self.name)):
            subprocess.run(["ip", "netns", "del", self.name], stderr=subprocess.DEVNULL)
