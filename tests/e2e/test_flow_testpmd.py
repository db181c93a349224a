#!/usr/bin/env python3
"""Flow rules and meters of a net_zorv1 port through dpdk-testpmd.

Command stage: testpmd's `flow validate/create/list/query/destroy/flush`,
`flow isolate`, `port config ... udp_tunnel_port add vxlan` and the `meter`
commands reach the port's flow engine; what the engine cannot do is refused
with a message naming it (egress and transfer rules, unknown items and
actions, a queue the port does not have, VXLAN without an announced port,
isolated mode, packet-mode meter profiles, policies with other actions than
drop, deleting objects in use).

Traffic stage: a virtio-user peer in the same testpmd sends frames (start
tx_first) to the port, which receives them in rxonly mode with verbose
output. Without rules the frames arrive on the queue of the peer queue that
sent them; a QUEUE + MARK + COUNT rule gathers them on one queue with their
FDIR mark and counts them; a DROP rule drops them; an RSS rule spreads them
over the queues by the Toeplitz hash shown in the verbose output; a METER
rule with a red-drop policy lets through the frames the srTCM buckets colour
green or yellow and drops and counts the red ones.
"""
import os
import re
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

QUEUES = 4
FRAME = 64           # --txpkts of the peer's frames
BURST = 32           # testpmd's default burst: tx_first sends one per stream


def expect(pmd, line, *patterns):
    """Runs a command; every pattern must appear in its output."""
    out = pmd.cmd(line)
    for p in patterns:
        e2e.check(re.search(p, out), "%r: no %r in:\n%s" % (line, p, out))
    return out


def refused(pmd, line, message):
    """The command fails with the engine's message (testpmd prints the PMD error)."""
    out = pmd.cmd(line)
    e2e.check(message in out and "created" not in out and "validated" not in out,
              "%r was not refused with %r:\n%s" % (line, message, out))
    return out


def rule_ids(pmd):
    out = pmd.cmd("flow list 0")
    return [int(m) for m in re.findall(r"^(\d+)\s+\d+\s+\d+\s+i--", out, re.M)]


def query_count(pmd, rule):
    out = pmd.cmd("flow query 0 %d count" % rule)
    hits = re.search(r"hits:\s+(\d+)", out)
    nbytes = re.search(r"bytes:\s+(\d+)", out)
    e2e.check(hits and nbytes, "no counters in:\n%s" % out)
    return int(hits.group(1)), int(nbytes.group(1))


def meter_stats(pmd, mtr, clear=False):
    out = pmd.cmd("show port meter stats 0 %d %s" % (mtr, "yes" if clear else "no"))
    stats = {}
    for key, pat in (("green", r"Pkts G:\s+(\d+)"), ("yellow", r"Pkts Y:\s+(\d+)"),
                     ("red", r"Pkts R:\s+(\d+)"), ("dropped", r"Pkts DROPPED:\s+(\d+)"),
                     ("green_bytes", r"Bytes G:\s+(\d+)"),
                     ("dropped_bytes", r"Bytes DROPPED:\s+(\d+)")):
        m = re.search(pat, out)
        e2e.check(m, "no %s in the meter stats:\n%s" % (key, out))
        stats[key] = int(m.group(1))
    return stats


