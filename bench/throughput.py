#!/usr/bin/env python3
"""Forwarding throughput of net_zorv1 against DPDK's vhost-user port and two
ring ports, measured with dpdk-testpmd (one process per measurement, one
forwarding core, io forwarding).

Every measurement process holds one port pair: net_zorv1 or net_vhost with a
virtio-user peer attached in the same process, or two net_ring ports. Inside
one process the frame sizes are measured one after the other: `set txpkts`,
`start tx_first 8` (testpmd drops what is still queued on the receive side
before it starts), a warm-up, `show port stats all` as the base, the window,
`show port stats all` again, `stop`.

Mpps of a window = the sum over all ports of testpmd's "Rx-pps" of the second
`show port stats all`: packets received by all ports during the window (taken
from the ports' counters at the two reads, timed by testpmd with the TSC),
divided by the window's time, in millions. Each forwarded packet is counted
once, at the port that received it. Mpps per CPU second = the same packets
divided by the CPU time testpmd's forwarding thread ran during the window
(from /proc/<pid>/task/<tid>/schedstat): the rate while it had a CPU, on a
machine whose other processes also take that CPU.

Standard library only. Writes a markdown section (stdout or --md) and the
per-window figures as JSON (--json); --png draws the chart with gnuplot.
"""

import argparse
import json
import os
import re
import select
import shutil
import socket
import statistics
import subprocess
import sys
import threading
import time

RUN_DIR = '/var/run/zorv1-bench'
DRIVERS = ('zorv1', 'vhost', 'ring')
DRIVER_LABEL = {
    'zorv1': 'net_zorv1 + virtio-user',
    'vhost': 'net_vhost + virtio-user',
    'ring': 'net_ring × 2',
    'zorv1-debug': 'net_zorv1 + virtio-user, DEBUG on',
    'zorv1-rules': 'net_zorv1 + virtio-user, 1,000 flow rules matching nothing',
}
FLOW_RULES = 1000
_seq = 0


def _next_name(what):
    global _seq
    _seq += 1
    return f'{what}_{os.getpid()}_{_seq}'


class BenchError(Exception):
    pass


