/* SPDX-License-Identifier: BSD-3-Clause
 * The queuing gate under load: two polling threads run receive and transmit
 * bursts on the queues of one port while the control thread keeps stopping
 * and starting the port and closing and reopening every transmit queue of
 * the device. Built also with ThreadSanitizer (label tsan).
 *
 * What must hold:
 *   - once a closing operation has returned, no burst of the closed queues is
 *     in the transport, and none enters it until the queue is opened again;
 *   - the busy count of every closed queue drains to 0 by itself;
 *   - no mbuf is lost or duplicated: what the transport handed out equals
 *     what it took back plus what the pollers freed, and every pool is full
 *     again at the end.
 *
 * Each polling thread owns its queues and allocates from its own pool, so
 * an mbuf never travels between threads through DPDK's (uninstrumented)
 * mempool rings; that keeps ThreadSanitizer's view of mbuf memory exact.
 */
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_pause.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using zorv_fake::FakeEnv;
using zorv_test::FakePort;
using zorv_test::MbufPool;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kPollers = 2;
constexpr int kQueues = 4;      /* rx and tx queues of the port; poller k owns k, k+2 */
constexpr uint16_t kBurst = 32;
constexpr uint64_t kMinCycles = 30;

int32_t Load(const rte_atomic32_t &v)
{
	return __atomic_load_n(&v.cnt, __ATOMIC_SEQ_CST);
}

/* Per queue and direction: what the fake transport sees. */
struct QueueWatch {
	std::atomic<int> inside{0};       /* transport calls in progress */
	std::atomic<bool> closed{false};  /* a closing operation returned, not yet reopened */
	std::atomic<uint64_t> calls{0};
	std::atomic<uint64_t> overlaps{0}; /* calls that saw their gate closed while inside */
	std::vector<struct rte_mbuf *> held; /* accepted by the transport (one thread only) */
};

struct Shared {
	QueueWatch rx[kQueues];
	QueueWatch tx[kQueues];
	std::atomic<uint64_t> violations{0};  /* transport entered on a closed queue */
	std::atomic<uint64_t> not_counted{0}; /* transport entered with while_queuing 0 */
	std::atomic<uint64_t> handed_out{0};
	std::atomic<uint64_t> taken_back{0};
	std::atomic<uint64_t> freed_by_pollers{0};
	std::atomic<uint64_t> freed_by_transport{0};
	std::atomic<uint64_t> bursts_with_packets{0};
	std::atomic<bool> stop{false};
};

/* Keep a transport call busy for a moment so closes often find it inside. */
void Dwell()
{
	for (int i = 0; i < 200; i++)
		rte_pause();
}

/* Entering the transport: mark inside first, then check the queue was not closed. */
void Enter(Shared &sh, QueueWatch &w, const rte_atomic32_t &allow, const rte_atomic32_t &busy)
{
	w.inside.fetch_add(1);
	w.calls.fetch_add(1, std::memory_order_relaxed);
	if (w.closed.load())
		sh.violations.fetch_add(1);
	if (Load(busy) <= 0)
		sh.not_counted.fetch_add(1);
	Dwell();
	if (Load(allow) == 0)
		w.overlaps.fetch_add(1, std::memory_order_relaxed);
}

uint16_t Dequeue(Shared &sh, struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts, uint16_t n)
{
	QueueWatch &w = sh.rx[rxq->virtqueue_id / 2];
	Enter(sh, w, rxq->allow_queuing, rxq->while_queuing);
	/* Vary the amount: full chunks, short chunks and empty ones. */
	const uint64_t c = w.calls.load(std::memory_order_relaxed);
	uint16_t give = (c % 5 == 4) ? 0 : (c % 3 == 0 ? n : n / 2);
	if (give > 0 && rte_pktmbuf_alloc_bulk(rxq->mb_pool, pkts, give) != 0)
		give = 0;
	for (uint16_t i = 0; i < give; i++) {
		char *d = rte_pktmbuf_append(pkts[i], 64);
		if (d != nullptr)
			memset(d, static_cast<int>(i & 1 ? 0xff : 0x02), 6);
	}
	sh.handed_out.fetch_add(give);
	w.inside.fetch_sub(1);
	return give;
}

