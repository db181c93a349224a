#!/usr/bin/env python3
"""The zorv1 diagnostics read through dpdk-telemetry.py on a running port.

testpmd runs a net_zorv1 port with two queue pairs, connected to a
virtio-user peer with two queue pairs, and forwards traffic. Every /zorv1/
telemetry command is then read from outside the process and checked against
the port's known state and against testpmd's own view of its counters.
"""
import os
import sys

sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import zorv_e2e as e2e  # noqa: E402

INVALID_SFI = 0xFFFFFFFF
RING_ENTRIES = 512
NB_DESC = 256
FRAME = 64
CP_COUNTERS = (
    "set_owner_fail set_owner_suc cache_start_flag_err enqueue_dev_null enqueue_queue_fail "
    "enqueue_vhost_len_fail enqueue_fail dequeue_dev_null dequeue_queue_fail dequeue_rarp_null "
    "dequeue_pmd pre_msg_path_fail post_msg_path_fail new_conn_err new_conn del_conn_err "
    "del_conn vring_state_fail vring_state_chg del_device_null del_device_suc add_device_null "
    "add_device_vq_no_ready add_device_install_err queue_setup_ignore queue_destroy_ignore "
    "add_device_success vhost_setup_fail eth_dev_configure vhost_list_null "
    "vhost_vring_state_null vhost_regist_fail vhost_vsocket_null vhost_callback_null "
    "vhost_driver_start_err vhost_driver_setup close_dev_null eth_dev_close eth_dev_stop "
    "flow_start_fail flow_close_fail start_dev_intr eth_dev_start send_msg_fail "
    "get_ethdev_fail").split()
# The card's totals follow the driver's counters.
CARD_COUNTERS = ["rx_mtu_drops", "tx_mtu_drops", "peers_refused", "peers_cut",
                 "rx_csum_completed", "rx_gso_frames", "rx_gso_segments", "rx_offload_bad",
                 "rx_offload_nombuf", "rx_ring_full"]
STATS_FIELDS = ("pkts bytes missed_pkts pkt_undersize pkt_64 pkt_65_to_127 pkt_128_to_255 "
                "pkt_256_to_511 pkt_512_to_1023 pkt_1024_to_1522 pkt_1523_to_max "
                "broadcast_pkt multicast_pkt unicast_pkt").split()


def tel(pmd, cmd):
    return e2e.telemetry_one(pmd.prefix, cmd)


