#!/usr/bin/env python3
"""Control-plane timings of net_zorv1 next to DPDK's vhost-user port, from
dpdk-testpmd's output lines, each stamped with the monotonic time it arrived
(testpmd's stdout is line buffered through stdbuf), and from the driver's own
DEBUG timing lines (`--log-level=pmd.net.zorv1.cfg:debug`):

- start-up with N ports and no peers (queues=1): spawn -> EAL initialised
  ("Interactive-mode selected"), first "Configuring Port" -> prompt (testpmd
  configures and starts every port), spawn -> prompt; the driver's
  "zorv1 dev port probe=" and "vhost_setup=" figures per port;
- a virtio-user peer in the same process: `port attach` -> "Port 1 is
  attached", `port attach` -> first "Port 0: link state change event" (the
  link comes up when the peer's device is ready, during the attach or the
  following `port start 1`), the link then checked up with `show port info 0`;
- after 0.5 s of forwarding and `stop`: `port stop 0` with the peer still
  connected -> "Done" (wall time of the command) and the driver's
  "rx_queues_wait=" / "tx_queues_wait=" lines printed by it; `port start 0`
  -> link state change; `port close 1` (the peer goes away) -> link state
  change on port 0.

Standard library only; shares the testpmd driver of throughput.py.
"""

import argparse
import os
import re
import statistics
import sys
import time

sys.dont_write_bytecode = True   # no __pycache__ left in the tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from throughput import BenchError, Testpmd, _sock_path, wait_link_up_text  # noqa: E402

PROBE = re.compile(r'zorv1 dev port probe=\s*(\d+)\s*\(us\)')
SETUP = re.compile(r'vhost_setup=\s*(\d+)\s*\(us\)')
RXW = re.compile(r'rx_queues_wait=\s*(\d+)\s*\(us\)')
TXW = re.compile(r'tx_queues_wait=\s*(\d+)\s*\(us\)')
LSC0 = r'Port 0: link state change event'


def ms(a, b):
    return (b - a) * 1e3


def startup(driver, n, lib):
    socks = [_sock_path(driver) for _ in range(n)]
    if driver == 'zorv1':
        vdevs = [f'net_zorv1{i},iface={s},queues=1' for i, s in enumerate(socks)]
        tp = Testpmd(vdevs, lib=lib, log_levels=('pmd.net.zorv1.cfg:debug',))
    else:
        vdevs = [f'net_vhost{i},iface={s},queues=1' for i, s in enumerate(socks)]
        tp = Testpmd(vdevs)
    try:
        t_prompt, _ = tp.wait_prompt(timeout=60)
        t_eal, _ = tp.wait_for(r'Interactive-mode selected')
        t_cfg, _ = tp.wait_for(r'^Configuring Port 0 ')
        lines = tp.text_since(0)
        nports = sum(1 for ln in lines if re.match(r'^Port \d+: [0-9A-F]{2}(:[0-9A-F]{2}){5}', ln))
        if nports != n:
            raise BenchError(f'{nports} ports started, {n} expected')
        probe = [int(m.group(1)) for ln in lines for m in [PROBE.search(ln)] if m]
        setup = [int(m.group(1)) for ln in lines for m in [SETUP.search(ln)] if m]
        if driver == 'zorv1' and (len(probe) != n or len(setup) != n):
            raise BenchError(f'{len(probe)} probe and {len(setup)} vhost_setup lines for {n} ports')
        return {
            'spawn_prompt': ms(tp.t_spawn, t_prompt),
            'spawn_eal': ms(tp.t_spawn, t_eal),
            'cfg_prompt': ms(t_cfg, t_prompt),
            'eal_cfg': ms(t_eal, t_cfg),
            'probe_sum': sum(probe) if probe else None,
            'probe_max': max(probe) if probe else None,
            'setup_sum': sum(setup) if setup else None,
            'setup_max': max(setup) if setup else None,
        }
    finally:
        tp.close(('quit',))
        for s in socks:
            if os.path.exists(s):
                os.unlink(s)


