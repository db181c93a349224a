/* SPDX-License-Identifier: BSD-3-Clause
 * Cost of the port's receive and transmit bursts, in TSC cycles.
 *
 * The driver's bursts run on queue records made here (gate open: port
 * started, hardware function bound) over a transport that only passes mbuf
 * pointers (bench_services.cpp). Beside each burst the same transport is
 * called directly, in chunks of 32, without the gate and without counting:
 * the bare transport call loop. What the driver adds per packet is the
 * difference of the two, taken run by run.
 *
 * Every cell runs long enough for the requested time, and the whole set of
 * cells is repeated for several runs, interleaved, so that a disturbance
 * hits one run of every cell rather than every run of one cell. Results are
 * median, min and max over the runs. Each measurement also checks that the
 * burst did what it should (packets moved, counters kept, gate left empty),
 * so that a broken path cannot pass for a fast one.
 *
 * With --copy the transport copies each frame's bytes into the mbufs it hands
 * out and out of the mbufs it takes, as a real one does; the mbufs are then
 * in the cache when the burst sees them, and the difference to the bare loop
 * is the driver's own work rather than its first touch of cold mbufs.
 *
 * Usage: bench_burst [--runs N] [--cell-ms MS] [--cpu N] [--count-calls N] [--copy]
 * The markdown report goes to stdout; DPDK's own log goes to stderr.
 *
 * With --count-calls N the timing is skipped: every burst cell runs exactly N
 * calls, checked as usual, and under callgrind each cell's instructions are
 * dumped on their own ("rx driver 32", "tx bare 256", ...), which gives a
 * per-packet instruction count that does not depend on the machine's load
 * (scripts/bench_burst_instr.sh). Outside valgrind the dumps cost nothing.
 */
#include <errno.h>
#include <sched.h>
#include <stdint.h>
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

#include <rte_atomic.h>
#include <rte_common.h>
#include <rte_cycles.h>
#include <rte_eal.h>
#include <rte_ether.h>
#include <rte_lcore.h>
#include <rte_log.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_mempool.h>

#include <valgrind/callgrind.h>

#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vhost.h"

/* Pointer-passing transport of bench_services.cpp. */
namespace bench {
void transport_fill(struct rte_mbuf *const *mbufs, unsigned int n);
uint64_t transport_dequeued(void);
uint64_t transport_enqueued(void);
struct rte_mbuf *transport_last_enqueued(void);
void transport_copy_frames(const void *frame, uint16_t len);
} // namespace bench

namespace {

using burst_fn = uint16_t (*)(void *, struct rte_mbuf **, uint16_t);

constexpr std::array<uint16_t, 5> BURST_SIZES = {1, 8, 32, 64, 256};
constexpr uint16_t MAX_BURST = 256;
constexpr uint16_t CHUNK = 32;          /* packets per transport call, as the driver */
constexpr unsigned int NB_FRAMES = 256; /* distinct mbufs per direction */
constexpr uint16_t FRAME_LEN = 64;
constexpr uint16_t CLOSED_GATE_BURST = 32;
constexpr uint64_t PILOT_ITERS = 2000;
/* Short against a scheduler time slice, so few blocks contain a preemption. */
constexpr unsigned int BLOCK_US = 250;
static_assert((NB_FRAMES & (NB_FRAMES - 1)) == 0 && NB_FRAMES >= MAX_BURST);
static_assert(NB_FRAMES % BURST_SIZES[0] == 0 && NB_FRAMES % BURST_SIZES[1] == 0 &&
	      NB_FRAMES % BURST_SIZES[2] == 0 && NB_FRAMES % BURST_SIZES[3] == 0 &&
	      NB_FRAMES % BURST_SIZES[4] == 0, "every burst size steps evenly through the frames");

struct options {
	unsigned int runs = 7;
	unsigned int cell_ms = 200;
	int cpu = 0;
	unsigned int count_calls = 0; /* instruction-count mode when non-zero */
	bool copy = false;            /* the transport copies frame bytes */
};

/* The bare transport call loop: the driver's chunking, nothing else. */
__attribute__((noinline)) uint16_t bare_rx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs)
{
	auto *r = static_cast<struct zorv1_vdev_rxq *>(q);
	uint16_t nb_rx = 0;

	for (uint16_t left = nb_bufs; left > 0;) {
		uint16_t num = RTE_MIN(left, CHUNK);
		uint16_t got = rte_zorv1_vhost_dequeue_burst(r, &bufs[nb_rx], num);
		nb_rx += got;
		left -= got;
		if (got < num)
			break;
	}
	return nb_rx;
}

