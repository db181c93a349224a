/* SPDX-License-Identifier: BSD-3-Clause
 * Receive and transmit bursts of the zorv1 port: gate entry, chunking
 * towards the transport, counting, VLAN strip / insert, packet dumps and the
 * sampled time-stamp log.
 */
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_cycles.h>
#include <rte_ether.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>

#include "zorv1_rxtx.h"
#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using zorv_fake::Burst;
using zorv_fake::FakeEnv;
using zorv_test::LogCapture;
using zorv_test::MbufPool;
using zorv_test::MbufPtr;

namespace {

constexpr size_t kAllowOff = offsetof(struct zorv1_vdev_rxq, allow_queuing);
constexpr size_t kBusyOff = offsetof(struct zorv1_vdev_rxq, while_queuing);
static_assert(kAllowOff == offsetof(struct zorv1_vdev_txq, allow_queuing));
static_assert(kBusyOff == offsetof(struct zorv1_vdev_txq, while_queuing));

/* A port record and one queue of each kind, zeroed, gates open. */
struct Queues {
	struct zorv1_internal internal = {};
	struct zorv1_vdev_rxq *rxq = nullptr;
	struct zorv1_vdev_txq *txq = nullptr;

	Queues()
	{
		internal.vid = 3;
		internal.sfi = 5;
		internal.started = 1;
		rxq = static_cast<struct zorv1_vdev_rxq *>(
			rte_zmalloc("t2_rxq", sizeof(*rxq), RTE_CACHE_LINE_SIZE));
		txq = static_cast<struct zorv1_vdev_txq *>(
			rte_zmalloc("t2_txq", sizeof(*txq), RTE_CACHE_LINE_SIZE));
		rxq->internal = &internal;
		rxq->port = 7;
		rxq->virtqueue_id = 4;
		rxq->mb_pool = zorv_test::SharedMbufPool();
		txq->internal = &internal;
		txq->port = 7;
		txq->virtqueue_id = 5;
		rte_atomic32_set(&rxq->allow_queuing, 1);
		rte_atomic32_set(&txq->allow_queuing, 1);
	}
	~Queues()
	{
		rte_free(rxq);
		rte_free(txq);
	}
	Queues(const Queues &) = delete;
	Queues &operator=(const Queues &) = delete;
};

bool StatsAllZero(const struct zorv1_vdev_stats &s)
{
	struct zorv1_vdev_stats zero = {};
	return memcmp(&s, &zero, sizeof(s)) == 0;
}

/* A dequeue handler that always fills the request with 64-byte frames. */
uint16_t FillAll(struct zorv1_vdev_rxq *, struct rte_mbuf **pkts, uint16_t n)
{
	for (uint16_t i = 0; i < n; i++)
		pkts[i] = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac);
	return n;
}

void FreeAll(struct rte_mbuf **bufs, uint16_t n)
{
	for (uint16_t i = 0; i < n; i++)
		rte_pktmbuf_free(bufs[i]);
}

/*
 * Single-steps every access a burst makes to one queue record. The record
 * sits alone on an inaccessible page: each access faults, the SIGSEGV
 * handler notes it and opens the page with the CPU's trap flag set, and the
 * SIGTRAP after that one instruction closes the page again. Optionally the
 * gate is closed right after the first increment of while_queuing has
 * executed, i.e. between the burst's increment and its re-check.
 */
class GateTrap {
public:
	struct Access {
		size_t offset;        /* offset of the faulting address in the record */
		int32_t allow_before; /* gate values before the instruction ran */
		int32_t busy_before;
		int32_t allow_after; /* and after it */
		int32_t busy_after;
	};

	GateTrap()
	{
		page_size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
		void *p = mmap(nullptr, page_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
			       -1, 0);
		if (p == MAP_FAILED) {
			ADD_FAILURE() << "mmap failed";
			return;
		}
		page_ = static_cast<char *>(p);
		struct sigaction sa = {};
		sa.sa_flags = SA_SIGINFO;
		sigemptyset(&sa.sa_mask);
		sa.sa_sigaction = &GateTrap::OnSegv;
		sigaction(SIGSEGV, &sa, &old_segv_);
		sa.sa_sigaction = &GateTrap::OnTrap;
		sigaction(SIGTRAP, &sa, &old_trap_);
		current_ = this;
	}
	~GateTrap()
	{
		Disarm();
		current_ = nullptr;
		sigaction(SIGSEGV, &old_segv_, nullptr);
		sigaction(SIGTRAP, &old_trap_, nullptr);
		if (page_ != nullptr)
			munmap(page_, page_size_);
	}
	GateTrap(const GateTrap &) = delete;
	GateTrap &operator=(const GateTrap &) = delete;

	template <typename Q>
	Q *Place()
	{
		return new (page_) Q{};
	}

	void CloseAfterIncrement() { close_after_increment_ = true; }
	void Arm()
	{
		n_ = 0;
		armed_ = true;
		mprotect(page_, page_size_, PROT_NONE);
	}
	void Disarm()
	{
		armed_ = false;
		if (page_ != nullptr)
			mprotect(page_, page_size_, PROT_READ | PROT_WRITE);
	}
	size_t count() const { return n_; }
	bool overflowed() const { return overflow_; }
	std::vector<Access> accesses() const { return {log_.begin(), log_.begin() + n_}; }
	/* Only the accesses to the two gate words. */
	std::vector<Access> gate_accesses() const
	{
		std::vector<Access> v;
		for (size_t i = 0; i < n_; i++)
			if (log_[i].offset == kAllowOff || log_[i].offset == kBusyOff)
				v.push_back(log_[i]);
		return v;
	}

private:
	static constexpr size_t kMaxAccesses = 4096;

	int32_t allow() const { return __atomic_load_n(reinterpret_cast<int32_t *>(page_ + kAllowOff), __ATOMIC_RELAXED); }
	int32_t busy() const { return __atomic_load_n(reinterpret_cast<int32_t *>(page_ + kBusyOff), __ATOMIC_RELAXED); }