class Testpmd:
    """One dpdk-testpmd in interactive mode, fed through a pipe.

    With `quiet` its output goes to /dev/null (DEBUG logging would flood any
    reader); the harness then asks the process through its telemetry socket.
    Otherwise every output line is kept with the monotonic time it arrived
    (stdout is line buffered through stdbuf, so a line arrives when printed).
    """

    def __init__(self, vdevs, queues=1, lib=None, log_levels=(), quiet=False,
                 extra_app=(), mem_mb=512, mbufs=16384):
        self.prefix = _next_name('zorv1_bench')
        self.quiet = quiet
        self.lines = []           # (monotonic time, text)
        self.partial = ''
        self.cond = threading.Condition()
        self.eof = False
        eal = ['-l', '0-1', '--no-huge', '--no-pci', '-m', str(mem_mb),
               f'--file-prefix={self.prefix}']
        if lib:
            eal += ['-d', lib]
        for v in vdevs:
            eal += ['--vdev', v]
        for lv in log_levels:
            eal.append(f'--log-level={lv}')
        app = ['-i', '--nb-cores=1', f'--rxq={queues}', f'--txq={queues}',
               f'--total-num-mbufs={mbufs}', '--disable-link-check',
               '--forward-mode=io', *extra_app]
        self.argv = ['dpdk-testpmd', *eal, '--', *app]
        argv = self.argv if quiet else ['stdbuf', '-oL', '-eL', *self.argv]
        self.t_spawn = time.monotonic()
        self.proc = subprocess.Popen(
            argv, stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL if quiet else subprocess.PIPE,
            stderr=subprocess.DEVNULL if quiet else subprocess.STDOUT)
        if not quiet:
            self.reader = threading.Thread(target=self._read, daemon=True)
            self.reader.start()

    def _read(self):
        fd = self.proc.stdout.fileno()
        while True:
            try:
                chunk = os.read(fd, 65536)
            except OSError:
                chunk = b''
            now = time.monotonic()
            with self.cond:
                if not chunk:
                    if self.partial:
                        self.lines.append((now, self.partial))
                        self.partial = ''
                    self.eof = True
                    self.cond.notify_all()
                    return
                text = self.partial + chunk.decode('utf-8', 'replace')
                *done, self.partial = text.split('\n')
                for ln in done:
                    self.lines.append((now, ln.rstrip('\r')))
                self.cond.notify_all()

    # --- output ---------------------------------------------------------
    def mark(self):
        with self.cond:
            return len(self.lines)

    def wait_for(self, pattern, start=0, timeout=20.0, count=1, partial=False):
        """Waits until `pattern` matched `count` lines from index `start` on
        (or the unfinished last line, with `partial`: testpmd's prompt has no
        newline). Returns the time and text of the last matching line."""
        rx = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self.cond:
            while True:
                hits = [(t, ln) for t, ln in self.lines[start:] if rx.search(ln)]
                if len(hits) >= count:
                    return hits[count - 1]
                if partial and rx.search(self.partial):
                    return (time.monotonic(), self.partial)
                if self.eof:
                    raise BenchError(f'testpmd exited while waiting for {pattern!r}'
                                     f' (rc={self.proc.poll()}); last lines:\n'
                                     + self.tail())
                left = deadline - time.monotonic()
                if left <= 0:
                    raise BenchError(f'timed out waiting for {pattern!r}; last lines:\n'
                                     + self.tail())
                self.cond.wait(min(left, 0.5))

    def tail(self, n=25):
        with self.cond:
            return '\n'.join(ln for _, ln in self.lines[-n:] if 'VHOST_CONFIG' not in ln)

    def text_since(self, start):
        with self.cond:
            return [ln for _, ln in self.lines[start:]]

    def wait_prompt(self, timeout=30.0):
        return self.wait_for(r'^testpmd> ', 0, timeout, partial=True)

    # --- input ----------------------------------------------------------
    def send(self, command):
        """Sends one command; returns (line index, monotonic time) at sending."""
        idx = self.mark()
        t = time.monotonic()
        try:
            self.proc.stdin.write((command + '\n').encode())
            self.proc.stdin.flush()
        except BrokenPipeError:
            raise BenchError(f'testpmd is gone (sending {command!r})')
        return idx, t

    def command(self, command, until, timeout=20.0, count=1):
        idx, t = self.send(command)
        if self.quiet:
            return idx, t, None
        hit = self.wait_for(until, idx, timeout, count)
        return idx, t, hit

    # --- telemetry (for the quiet mode) -------------------------------------
    def telemetry(self, queries, timeout=20.0):
        path = f'/var/run/dpdk/{self.prefix}/dpdk_telemetry.v2'
        deadline = time.monotonic() + timeout
        while True:
            try:
                s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
                s.connect(path)
                break
            except OSError:
                s.close()
                if self.proc.poll() is not None:
                    raise BenchError(f'testpmd exited (rc={self.proc.returncode})')
                if time.monotonic() > deadline:
                    raise BenchError(f'no telemetry socket at {path}')
                time.sleep(0.05)
        with s:
            s.settimeout(timeout)
            info = json.loads(s.recv(65536).decode())
            size = int(info.get('max_output_len', 16384))
            out = []
            for q in queries:
                s.send(q.encode())
                out.append(json.loads(s.recv(size).decode()))
            return out

    # --- end ------------------------------------------------------------
    def close(self, commands=('stop', 'quit'), timeout=15.0):
        try:
            for c in commands:
                self.send(c)
            self.proc.stdin.close()
        except (BenchError, OSError):
            pass
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        shutil.rmtree(f'/var/run/dpdk/{self.prefix}', ignore_errors=True)
        return self.proc.returncode


def _sock_path(tag):
    os.makedirs(RUN_DIR, exist_ok=True)
    p = os.path.join(RUN_DIR, _next_name(tag))
    if os.path.exists(p):
        os.unlink(p)
    return p


def open_pair(driver, queues, lib, quiet=False, log_levels=()):
    """Starts testpmd with the driver's port pair, link up. Returns
    (testpmd, number of ports, close commands)."""
    sock = None
    if driver == 'zorv1':
        sock = _sock_path('zorv1')
        vdevs = [f'net_zorv1,iface={sock},queues={queues}']
    elif driver == 'vhost':
        sock = _sock_path('vhost')
        vdevs = [f'net_vhost0,iface={sock},queues={queues}']
    elif driver == 'ring':
        vdevs = ['net_ring0', 'net_ring1']
    else:
        raise ValueError(driver)
    tp = Testpmd(vdevs, queues=queues, lib=lib if driver == 'zorv1' else None,
                 quiet=quiet, log_levels=log_levels)
    try:
        if driver == 'ring':
            if not quiet:
                tp.wait_prompt()
            return tp, 2, ('stop', 'quit'), sock
        if quiet:
            # Nothing to read: wait on the socket and the telemetry instead.
            _wait_path(sock, tp, 30)
            tp.send(f'port attach net_virtio_user0,path={sock},queues={queues}')
            tp.send('port start 1')
            _wait_link_up(tp, 0, 30)
        else:
            tp.wait_prompt()
            tp.command(f'port attach net_virtio_user0,path={sock},queues={queues}',
                       r'Port 1 is attached')
            tp.command('port start 1', r'^Done')
            wait_link_up_text(tp, 0, 30)
        # The peer port first: closing the vhost side under a live peer
        # would make virtio-user write to a closed socket (SIGPIPE).
        closing = ('stop', 'port stop 1', 'port close 1', 'port stop 0',
                   'port close 0', 'quit')
        return tp, 2, closing, sock
    except BaseException:
        tp.close()
        raise