__attribute__((noinline)) uint16_t bare_tx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs)
{
	auto *t = static_cast<struct zorv1_vdev_txq *>(q);
	uint16_t nb_tx = 0;

	for (uint16_t left = nb_bufs; left > 0;) {
		uint16_t num = RTE_MIN(left, CHUNK);
		uint16_t got = rte_zorv1_vhost_enqueue_burst(t, &bufs[nb_tx], num);
		nb_tx += got;
		left -= got;
		if (got < num)
			break;
	}
	return nb_tx;
}

/*
 * The timed loop. Both the driver's bursts and the bare loops are reached
 * through the same indirect call, as DPDK's rte_eth_rx_burst reaches a
 * driver; the barrier keeps the compiler from specialising the loop for one
 * target and inlining it. Each call works on the next nb_bufs entries of the
 * caller's array, so successive calls see different mbufs, as in an
 * application that sends what it has just received.
 */
__attribute__((noinline)) uint64_t time_loop(burst_fn fn, void *q, struct rte_mbuf **bufs,
					     uint16_t nb_bufs, uint64_t iters, uint64_t *moved)
{
	uint64_t total = 0;
	unsigned int off = 0;

	asm volatile("" : "+r"(fn));
	uint64_t t0 = rte_rdtsc_precise();
	for (uint64_t i = 0; i < iters; i++) {
		total += fn(q, bufs + off, nb_bufs);
		off = (off + nb_bufs) & (NB_FRAMES - 1);
	}
	uint64_t t1 = rte_rdtsc_precise();
	*moved = total;
	return t1 - t0;
}

/* Entry of the caller's array that the last of iters calls ended on. */
unsigned int last_entry(uint16_t nb_bufs, uint64_t iters)
{
	return (unsigned int)(((iters - 1) * nb_bufs) & (NB_FRAMES - 1)) + nb_bufs - 1;
}

/*
 * For reference: one log-level query, which both bursts make per packet to
 * decide on a packet dump even when DEBUG is off.
 */
__attribute__((noinline)) uint64_t time_log_query(uint64_t iters, uint64_t *on)
{
	uint64_t debug = 0;

	uint64_t t0 = rte_rdtsc_precise();
	for (uint64_t i = 0; i < iters; i++)
		debug += rte_log_get_level(zorv1_vdev_logtype_rx) > (int)RTE_LOG_INFO;
	uint64_t t1 = rte_rdtsc_precise();
	*on = debug;
	return t1 - t0;
}

enum class direction { RX, TX };

struct cell {
	const char *what;  /* "driver" or "bare" */
	direction dir;
	bool driver;       /* goes through the driver's burst (gate and counters) */
	void *queue;
	uint16_t nb_bufs;  /* packets asked for per call */
	uint16_t expect;   /* packets each call must move */
	uint64_t block = 0; /* calls per timed block, about BLOCK_US */
	std::vector<double> samples; /* cycles per packet, or per call when expect is 0 */
};

struct bench_state {
	struct zorv1_internal *internal = nullptr;
	struct zorv1_vdev_rxq *rxq_open = nullptr;
	struct zorv1_vdev_txq *txq_open = nullptr;
	struct zorv1_vdev_rxq *rxq_closed = nullptr;
	struct zorv1_vdev_txq *txq_closed = nullptr;
	/* The caller's arrays: NB_FRAMES entries and room for one more burst. */
	std::array<struct rte_mbuf *, NB_FRAMES + MAX_BURST> rx_bufs{};
	std::array<struct rte_mbuf *, NB_FRAMES + MAX_BURST> tx_bufs{};
};

bench_state g_bench;

struct snapshot {
	uint64_t dequeued;
	uint64_t enqueued;
	uint32_t dequeue_pmd;
	uint64_t rx_pkts;
	uint64_t tx_pkts;
	uint64_t tx_missed;
};