def commands(pmd):
    """Command stage: the engine's command paths, without traffic."""
    ok = "ingress pattern eth / ipv4 dst is 10.0.0.2 / udp / end actions queue index 1 / end"
    expect(pmd, "flow validate 0 " + ok, r"Flow rule validated")
    e2e.check(rule_ids(pmd) == [], "validate installed a rule")

    refused(pmd, "flow validate 0 egress pattern eth / end actions drop / end",
            "egress rules are not supported")
    refused(pmd, "flow validate 0 transfer pattern eth / end actions drop / end",
            "transfer rules are not supported")
    refused(pmd, "flow create 0 ingress pattern eth / icmp / end actions drop / end",
            "item type ICMP not supported")
    refused(pmd, "flow create 0 ingress pattern eth / ipv4 / sctp / end actions drop / end",
            "item type SCTP not supported")
    refused(pmd, "flow create 0 ingress pattern eth / udp / end actions drop / end",
            "UDP item must follow IPV4 or IPV6")
    refused(pmd, "flow create 0 ingress pattern eth / end actions queue index 9 / end",
            "QUEUE index beyond the port's receive queues")
    refused(pmd, "flow create 0 ingress pattern eth / end actions port_id id 1 / end",
            "action type PORT_ID not supported")
    refused(pmd, "flow create 0 ingress pattern eth / end actions drop / queue index 1 / end",
            "only one of DROP, QUEUE, RSS, JUMP, PASSTHRU per rule")
    refused(pmd, "flow create 0 ingress group 2 pattern eth / end actions jump group 1 / end",
            "JUMP must go to a higher group")
    vxlan_rule = ("flow create 0 ingress pattern eth / ipv4 / udp / vxlan vni is 42 / eth / "
                  "ipv4 / end actions mark id 7 / queue index 2 / end")
    refused(pmd, vxlan_rule, "VXLAN needs a UDP port announced")
    refused(pmd, "flow isolate 0 true", "isolated mode is not supported")
    e2e.check(rule_ids(pmd) == [], "a refused rule was installed: %r" % rule_ids(pmd))

    # Create, list, query, destroy.
    expect(pmd, "flow create 0 " + ok.replace("queue index 1", "count / queue index 1"),
           r"Flow rule #0 created")
    expect(pmd, "flow list 0", r"0\s+0\s+0\s+i--\s+ETH IPV4 UDP => COUNT QUEUE")
    e2e.check(query_count(pmd, 0) == (0, 0), "a new rule has counts")
    expect(pmd, "flow destroy 0 rule 0", r"Flow rule #0 destroyed")
    e2e.check(rule_ids(pmd) == [], "destroyed rule still listed")
    expect(pmd, "flow query 0 0 count", r"not found")

    # VXLAN once the port is announced; flush takes everything.
    expect(pmd, "port config 0 udp_tunnel_port add vxlan 4789")
    expect(pmd, vxlan_rule, r"Flow rule #\d+ created")
    expect(pmd, "flow create 0 ingress priority 1 pattern eth / end actions rss / end",
           r"Flow rule #\d+ created")
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 / end actions jump group 3 / end",
           r"Flow rule #\d+ created")
    expect(pmd, "flow create 0 ingress group 3 pattern ipv4 / tcp dst is 80 / end "
                "actions flag / drop / end", r"Flow rule #\d+ created")
    e2e.check(len(rule_ids(pmd)) == 4, "rules: %r" % rule_ids(pmd))
    pmd.cmd("flow flush 0")
    e2e.check(rule_ids(pmd) == [], "flush left rules: %r" % rule_ids(pmd))

    # Meters.
    expect(pmd, "show port meter cap 0", r"cap\.meter_srtcm_rfc2697_n_max [1-9]",
           r"cap\.meter_trtcm_rfc2698_n_max [1-9]", r"cap\.stats_mask ff")
    e2e.check(pmd.cmd("add port meter profile srtcm_rfc2697 0 1 1000 640 640 0").strip() == "",
              "srTCM profile refused")
    e2e.check(pmd.cmd("add port meter profile trtcm_rfc2698 0 2 1000 2000 640 1280 0").strip()
              == "", "trTCM profile refused")
    refused(pmd, "add port meter profile srtcm_rfc2697 0 3 1000 640 640 1",
            "packet mode not supported")
    refused(pmd, "add port meter profile trtcm_rfc4115 0 3 1000 1000 640 640 0",
            "trTCM RFC 4115 not supported")
    e2e.check(pmd.cmd("add port meter policy 0 1 g_actions end y_actions end "
                      "r_actions drop / end").strip() == "", "policy refused")
    refused(pmd, "add port meter policy 0 2 g_actions queue index 1 / end y_actions end "
                 "r_actions drop / end", "action type QUEUE not supported")
    e2e.check(pmd.cmd("create port meter 0 1 1 1 yes 0xff 0 g 0").strip() == "",
              "meter refused")
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 / end actions meter mtr_id 1 / "
                "queue index 0 / end", r"Flow rule #\d+ created")
    refused(pmd, "del port meter 0 1", "meter is used by a flow rule")
    refused(pmd, "del port meter profile 0 1", "meter profile is used by a meter")
    s = meter_stats(pmd, 1)
    e2e.check(all(v == 0 for v in s.values()), "a new meter has counts: %r" % s)
    expect(pmd, "disable port meter 0 1")
    expect(pmd, "enable port meter 0 1")
    pmd.cmd("flow flush 0")
    e2e.check(pmd.cmd("del port meter 0 1").strip() == "", "meter not deleted after flush")
    e2e.check(pmd.cmd("del port meter profile 0 1").strip() == "", "profile not deleted")
    e2e.check(pmd.cmd("del port meter policy 0 1").strip() == "", "policy not deleted")
    refused(pmd, "show port meter stats 0 1 no", "no meter with this id")


