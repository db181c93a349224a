"""Helpers for the end-to-end scenarios of net_zorv1 (Python 3 standard library only).

Everything here cleans up after itself: processes are killed (their whole
process group) and DPDK's runtime directory /var/run/dpdk/<prefix> is removed,
whatever the scenario did.

API
---
fail(msg)                    -> raises E2EFailure(msg) (a scenario's assertion).
check(cond, msg)             -> fail(msg) unless cond.
unique_prefix(tag)           -> str, a --file-prefix unique to this process.
work_dir(tag)                -> str, a fresh directory under /var/run/zorv1-e2e
                                for sockets and logs (not under /tmp: DPDK will
                                not load a driver from there, and the scenarios
                                share the path rules).
remove_tree(path)            -> removes a directory tree, ignoring errors.
free_tcp_port()              -> int, a TCP port free on 127.0.0.1 right now.
wait_until(pred, timeout, interval=0.05) -> the first truthy pred() or None.
common_args(argv=None)       -> argparse.Namespace with .lib (absolute path of
                                librte_net_zorv1.so, from --lib) and .verbose.
main(scenario)               -> runs scenario(args), prints PASS/FAIL, exits
                                0 on success and 1 on failure or exception.

Parsers of testpmd output (pure functions):
parse_port_stats(text)       -> {port: {"RX-packets": n, "RX-missed": n,
                                "RX-bytes": n, "RX-errors": n, "RX-nombuf": n,
                                "TX-packets": n, "TX-errors": n, "TX-bytes": n}}
                                from `show port stats <p|all>`.
parse_fwd_stats(text)        -> {port: {"RX-packets": n, "RX-dropped": n,
                                "TX-packets": n, "TX-dropped": n, ...}} from the
                                "Forward statistics for port N" blocks of `stop`.
parse_xstats(text)           -> ordered [(name, value)] of `show port xstats`.
parse_summary(text)          -> {port: (mac, name, driver, status, link)} of
                                `show port summary all`.
Testpmd.attach_virtio_user(path, name="net_virtio_user0", queues=1,
                           timeout=30) -> port id of the attached peer (not
                                started yet).

class Testpmd(lib, vdevs=(), eal_args=(), app_args=(), prefix=None,
              lcores="0-1", mem_mb=1024, env=None, log_path=None)
    dpdk-testpmd in interactive mode, stdin/stdout through pipes (stdout is
    made unbuffered with stdbuf so command output precedes the prompt).
    lib=None leaves out -d (a peer process without the driver); stderr is
    merged into the output; the process runs in its own process group.
    Default EAL: -l <lcores> --no-huge --no-pci -m <mem_mb>
                 --file-prefix=<prefix> -d <lib> --vdev <each of vdevs>
                 <eal_args>
    Default app: -i --nb-cores=1 --total-num-mbufs=16384 <app_args>
    With the environment variable ZORV_E2E_PRELOAD set (a sanitizer runtime
    for a driver built with it), a testpmd that loads the driver runs with
    LD_PRELOAD=<that>.
    .start(timeout=30)       -> startup text (all lines, the driver's too) up to
                                the first "testpmd> " prompt;
                                raises E2EFailure if testpmd exits or times out.
    .cmd(line, timeout=20)   -> text printed after sending `line` up to the
                                next prompt (prompt and the echoed command
                                line excluded). Lines that other threads
                                print at any moment (the driver's and the
                                vhost library's logs, "Port N: link state
                                change event") are taken out; wait_for() sees
                                them in .output.
    .send(line)              -> writes a line without waiting.
    .wait_for(regex, timeout=20, since=0) -> re.Match on the whole output
                                starting at offset `since`; raises on timeout.
    .output / .pos           -> everything read so far / its length.
    .alive()                 -> True while the process runs.
    .quit(timeout=15)        -> sends "quit" and waits; returns the exit code.
    .close()                 -> kills the process group if still alive, removes
                                /var/run/dpdk/<prefix>. Idempotent. Also used by
                                the context manager (with Testpmd(...) as pmd:).
    .prefix                  -> the --file-prefix.

telemetry(prefix, commands, timeout=20) -> list of decoded JSON replies, one
    per command, obtained by running dpdk-telemetry.py -f <prefix> with the
    commands on its stdin.
telemetry_one(prefix, command, timeout=20) -> the value under the command's
    own key of its reply (e.g. telemetry_one(p, "/zorv1/ports") -> [...]);
    None when the process refused the command (a null reply).

class Hugepages(mem_mb)   -> context manager (root): reserves 2 MB hugepages for
    a primary of mem_mb MB and mounts hugetlbfs, and undoes what it changed;
    raises Skip (exit with SKIP, 77, after printing "SKIP: <why>") when the
    machine cannot. .prefixes: file prefixes whose hugepage files are
    removed at the end. A Testpmd runs on them when "--no-huge" is removed
    from its argv (secondary processes attach only to such a primary).
proc_info(lib, prefix, *options, portmask=0x1, timeout=60) -> the output of
    dpdk-proc-info attached as a secondary to the primary of prefix (-d lib
    when lib), for the ports of portmask.

class Mosquitto(port=None, listener_conf="", anonymous=True)
                             -> a mosquitto broker on 127.0.0.1:<port>;
    listener_conf: more lines for its listener (password_file, cafile,
    certfile, keyfile, require_certificate ...); anonymous=False refuses
    clients without credentials.
    .start(timeout=10) / .stop() / context manager; .port; .address
    ("127.0.0.1:<port>").
class Subscriber(port, topic, out_path, client_args=()) -> mosquitto_sub -v in
    the background writing to out_path; client_args (e.g. -u, -P, --cafile)
    go to it and to its probe publisher. .start(timeout=10) (waits until
    subscribed), .lines() -> list of received lines ("<topic> <payload>"),
    .stop(). (It also receives its own probe messages on
    zorv1e2e/probe/<pid>.)
"""