def peer_cycle(driver, queues, lib):
    sock = _sock_path(driver)
    if driver == 'zorv1':
        tp = Testpmd([f'net_zorv1,iface={sock},queues={queues}'], queues=queues, lib=lib,
                     log_levels=('pmd.net.zorv1.cfg:debug',))
    else:
        tp = Testpmd([f'net_vhost0,iface={sock},queues={queues}'], queues=queues)
    closing = ('stop', 'port stop 1', 'port close 1', 'port stop 0', 'port close 0', 'quit')
    try:
        tp.wait_prompt()
        r = {}
        ia, ta, (t_att, _) = tp.command(
            f'port attach net_virtio_user0,path={sock},queues={queues}', r'Port 1 is attached')
        tp.command('port start 1', r'^Done')
        t_up, _ = tp.wait_for(LSC0, ia)
        wait_link_up_text(tp, 0, 20)
        r['attach'] = ms(ta, t_att)
        r['attach_lsc'] = ms(ta, t_up)

        tp.command('start tx_first 8', r'packet forwarding - ports=')
        time.sleep(0.5)
        tp.command('stop', r'^Done\.')

        i0, t0, (t_done, _) = tp.command('port stop 0', r'^Done')
        r['stop_wall'] = ms(t0, t_done)
        out = tp.text_since(i0)
        rxw = [int(m.group(1)) for ln in out for m in [RXW.search(ln)] if m]
        txw = [int(m.group(1)) for ln in out for m in [TXW.search(ln)] if m]
        if driver == 'zorv1':
            if not rxw or not txw:
                raise BenchError('no rx_queues_wait / tx_queues_wait line after port stop 0')
            r['rx_wait'] = rxw[-1]
            r['tx_wait'] = txw[-1]

        i1, t1, (t_sd, _) = tp.command('port start 0', r'^Done')
        r['start_wall'] = ms(t1, t_sd)
        try:
            # net_vhost raises no event here: its link never went down.
            t_lsc, _ = tp.wait_for(LSC0, i1, timeout=1.5)
            r['start_lsc'] = ms(t1, t_lsc)
        except BenchError:
            r['start_lsc'] = None
        wait_link_up_text(tp, 0, 20)

        tp.command('port stop 1', r'^Done')
        i2, t2, _ = tp.command('port close 1', r'Port 1 is closed')
        t_down, _ = tp.wait_for(LSC0, i2)
        r['peer_close_lsc'] = ms(t2, t_down)
        closing = ('port stop 0', 'port close 0', 'quit')
        return r
    finally:
        tp.close(closing)
        if os.path.exists(sock):
            os.unlink(sock)