	static void OnSegv(int sig, siginfo_t *si, void *ctx)
	{
		GateTrap *t = current_;
		char *a = static_cast<char *>(si->si_addr);
		if (t == nullptr || !t->armed_ || a < t->page_ || a >= t->page_ + t->page_size_) {
			/* Not ours: let the fault take its normal course. */
			signal(sig, SIG_DFL);
			return;
		}
		mprotect(t->page_, t->page_size_, PROT_READ | PROT_WRITE);
		if (t->n_ < kMaxAccesses) {
			Access &x = t->log_[t->n_];
			x.offset = static_cast<size_t>(a - t->page_);
			x.allow_before = t->allow();
			x.busy_before = t->busy();
		} else {
			t->overflow_ = true;
		}
		t->pending_ = true;
		static_cast<ucontext_t *>(ctx)->uc_mcontext.gregs[REG_EFL] |= 0x100;
	}

	static void OnTrap(int, siginfo_t *, void *ctx)
	{
		GateTrap *t = current_;
		static_cast<ucontext_t *>(ctx)->uc_mcontext.gregs[REG_EFL] &= ~0x100LL;
		if (t == nullptr || !t->pending_)
			return;
		t->pending_ = false;
		if (t->n_ < kMaxAccesses) {
			Access &x = t->log_[t->n_];
			x.allow_after = t->allow();
			x.busy_after = t->busy();
			if (t->close_after_increment_ && !t->closed_ && x.offset == kBusyOff &&
			    x.busy_after == x.busy_before + 1) {
				__atomic_store_n(reinterpret_cast<int32_t *>(t->page_ + kAllowOff), 0,
						 __ATOMIC_RELAXED);
				t->closed_ = true;
			}
			t->n_ = t->n_ + 1;
		}
		if (t->armed_)
			mprotect(t->page_, t->page_size_, PROT_NONE);
	}

	static inline GateTrap *current_ = nullptr;

	char *page_ = nullptr;
	size_t page_size_ = 0;
	struct sigaction old_segv_ = {};
	struct sigaction old_trap_ = {};
	volatile bool armed_ = false;
	volatile bool pending_ = false;
	volatile bool close_after_increment_ = false;
	volatile bool closed_ = false;
	volatile bool overflow_ = false;
	volatile size_t n_ = 0;
	std::array<Access, kMaxAccesses> log_{};
};

bool IsRead(const GateTrap::Access &a)
{
	return a.allow_before == a.allow_after && a.busy_before == a.busy_after;
}

class RxBurstTest : public FakeEnv {
protected:
	Queues q;
};

class TxBurstTest : public FakeEnv {
protected:
	Queues q;
};

class TimestampLogTest : public FakeEnv {
protected:
	Queues q;
};

} // namespace

/* ================================================================== receive */

TEST_F(RxBurstTest, ZeroBufsCountsOneDequeueAndCallsNoTransport)
{
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[1] = {};
	EXPECT_EQ(eth_vhost_rx(q.rxq, bufs, 0), 0);
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd + 1);
	EXPECT_TRUE(f.transport.dequeues.empty());
	EXPECT_EQ(f.Count("rte_zorv1_vhost_dequeue_burst"), 0u);
	EXPECT_TRUE(StatsAllZero(q.rxq->stats));
	EXPECT_EQ(rte_atomic32_read(&q.rxq->while_queuing), 0);
}

TEST_F(RxBurstTest, SeventyWithFillingTransportTakesChunksOf32And32And6)
{
	f.transport.dequeue = FillAll;
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[70] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 70), 70);
	EXPECT_THAT(f.transport.dequeues,
		    ElementsAre(Burst{q.rxq, &bufs[0], 32, 32}, Burst{q.rxq, &bufs[32], 32, 32},
				Burst{q.rxq, &bufs[64], 6, 6}));
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd + 1) << "once per burst";
	EXPECT_EQ(q.rxq->stats.pkts, 70u);
	EXPECT_EQ(q.rxq->stats.bytes, 70u * 64);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_64_PKT], 70u);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_UNICAST_PKT], 70u);
	EXPECT_EQ(q.rxq->stats.missed_pkts, 0u);
	EXPECT_EQ(rte_atomic32_read(&q.rxq->while_queuing), 0);
	FreeAll(bufs, 70);
}

TEST_F(RxBurstTest, ExactMultipleOfTheChunkMakesNoEmptyCall)
{
	f.transport.dequeue = FillAll;
	struct rte_mbuf *bufs[64] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 64), 64);
	EXPECT_THAT(f.transport.dequeues, ElementsAre(Burst{q.rxq, &bufs[0], 32, 32},
						      Burst{q.rxq, &bufs[32], 32, 32}));
	FreeAll(bufs, 64);
}

TEST_F(RxBurstTest, ShortChunkEndsTheBurst)
{
	f.transport.dequeue = [](struct zorv1_vdev_rxq *r, struct rte_mbuf **pkts, uint16_t n) {
		return FillAll(r, pkts, n < 10 ? n : 10);
	};
	struct rte_mbuf *bufs[64] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 64), 10);
	EXPECT_THAT(f.transport.dequeues, ElementsAre(Burst{q.rxq, &bufs[0], 32, 10}));
	EXPECT_EQ(q.rxq->stats.pkts, 10u);
	EXPECT_EQ(q.rxq->stats.bytes, 640u);
	FreeAll(bufs, 10);
}

TEST_F(RxBurstTest, FullChunkAsksAgainWhileRoomRemains)
{
	for (int i = 0; i < 32; i++)
		f.transport.rx_pending.push_back(
			zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	struct rte_mbuf *bufs[40] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 40), 32);
	EXPECT_THAT(f.transport.dequeues,
		    ElementsAre(Burst{q.rxq, &bufs[0], 32, 32}, Burst{q.rxq, &bufs[32], 8, 0}));
	FreeAll(bufs, 32);
}

