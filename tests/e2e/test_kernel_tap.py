#!/usr/bin/env python3
"""The Linux kernel as the traffic peer of a net_zorv1 port.

Two network namespaces, each holding one TAP interface of DPDK's net_tap
driver, talk to each other only through dpdk-testpmd:

    zns1: ztapA  <->  net_tap  ->  net_zorv1 -> emulated card -> net_virtio_user
                                                                  ->  net_tap  <->  ztapB :zns2

Part 1, one testpmd with the four ports in this order: 0 net_tap (ztapA),
1 net_zorv1, 2 net_virtio_user, 3 net_tap (ztapB); the paired topology
forwards 0<->1 and 2<->3.
  a. io forwarding: ping, and a TCP transfer whose sha256 must match.
  b. csum forwarding with IPv4/TCP/UDP checksum offload requested on the
     ports that transmit into the card (net_zorv1 takes them; virtio-user
     has no transmit checksum offload since the card does not offer CSUM
     to its peer, so it stays in software): ping and TCP again.
  In b the csum engine recomputes the checksums in software again when it
  hands the frames to the TAP ports, so the kernel never sees the card's
  checksums there. Part 2 therefore checks them directly.

Part 2, two testpmd processes: A holds ztapA's TAP port and net_zorv1 (csum
engine, checksum offload on net_zorv1), B holds virtio-user and ztapB's TAP
port (io engine, frames untouched). What zns2's kernel receives is exactly
what the card delivered.
  c. A TCP transfer zns1 -> zns2: every data segment's checksums are filled
     by the card.
  d. Frames sent from zns1 with deliberately wrong checksums (IPv4 header,
     UDP, TCP) arrive intact in zns2: the kernel counts no checksum error
     and delivers the datagrams / answers the segments.
  e. Control: the same frames with A in io forwarding (no offload request)
     are dropped by zns2's kernel as bad checksums; this shows that d can
     fail.
"""

import os
import re
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
from zorv_netns import (TCP_CLIENT, TCP_SERVER, Namespace, NsProc, in_ns,  # noqa: E402
                        link_exists, run)

SKIP = 77
NS1, NS2 = "zns1", "zns2"
TAP1, TAP2 = "ztapA", "ztapB"
ADDR1, ADDR2 = "10.99.0.1", "10.99.0.2"
TRANSFER_BYTES = 12 * 1024 * 1024
CRAFTED_PER_KIND = 20
# A frame carries at most MTU 1500 bytes of IP, so the bulk direction needs
# at least this many packets through the ports.
MIN_DATA_PACKETS = TRANSFER_BYTES // 1500

# -- programs run inside the namespaces ---------------------------------------

# Counts the UDP datagrams that reach two ports until told to stop (stdin EOF).
UDP_COUNTER = r"""
import select, socket, sys
addr, ports = sys.argv[1], [int(p) for p in sys.argv[2:]]
socks = []
for p in ports:
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind((addr, p))
    socks.append(s)
counts = {p: 0 for p in ports}
print("ready", flush=True)
while True:
    r, _, _ = select.select(socks + [sys.stdin], [], [], 30)
    if not r or sys.stdin in r:
        break
    for s in r:
        s.recv(65536)
        counts[s.getsockname()[1]] += 1
print(" ".join("%d=%d" % (p, counts[p]) for p in ports), flush=True)
"""

