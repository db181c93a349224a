/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: what the emulated card's receive path does with a classified
 * burst (zorv_flow_rx_dispatch): frames for other queues go into those
 * queues' rings, dropped frames are freed, the frames for the receiving
 * queue stay at the front in their order.
 */
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include <rte_flow.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include "test_flow_helpers.h"
#include "zorv1_vhost.h"

namespace {

using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::Ip4;
using flow_test::RuleBuilder;

constexpr uint16_t NB_QUEUES = 4;

/* A port whose receive queues have records and rings from the ring manager. */
class FlowDispatchTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(port_);
		for (uint16_t q = 0; q < NB_QUEUES; q++) {
			rxq_[q] = {};
			rxq_[q].internal = port_.fake().internal();
			rxq_[q].port = port_.id();
			rxq_[q].virtqueue_id = static_cast<uint16_t>(q * ZORV1_QNUM);
			rxq_[q].local_id = zorv1_ring_create(q == 3 ? 4 : 512);
			ASSERT_GE(rxq_[q].local_id, 0);
			port_.fake().data()->rx_queues[q] = &rxq_[q];
		}
	}
	void TearDown() override
	{
		for (uint16_t q = 0; q < NB_QUEUES; q++) {
			zorv1_ring_destroy(rxq_[q].local_id);
			port_.fake().data()->rx_queues[q] = nullptr;
		}
	}

	struct rte_ring *Ring(uint16_t q) { return zorv1_get_ring_by_local_id(rxq_[q].local_id); }
	/* Everything waiting in queue q's ring, in order. */
	std::vector<struct rte_mbuf *> Drain(uint16_t q)
	{
		std::vector<struct rte_mbuf *> out;
		void *o;
		while (rte_ring_dequeue(Ring(q), &o) == 0)
			out.push_back(static_cast<struct rte_mbuf *>(o));
		return out;
	}
	void Rule(const char *dst, uint16_t queue, bool drop = false)
	{
		struct rte_flow_item_ipv4 spec = {}, mask = {};
		spec.hdr.dst_addr = Ip4(dst);
		mask.hdr.dst_addr = RTE_BE32(0xffffffff);
		RuleBuilder r;
		r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask);
		if (drop)
			r.Drop();
		else
			r.Queue(queue);
		ASSERT_NE(port_.Create(r), nullptr);
	}
	struct rte_mbuf *To(const char *dst, uint16_t id)
	{
		/* The source port numbers the frames so that their order can be checked. */
		return Frame().Eth().Ipv4("1.1.1.1", dst).Udp(id, 9).PadTo(64).Build(pool_.get()).release();
	}
	static uint16_t IdOf(const struct rte_mbuf *m)
	{
		const uint8_t *p = rte_pktmbuf_mtod(m, const uint8_t *) + 34;
		return static_cast<uint16_t>((p[0] << 8) | p[1]);
	}
	struct zorv_flow_stats Stats()
	{
		struct zorv_flow_stats st = {};
		EXPECT_EQ(zorv_flow_stats_get(port_.dev(), &st), 0);
		return st;
	}

	FlowPort port_{NB_QUEUES};
	struct zorv1_vdev_rxq rxq_[NB_QUEUES];
	zorv_test::MbufPool pool_{511};
};

TEST_F(FlowDispatchTest, FramesGoToTheirQueuesRingsInOrder)
{
	Rule("10.0.0.2", 2);
	Rule("10.0.0.9", 0, true);
	const char *dsts[] = {"10.0.0.1", "10.0.0.2", "10.0.0.9", "10.0.0.1", "10.0.0.2", "10.0.0.2"};
	struct rte_mbuf *pkts[6];
	for (uint16_t i = 0; i < 6; i++)
		pkts[i] = To(dsts[i], i);

	uint16_t kept = zorv_flow_rx_dispatch(port_.priv(), &rxq_[1], pkts, 6);
	ASSERT_EQ(kept, 2);
	EXPECT_EQ(IdOf(pkts[0]), 0);
	EXPECT_EQ(IdOf(pkts[1]), 3);
	auto steered = Drain(2);
	ASSERT_EQ(steered.size(), 3u);
	EXPECT_EQ(IdOf(steered[0]), 1);
	EXPECT_EQ(IdOf(steered[1]), 4);
	EXPECT_EQ(IdOf(steered[2]), 5);
	EXPECT_TRUE(Drain(0).empty());
	EXPECT_EQ(pool_.InUse(), 5u) << "the dropped frame went back to its pool";

	struct zorv_flow_stats st = Stats();
	EXPECT_EQ(st.classified, 6u);
	EXPECT_EQ(st.steered, 3u);
	EXPECT_EQ(st.dropped, 1u);
	for (auto *m : steered)
		rte_pktmbuf_free(m);
	rte_pktmbuf_free(pkts[0]);
	rte_pktmbuf_free(pkts[1]);
	EXPECT_EQ(pool_.InUse(), 0u);
}