uint16_t Enqueue(Shared &sh, struct zorv1_vdev_txq *txq, struct rte_mbuf **pkts, uint16_t n)
{
	QueueWatch &w = sh.tx[(txq->virtqueue_id - 1) / 2];
	Enter(sh, w, txq->allow_queuing, txq->while_queuing);
	/* Mbufs accepted last time may go now: that burst has returned. */
	for (auto *m : w.held)
		rte_pktmbuf_free(m);
	sh.freed_by_transport.fetch_add(w.held.size());
	w.held.clear();
	/* Refuse one packet of every other call, so the caller keeps some. */
	const uint64_t c = w.calls.load(std::memory_order_relaxed);
	const uint16_t take = (c % 2 == 0 && n > 0) ? n - 1 : n;
	w.held.assign(pkts, pkts + take);
	sh.taken_back.fetch_add(take);
	w.inside.fetch_sub(1);
	return take;
}

void Poll(Shared &sh, const std::vector<struct zorv1_vdev_rxq *> &rxqs,
	  const std::vector<struct zorv1_vdev_txq *> &txqs)
{
	struct rte_mbuf *bufs[kBurst];
	while (!sh.stop.load(std::memory_order_relaxed)) {
		for (size_t i = 0; i < rxqs.size(); i++) {
			const uint16_t nb_rx = eth_vhost_rx(rxqs[i], bufs, kBurst);
			if (nb_rx == 0)
				continue;
			sh.bursts_with_packets.fetch_add(1, std::memory_order_relaxed);
			const uint16_t nb_tx = eth_vhost_tx(txqs[i], bufs, nb_rx);
			for (uint16_t j = nb_tx; j < nb_rx; j++)
				rte_pktmbuf_free(bufs[j]);
			sh.freed_by_pollers.fetch_add(nb_rx - nb_tx);
		}
	}
}

/* How long the control thread keeps cycling; ZORV_GATE_STRESS_MS overrides. */
std::chrono::milliseconds StressTime()
{
	const char *env = std::getenv("ZORV_GATE_STRESS_MS");
	if (env != nullptr && env[0] != '\0')
		return std::chrono::milliseconds(std::atoi(env));
	return 1500ms;
}

class GateConcurrencyTest : public FakeEnv {};

} // namespace

