#!/usr/bin/env python3
"""Faults of the agent's broker at run time, with traffic flowing throughout.

The primary dpdk-testpmd runs a net_zorv1 port with io forwarding in loop
topology and a virtio-user peer in another process (flowgen), so frames go
both ways through the port for the whole scenario. The agent's broker
(ZORV1_MQTT_BROKER) is a mosquitto on loopback that comes and goes; agent
reports are provoked by hot-plugging a net_zorv1 device with an unknown key,
which fails and reports ZORV1_MSG_DEV_ADD_ERR. Checked, in order:
  - broker absent at start: each failing attach returns within a second,
    each report is counted once in send_msg_fail;
  - broker started mid-run: the agent connects by itself, reports reach a
    subscriber, send_msg_fail stays;
  - broker killed with SIGKILL: the agent notices, failing attaches still
    return within a second and every report of the gap is counted;
  - broker frozen (SIGSTOP, its connection open but never answered):
    failing attaches still return within a second, the agent's keep-alive
    notices the dead broker, and the reports after that are counted;
  - broker restarted (after the kill) or resumed (after the freeze): the
    agent reconnects by itself and reports reach the subscriber again;
and all the while the port's RX and TX counters keep growing (also right
after every single failing attach), never go backwards, and the peer stays
connected (one connection for the whole scenario).
"""
import argparse
import json
import os
import re
import signal
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402
import churn_peer as cp  # noqa: E402

MSG_DEV_ADD_ERR = 3
ERR_DEV_PARSE = 1
# A failing hot-plug must not wait for the network.
ATTACH_LIMIT_S = 1.0
# The agent's keep-alive is 10 s: a broker that stops answering is noticed
# within two keep-alive periods.
FREEZE_DETECT_S = 40
# Packets each way that must follow every failing attach (within 5 s).
AFTER_ATTACH_PKTS = 64


def own_args(argv=None):
    p = argparse.ArgumentParser(epilog="Also: --lib <librte_net_zorv1.so> (required), -v.")
    p.add_argument("--rounds", type=int,
                   default=int(os.environ.get("ZORV_BROKER_ROUNDS", "2")),
                   help="kill/restart and freeze/resume rounds of the broker")
    p.add_argument("--attaches", type=int, default=5,
                   help="failing attaches in each phase without a broker")
    p.add_argument("--min-pkts", type=int, default=2000,
                   help="packets each way that prove traffic in a phase")
    return p.parse_known_args(argv)