# -- traffic stage -----------------------------------------------------------

def port_stats(pmd):
    return e2e.parse_port_stats(pmd.cmd("show port stats all"))


def queue_packets(pmd):
    xs = dict(e2e.parse_xstats(pmd.cmd("show port xstats 0")))
    return [xs.get("rx_q%d_packets" % q, 0) for q in range(QUEUES)]


def received(text):
    """Frames port 0 reported in verbose rxonly output."""
    return sum(int(n) for n in re.findall(r"port 0/queue \d+: received (\d+) packets", text))



def send(pmd, peer, expect_rx, timeout=15):
    """One burst per peer queue from the peer; returns (port 0 RX-packets, verbose text).

    While frames are printed the prompt can be cut by them, so the start is not
    waited for: the frames are counted in the output, and the stop (after the
    last frame) gives a clean prompt again.
    """
    pmd.cmd("clear port stats all")
    pmd.cmd("clear port xstats 0")
    mark = pmd.pos
    pmd.send("start tx_first 1")
    pmd.wait_for(r"rxonly packet forwarding", 10, since=mark)
    e2e.wait_until(lambda: received(pmd.output[mark:]) >= expect_rx, timeout, 0.1)
    # Frames that should not arrive must have had their chance to.
    time.sleep(1.0)
    pmd.cmd("stop")
    text = pmd.output[mark:]
    s = port_stats(pmd)
    sent = QUEUES * BURST
    e2e.check(s[peer]["TX-packets"] == sent, "peer sent %d frames, not %d: %r"
              % (s[peer]["TX-packets"], sent, s))
    e2e.check(received(text) == s[0]["RX-packets"],
              "verbose output shows %d frames, the port counted %d"
              % (received(text), s[0]["RX-packets"]))
    return s[0]["RX-packets"], text


def received_frames(text):
    """[(queue, line)] of the frames port 0 printed in verbose rxonly mode.

    Each frame is one line under a "port P/queue Q: received N packets"
    header; the prompt may be printed between lines and is left out.
    """
    frames, port, queue = [], None, None
    for line in text.replace(e2e.PROMPT, "").splitlines():
        h = re.search(r"port (\d+)/queue (\d+): received \d+ packets", line)
        if h:
            port, queue = int(h.group(1)), int(h.group(2))
        elif port == 0 and "src=" in line:
            frames.append((queue, line))
    return frames