TEST_F(RxBurstTest, EveryBurstThatPassesTheGateCountsOneDequeue)
{
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[4] = {};
	EXPECT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 0);
	EXPECT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 0);
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd + 2);
	EXPECT_EQ(f.transport.dequeues.size(), 2u);
	rte_atomic32_set(&q.rxq->allow_queuing, 0);
	EXPECT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 0);
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd + 2);
	/* Nothing else of the control-plane counters moves. */
	auto after = g_dpdk_cp_stat;
	after.dequeue_pmd = before.dequeue_pmd;
	EXPECT_EQ(memcmp(&after, &before, sizeof(before)), 0);
}

TEST_F(RxBurstTest, SetsPortAndClearsVlanTciAndCountsEveryPacket)
{
	auto *pool = zorv_test::SharedMbufPool();
	const std::array<struct rte_mbuf *, 4> frames = {
		zorv_test::MakeFrame(pool, 64, zorv_test::kBroadcastMac),
		zorv_test::MakeFrame(pool, 60, zorv_test::kMulticastMac),
		zorv_test::MakeFrame(pool, 1000, zorv_test::kUnicastMac),
		zorv_test::MakeFrame(pool, 1600, zorv_test::kUnicastMac),
	};
	for (auto *m : frames) {
		m->port = 0xabcd;
		m->vlan_tci = 0x77;
		f.transport.rx_pending.push_back(m);
	}
	struct rte_mbuf *bufs[8] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 8), 4);
	for (int i = 0; i < 4; i++) {
		EXPECT_EQ(bufs[i], frames[i]);
		EXPECT_EQ(bufs[i]->port, 7) << i;
		EXPECT_EQ(bufs[i]->vlan_tci, 0) << i;
	}
	const auto &s = q.rxq->stats;
	EXPECT_EQ(s.pkts, 4u);
	EXPECT_EQ(s.bytes, 64u + 60 + 1000 + 1600);
	EXPECT_EQ(s.missed_pkts, 0u);
	EXPECT_THAT(s.xstats, ElementsAre(1, 1, 0, 0, 0, 1, 0, 1, 1, 1, 2));
	FreeAll(bufs, 4);
}

/*
 * Lengths and destinations that visit every size bin and every class, with
 * most packets 64 bytes long so that one bin fills fast.
 */
std::vector<struct rte_mbuf *> MixedFrames(size_t n)
{
	static constexpr uint16_t kLens[] = {20, 63, 64, 65, 127, 128, 255, 256, 511, 512,
					     1023, 1024, 1522, 1523, 2000};
	const struct rte_ether_addr *dsts[] = {&zorv_test::kUnicastMac, &zorv_test::kBroadcastMac,
					       &zorv_test::kMulticastMac, &zorv_test::kUnicastMac,
					       &zorv_test::kUnicastMac};
	std::vector<struct rte_mbuf *> v;
	for (size_t i = 0; i < n; i++)
		v.push_back(zorv_test::MakeFrame(zorv_test::SharedMbufPool(),
						 i % 8 != 0 ? 64 : kLens[(i / 8) % RTE_DIM(kLens)],
						 *dsts[i % RTE_DIM(dsts)]));
	return v;
}

/* What counting each packet on its own gives. */
struct zorv1_vdev_stats CountOneByOne(const std::vector<struct rte_mbuf *> &v)
{
	struct zorv1_vdev_stats s = {};
	for (auto *m : v) {
		s.bytes += m->pkt_len;
		zorv1_vdev_update_single_packet_xstats(&s, m);
		zorv1_vdev_count_xcast_packets(&s, m);
	}
	return s;
}

TEST_F(RxBurstTest, LongMixedBurstCountsAsPacketByPacket)
{
	/* More packets than one run of the burst's packed size bins holds. */
	const auto frames = MixedFrames(700);
	for (auto *m : frames)
		f.transport.rx_pending.push_back(m);
	std::vector<struct rte_mbuf *> bufs(frames.size());
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs.data(), (uint16_t)bufs.size()), frames.size());
	const auto want = CountOneByOne(frames);
	EXPECT_EQ(q.rxq->stats.pkts, frames.size());
	EXPECT_EQ(q.rxq->stats.bytes, want.bytes);
	EXPECT_THAT(q.rxq->stats.xstats, ElementsAreArray(want.xstats));
	uint64_t sum_bins = 0;
	for (int i = ZORV1_UNDERSIZE_PKT; i <= ZORV1_1523_TO_MAX_PKT; i++) {
		EXPECT_GT(q.rxq->stats.xstats[i], 0u) << "bin " << i;
		sum_bins += q.rxq->stats.xstats[i];
	}
	EXPECT_EQ(sum_bins, frames.size());
	FreeAll(bufs.data(), (uint16_t)bufs.size());
}

TEST_F(RxBurstTest, VlanStripCountsTaggedFrameWithoutItsTag)
{
	q.internal.vlan_strip = 1;
	auto *pool = zorv_test::SharedMbufPool();
	struct rte_mbuf *tagged = zorv_test::MakeFrame(pool, 68, zorv_test::kUnicastMac, 0x0abc);
	struct rte_mbuf *plain = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	ASSERT_NE(tagged, nullptr);
	ASSERT_NE(plain, nullptr);
	f.transport.rx_pending = {tagged, plain};
	struct rte_mbuf *bufs[4] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 2);

	EXPECT_EQ(tagged->pkt_len, 64u);
	EXPECT_EQ(tagged->data_len, 64u);
	EXPECT_EQ(tagged->vlan_tci, 0x0abc);
	EXPECT_TRUE(tagged->ol_flags & RTE_MBUF_F_RX_VLAN_STRIPPED);
	EXPECT_EQ(rte_pktmbuf_mtod(tagged, struct rte_ether_hdr *)->ether_type,
		  rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4));
	/* An untagged frame is left as it is. */
	EXPECT_EQ(plain->pkt_len, 64u);
	EXPECT_EQ(plain->vlan_tci, 0);

	EXPECT_EQ(q.rxq->stats.bytes, 128u);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_64_PKT], 2u);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_65_TO_127_PKT], 0u);
	FreeAll(bufs, 2);
}

