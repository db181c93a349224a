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
 * The difference to "bare" is what the engine adds. Every run repeats all
 * cells, interleaved; results are median, min and max over the runs. Each
 * measurement checks that the hook left the burst whole (no frame moved or
 * dropped) and, for the hit cell, that every frame got its mark.
 *
 * Usage: bench_flow [--runs N] [--cell-ms MS] [--cpu N]
 * The markdown report goes to stdout; DPDK's log goes to stderr.
 */
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <system_error>
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
#include <rte_udp.h>

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

int install(const cell &c)
{
	struct rte_flow_error err;
	if (rte_flow_flush(g_port.dev->data->port_id, &err) != 0)
		return fail("flush failed");
	for (unsigned int i = 0; i < c.rules; i++)
		if (add_rule(RTE_IPV4(192, 0, 2, 100 + i), static_cast<uint16_t>(5000 + i), false) == nullptr)
			return fail("cannot install a rule");
	if (c.hit && add_rule(RTE_IPV4(10, 0, 0, 2), 9, true) == nullptr)
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
	uint64_t cycles = time_loop(c.fn, iters, &kept);
	if (kept != iters * BURST)
		return fail("the hook moved or dropped frames");
	if (c.hit)
		for (auto *m : g_port.frames)
			if (!(m->ol_flags & RTE_MBUF_F_RX_FDIR_ID) || m->hash.fdir.hi != 7)
				return fail("a matching frame lacks its mark");
	c.samples.push_back(static_cast<double>(cycles) / static_cast<double>(iters * BURST));
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
		else {
			fprintf(stderr, "usage: %s [--runs N] [--cell-ms MS] [--cpu N]\n", argv[0]);
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
	};
	const uint64_t hz = rte_get_tsc_hz();
	for (size_t k = 0; ret == 0 && k < cells.size(); k++) {
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

	if (ret == 0) {
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