snapshot take_snapshot(const cell &c)
{
	snapshot s{};
	s.dequeued = bench::transport_dequeued();
	s.enqueued = bench::transport_enqueued();
	s.dequeue_pmd = g_dpdk_cp_stat.dequeue_pmd;
	if (c.dir == direction::RX) {
		s.rx_pkts = static_cast<struct zorv1_vdev_rxq *>(c.queue)->stats.pkts;
	} else {
		auto *t = static_cast<struct zorv1_vdev_txq *>(c.queue);
		s.tx_pkts = t->stats.pkts;
		s.tx_missed = t->stats.missed_pkts;
	}
	return s;
}

bool g_failed;
uint64_t g_shortest_cell = UINT64_MAX; /* cycles of the shortest timed run of a cell */
uint64_t g_fewest_blocks = UINT64_MAX; /* timed blocks in the run with fewest */

void check(bool ok, const cell &c, const char *what, uint64_t seen, uint64_t want)
{
	if (ok)
		return;
	fprintf(stderr, "bench_burst: %s %s burst %u: %s is %lu, expected %lu\n",
		c.dir == direction::RX ? "rx" : "tx", c.what, c.nb_bufs, what,
		(unsigned long)seen, (unsigned long)want);
	g_failed = true;
}

/* One timed block of a cell, checked; returns its cycles. */
uint64_t measure_block(const cell &c, uint64_t iters)
{
	struct rte_mbuf **bufs = c.dir == direction::RX ? g_bench.rx_bufs.data()
							: g_bench.tx_bufs.data();
	burst_fn fn;
	if (c.driver)
		fn = c.dir == direction::RX ? eth_vhost_rx : eth_vhost_tx;
	else
		fn = c.dir == direction::RX ? bare_rx : bare_tx;

	snapshot before = take_snapshot(c);
	uint64_t moved = 0;
	uint64_t cycles = time_loop(fn, c.queue, bufs, c.nb_bufs, iters, &moved);
	snapshot after = take_snapshot(c);

	const uint64_t want = iters * c.expect;
	check(moved == want, c, "packets returned", moved, want);
	if (c.dir == direction::RX) {
		check(after.dequeued - before.dequeued == want, c, "transport dequeues",
		      after.dequeued - before.dequeued, want);
		check(after.enqueued == before.enqueued, c, "transport enqueues", after.enqueued,
		      before.enqueued);
		uint64_t counted = after.rx_pkts - before.rx_pkts;
		check(counted == (c.driver ? want : 0), c, "stats.pkts growth", counted,
		      c.driver ? want : 0);
	} else {
		check(after.enqueued - before.enqueued == want, c, "transport enqueues",
		      after.enqueued - before.enqueued, want);
		check(after.dequeued == before.dequeued, c, "transport dequeues", after.dequeued,
		      before.dequeued);
		uint64_t counted = after.tx_pkts - before.tx_pkts;
		check(counted == (c.driver ? want : 0), c, "stats.pkts growth", counted,
		      c.driver ? want : 0);
		check(after.tx_missed == before.tx_missed, c, "stats.missed_pkts", after.tx_missed,
		      before.tx_missed);
		if (want > 0)
			check(bench::transport_last_enqueued() == bufs[last_entry(c.nb_bufs, iters)], c,
			      "last enqueued mbuf matches", 0, 1);
	}
	/* The receive burst counts one dequeue_pmd per call that passed the gate. */
	uint32_t pmd = after.dequeue_pmd - before.dequeue_pmd;
	const bool rx_gate_open =
		c.dir == direction::RX &&
		rte_atomic32_read(&static_cast<struct zorv1_vdev_rxq *>(c.queue)->allow_queuing) != 0;
	uint32_t pmd_want = (c.driver && rx_gate_open) ? (uint32_t)iters : 0;
	check(pmd == pmd_want, c, "dequeue_pmd growth", pmd, pmd_want);
	const rte_atomic32_t *busy = c.dir == direction::RX
		? &static_cast<struct zorv1_vdev_rxq *>(c.queue)->while_queuing
		: &static_cast<struct zorv1_vdev_txq *>(c.queue)->while_queuing;
	check(rte_atomic32_read(busy) == 0, c, "while_queuing after the loop",
	      (uint64_t)rte_atomic32_read(busy), 0);

	return cycles;
}

double median_of(std::vector<double> &v)
{
	std::sort(v.begin(), v.end());
	size_t n = v.size();
	return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2.0;
}