# Writes Ethernet frames with wrong checksums straight onto ztapA:
#   ip  : UDP to port_ip, correct UDP checksum, wrong IPv4 header checksum
#   udp : UDP to port_udp, correct IPv4 header checksum, wrong UDP checksum
#   tcp : TCP SYN to a closed port, correct IPv4 checksum, wrong TCP checksum
CRAFT_SENDER = r"""
import socket, struct, sys, time
ifc, src_mac, dst_mac, src_ip, dst_ip = sys.argv[1:6]
port_ip, port_udp, port_tcp, count = (int(x) for x in sys.argv[6:10])

def csum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xffff) + (s >> 16)
    return ~s & 0xffff

def mac(m):
    return bytes(int(x, 16) for x in m.split(":"))

sip, dip = socket.inet_aton(src_ip), socket.inet_aton(dst_ip)

def ipv4(proto, payload, ident, bad):
    hdr = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), ident, 0x4000, 64,
                      proto, 0, sip, dip)
    ck = csum(hdr)
    if bad:
        ck ^= 0x5a5a
    return hdr[:10] + struct.pack("!H", ck) + hdr[12:] + payload

def l4(proto, hdr_wo_ck, ck_off, payload, bad):
    seg = hdr_wo_ck + payload
    pseudo = sip + dip + struct.pack("!BBH", 0, proto, len(seg))
    ck = csum(pseudo + seg)
    if bad:
        ck ^= 0x5a5a
    if ck == 0:
        ck = 0xffff
    return seg[:ck_off] + struct.pack("!H", ck) + seg[ck_off + 2:]

def udp(sport, dport, payload, bad):
    hdr = struct.pack("!HHHH", sport, dport, 8 + len(payload), 0)
    return l4(17, hdr, 6, payload, bad)

def tcp_syn(sport, dport, seq, bad):
    hdr = struct.pack("!HHIIBBHHH", sport, dport, seq, 0, 5 << 4, 0x02, 64240, 0, 0)
    return l4(6, hdr, 16, b"", bad)

eth = mac(dst_mac) + mac(src_mac) + b"\x08\x00"
s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
s.bind((ifc, 0))
payload = b"zorv1 checksum probe " * 10
for i in range(count):
    s.send(eth + ipv4(17, udp(40000 + i, port_ip, payload, False), 1000 + i, True))
    s.send(eth + ipv4(17, udp(41000 + i, port_udp, payload, True), 2000 + i, False))
    s.send(eth + ipv4(6, tcp_syn(42000 + i, port_tcp, 7777 + i, True), 3000 + i, False))
    time.sleep(0.01)
print("sent %d" % count, flush=True)
"""


def cmd(pmd, line, timeout=20):
    """Runs a testpmd command; its output up to the next prompt."""
    return pmd.cmd(line, timeout)


def log(msg):
    print("[kernel_tap] " + msg, flush=True)


_procs = []


def ns_proc(ns, code, *args):
    p = NsProc(ns, code, *args)
    _procs.append(p)
    return p


def remove_network():
    for p in _procs:
        p.stop()
    del _procs[:]
    for ns in (NS1, NS2):
        if os.path.exists(os.path.join("/var/run/netns", ns)):
            subprocess.run(["ip", "netns", "del", ns], stderr=subprocess.DEVNULL)
    for ifc in (TAP1, TAP2):
        if link_exists(ifc):
            subprocess.run(["ip", "link", "del", ifc], stderr=subprocess.DEVNULL)


def make_namespaces():
    for ns in (NS1, NS2):
        Namespace(ns).create()


def move_tap(ifc, ns, addr):
    """Puts a TAP interface that net_tap created in the root namespace into ns."""
    Namespace(ns).take_tap(ifc, addr + "/24")


def mac_of(ifc, ns):
    _, out, _ = run(["ip", "-n", ns, "-o", "link", "show", "dev", ifc])
    m = re.search(r"link/ether ([0-9a-f:]{17})", out)
    e2e.check(m is not None, "no MAC address for %s in %s: %s" % (ifc, ns, out))
    return m.group(1)


def ping():
    rc, out, err = run(in_ns(NS1, "ping", "-c", "3", "-i", "0.3", "-W", "2", ADDR2),
                       timeout=30, check=False)
    m = re.search(r"(\d+) packets transmitted, (\d+) received", out)
    e2e.check(rc == 0 and m is not None and m.group(2) == "3",
              "ping %s from %s: rc=%d\n%s%s" % (ADDR2, NS1, rc, out, err))
    log("ping %s -> %s: 3/3 replies" % (NS1, NS2))