def agg(vals, nd=1):
    vals = [v for v in vals if v is not None]
    if not vals:
        return 'n/a'
    return f'{statistics.median(vals):.{nd}f} [{min(vals):.{nd}f}–{max(vals):.{nd}f}]'


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--lib', required=True)
    ap.add_argument('--reps', type=int, default=3)
    ap.add_argument('--ports', default='1,8,32')
    ap.add_argument('--peer-queues', default='1,4')
    ap.add_argument('--md', help='write the markdown section here (default stdout)')
    args = ap.parse_args()
    lib = os.path.abspath(args.lib)
    ports = [int(x) for x in args.ports.split(',')]
    pqs = [int(x) for x in args.peer_queues.split(',')]
    failures = []
    t_begin = time.monotonic()

    st = {}
    for rep in range(args.reps):
        for n in ports:
            for drv in (('zorv1', 'vhost') if rep % 2 == 0 else ('vhost', 'zorv1')):
                try:
                    st.setdefault((drv, n), []).append(startup(drv, n, lib))
                    print(f'ctrlplane: start-up {drv} {n} ports: '
                          f'{st[(drv, n)][-1]["spawn_prompt"]:.0f} ms', file=sys.stderr)
                except BenchError as e:
                    failures.append(f'start-up {drv} {n} ports, rep {rep + 1}: {e}')
                    print(f'ctrlplane: FAILED start-up {drv} {n}: {e}', file=sys.stderr)
    pc = {}
    for rep in range(args.reps):
        for q in pqs:
            for drv in (('zorv1', 'vhost') if rep % 2 == 0 else ('vhost', 'zorv1')):
                try:
                    pc.setdefault((drv, q), []).append(peer_cycle(drv, q, lib))
                    print(f'ctrlplane: peer {drv} {q} q: {pc[(drv, q)][-1]}', file=sys.stderr)
                except BenchError as e:
                    failures.append(f'peer cycle {drv} {q} q, rep {rep + 1}: {e}')
                    print(f'ctrlplane: FAILED peer {drv} {q}q: {e}', file=sys.stderr)
    elapsed = time.monotonic() - t_begin

    L = ['## Control plane', '']
    L.append(f'- {args.reps} repetitions of each case, zorv1 and vhost alternating; '
             'figures: median [min–max]; ms from the arrival times of testpmd\'s output lines '
             '(includes the pipe and the reader, about a millisecond), us from the driver\'s '
             'own DEBUG lines (`--log-level=pmd.net.zorv1.cfg:debug`, TSC-timed)')
    L.append('- testpmd as in the throughput runs (`-l 0-1 --no-huge --no-pci -m 512`, '
             '`--total-num-mbufs=16384 --disable-link-check`, one forwarding core)')
    L.append(f'- measuring time: {elapsed:.0f} s')
    L.append('')
    L.append('### Probe, configure and start N ports (queues=1, no peer)')
    L.append('')
    L.append('| port | N | spawn → EAL initialised (incl. probe), ms | EAL initialised → first "Configuring Port" (mbuf pool), ms | configure+start of all ports, ms | '
             'spawn → prompt, ms | driver probe, us (sum over ports) | probe, us (slowest port) | '
             'vhost_setup, us (sum) | vhost_setup, us (slowest) |')
    L.append('|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|')
    for n in ports:
        for drv in ('zorv1', 'vhost'):
            rs = st.get((drv, n), [])
            if not rs:
                L.append(f'| net_{drv} | {n} | failed | | | | | | | |')
                continue
            g = lambda k, nd=1: agg([x[k] for x in rs], nd)  # noqa: E731
            if drv == 'zorv1':
                extra = f'{g("probe_sum", 0)} | {g("probe_max", 0)} | {g("setup_sum", 0)} | {g("setup_max", 0)}'
            else:
                extra = '– | – | – | –'
            L.append(f'| net_{drv} | {n} | {g("spawn_eal")} | {g("eal_cfg")} | {g("cfg_prompt")} | {g("spawn_prompt")} | {extra} |')
    L.append('')
    L.append('- "configure+start of all ports" = first "Configuring Port 0" line → prompt: '
             'testpmd configures, sets up the queues of and starts every port in turn')
    L.append('')
    L.append('### Peer connect → link up; stop → drained; peer gone → link down')
    L.append('')
    L.append('| port | queues | attach → "Port 1 is attached", ms | attach → link up (LSC), ms | '
             '`port stop 0` wall, ms | rx_queues_wait, us | tx_queues_wait, us | '
             '`port start 0` wall, ms | `port start 0` → LSC, ms | `port close 1` → LSC (down), ms |')
    L.append('|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|')
    for q in pqs:
        for drv in ('zorv1', 'vhost'):
            rs = pc.get((drv, q), [])
            if not rs:
                L.append(f'| net_{drv} | {q} | failed | | | | | | | |')
                continue
            g = lambda k, nd=1: agg([x.get(k) for x in rs], nd)  # noqa: E731
            rw = g('rx_wait', 0) if drv == 'zorv1' else '–'
            tw = g('tx_wait', 0) if drv == 'zorv1' else '–'
            lsc = g('start_lsc') if any(x.get('start_lsc') is not None for x in rs) else 'no event'
            L.append(f'| net_{drv} | {q} | {g("attach")} | {g("attach_lsc")} | {g("stop_wall")} | '
                     f'{rw} | {tw} | {g("start_wall")} | {lsc} | {g("peer_close_lsc")} |')
    L.append('')
    L.append('- the peer is `net_virtio_user0,path=<socket>,queues=<n>` attached in the same '
             'process, then `port start 1`; "attach → link up" ends at the first '
             '"Port 0: link state change event" after the attach command (the link is then '
             'checked up with `show port info 0`)')
    L.append('- `port stop 0` runs after 0.5 s of forwarding and `stop`, with the peer still '
             'connected; rx/tx_queues_wait are the driver\'s figures printed during that stop')
    L.append('')
    if failures:
        L.append('### Failed control-plane measurements')
        L.append('')
        for f in failures:
            L.append('- ' + f.split('\n')[0])
        L.append('')
    text = '\n'.join(L)
    if args.md:
        with open(args.md, 'w') as f:
            f.write(text + '\n')
    else:
        print(text)
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