TEST_F(RxBurstTest, WithoutVlanStripTaggedFrameIsCountedWhole)
{
	struct rte_mbuf *tagged =
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 68, zorv_test::kUnicastMac, 0x0abc);
	tagged->vlan_tci = 0x55;
	f.transport.rx_pending = {tagged};
	struct rte_mbuf *bufs[1] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 1), 1);
	EXPECT_EQ(tagged->pkt_len, 68u);
	EXPECT_EQ(tagged->vlan_tci, 0);
	EXPECT_EQ(q.rxq->stats.bytes, 68u);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_65_TO_127_PKT], 1u);
	EXPECT_EQ(q.rxq->stats.xstats[ZORV1_64_PKT], 0u);
	FreeAll(bufs, 1);
}

TEST_F(RxBurstTest, DumpsEveryReceivedPacketOnlyAtDebug)
{
	q.internal.vlan_strip = 1;
	auto *pool = zorv_test::SharedMbufPool();
	struct rte_mbuf *bufs[4] = {};
	{
		LogCapture cap(zorv1_vdev_logtype_rx, RTE_LOG_INFO);
		f.transport.rx_pending = {zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac)};
		ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 1);
		rte_pktmbuf_free(bufs[0]);
		EXPECT_TRUE(f.util.dumps.empty());
	}
	{
		/* Transmit dumps at DEBUG do not make receive dump. */
		LogCapture cap(zorv1_vdev_logtype_tx, RTE_LOG_DEBUG);
		f.transport.rx_pending = {zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac)};
		ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 1);
		rte_pktmbuf_free(bufs[0]);
		EXPECT_TRUE(f.util.dumps.empty());
	}
	LogCapture cap(zorv1_vdev_logtype_rx, RTE_LOG_DEBUG);
	f.transport.rx_pending = {zorv_test::MakeFrame(pool, 68, zorv_test::kUnicastMac, 9),
				  zorv_test::MakeFrame(pool, 100, zorv_test::kBroadcastMac),
				  zorv_test::MakeFrame(pool, 70, zorv_test::kMulticastMac)};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 3);
	/* After stripping: the first byte and data_len of the stripped frame. */
	EXPECT_THAT(f.util.dumps,
		    ElementsAre(zorv_fake::DumpPkt{"vdev rx", rte_pktmbuf_mtod(bufs[0], uint8_t *), 64},
				zorv_fake::DumpPkt{"vdev rx", rte_pktmbuf_mtod(bufs[1], uint8_t *), 100},
				zorv_fake::DumpPkt{"vdev rx", rte_pktmbuf_mtod(bufs[2], uint8_t *), 70}));
	FreeAll(bufs, 3);
}

TEST_F(RxBurstTest, TimestampPathStaysOffInThisDriver)
{
	EXPECT_EQ(zorv1_get_ts_flag(), 0);
	LogCapture cap(zorv1_pci_logtype_perf, RTE_LOG_DEBUG);
	f.transport.dequeue = FillAll;
	g_timestap_cnt = 123;
	struct rte_mbuf *bufs[40] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 40), 40);
	EXPECT_EQ(g_timestap_cnt, 123u);
	EXPECT_TRUE(f.util.calc_times.empty());
	EXPECT_EQ(cap.Text(), "");
	FreeAll(bufs, 40);
}

/* ================================================================== transmit */

TEST_F(TxBurstTest, ZeroBufsReturnsZeroAndCountsNothing)
{
	f.transport.AcceptAll();
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[1] = {};
	EXPECT_EQ(eth_vhost_tx(q.txq, bufs, 0), 0);
	EXPECT_TRUE(f.transport.enqueues.empty());
	EXPECT_TRUE(StatsAllZero(q.txq->stats));
	EXPECT_EQ(memcmp(&before, &g_dpdk_cp_stat, sizeof(before)), 0);
	EXPECT_EQ(rte_atomic32_read(&q.txq->while_queuing), 0);
}

TEST_F(TxBurstTest, SeventyAcceptedGoInChunksOf32And32And6)
{
	f.transport.AcceptAll();
	struct rte_mbuf *bufs[70];
	for (auto &m : bufs)
		m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac);
	const auto before = g_dpdk_cp_stat;
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 70), 70);
	EXPECT_THAT(f.transport.enqueues,
		    ElementsAre(Burst{q.txq, &bufs[0], 32, 32}, Burst{q.txq, &bufs[32], 32, 32},
				Burst{q.txq, &bufs[64], 6, 6}));
	EXPECT_EQ(q.txq->stats.pkts, 70u);
	EXPECT_EQ(q.txq->stats.bytes, 70u * 64);
	EXPECT_EQ(q.txq->stats.missed_pkts, 0u);
	EXPECT_EQ(q.txq->stats.xstats[ZORV1_64_PKT], 70u);
	/* Transmit counts no control-plane counter. */
	EXPECT_EQ(memcmp(&before, &g_dpdk_cp_stat, sizeof(before)), 0);
	EXPECT_EQ(f.transport.sent.size(), 70u);
}

TEST_F(TxBurstTest, ShortAcceptEndsTheBurstAndTheRestIsMissedAndStaysWithTheCaller)
{
	MbufPool pool(63);
	f.transport.AcceptAll(10);
	struct rte_mbuf *bufs[40];
	for (auto &m : bufs)
		m = zorv_test::MakeFrame(pool, 100, zorv_test::kUnicastMac);
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 40), 10);
	EXPECT_THAT(f.transport.enqueues, ElementsAre(Burst{q.txq, &bufs[0], 32, 10}));
	EXPECT_EQ(q.txq->stats.pkts, 10u);
	EXPECT_EQ(q.txq->stats.bytes, 1000u);
	EXPECT_EQ(q.txq->stats.missed_pkts, 30u);
	EXPECT_EQ(q.txq->stats.xstats[ZORV1_65_TO_127_PKT], 10u);
	/* The burst freed nothing: 10 with the transport, 30 with us. */
	EXPECT_EQ(pool.InUse(), 40u);
	FreeAll(&bufs[10], 30);
	f.transport.FreeHeld();
	EXPECT_EQ(pool.InUse(), 0u);
}

