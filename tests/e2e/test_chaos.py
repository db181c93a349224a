#!/usr/bin/env python3
"""Seeded chaos: random interleavings of port control, peer faults and
broker faults with traffic both ways, and invariants checked after each step.

The primary dpdk-testpmd runs one net_zorv1 port (two queue pairs at most)
with io forwarding in loop topology and the agent's broker
(ZORV1_MQTT_BROKER) on loopback. The good peer is a second testpmd process
whose virtio-user port runs flowgen (it sends and drains), so frames go both
ways whenever it is connected. The seed is printed first; the same seed
replays the same sequence of operations.

Operations, drawn at random each step:
  application: port stop/start; close + detach + attach of a new port on
    the same interface; queue-count change (stop, port config all rxq/txq N,
    start); MTU set; stats and xstats reset; a flow rule created and
    destroyed; a meter (profile, policy, meter) created and deleted;
  peer: clean disconnect; connect with a random queue count (1, 2), packed
    ring on/off and mergeable buffers on/off; SIGKILL of the peer process
    (a new process connects later); a hostile peer (hostile_peer.py) that
    connects next to it, misbehaves and is killed a step or two later;
  broker: killed, frozen (SIGSTOP), resumed, restarted;
  readers: telemetry (stats, xstats, the family's counters) every step, and
    dpdk-proc-info (a secondary process) every --proc-info-every steps
    while traffic flows; for that the primary runs on hugepages, which the
    test sets up (root) and puts back; without them it says why and goes on
    without proc-info.

Invariants after every step:
  - the primary is alive and printed no crash;
  - no command on the primary took longer than --op-bound seconds (2 s); a
    hang fails with a stack dump of all of its threads (gdb);
  - the port's counters never go backwards, except across a reset (stats
    clear, a new port, new queues: the port counts per queue);
  - while the peer is connected and the port forwards, traffic grows both
    ways (so every connected period carries traffic);
and at the end, after quiescing (peer gone, port re-created as at start):
the mbuf pool, the DPDK heap, the open files and the card's sockets are as
they were at the start. The heap is compared by its allocation count and
total, and when only the total differs, allocation by allocation from dumps
of the heap (gdb, rte_malloc_dump_heaps) at the start and at the end: an
element's length includes the padding its alignment needed where it
landed, so the same allocations can add up differently after a reshuffle.
"""
import argparse
import collections
import contextlib
import os
import random
import re
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402
import hostile_peer as hp  # noqa: E402

CRASH = re.compile(r"Segmentation fault|Aborted|PANIC|ERROR: (Address|Leak)Sanitizer|"
                   r"runtime error:|ThreadSanitizer")
# Basic statistics that only a reset (or a new port) may take backwards.
MONO_KEYS = ("ipackets", "opackets", "ibytes", "obytes")


def own_args(argv=None):
    p = argparse.ArgumentParser(epilog="Also: --lib <librte_net_zorv1.so> (required), -v.")
    p.add_argument("--steps", type=int, default=int(os.environ.get("ZORV_CHAOS_STEPS", "1000")))
    p.add_argument("--seed", type=int,
                   default=int(os.environ["ZORV_CHAOS_SEED"]) if os.environ.get("ZORV_CHAOS_SEED")
                   else None, help="default: ZORV_CHAOS_SEED, else from the clock")
    p.add_argument("--op-bound", type=float, default=2.0,
                   help="seconds a command on the primary may take")
    p.add_argument("--traffic-timeout", type=float, default=20.0)
    p.add_argument("--min-pkts", type=int, default=64)
    p.add_argument("--sanitizer", default="",
                   help="name of the sanitizer runtime the primary must have mapped")
    p.add_argument("--proc-info-every", type=int, default=20,
                   help="steps between dpdk-proc-info reads (0: none)")
    p.add_argument("--heap-dump", default="",
                   help="directory: the primary's DPDK heap, element by element, is written "
                        "there (through gdb) at the start and at the end, for a heap that "
                        "does not come back")
    p.add_argument("--ops", default="",
                   help="comma-separated operations to draw from (default: all), for "
                        "narrowing a failure down")
    return p.parse_known_args(argv)