import argparse
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import traceback

DPDK_RUN_DIR = "/var/run/dpdk"
E2E_RUN_DIR = "/var/run/zorv1-e2e"
PROMPT = "testpmd> "

# Lines that other threads of testpmd print at any moment (the driver's and
# the vhost library's logs about peers, link events). They can land in the
# middle of the prompt, so they are taken out before looking for it.
ASYNC_OUTPUT = re.compile(
    r"(?:\[offload_smartnic\]|VHOST_CONFIG:|\n?Port \d+: link state change event)[^\n]*\n")


class E2EFailure(Exception):
    """A failed check of a scenario."""


def fail(msg):
    raise E2EFailure(msg)


def check(cond, msg):
    if not cond:
        fail(msg)


_serial = [0]


def unique_prefix(tag):
    _serial[0] += 1
    return "zorv1_e2e_%s_%d_%d_%d" % (tag, os.getpid(), int(time.time() * 1000) % 100000,
                                      _serial[0])


def work_dir(tag):
    path = os.path.join(E2E_RUN_DIR, unique_prefix(tag))
    os.makedirs(path, exist_ok=True)
    return path


def remove_tree(path):
    if path:
        shutil.rmtree(path, ignore_errors=True)


def free_tcp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(pred, timeout, interval=0.05):
    deadline = time.monotonic() + timeout
    while True:
        value = pred()
        if value:
            return value
        if time.monotonic() >= deadline:
            return None
        time.sleep(interval)


def _kill_group(proc, grace=3.0):
    """Stops a process started with start_new_session=True and its children."""
    if proc is None:
        return
    if proc.poll() is None:
        for sig, wait in ((signal.SIGTERM, grace), (signal.SIGKILL, 5.0)):
            try:
                os.killpg(proc.pid, sig)
            except ProcessLookupError:
                break
            try:
                proc.wait(timeout=wait)
                break
            except subprocess.TimeoutExpired:
                continue
    else:
        # The leader is gone; children it left in its group go too.
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass


