/* SPDX-License-Identifier: BSD-3-Clause
 * Cost of the flow engine on the emulated card's receive path, in TSC
 * cycles per packet.
 *
 * The card's hook is timed on bursts of 32 received 64-byte UDP frames:
 *
 *     if (zorv_flow_active(&internal->comm.flow_data))
 *             n = zorv_flow_rx_dispatch(&internal->comm.flow_data, rxq, pkts, n);
 *
 * Cells:
 *   bare          the same loop without the hook (what the receive path
 *                 costs here anyway: the loop and the indirect call)
 *   no rule       the hook on a port without rules (one load and compare)
 *   1 rule, miss  one rule (ETH / IPV4 dst / UDP dst -> QUEUE) that matches
 *                 no frame: every frame is parsed and compared once
 *   8 rules, miss eight such rules
 *   1 rule, hit   one rule that matches every frame (MARK + COUNT, frames
 *                 stay on their queue)
 *   1000 rules, miss  1,000 rules of the shapes users install, 200 each:
 *                 ETH/IPV4 src /24 + dst/UDP dst -> QUEUE; ETH/IPV4/TCP
 *                 5-tuple -> RSS; ETH/IPV4/UDP 4789/VXLAN VNI -> MARK +
 *                 QUEUE; ETH/VLAN id -> DROP; ETH/IPV4 dst/UDP src + dst
 *                 -> COUNT + QUEUE. None matches the frames.
 *   1000 rules, hit   the same plus one rule that matches every frame
 *                 (MARK + COUNT); its counter must grow by every frame.
 * After the timing, rule insertion and deletion are timed (rules per second)
 * for the five hash shapes, 1,000 rules on an empty port, and again while
 * another thread classifies bursts without pause; that thread checks every
 * frame's verdict and mark on every burst.
 * The difference to "bare" is what the engine adds. Every run repeats all
 * cells, interleaved; results are median, min and max over the runs. Each
 * measurement checks that the hook left the burst whole (no frame moved or
 * dropped) and, for the hit cell, that every frame got its mark.
 *
 * With --count-calls N the timing is skipped: every cell runs N bursts,
 * checked as usual, and under callgrind each cell's instructions are dumped
 * on their own ("flow <cell> packets <n>"), a per-packet cost that does not
 * move with the machine's load (scripts/bench_flow_instr.sh).
 *
 * Usage: bench_flow [--runs N] [--cell-ms MS] [--cpu N] [--count-calls N]
 * The markdown report goes to stdout; DPDK's log goes to stderr.
 */
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

#include <ethdev_driver.h>
#include <rte_cycles.h>
#include <rte_eal.h>
#include <rte_ether.h>
#include <rte_flow.h>
#include <rte_ip.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_pause.h>
#include <rte_udp.h>
#include <valgrind/callgrind.h>

#include "zorv1_common.h"
#include "zorv1_vhost.h"
#include "zorv_flow.h"

