#!/usr/bin/env python3
"""A vhost-user peer that misbehaves on purpose (Python 3 standard library).

It connects to a vhost-user socket served by the card, does one of the
behaviours below, prints "ready" on its stdout once the behaviour is in
place, and then holds its connections open for --hold seconds (or until it
is killed). The scenarios run it as a process of its own and stop it by its
PID.

Behaviours (--mode):
  half       a complete message header that announces a payload, and no
             payload: the server has read the header and waits for the rest.
  header     the first bytes of a header only.
  noreply    requests that need a reply (GET_FEATURES, GET_PROTOCOL_FEATURES)
             sent as fast as the socket takes them, and no reply ever read:
             the server's replies fill the socket until it cannot send.
  flood      --count connections opened as fast as possible; every other
             one also sends a header without its payload.
  garbage    random bytes (seeded by --seed) in a few writes.

While another peer is connected, the card refuses and closes every new
connection on the socket; a behaviour that finds its connection closed that
way prints "ready 0 dropped: <why>" and holds nothing.

Usable as a module too: Hostile(sock, mode, ...).start() / .stop(), for the
chaos driver.
"""
import argparse
import os
import random
import select
import socket
import struct
import subprocess
import sys
import time

VHOST_USER_VERSION = 0x1
GET_FEATURES = 1
SET_FEATURES = 2
GET_PROTOCOL_FEATURES = 15
HDR = struct.Struct("<III")  # request, flags, payload size

MODES = ("half", "header", "noreply", "flood", "garbage")


def header(request, size, need_reply=False):
    flags = VHOST_USER_VERSION | ((1 << 3) if need_reply else 0)
    return HDR.pack(request, flags, size)


def connect(path, timeout=5.0):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(timeout)
    s.connect(path)
    return s


def do_half(path, args):
    s = connect(path)
    s.sendall(header(SET_FEATURES, 8))
    return [s]


def do_header(path, args):
    s = connect(path)
    s.sendall(header(GET_FEATURES, 0)[:6])
    return [s]


def do_noreply(path, args):
    s = connect(path)
    s.setblocking(False)
    reqs = header(GET_FEATURES, 0, True) + header(GET_PROTOCOL_FEATURES, 0, True)
    start = time.monotonic()
    blocked_since = None
    # Until the socket stays full for a while (the server stopped reading,
    # its own replies no longer fitting) or a few seconds passed: a server
    # that gives up on replies it cannot send keeps reading slowly.
    while time.monotonic() - start < 3.0:
        try:
            s.send(reqs)
            blocked_since = None
        except BlockingIOError:
            if blocked_since is None:
                blocked_since = time.monotonic()
            elif time.monotonic() - blocked_since > 0.3:
                break
            time.sleep(0.005)
        except OSError:
            break  # the server dropped us: that is a way of coping too
    return [s]


def do_flood(path, args):
    socks = []
    for i in range(args.count):
        try:
            s = connect(path, timeout=2.0)
        except OSError:
            continue  # refused or backlog full: keep flooding
        if i % 2 == 1:
            try:
                s.sendall(header(SET_FEATURES, 8))
            except OSError:
                pass
        socks.append(s)
    return socks


def do_garbage(path, args):
    rnd = random.Random(args.seed)
    s = connect(path)
    for _ in range(4):
        try:
            s.sendall(bytes(rnd.getrandbits(8) for _ in range(rnd.randint(1, 300))))
        except OSError:
            break
    return [s]


ACTIONS = {"half": do_half, "header": do_header, "noreply": do_noreply,
           "flood": do_flood, "garbage": do_garbage}


class Hostile:
    """The hostile peer as a process of its own, stopped by its PID."""

    def __init__(self, sock, mode, hold=60.0, count=200, seed=1):
        self.argv = [sys.executable, os.path.abspath(__file__), "--sock", sock, "--mode", mode,
                     "--hold", str(hold), "--count", str(count), "--seed", str(seed)]
        self.mode = mode
        self.proc = None
        self.ready = ""

    def start(self, timeout=20.0):
        self.proc = subprocess.Popen(self.argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     start_new_session=True)
        deadline = time.monotonic() + timeout
        line = b""
        while time.monotonic() < deadline:
            ready, _, _ = select.select([self.proc.stdout], [], [], 0.1)
            if ready:
                line = self.proc.stdout.readline()
                if not line or line.startswith(b"ready"):
                    break
        if not line.startswith(b"ready"):
            self.stop()
            raise RuntimeError("hostile peer (%s) not ready: %r" % (self.mode, line))
        self.ready = line.decode("utf-8", "replace").strip()
        return self

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    def stop(self):
        if self.proc is None:
            return
        if self.proc.poll() is None:
            self.proc.kill()
        try:
            self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            pass
        self.proc.stdout.close()
        self.proc = None


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--sock", required=True)
    p.add_argument("--mode", choices=MODES, required=True)
    p.add_argument("--hold", type=float, default=60.0, help="seconds to hold the socket(s)")
    p.add_argument("--count", type=int, default=200, help="connections of the flood")
    p.add_argument("--seed", type=int, default=1)
    args = p.parse_args()
    try:
        socks = ACTIONS[args.mode](args.sock, args)
        print("ready %d" % len(socks), flush=True)
    except OSError as e:
        socks = []
        print("ready 0 dropped: %s" % e, flush=True)
    time.sleep(args.hold)
    for s in socks:
        s.close()


if __name__ == "__main__":
    main()