def tcp_transfer(label):
    """Sends TRANSFER_BYTES of random data zns1 -> zns2 and compares the sha256."""
    port = 5201
    server = ns_proc(NS2, TCP_SERVER, ADDR2, port)
    line = server.readline(20)
    e2e.check(line == "listening", "TCP server in %s did not start: %r %s" % (
        NS2, line, server.proc.stderr.read().decode() if server.proc.poll() is not None else ""))
    client = ns_proc(NS1, TCP_CLIENT, ADDR2, port, TRANSFER_BYTES)
    crc, cout, cerr = client.finish(120)
    if crc != 0:
        server.stop()
        e2e.fail("%s: TCP client %s -> %s failed (rc=%d): %s%s" % (
            label, NS1, NS2, crc, cout, cerr))
    src, sout, serr = server.finish(30)
    e2e.check(src == 0, "%s: TCP server in %s failed (rc=%d): %s%s" % (label, NS2, src, sout, serr))
    m = re.search(r"^sent (\d+) ([0-9a-f]{64}) ([\d.]+)$", cout, re.M)
    g = re.search(r"^got (\d+) ([0-9a-f]{64})$", sout, re.M)
    e2e.check(m is not None and g is not None, "%s: unexpected transfer output: client %r server %r"
              % (label, cout, sout))
    e2e.check(g.group(1) == m.group(1) and g.group(2) == m.group(2),
              "%s: %s sent %s bytes sha256 %s, %s received %s bytes sha256 %s" % (
                  label, NS1, m.group(1), m.group(2), NS2, g.group(1), g.group(2)))
    log("%s: TCP %s -> %s: %s bytes in %ss, sha256 %s matches" % (
        label, NS1, NS2, m.group(1), m.group(3), m.group(2)[:16]))


def port_stats(pmd, port):
    out = cmd(pmd, "show port stats %d" % port)
    rx = re.search(r"RX-packets:\s+(\d+)", out)
    tx = re.search(r"TX-packets:\s+(\d+)", out)
    e2e.check(rx is not None and tx is not None, "no stats for port %d: %s" % (port, out))
    return int(rx.group(1)), int(tx.group(1))


def check_forwarded(pmd, port, what, min_tx):
    rx, tx = port_stats(pmd, port)
    e2e.check(tx >= min_tx, "%s: port %d transmitted %d packets, expected at least %d"
              % (what, port, tx, min_tx))
    log("%s: port %d RX %d TX %d packets" % (what, port, rx, tx))


def kernel_counters(ns):
    """Ip/IpExt/Tcp/Udp counters of the namespace's kernel as {'Tcp.InCsumErrors': n, ...}."""
    counters = {}
    for f in ("/proc/net/snmp", "/proc/net/netstat"):
        _, out, _ = run(in_ns(ns, "cat", f))
        lines = out.splitlines()
        for names, values in zip(lines[0::2], lines[1::2]):
            group, names = names.split(":", 1)
            _, values = values.split(":", 1)
            for n, v in zip(names.split(), values.split()):
                counters["%s.%s" % (group, n)] = int(v)
    return counters


def port_names(pmd):
    out = cmd(pmd, "show port summary all")
    names = {}
    for line in out.splitlines():
        m = re.match(r"^(\d+)\s+[0-9A-Fa-f:]{17}\s+(\S+)\s+(\S+)", line)
        if m:
            names[int(m.group(1))] = (m.group(2), m.group(3))
    return names


def check_fwd_streams(pmd, expected):
    out = cmd(pmd, "show config fwd")
    streams = set((int(a), int(b)) for a, b in re.findall(r"RX P=(\d+)/Q=\d+.*-> TX P=(\d+)", out))
    e2e.check(streams == set(expected), "forwarding streams %s, expected %s:\n%s"
              % (sorted(streams), sorted(expected), out))


def start_forwarding(pmd, mode):
    out = cmd(pmd, "set fwd %s" % mode)
    e2e.check("Set %s packet forwarding mode" % mode in out, "set fwd %s: %s" % (mode, out))
    cmd(pmd, "clear port stats all")
    cmd(pmd, "start")