namespace {

constexpr uint16_t BURST = 32;
constexpr uint16_t NB_RXQ = 4;
constexpr uint16_t FRAME_LEN = 64;
constexpr uint64_t PILOT_ITERS = 2000;

struct options {
	unsigned int runs = 7;
	unsigned int cell_ms = 200;
	int cpu = 0;
	unsigned int count_calls = 0; /* instruction-count mode when non-zero */
};

const struct eth_dev_ops g_flow_ops = {
	.udp_tunnel_port_add = zorv_dev_udp_tunnel_port_add,
	.flow_ops_get = zorv_dev_flow_ops_get,
	.mtr_ops_get = zorv_mtr_ops_get,
};

struct bench_port {
	struct rte_eth_dev *dev = nullptr;
	struct zorv1_internal *internal = nullptr;
	std::array<struct zorv1_vdev_rxq, NB_RXQ> rxq{};
	struct rte_mempool *pool = nullptr;
	std::array<struct rte_mbuf *, BURST> frames{};
	std::vector<struct rte_flow *> rules;
};

bench_port g_port;

using hook_fn = uint16_t (*)(struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t);

/* What the receive path does with its burst when there is no hook. */
__attribute__((noinline)) uint16_t bare_hook(struct zorv1_vdev_rxq *, struct rte_mbuf **,
					      uint16_t n)
{
	return n;
}

/* The card's hook. */
__attribute__((noinline)) uint16_t card_hook(struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts,
					      uint16_t n)
{
	struct zorv_flow_priv *flow = &rxq->internal->comm.flow_data;
	if (zorv_flow_active(flow))
		n = zorv_flow_rx_dispatch(flow, rxq, pkts, n);
	return n;
}

/* The timed loop; the barrier keeps the call indirect, as in a driver. */
__attribute__((noinline)) uint64_t time_loop(hook_fn fn, uint64_t iters, uint64_t *kept)
{
	struct rte_mbuf *burst[BURST];
	uint64_t total = 0;

	asm volatile("" : "+r"(fn));
	uint64_t t0 = rte_rdtsc_precise();
	for (uint64_t i = 0; i < iters; i++) {
		memcpy(burst, g_port.frames.data(), sizeof(burst));
		total += fn(&g_port.rxq[0], burst, BURST);
	}
	uint64_t t1 = rte_rdtsc_precise();
	*kept = total;
	return t1 - t0;
}

struct cell {
	const char *name;
	hook_fn fn;
	unsigned int rules; /* non-matching rules installed */
	bool hit;           /* plus one rule matching every frame */
	bool shapes = false; /* the rules are the five realistic shapes, not one */
	uint64_t iters = 0;
	std::vector<double> samples; /* cycles per packet */
};

int fail(const char *what)
{
	fprintf(stderr, "bench_flow: %s\n", what);
	return 1;
}

struct rte_flow *add_rule(uint32_t dst, uint16_t dport, bool hit)
{
	struct rte_flow_item_ipv4 ip = {}, ipm = {};
	ip.hdr.dst_addr = rte_cpu_to_be_32(dst);
	ipm.hdr.dst_addr = RTE_BE32(0xffffffff);
	struct rte_flow_item_udp udp = {}, udpm = {};
	udp.hdr.dst_port = rte_cpu_to_be_16(dport);
	udpm.hdr.dst_port = RTE_BE16(0xffff);
	struct rte_flow_item pattern[4] = {};
	pattern[0].type = RTE_FLOW_ITEM_TYPE_ETH;
	pattern[1].type = RTE_FLOW_ITEM_TYPE_IPV4;
	pattern[1].spec = &ip;
	pattern[1].mask = &ipm;
	pattern[2].type = RTE_FLOW_ITEM_TYPE_UDP;
	pattern[2].spec = &udp;
	pattern[2].mask = &udpm;
	pattern[3].type = RTE_FLOW_ITEM_TYPE_END;
	struct rte_flow_action_queue q = {1};
	struct rte_flow_action_mark mark = {7};
	struct rte_flow_action actions[4] = {};
	if (hit) {
		actions[0].type = RTE_FLOW_ACTION_TYPE_MARK;
		actions[0].conf = &mark;
		actions[1].type = RTE_FLOW_ACTION_TYPE_COUNT;
	} else {
		actions[0].type = RTE_FLOW_ACTION_TYPE_QUEUE;
		actions[0].conf = &q;
		actions[1].type = RTE_FLOW_ACTION_TYPE_END;
	}
	actions[2].type = RTE_FLOW_ACTION_TYPE_END;
	struct rte_flow_attr attr = {};
	attr.ingress = 1;
	struct rte_flow_error err;
	struct rte_flow *f = rte_flow_create(g_port.dev->data->port_id, &attr, pattern, actions, &err);
	if (f == nullptr)
		fprintf(stderr, "rule refused: %s\n", err.message ? err.message : "?");
	return f;
}

/* Rule i of the realistic mix: shape i % 5, values from i; matches no bench frame. */
struct rte_flow *add_shaped_rule(unsigned int i)
{
	const unsigned int v = i / 5;
	struct rte_flow_item_eth eth = {}, ethm = {};
	struct rte_flow_item_vlan vlan = {}, vlanm = {};
	struct rte_flow_item_ipv4 ip = {}, ipm = {};
	struct rte_flow_item_udp udp = {}, udpm = {};
	struct rte_flow_item_tcp tcp = {}, tcpm = {};
	struct rte_flow_item_vxlan vx = {}, vxm = {};
	struct rte_flow_item pattern[6] = {};
	unsigned int np = 0;
	static const uint16_t rss_queues[NB_RXQ] = {0, 1, 2, 3};
	struct rte_flow_action_queue q = {static_cast<uint16_t>(1 + v % (NB_RXQ - 1))};
	struct rte_flow_action_mark mark = {1000 + i};
	struct rte_flow_action_rss rss = {};
	rss.types = RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_NONFRAG_IPV4_TCP | RTE_ETH_RSS_NONFRAG_IPV4_UDP;
	rss.queue_num = NB_RXQ;
	rss.queue = rss_queues;
	struct rte_flow_action actions[4] = {};
	auto item = [&](enum rte_flow_item_type type, const void *spec, const void *mask) {
		pattern[np].type = type;
		pattern[np].spec = spec;
		pattern[np].mask = mask;
		np++;
	};