class Console:
    """A program whose merged stdout/stderr is read into a buffer by a thread
    and whose stdin takes lines: the common part of Testpmd and the guest of
    zorv_vm. The process runs in its own process group; close() stops it."""

    name = "process"

    def __init__(self, argv, env=None, log_path=None):
        self.argv = list(argv)
        self.env = dict(os.environ)
        if env:
            self.env.update(env)
        self.log_path = log_path
        self.proc = None
        self._text = ""
        self._cond = threading.Condition()
        self._reader = None
        self._eof = False

    def spawn(self):
        self.proc = subprocess.Popen(self.argv, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     env=self.env, start_new_session=True)
        self._text = ""
        self._eof = False
        self._reader = threading.Thread(target=self._read_loop, args=(self.proc,), daemon=True)
        self._reader.start()

    def _read_loop(self, proc):
        fd = proc.stdout.fileno()
        log = open(self.log_path, "a") if self.log_path else None
        try:
            while True:
                try:
                    chunk = os.read(fd, 65536)
                except OSError:
                    chunk = b""
                if not chunk:
                    break
                text = chunk.decode("utf-8", "replace")
                if log:
                    log.write(text)
                    log.flush()
                with self._cond:
                    self._text += text
                    self._cond.notify_all()
        finally:
            if log:
                log.close()
            with self._cond:
                self._eof = True
                self._cond.notify_all()

    def alive(self):
        return self.proc is not None and self.proc.poll() is None

    @property
    def output(self):
        with self._cond:
            return self._text

    @property
    def pos(self):
        with self._cond:
            return len(self._text)

    def wait_for(self, regex, timeout=20, since=0):
        pat = re.compile(regex, re.M)
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                m = pat.search(self._text, since)
                if m:
                    return m
                if self._eof:
                    fail("%s exited (rc=%s) while waiting for %r; output tail:\n%s"
                         % (self.name, self.proc.poll(), regex, self._text[-4000:]))
                left = deadline - time.monotonic()
                if left <= 0:
                    fail("timed out after %ss waiting for %r; output tail:\n%s"
                         % (timeout, regex, self._text[-4000:]))
                self._cond.wait(min(left, 0.2))

    def send(self, line):
        if not self.alive():
            fail("%s is not running (rc=%s); cannot send %r" % (
                self.name, self.proc.poll() if self.proc else None, line))
        try:
            self.proc.stdin.write((line + "\n").encode())
            self.proc.stdin.flush()
        except (BrokenPipeError, OSError) as e:
            fail("writing %r to %s failed: %s" % (line, self.name, e))

    def stop_process(self):
        """Kills the process group and waits for the reader; idempotent."""
        if self.proc is not None:
            _kill_group(self.proc)
            for f in (self.proc.stdin, self.proc.stdout):
                try:
                    if f:
                        f.close()
                except OSError:
                    pass
            if self._reader:
                self._reader.join(timeout=5)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        self.stop_process()