def _wait_path(path, tp, timeout):
    deadline = time.monotonic() + timeout
    while not os.path.exists(path):
        if tp.proc.poll() is not None:
            raise BenchError(f'testpmd exited (rc={tp.proc.returncode}) before {path} appeared')
        if time.monotonic() > deadline:
            raise BenchError(f'{path} did not appear')
        time.sleep(0.05)


def wait_link_up_text(tp, port, timeout):
    deadline = time.monotonic() + timeout
    while True:
        idx, _, _ = tp.command(f'show port info {port}', r'Link status:')
        if any(re.search(r'Link status:\s*up', ln) for ln in tp.text_since(idx)):
            return
        if time.monotonic() > deadline:
            raise BenchError(f'port {port} link still down')
        time.sleep(0.05)


def _wait_link_up(tp, port, timeout):
    deadline = time.monotonic() + timeout
    while True:
        st = tp.telemetry([f'/ethdev/link_status,{port}'])[0]
        if str(st.get('/ethdev/link_status', {}).get('status', '')).upper() == 'UP':
            return
        if time.monotonic() > deadline:
            raise BenchError(f'port {port} link still down: {st}')
        time.sleep(0.05)


STAT_RX = re.compile(r'RX-packets:\s*(\d+)\s+RX-missed:\s*(\d+)\s+RX-bytes:\s*(\d+)')
STAT_PPS = re.compile(r'Rx-pps:\s*(\d+)\s+Rx-bps:\s*(\d+)')
STAT_PORT = re.compile(r'NIC statistics for port (\d+)')


def read_stats(tp, nports):
    """`show port stats all`; returns ({port: (rx_pkts, rx_bytes, rx_pps, rx_bps)},
    monotonic time the output completed)."""
    idx, _, _ = tp.command('show port stats all', r'^\s*Tx-pps:', count=nports)
    t, _ = tp.wait_for(r'^\s*#{20,}\s*$', idx, count=nports)
    out = {}
    port = None
    rx = None
    for ln in tp.text_since(idx):
        m = STAT_PORT.search(ln)
        if m:
            port = int(m.group(1))
            continue
        m = STAT_RX.search(ln)
        if m and port is not None:
            rx = (int(m.group(1)), int(m.group(3)))
            continue
        m = STAT_PPS.search(ln)
        if m and port is not None and rx is not None:
            out[port] = (rx[0], rx[1], int(m.group(1)), int(m.group(2)))
            port, rx = None, None
    if len(out) != nports:
        raise BenchError(f'stats of {len(out)} ports parsed, {nports} expected')
    return out, t


def telemetry_stats(tp, nports):
    t0 = time.monotonic()
    res = tp.telemetry([f'/ethdev/stats,{p}' for p in range(nports)])
    t1 = time.monotonic()
    out = {}
    for p, r in enumerate(res):
        st = r['/ethdev/stats']
        out[p] = (int(st['ipackets']), int(st['ibytes']))
    return out, (t0 + t1) / 2


def worker_tid(tp):
    """Thread id of testpmd's forwarding lcore (EAL names it rte-worker-1)."""
    task = f'/proc/{tp.proc.pid}/task'
    for tid in os.listdir(task):
        try:
            with open(f'{task}/{tid}/comm') as f:
                if f.read().strip() == 'rte-worker-1':
                    return tid
        except OSError:
            pass
    raise BenchError('no rte-worker-1 thread in testpmd')


def cpu_ns(tp, tid):
    """CPU time the thread has run so far, ns (user + system)."""
    with open(f'/proc/{tp.proc.pid}/task/{tid}/schedstat') as f:
        return int(f.read().split()[0])


