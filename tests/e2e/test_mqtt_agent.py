#!/usr/bin/env python3
"""Error reports of net_zorv1 reach the management agent over MQTT.

A mosquitto broker runs on loopback, a mosquitto_sub client listens on the
report topic, and testpmd runs the driver with ZORV1_MQTT_BROKER and
ZORV1_MQTT_TOPIC pointing at them. Checked:
  - a device with queues above 1024 (probe succeeds, no port) reports
    ZORV1_MSG_DEV_ADD_ERR / ZORV1_ERR_DEV_PARSE with device, iface, queues;
  - a hot-plugged device with an unknown key fails to attach and reports the
    same kind and error, with no interface;
  - a device whose interface is already served reports
    ZORV1_MSG_DEV_VHOST_ERR / ZORV1_ERR_DEV_CHECK;
  - with the broker gone, failing probes return at once and count
    send_msg_fail instead of waiting for the network;
  - once the broker is back, the agent reconnects and reports flow again;
  - with a broker that refuses or never answers, failing probes still
    return at once and are counted, and testpmd exits promptly.
"""
import json
import os
import socket
import threading
import re
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

MSG_DEV_ADD_ERR = 3
MSG_DEV_VHOST_ERR = 5
ERR_DEV_PARSE = 1
ERR_DEV_CHECK = 4
# A probe that cannot report must not wait for the network.
PROMPT_ATTACH_S = 1.5