TEST_F(TxBurstTest, OnlyAcceptedPacketsAreCounted)
{
	f.transport.AcceptAll(2);
	auto *pool = zorv_test::SharedMbufPool();
	struct rte_mbuf *bufs[3] = {zorv_test::MakeFrame(pool, 64, zorv_test::kBroadcastMac),
				    zorv_test::MakeFrame(pool, 200, zorv_test::kMulticastMac),
				    zorv_test::MakeFrame(pool, 1500, zorv_test::kUnicastMac)};
	MbufPtr left(bufs[2]);
	bufs[0]->port = 0x1234;
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 3), 2);
	const auto &s = q.txq->stats;
	EXPECT_EQ(s.pkts, 2u);
	EXPECT_EQ(s.bytes, 264u);
	EXPECT_EQ(s.missed_pkts, 1u);
	EXPECT_THAT(s.xstats, ElementsAre(0, 1, 0, 1, 0, 0, 0, 0, 1, 1, 0));
	EXPECT_EQ(bufs[0]->port, 0x1234) << "transmit sets no port";
}

TEST_F(TxBurstTest, LongMixedBurstCountsAcceptedPacketsAsPacketByPacket)
{
	auto frames = MixedFrames(600);
	/* 16 chunks of 32 and then 8 of the 17th: 520 accepted in all. */
	size_t left = 520;
	f.transport.enqueue = [&](struct zorv1_vdev_txq *, struct rte_mbuf **pkts, uint16_t n) {
		uint16_t take = (uint16_t)std::min<size_t>(n, left);
		left -= take;
		std::lock_guard<std::mutex> lk(f.mu);
		f.transport.sent.insert(f.transport.sent.end(), pkts, pkts + take);
		return take;
	};
	ASSERT_EQ(eth_vhost_tx(q.txq, frames.data(), (uint16_t)frames.size()), 520);
	const auto want = CountOneByOne({frames.begin(), frames.begin() + 520});
	EXPECT_EQ(q.txq->stats.pkts, 520u);
	EXPECT_EQ(q.txq->stats.bytes, want.bytes);
	EXPECT_EQ(q.txq->stats.missed_pkts, 80u);
	EXPECT_THAT(q.txq->stats.xstats, ElementsAreArray(want.xstats));
	EXPECT_EQ(f.transport.enqueues.size(), 17u);
	FreeAll(frames.data() + 520, 80);
	f.transport.FreeHeld();
}

TEST_F(TxBurstTest, FailedVlanInsertFreesThatPacketAndCountsItMissed)
{
	MbufPool pool(63);
	struct rte_mbuf *p[5];
	for (int i = 0; i < 5; i++)
		p[i] = zorv_test::MakeFrame(pool, i == 3 ? 60 : 64, zorv_test::kUnicastMac);
	/* Packet 2 asks for a tag but has no headroom for it. */
	memmove(p[1]->buf_addr, rte_pktmbuf_mtod(p[1], void *), p[1]->data_len);
	p[1]->data_off = 0;
	ASSERT_EQ(rte_pktmbuf_headroom(p[1]), 0);
	zorv_test::RequestVlanInsert(p[1], 7);
	/* Packet 4 asks for a tag and gets it. */
	zorv_test::RequestVlanInsert(p[3], 0x0123);
	f.transport.AcceptAll();
	ASSERT_EQ(pool.InUse(), 5u);

	struct rte_mbuf *bufs[5] = {p[0], p[1], p[2], p[3], p[4]};
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 5), 4);

	EXPECT_THAT(f.transport.enqueues, ElementsAre(Burst{q.txq, &bufs[0], 4, 4}));
	/* Compacted in place; the last entry keeps its old contents. */
	EXPECT_THAT(bufs, ElementsAre(p[0], p[2], p[3], p[4], p[4]));
	EXPECT_THAT(f.transport.sent, ElementsAre(p[0], p[2], p[3], p[4]));
	EXPECT_EQ(pool.InUse(), 4u) << "the packet whose insert failed was freed";
	EXPECT_EQ(q.txq->stats.pkts, 4u);
	EXPECT_EQ(q.txq->stats.missed_pkts, 1u);
	EXPECT_EQ(q.txq->stats.bytes, 4u * 64);
	EXPECT_EQ(q.txq->stats.xstats[ZORV1_64_PKT], 4u);

	/* The inserted tag is in the frame. */
	EXPECT_EQ(p[3]->pkt_len, 64u);
	EXPECT_FALSE(p[3]->ol_flags & RTE_MBUF_F_TX_VLAN);
	const uint8_t *d = rte_pktmbuf_mtod(p[3], const uint8_t *);
	EXPECT_THAT(std::vector<uint8_t>(d + 12, d + 16), ElementsAre(0x81, 0x00, 0x01, 0x23));

	f.transport.FreeHeld();
	EXPECT_EQ(pool.InUse(), 0u);
}

TEST_F(TxBurstTest, FailedVlanInsertOfSharedPacketDropsOnlyTheBurstsReference)
{
	MbufPool pool(63);
	struct rte_mbuf *p[3];
	for (auto &m : p)
		m = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	rte_mbuf_refcnt_update(p[1], 1);
	zorv_test::RequestVlanInsert(p[1], 7);
	f.transport.AcceptAll();
	struct rte_mbuf *bufs[3] = {p[0], p[1], p[2]};
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 3), 2);
	EXPECT_THAT(f.transport.sent, ElementsAre(p[0], p[2]));
	EXPECT_EQ(rte_mbuf_refcnt_read(p[1]), 1);
	EXPECT_EQ(pool.InUse(), 3u);
	EXPECT_EQ(q.txq->stats.missed_pkts, 1u);
	rte_pktmbuf_free(p[1]);
	f.transport.FreeHeld();
	EXPECT_EQ(pool.InUse(), 0u);
}

