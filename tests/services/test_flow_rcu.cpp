/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: rule changes while receive queues classify. The control
 * side publishes a new rule table and frees the old one only after every
 * burst that could still use it has ended; classifying threads never see a
 * rule half made or freed. Run this binary also in a ThreadSanitizer build.
 */
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_cycles.h>
#include <rte_flow.h>
#include <rte_mtr.h>

#include "test_flow_helpers.h"

namespace {

using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::Ip4;
using flow_test::RuleBuilder;

constexpr uint16_t NB_QUEUES = 4;

TEST(FlowRcu, ControlWaitsForABurstInProgressBeforeFreeing)
{
	FlowPort port(NB_QUEUES);
	ASSERT_TRUE(port);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	struct rte_flow *f = port.Create(r);
	ASSERT_NE(f, nullptr);

	/* Queue 3 is inside a burst: its reader slot is odd, as classify leaves it. */
	std::atomic<uint64_t> &slot = port.ctx()->readers[3].seq;
	const uint64_t s = slot.load();
	slot.store(s + 1);

	std::atomic<bool> done{false};
	std::thread ctl([&] {
		struct rte_flow_error err;
		EXPECT_EQ(rte_flow_destroy(port.id(), f, &err), 0);
		done.store(true);
	});
	std::this_thread::sleep_for(std::chrono::milliseconds(200));
	EXPECT_FALSE(done.load()) << "the old table was freed under a running burst";
	EXPECT_FALSE(zorv_flow_active(port.priv())) << "the new (empty) table is published already";

	slot.store(s + 2); /* the burst ends */
	ctl.join();
	EXPECT_TRUE(done.load());
}

TEST(FlowRcu, BurstsEnteredAfterPublicationDoNotHoldTheControlSide)
{
	FlowPort port(NB_QUEUES);
	ASSERT_TRUE(port);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(2);
	/* Many bursts before, idle slots: create and destroy return at once. */
	auto m = Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Udp(1, 2).Build();
	for (uint16_t q = 0; q < NB_QUEUES; q++)
		port.Verdict(m.get(), q);
	auto t0 = std::chrono::steady_clock::now();
	for (int i = 0; i < 100; i++) {
		struct rte_flow *f = port.Create(r);
		ASSERT_NE(f, nullptr);
		ASSERT_EQ(port.Destroy(f), 0);
	}
	EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
	for (uint16_t q = 0; q < NB_QUEUES; q++)
		EXPECT_EQ(port.ctx()->readers[q].seq.load() & 1, 0u);
}

/*
 * Two queues classify without pause while the control thread keeps
 * creating and destroying rules. Every rule k marks with k and steers to
 * queue k % 4 (or drops, for k % 5 == 0): a classified frame that carries
 * mark k must have the verdict of rule k, whatever table it met.
 */
TEST(FlowRcu, ClassifyingWhileRulesChangeSeesOnlyWholeRules)
{
	FlowPort port(NB_QUEUES);
	ASSERT_TRUE(port);
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 4789;
	ASSERT_EQ(rte_eth_dev_udp_tunnel_port_add(port.id(), &t), 0);

	struct rte_mtr_error merr;
	struct rte_mtr_meter_profile prof = {};
	prof.alg = RTE_MTR_SRTCM_RFC2697;
	prof.srtcm_rfc2697 = {10000000, 100000, 100000};
	ASSERT_EQ(rte_mtr_meter_profile_add(port.id(), 1, &prof, &merr), 0);
	struct rte_mtr_meter_policy_params pol = {};
	ASSERT_EQ(rte_mtr_meter_policy_add(port.id(), 1, &pol, &merr), 0);
	struct rte_mtr_params mp = {};
	mp.meter_profile_id = 1;
	mp.meter_policy_id = 1;
	mp.meter_enable = 1;
	ASSERT_EQ(rte_mtr_create(port.id(), 1, &mp, 1, &merr), 0);

	std::atomic<bool> stop{false};
	std::atomic<uint64_t> bursts{0}, bad{0}, marked{0};

	auto reader = [&](uint16_t queue) {
		std::vector<zorv_test::MbufPtr> own;
		for (int i = 0; i < 8; i++)
			own.push_back(Frame()
					      .Eth()
					      .Ipv4("10.0.0.1", i % 2 ? "10.0.0.2" : "10.0.0.3")
					      .Udp(static_cast<uint16_t>(1000 + i), 4789)
					      .Vxlan(static_cast<uint32_t>(i))
					      .Eth()
					      .Ipv4("172.16.0.1", "172.16.0.2")
					      .Tcp(1, 80)
					      .Build());
		struct rte_mbuf *pkts[8];
		for (int i = 0; i < 8; i++)
			pkts[i] = own[i].get();
		uint16_t v[8];
		while (!stop.load(std::memory_order_relaxed)) {
			for (auto *m : pkts)
				m->ol_flags = 0;
			zorv_flow_classify(port.priv(), NB_QUEUES, pkts, 8, queue, v);
			for (int i = 0; i < 8; i++) {
				if (v[i] != ZORV_FLOW_VERDICT_DROP && v[i] >= NB_QUEUES)
					bad++;
				if (!(pkts[i]->ol_flags & RTE_MBUF_F_RX_FDIR_ID))
					continue;
				uint32_t k = pkts[i]->hash.fdir.hi;
				marked++;
				uint16_t want = k % 5 == 0 ? ZORV_FLOW_VERDICT_DROP : k % NB_QUEUES;
				/* A dropped frame is not marked; a marked frame went where rule k says. */
				if (v[i] != want)
					bad++;
			}
			bursts++;
		}
	};
	std::thread r0(reader, 0), r1(reader, 1);

	std::vector<struct rte_flow *> live;
	/* At least a second and 300 rules and bursts; a slow (instrumented) build gets longer. */
	const auto t0 = std::chrono::steady_clock::now();
	uint32_t k = 1;
	int created = 0;
	auto busy = [&] {
		auto spent = std::chrono::steady_clock::now() - t0;
		if (spent > std::chrono::seconds(60))
			return false;
		return spent < std::chrono::seconds(1) || k < 300 || bursts.load() < 300;
	};
	while (busy()) {
		RuleBuilder r;
		struct rte_flow_item_vxlan vx = {};
		vx.hdr.vx_vni = RTE_BE32((k % 8) << 8);
		r.Priority(k % 3)
			.Item(RTE_FLOW_ITEM_TYPE_ETH)
			.Item(RTE_FLOW_ITEM_TYPE_IPV4)
			.Item(RTE_FLOW_ITEM_TYPE_UDP)
			.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &vx)
			.Count();
		if (k % 7 == 0)
			r.Meter(1);
		r.Mark(k);
		if (k % 5 == 0)
			r.Drop();
		else
			r.Queue(static_cast<uint16_t>(k % NB_QUEUES));
		struct rte_flow *f = port.Create(r);
		ASSERT_NE(f, nullptr) << (port.err.message ? port.err.message : "");
		live.push_back(f);
		created++;
		k++;
		if (live.size() > 6) {
			size_t victim = k % live.size();
			ASSERT_EQ(port.Destroy(live[victim]), 0);
			live.erase(live.begin() + static_cast<long>(victim));
		}
		if (k % 97 == 0) {
			ASSERT_EQ(port.Flush(), 0);
			live.clear();
		}
	}
	stop.store(true);
	r0.join();
	r1.join();

	std::printf("rules created %d, bursts %lu, marked frames %lu\n", created,
		    static_cast<unsigned long>(bursts.load()), static_cast<unsigned long>(marked.load()));
	EXPECT_GT(created, 100);
	EXPECT_GT(bursts.load(), 100u);
	EXPECT_GT(marked.load(), 100u) << "the readers met the rules";
	EXPECT_EQ(bad.load(), 0u);
	ASSERT_EQ(port.Flush(), 0);
	EXPECT_FALSE(zorv_flow_active(port.priv()));
	EXPECT_EQ(rte_mtr_destroy(port.id(), 1, &merr), 0) << "every rule released the meter";
}

} // namespace