def scenario(args):
    e2e.check(len(CP_COUNTERS) == 45, "counter list")
    run = e2e.work_dir("tel")
    sock = os.path.join(run, "vhost0")
    try:
        with e2e.Testpmd(args.lib, vdevs=["net_zorv1,iface=%s,queues=2" % sock],
                         app_args=["--rxq=2", "--txq=2", "--rxd=%d" % NB_DESC,
                                   "--txd=%d" % NB_DESC],
                         log_path=os.path.join(run, "testpmd.log")) as pmd:
            pmd.start()

            # All commands are registered and listed by the telemetry library.
            listed = e2e.telemetry_one(pmd.prefix, "/")
            for c in ("/zorv1/ports", "/zorv1/port_info", "/zorv1/qnum", "/zorv1/queue_info",
                      "/zorv1/queue_stats", "/zorv1/ring_info", "/zorv1/cp_stats", "/zorv1/card"):
                e2e.check(c in listed, "%s not among the telemetry commands" % c)

            e2e.check(tel(pmd, "/zorv1/ports") == ["net_zorv1"],
                      "ports: %r" % tel(pmd, "/zorv1/ports"))
            # Unknown names and malformed parameters are refused (null reply).
            for bad in ("/zorv1/port_info,nosuch", "/zorv1/qnum,nosuch",
                        "/zorv1/queue_info,net_zorv1", "/zorv1/queue_stats,net_zorv1,x",
                        "/zorv1/ring_info,nosuch,0", "/zorv1/ports,extra"):
                e2e.check(tel(pmd, bad) is None, "%s answered %r" % (bad, tel(pmd, bad)))

            cp0 = tel(pmd, "/zorv1/cp_stats")
            e2e.check(list(cp0) == CP_COUNTERS + CARD_COUNTERS, "cp_stats names: %r" % list(cp0))
            e2e.check(all(isinstance(v, int) and v >= 0 for v in cp0.values()),
                      "cp_stats values: %r" % cp0)
            e2e.check(cp0["eth_dev_configure"] >= 1 and cp0["eth_dev_start"] >= 1 and
                      cp0["vhost_driver_setup"] >= 1 and cp0["new_conn"] == 0,
                      "cp_stats of a started, unconnected port: %r" % cp0)

            # DPDK's own view of the started port: every queue started.
            ei = tel(pmd, "/ethdev/info,0")
            e2e.check(ei["dev_started"] == 1 and ei["rxq_state"] == [1, 1] and
                      ei["txq_state"] == [1, 1], "/ethdev/info of a started port: %r" % ei)

            mark = pmd.pos
            peer = pmd.attach_virtio_user(sock, queues=2)
            pmd.cmd("port start %d" % peer)
            pmd.wait_for(r"Port 0: link state change event", 10, since=mark)

            def bound():
                i = tel(pmd, "/zorv1/port_info,net_zorv1")
                return i if i["sfi"] != INVALID_SFI else None
            info = e2e.wait_until(bound, 10, 0.1)
            e2e.check(info is not None, "port never bound to a function")
            e2e.check(info["type"] == "dpu_vdev" and info["portid"] == 0 and
                      info["name"] == "net_zorv1" and info["start_flag"] == 1 and
                      info["vid"] >= 0 and 1 <= info["sfi"] <= 8191, "port_info: %r" % info)
            vid = info["vid"]

            qnum = tel(pmd, "/zorv1/qnum,net_zorv1")
            e2e.check(qnum["qnum"] == 4 and qnum["name"] == "net_zorv1" and
                      qnum["type"] == "dpu_vdev", "qnum: %r" % qnum)

            # Traffic on both queue pairs, then let what is in flight arrive.
            pmd.cmd("start tx_first 8")
            e2e.wait_until(lambda: e2e.parse_port_stats(pmd.cmd("show port stats 0"))[0]
                           ["RX-packets"] > 20000, 20, 0.2)
            pmd.cmd("stop")
            pmd.cmd("set fwd rxonly")
            pmd.cmd("start")

            def settled():
                s = e2e.parse_port_stats(pmd.cmd("show port stats all"))
                return s if (s[0]["RX-packets"] == s[peer]["TX-packets"] and
                             s[0]["TX-packets"] == s[peer]["RX-packets"]) else None
            stats = e2e.wait_until(settled, 10, 0.1)
            pmd.cmd("stop")
            e2e.check(stats is not None, "counters did not settle")
            port = stats[0]
            e2e.check(port["RX-packets"] > 0 and port["TX-packets"] > 0, "no traffic: %r" % port)

            # Queue records: qid = 2 x queue + direction.
            local_ids = {}
            for qid in range(4):
                q = tel(pmd, "/zorv1/queue_info,net_zorv1,%d" % qid)
                rx = qid % 2 == 0
                e2e.check(q["valid"] == 1 and q["qid"] == qid and q["queue"] == qid // 2 and
                          q["direction"] == ("rx" if rx else "tx") and q["vid"] == vid and
                          q["port"] == 0 and q["virtqueue_id"] == qid and
                          q["allow_queuing"] == 1 and q["while_queuing"] == 0,
                          "queue_info qid %d: %r" % (qid, q))
                if rx:
                    e2e.check(q["nb_rx_desc"] == NB_DESC and q["local_id"] >= 0 and
                              "pci_qid" not in q, "rx queue_info qid %d: %r" % (qid, q))
                    local_ids[qid // 2] = q["local_id"]
                else:
                    e2e.check("pci_qid" in q and "local_id" not in q,
                              "tx queue_info qid %d: %r" % (qid, q))
            e2e.check(len(set(local_ids.values())) == 2, "rings shared: %r" % local_ids)
            q = tel(pmd, "/zorv1/queue_info,net_zorv1,4")
            e2e.check(q is not None and q["valid"] == 0, "qid beyond the queues: %r" % q)

            # Queue counters add up to the port's statistics.
            sums = {"rx": dict.fromkeys(STATS_FIELDS, 0), "tx": dict.fromkeys(STATS_FIELDS, 0)}
            for qid in range(4):
                s = tel(pmd, "/zorv1/queue_stats,net_zorv1,%d" % qid)
                e2e.check(s["valid"] == 1 and s["qid"] == qid and s["name"] == "net_zorv1",
                          "queue_stats qid %d: %r" % (qid, s))
                e2e.check(s["pkts"] > 0, "no traffic on qid %d: %r" % (qid, s))
                e2e.check(s["pkt_64"] == s["pkts"] == s["unicast_pkt"] and
                          s["bytes"] == FRAME * s["pkts"],
                          "queue_stats qid %d of 64-byte unicast frames: %r" % (qid, s))
                for f in STATS_FIELDS:
                    sums["rx" if qid % 2 == 0 else "tx"][f] += s[f]
            e2e.check(sums["rx"]["pkts"] == port["RX-packets"] and
                      sums["rx"]["bytes"] == port["RX-bytes"] and
                      sums["tx"]["pkts"] == port["TX-packets"] and
                      sums["tx"]["bytes"] == port["TX-bytes"],
                      "queue_stats sums %r != port stats %r" % (sums, port))
            s = tel(pmd, "/zorv1/queue_stats,net_zorv1,5")
            e2e.check(s is not None and s["valid"] == 0, "qid beyond the queues: %r" % s)

            # Ring of each receive queue; a tx qid reports its pair's ring.
            for qid in range(4):
                r = tel(pmd, "/zorv1/ring_info,net_zorv1,%d" % qid)
                e2e.check(r["qid"] == qid and r["vid"] == vid and
                          r["local_id"] == local_ids[qid // 2] and r["ring"] != "",
                          "ring_info qid %d: %r" % (qid, r))
                e2e.check(r["capacity"] == RING_ENTRIES and r["size"] >= RING_ENTRIES and
                          r["size"] & (r["size"] - 1) == 0,
                          "ring of %d entries: %r" % (RING_ENTRIES, r))
                e2e.check(r["used"] + r["avail"] == r["capacity"] and
                          r["used"] == (r["pt"] - r["ct"]) % 2**32 and
                          r["ct"] == r["ch"] and r["pt"] == r["ph"],
                          "ring indices of an idle ring: %r" % r)

            cp = tel(pmd, "/zorv1/cp_stats")
            e2e.check(cp["new_conn"] == 1 and cp["del_conn"] == 0 and
                      cp["add_device_success"] >= 1 and cp["send_msg_fail"] == 0,
                      "cp_stats of a connected port: %r" % cp)

            # After the peer leaves: unbound, vid kept, no ring by vid lookup
            # needed to still answer the other commands.
            pmd.cmd("port stop %d" % peer)
            pmd.cmd("port close %d" % peer)
            info = e2e.wait_until(
                lambda: (lambda i: i if i["sfi"] == INVALID_SFI else None)(
                    tel(pmd, "/zorv1/port_info,net_zorv1")), 10, 0.1)
            e2e.check(info is not None and info["vid"] == vid, "after disconnect: %r" % info)
            cp = tel(pmd, "/zorv1/cp_stats")
            e2e.check(cp["del_conn"] == 1, "del_conn after disconnect: %r" % cp["del_conn"])
            for qid in (0, 1):
                q = tel(pmd, "/zorv1/queue_info,net_zorv1,%d" % qid)
                e2e.check(q["allow_queuing"] == 0, "gate open without a peer: %r" % q)

            pmd.cmd("port stop 0")
            ei = tel(pmd, "/ethdev/info,0")
            e2e.check(ei["dev_started"] == 0 and ei["rxq_state"] == [0, 0] and
                      ei["txq_state"] == [0, 0], "/ethdev/info of a stopped port: %r" % ei)
            pmd.cmd("port start 0")
            ei = tel(pmd, "/ethdev/info,0")
            e2e.check(ei["rxq_state"] == [1, 1] and ei["txq_state"] == [1, 1],
                      "/ethdev/info after a restart: %r" % ei)
            pmd.cmd("port stop 0")
            pmd.cmd("port close 0")
            e2e.check(tel(pmd, "/zorv1/ports") == [], "closed port still listed")
            e2e.check(tel(pmd, "/zorv1/cp_stats")["eth_dev_close"] >= 1, "close not counted")
            e2e.check(pmd.quit() == 0, "testpmd exit code %s" % pmd.proc.returncode)
    finally:
        e2e.remove_tree(run)


if __name__ == "__main__":
    e2e.main(scenario)