class Scenario:
    def __init__(self, pmd, peer, broker, topic, run, opts):
        self.pmd = pmd
        self.peer = peer
        self.broker = broker
        self.sub = None
        self.topic = topic
        self.run = run
        self.opts = opts
        self.tel = cp.Telemetry(pmd.prefix)
        self.stats_mono = cp.Monotonic("port statistics of port 0")
        self.cp_mono = cp.Monotonic("control-plane counters")
        self.serial = 0
        self.attach_times = []
        self.freeze_detect = []
        self.subs = 0

    # -- samples -----------------------------------------------------------
    def stats(self, where):
        s = cp.port_stats(self.pmd, 0)
        self.stats_mono.update(s, where)
        return s

    def cp_stats(self, where):
        c = self.tel.query("/zorv1/cp_stats")
        e2e.check(isinstance(c, dict) and "send_msg_fail" in c, "cp_stats reply: %r" % c)
        self.cp_mono.update(c, where)
        return c

    def send_msg_fail(self, where):
        return self.cp_stats(where)["send_msg_fail"]

    def traffic(self, where):
        """Both directions move at least min_pkts from now on."""
        base = self.stats(where)
        s = cp.wait_traffic(self.pmd, 0, base, self.opts.min_pkts, 20)
        self.stats_mono.update(s, where)
        e2e.check(self.peer.alive(), "the peer exited during %s" % where)

    # -- reports -------------------------------------------------------------
    def reports(self):
        out = []
        if self.sub is None:
            return out
        for line in self.sub.lines():
            if line.startswith(self.topic + " "):
                try:
                    out.append(json.loads(line[len(self.topic) + 1:]))
                except json.JSONDecodeError:
                    e2e.fail("report is not JSON: %r" % line)
        return out

    def failing_attach(self, where):
        """Hot-plugs a device with an unknown key; returns (device, seconds)."""
        self.serial += 1
        dev = "net_zorv1_f%d" % self.serial
        before = self.stats(where)
        t0 = time.monotonic()
        out = self.pmd.cmd("port attach %s,foo=1" % dev, timeout=30)
        took = time.monotonic() - t0
        self.attach_times.append(took)
        e2e.check("is attached" not in out, "attach of %s succeeded:\n%s" % (dev, out))
        e2e.check(self.pmd.alive(), "testpmd died on a failed attach")
        e2e.check(took < ATTACH_LIMIT_S, "failing attach of %s took %.2fs during %s"
                  % (dev, took, where))
        # The forwarding core goes on: traffic moves on right after it.
        after = cp.wait_traffic(self.pmd, 0, before, AFTER_ATTACH_PKTS, 5)
        self.stats_mono.update(after, where)
        return dev, took

    def wait_report(self, dev, where, timeout=10):
        got = e2e.wait_until(lambda: next((r for r in self.reports()
                                           if r.get("device") == dev), None), timeout, 0.1)
        e2e.check(got is not None, "no report for %s within %ss during %s; received %r"
                  % (dev, timeout, where, [r.get("device") for r in self.reports()]))
        want = {"kind": MSG_DEV_ADD_ERR, "kind_name": "ZORV1_MSG_DEV_ADD_ERR",
                "error": ERR_DEV_PARSE, "error_name": "ZORV1_ERR_DEV_PARSE", "device": dev}
        e2e.check({k: got.get(k) for k in want} == want, "report %r, want %r" % (got, want))
        return got

    # -- the broker ------------------------------------------------------------
    def subscribe(self):
        self.subs += 1
        self.sub = e2e.Subscriber(self.broker.port, self.topic,
                                  os.path.join(self.run, "sub%d.out" % self.subs)).start()

    def unsubscribe(self):
        if self.sub is not None:
            self.sub.stop()
            self.sub = None

    def broker_up(self, where):
        """Starts the broker and waits for the agent to connect by itself."""
        mark = self.pmd.pos
        self.broker = e2e.Mosquitto(self.broker.port)
        self.broker.start()
        self.subscribe()
        self.pmd.wait_for(r"Agent connected to broker", 20, since=mark)
        self.reports_flow(where)

    def reports_flow(self, where):
        """Reports reach the subscriber and are no longer counted as failed."""
        failed = self.send_msg_fail(where)
        for _ in range(2):
            dev, _ = self.failing_attach(where)
            self.wait_report(dev, where)
        e2e.check(self.send_msg_fail(where) == failed,
                  "send_msg_fail grew with the broker up during %s" % where)
        self.traffic(where)

    def reports_counted(self, where, mark):
        """No broker: every report fails at once and is counted."""
        failed = self.send_msg_fail(where)
        for i in range(self.opts.attaches):
            dev, _ = self.failing_attach(where)
            now = self.send_msg_fail(where)
            e2e.check(now == failed + i + 1, "send_msg_fail %d after %d failed reports "
                      "during %s, want %d" % (now, i + 1, where, failed + i + 1))
            self.pmd.wait_for(r"Send msg failed, %s-" % re.escape(dev), 5, since=mark)
        self.traffic(where)

    def kill_broker(self, where):
        mark = self.pmd.pos
        self.unsubscribe()
        proc = self.broker.proc
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait(timeout=10)
        self.broker.stop()  # clean-up of its files; the process is gone
        self.pmd.wait_for(r"Agent lost broker", 15, since=mark)
        self.reports_counted(where, mark)

    def freeze_broker(self, where):
        """A broker that keeps its connection open but never answers.

        Failing attaches go on returning at once while the agent still
        believes in the connection; the keep-alive then finds the broker
        dead, after which every report is counted; once the broker runs
        again the agent reconnects by itself.
        """
        self.unsubscribe()
        mark = self.pmd.pos
        pid = self.broker.proc.pid
        os.killpg(pid, signal.SIGSTOP)
        t0 = time.monotonic()
        try:
            lost = None
            while lost is None:
                self.failing_attach(where)
                lost = re.compile(r"Agent lost broker").search(self.pmd.output, mark)
                if lost is None:
                    e2e.check(time.monotonic() - t0 < FREEZE_DETECT_S,
                              "a frozen broker was not noticed within %ss" % FREEZE_DETECT_S)
                    time.sleep(0.5)
            self.freeze_detect.append(time.monotonic() - t0)
            self.traffic(where)
            self.reports_counted(where + ", noticed", lost.end())
        finally:
            os.killpg(pid, signal.SIGCONT)
        self.subscribe()
        self.pmd.wait_for(r"Agent connected to broker", 20, since=lost.end())
        self.reports_flow(where + ", resumed")