TEST_F(GateConcurrencyTest, BurstsNeverRunOnClosedQueuesAndNoMbufIsLost)
{
	FakePort port(FakePort::Options{.nb_rx_queues = kQueues, .nb_tx_queues = kQueues});
	ASSERT_TRUE(port);
	struct zorv1_internal *in = port.internal();
	in->vid = 21;
	in->sfi = 210;
	f.dev.Place(21, port.dev());

	std::vector<std::unique_ptr<MbufPool>> pools;
	for (int k = 0; k < kPollers; k++)
		pools.push_back(std::make_unique<MbufPool>(2047));
	std::vector<struct zorv1_vdev_rxq *> rxqs;
	std::vector<struct zorv1_vdev_txq *> txqs;
	for (int i = 0; i < kQueues; i++) {
		auto *r = static_cast<struct zorv1_vdev_rxq *>(
			rte_zmalloc("t2_rxq", sizeof(struct zorv1_vdev_rxq), RTE_CACHE_LINE_SIZE));
		auto *t = static_cast<struct zorv1_vdev_txq *>(
			rte_zmalloc("t2_txq", sizeof(struct zorv1_vdev_txq), RTE_CACHE_LINE_SIZE));
		ASSERT_NE(r, nullptr);
		ASSERT_NE(t, nullptr);
		r->internal = in;
		r->port = port.port_id();
		r->virtqueue_id = 2 * i;
		r->mb_pool = pools[i % kPollers]->get();
		t->internal = in;
		t->port = port.port_id();
		t->virtqueue_id = 2 * i + 1;
		port.data()->rx_queues[i] = r;
		port.data()->tx_queues[i] = t;
		rxqs.push_back(r);
		txqs.push_back(t);
	}

	Shared sh;
	f.transport.dequeue = [&sh](struct zorv1_vdev_rxq *r, struct rte_mbuf **p, uint16_t n) {
		return Dequeue(sh, r, p, n);
	};
	f.transport.enqueue = [&sh](struct zorv1_vdev_txq *t, struct rte_mbuf **p, uint16_t n) {
		return Enqueue(sh, t, p, n);
	};

	ASSERT_EQ(eth_dev_start(port.dev()), 0);
	std::vector<std::thread> pollers;
	for (int k = 0; k < kPollers; k++) {
		std::vector<struct zorv1_vdev_rxq *> my_rx;
		std::vector<struct zorv1_vdev_txq *> my_tx;
		for (int i = k; i < kQueues; i += kPollers) {
			my_rx.push_back(rxqs[i]);
			my_tx.push_back(txqs[i]);
		}
		pollers.emplace_back(Poll, std::ref(sh), my_rx, my_tx);
	}

	/* Failures are counted in the loop and asserted once at the end. */
	uint64_t cycles = 0, inside_after_close = 0, open_after_close = 0, not_drained = 0;
	uint64_t busy_at_return = 0, rx_closed_by_tx_disable = 0, link_wrong = 0;
	auto check_closed = [&](std::vector<QueueWatch *> watches,
				std::vector<const rte_atomic32_t *> allow,
				std::vector<const rte_atomic32_t *> busy) {
		for (auto *w : watches) {
			w->closed.store(true);
			inside_after_close += w->inside.load() != 0;
		}
		for (auto *a : allow)
			open_after_close += Load(*a) != 0;
		for (auto *b : busy) {
			/* A burst that read the gate open just before it closed may
			 * still pass its increment and leave again at the re-check,
			 * without reaching the transport: 0 is reached by itself. */
			if (Load(*b) != 0) {
				busy_at_return++;
				const auto until = Clock::now() + 1s;
				while (Load(*b) != 0 && Clock::now() < until)
					std::this_thread::yield();
				not_drained += Load(*b) != 0;
			}
		}
	};
	auto reopen = [](std::vector<QueueWatch *> watches) {
		for (auto *w : watches)
			w->closed.store(false);
	};
	std::vector<QueueWatch *> all_w, tx_w;
	std::vector<const rte_atomic32_t *> all_allow, tx_allow, all_busy, tx_busy;
	for (int i = 0; i < kQueues; i++) {
		all_w.push_back(&sh.rx[i]);
		all_allow.push_back(&rxqs[i]->allow_queuing);
		all_busy.push_back(&rxqs[i]->while_queuing);
	}
	for (int i = 0; i < kQueues; i++) {
		all_w.push_back(&sh.tx[i]);
		tx_w.push_back(&sh.tx[i]);
		all_allow.push_back(&txqs[i]->allow_queuing);
		tx_allow.push_back(&txqs[i]->allow_queuing);
		all_busy.push_back(&txqs[i]->while_queuing);
		tx_busy.push_back(&txqs[i]->while_queuing);
	}

	/* At least the stress time and kMinCycles cycles, but never beyond the cap
	 * (a loaded machine or a sanitizer makes every cycle slower). */
	const auto start = Clock::now();
	const auto deadline = start + StressTime();
	const auto cap = start + 3 * StressTime();
	while ((Clock::now() < deadline || cycles < kMinCycles) && Clock::now() < cap) {
		std::this_thread::sleep_for(200us);

		/* Device-wide: close every transmit queue, then rehash and reopen. */
		zorv1_dev_disable_all_txq_queuing();
		check_closed(tx_w, tx_allow, tx_busy);
		for (auto *r : rxqs)
			rx_closed_by_tx_disable += Load(r->allow_queuing) != 1;
		std::this_thread::sleep_for(100us);
		reopen(tx_w);
		zorv1_dev_update_pci_hash();
		std::this_thread::sleep_for(200us);

		/* Per port: stop (close and drain all) and start again. */
		eth_dev_stop(port.dev());
		check_closed(all_w, all_allow, all_busy);
		link_wrong += port.data()->dev_link.link_status != RTE_ETH_LINK_DOWN;
		std::this_thread::sleep_for(100us);
		reopen(all_w);
		eth_dev_start(port.dev());
		link_wrong += port.data()->dev_link.link_status != RTE_ETH_LINK_UP;

		/* The fakes' records would grow without bound. */
		{
			std::lock_guard<std::mutex> lk(f.mu);
			f.calls.clear();
			f.transport.dequeues.clear();
			f.transport.enqueues.clear();
			f.util.calc_times.clear();
			f.dev.pci_hash_calls.clear();
		}
		cycles++;
	}

	sh.stop = true;
	for (auto &t : pollers)
		t.join();
	eth_dev_stop(port.dev());

	uint64_t calls = 0, overlaps = 0;
	for (auto &w : sh.rx) {
		calls += w.calls;
		overlaps += w.overlaps;
	}
	for (auto &w : sh.tx) {
		calls += w.calls;
		overlaps += w.overlaps;
	}
	printf("[ stress   ] %lu cycles, %lu transport calls, %lu bursts with packets, "
	       "%lu mbufs out, %lu closes met a call inside, %lu busy counts seen non-zero at return\n",
	       (unsigned long)cycles, (unsigned long)calls, (unsigned long)sh.bursts_with_packets.load(),
	       (unsigned long)sh.handed_out.load(), (unsigned long)overlaps,
	       (unsigned long)busy_at_return);

	EXPECT_GE(cycles, 10u) << "too few stop/start cycles to mean anything";
	EXPECT_GT(sh.bursts_with_packets.load(), 0u) << "no traffic flowed";
	EXPECT_GT(overlaps, 0u) << "no close ever had to wait for a burst";
	EXPECT_EQ(sh.violations.load(), 0u) << "transport entered on a closed queue";
	EXPECT_EQ(sh.not_counted.load(), 0u) << "transport entered without the busy count";
	EXPECT_EQ(inside_after_close, 0u) << "a closing operation returned with a call inside";
	EXPECT_EQ(open_after_close, 0u);
	EXPECT_EQ(not_drained, 0u) << "busy count stuck on a closed queue";
	EXPECT_EQ(rx_closed_by_tx_disable, 0u) << "the transmit disable touched receive gates";
	EXPECT_EQ(link_wrong, 0u);
	for (int i = 0; i < kQueues; i++) {
		EXPECT_EQ(Load(rxqs[i]->while_queuing), 0) << "rx " << i;
		EXPECT_EQ(Load(txqs[i]->while_queuing), 0) << "tx " << i;
		EXPECT_EQ(Load(rxqs[i]->allow_queuing), 0) << "rx " << i;
		EXPECT_EQ(Load(txqs[i]->allow_queuing), 0) << "tx " << i;
	}

	/* Mbuf accounting. */
	uint64_t held = 0;
	for (auto &w : sh.tx)
		held += w.held.size();
	EXPECT_EQ(sh.handed_out.load(), sh.taken_back.load() + sh.freed_by_pollers.load());
	EXPECT_EQ(sh.taken_back.load(), sh.freed_by_transport.load() + held);
	unsigned in_use = 0;
	for (auto &p : pools)
		in_use += p->InUse();
	EXPECT_EQ(in_use, held) << "mbufs out of the pools other than those the transport holds";
	for (auto &w : sh.tx) {
		for (auto *m : w.held)
			rte_pktmbuf_free(m);
		w.held.clear();
	}
	for (auto &p : pools)
		EXPECT_EQ(p->InUse(), 0u);

	/* Counters are checked once the pollers are gone (they are plain). */
	uint64_t rx_pkts = 0, tx_pkts = 0, tx_missed = 0;
	for (int i = 0; i < kQueues; i++) {
		rx_pkts += rxqs[i]->stats.pkts;
		tx_pkts += txqs[i]->stats.pkts;
		tx_missed += txqs[i]->stats.missed_pkts;
	}
	EXPECT_EQ(rx_pkts, sh.handed_out.load());
	EXPECT_EQ(tx_pkts, sh.taken_back.load());
	/* A transmit burst shut out by a closed gate counts nothing; the
	 * poller frees those mbufs as well. */
	EXPECT_LE(tx_missed, sh.freed_by_pollers.load());

	port.Release();
	for (int i = 0; i < kQueues; i++) {
		rte_free(rxqs[i]);
		rte_free(txqs[i]);
	}
}