def traffic(pmd, sock):
    peer = pmd.attach_virtio_user(sock, queues=QUEUES)
    out = pmd.cmd("port start %d" % peer)
    e2e.check("Fail" not in out, "peer start failed:\n%s" % out)
    ok = e2e.wait_until(lambda: e2e.parse_summary(pmd.cmd("show port summary all"))
                        .get(0, ("",) * 5)[3] == "up", 10, 0.2)
    e2e.check(ok, "link of port 0 did not come up")
    for line in ("set fwd rxonly", "set verbose 1", "set txpkts %d" % FRAME):
        pmd.cmd(line)
    total = QUEUES * BURST

    # No rule: every frame arrives on the queue its peer queue feeds.
    rx, _ = send(pmd, peer, total)
    e2e.check(rx == total, "without rules port 0 received %d of %d" % (rx, total))
    e2e.check(queue_packets(pmd) == [BURST] * QUEUES,
              "without rules: per-queue counts %r" % queue_packets(pmd))

    # QUEUE + MARK + COUNT: all on queue 3, marked 0x2a, counted.
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 dst is 10.0.0.2 / udp dst is 4000 / "
                "end actions mark id 42 / count / queue index 3 / end", r"Flow rule #0 created")
    rx, text = send(pmd, peer, total)
    e2e.check(rx == total, "steering lost frames: %d of %d" % (rx, total))
    e2e.check(queue_packets(pmd) == [0, 0, 0, total],
              "steered frames not all on queue 3: %r" % queue_packets(pmd))
    frames = received_frames(text)
    e2e.check(len(frames) == total and all(q == 3 for q, _ in frames),
              "verbose output shows %d frames on queues %r" % (len(frames), {q for q, _ in frames}))
    e2e.check(all("FDIR matched ID=0x2a" in ln for _, ln in frames),
              "not every frame carries mark 0x2a:\n%s" % "\n".join(ln for _, ln in frames[:4]))
    e2e.check(query_count(pmd, 0) == (total, total * FRAME),
              "rule count %r, want %r" % (query_count(pmd, 0), (total, total * FRAME)))

    # A rule for other traffic changes nothing.
    expect(pmd, "flow destroy 0 rule 0", r"destroyed")
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 dst is 10.9.9.9 / end "
                "actions drop / end", r"created")
    rx, _ = send(pmd, peer, total)
    e2e.check(rx == total and queue_packets(pmd) == [BURST] * QUEUES,
              "an unmatched rule changed the delivery: %d %r" % (rx, queue_packets(pmd)))
    pmd.cmd("flow flush 0")

    # DROP: nothing arrives, the rule counts every frame.
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 / udp / end actions count / drop / end",
           r"Flow rule #0 created")
    rx, text = send(pmd, peer, 0)
    e2e.check(rx == 0, "DROP let %d frames through" % rx)
    e2e.check(not received_frames(text), "dropped frames were printed")
    e2e.check(query_count(pmd, 0)[0] == total, "DROP count %r" % (query_count(pmd, 0),))
    pmd.cmd("flow flush 0")

    # RSS over the four queues: each frame's queue follows its hash.
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 / udp / end actions rss types "
                "ipv4-udp end queues 0 1 2 3 end / end", r"Flow rule #0 created")
    rx, text = send(pmd, peer, total)
    e2e.check(rx == total, "RSS lost frames: %d of %d" % (rx, total))
    frames = received_frames(text)
    e2e.check(len(frames) == total, "verbose output shows %d of %d frames" % (len(frames), total))
    for q, ln in frames:
        h = re.search(r"RSS hash=0x([0-9a-f]+)", ln)
        e2e.check(h, "no RSS hash in %r" % ln)
        e2e.check(int(h.group(1), 16) % QUEUES == q,
                  "frame with hash 0x%s on queue %d" % (h.group(1), q))
    spread = {q for q, _ in frames}
    e2e.check(len(spread) > 1, "RSS of %d flows used only queues %r" % (total, spread))
    pmd.cmd("flow flush 0")

    # METER: srTCM CBS 640 + EBS 640 bytes let 10 green and 10 yellow 64-byte
    # frames through; the red ones are dropped and counted.
    for line in ("add port meter profile srtcm_rfc2697 0 1 1000 640 640 0",
                 "add port meter policy 0 1 g_actions end y_actions end r_actions drop / end",
                 "create port meter 0 1 1 1 yes 0xff 0 g 0"):
        e2e.check(pmd.cmd(line).strip() == "", "%r failed" % line)
    expect(pmd, "flow create 0 ingress pattern eth / ipv4 / end actions count / meter mtr_id 1 / "
                "queue index 0 / end", r"Flow rule #0 created")
    rx, _ = send(pmd, peer, 20)
    s = meter_stats(pmd, 1)
    print("meter: %d green, %d yellow, %d red (%d dropped), port received %d"
          % (s["green"], s["yellow"], s["red"], s["dropped"], rx), flush=True)
    e2e.check(s["green"] + s["yellow"] + s["red"] == total, "meter saw %r of %d" % (s, total))
    e2e.check(s["green"] >= 10 and s["yellow"] >= 10 and s["red"] > 0, "colours %r" % s)
    e2e.check(s["dropped"] == s["red"] and s["dropped_bytes"] == s["red"] * FRAME,
              "red frames not all dropped: %r" % s)
    e2e.check(rx == s["green"] + s["yellow"], "port received %d, meter passed %d"
              % (rx, s["green"] + s["yellow"]))
    e2e.check(query_count(pmd, 0)[0] == total, "COUNT before METER sees every frame")
    pmd.cmd("flow flush 0")
    pmd.cmd("del port meter 0 1")

    for line in ("port stop %d" % peer, "port close %d" % peer):
        pmd.cmd(line)


def scenario(args):
    run = e2e.work_dir("flow")
    sock = os.path.join(run, "vhost0")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=%d" % (sock, QUEUES)],
                         app_args=["--rxq=%d" % QUEUES, "--txq=%d" % QUEUES,
                                   "--tx-ip=10.0.0.1,10.0.0.2", "--tx-udp=3000,4000",
                                   "--txonly-multi-flow"],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()
            commands(pmd)
            traffic(pmd, sock)
            pmd.cmd("port stop 0")
            pmd.cmd("port close 0")
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
            e2e.check(not re.search(r"Segmentation fault|Aborted|PANIC", pmd.output),
                      "testpmd crashed")
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