TEST_F(FlowDispatchTest, LongBurstsKeepTheOrderAcrossChunks)
{
	Rule("10.0.0.2", 2);
	constexpr uint16_t N = 150; /* more than one chunk of the classifier */
	std::vector<struct rte_mbuf *> pkts(N);
	for (uint16_t i = 0; i < N; i++)
		pkts[i] = To(i % 3 == 0 ? "10.0.0.2" : "10.0.0.1", i);

	uint16_t kept = zorv_flow_rx_dispatch(port_.priv(), &rxq_[0], pkts.data(), N);
	ASSERT_EQ(kept, N - 50);
	uint16_t expect = 0;
	for (uint16_t i = 0; i < kept; i++) {
		while (expect % 3 == 0)
			expect++;
		EXPECT_EQ(IdOf(pkts[i]), expect++);
	}
	auto steered = Drain(2);
	ASSERT_EQ(steered.size(), 50u);
	for (uint16_t i = 0; i < 50; i++)
		EXPECT_EQ(IdOf(steered[i]), 3 * i);
	for (auto *m : steered)
		rte_pktmbuf_free(m);
	for (uint16_t i = 0; i < kept; i++)
		rte_pktmbuf_free(pkts[i]);
}

TEST_F(FlowDispatchTest, AFullRingDropsAndAMissingQueueKeeps)
{
	Rule("10.0.0.3", 3); /* queue 3's ring holds 4 frames */
	Rule("10.0.0.2", 2);
	struct rte_mbuf *pkts[10];
	for (uint16_t i = 0; i < 6; i++)
		pkts[i] = To("10.0.0.3", i);
	uint16_t kept = zorv_flow_rx_dispatch(port_.priv(), &rxq_[0], pkts, 6);
	EXPECT_EQ(kept, 0);
	EXPECT_EQ(Drain(3).size(), 4u);
	EXPECT_EQ(Stats().ring_full, 2u);
	EXPECT_EQ(pool_.InUse(), 4u);

	/* Queue 2 not set up (no record): the frames stay where they arrived. */
	port_.fake().data()->rx_queues[2] = nullptr;
	for (uint16_t i = 0; i < 3; i++)
		pkts[i] = To("10.0.0.2", i);
	kept = zorv_flow_rx_dispatch(port_.priv(), &rxq_[0], pkts, 3);
	EXPECT_EQ(kept, 3);
	EXPECT_EQ(Stats().no_queue, 3u);
	port_.fake().data()->rx_queues[2] = &rxq_[2];
	for (uint16_t i = 0; i < kept; i++)
		rte_pktmbuf_free(pkts[i]);
}

TEST_F(FlowDispatchTest, WithoutMovesTheBurstIsLeftAsItIs)
{
	Rule("10.0.0.2", 1); /* the receiving queue itself */
	struct rte_mbuf *pkts[3];
	for (uint16_t i = 0; i < 3; i++)
		pkts[i] = To(i == 1 ? "10.0.0.2" : "10.0.0.7", i);
	struct rte_mbuf *before[3];
	memcpy(before, pkts, sizeof(pkts));
	EXPECT_EQ(zorv_flow_rx_dispatch(port_.priv(), &rxq_[1], pkts, 3), 3);
	EXPECT_EQ(memcmp(before, pkts, sizeof(pkts)), 0);
	EXPECT_EQ(Stats().steered, 0u);
	for (auto *m : pkts)
		rte_pktmbuf_free(m);
}

TEST_F(FlowDispatchTest, RssSpreadsABurstOverTheRings)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4).Rss({0, 1, 2}, RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_NONFRAG_IPV4_UDP);
	ASSERT_NE(port_.Create(r), nullptr);
	constexpr uint16_t N = 90;
	std::vector<struct rte_mbuf *> pkts(N);
	for (uint16_t i = 0; i < N; i++)
		pkts[i] = To("10.0.0.1", i); /* source port i: different hashes */
	uint16_t kept = zorv_flow_rx_dispatch(port_.priv(), &rxq_[0], pkts.data(), N);
	auto q1 = Drain(1), q2 = Drain(2);
	EXPECT_EQ(kept + q1.size() + q2.size(), N);
	EXPECT_GT(kept, 10u);
	EXPECT_GT(q1.size(), 10u);
	EXPECT_GT(q2.size(), 10u);
	for (auto *m : q1)
		EXPECT_EQ(m->hash.rss % 3, 1u);
	for (auto *m : q2)
		EXPECT_EQ(m->hash.rss % 3, 2u);
	for (uint16_t i = 0; i < kept; i++)
		EXPECT_EQ(pkts[i]->hash.rss % 3, 0u);
	for (auto *m : q1)
		rte_pktmbuf_free(m);
	for (auto *m : q2)
		rte_pktmbuf_free(m);
	for (uint16_t i = 0; i < kept; i++)
		rte_pktmbuf_free(pkts[i]);
}

} // namespace