def measure_sizes(tp, nports, sizes, warmup, window):
    """Measures each frame size in turn in the running testpmd."""
    res = {}
    tid = worker_tid(tp)
    for size in sizes:
        # The echo of the command follows the prompt, or starts a line of
        # its own when an event was printed in between.
        tp.command(f'set txpkts {size}', rf'(^|> )set txpkts {size}\s*$')
        if tp.quiet:
            tp.send('start tx_first 8')
            time.sleep(warmup)
            c0, w0 = cpu_ns(tp, tid), time.monotonic()
            s0, t0 = telemetry_stats(tp, nports)
            time.sleep(window)
            c1, w1 = cpu_ns(tp, tid), time.monotonic()
            s1, t1 = telemetry_stats(tp, nports)
            tp.send('stop')
            dp = sum(s1[p][0] - s0[p][0] for p in s0)
            db = sum(s1[p][1] - s0[p][1] for p in s0)
            mpps = dp / (t1 - t0) / 1e6
            wall = mpps
        else:
            tp.command('start tx_first 8', r'packet forwarding - ports=')
            time.sleep(warmup)
            c0, w0 = cpu_ns(tp, tid), time.monotonic()
            s0, t0 = read_stats(tp, nports)
            time.sleep(window)
            c1, w1 = cpu_ns(tp, tid), time.monotonic()
            s1, t1 = read_stats(tp, nports)
            tp.command('stop', r'^Done\.')
            dp = sum(s1[p][0] - s0[p][0] for p in s0)
            db = sum(s1[p][1] - s0[p][1] for p in s0)
            mpps = sum(s1[p][2] for p in s1) / 1e6
            wall = dp / (t1 - t0) / 1e6
        if dp <= 0:
            raise BenchError(f'no packet received in the {size}-byte window')
        # net_ring counts no bytes: its frame length cannot be checked.
        # A port's byte and packet counters may be read a burst apart:
        # allow the packets of one tx_first load per port, no more.
        avg = db / dp if db else None
        if avg is not None and abs(db - dp * size) > 256 * nports * size:
            raise BenchError(f'{size}-byte window received frames of {avg:.1f} bytes on average')
        cpu = (c1 - c0) / 1e9
        res[size] = {'mpps': mpps, 'mpps_wall': wall, 'packets': dp, 'avg_len': avg,
                     'mpps_cpu': dp / cpu / 1e6 if cpu > 0 else None,
                     'core_share': cpu / (w1 - w0)}
    return res


def flow_rule_commands(n):
    """n testpmd `flow create` commands on port 0 of five shapes users install
    (UDP flow from a /24, TCP 5-tuple, VLAN id, UDP source and destination
    port, IPv4 destination and UDP port), with QUEUE, RSS, DROP, COUNT and
    MARK. None matches testpmd's own traffic (198.18.0.1 -> 198.18.0.2, UDP
    port 9, untagged)."""
    cmds = []
    for i in range(n):
        v, shape = divmod(i, 5)
        head = f'flow create 0 priority {i % 3} ingress pattern eth / '
        if shape == 0:
            cmds.append(head + f'ipv4 src spec 198.19.{v % 256}.0 src mask 255.255.255.0 '
                        f'dst is 192.0.2.1 / udp dst is {5000 + v} / end '
                        'actions queue index 0 / end')
        elif shape == 1:
            cmds.append(head + f'ipv4 src is 198.20.0.{v % 250 + 1} dst is 192.0.2.2 / '
                        f'tcp src is {30000 + v} dst is 443 / end actions rss / end')
        elif shape == 2:
            cmds.append(head + f'vlan vid is {100 + v} / end actions drop / end')
        elif shape == 3:
            cmds.append(head + f'ipv4 dst is 192.0.2.3 / udp src is {20000 + v} dst is 53 / '
                        'end actions count / queue index 0 / end')
        else:
            cmds.append(head + f'ipv4 dst is 192.0.2.{4 + v % 200} / udp dst is {6000 + v} / '
                        f'end actions mark id {i} / queue index 0 / end')
    return cmds


def install_flow_rules(tp, n):
    """Creates n rules on port 0 through testpmd's `load`; every one must be
    reported created."""
    os.makedirs(RUN_DIR, exist_ok=True)
    path = os.path.join(RUN_DIR, _next_name('rules') + '.txt')
    with open(path, 'w') as f:
        f.write('\n'.join(flow_rule_commands(n)) + '\n')
    try:
        start = tp.mark()
        tp.send(f'load {path}')
        tp.wait_for(r'Flow rule #\d+ created', start, timeout=120.0, count=n)
        tp.wait_for(r'Read CLI commands from', start, timeout=60.0)
        text = '\n'.join(tp.text_since(start))
        created = len(re.findall(r'Flow rule #\d+ created', text))
        if created != n or re.search(r'(?i)caught error|bad arguments', text):
            raise BenchError(f'{created} of {n} flow rules created')
    finally:
        os.unlink(path)


def run_process(driver, queues, sizes, lib, warmup, window, debug=False, rules=0):
    levels = ('pmd.net.zorv1.*:debug',) if debug else ()
    tp, nports, closing, sock = open_pair(driver, queues, lib, quiet=debug, log_levels=levels)
    try:
        if rules:
            install_flow_rules(tp, rules)
        return measure_sizes(tp, nports, sizes, warmup, window)
    finally:
        rc = tp.close(closing)
        if sock and os.path.exists(sock):
            os.unlink(sock)
        if rc not in (0, None):
            print(f'throughput: testpmd ({driver}, {queues} q) exited with {rc}', file=sys.stderr)