TEST_F(TxBurstTest, DebugDumpRestartsAtTheFirstPacketOnEveryChunk)
{
	f.transport.AcceptAll();
	struct rte_mbuf *bufs[40];
	for (int i = 0; i < 40; i++)
		bufs[i] = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 60 + i,
					       zorv_test::kUnicastMac);
	struct rte_mbuf *orig[40];
	memcpy(orig, bufs, sizeof(bufs));

	LogCapture cap(zorv1_vdev_logtype_tx, RTE_LOG_DEBUG);
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 40), 40);
	std::vector<zorv_fake::DumpPkt> want;
	for (int j = 0; j < 32; j++)
		want.push_back({"vdev tx", rte_pktmbuf_mtod(orig[j], uint8_t *),
				static_cast<uint32_t>(60 + j)});
	for (int j = 0; j < 8; j++)
		want.push_back({"vdev tx", rte_pktmbuf_mtod(orig[j], uint8_t *),
				static_cast<uint32_t>(60 + j)});
	EXPECT_THAT(f.util.dumps, ElementsAreArray(want));
}

TEST_F(TxBurstTest, NoDumpBelowDebug)
{
	f.transport.AcceptAll();
	LogCapture rx_debug(zorv1_vdev_logtype_rx, RTE_LOG_DEBUG);
	LogCapture cap(zorv1_vdev_logtype_tx, RTE_LOG_INFO);
	struct rte_mbuf *bufs[2] = {
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac),
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac)};
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 2), 2);
	EXPECT_TRUE(f.util.dumps.empty());
}

TEST_F(TxBurstTest, CountingReadsAcceptedPacketsAfterTheLastEnqueue)
{
	/* The transport changes the first chunk's packets while taking the
	 * second chunk; the counting pass must see the changed lengths. */
	std::vector<struct rte_mbuf *> first;
	f.transport.enqueue = [&](struct zorv1_vdev_txq *, struct rte_mbuf **pkts, uint16_t n) {
		if (first.empty()) {
			first.assign(pkts, pkts + n);
		} else {
			for (auto *m : first)
				m->pkt_len = 100;
		}
		std::lock_guard<std::mutex> lk(f.mu);
		f.transport.sent.insert(f.transport.sent.end(), pkts, pkts + n);
		return n;
	};
	struct rte_mbuf *bufs[40];
	for (auto &m : bufs)
		m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac);
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 40), 40);
	ASSERT_EQ(f.transport.enqueues.size(), 2u);
	EXPECT_EQ(q.txq->stats.bytes, 32u * 100 + 8u * 64);
	EXPECT_EQ(q.txq->stats.xstats[ZORV1_65_TO_127_PKT], 32u);
	EXPECT_EQ(q.txq->stats.xstats[ZORV1_64_PKT], 8u);
	for (auto *m : first)
		m->pkt_len = m->data_len;
}

TEST_F(TxBurstTest, NeitherBurstLogsAnythingOnShortOrFailedWork)
{
	LogCapture cap; /* every log type at its usual level */
	MbufPool pool(63);
	/* Receive: a short chunk and a failed strip of an untagged frame. */
	q.internal.vlan_strip = 1;
	f.transport.rx_pending = {zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac)};
	struct rte_mbuf *bufs[4] = {};
	ASSERT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 1);
	rte_pktmbuf_free(bufs[0]);
	/* Transmit: a failed insert and a refused packet. */
	struct rte_mbuf *p[3];
	for (auto &m : p)
		m = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	memmove(p[0]->buf_addr, rte_pktmbuf_mtod(p[0], void *), p[0]->data_len);
	p[0]->data_off = 0;
	zorv_test::RequestVlanInsert(p[0], 1);
	f.transport.AcceptAll(1);
	struct rte_mbuf *tx[3] = {p[0], p[1], p[2]};
	ASSERT_EQ(eth_vhost_tx(q.txq, tx, 3), 1);
	rte_pktmbuf_free(p[2]);
	/* And both on closed gates. */
	rte_atomic32_set(&q.rxq->allow_queuing, 0);
	rte_atomic32_set(&q.txq->allow_queuing, 0);
	EXPECT_EQ(eth_vhost_rx(q.rxq, bufs, 4), 0);
	EXPECT_EQ(eth_vhost_tx(q.txq, tx, 1), 0);
	EXPECT_EQ(cap.Text(), "");
	f.transport.FreeHeld();
	EXPECT_EQ(pool.InUse(), 0u);
}

TEST_F(TxBurstTest, TransmitKeepsTheTimestampCounter)
{
	f.transport.AcceptAll();
	g_timestap_cnt = 77;
	struct rte_mbuf *bufs[1] = {
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac)};
	ASSERT_EQ(eth_vhost_tx(q.txq, bufs, 1), 1);
	EXPECT_EQ(g_timestap_cnt, 77u);
	EXPECT_TRUE(f.util.calc_times.empty());
}

/* ================================================================== gate entry */

class GateEntryTest : public FakeEnv {
protected:
	struct zorv1_internal internal = {};
};

TEST_F(GateEntryTest, ReceiveOnClosedGateReturnsAtOnceWithoutTouchingTheBusyCount)
{
	GateTrap trap;
	auto *rxq = trap.Place<struct zorv1_vdev_rxq>();
	rxq->internal = &internal;
	rte_atomic32_set(&rxq->while_queuing, 2);
	f.transport.dequeue = FillAll;
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[4] = {};

	trap.Arm();
	const uint16_t n = eth_vhost_rx(rxq, bufs, 4);
	trap.Disarm();

	EXPECT_EQ(n, 0);
	auto acc = trap.accesses();
	ASSERT_EQ(acc.size(), 1u) << "only the gate is read";
	EXPECT_EQ(acc[0].offset, kAllowOff);
	EXPECT_TRUE(IsRead(acc[0]));
	EXPECT_EQ(rte_atomic32_read(&rxq->while_queuing), 2);
	EXPECT_TRUE(f.transport.dequeues.empty());
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd);
	EXPECT_TRUE(StatsAllZero(rxq->stats));
}

