"""Helpers of the churn and fault scenarios (Python 3 standard library only).

They build on zorv_e2e: the primary is a zorv_e2e.Testpmd with the driver,
and the traffic peer is a second dpdk-testpmd in its own process (its own
--file-prefix) with a virtio-user port on the net_zorv1 port's socket.

CPU placement on a 2-CPU machine: the primary runs `-l 0-1` (main lcore on
CPU 0, forwarding lcore on CPU 1) and the peer runs `-l 0-1 --main-lcore=1`
(forwarding lcore on CPU 0), so the two busy-polling forwarding cores never
share a CPU; the main lcores only read commands.

API
---
class Telemetry(prefix)      -> a kept-open connection to the process's
                                telemetry socket (much cheaper than running
                                dpdk-telemetry.py for each sample).
    .query(cmd)              -> the value under the command's key, or None
                                for a refused command; reconnects once if
                                the connection dropped. .close().
mempool_in_use(pmd, pool="mb_pool_0") -> mbufs of the pool out of it now
                                (size - pooled - per-lcore caches), read from
                                testpmd's `dump_mempool <pool>`.
port_stats(pmd, port)        -> the counters of `show port stats <port>`.
class Monotonic(what)        -> .update(snapshot, where): fails when a value
                                of the dict snapshot is below the previous
                                snapshot's (counters never go backwards).
wait_traffic(pmd, port, base, min_pkts, timeout) -> the stats once RX and TX
                                packets both grew by min_pkts over `base`;
                                fails after `timeout` seconds.
class Peer(sock, prefix_tag="peer", log_path=None, mode="flowgen")
    the virtio-user peer process: its port 0 is always the virtio-user port.
    .start()                 -> launches testpmd with the port on `sock`
                                (it connects at start-up) and starts
                                forwarding.
    .detach()                -> stops forwarding, stops and detaches the port:
                                the socket connection is closed.
    .attach()                -> attaches a new virtio-user port on the socket,
                                starts it and forwarding.
    .restart_port()          -> port stop + port start on the same socket
                                connection (the virtqueues go and come back).
    .kill()                  -> SIGKILL of the peer's process group (no
                                goodbye on the socket), then clean-up.
    .close()                 -> stops the process if still running.
    .alive()
"""

import json
import os
import re
import signal
import socket
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

PEER_LCORE_ARGS = ("--main-lcore=1",)
PEER_MEM_MB = 256