# ---------------------------------------------------------------------------
def rotate(seq, n):
    n %= len(seq)
    return list(seq[n:]) + list(seq[:n])


def run_matrix(args):
    results = []   # dicts: round, driver, queues, size, mpps, ...
    failures = []
    t_start = time.monotonic()
    for r in range(args.rounds):
        for q in args.queues:
            for drv in rotate(DRIVERS, r + q):
                sizes = rotate(args.sizes, r)
                t0 = time.monotonic()
                try:
                    res = run_process(drv, q, sizes, args.lib, args.warmup, args.window)
                except BenchError as e:
                    failures.append(f'round {r + 1}, {drv}, {q} q: {e}')
                    print(f'throughput: FAILED round {r + 1} {drv} {q}q: {e}', file=sys.stderr)
                    continue
                for size, m in res.items():
                    results.append(dict(round=r + 1, driver=drv, queues=q, size=size, **m))
                print(f'throughput: round {r + 1}/{args.rounds} {drv:5s} {q}q '
                      + ' '.join(f'{s}B={res[s]["mpps"]:.2f}' for s in args.sizes)
                      + f' Mpps ({time.monotonic() - t0:.1f} s)', file=sys.stderr)
        if args.rules:
            # Once per round after the matrix; compared with the round's plain
            # net_zorv1 64-byte, 1-queue window.
            try:
                res = run_process('zorv1', 1, [64], args.lib, args.warmup, args.window,
                                  rules=FLOW_RULES)
                m = res[64]
                results.append(dict(round=r + 1, driver='zorv1-rules', queues=1, size=64, **m))
                print(f'throughput: round {r + 1}/{args.rounds} zorv1 + {FLOW_RULES} rules 1q '
                      f'64B={m["mpps"]:.2f} Mpps', file=sys.stderr)
            except BenchError as e:
                failures.append(f'round {r + 1}, zorv1 with rules: {e}')
                print(f'throughput: FAILED round {r + 1} zorv1 with rules: {e}', file=sys.stderr)
        if args.debug_window > 0:
            try:
                res = run_process('zorv1', 1, [64], args.lib, args.debug_warmup,
                                  args.debug_window, debug=True)
                m = res[64]
                results.append(dict(round=r + 1, driver='zorv1-debug', queues=1, size=64, **m))
                print(f'throughput: round {r + 1}/{args.rounds} zorv1 DEBUG 1q 64B='
                      f'{m["mpps"]:.3f} Mpps', file=sys.stderr)
            except BenchError as e:
                failures.append(f'round {r + 1}, zorv1 DEBUG: {e}')
                print(f'throughput: FAILED round {r + 1} zorv1 DEBUG: {e}', file=sys.stderr)
    return results, failures, time.monotonic() - t_start


def summarise(results, args, key='mpps'):
    def vals(drv, q, size):
        return {x['round']: x[key] for x in results
                if x['driver'] == drv and x['queues'] == q and x['size'] == size
                and x.get(key) is not None}

    rows = []
    for size in args.sizes:
        for q in args.queues:
            row = {'size': size, 'queues': q}
            per = {d: vals(d, q, size) for d in DRIVERS}
            for d in DRIVERS:
                v = list(per[d].values())
                row[d] = (statistics.median(v), min(v), max(v), len(v)) if v else None
            for other in ('vhost', 'ring'):
                a, b = row['zorv1'], row[other]
                row[f'r_{other}'] = a[0] / b[0] if a and b else None
                pr = [per['zorv1'][k] / per[other][k] for k in per['zorv1'] if k in per[other]]
                row[f'rr_{other}'] = (statistics.median(pr), min(pr), max(pr), len(pr)) if pr else None
            rows.append(row)
    dbg = [x['mpps'] for x in results if x['driver'] == 'zorv1-debug']
    return rows, dbg


def fmt(v, nd=2):
    if v is None:
        return 'n/a'
    med, lo, hi, n = v
    return f'{med:.{nd}f} [{lo:.{nd}f}–{hi:.{nd}f}]'


def fmt_ratio(x):
    return 'n/a' if x is None else f'{x:.3f}'