def scenario(args, opts):
    run = e2e.work_dir("brkflt")
    sock = os.path.join(run, "vhost0")
    topic = "zorv1/e2e/%d/faults" % os.getpid()
    broker = e2e.Mosquitto()  # its port is chosen; it is not started yet
    peer = cp.Peer(sock, log_path=os.path.join(run, "peer.log"))
    sc = None
    t0 = time.monotonic()
    try:
        env = {"ZORV1_MQTT_BROKER": broker.address, "ZORV1_MQTT_TOPIC": topic}
        with e2e.Testpmd(args.lib, env=env, vdevs=["net_zorv1,iface=%s,queues=1" % sock],
                         app_args=["--port-topology=loop", "--forward-mode=io"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            sc = Scenario(pmd, peer, broker, topic, run, opts)
            cp0 = sc.cp_stats("start-up")
            e2e.check(cp0["send_msg_fail"] == 0, "send_msg_fail at start-up: %r" % cp0)
            out = pmd.cmd("start")
            e2e.check("io packet forwarding" in out, "forwarding did not start:\n%s" % out)
            peer.start()
            sc.traffic("first connection")

            # No broker at all: the first report starts the agent, whose
            # first attempt is refused at once.
            sc.reports_counted("broker absent at start", 0)
            print("broker absent: %d reports counted, attach max %.2f ms"
                  % (sc.send_msg_fail("absent"), 1e3 * max(sc.attach_times)), flush=True)

            sc.broker_up("broker started mid-run")
            for r in range(opts.rounds):
                sc.kill_broker("broker killed (round %d)" % (r + 1))
                sc.broker_up("broker restarted (round %d)" % (r + 1))
                sc.freeze_broker("broker frozen (round %d)" % (r + 1))
                print("round %d done: send_msg_fail %d, %.0fs" % (
                    r + 1, sc.send_msg_fail("round"), time.monotonic() - t0), flush=True)

            end = sc.cp_stats("the end")
            e2e.check(end["new_conn"] - cp0["new_conn"] == 1 and
                      end["del_conn"] == cp0["del_conn"],
                      "the peer's connection churned: %r" % end)
            s = sc.stats("the end")
            pmd.cmd("stop")
            peer.detach()
            peer.pmd.quit()
            peer.close()
            sc.unsubscribe()
            sc.broker.stop()
            pmd.cmd("port stop 0")
            pmd.cmd("port close 0")
            t1 = time.monotonic()
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
            e2e.check(time.monotonic() - t1 < 10, "exit held up by the agent")
            e2e.check(not re.search(r"Segmentation fault|Aborted|PANIC", pmd.output),
                      "testpmd crashed")
            if sc.freeze_detect:
                print("frozen broker noticed after %s s" % ", ".join(
                    "%.1f" % t for t in sc.freeze_detect))
            times = sorted(sc.attach_times)
            print("%d failing attaches: median %.2f ms min %.2f ms max %.2f ms; forwarded "
                  "RX %d TX %d packets" % (len(times), 1e3 * times[len(times) // 2],
                                           1e3 * times[0], 1e3 * times[-1],
                                           s["RX-packets"], s["TX-packets"]), flush=True)
    finally:
        if sc is not None:
            sc.unsubscribe()
            sc.broker.stop()
        else:
            broker.stop()
        peer.close()
        e2e.remove_tree(run)


if __name__ == "__main__":
    opts, rest = own_args()
    e2e.main(lambda a: scenario(a, opts), rest)