TEST_F(GateEntryTest, ReceiveGateClosingAfterTheIncrementLeavesAndRestoresTheBusyCount)
{
	GateTrap trap;
	auto *rxq = trap.Place<struct zorv1_vdev_rxq>();
	rxq->internal = &internal;
	rte_atomic32_set(&rxq->allow_queuing, 1);
	rte_atomic32_set(&rxq->while_queuing, 2);
	f.transport.dequeue = FillAll;
	const auto before = g_dpdk_cp_stat;
	struct rte_mbuf *bufs[4] = {};

	trap.CloseAfterIncrement();
	trap.Arm();
	const uint16_t n = eth_vhost_rx(rxq, bufs, 4);
	trap.Disarm();

	EXPECT_EQ(n, 0);
	auto acc = trap.accesses();
	ASSERT_EQ(acc.size(), 4u) << "gate read, increment, re-check, decrement; nothing else";
	EXPECT_EQ(acc[0].offset, kAllowOff);
	EXPECT_TRUE(IsRead(acc[0]));
	EXPECT_EQ(acc[0].allow_before, 1);
	EXPECT_EQ(acc[1].offset, kBusyOff);
	EXPECT_EQ(acc[1].busy_before, 2);
	EXPECT_EQ(acc[1].busy_after, 3);
	EXPECT_EQ(acc[2].offset, kAllowOff);
	EXPECT_TRUE(IsRead(acc[2]));
	EXPECT_EQ(acc[2].allow_before, 0) << "the re-check saw the closed gate";
	EXPECT_EQ(acc[3].offset, kBusyOff);
	EXPECT_EQ(acc[3].busy_before, 3);
	EXPECT_EQ(acc[3].busy_after, 2);
	EXPECT_EQ(rte_atomic32_read(&rxq->while_queuing), 2);
	EXPECT_TRUE(f.transport.dequeues.empty());
	EXPECT_EQ(g_dpdk_cp_stat.dequeue_pmd, before.dequeue_pmd);
	EXPECT_TRUE(StatsAllZero(rxq->stats));
}

TEST_F(GateEntryTest, ReceiveOnOpenGateIsInsideFromIncrementToFinalDecrement)
{
	GateTrap trap;
	auto *rxq = trap.Place<struct zorv1_vdev_rxq>();
	rxq->internal = &internal;
	rxq->port = 1;
	rte_atomic32_set(&rxq->allow_queuing, 1);
	size_t accesses_at_transport = 0;
	f.transport.dequeue = [&](struct zorv1_vdev_rxq *r, struct rte_mbuf **pkts, uint16_t n) {
		accesses_at_transport = trap.count();
		return FillAll(r, pkts, n < 2 ? n : 2);
	};
	struct rte_mbuf *bufs[4] = {};

	trap.Arm();
	const uint16_t n = eth_vhost_rx(rxq, bufs, 4);
	trap.Disarm();

	ASSERT_FALSE(trap.overflowed());
	EXPECT_EQ(n, 2);
	/* Positions of the gate accesses in the whole trace. */
	auto acc = trap.accesses();
	std::vector<size_t> at;
	for (size_t i = 0; i < acc.size(); i++)
		if (acc[i].offset == kAllowOff || acc[i].offset == kBusyOff)
			at.push_back(i);
	ASSERT_EQ(at.size(), 4u);
	EXPECT_EQ(at[0], 0u) << "the gate is read first";
	EXPECT_EQ(acc[at[0]].offset, kAllowOff);
	EXPECT_EQ(acc[at[1]].offset, kBusyOff);
	EXPECT_EQ(acc[at[1]].busy_after, 1);
	EXPECT_EQ(acc[at[2]].offset, kAllowOff);
	EXPECT_TRUE(IsRead(acc[at[2]]));
	EXPECT_EQ(acc[at[3]].offset, kBusyOff);
	EXPECT_EQ(acc[at[3]].busy_after, 0);
	/* The transport ran after the re-check and before the decrement. */
	EXPECT_GT(accesses_at_transport, at[2]);
	EXPECT_LE(accesses_at_transport, at[3]);
	EXPECT_EQ(rxq->stats.pkts, 2u);
	FreeAll(bufs, 2);
}

TEST_F(GateEntryTest, TransmitOnClosedGateReturnsAtOnceAndLeavesThePacketsAlone)
{
	GateTrap trap;
	auto *txq = trap.Place<struct zorv1_vdev_txq>();
	txq->internal = &internal;
	rte_atomic32_set(&txq->while_queuing, 1);
	f.transport.AcceptAll();
	MbufPool pool(63);
	struct rte_mbuf *m = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	/* No headroom: an insert attempt would free it. */
	memmove(m->buf_addr, rte_pktmbuf_mtod(m, void *), m->data_len);
	m->data_off = 0;
	zorv_test::RequestVlanInsert(m, 3);
	struct rte_mbuf *bufs[1] = {m};

	trap.Arm();
	const uint16_t n = eth_vhost_tx(txq, bufs, 1);
	trap.Disarm();

	EXPECT_EQ(n, 0);
	auto acc = trap.accesses();
	ASSERT_EQ(acc.size(), 1u);
	EXPECT_EQ(acc[0].offset, kAllowOff);
	EXPECT_EQ(rte_atomic32_read(&txq->while_queuing), 1);
	EXPECT_TRUE(f.transport.enqueues.empty());
	EXPECT_EQ(pool.InUse(), 1u);
	EXPECT_TRUE(m->ol_flags & RTE_MBUF_F_TX_VLAN);
	EXPECT_TRUE(StatsAllZero(txq->stats));
	rte_pktmbuf_free(m);
}