class Testpmd(Console):
    """dpdk-testpmd driven through its interactive command line (see module doc)."""

    name = "testpmd"

    def __init__(self, lib, vdevs=(), eal_args=(), app_args=(), prefix=None,
                 lcores="0-1", mem_mb=1024, env=None, log_path=None):
        self.prefix = prefix or unique_prefix("pmd")
        argv = ["stdbuf", "-o0", "-e0", "dpdk-testpmd", "-l", lcores,
                "--no-huge", "--no-pci", "-m", str(mem_mb),
                "--file-prefix=" + self.prefix]
        if lib:
            argv += ["-d", os.path.abspath(lib)]
        for v in vdevs:
            argv += ["--vdev", v]
        argv += list(eal_args)
        argv += ["--", "-i", "--nb-cores=1", "--total-num-mbufs=16384"]
        argv += list(app_args)
        # A sanitizer runtime for a driver built with it (ZORV_E2E_PRELOAD,
        # e.g. libasan.so.8): only the process that loads the driver gets it.
        if lib and os.environ.get("ZORV_E2E_PRELOAD"):
            env = dict({"LD_PRELOAD": os.environ["ZORV_E2E_PRELOAD"]}, **(env or {}))
        Console.__init__(self, argv, env, log_path)

    # -- process -------------------------------------------------------
    def start(self, timeout=30):
        self.spawn()
        self._until_prompt(0, timeout, "start-up")
        # Start-up text is returned whole: checks look for the driver's lines.
        raw = self.output
        i = raw.rfind(PROMPT)
        return raw[:i] if i >= 0 else raw

    def cmd(self, line, timeout=20):
        start = self.pos
        self.send(line)
        text = self._until_prompt(start, timeout, line)
        # testpmd's command line echoes what it read; drop that echo.
        first, nl, rest = text.partition("\n")
        if first.strip() == line.strip():
            return rest
        return text

    def _until_prompt(self, start, timeout, what):
        """Output from `start` up to the next prompt, without the lines other
        threads print at any moment (they can split the prompt itself)."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                text = ASYNC_OUTPUT.sub("", self._text[start:])
                i = text.find(PROMPT)
                if i >= 0:
                    return text[:i]
                if self._eof:
                    fail("testpmd exited (rc=%s) during %r; output tail:\n%s"
                         % (self.proc.poll(), what, self._text[-4000:]))
                left = deadline - time.monotonic()
                if left <= 0:
                    fail("no prompt within %ss after %r; output tail:\n%s"
                         % (timeout, what, self._text[-4000:]))
                self._cond.wait(min(left, 0.2))

    def attach_virtio_user(self, path, name="net_virtio_user0", queues=1, timeout=30):
        out = self.cmd("port attach %s,path=%s,queues=%d" % (name, path, queues), timeout)
        m = re.search(r"Port (\d+) is attached", out)
        check(m is not None, "attaching %s failed:\n%s" % (name, out))
        return int(m.group(1))

    def quit(self, timeout=15):
        if self.alive():
            try:
                self.proc.stdin.write(b"quit\n")
                self.proc.stdin.flush()
                self.proc.stdin.close()
            except (BrokenPipeError, OSError):
                pass
            try:
                self.proc.wait(timeout=timeout)
            except subprocess.TimeoutExpired:
                fail("testpmd did not quit within %ss" % timeout)
        return self.proc.returncode if self.proc else None

    def close(self):
        self.stop_process()
        remove_tree(os.path.join(DPDK_RUN_DIR, self.prefix))


# -- parsers of testpmd output ---------------------------------------------
def _blocks(text, header_regex):
    """Splits text into {port: block} at each header naming a port."""
    heads = list(re.finditer(header_regex, text))
    out = {}
    for i, h in enumerate(heads):
        end = heads[i + 1].start() if i + 1 < len(heads) else len(text)
        out[int(h.group(1))] = text[h.end():end]
    return out


def _counters(block):
    return {k: int(v) for k, v in re.findall(r"([A-Za-z]+-[A-Za-z]+):\s+(\d+)", block)}


def parse_port_stats(text):
    blocks = _blocks(text, r"NIC statistics for port (\d+)")
    return {p: _counters(b.split("Throughput")[0]) for p, b in blocks.items()}


def parse_fwd_stats(text):
    blocks = _blocks(text, r"Forward statistics for port (\d+)")
    return {p: _counters(b.split("Accumulated")[0]) for p, b in blocks.items()}


def parse_xstats(text):
    return [(n, int(v)) for n, v in re.findall(r"^(\w+):\s+(\d+)\s*$", text, re.M)]


def parse_summary(text):
    rows = re.findall(r"^(\d+)\s+([0-9A-Fa-f:]{17})\s+(\S+)\s+(\S+)\s+(\S+)\s+(.*?)\s*$",
                      text, re.M)
    return {int(r[0]): tuple(r[1:]) for r in rows}


# -- telemetry -------------------------------------------------------------
def telemetry(prefix, commands, timeout=20):
    """Runs dpdk-telemetry.py against a running process; one reply per command."""
    if isinstance(commands, str):
        commands = [commands]
    stdin = "".join(c + "\n" for c in commands)
    try:
        res = subprocess.run(["dpdk-telemetry.py", "-f", prefix], input=stdin.encode(),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             timeout=timeout)
    except subprocess.TimeoutExpired:
        fail("dpdk-telemetry.py -f %s timed out on %r" % (prefix, commands))
    out = res.stdout.decode("utf-8", "replace")
    replies = []
    for line in out.splitlines():
        line = line.strip()
        if not line:
            continue
        try:
            replies.append(json.loads(line))
        except json.JSONDecodeError:
            fail("dpdk-telemetry.py printed a non-JSON line %r (rc=%d, stderr=%r)"
                 % (line, res.returncode, res.stderr.decode("utf-8", "replace")))
    if len(replies) != len(commands):
        fail("dpdk-telemetry.py gave %d replies for %d commands: %s (stderr=%r)"
             % (len(replies), len(commands), out, res.stderr.decode("utf-8", "replace")))
    return replies


def telemetry_one(prefix, command, timeout=20):
    reply = telemetry(prefix, [command], timeout)[0]
    key = command.split(",", 1)[0]
    check(isinstance(reply, dict) and key in reply,
          "telemetry reply to %r lacks key %r: %r" % (command, key, reply))
    return reply[key]


# -- mosquitto -------------------------------------------------------------
class Mosquitto:
    """A mosquitto broker listening on 127.0.0.1:<port>."""

    def __init__(self, port=None, listener_conf="", anonymous=True):
        self.port = port or free_tcp_port()
        self.listener_conf = listener_conf
        self.anonymous = anonymous
        self.proc = None
        self._dir = None

    @property
    def address(self):
        return "127.0.0.1:%d" % self.port

    def start(self, timeout=10):
        if shutil.which("mosquitto") is None and not os.path.exists("/usr/sbin/mosquitto"):
            fail("mosquitto is not installed (scripts/setup.sh installs it)")
        exe = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
        self._dir = work_dir("mosq")
        conf = os.path.join(self._dir, "mosquitto.conf")
        with open(conf, "w") as f:
            f.write("listener %d 127.0.0.1\n%s\nallow_anonymous %s\npersistence false\n"
                    % (self.port, self.listener_conf,
                       "true" if self.anonymous else "false"))
        self._log = open(os.path.join(self._dir, "mosquitto.log"), "w")
        self.proc = subprocess.Popen([exe, "-c", conf], stdout=self._log,
                                     stderr=subprocess.STDOUT, start_new_session=True)

        def listening():
            if self.proc.poll() is not None:
                fail("mosquitto exited with %s" % self.proc.returncode)
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=0.5):
                    return True
            except OSError:
                return False
        if not wait_until(listening, timeout):
            self.stop()
            fail("mosquitto did not listen on port %d within %ss" % (self.port, timeout))
        return self

    def stop(self):
        _kill_group(self.proc)
        self.proc = None
        if getattr(self, "_log", None):
            self._log.close()
            self._log = None
        remove_tree(self._dir)
        self._dir = None

    def __enter__(self):
        return self.start() if self.proc is None else self

    def __exit__(self, *exc):
        self.stop()
        return False


class Subscriber:
    """mosquitto_sub -v on one topic, in the background, into a file."""

    def __init__(self, port, topic, out_path, client_args=()):
        self.port = port
        self.topic = topic
        self.out_path = out_path
        self.client_args = list(client_args)
        self.proc = None

    def start(self, timeout=10):
        exe = shutil.which("mosquitto_sub")
        if exe is None:
            fail("mosquitto_sub is not installed (scripts/setup.sh installs it)")
        self._out = open(self.out_path, "w")
        # A private probe topic in the same SUBSCRIBE: once a message on it
        # comes back, the subscription to `topic` is in place too.
        probe = "zorv1e2e/probe/%d" % os.getpid()
        self.proc = subprocess.Popen([exe, "-h", "127.0.0.1", "-p", str(self.port),
                                      "-t", self.topic, "-t", probe, "-v"] + self.client_args,
                                     stdout=self._out, stderr=subprocess.STDOUT,
                                     start_new_session=True)

        def seen():
            if self.proc.poll() is not None:
                fail("mosquitto_sub exited with %s" % self.proc.returncode)
            subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port),
                            "-t", probe, "-m", "probe"] + self.client_args, timeout=5,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            return any(l.startswith(probe + " ") for l in self.lines())
        if not wait_until(seen, timeout, 0.2):
            self.stop()
            fail("mosquitto_sub did not subscribe within %ss" % timeout)
        return self

    def lines(self):
        try:
            with open(self.out_path, encoding="utf-8", errors="replace") as f:
                return [l.rstrip("\n") for l in f]
        except FileNotFoundError:
            return []

    def stop(self):
        _kill_group(self.proc)
        self.proc = None
        if getattr(self, "_out", None):
            self._out.close()
            self._out = None

    def __enter__(self):
        return self.start() if self.proc is None else self

    def __exit__(self, *exc):
        self.stop()
        return False


# -- scenario runner ---------------------------------------------------------
# -- hugepages and secondary processes -----------------------------------
SKIP = 77
NR_HUGEPAGES = "/proc/sys/vm/nr_hugepages"
HUGE_MOUNT = "/dev/hugepages"


class Skip(Exception):
    """The platform cannot run the scenario."""


def meminfo(field):
    with open("/proc/meminfo") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def hugetlbfs_mounts():
    with open("/proc/mounts") as f:
        return [line.split()[1] for line in f if line.split()[2] == "hugetlbfs"]


class Hugepages:
    """Reserves 2 MB hugepages and mounts hugetlbfs; undoes what it changed."""

    def __init__(self, mem_mb=512):
        self.wanted = max(512, mem_mb // 2 + 64)
        self.needed = mem_mb // 2 + 16
        self.old_pages = None
        self.mounted = False
        self.made_dir = False
        self.prefixes = []

    def __enter__(self):
        if os.geteuid() != 0:
            raise Skip("hugepages need root (not running as root)")
        if meminfo("Hugepagesize") != 2048:
            raise Skip("default hugepage size is %d kB, not 2048 kB" % meminfo("Hugepagesize"))
        try:
            with open(NR_HUGEPAGES) as f:
                self.old_pages = int(f.read())
            free = meminfo("HugePages_Free")
            if free < self.wanted:
                target = self.old_pages + self.wanted - free
                with open(NR_HUGEPAGES, "w") as f:
                    f.write("%d\n" % target)
            else:
                self.old_pages = None  # nothing changed, nothing to restore
        except OSError as e:
            raise Skip("cannot set %s: %s" % (NR_HUGEPAGES, e))
        free = meminfo("HugePages_Free")
        if free < self.needed:
            self.__exit__()
            raise Skip("only %d free hugepages after asking for %d (%d needed)"
                       % (free, self.wanted, self.needed))
        if not hugetlbfs_mounts():
            if not os.path.isdir(HUGE_MOUNT):
                os.makedirs(HUGE_MOUNT)
                self.made_dir = True
            r = subprocess.run(["mount", "-t", "hugetlbfs", "nodev", HUGE_MOUNT],
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            if r.returncode != 0:
                self.__exit__()
                raise Skip("cannot mount hugetlbfs at %s: %s"
                           % (HUGE_MOUNT, r.stdout.decode().strip()))
            self.mounted = True
        return self

    def __exit__(self, *exc):
        # Files a primary leaves in hugetlbfs keep their pages reserved.
        for mnt in hugetlbfs_mounts():
            for prefix in self.prefixes:
                try:
                    names = os.listdir(mnt)
                except OSError:
                    continue
                for name in names:
                    if name.startswith(prefix + "map_"):
                        try:
                            os.unlink(os.path.join(mnt, name))
                        except OSError:
                            pass
        if self.mounted:
            subprocess.run(["umount", HUGE_MOUNT], stderr=subprocess.DEVNULL)
            self.mounted = False
        if self.made_dir:
            try:
                os.rmdir(HUGE_MOUNT)
            except OSError:
                pass
            self.made_dir = False
        if self.old_pages is not None:
            try:
                with open(NR_HUGEPAGES, "w") as f:
                    f.write("%d\n" % self.old_pages)
            except OSError as e:
                print("could not restore nr_hugepages to %d: %s" % (self.old_pages, e),
                      flush=True)
            self.old_pages = None
        return False


def proc_info(lib, prefix, *options, portmask=0x1, timeout=60):
    """dpdk-proc-info attached to the primary of prefix; its output."""
    argv = ["dpdk-proc-info", "--file-prefix=" + prefix, "--no-pci",
            "--log-level=lib.eal:error"]
    env = dict(os.environ)
    if lib:
        argv += ["-d", lib]
        if os.environ.get("ZORV_E2E_PRELOAD"):
            env["LD_PRELOAD"] = os.environ["ZORV_E2E_PRELOAD"]
    argv += ["--", "-p", hex(portmask)] + list(options)
    try:
        r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           timeout=timeout, env=env)
    except subprocess.TimeoutExpired:
        fail("%s timed out after %ss" % (" ".join(argv), timeout))
    out = r.stdout.decode("utf-8", "replace")
    check(r.returncode == 0, "%s exited with %d:\n%s" % (" ".join(argv), r.returncode, out))
    return out


def common_args(argv=None):
    p = argparse.ArgumentParser()
    p.add_argument("--lib", required=True, help="path of librte_net_zorv1.so")
    p.add_argument("-v", "--verbose", action="store_true")
    args = p.parse_args(argv)
    args.lib = os.path.abspath(args.lib)
    if not os.path.exists(args.lib):
        p.error("no such library: %s" % args.lib)
    return args


def main(scenario, argv=None):
    args = common_args(argv)
    name = os.path.basename(sys.argv[0])
    t0 = time.monotonic()
    try:
        scenario(args)
    except E2EFailure as e:
        print("FAIL %s: %s" % (name, e), flush=True)
        sys.exit(1)
    except Exception:
        traceback.print_exc()
        print("FAIL %s: unexpected exception" % name, flush=True)
        sys.exit(1)
    print("PASS %s (%.1fs)" % (name, time.monotonic() - t0), flush=True)
    sys.exit(0)