/*
 * One run of a cell: timed blocks of about BLOCK_US until their sum reaches the
 * target, so a cell lasts at least that long however the calibration went.
 * The run's figure is the median over its blocks: the TSC keeps counting
 * while another process has the CPU, and a block that lost its CPU that way
 * must not move the result. Returns cycles per packet, or per call for the
 * empty cases.
 */
double measure_cell(const cell &c, uint64_t target_cycles)
{
	const uint64_t units = c.expect > 0 ? c.block * c.expect : c.block;
	std::vector<double> per_block;
	uint64_t cycles = 0;

	while (cycles < target_cycles) {
		uint64_t b = measure_block(c, c.block);
		cycles += b;
		per_block.push_back((double)b / (double)units);
	}
	g_shortest_cell = std::min(g_shortest_cell, cycles);
	g_fewest_blocks = std::min<uint64_t>(g_fewest_blocks, per_block.size());
	return median_of(per_block);
}

/* Block length (calls) of about BLOCK_US microseconds, from the best of a few pilots. */
template <typename F> uint64_t block_for(F &&timed_pilot, uint64_t hz)
{
	uint64_t best = UINT64_MAX;

	for (int i = 0; i < 3; i++)
		best = std::min(best, timed_pilot(PILOT_ITERS));
	double per_call = (double)std::max<uint64_t>(best, 1) / PILOT_ITERS;
	return std::max<uint64_t>(64, (uint64_t)((double)hz * BLOCK_US / 1e6 / per_call));
}

struct summary {
	double median;
	double min;
	double max;
};

summary summarise(std::vector<double> v)
{
	double median = median_of(v);
	return {median, v.front(), v.back()};
}

std::string fmt(const summary &s)
{
	char buf[96];
	snprintf(buf, sizeof(buf), "%.2f [%.2f–%.2f]", s.median, s.min, s.max);
	return buf;
}

bool parse_uint(const char *s, unsigned long max, unsigned long *out)
{
	char *end = nullptr;
	errno = 0;
	unsigned long v = strtoul(s, &end, 10);
	if (errno != 0 || end == s || *end != '\0' || v > max)
		return false;
	*out = v;
	return true;
}

bool parse_options(int argc, char **argv, options *o)
{
	for (int i = 1; i < argc; i++) {
		unsigned long v = 0;
		if (strcmp(argv[i], "--copy") == 0) {
			o->copy = true;
			continue;
		}
		if (i + 1 >= argc)
			return false;
		if (strcmp(argv[i], "--runs") == 0 && parse_uint(argv[i + 1], 1000, &v) && v >= 1)
			o->runs = (unsigned int)v;
		else if (strcmp(argv[i], "--cell-ms") == 0 && parse_uint(argv[i + 1], 60000, &v) &&
			 v >= 1)
			o->cell_ms = (unsigned int)v;
		else if (strcmp(argv[i], "--cpu") == 0 && parse_uint(argv[i + 1], 4095, &v))
			o->cpu = (int)v;
		else if (strcmp(argv[i], "--count-calls") == 0 &&
			 parse_uint(argv[i + 1], 1000000, &v) && v >= 1)
			o->count_calls = (unsigned int)v;
		else
			return false;
		i++;
	}
	return true;
}

int start_eal(const options &o)
{
	std::string prefix = "--file-prefix=bench_burst_" + std::to_string(getpid());
	/* Lcore 0 runs on the CPU the caller pinned us to. */
	std::string lcores = o.cpu == 0 ? "0" : "0@" + std::to_string(o.cpu);
	std::vector<std::string> args = {
		"bench_burst", "--no-huge", "--no-pci", o.cpu == 0 ? "-l" : "--lcores", lcores,
		prefix, "--no-telemetry", "-m", "256",
	};
	std::vector<char *> argv;
	for (auto &a : args)
		argv.push_back(a.data());
	argv.push_back(nullptr);
	/* Keep stdout for the report. */
	rte_openlog_stream(stderr);
	return rte_eal_init((int)args.size(), argv.data());
}