def matrix_table(rows, unit):
    L = [f'| frame B | queues | net_zorv1 {unit} | net_vhost {unit} | net_ring {unit} | '
         'zorv1/vhost (medians) | zorv1/vhost per round | zorv1/ring (medians) | zorv1/ring per round |',
         '|---:|---:|---:|---:|---:|---:|---:|---:|---:|']
    for row in rows:
        rr = 'n/a' if row['r_ring'] is None else f'{row["r_ring"]:.4f}'
        L.append(f'| {row["size"]} | {row["queues"]} | {fmt(row["zorv1"])} | {fmt(row["vhost"])} | '
                 f'{fmt(row["ring"], 1)} | {fmt_ratio(row["r_vhost"])} | {fmt(row["rr_vhost"], 3)} | '
                 f'{rr} | {fmt(row["rr_ring"], 4)} |')
    return L


def markdown(results, failures, elapsed, args):
    rows, dbg = summarise(results, args)
    L = []
    L.append('## Forwarding throughput')
    L.append('')
    L.append(f'- {args.rounds} rounds; in every round each (queues, driver) pair runs in its own '
             'testpmd process, the three drivers alternating (order rotated per round), '
             'the frame sizes measured in turn inside the process (order rotated per round)')
    L.append(f'- per frame size: `set txpkts <len>`, `start tx_first 8`, {args.warmup:g} s warm-up, '
             f'{args.window:g} s window between two `show port stats all`, `stop`')
    L.append('- Mpps = packets received by all ports of the process during the window / window '
             'time, in millions: the sum of testpmd\'s per-port "Rx-pps" of the second '
             '`show port stats all` (TSC-timed by testpmd). Each forwarded packet counts once, '
             'at the port that received it')
    L.append('- checked per window: packets were received, and RX-bytes = RX-packets × the frame '
             'size asked for, within one `tx_first 8` load (256 packets) per port (net_ring counts '
             'no bytes: not checked there)')
    L.append('- figures: median [min–max] Mpps over the rounds; ratio of medians; '
             '"per round" = median [min–max] of the ratios taken round by round')
    L.append(f'- measuring time: {elapsed:.0f} s')
    L.append('')
    first = rows[0] if rows else None
    if first and first['size'] == 64 and first['queues'] == 1:
        L.append('### 64-byte frames, 1 queue pair')
        L.append('')
        cfirst = summarise(results, args, 'mpps_cpu')[0][0]
        L.append('| port pair | Mpps median | min | max | Mpps per CPU s median | min | max | rounds |')
        L.append('|---|---:|---:|---:|---:|---:|---:|---:|')
        for d in DRIVERS:
            v, c = first[d], cfirst[d]
            if v:
                nd = 1 if d == 'ring' else 2
                cc = f'{c[0]:.{nd}f} | {c[1]:.{nd}f} | {c[2]:.{nd}f}' if c else 'n/a | n/a | n/a'
                L.append(f'| {DRIVER_LABEL[d]} | {v[0]:.{nd}f} | {v[1]:.{nd}f} | {v[2]:.{nd}f} | {cc} | {v[3]} |')
        dcpu = [x['mpps_cpu'] for x in results
                if x['driver'] == 'zorv1-debug' and x.get('mpps_cpu') is not None]
        if dbg:
            cc = (f'{statistics.median(dcpu):.3f} | {min(dcpu):.3f} | {max(dcpu):.3f}'
                  if dcpu else 'n/a | n/a | n/a')
            L.append(f'| {DRIVER_LABEL["zorv1-debug"]} ({args.debug_window:g} s window) | '
                     f'{statistics.median(dbg):.3f} | {min(dbg):.3f} | {max(dbg):.3f} | {cc} | {len(dbg)} |')
        rules = {x['round']: x for x in results if x['driver'] == 'zorv1-rules'}
        if rules:
            rv = [x['mpps'] for x in rules.values()]
            rc = [x['mpps_cpu'] for x in rules.values() if x.get('mpps_cpu') is not None]
            cc = (f'{statistics.median(rc):.2f} | {min(rc):.2f} | {max(rc):.2f}'
                  if rc else 'n/a | n/a | n/a')
            L.append(f'| {DRIVER_LABEL["zorv1-rules"]} | {statistics.median(rv):.2f} | '
                     f'{min(rv):.2f} | {max(rv):.2f} | {cc} | {len(rv)} |')
        L.append('')
        L.append(f'- zorv1 / vhost: ratio of medians {fmt_ratio(first["r_vhost"])}, '
                 f'per round {fmt(first["rr_vhost"], 3)}')
        if rules:
            plain = {x['round']: x['mpps'] for x in results if x['driver'] == 'zorv1'
                     and x['queues'] == 1 and x['size'] == 64}
            pr = [rules[k]['mpps'] / plain[k] for k in rules if k in plain]
            if pr:
                L.append(f'- zorv1 with {FLOW_RULES:,} non-matching flow rules / zorv1 without: '
                         f'per round {statistics.median(pr):.3f} [{min(pr):.3f}–{max(pr):.3f}] '
                         f'({len(pr)} rounds; the rules are created through testpmd\'s `load`, '
                         'every one must be reported created: UDP from a /24 -> QUEUE, TCP '
                         '5-tuple -> RSS, VLAN id -> DROP, UDP ports -> COUNT + QUEUE, IPv4 '
                         'destination + UDP port -> MARK + QUEUE, priorities 0-2)')
        L.append(f'- zorv1 / ring: ratio of medians {fmt_ratio(first["r_ring"])}, '
                 f'per round {fmt(first["rr_ring"], 4)}')
        L.append(f'- per CPU second of the forwarding core (defined below): zorv1 / vhost ratio of '
                 f'medians {fmt_ratio(cfirst["r_vhost"])}, per round {fmt(cfirst["rr_vhost"], 3)}; '
                 f'zorv1 / ring per round {fmt(cfirst["rr_ring"], 4)}')
        L.append('')
    L.append('### All frame sizes and queue counts (one forwarding core)')
    L.append('')
    L += matrix_table(rows, 'Mpps')
    L.append('')
    crows, _ = summarise(results, args, 'mpps_cpu')
    L.append('### The same, per second of CPU time of the forwarding core')
    L.append('')
    L.append('- Mpps per CPU second = packets received by all ports in the window / CPU time the '
             'forwarding thread (testpmd\'s `rte-worker-1`) ran during the window '
             '(`/proc/<pid>/task/<tid>/schedstat`, user + system, ns). On this shared machine '
             'other processes take the forwarding core for part of the window; this figure '
             'leaves that time out (not the cache disturbance it causes)')
    shares = {}
    for x in results:
        if x.get('core_share') is not None:
            shares.setdefault(x['driver'], []).append(x['core_share'])
    if shares:
        L.append('- share of the window the forwarding thread was on a CPU, median [min–max] over '
                 'all windows: ' + '; '.join(
                     f'{d} {statistics.median(v):.2f} [{min(v):.2f}–{max(v):.2f}]'
                     for d, v in shares.items()))
    L.append('')
    L += matrix_table(crows, 'Mpps/CPU-s')
    L.append('')
    L.append('### DEBUG logging of net_zorv1 (separate row)')
    L.append('')
    if dbg:
        off = rows[0]['zorv1'] if rows and rows[0]['size'] == 64 and rows[0]['queues'] == 1 else None
        L.append(f'- `--log-level=pmd.net.zorv1.*:debug`, 64-byte frames, 1 queue pair, testpmd output to '
                 f'/dev/null (the bursts log every packet); {args.debug_warmup:g} s warm-up, '
                 f'{args.debug_window:g} s window; counters read through the telemetry socket '
                 '(`/ethdev/stats`), timed by the harness\'s clock')
        L.append(f'- DEBUG on: {statistics.median(dbg):.3f} [{min(dbg):.3f}–{max(dbg):.3f}] Mpps over '
                 f'{len(dbg)} rounds' + (f'; DEBUG off (above): {off[0]:.2f} Mpps, ratio on/off '
                                         f'{statistics.median(dbg) / off[0]:.4f}' if off else ''))
    else:
        L.append('- not run')
    L.append('')
    if failures:
        L.append('### Failed measurements')
        L.append('')
        for f in failures:
            L.append('- ' + f.split('\n')[0])
        L.append('')
    L.append('### Per-round figures (Mpps)')
    L.append('')
    L.append('<details><summary>every window</summary>')
    L.append('')
    L.append('| round | port pair | queues | frame B | Mpps (testpmd Rx-pps) | Mpps (harness clock) | '
             'Mpps per CPU s | forwarding core share | packets in window |')
    L.append('|---:|---|---:|---:|---:|---:|---:|---:|---:|')
    for x in sorted(results, key=lambda x: (x['round'], x['queues'], x['size'], x['driver'])):
        cpu = 'n/a' if x.get('mpps_cpu') is None else f'{x["mpps_cpu"]:.3f}'
        L.append(f'| {x["round"]} | {x["driver"]} | {x["queues"]} | {x["size"]} | {x["mpps"]:.3f} | '
                 f'{x["mpps_wall"]:.3f} | {cpu} | {x.get("core_share", 0):.2f} | {x["packets"]} |')
    L.append('')
    L.append('</details>')
    L.append('')
    return '\n'.join(L)