def set_peers(pmd, peers):
    """The csum engine rewrites the Ethernet addresses: the destination becomes
    the transmit port's peer address, which must be the kernel interface that
    finally receives the frame."""
    for port, mac in sorted(peers.items()):
        out = cmd(pmd, "set eth-peer %d %s" % (port, mac))
        e2e.check("rror" not in out and "nvalid" not in out,
                  "set eth-peer %d %s: %s" % (port, mac, out))


def stop_forwarding(pmd):
    cmd(pmd, "stop")


def offload_csum(pmd, port, required):
    """Requests IPv4/TCP/UDP checksum offload on a stopped port; returns the kinds it took."""
    taken = []
    for kind in ("ip", "tcp", "udp"):
        out = cmd(pmd, "csum set %s hw %d" % (kind, port))
        name = {"ip": "IP", "tcp": "TCP", "udp": "UDP"}[kind]
        if re.search(r"^%s checksum offload is hw" % name, out, re.M):
            taken.append(kind)
        elif required:
            e2e.fail("port %d refused %s checksum offload: %s" % (port, name, out))
        else:
            log("port %d keeps %s checksums in software: %s" % (
                port, name, out.strip().splitlines()[0]))
    return taken


# -- part 1: one testpmd -------------------------------------------------------


def one_process(args, wd):
    sock = os.path.join(wd, "vhost-one")
    with e2e.Testpmd(args.lib, vdevs=["net_tap0,iface=%s" % TAP1,
                                      "net_zorv1,iface=%s,queues=1" % sock],
                     log_path=os.path.join(wd, "testpmd-one.log")) as pmd:
        virtio_open = False
        try:
            pmd.start()
            # The peer connects while it is attached: its link event may come
            # before or after "port start".
            since = pmd.pos
            out = cmd(pmd, "port attach net_virtio_user0,path=%s,queues=1" % sock)
            e2e.check("Port 2 is attached" in out, "virtio-user did not attach as port 2: %s" % out)
            virtio_open = True
            cmd(pmd, "port start 2")
            pmd.wait_for(r"Port 1: link state change event", 20, since)
            out = cmd(pmd, "port attach net_tap1,iface=%s" % TAP2)
            e2e.check("Port 3 is attached" in out, "net_tap1 did not attach as port 3: %s" % out)
            cmd(pmd, "port start 3")
            names = port_names(pmd)
            want = {0: "net_tap", 1: "net_zorv1", 2: "net_virtio_user", 3: "net_tap"}
            e2e.check(sorted(names) == [0, 1, 2, 3] and
                      all(names[p][1] == d for p, d in want.items()),
                      "ports are not in the expected order: %s" % names)
            cmd(pmd, "set portlist 0,1,2,3")
            check_fwd_streams(pmd, [(0, 1), (1, 0), (2, 3), (3, 2)])

            move_tap(TAP1, NS1, ADDR1)
            move_tap(TAP2, NS2, ADDR2)

            # a. io forwarding.
            start_forwarding(pmd, "io")
            ping()
            tcp_transfer("one testpmd, io")
            stop_forwarding(pmd)
            check_forwarded(pmd, 1, "one testpmd, io, net_zorv1", MIN_DATA_PACKETS)

            # b. csum forwarding with checksum offload towards the card. Only
            # the ports on the card's two sides are restarted: the TAP ports
            # could not be brought up again now that their interfaces live in
            # other namespaces. virtio-user stops first and starts last.
            cmd(pmd, "port stop 2")
            cmd(pmd, "port stop 1")
            offload_csum(pmd, 1, required=True)
            offload_csum(pmd, 2, required=False)
            cmd(pmd, "port start 1")
            cmd(pmd, "port start 2")
            out = cmd(pmd, "show port 1 tx_offload configuration")
            e2e.check(re.search(r"Port :.*IPV4_CKSUM", out) and "TCP_CKSUM" in out and
                      "UDP_CKSUM" in out, "net_zorv1 runs without checksum offload: %s" % out)
            mac_a, mac_b = mac_of(TAP1, NS1), mac_of(TAP2, NS2)
            set_peers(pmd, {0: mac_a, 1: mac_b, 2: mac_a, 3: mac_b})
            start_forwarding(pmd, "csum")
            ping()
            tcp_transfer("one testpmd, csum")
            stop_forwarding(pmd)
            check_forwarded(pmd, 1, "one testpmd, csum, net_zorv1", MIN_DATA_PACKETS)

            # virtio-user leaves before the port it is connected to.
            cmd(pmd, "port stop 2")
            cmd(pmd, "port close 2")
            virtio_open = False
            rc = pmd.quit(30)
            e2e.check(rc == 0, "testpmd exited with %s" % rc)
        finally:
            if virtio_open and pmd.alive():
                try:
                    cmd(pmd, "port stop 2", timeout=10)
                    cmd(pmd, "port close 2", timeout=10)
                except e2e.E2EFailure:
                    pass