struct rte_mbuf *make_frame(struct rte_mempool *mp, unsigned int seq)
{
	struct rte_mbuf *m = rte_pktmbuf_alloc(mp);
	if (m == nullptr)
		return nullptr;
	char *data = rte_pktmbuf_append(m, FRAME_LEN);
	if (data == nullptr) {
		rte_pktmbuf_free(m);
		return nullptr;
	}
	memset(data, 0, FRAME_LEN);
	auto *eth = reinterpret_cast<struct rte_ether_hdr *>(data);
	/* Locally administered unicast addresses. */
	eth->dst_addr = {{0x02, 0x00, 0x00, 0x00, 0x00, 0x02}};
	eth->src_addr = {{0x02, 0x00, 0x00, 0x00, (uint8_t)(seq >> 8), (uint8_t)seq}};
	eth->ether_type = rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4);
	return m;
}

template <typename Q> Q *make_queue(struct zorv1_internal *internal, uint16_t vq, int32_t open)
{
	auto *q = static_cast<Q *>(rte_zmalloc("bench_burst_q", sizeof(Q), RTE_CACHE_LINE_SIZE));
	if (q == nullptr)
		return nullptr;
	q->internal = internal;
	q->port = 0;
	q->virtqueue_id = vq;
	rte_atomic32_set(&q->allow_queuing, open);
	rte_atomic32_set(&q->while_queuing, 0);
	return q;
}

const char *level_name(int level)
{
	switch (level) {
	case RTE_LOG_EMERG: return "EMERG";
	case RTE_LOG_ALERT: return "ALERT";
	case RTE_LOG_CRIT: return "CRIT";
	case RTE_LOG_ERR: return "ERR";
	case RTE_LOG_WARNING: return "WARNING";
	case RTE_LOG_NOTICE: return "NOTICE";
	case RTE_LOG_INFO: return "INFO";
	case RTE_LOG_DEBUG: return "DEBUG";
	default: return "?";
	}
}

} // namespace