class Hang(e2e.E2EFailure):
    pass


def stack_dump(pid):
    try:
        out = subprocess.run(["gdb", "-batch", "-p", str(pid), "-ex", "thread apply all bt"],
                             capture_output=True, text=True, timeout=60).stdout
    except (OSError, subprocess.TimeoutExpired) as e:
        out = "gdb failed: %s" % e
    return out


class GoodPeer:
    """The virtio-user peer process, with a configurable connection."""

    def __init__(self, sock, run):
        self.sock = sock
        self.run = run
        self.pmd = None
        self.connected = False
        self.cfg = None
        self.gen = 0

    def devargs(self, cfg):
        q, packed, mrg = cfg
        return "net_virtio_user0,path=%s,queues=%d,packed_vq=%d,mrg_rxbuf=%d" % (
            self.sock, q, packed, mrg)

    def ensure_process(self):
        if self.pmd is not None and self.pmd.alive():
            return
        self.close()
        self.gen += 1
        self.pmd = e2e.Testpmd(None, prefix=e2e.unique_prefix("chaospeer"),
                               eal_args=list(cp.PEER_LCORE_ARGS), mem_mb=cp.PEER_MEM_MB,
                               app_args=["--port-topology=loop", "--forward-mode=flowgen"],
                               log_path=os.path.join(self.run, "peer.%d.log" % self.gen))
        self.pmd.start(60)

    def connect(self, cfg):
        """Attach and forward; False when the card refused the connection."""
        self.ensure_process()
        out = self.pmd.cmd("port attach %s" % self.devargs(cfg), timeout=60)
        m = re.search(r"Port (\d+) is attached", out)
        if m is None and "Failed to attach port" in out:
            return False
        e2e.check(m is not None and m.group(1) == "0", "peer attach failed:\n%s" % out)
        for line in ("port stop 0", "port config all rxq %d" % cfg[0],
                     "port config all txq %d" % cfg[0]):
            self.pmd.cmd(line, timeout=60)
        out = self.pmd.cmd("port start 0", timeout=60)
        e2e.check("Fail" not in out, "peer port start failed:\n%s" % out)
        out = self.pmd.cmd("start", timeout=60)
        e2e.check("packet forwarding" in out, "peer forwarding did not start:\n%s" % out)
        self.connected = True
        self.cfg = cfg
        return True

    def disconnect(self):
        self.pmd.cmd("stop", timeout=60)
        self.pmd.cmd("port stop 0", timeout=60)
        self.pmd.cmd("port close 0", timeout=60)
        self.pmd.cmd("device detach net_virtio_user0", timeout=60)
        self.connected = False

    def kill(self):
        if self.pmd is not None and self.pmd.alive():
            try:
                os.killpg(self.pmd.proc.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.close()

    def close(self):
        if self.pmd is not None:
            self.pmd.close()
            self.pmd = None
        self.connected = False


class Broker:
    """The agent's mosquitto, which comes and goes."""

    def __init__(self):
        self.m = e2e.Mosquitto()
        self.state = "down"

    def start(self):
        self.m.start()
        self.state = "up"

    def kill(self):
        if self.m.proc is not None:
            os.kill(self.m.proc.pid, signal.SIGKILL)
            self.m.proc.wait(timeout=10)
            self.m.proc = None
        self.state = "down"

    def freeze(self):
        os.kill(self.m.proc.pid, signal.SIGSTOP)
        self.state = "frozen"

    def thaw(self):
        os.kill(self.m.proc.pid, signal.SIGCONT)
        self.state = "up"

    def stop(self):
        if self.state == "frozen":
            self.thaw()
        self.m.stop()
        self.state = "down"


class Chaos:
    def __init__(self, pmd, args, run, sock, rnd, lib=None):
        self.pmd = pmd
        self.lib = lib
        self.args = args
        self.run = run
        self.sock = sock
        self.rnd = rnd
        self.tel = cp.Telemetry(pmd.prefix)
        self.peer = GoodPeer(sock, run)
        self.hostile = None
        self.hostile_ttl = 0
        self.port = 0
        self.started = True
        self.forwarding = False
        self.queues = 1
        self.flows = []
        self.meter = False
        self.last = None
        self.step = 0
        self.worst = (0.0, "")
        self.counts = {}
        self.broker = None
        self.proc_info = False
        self.proc_info_reads = 0
        self.moved = [0, 0]

    # -- the primary ---------------------------------------------------------
    def port_name(self):
        return "net_zorv1"

    def cmd(self, line, bound=None):
        bound = self.args.op_bound if bound is None else bound
        t0 = time.monotonic()
        try:
            out = self.pmd.cmd(line, timeout=bound)
        except e2e.E2EFailure as e:
            if self.pmd.alive():
                raise Hang("step %d: `%s` blocked longer than %.1f s (%s); threads:\n%s"
                           % (self.step, line, bound, str(e)[:200],
                              stack_dump(self.pmd.proc.pid)))
            raise
        dt = time.monotonic() - t0
        if dt > self.worst[0]:
            self.worst = (dt, line)
        return out

    def fwd(self, on):
        if on and not self.forwarding and self.started:
            out = self.cmd("start")
            e2e.check("packet forwarding" in out, "forwarding did not start:\n%s" % out)
            self.forwarding = True
        elif not on and self.forwarding:
            self.cmd("stop")
            self.forwarding = False

    def expect_ok(self, line, out):
        e2e.check("Fail" not in out and "Invalid" not in out and "Please" not in out,
                  "step %d: `%s`:\n%s" % (self.step, line, out))

    def do(self, line):
        out = self.cmd(line)
        self.expect_ok(line, out)
        return out

    # -- application side ----------------------------------------------------
    def app_stop_start(self):
        self.fwd(False)
        self.do("port stop %d" % self.port)
        self.started = False
        if self.rnd.random() < 0.8:
            self.do("port start %d" % self.port)
            self.started = True

    def ensure_started(self):
        if not self.started:
            self.do("port start %d" % self.port)
            self.started = True

    def app_reattach(self):
        self.fwd(False)
        if self.started:
            self.do("port stop %d" % self.port)
        self.do("port close %d" % self.port)
        self.do("device detach net_zorv1")
        out = self.do("port attach net_zorv1,iface=%s,queues=2" % self.sock)
        m = re.search(r"Port (\d+) is attached", out)
        e2e.check(m is not None, "attach failed:\n%s" % out)
        self.port = int(m.group(1))
        self.flows = []
        self.meter = False
        self.last = None  # a new port: its counters start again
        self.do("port start %d" % self.port)
        self.started = True
        # The old port's close ended the peer's connection; virtio-user does
        # not reconnect by itself (and its testpmd does not survive a detach
        # of a port whose server went away), so a new peer process connects.
        if self.peer.connected:
            cfg = self.peer.cfg
            self.peer.kill()
            self.peer.connect(cfg)

    def app_queues(self):
        self.fwd(False)
        if self.started:
            self.do("port stop %d" % self.port)
        n = self.rnd.choice((1, 2))
        self.do("port config all rxq %d" % n)
        self.do("port config all txq %d" % n)
        self.do("port start %d" % self.port)
        self.queues = n
        self.started = True
        # The port counts per queue, and new queues start from zero.
        self.last = None

    def app_mtu(self):
        mtu = self.rnd.choice((1500, 1400, 9000, 1500))
        self.cmd("port config mtu %d %d" % (self.port, mtu))

    def app_reset(self):
        which = self.rnd.choice(("stats", "xstats"))
        self.cmd("clear port %s %d" % (which, self.port))
        self.last = None

    def app_flow(self):
        if self.flows and self.rnd.random() < 0.6:
            rule = self.flows.pop(self.rnd.randrange(len(self.flows)))
            self.do("flow destroy %d rule %d" % (self.port, rule))
            return
        out = self.cmd("flow create %d ingress pattern eth / ipv4 / udp dst is %d / end "
                       "actions queue index 0 / end" % (self.port, 1000 + self.step % 1000))
        m = re.search(r"Flow rule #(\d+) created", out)
        e2e.check(m is not None, "flow rule refused:\n%s" % out)
        self.flows.append(int(m.group(1)))

    def app_meter(self):
        p = self.port
        if not self.meter:
            for line in ("add port meter profile srtcm_rfc2697 %d 1 1000 640 640 0" % p,
                         "add port meter policy %d 1 g_actions end y_actions end "
                         "r_actions drop / end" % p,
                         "create port meter %d 1 1 1 yes 0xff 0 g 0" % p):
                out = self.cmd(line)
                e2e.check(out.strip() == "", "`%s` refused:\n%s" % (line, out))
            self.meter = True
        else:
            for line in ("del port meter %d 1" % p, "del port meter profile %d 1" % p,
                         "del port meter policy %d 1" % p):
                out = self.cmd(line)
                e2e.check(out.strip() == "", "`%s` refused:\n%s" % (line, out))
            self.meter = False

    # -- peer side -----------------------------------------------------------
    def peer_connect(self):
        if self.peer.connected:
            self.peer.disconnect()
        cfg = (self.rnd.choice((1, 2)), self.rnd.choice((0, 1)), self.rnd.choice((0, 1)))
        refused = self.tel.query("/zorv1/cp_stats")["peers_refused"]
        if self.peer.connect(cfg):
            return
        # One peer per port: a hostile peer holding the socket keeps the good
        # one out, and the card counts the refusal. Once it is gone the good
        # peer connects.
        e2e.check(self.hostile is not None and self.hostile.alive(),
                  "step %d: the peer was refused with no other peer on the socket" % self.step)
        now = self.tel.query("/zorv1/cp_stats")["peers_refused"]
        e2e.check(now > refused, "step %d: a refused peer was not counted (%d -> %d)"
                  % (self.step, refused, now))
        self.hostile.stop()
        self.hostile = None
        e2e.check(self.peer.connect(cfg), "step %d: the peer was refused after the hostile "
                  "peer left" % self.step)

    def peer_disconnect(self):
        if self.peer.connected:
            self.peer.disconnect()
        else:
            self.peer_connect()

    def peer_kill(self):
        if self.peer.pmd is None:
            self.peer_connect()
        else:
            self.peer.kill()

    def hostile_start(self):
        if self.hostile is not None:
            return
        mode = self.rnd.choice(hp.MODES)
        refused = self.tel.query("/zorv1/cp_stats")["peers_refused"]
        self.hostile = hp.Hostile(self.sock, mode, hold=600, count=50,
                                  seed=self.rnd.randrange(1 << 30)).start()
        self.hostile_ttl = self.rnd.randint(1, 3)
        if self.peer.connected:
            # One peer per port: the card refuses the newcomer, counts it,
            # and the connected peer keeps its traffic (checked after the step).
            ok = e2e.wait_until(lambda: self.tel.query("/zorv1/cp_stats")["peers_refused"]
                                > refused, 5, 0.05)
            e2e.check(ok, "step %d: a %s peer next to a connected one was not refused (%s)"
                      % (self.step, mode, self.hostile.ready))

    # -- broker side -----------------------------------------------------------
    def broker_op(self):
        b = self.broker
        if b.state == "down":
            b.start()
        elif b.state == "frozen":
            b.thaw()
        elif self.rnd.random() < 0.5:
            b.freeze()
        else:
            b.kill()

    OPS = (("app_stop_start", 8), ("app_reattach", 4), ("app_queues", 5), ("app_mtu", 4),
           ("app_reset", 4), ("app_flow", 5), ("app_meter", 3), ("peer_connect", 6),
           ("peer_disconnect", 4), ("peer_kill", 2), ("hostile_start", 3), ("broker_op", 3))

    # -- invariants --------------------------------------------------------------
    def port_stats(self):
        s = self.tel.query("/ethdev/stats,%d" % self.port)
        e2e.check(isinstance(s, dict) and "ipackets" in s, "stats reply: %r" % s)
        return s

    def readers(self):
        s = self.port_stats()
        xs = self.tel.query("/ethdev/xstats,%d" % self.port)
        e2e.check(isinstance(xs, dict) and "rx_good_packets" in xs, "xstats reply: %r" % xs)
        c = self.tel.query("/zorv1/cp_stats")
        e2e.check(isinstance(c, dict) and "new_conn" in c, "cp_stats reply: %r" % c)
        if self.last is not None:
            back = {k: (self.last[k], s[k]) for k in MONO_KEYS if s[k] < self.last[k]}
            e2e.check(not back, "step %d: counters went backwards: %r" % (self.step, back))
            self.moved[0] += s["ipackets"] - self.last["ipackets"]
            self.moved[1] += s["opackets"] - self.last["opackets"]
        self.last = s
        if self.proc_info and self.step % self.args.proc_info_every == 0:
            self.read_proc_info()
        return s

    def read_proc_info(self):
        """The port's statistics through a secondary process, while the
        primary forwards."""
        t0 = time.monotonic()
        out = e2e.proc_info(self.lib, self.pmd.prefix, "--stats",
                            portmask=1 << self.port, timeout=30)
        e2e.check("NIC statistics for port %d" % self.port in out,
                  "step %d: dpdk-proc-info shows no port %d:\n%s" % (self.step, self.port, out))
        self.proc_info_reads += 1
        dt = time.monotonic() - t0
        if dt > self.worst[0]:
            self.worst = (dt, "dpdk-proc-info --stats")

    def check_traffic(self):
        if not (self.peer.connected and self.started):
            return
        self.fwd(True)
        base = self.port_stats()

        def grown():
            s = self.port_stats()
            return (s["ipackets"] - base["ipackets"] >= self.args.min_pkts and
                    s["opackets"] - base["opackets"] >= self.args.min_pkts)
        ok = e2e.wait_until(grown, self.args.traffic_timeout, 0.05)
        if not ok:
            s = self.port_stats()
            e2e.fail("step %d: connected (peer %r, %d queue pairs) and forwarding, but RX +%d "
                     "TX +%d in %ss" % (self.step, self.peer.cfg, self.queues,
                                       s["ipackets"] - base["ipackets"],
                                       s["opackets"] - base["opackets"],
                                       self.args.traffic_timeout))

    def after_step(self):
        e2e.check(self.pmd.alive(), "step %d: the primary is gone (rc %s)"
                  % (self.step, self.pmd.proc.poll()))
        e2e.check(not CRASH.search(self.pmd.output), "step %d: the primary reported:\n%s"
                  % (self.step, self.pmd.output[-4000:]))
        if self.hostile is not None:
            self.hostile_ttl -= 1
            if self.hostile_ttl <= 0:
                self.hostile.stop()
                self.hostile = None
        self.check_traffic()
        self.readers()

    def one_step(self):
        ops = [(n, w) for n, w in self.OPS if not self.args.ops or n in self.args.ops.split(",")]
        names = [n for n, _ in ops]
        weights = [w for _, w in ops]
        name = self.rnd.choices(names, weights)[0]
        self.counts[name] = self.counts.get(name, 0) + 1
        if self.args.verbose:
            print("step %d: %s" % (self.step, name), flush=True)
        if name.startswith("app_") and name not in ("app_stop_start", "app_reattach",
                                                    "app_queues"):
            self.ensure_started()
        getattr(self, name)()
        self.after_step()

    def quiesce(self):
        if self.hostile is not None:
            self.hostile.stop()
            self.hostile = None
        if self.peer.pmd is not None:
            if self.peer.connected:
                self.peer.disconnect()
            self.peer.close()
        self.fwd(False)
        if self.queues != 1:
            self.app_queues_to(1)
        self.ensure_started()
        if self.flows:
            self.do("flow flush %d" % self.port)
            self.flows = []
        if self.meter:
            self.app_meter()

    def app_queues_to(self, n):
        self.fwd(False)
        if self.started:
            self.do("port stop %d" % self.port)
        self.do("port config all rxq %d" % n)
        self.do("port config all txq %d" % n)
        self.do("port start %d" % self.port)
        self.queues = n
        self.started = True


def dump_heap(pid, path):
    """Every element of the process's DPDK heaps (rte_malloc_dump_heaps)."""
    subprocess.run(["gdb", "-batch", "-p", str(pid),
                    "-ex", "set $f = (FILE *)fopen(\"%s\", \"w\")" % path,
                    "-ex", "call (void)rte_malloc_dump_heaps($f)",
                    "-ex", "call (int)fclose($f)"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
    e2e.check(os.path.exists(path), "gdb could not dump the heap of %d into %s" % (pid, path))


def heap_sizes(path):
    """The requested size of every allocation in a heap dump. An element's
    length includes the padding its alignment needed where it landed, so the
    same allocations can add up to a different total after the heap was
    reshuffled; the sizes without that padding are what a leak changes."""
    sizes = collections.Counter()
    busy = False
    for line in open(path):
        if line.startswith("Malloc element"):
            busy = "BUSY" in line
        m = re.search(r"len: (0x[0-9a-f]+) pad: (0x[0-9a-f]+)", line)
        if m and busy:
            sizes[int(m.group(1), 16) - int(m.group(2), 16)] += 1
    return sizes


def fds(pid):
    out = []
    d = "/proc/%d/fd" % pid
    for f in os.listdir(d):
        try:
            out.append(re.sub(r"\[\d+\]$", "", os.readlink(os.path.join(d, f))))
        except OSError:
            continue
    return sorted(out)


def footprint(ch):
    """Memory, files and sockets of the quiesced primary."""
    h = ch.tel.query("/eal/heap_info,0")
    e2e.check(isinstance(h, dict), "heap reply: %r" % h)
    return {"pool": cp.mempool_in_use(ch.pmd), "heap": (h["Alloc_size"], h["Alloc_count"]),
            "fds": fds(ch.pmd.proc.pid),
            "sockets": sorted(f for f in os.listdir(ch.run) if f.startswith("vhost"))}


def settled_footprint(ch, timeout=15):
    """The footprint once the card has let the last peer go and two readings
    half a second apart agree."""
    ok = e2e.wait_until(lambda: ch.tel.query("/zorv1/card,%s" % ch.port_name())["vid"] == -1,
                        timeout, 0.1)
    e2e.check(ok, "the card still holds a connection after the peer left")
    prev = footprint(ch)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        time.sleep(0.5)
        now = footprint(ch)
        if now == prev:
            return now
        prev = now
    e2e.fail("the footprint does not settle: %r" % prev)


def scenario(common, args):
    seed = args.seed if args.seed is not None else int(time.time() * 1000) % (1 << 31)
    print("chaos seed %d (replay: --seed %d --steps %d)" % (seed, seed, args.steps), flush=True)
    args.verbose = common.verbose
    rnd = random.Random(seed)
    run = e2e.work_dir("chaos")
    sock = os.path.join(run, "vhost0")
    broker = Broker()
    ch = None
    t0 = time.monotonic()
    stack = contextlib.ExitStack()
    try:
        broker.start()
        env = {"ZORV1_MQTT_BROKER": broker.m.address, "ZORV1_MQTT_TOPIC": "zorv1chaos/%d" % seed}
        pmd = e2e.Testpmd(common.lib, env=env, vdevs=["net_zorv1,iface=%s,queues=2" % sock],
                          app_args=["--port-topology=loop"],
                          log_path=os.path.join(run, "primary.log"))
        huge = None
        if args.proc_info_every > 0:
            try:
                huge = stack.enter_context(e2e.Hugepages(1024))
                huge.prefixes.append(pmd.prefix)
                pmd.argv.remove("--no-huge")
                if args.sanitizer:
                    # dpdk-proc-info maps the primary's memory at the same
                    # addresses; with the sanitizer's runtime in both, the
                    # address EAL picks by default can be taken in the
                    # secondary. An address far from both layouts:
                    pmd.argv.insert(pmd.argv.index("--"), "--base-virtaddr=0x200000000000")
            except e2e.Skip as why:
                print("no dpdk-proc-info reads: %s" % why, flush=True)
        with pmd:
            pmd.start(60)
            if args.sanitizer:
                maps = open("/proc/%d/maps" % pmd.proc.pid).read()
                e2e.check(args.sanitizer in maps, "%s is not loaded in the primary"
                          % args.sanitizer)
            ch = Chaos(pmd, args, run, sock, rnd, lib=common.lib)
            ch.broker = broker
            ch.proc_info = huge is not None
            # Start state: one queue pair, started, no peer; a first
            # connection warms up what the first traffic allocates once.
            ch.app_queues_to(1)
            ch.peer.connect((1, 0, 1))
            ch.check_traffic()
            ch.quiesce()
            base = settled_footprint(ch)
            heap_dir = args.heap_dump or run
            dump_heap(pmd.proc.pid, os.path.join(heap_dir, "heap.start"))
            for ch.step in range(1, args.steps + 1):
                ch.one_step()
                if ch.step % 100 == 0:
                    print("  %d steps, %.0f s, worst command %.3f s (%s)"
                          % (ch.step, time.monotonic() - t0, ch.worst[0], ch.worst[1]),
                          flush=True)
            ch.quiesce()
            if broker.state != "up":
                broker.broker_op = None
                if broker.state == "frozen":
                    broker.thaw()
                else:
                    broker.start()
            end = None

            def same():
                nonlocal end
                end = footprint(ch)
                return end == base
            e2e.wait_until(same, 15, 0.5)
            if args.heap_dump or end["heap"] != base["heap"]:
                dump_heap(pmd.proc.pid, os.path.join(heap_dir, "heap.end"))
            if end["heap"] != base["heap"] and end["heap"][1] == base["heap"][1]:
                # Same number of allocations: compare what was asked for.
                was = heap_sizes(os.path.join(heap_dir, "heap.start"))
                now = heap_sizes(os.path.join(heap_dir, "heap.end"))
                e2e.check(sum(was.values()) == base["heap"][1],
                          "the heap dump at start has %d allocations, heap_info %d"
                          % (sum(was.values()), base["heap"][1]))
                e2e.check(now == was, "after quiescing, the heap allocations differ: "
                          "new %r, gone %r" % (dict(now - was), dict(was - now)))
                print("heap: the same %d allocations of the same sizes; %+d bytes of "
                      "alignment padding from where they landed"
                      % (base["heap"][1], end["heap"][0] - base["heap"][0]), flush=True)
                end["heap"] = base["heap"]
            for k in ("pool", "heap", "fds", "sockets"):
                e2e.check(end[k] == base[k], "after quiescing, %s is %r; at start %r"
                          % (k, end[k], base[k]))
            last = ch.port_stats()
            print("chaos done: seed %d, %d steps in %.0f s, worst command %.3f s (%s), "
                  "ops %r, %d dpdk-proc-info reads, at least %d packets received and %d "
                  "sent by the port, now RX %d TX %d since its last reset"
                  % (seed, args.steps, time.monotonic() - t0, ch.worst[0], ch.worst[1],
                     ch.counts, ch.proc_info_reads, ch.moved[0], ch.moved[1],
                     last["ipackets"], last["opackets"]), flush=True)
            ch.cmd("port stop all")
            ch.cmd("port close all")
            rc = pmd.quit()
            e2e.check(rc == 0, "primary exit code %s; output tail:\n%s"
                      % (rc, pmd.output[-6000:]))
            e2e.check(not CRASH.search(pmd.output), "the primary reported:\n%s"
                      % pmd.output[-4000:])
    except e2e.E2EFailure as e:
        raise e2e.E2EFailure("seed %d: %s" % (seed, e))
    finally:
        if ch is not None:
            if ch.hostile is not None:
                ch.hostile.stop()
            ch.peer.close()
            ch.tel.close()
        broker.stop()
        stack.close()
        e2e.remove_tree(run)


if __name__ == "__main__":
    opts, rest = own_args()
    e2e.main(lambda a: scenario(a, opts), rest)