class SilentListener:
    """A TCP listener on loopback that accepts connections and never says a
    word: to a client it is a broker that does not answer."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(16)
        self.address = "127.0.0.1:%d" % self.sock.getsockname()[1]
        self.conns = []
        self.done = False
        self.thread = threading.Thread(target=self._accept, daemon=True)
        self.thread.start()

    def _accept(self):
        self.sock.settimeout(0.2)
        while not self.done:
            try:
                conn, _ = self.sock.accept()
                self.conns.append(conn)
            except OSError:
                continue

    def stop(self):
        self.done = True
        self.thread.join(timeout=2)
        for c in self.conns:
            c.close()
        self.sock.close()


def reports(sub, topic):
    """Decoded JSON payloads received on the report topic, in order."""
    out = []
    for line in sub.lines():
        if not line.startswith(topic + " "):
            continue
        payload = line[len(topic) + 1:]
        try:
            out.append(json.loads(payload))
        except json.JSONDecodeError:
            e2e.fail("report is not JSON: %r" % payload)
    return out


def wait_report(sub, topic, pred, what, timeout=10):
    found = e2e.wait_until(lambda: next((r for r in reports(sub, topic) if pred(r)), None),
                           timeout, 0.1)
    e2e.check(found is not None, "no report %s within %ss; received: %r"
              % (what, timeout, reports(sub, topic)))
    return found


def check_report(r, kind, kind_name, error, error_name, device, iface, queues):
    want = {"kind": kind, "kind_name": kind_name, "error": error, "error_name": error_name,
            "device": device, "iface": iface, "queues": queues}
    got = {k: r.get(k) for k in want}
    e2e.check(got == want, "report %r, want %r" % (r, want))
    e2e.check(isinstance(r.get("time"), str) and
              re.match(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", r["time"]) is not None,
              "report time: %r" % r.get("time"))


def send_msg_fail(pmd):
    return e2e.telemetry_one(pmd.prefix, "/zorv1/cp_stats")["send_msg_fail"]


def timed_cmd(pmd, line):
    t0 = time.monotonic()
    out = pmd.cmd(line, timeout=30)
    return out, time.monotonic() - t0


def scenario(args):
    run = e2e.work_dir("mqtt")
    sock = os.path.join(run, "vhost0")
    topic = "zorv1/e2e/%d/report" % os.getpid()
    broker = e2e.Mosquitto()
    sub = None
    silent = None
    try:
        broker.start()
        sub = e2e.Subscriber(broker.port, topic, os.path.join(run, "sub.out")).start()

        env = {"ZORV1_MQTT_BROKER": broker.address, "ZORV1_MQTT_TOPIC": topic}
        with e2e.Testpmd(args.lib, env=env,
                         vdevs=["net_zorv1,iface=%s,queues=1" % sock,
                                "net_zorv1_big,iface=x,queues=2000"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            boot = pmd.start()
            summary = e2e.parse_summary(pmd.cmd("show port summary all"))
            e2e.check(sorted(r[1] for r in summary.values()) == ["net_zorv1"],
                      "ports after start-up: %r\n%s" % (summary, boot))

            # queues above 1024: probe succeeds without a port, and reports.
            r = wait_report(sub, topic, lambda r: r.get("device") == "net_zorv1_big",
                            "for net_zorv1_big")
            check_report(r, MSG_DEV_ADD_ERR, "ZORV1_MSG_DEV_ADD_ERR", ERR_DEV_PARSE,
                         "ZORV1_ERR_DEV_PARSE", "net_zorv1_big", "x", 2000)

            # An unknown key: the hot-plug fails, testpmd goes on.
            out, _ = timed_cmd(pmd, "port attach net_zorv1_b,foo=1")
            e2e.check("is attached" not in out, "attach with foo=1 succeeded:\n%s" % out)
            e2e.check(pmd.alive(), "testpmd died on a failed attach")
            r = wait_report(sub, topic, lambda r: r.get("device") == "net_zorv1_b",
                            "for net_zorv1_b")
            check_report(r, MSG_DEV_ADD_ERR, "ZORV1_MSG_DEV_ADD_ERR", ERR_DEV_PARSE,
                         "ZORV1_ERR_DEV_PARSE", "net_zorv1_b", None, 0)

            # The interface of the configured port is taken.
            out, _ = timed_cmd(pmd, "port attach net_zorv1_dup,iface=%s" % sock)
            e2e.check("is attached" not in out, "second port on one interface:\n%s" % out)
            r = wait_report(sub, topic, lambda r: r.get("device") == "net_zorv1_dup",
                            "for net_zorv1_dup")
            check_report(r, MSG_DEV_VHOST_ERR, "ZORV1_MSG_DEV_VHOST_ERR", ERR_DEV_CHECK,
                         "ZORV1_ERR_DEV_CHECK", "net_zorv1_dup", sock, 1)
            e2e.check(send_msg_fail(pmd) == 0, "send_msg_fail with a live broker")
            e2e.check(len(reports(sub, topic)) == 3, "reports: %r" % reports(sub, topic))

            # The broker goes away; the agent notices the lost connection.
            mark = pmd.pos
            sub.stop()
            broker.stop()
            pmd.wait_for(r"Agent lost broker", 15, since=mark)

            before = send_msg_fail(pmd)
            out, took = timed_cmd(pmd, "port attach net_zorv1_c,foo=1")
            e2e.check("is attached" not in out and pmd.alive(), "attach: %s" % out)
            e2e.check(took < PROMPT_ATTACH_S, "failed attach took %.2fs without a broker" % took)
            e2e.check(send_msg_fail(pmd) == before + 1, "send_msg_fail %d, want %d"
                      % (send_msg_fail(pmd), before + 1))
            pmd.wait_for(r"Send msg failed, net_zorv1_c-", 5, since=mark)

            out, took = timed_cmd(pmd, "port attach net_zorv1_d,iface=y,queues=4096")
            e2e.check(took < PROMPT_ATTACH_S, "attach took %.2fs without a broker" % took)
            e2e.check(send_msg_fail(pmd) == before + 2, "send_msg_fail %d, want %d"
                      % (send_msg_fail(pmd), before + 2))

            # The broker is back on the same port: the agent reconnects by
            # itself and reports reach the new subscriber.
            mark = pmd.pos
            broker = e2e.Mosquitto(broker.port)
            broker.start()
            sub = e2e.Subscriber(broker.port, topic, os.path.join(run, "sub2.out")).start()
            pmd.wait_for(r"Agent connected to broker", 20, since=mark)
            out, took = timed_cmd(pmd, "port attach net_zorv1_e,foo=1")
            r = wait_report(sub, topic, lambda r: r.get("device") == "net_zorv1_e",
                            "for net_zorv1_e after reconnection")
            check_report(r, MSG_DEV_ADD_ERR, "ZORV1_MSG_DEV_ADD_ERR", ERR_DEV_PARSE,
                         "ZORV1_ERR_DEV_PARSE", "net_zorv1_e", None, 0)
            e2e.check(send_msg_fail(pmd) == before + 2, "send_msg_fail grew with a live broker")

            summary = e2e.parse_summary(pmd.cmd("show port summary all"))
            e2e.check(sorted(r[1] for r in summary.values()) == ["net_zorv1"],
                      "ports at the end: %r" % summary)
            pmd.cmd("port stop all")
            pmd.cmd("port close all")
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)

        # A broker that is not there at all (refused), or one that takes the
        # connection and never answers it (a loopback listener that stays
        # silent): the first report waits at most for the first attempt.
        silent = SilentListener()
        for name, address in (("refused", "127.0.0.1:%d" % e2e.free_tcp_port()),
                              ("unanswered", silent.address)):
            with e2e.Testpmd(args.lib, env={"ZORV1_MQTT_BROKER": address,
                                            "ZORV1_MQTT_TOPIC": topic},
                             vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                             log_path=os.path.join(run, "testpmd_%s.log" % name)) as pmd:
                pmd.start()
                for i in range(2):
                    out, took = timed_cmd(pmd, "port attach net_zorv1_%s%d,foo=1" % (name, i))
                    e2e.check("is attached" not in out and pmd.alive(), "attach: %s" % out)
                    e2e.check(took < PROMPT_ATTACH_S, "failed attach took %.2fs with the %s "
                              "broker %s" % (took, name, address))
                e2e.check(send_msg_fail(pmd) == 2, "send_msg_fail %d with the %s broker"
                          % (send_msg_fail(pmd), name))
                pmd.cmd("port stop all")
                pmd.cmd("port close all")
                t0 = time.monotonic()
                e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
                e2e.check(time.monotonic() - t0 < 10, "exit held up by the %s broker" % name)
    finally:
        if silent is not None:
            silent.stop()
        if sub is not None:
            sub.stop()
        broker.stop()
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