def chart(results, args, path):
    """Two panels with gnuplot: Mpps per configuration and driver (log scale,
    min–max bars), and the zorv1/vhost ratio per round (median, min–max)."""
    gp = shutil.which('gnuplot')
    if not gp:
        print('throughput: gnuplot not found (Debian package gnuplot-nox); no chart', file=sys.stderr)
        return False
    rows, dbg = summarise(results, args)
    tmp = path + '.dat'
    with open(tmp, 'w') as f:
        f.write('# label zorv1 lo hi vhost lo hi ring lo hi ratio lo hi cpu-ratio lo hi\n')
        crows = summarise(results, args, 'mpps_cpu')[0]
        for row, crow in zip(rows, crows):
            label = f'{row["size"]}B/{row["queues"]}q'
            cells = []
            for d in DRIVERS:
                v = row[d]
                cells += [f'{v[0]:.4f} {v[1]:.4f} {v[2]:.4f}' if v else 'NaN NaN NaN']
            for rr in (row['rr_vhost'], crow['rr_vhost']):
                cells.append(f'{rr[0]:.4f} {rr[1]:.4f} {rr[2]:.4f}' if rr else 'NaN NaN NaN')
            f.write(f'"{label}" ' + ' '.join(cells) + '\n')
    tops = [row['rr_vhost'][2] for row in rows if row['rr_vhost']]
    tops += [row['rr_vhost'][2] for row in summarise(results, args, 'mpps_cpu')[0] if row['rr_vhost']]
    ytop = max([1.2] + [t * 1.1 for t in tops])
    title = f'dpdk-testpmd io forwarding, 1 forwarding core, median of {args.rounds} rounds (bars: min-max)'
    script = f'''
set terminal pngcairo noenhanced size 1400,900 font "DejaVu Sans,10"
set output "{path}"
set multiplot layout 2,1 title "{title}"
set style data histograms
set style histogram errorbars gap 2 lw 1
set style fill solid 0.8 border -1
set logscale y
set yrange [0.1:20000]
set ylabel "Mpps (log scale)"
set key top center horizontal
set grid ytics
set xtics rotate by -30
plot "{tmp}" using 2:3:4:xtic(1) title "net_zorv1 + virtio-user" lc rgb "#d62728", \\
     "" using 5:6:7 title "net_vhost + virtio-user" lc rgb "#1f77b4", \\
     "" using 8:9:10 title "net_ring x 2" lc rgb "#7f7f7f"
unset logscale y
set yrange [0:{ytop:.2f}]
set ylabel "net_zorv1 / net_vhost (median of per-round ratios)"
set key top left
plot "{tmp}" using 11:12:13:xtic(1) title "Mpps" lc rgb "#2ca02c", \\
     "" using 14:15:16 title "Mpps per CPU second of the forwarding core" lc rgb "#9467bd", \\
     "" using ($0-0.18):11:(sprintf("%.2f", $11)) with labels offset 0,0.7 notitle, \\
     "" using ($0+0.18):14:(sprintf("%.2f", $14)) with labels offset 0,0.7 notitle, \\
     1 with lines lc rgb "black" dt 2 notitle
unset multiplot
'''
    r = subprocess.run([gp], input=script.encode(), capture_output=True)
    os.unlink(tmp)
    if r.returncode != 0:
        print('throughput: gnuplot failed:\n' + r.stderr.decode(), file=sys.stderr)
        return False
    return True


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--lib', required=True, help='librte_net_zorv1.so')
    ap.add_argument('--rounds', type=int, default=5)
    ap.add_argument('--warmup', type=float, default=0.5)
    ap.add_argument('--window', type=float, default=2.0)
    ap.add_argument('--sizes', default='64,512,1518')
    ap.add_argument('--queues', default='1,2,4')
    ap.add_argument('--rules', type=int, default=1, choices=(0, 1),
                    help=f'1: add the row with {FLOW_RULES} non-matching flow rules')
    ap.add_argument('--debug-warmup', type=float, default=0.5)
    ap.add_argument('--debug-window', type=float, default=1.0,
                    help='window of the DEBUG-on row; 0 skips it')
    ap.add_argument('--md', help='write the markdown section here (default stdout)')
    ap.add_argument('--json', help='write every window here')
    ap.add_argument('--png', help='draw the chart here')
    args = ap.parse_args()
    args.sizes = [int(x) for x in args.sizes.split(',')]
    args.queues = [int(x) for x in args.queues.split(',')]
    args.lib = os.path.abspath(args.lib)

    results, failures, elapsed = run_matrix(args)
    text = markdown(results, failures, elapsed, args)
    if args.md:
        with open(args.md, 'w') as f:
            f.write(text + '\n')
    else:
        print(text)
    if args.json:
        with open(args.json, 'w') as f:
            json.dump({'results': results, 'failures': failures}, f, indent=1)
    if args.png and results:
        chart(results, args, args.png)
    return 1 if failures or not results else 0


if __name__ == '__main__':
    sys.exit(main())