	item(RTE_FLOW_ITEM_TYPE_ETH, nullptr, nullptr);
	switch (i % 5) {
	case 0: /* UDP flow to a service from a /24: QUEUE */
		ip.hdr.src_addr = rte_cpu_to_be_32(RTE_IPV4(198, 18, v & 0xff, 0));
		ipm.hdr.src_addr = RTE_BE32(0xffffff00);
		ip.hdr.dst_addr = rte_cpu_to_be_32(RTE_IPV4(192, 0, 2, 1));
		ipm.hdr.dst_addr = RTE_BE32(0xffffffff);
		udp.hdr.dst_port = rte_cpu_to_be_16(static_cast<uint16_t>(5000 + v));
		udpm.hdr.dst_port = RTE_BE16(0xffff);
		item(RTE_FLOW_ITEM_TYPE_IPV4, &ip, &ipm);
		item(RTE_FLOW_ITEM_TYPE_UDP, &udp, &udpm);
		actions[0] = {RTE_FLOW_ACTION_TYPE_QUEUE, &q};
		break;
	case 1: /* TCP 5-tuple: RSS */
		ip.hdr.src_addr = rte_cpu_to_be_32(RTE_IPV4(198, 19, 0, v & 0xff));
		ip.hdr.dst_addr = rte_cpu_to_be_32(RTE_IPV4(192, 0, 2, 2));
		ipm.hdr.src_addr = ipm.hdr.dst_addr = RTE_BE32(0xffffffff);
		ip.hdr.next_proto_id = IPPROTO_TCP;
		ipm.hdr.next_proto_id = 0xff;
		tcp.hdr.src_port = rte_cpu_to_be_16(static_cast<uint16_t>(30000 + v));
		tcp.hdr.dst_port = RTE_BE16(443);
		tcpm.hdr.src_port = tcpm.hdr.dst_port = RTE_BE16(0xffff);
		item(RTE_FLOW_ITEM_TYPE_IPV4, &ip, &ipm);
		item(RTE_FLOW_ITEM_TYPE_TCP, &tcp, &tcpm);
		actions[0] = {RTE_FLOW_ACTION_TYPE_RSS, &rss};
		break;
	case 2: /* VXLAN VNI: MARK + QUEUE */
		udp.hdr.dst_port = RTE_BE16(4789);
		udpm.hdr.dst_port = RTE_BE16(0xffff);
		vx.vni[0] = static_cast<uint8_t>(v >> 16);
		vx.vni[1] = static_cast<uint8_t>(v >> 8);
		vx.vni[2] = static_cast<uint8_t>(v);
		memset(vxm.vni, 0xff, 3);
		item(RTE_FLOW_ITEM_TYPE_IPV4, nullptr, nullptr);
		item(RTE_FLOW_ITEM_TYPE_UDP, &udp, &udpm);
		item(RTE_FLOW_ITEM_TYPE_VXLAN, &vx, &vxm);
		actions[0] = {RTE_FLOW_ACTION_TYPE_MARK, &mark};
		actions[1] = {RTE_FLOW_ACTION_TYPE_QUEUE, &q};
		break;
	case 3: /* VLAN id: DROP */
		eth.has_vlan = 1;
		ethm.has_vlan = 1;
		pattern[0].spec = &eth;
		pattern[0].mask = &ethm;
		vlan.hdr.vlan_tci = rte_cpu_to_be_16(static_cast<uint16_t>(100 + v));
		vlanm.hdr.vlan_tci = RTE_BE16(0x0fff);
		item(RTE_FLOW_ITEM_TYPE_VLAN, &vlan, &vlanm);
		actions[0] = {RTE_FLOW_ACTION_TYPE_DROP, nullptr};
		break;
	default: /* UDP source and destination port to one address: COUNT + QUEUE */
		ip.hdr.dst_addr = rte_cpu_to_be_32(RTE_IPV4(192, 0, 2, 3));
		ipm.hdr.dst_addr = RTE_BE32(0xffffffff);
		udp.hdr.src_port = rte_cpu_to_be_16(static_cast<uint16_t>(20000 + v));
		udp.hdr.dst_port = RTE_BE16(53);
		udpm.hdr.src_port = udpm.hdr.dst_port = RTE_BE16(0xffff);
		item(RTE_FLOW_ITEM_TYPE_IPV4, &ip, &ipm);
		item(RTE_FLOW_ITEM_TYPE_UDP, &udp, &udpm);
		actions[0] = {RTE_FLOW_ACTION_TYPE_COUNT, nullptr};
		actions[1] = {RTE_FLOW_ACTION_TYPE_QUEUE, &q};
		break;
	}
	pattern[np].type = RTE_FLOW_ITEM_TYPE_END;
	struct rte_flow_attr attr = {};
	attr.ingress = 1;
	attr.priority = i % 3;
	struct rte_flow_error err;
	struct rte_flow *f = rte_flow_create(g_port.dev->data->port_id, &attr, pattern, actions, &err);
	if (f == nullptr)
		fprintf(stderr, "shaped rule %u refused: %s\n", i, err.message ? err.message : "?");
	return f;
}

/* Hits of the COUNT rule, or UINT64_MAX when the query fails. */
uint64_t rule_hits(struct rte_flow *f)
{
	struct rte_flow_query_count qc = {};
	struct rte_flow_action count = {RTE_FLOW_ACTION_TYPE_COUNT, nullptr};
	struct rte_flow_error err;
	if (rte_flow_query(g_port.dev->data->port_id, f, &count, &qc, &err) != 0 || !qc.hits_set)
		return UINT64_MAX;
	return qc.hits;
}

struct rte_flow *g_hit_rule;

int install(const cell &c)
{
	struct rte_flow_error err;
	if (rte_flow_flush(g_port.dev->data->port_id, &err) != 0)
		return fail("flush failed");
	g_hit_rule = nullptr;
	for (unsigned int i = 0; i < c.rules; i++) {
		struct rte_flow *f = c.shapes ? add_shaped_rule(i)
			: add_rule(RTE_IPV4(192, 0, 2, 100 + i), static_cast<uint16_t>(5000 + i), false);
		if (f == nullptr)
			return fail("cannot install a rule");
	}
	if (c.hit && (g_hit_rule = add_rule(RTE_IPV4(10, 0, 0, 2), 9, true)) == nullptr)
		return fail("cannot install the matching rule");
	bool active = zorv_flow_active(&g_port.internal->comm.flow_data);
	if (active != (c.rules != 0 || c.hit))
		return fail("receive-path switch does not follow the rules");
	return 0;
}

int setup_port()
{
	struct rte_eth_dev *dev = rte_eth_dev_allocate("bench_flow_port");
	if (dev == nullptr)
		return fail("cannot allocate the port");
	dev->data->dev_private = rte_zmalloc(nullptr, sizeof(struct zorv1_internal), 64);
	dev->data->rx_queues = static_cast<void **>(rte_zmalloc(nullptr, sizeof(void *) * NB_RXQ, 64));
	if (dev->data->dev_private == nullptr || dev->data->rx_queues == nullptr)
		return fail("no memory");
	dev->data->nb_rx_queues = NB_RXQ;
	dev->dev_ops = &g_flow_ops;
	rte_eth_dev_probing_finish(dev);
	g_port.dev = dev;
	g_port.internal = static_cast<struct zorv1_internal *>(dev->data->dev_private);
	g_port.internal->max_queues = NB_RXQ;
	if (zorv_flow_resource_init(dev, 1) != 0)
		return fail("flow resources");
	struct rte_eth_udp_tunnel vxlan = {4789, RTE_ETH_TUNNEL_TYPE_VXLAN};
	if (rte_eth_dev_udp_tunnel_port_add(dev->data->port_id, &vxlan) != 0)
		return fail("cannot announce the VXLAN port");
	for (uint16_t q = 0; q < NB_RXQ; q++) {
		g_port.rxq[q].internal = g_port.internal;
		g_port.rxq[q].port = dev->data->port_id;
		g_port.rxq[q].virtqueue_id = static_cast<uint16_t>(q * ZORV1_QNUM);
		g_port.rxq[q].local_id = zorv1_ring_create(512);
		dev->data->rx_queues[q] = &g_port.rxq[q];
	}

	g_port.pool = rte_pktmbuf_pool_create("bench_flow_pool", 255, 0, 0,
					      RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
	if (g_port.pool == nullptr)
		return fail("no mbuf pool");
	for (uint16_t i = 0; i < BURST; i++) {
		struct rte_mbuf *m = rte_pktmbuf_alloc(g_port.pool);
		if (m == nullptr)
			return fail("no mbuf");
		auto *p = rte_pktmbuf_mtod(m, uint8_t *);
		memset(p, 0, FRAME_LEN);
		auto *eth = reinterpret_cast<struct rte_ether_hdr *>(p);
		eth->dst_addr = {{0x02, 0, 0, 0, 0, 0x02}};
		eth->src_addr = {{0x02, 0, 0, 0, 0, 0x01}};
		eth->ether_type = RTE_BE16(RTE_ETHER_TYPE_IPV4);
		auto *ip = reinterpret_cast<struct rte_ipv4_hdr *>(eth + 1);
		ip->version_ihl = 0x45;
		ip->time_to_live = 64;
		ip->next_proto_id = IPPROTO_UDP;
		ip->src_addr = rte_cpu_to_be_32(RTE_IPV4(10, 0, 0, 1) + i);
		ip->dst_addr = rte_cpu_to_be_32(RTE_IPV4(10, 0, 0, 2));
		auto *udp = reinterpret_cast<struct rte_udp_hdr *>(ip + 1);
		udp->src_port = rte_cpu_to_be_16(static_cast<uint16_t>(1000 + i));
		udp->dst_port = RTE_BE16(9);
		m->data_len = FRAME_LEN;
		m->pkt_len = FRAME_LEN;
		g_port.frames[i] = m;
	}
	return 0;
}

double median(std::vector<double> v)
{
	std::sort(v.begin(), v.end());
	size_t n = v.size();
	return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

int run_cell(cell &c, uint64_t iters)
{
	if (install(c) != 0)
		return 1;
	for (auto *m : g_port.frames)
		m->ol_flags = 0;
	uint64_t kept = 0;
	const uint64_t hits0 = g_hit_rule != nullptr ? rule_hits(g_hit_rule) : 0;
	uint64_t cycles = time_loop(c.fn, iters, &kept);
	if (kept != iters * BURST)
		return fail("the hook moved or dropped frames");
	if (g_hit_rule != nullptr && rule_hits(g_hit_rule) - hits0 != iters * BURST)
		return fail("the matching rule did not count every frame");
	if (c.hit)
		for (auto *m : g_port.frames)
			if (!(m->ol_flags & RTE_MBUF_F_RX_FDIR_ID) || m->hash.fdir.hi != 7)
				return fail("a matching frame lacks its mark");
	c.samples.push_back(static_cast<double>(cycles) / static_cast<double>(iters * BURST));
	return 0;
}

constexpr unsigned int RATE_RULES = 1000;

/*
 * Insert RATE_RULES shaped rules one by one, then destroy them one by one,
 * timing both. With traffic, the matching MARK+COUNT rule stays installed
 * and a second thread classifies the bench frames on queue 1 meanwhile,
 * checking on every burst that every frame stays on its queue with its mark:
 * a frame that saw a half-built table would not.
 */
int time_rates(bool traffic, double *ins, double *del, uint64_t *bursts, uint64_t *bad)
{
	struct rte_flow_error err;
	if (rte_flow_flush(g_port.dev->data->port_id, &err) != 0)
		return fail("flush failed");
	std::atomic<bool> stop{false};
	std::atomic<uint64_t> n_bursts{0}, n_bad{0};
	std::thread reader;
	if (traffic) {
		if (add_rule(RTE_IPV4(10, 0, 0, 2), 9, true) == nullptr)
			return fail("cannot install the matching rule");
		reader = std::thread([&] {
			/* A polling thread of its own CPU, as on a real port. */
			cpu_set_t all;
			CPU_ZERO(&all);
			for (int c = 0; c < CPU_SETSIZE; c++)
				CPU_SET(c, &all);
			pthread_setaffinity_np(pthread_self(), sizeof(all), &all);
			struct zorv_flow_priv *flow = &g_port.internal->comm.flow_data;
			uint16_t v[BURST];
			while (!stop.load(std::memory_order_relaxed)) {
				for (auto *m : g_port.frames)
					m->ol_flags = 0;
				uint16_t moved = zorv_flow_classify(flow, NB_RXQ, g_port.frames.data(), BURST,
								    1, v);
				uint64_t wrong = moved;
				for (uint16_t i = 0; i < BURST; i++)
					wrong += v[i] != 1 || !(g_port.frames[i]->ol_flags & RTE_MBUF_F_RX_FDIR_ID) ||
						 g_port.frames[i]->hash.fdir.hi != 7;
				n_bad.fetch_add(wrong, std::memory_order_relaxed);
				n_bursts.fetch_add(1, std::memory_order_relaxed);
			}
		});
		/* Let the reader start before the rules change. */
		while (n_bursts.load() < 100)
			rte_pause();
	}
	std::vector<struct rte_flow *> rules;
	const uint64_t hz = rte_get_tsc_hz();
	uint64_t t0 = rte_rdtsc_precise();
	for (unsigned int i = 0; i < RATE_RULES; i++) {
		struct rte_flow *f = add_shaped_rule(i);
		if (f == nullptr)
			break;
		rules.push_back(f);
	}
	uint64_t t1 = rte_rdtsc_precise();
	bool destroyed = true;
	for (auto *f : rules)
		destroyed &= rte_flow_destroy(g_port.dev->data->port_id, f, &err) == 0;
	uint64_t t2 = rte_rdtsc_precise();
	if (traffic) {
		uint64_t seen = n_bursts.load();
		while (n_bursts.load() < seen + 100)
			rte_pause();
		stop = true;
		reader.join();
		*bursts = n_bursts.load();
		*bad = n_bad.load();
	}
	if (rules.size() != RATE_RULES || !destroyed)
		return fail("a rule could not be inserted or destroyed");
	if (traffic && *bad != 0)
		return fail("the reader saw misclassified frames while rules changed");
	*ins = RATE_RULES * static_cast<double>(hz) / static_cast<double>(t1 - t0);
	*del = RATE_RULES * static_cast<double>(hz) / static_cast<double>(t2 - t1);
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	options opt;
	for (int i = 1; i < argc; i++) {
		std::string a = argv[i];
		if (a == "--runs" && i + 1 < argc)
			opt.runs = static_cast<unsigned int>(atoi(argv[++i]));
		else if (a == "--cell-ms" && i + 1 < argc)
			opt.cell_ms = static_cast<unsigned int>(atoi(argv[++i]));
		else if (a == "--cpu" && i + 1 < argc)
			opt.cpu = atoi(argv[++i]);
		else if (a == "--count-calls" && i + 1 < argc)
			opt.count_calls = static_cast<unsigned int>(atoi(argv[++i]));
		else {
			fprintf(stderr, "usage: %s [--runs N] [--cell-ms MS] [--cpu N] [--count-calls N]\n", argv[0]);
			return 2;
		}
	}
	std::string prefix = "--file-prefix=bench_flow_" + std::to_string(getpid());
	std::string lcores = "--lcores=0@" + std::to_string(opt.cpu);
	std::vector<std::string> eal = {argv[0], lcores, "--no-huge", "--no-pci", "-m", "256",
					"--no-telemetry", prefix, "--log-level=lib.eal:warning"};
	std::vector<char *> eargv;
	for (auto &s : eal)
		eargv.push_back(s.data());
	if (rte_eal_init(static_cast<int>(eargv.size()), eargv.data()) < 0)
		return fail("rte_eal_init failed");
	std::string runtime = rte_eal_get_runtime_dir();

	int ret = setup_port();
	std::vector<cell> cells = {
		{"bare (no hook)", bare_hook, 0, false},
		{"hook, no rule", card_hook, 0, false},
		{"hook, 1 rule, no match", card_hook, 1, false},
		{"hook, 8 rules, no match", card_hook, 8, false},
		{"hook, 1 rule, match (MARK+COUNT)", card_hook, 0, true},
		{"hook, 1000 rules (5 shapes), no match", card_hook, 1000, false, true},
		{"hook, 1000 rules (5 shapes) + 1, match (MARK+COUNT)", card_hook, 1000, true, true},
	};
	const uint64_t hz = rte_get_tsc_hz();
	if (ret == 0 && opt.count_calls != 0) {
		for (cell &c : cells) {
			if ((ret = run_cell(c, opt.count_calls)) != 0)
				break;
			char name[128];
			snprintf(name, sizeof(name), "flow %s packets %lu", c.name,
				 static_cast<unsigned long>(opt.count_calls) * BURST);
			CALLGRIND_ZERO_STATS;
			uint64_t kept;
			time_loop(c.fn, opt.count_calls, &kept);
			CALLGRIND_DUMP_STATS_AT(name);
			if (kept != static_cast<uint64_t>(opt.count_calls) * BURST) {
				ret = fail("the hook moved or dropped frames");
				break;
			}
		}
		opt.runs = 0;
	}
	for (size_t k = 0; ret == 0 && opt.runs != 0 && k < cells.size(); k++) {
		/* Pilot: calls per cell for about cell_ms. */
		cell &c = cells[k];
		ret = install(c);
		uint64_t kept;
		uint64_t cyc = ret == 0 ? time_loop(c.fn, PILOT_ITERS, &kept) : 1;
		c.iters = std::max<uint64_t>(PILOT_ITERS, hz / 1000 * opt.cell_ms * PILOT_ITERS /
								  std::max<uint64_t>(cyc, 1));
	}
	for (unsigned int r = 0; ret == 0 && r < opt.runs; r++)
		for (cell &c : cells)
			if ((ret = run_cell(c, c.iters)) != 0)
				break;

	struct rate_result {
		double insert_s = 0, delete_s = 0; /* rules per second */
		uint64_t bursts = 0, bad = 0;      /* reader's bursts and wrong frames */
	};
	rate_result quiet, busy;
	if (ret == 0 && opt.count_calls != 0) {
		printf("count mode: %zu cells of %u bursts each, all checked\n", cells.size(),
		       opt.count_calls);
		opt.runs = 0;
	}
	if (ret == 0 && opt.runs != 0)
		ret = time_rates(false, &quiet.insert_s, &quiet.delete_s, nullptr, nullptr);
	if (ret == 0 && opt.runs != 0)
		ret = time_rates(true, &busy.insert_s, &busy.delete_s, &busy.bursts, &busy.bad);

	if (ret == 0 && opt.runs != 0) {
		printf("# Flow engine on the receive path (cycles per packet)\n\n");
		printf("TSC %.3f GHz, CPU %d, bursts of %u frames of %u bytes, %u runs of %u ms per cell.\n\n",
		       static_cast<double>(hz) / 1e9, sched_getcpu(), BURST,
		       FRAME_LEN, opt.runs, opt.cell_ms);
		printf("| cell | median | min | max | median - bare |\n|---|---|---|---|---|\n");
		double bare = median(cells[0].samples);
		for (const cell &c : cells) {
			double med = median(c.samples);
			printf("| %s | %.2f | %.2f | %.2f | %+.2f |\n", c.name, med,
			       *std::min_element(c.samples.begin(), c.samples.end()),
			       *std::max_element(c.samples.begin(), c.samples.end()), med - bare);
		}
		printf("\n## Rule insertion and deletion (%u rules of the five shapes)\n\n", RATE_RULES);
		printf("| condition | insertions/s | deletions/s | reader bursts | frames misclassified |\n");
		printf("|---|---|---|---|---|\n");
		printf("| no traffic | %.0f | %.0f | - | - |\n", quiet.insert_s, quiet.delete_s);
		printf("| a thread classifying without pause | %.0f | %.0f | %lu | %lu |\n",
		       busy.insert_s, busy.delete_s, static_cast<unsigned long>(busy.bursts),
		       static_cast<unsigned long>(busy.bad));
	}

	struct rte_flow_error err;
	if (g_port.dev != nullptr) {
		rte_flow_flush(g_port.dev->data->port_id, &err);
		zorv_flow_resource_free(g_port.dev);
		for (uint16_t q = 0; q < NB_RXQ; q++)
			zorv1_ring_destroy(g_port.rxq[q].local_id);
	}
	for (auto *m : g_port.frames)
		rte_pktmbuf_free(m);
	rte_eal_cleanup();
	std::error_code ec;
	if (runtime.find(std::to_string(getpid())) != std::string::npos)
		std::filesystem::remove_all(runtime, ec);
	return ret;
}