# -- part 2: the card's checksums as the kernel sees them ----------------------


def send_crafted(label, expect_delivered):
    """Sends frames with wrong checksums from zns1; checks what zns2's kernel made of them."""
    port_ip, port_udp, port_tcp = 6001, 6002, 6003
    before = kernel_counters(NS2)
    counter = ns_proc(NS2, UDP_COUNTER, ADDR2, port_ip, port_udp)
    e2e.check(counter.readline(20) == "ready", "UDP counter in %s did not start" % NS2)
    sender = ns_proc(NS1, CRAFT_SENDER, TAP1, mac_of(TAP1, NS1), mac_of(TAP2, NS2), ADDR1,
                     ADDR2, port_ip, port_udp, port_tcp, CRAFTED_PER_KIND)
    rc, out, err = sender.finish(30)
    e2e.check(rc == 0, "%s: frame sender failed (rc=%d): %s%s" % (label, rc, out, err))
    time.sleep(1.0)
    rc, out, err = counter.finish(40)  # closes its stdin: it prints its counts
    e2e.check(rc == 0, "%s: UDP counter failed: %s%s" % (label, out, err))
    got = dict((int(k), int(v)) for k, v in re.findall(r"(\d+)=(\d+)", out))
    after = kernel_counters(NS2)

    def delta(name):
        return after.get(name, 0) - before.get(name, 0)
    n = CRAFTED_PER_KIND
    seen = ("UDP datagrams delivered: %d with a wrong IPv4 header checksum sent, %d with a wrong "
            "UDP checksum sent; zns2 counters: IpExt.InCsumErrors +%d, Udp.InCsumErrors +%d, "
            "Tcp.InCsumErrors +%d, Tcp.InSegs +%d, Tcp.OutRsts +%d"
            % (got.get(port_ip, 0), got.get(port_udp, 0), delta("IpExt.InCsumErrors"),
               delta("Udp.InCsumErrors"), delta("Tcp.InCsumErrors"), delta("Tcp.InSegs"),
               delta("Tcp.OutRsts")))
    log("%s: %d frames of each kind; %s" % (label, n, seen))
    if expect_delivered:
        e2e.check(got.get(port_ip, 0) == n and got.get(port_udp, 0) == n and
                  delta("IpExt.InCsumErrors") == 0 and delta("Udp.InCsumErrors") == 0 and
                  delta("Tcp.InCsumErrors") == 0 and delta("Tcp.InSegs") >= n and
                  delta("Tcp.OutRsts") >= n,
                  "%s: the card did not deliver correct checksums for the %d frames of each "
                  "kind sent with offload requests (zns1 -> net_zorv1 tx -> virtio-user rx -> "
                  "zns2): %s" % (label, n, seen))
    else:
        e2e.check(got.get(port_ip, 0) == 0 and got.get(port_udp, 0) == 0 and
                  delta("IpExt.InCsumErrors") >= n and delta("Udp.InCsumErrors") >= n and
                  delta("Tcp.InCsumErrors") >= n,
                  "%s: frames with wrong checksums were not rejected by the kernel: %s"
                  % (label, seen))