class Telemetry:
    """A kept-open client of DPDK's telemetry socket (protocol v2)."""

    def __init__(self, prefix):
        self.path = os.path.join(e2e.DPDK_RUN_DIR, prefix, "dpdk_telemetry.v2")
        self.sock = None
        self.max_len = 16384

    def _connect(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        s.settimeout(10)
        try:
            s.connect(self.path)
            info = json.loads(s.recv(4096).decode())
        except (OSError, ValueError) as e:
            s.close()
            e2e.fail("telemetry socket %s: %s" % (self.path, e))
        self.max_len = int(info.get("max_output_len", self.max_len))
        self.sock = s

    def _ask(self, cmd):
        if self.sock is None:
            self._connect()
        self.sock.send(cmd.encode())
        data = self.sock.recv(self.max_len + 1024)
        if not data:
            raise ConnectionResetError("telemetry socket closed")
        return json.loads(data.decode())

    def query(self, cmd):
        try:
            reply = self._ask(cmd)
        except (OSError, ValueError):
            self.close()
            reply = self._ask(cmd)
        key = cmd.split(",", 1)[0]
        if reply is None or not isinstance(reply, dict):
            return None
        value = reply.get(key)
        return value

    def close(self):
        if self.sock is not None:
            try:
                self.sock.close()
            except OSError:
                pass
            self.sock = None


def mempool_in_use(pmd, pool="mb_pool_0"):
    out = pmd.cmd("dump_mempool %s" % pool)
    size = re.search(r"^\s*size=(\d+)", out, re.M)
    cached = re.search(r"^\s*total_cache_count=(\d+)", out, re.M)
    common = re.search(r"^\s*common_pool_count=(\d+)", out, re.M)
    e2e.check(size and common, "no counts in `dump_mempool %s`:\n%s" % (pool, out))
    return int(size.group(1)) - int(common.group(1)) - (int(cached.group(1)) if cached else 0)


def port_stats(pmd, port):
    stats = e2e.parse_port_stats(pmd.cmd("show port stats %d" % port)).get(port)
    e2e.check(stats and "RX-packets" in stats and "TX-packets" in stats,
              "no statistics for port %d" % port)
    return stats


class Monotonic:
    """Counters that must never go backwards between snapshots."""

    def __init__(self, what):
        self.what = what
        self.last = None
        self.last_where = None
        self.samples = 0

    def update(self, snapshot, where):
        e2e.check(isinstance(snapshot, dict) and snapshot,
                  "%s: empty snapshot at %s: %r" % (self.what, where, snapshot))
        if self.last is not None:
            back = {k: (self.last[k], v) for k, v in snapshot.items()
                    if k in self.last and isinstance(v, int) and v < self.last[k]}
            e2e.check(not back, "%s went backwards between %s and %s: %r"
                      % (self.what, self.last_where, where, back))
            gone = sorted(set(self.last) - set(snapshot))
            e2e.check(not gone, "%s lost counters at %s: %r" % (self.what, where, gone))
        self.last = dict(snapshot)
        self.last_where = where
        self.samples += 1


def wait_traffic(pmd, port, base, min_pkts, timeout):
    """Waits until both RX and TX packets of `port` grew by min_pkts."""
    seen = [base]

    def grown():
        s = port_stats(pmd, port)
        seen[0] = s
        return (s["RX-packets"] - base["RX-packets"] >= min_pkts and
                s["TX-packets"] - base["TX-packets"] >= min_pkts) and s
    got = e2e.wait_until(grown, timeout, 0.05)
    if not got:
        s = seen[0]
        e2e.fail("port %d moved only RX +%d / TX +%d packets within %ss (want +%d each)"
                 % (port, s["RX-packets"] - base["RX-packets"],
                    s["TX-packets"] - base["TX-packets"], timeout, min_pkts))
    return got


class Peer:
    """dpdk-testpmd with a virtio-user port, in a process of its own."""

    def __init__(self, sock, prefix_tag="peer", log_path=None, mode="flowgen"):
        self.sock = sock
        self.tag = prefix_tag
        self.log_path = log_path
        self.mode = mode
        self.pmd = None
        self.generation = 0
        self.connected = False

    def _devargs(self):
        return "net_virtio_user0,path=%s,queues=1" % self.sock

    def start(self, timeout=60):
        self.generation += 1
        log = None
        if self.log_path:
            log = "%s.%d" % (self.log_path, self.generation)
        # flowgen sends continuously and drains what it receives, so traffic
        # flows both ways through the net_zorv1 port without re-seeding.
        self.pmd = e2e.Testpmd(None, prefix=e2e.unique_prefix(self.tag),
                               eal_args=list(PEER_LCORE_ARGS) + ["--vdev", self._devargs()],
                               mem_mb=PEER_MEM_MB, log_path=log,
                               app_args=["--port-topology=loop", "--forward-mode=" + self.mode])
        boot = self.pmd.start(timeout)
        e2e.check(re.search(r"Port 0: [0-9A-Fa-f:]{17}", boot) is not None,
                  "peer port did not start:\n%s" % boot[-3000:])
        out = self.pmd.cmd("start")
        e2e.check("packet forwarding" in out, "peer forwarding did not start:\n%s" % out)
        self.connected = True
        return self

    def detach(self):
        self.pmd.cmd("stop")
        self.pmd.cmd("port stop 0")
        out = self.pmd.cmd("port detach 0")
        e2e.check("Device is detached" in out, "peer port not detached:\n%s" % out)
        self.connected = False

    def attach(self):
        out = self.pmd.cmd("port attach %s" % self._devargs(), timeout=30)
        m = re.search(r"Port (\d+) is attached", out)
        e2e.check(m is not None and m.group(1) == "0", "peer attach failed:\n%s" % out)
        out = self.pmd.cmd("port start 0", timeout=30)
        e2e.check("Fail" not in out, "peer port start failed:\n%s" % out)
        out = self.pmd.cmd("start")
        e2e.check("packet forwarding" in out, "peer forwarding did not start:\n%s" % out)
        self.connected = True

    def restart_port(self):
        self.pmd.cmd("stop")
        self.pmd.cmd("port stop 0")
        out = self.pmd.cmd("port start 0", timeout=30)
        e2e.check("Fail" not in out, "peer port restart failed:\n%s" % out)
        out = self.pmd.cmd("start")
        e2e.check("packet forwarding" in out, "peer forwarding did not start:\n%s" % out)

    def kill(self):
        if self.pmd is not None and self.pmd.alive():
            try:
                os.killpg(self.pmd.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            try:
                self.pmd.proc.wait(timeout=10)
            except Exception:  # noqa: BLE001 - close() below kills harder
                pass
        self.close()

    def alive(self):
        return self.pmd is not None and self.pmd.alive()

    def close(self):
        if self.pmd is not None:
            self.pmd.close()
            self.pmd = None
        self.connected = False