TEST_F(GateEntryTest, TransmitGateClosingAfterTheIncrementLeavesAndRestoresTheBusyCount)
{
	GateTrap trap;
	auto *txq = trap.Place<struct zorv1_vdev_txq>();
	txq->internal = &internal;
	rte_atomic32_set(&txq->allow_queuing, 1);
	rte_atomic32_set(&txq->while_queuing, 4);
	f.transport.AcceptAll();
	MbufPool pool(63);
	struct rte_mbuf *m = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	memmove(m->buf_addr, rte_pktmbuf_mtod(m, void *), m->data_len);
	m->data_off = 0;
	zorv_test::RequestVlanInsert(m, 3);
	struct rte_mbuf *bufs[1] = {m};

	trap.CloseAfterIncrement();
	trap.Arm();
	const uint16_t n = eth_vhost_tx(txq, bufs, 1);
	trap.Disarm();

	EXPECT_EQ(n, 0);
	auto acc = trap.accesses();
	ASSERT_EQ(acc.size(), 4u);
	EXPECT_EQ(acc[0].offset, kAllowOff);
	EXPECT_EQ(acc[1].offset, kBusyOff);
	EXPECT_EQ(acc[1].busy_after, 5);
	EXPECT_EQ(acc[2].offset, kAllowOff);
	EXPECT_EQ(acc[2].allow_before, 0);
	EXPECT_EQ(acc[3].offset, kBusyOff);
	EXPECT_EQ(acc[3].busy_after, 4);
	EXPECT_EQ(rte_atomic32_read(&txq->while_queuing), 4);
	EXPECT_TRUE(f.transport.enqueues.empty());
	/* No VLAN pass, no free, no counting. */
	EXPECT_EQ(pool.InUse(), 1u);
	EXPECT_TRUE(m->ol_flags & RTE_MBUF_F_TX_VLAN);
	EXPECT_TRUE(StatsAllZero(txq->stats));
	rte_pktmbuf_free(m);
}

/* ================================================================== time-stamp log */

TEST_F(TimestampLogTest, LogsTheFirst500CallsOfEvery200000AndCountsEveryCall)
{
	LogCapture cap(zorv1_pci_logtype_perf, RTE_LOG_DEBUG);
	MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	const struct {
		uint32_t cnt;
		bool logged;
	} cases[] = {{0, true},       {499, true},     {500, false},  {199999, false},
		     {200000, true},  {200499, true},  {200500, false}, {400001, true},
		     {0xFFFFFFFFu, false}};
	for (const auto &c : cases) {
		cap.Clear();
		f.util.calc_times.clear();
		g_timestap_cnt = c.cnt;
		const uint64_t tsc1 = rte_rdtsc();
		zorv1_eth_ts_log(tsc1, q.rxq, m.get());
		const uint64_t tsc_end = rte_rdtsc();
		EXPECT_EQ(g_timestap_cnt, c.cnt + 1u) << c.cnt;

		auto entries = cap.Entries();
		if (!c.logged) {
			EXPECT_TRUE(entries.empty()) << c.cnt << ": " << cap.Text();
			EXPECT_TRUE(f.util.calc_times.empty()) << c.cnt;
			continue;
		}
		ASSERT_EQ(entries.size(), 1u) << c.cnt << ": " << cap.Text();
		const auto &e = entries[0];
		EXPECT_EQ(e.level, static_cast<int>(RTE_LOG_DEBUG));
		EXPECT_EQ(e.logtype, zorv1_pci_logtype_perf);
		/* The numbers first; the whole line is compared below. */
		unsigned cnt_logged = 0;
		unsigned long us = 0, tsc2_logged = 0;
		ASSERT_EQ(sscanf(e.text.c_str(), "[offload_smartnic] zorv1-ts: [%u] eth_rx:%luus, %lu, ",
				 &cnt_logged, &us, &tsc2_logged),
			  3)
			<< c.cnt << ": \"" << e.text << "\"";
		EXPECT_EQ(cnt_logged, c.cnt);
		const uint64_t tsc2 = tsc2_logged;
		EXPECT_GE(tsc2, tsc1);
		EXPECT_LE(tsc2, tsc_end);
		/* The elapsed time is the utilities' time from tsc1 to tsc2. */
		ASSERT_EQ(f.util.calc_times.size(), 1u);
		EXPECT_EQ(f.util.calc_times[0].start, tsc1);
		EXPECT_EQ(f.util.calc_times[0].end, tsc2);
		EXPECT_EQ(f.util.calc_times[0].result, us);
		/* The whole line, the widths of every field included. */
		char want[256];
		snprintf(want, sizeof(want),
			 "[offload_smartnic] zorv1-ts: [%d] eth_rx:%3luus, %lu, %p, %3d, %3d, %2d\n",
			 static_cast<int>(c.cnt), us, static_cast<unsigned long>(tsc2), m->buf_addr, 5,
			 3, 4);
		EXPECT_EQ(e.text, want);
	}
}

TEST_F(TimestampLogTest, BelowDebugNothingIsLoggedButTheCounterAdvances)
{
	LogCapture cap(zorv1_pci_logtype_perf, RTE_LOG_INFO);
	MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	g_timestap_cnt = 10;
	for (int i = 0; i < 5; i++)
		zorv1_eth_ts_log(rte_rdtsc(), q.rxq, m.get());
	EXPECT_EQ(g_timestap_cnt, 15u);
	EXPECT_EQ(cap.Text(), "");
}

TEST_F(TimestampLogTest, CounterIsKeptPerThread)
{
	LogCapture cap(zorv1_pci_logtype_perf, RTE_LOG_DEBUG);
	MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	g_timestap_cnt = 600; /* outside the sampled window on this thread */
	uint32_t other_after = 0;
	std::thread t([&] {
		/* A new thread starts at 0, inside the window. */
		zorv1_eth_ts_log(rte_rdtsc(), q.rxq, m.get());
		other_after = g_timestap_cnt;
	});
	t.join();
	zorv1_eth_ts_log(rte_rdtsc(), q.rxq, m.get());
	EXPECT_EQ(other_after, 1u);
	EXPECT_EQ(g_timestap_cnt, 601u);
	auto entries = cap.Entries();
	ASSERT_EQ(entries.size(), 1u) << cap.Text();
	EXPECT_EQ(entries[0].text.rfind("[offload_smartnic] zorv1-ts: [0] eth_rx:", 0), 0u)
		<< entries[0].text;
}