def two_processes(args, wd):
    sock = os.path.join(wd, "vhost-two")
    with e2e.Testpmd(args.lib, vdevs=["net_tap0,iface=%s" % TAP1,
                                      "net_zorv1,iface=%s,queues=1" % sock],
                     prefix=e2e.unique_prefix("tapA"),
                     log_path=os.path.join(wd, "testpmd-card.log")) as card_side, \
        e2e.Testpmd(args.lib, vdevs=["net_virtio_user0,path=%s,queues=1" % sock,
                                     "net_tap1,iface=%s" % TAP2],
                    prefix=e2e.unique_prefix("tapB"),
                    log_path=os.path.join(wd, "testpmd-peer.log")) as peer_side:
        # Each forwarding core on its own CPU: A forwards on CPU 1, B on CPU 0.
        i = peer_side.argv.index("-l")
        peer_side.argv[i:i + 2] = ["--lcores", "0@1,1@0"]

        card_side.start()
        cmd(card_side, "port stop 1")
        offload_csum(card_side, 1, required=True)
        cmd(card_side, "port start 1")
        since = card_side.pos
        peer_side.start()
        card_side.wait_for(r"Port 1: link state change event", 20, since)
        names = port_names(peer_side)
        e2e.check(names.get(0, ("", ""))[1] == "net_virtio_user" and
                  names.get(1, ("", ""))[1] == "net_tap", "peer ports: %s" % names)
        check_fwd_streams(card_side, [(0, 1), (1, 0)])
        check_fwd_streams(peer_side, [(0, 1), (1, 0)])
        move_tap(TAP1, NS1, ADDR1)
        move_tap(TAP2, NS2, ADDR2)

        start_forwarding(peer_side, "io")
        # Frames that card_side sends into the card reach ztapB unchanged.
        set_peers(card_side, {0: mac_of(TAP1, NS1), 1: mac_of(TAP2, NS2)})
        start_forwarding(card_side, "csum")
        ping()
        tcp_transfer("card's checksums, csum")
        send_crafted("card's checksums, csum", expect_delivered=True)
        stop_forwarding(card_side)
        check_forwarded(card_side, 1, "card's checksums, csum, net_zorv1", MIN_DATA_PACKETS)

        # e. Control: nobody asks the card for checksums now.
        start_forwarding(card_side, "io")
        send_crafted("control, io", expect_delivered=False)
        stop_forwarding(card_side)
        stop_forwarding(peer_side)

        # The peer leaves before the port it is connected to.
        rc = peer_side.quit(30)
        e2e.check(rc == 0, "peer testpmd exited with %s" % rc)
        rc = card_side.quit(30)
        e2e.check(rc == 0, "card-side testpmd exited with %s" % rc)


def scenario(args):
    wd = e2e.work_dir("kernel_tap")
    try:
        remove_network()
        make_namespaces()
        one_process(args, wd)
        # The TAP interfaces went with the testpmd that owned them; the
        # namespaces stay for the next one.
        e2e.wait_until(lambda: not link_exists(TAP1, NS1) and not link_exists(TAP2, NS2), 10)
        two_processes(args, wd)
    finally:
        remove_network()
        if not args.verbose:
            e2e.remove_tree(wd)
        else:
            log("logs kept in %s" % wd)


def preconditions():
    if os.geteuid() != 0:
        return "needs root for network namespaces and TAP interfaces"
    if not os.path.exists("/dev/net/tun"):
        return "/dev/net/tun is missing"
    for tool in ("ip", "ping", "dpdk-testpmd"):
        if subprocess.run(["sh", "-c", "command -v " + tool], stdout=subprocess.DEVNULL).returncode:
            return "%s is not installed" % tool
    return None


if __name__ == "__main__":
    why = preconditions()
    if why:
        print("SKIP: %s" % why, flush=True)
        sys.exit(SKIP)
    e2e.main(scenario)