int main(int argc, char **argv)
{
	options opt;
	if (!parse_options(argc, argv, &opt)) {
		fprintf(stderr, "usage: %s [--runs N] [--cell-ms MS] [--cpu N] [--count-calls N] [--copy]\n",
			argv[0]);
		return 2;
	}
	if (start_eal(opt) < 0) {
		fprintf(stderr, "bench_burst: EAL init failed: %s\n", rte_strerror(rte_errno));
		return 1;
	}
	std::string runtime_dir = rte_eal_get_runtime_dir();
	/* EAL leaves its runtime directory behind; drop it on every way out. */
	auto finish = [&runtime_dir](int rc) {
		rte_eal_cleanup();
		std::error_code ec;
		std::filesystem::remove_all(runtime_dir, ec);
		return rc;
	};

	struct rte_mempool *mp = rte_pktmbuf_pool_create("bench_burst_pool", 2 * NB_FRAMES + 63, 0,
							 0, RTE_MBUF_DEFAULT_BUF_SIZE,
							 (int)rte_socket_id());
	if (mp == nullptr) {
		fprintf(stderr, "bench_burst: mbuf pool: %s\n", rte_strerror(rte_errno));
		return finish(1);
	}
	std::array<struct rte_mbuf *, NB_FRAMES> rx_frames{};
	for (unsigned int i = 0; i < NB_FRAMES; i++) {
		rx_frames[i] = make_frame(mp, i);
		g_bench.tx_bufs[i] = make_frame(mp, NB_FRAMES + i);
		if (rx_frames[i] == nullptr || g_bench.tx_bufs[i] == nullptr) {
			fprintf(stderr, "bench_burst: out of mbufs\n");
			return finish(1);
		}
	}
	/* A burst that starts near the end of the frames wraps to their start. */
	for (unsigned int i = NB_FRAMES; i < g_bench.tx_bufs.size(); i++)
		g_bench.tx_bufs[i] = g_bench.tx_bufs[i - NB_FRAMES];
	bench::transport_fill(rx_frames.data(), NB_FRAMES);
	if (opt.copy)
		bench::transport_copy_frames(rte_pktmbuf_mtod(rx_frames[0], const void *), FRAME_LEN);

	/* A started port with a bound hardware function: its gates are open. */
	g_bench.internal = static_cast<struct zorv1_internal *>(
		rte_zmalloc("bench_burst_port", sizeof(struct zorv1_internal), RTE_CACHE_LINE_SIZE));
	if (g_bench.internal == nullptr) {
		fprintf(stderr, "bench_burst: out of memory\n");
		return finish(1);
	}
	g_bench.internal->vid = 0;
	g_bench.internal->started = 1;
	g_bench.internal->sfi = 0;
	g_bench.internal->vlan_strip = 0;
	g_bench.internal->max_queues = 1;
	g_bench.rxq_open = make_queue<struct zorv1_vdev_rxq>(g_bench.internal, 0, 1);
	g_bench.txq_open = make_queue<struct zorv1_vdev_txq>(g_bench.internal, 1, 1);
	g_bench.rxq_closed = make_queue<struct zorv1_vdev_rxq>(g_bench.internal, 2, 0);
	g_bench.txq_closed = make_queue<struct zorv1_vdev_txq>(g_bench.internal, 3, 0);
	if (g_bench.rxq_open == nullptr || g_bench.txq_open == nullptr ||
	    g_bench.rxq_closed == nullptr || g_bench.txq_closed == nullptr) {
		fprintf(stderr, "bench_burst: out of memory\n");
		return finish(1);
	}

	/* Cells: per burst size, driver and bare side by side, then the gate cases. */
	std::vector<cell> cells;
	for (direction d : {direction::RX, direction::TX}) {
		void *open_q = d == direction::RX ? (void *)g_bench.rxq_open : (void *)g_bench.txq_open;
		for (uint16_t n : BURST_SIZES) {
			cells.push_back({"driver", d, true, open_q, n, n});
			cells.push_back({"bare", d, false, open_q, n, n});
		}
	}
	const size_t gate_first = cells.size();
	for (direction d : {direction::RX, direction::TX}) {
		void *open_q = d == direction::RX ? (void *)g_bench.rxq_open : (void *)g_bench.txq_open;
		void *closed_q =
			d == direction::RX ? (void *)g_bench.rxq_closed : (void *)g_bench.txq_closed;
		cells.push_back({"driver, gate closed", d, true, closed_q, CLOSED_GATE_BURST, 0});
		cells.push_back({"driver, gate open, nb_bufs 0", d, true, open_q, 0, 0});
		cells.push_back({"bare, nb_bufs 0", d, false, open_q, 0, 0});
	}

	if (opt.count_calls != 0) {
		/* One warm-up block, then one block per cell with its own dump. */
		for (size_t i = 0; i < gate_first; i++) {
			const cell &c = cells[i];
			char name[64];
			snprintf(name, sizeof(name), "%s %s %u packets %lu",
				 c.dir == direction::RX ? "rx" : "tx", c.what, c.nb_bufs,
				 (unsigned long)opt.count_calls * c.expect);
			measure_block(c, opt.count_calls);
			CALLGRIND_ZERO_STATS;
			measure_block(c, opt.count_calls);
			CALLGRIND_DUMP_STATS_AT(name);
		}
		if (g_failed) {
			fprintf(stderr, "bench_burst: a burst did not behave; no results\n");
			return finish(1);
		}
		printf("count mode: %zu cells of %u calls each, all checked\n", gate_first,
		       opt.count_calls);
		return finish(0);
	}

	/* Warm every cell up and size its timed blocks. */
	const uint64_t hz = rte_get_tsc_hz();
	const uint64_t target_cycles = hz * opt.cell_ms / 1000;
	for (cell &c : cells)
		c.block = block_for([&c](uint64_t n) { return measure_block(c, n); }, hz);
	uint64_t log_on = 0;
	const uint64_t log_block =
		block_for([&log_on](uint64_t n) { return time_log_query(n, &log_on); }, hz);
	std::vector<double> log_samples;

	for (unsigned int run = 0; run < opt.runs; run++) {
		for (cell &c : cells)
			c.samples.push_back(measure_cell(c, target_cycles));
		std::vector<double> per_block;
		uint64_t cycles = 0;
		while (cycles < target_cycles) {
			uint64_t b = time_log_query(log_block, &log_on);
			cycles += b;
			per_block.push_back((double)b / (double)log_block);
			if (log_on != 0) {
				fprintf(stderr, "bench_burst: receive dumps are on (DEBUG)\n");
				g_failed = true;
			}
		}
		log_samples.push_back(median_of(per_block));
	}
	if (g_failed) {
		fprintf(stderr, "bench_burst: a burst did not behave; no results\n");
		return finish(1);
	}

	/* Report. */
	const double cyc_per_ns = (double)hz / 1e9;
	const int levels[] = {
		rte_log_get_level(zorv1_vdev_logtype_cfg), rte_log_get_level(zorv1_vdev_logtype_rx),
		rte_log_get_level(zorv1_vdev_logtype_tx), rte_log_get_level(zorv1_pci_logtype_perf),
		rte_log_get_level(zorv1_snic_pci_logtype_cfg),
	};
	const bool debug_off = std::all_of(std::begin(levels), std::end(levels),
					   [](int l) { return l <= (int)RTE_LOG_INFO; });

	printf("### Burst cost: eth_vhost_rx / eth_vhost_tx\n\n");
	printf("- TSC %.3f GHz; lcore %u on CPU %d; %u runs, each cell >= %u ms per run "
	       "(cells interleaved); 64-byte frames, %u distinct mbufs per direction (warm cache)\n",
	       (double)hz / 1e9, rte_lcore_id(), sched_getcpu(), opt.runs, opt.cell_ms, NB_FRAMES);
	if (opt.copy)
		printf("- transport: copying (dequeue writes a 64-byte frame and its lengths into each "
		       "mbuf, enqueue reads each mbuf's length and bytes; no free); both loops are "
		       "reached by an indirect call\n");
	else
		printf("- transport: pointer passing only (dequeue hands out ready mbufs, enqueue keeps "
		       "the pointers; no copy, no free); both loops are reached by an indirect call\n");
	printf("- log levels: cfg %s, rx %s, tx %s, perf %s, cmd %s: DEBUG %s; time-stamp "
	       "switch off; VLAN strip/insert off\n",
	       level_name(levels[0]), level_name(levels[1]), level_name(levels[2]),
	       level_name(levels[3]), level_name(levels[4]), debug_off ? "off" : "ON");
	printf("- shortest timed cell: %.0f ms in %lu blocks of about %u us; a run's figure is "
	       "the median over its blocks\n",
	       (double)g_shortest_cell / (double)hz * 1e3, (unsigned long)g_fewest_blocks, BLOCK_US);
	printf("- figures: median [min–max] over the runs; overhead = driver − bare, per run\n\n");

	for (direction d : {direction::RX, direction::TX}) {
		printf("#### %s, cycles per packet\n\n", d == direction::RX ? "Receive (eth_vhost_rx)"
									      : "Transmit (eth_vhost_tx)");
		printf("| burst | driver | bare transport call loop | driver overhead | "
		       "overhead ns/pkt | driver Mpps |\n");
		printf("|---:|---:|---:|---:|---:|---:|\n");
		for (size_t i = 0; i + 1 < gate_first; i += 2) {
			const cell &drv = cells[i];
			const cell &bare = cells[i + 1];
			if (drv.dir != d)
				continue;
			std::vector<double> diff;
			for (size_t r = 0; r < drv.samples.size(); r++)
				diff.push_back(drv.samples[r] - bare.samples[r]);
			summary sd = summarise(drv.samples);
			summary so = summarise(diff);
			printf("| %u | %s | %s | %s | %.2f | %.1f |\n", drv.nb_bufs, fmt(sd).c_str(),
			       fmt(summarise(bare.samples)).c_str(), fmt(so).c_str(),
			       so.median / cyc_per_ns, (double)hz / sd.median / 1e6);
		}
		printf("\n");
	}

	printf("#### Empty bursts, cycles per call\n\n");
	printf("| case | receive | transmit |\n|---|---:|---:|\n");
	const size_t per_dir = (cells.size() - gate_first) / 2;
	const char *labels[] = {
		"driver, gate closed (nb_bufs 32)",
		"driver, gate open, nb_bufs 0",
		"bare transport call loop, nb_bufs 0 (the call alone)",
	};
	for (size_t k = 0; k < per_dir; k++) {
		printf("| %s | %s | %s |\n", labels[k],
		       fmt(summarise(cells[gate_first + k].samples)).c_str(),
		       fmt(summarise(cells[gate_first + per_dir + k].samples)).c_str());
	}
	printf("| for reference: one rte_log_get_level() call (made per packet) | %s | |\n",
	       fmt(summarise(log_samples)).c_str());
	printf("\n");
	fflush(stdout);

	return finish(0);
}
