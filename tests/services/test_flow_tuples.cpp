/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: rules sorted into tuples (one exact-match table per set of
 * fields and masks) decide exactly as rules tried one by one would:
 * overlapping masks, priorities across tuples, creation order, many rules
 * under one key, groups and JUMP, more candidates than a frame collects, and
 * rules deleted and added while another thread classifies.
 */
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_pause.h>

#include "test_flow_helpers.h"

namespace {

using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::Ip4;
using flow_test::RuleBuilder;

/* Enough rules per shape that the engine looks them up rather than scanning them. */
constexpr unsigned kPerShape = 12;

class FlowTupleTest : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_TRUE(port_); }

	struct rte_flow *Must(RuleBuilder &r)
	{
		struct rte_flow *f = port_.Create(r);
		EXPECT_NE(f, nullptr) << (port_.err.message ? port_.err.message : "(no message)");
		return f;
	}

	/* Tuples of the published table's first group. */
	uint32_t TuplesOfGroup0()
	{
		const struct zorv_flow::table *t = port_.ctx()->table.load();
		if (t == nullptr || t->group0 < 0)
			return 0;
		return t->groups[t->group0].nb_tuples;
	}

	FlowPort port_{4};
};

struct rte_mbuf_deleter {
	void operator()(struct rte_mbuf *m) const { rte_pktmbuf_free(m); }
};

Frame Udp4(const char *src, const char *dst, uint16_t sp, uint16_t dp)
{
	return Frame().Eth().Ipv4(src, dst).Udp(sp, dp).PadTo(64);
}

/* ETH / IPV4 dst /32. */
RuleBuilder &DstRule(RuleBuilder &r, const char *dst)
{
	struct rte_flow_item_ipv4 spec = {}, mask = {};
	spec.hdr.dst_addr = Ip4(dst);
	mask.hdr.dst_addr = RTE_BE32(0xffffffff);
	return r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask);
}

/* ETH / IPV4 src /24. */
RuleBuilder &SrcNetRule(RuleBuilder &r, const char *net)
{
	struct rte_flow_item_ipv4 spec = {}, mask = {};
	spec.hdr.src_addr = Ip4(net);
	mask.hdr.src_addr = RTE_BE32(0xffffff00);
	return r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask);
}

/* ETH / IPV4 / UDP dst port. */
RuleBuilder &DportRule(RuleBuilder &r, uint16_t port)
{
	struct rte_flow_item_udp spec = {}, mask = {};
	spec.hdr.dst_port = rte_cpu_to_be_16(port);
	mask.hdr.dst_port = RTE_BE16(0xffff);
	return r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Item(RTE_FLOW_ITEM_TYPE_UDP, &spec, &mask);
}

std::string Addr(const char *prefix, unsigned i)
{
	return std::string(prefix) + std::to_string(i);
}

TEST_F(FlowTupleTest, OverlappingMasksDecideByPriorityAcrossTuples)
{
	/* Three shapes, kPerShape rules each: dst /32 (priority 2), src /24
	 * (priority 1), UDP dst port (priority 0). */
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder d, s, p;
		DstRule(d, Addr("10.0.0.", i).c_str()).Priority(2).Queue(1);
		SrcNetRule(s, ("192.168." + std::to_string(i) + ".0").c_str()).Priority(1).Queue(2);
		DportRule(p, static_cast<uint16_t>(5000 + i)).Priority(0).Queue(3);
		ASSERT_TRUE(Must(d));
		ASSERT_TRUE(Must(s));
		ASSERT_TRUE(Must(p));
	}
	EXPECT_EQ(TuplesOfGroup0(), 3u) << "one exact-match table per shape";

	auto all = Udp4("192.168.3.7", "10.0.0.3", 1, 5003).Build();
	auto src_dst = Udp4("192.168.3.7", "10.0.0.3", 1, 9).Build();
	auto dst_only = Udp4("172.16.0.1", "10.0.0.3", 1, 9).Build();
	auto src_only = Udp4("192.168.12.200", "10.9.9.9", 1, 9).Build();
	auto none = Udp4("192.168.13.1", "10.0.0.13", 1, 5013).Build();
	EXPECT_EQ(port_.Verdict(all.get()), 3);
	EXPECT_EQ(port_.Verdict(src_dst.get()), 2);
	EXPECT_EQ(port_.Verdict(dst_only.get()), 1);
	EXPECT_EQ(port_.Verdict(src_only.get()), 2);
	EXPECT_EQ(port_.Verdict(none.get()), 0) << "values next to the installed ones";
}

TEST_F(FlowTupleTest, CandidatesOfSeveralTuplesAreTriedInRuleOrder)
{
	/* Port rules at priorities 0 and 2 around address rules at priority 1:
	 * the frame's candidates come from two tables and must interleave. */
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder early, mid, late;
		DportRule(early, static_cast<uint16_t>(7000 + i)).Priority(0).Queue(3);
		DstRule(mid, Addr("10.0.0.", i).c_str()).Priority(1).Queue(1);
		DportRule(late, static_cast<uint16_t>(5000 + i)).Priority(2).Queue(2);
		ASSERT_TRUE(Must(early));
		ASSERT_TRUE(Must(mid));
		ASSERT_TRUE(Must(late));
	}
	auto both = Udp4("1.1.1.1", "10.0.0.6", 1, 5006).Build();
	auto port_only = Udp4("1.1.1.1", "10.0.0.66", 1, 5006).Build();
	auto early = Udp4("1.1.1.1", "10.0.0.6", 1, 7006).Build();
	EXPECT_EQ(port_.Verdict(both.get()), 1);
	EXPECT_EQ(port_.Verdict(port_only.get()), 2);
	EXPECT_EQ(port_.Verdict(early.get()), 3);
}

TEST_F(FlowTupleTest, EqualPrioritiesInDifferentTuplesGoByCreationOrder)
{
	std::vector<struct rte_flow *> dst_rules;
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder d;
		DstRule(d, Addr("10.0.0.", i).c_str()).Queue(1);
		dst_rules.push_back(Must(d));
	}
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder p;
		DportRule(p, static_cast<uint16_t>(5000 + i)).Queue(2);
		ASSERT_TRUE(Must(p));
	}
	auto m = Udp4("1.1.1.1", "10.0.0.4", 1, 5004).Build();
	EXPECT_EQ(port_.Verdict(m.get()), 1) << "the older rule";
	ASSERT_EQ(port_.Destroy(dst_rules[3]), 0);
	EXPECT_EQ(port_.Verdict(m.get()), 2) << "the next one in creation order";
}

TEST_F(FlowTupleTest, RulesUnderOneKeyApplyInOrder)
{
	/* Fillers make the tuple large enough to be looked up. */
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder d;
		DstRule(d, Addr("10.1.0.", i).c_str()).Queue(3);
		ASSERT_TRUE(Must(d));
	}
	RuleBuilder tag, count, steer;
	DstRule(tag, "10.0.0.5").Priority(0).Mark(21).Passthru();
	DstRule(count, "10.0.0.5").Priority(1).Count().Passthru();
	DstRule(steer, "10.0.0.5").Priority(2).Mark(22).Queue(2);
	ASSERT_TRUE(Must(tag));
	struct rte_flow *fc = Must(count);
	ASSERT_TRUE(fc);
	ASSERT_TRUE(Must(steer));
	auto m = Udp4("1.1.1.1", "10.0.0.5", 1, 2).Build();
	EXPECT_EQ(port_.Verdict(m.get()), 2);
	EXPECT_TRUE(FlowPort::HasMark(m.get(), 22)) << "the later mark replaces the first";
	EXPECT_EQ(port_.Count(fc).first, 1u);
}

TEST_F(FlowTupleTest, MoreCandidatesThanAFrameCollectsStillAllApply)
{
	/* 40 PASSTHRU + COUNT rules under one key, then a rule that decides. */
	std::vector<struct rte_flow *> counters;
	for (unsigned i = 0; i < 40; i++) {
		RuleBuilder c;
		DstRule(c, "10.0.0.7").Count().Passthru();
		counters.push_back(Must(c));
	}
	RuleBuilder steer;
	DstRule(steer, "10.0.0.7").Priority(1).Queue(3);
	ASSERT_TRUE(Must(steer));
	auto m = Udp4("1.1.1.1", "10.0.0.7", 1, 2).Build();
	auto other = Udp4("1.1.1.1", "10.0.0.8", 1, 2).Build();
	EXPECT_EQ(port_.Verdict(m.get()), 3);
	EXPECT_EQ(port_.Verdict(other.get()), 0);
	for (auto *f : counters)
		EXPECT_EQ(port_.Count(f).first, 1u);
}

TEST_F(FlowTupleTest, JumpLeadsToTheTargetGroupsTuples)
{
	for (unsigned i = 1; i <= kPerShape; i++) {
		RuleBuilder j, p;
		DstRule(j, Addr("10.0.0.", i).c_str()).Mark(100 + i).Jump(3);
		DportRule(p, static_cast<uint16_t>(6000 + i)).Group(3).Queue(1 + i % 3);
		ASSERT_TRUE(Must(j));
		ASSERT_TRUE(Must(p));
	}
	/* Group 3's port rules only apply after a jump. */
	auto jumped = Udp4("1.1.1.1", "10.0.0.2", 1, 6004).Build();
	auto no_jump = Udp4("1.1.1.1", "10.0.0.99", 1, 6004).Build();
	auto no_target = Udp4("1.1.1.1", "10.0.0.2", 1, 7000).Build();
	EXPECT_EQ(port_.Verdict(jumped.get()), 1 + 4 % 3);
	EXPECT_TRUE(FlowPort::HasMark(jumped.get(), 102));
	EXPECT_EQ(port_.Verdict(no_jump.get()), 0);
	EXPECT_EQ(port_.Verdict(no_target.get(), 2), 2);
	EXPECT_TRUE(FlowPort::HasMark(no_target.get(), 102));
}

TEST_F(FlowTupleTest, RulesDeletedAndAddedWhileAnotherThreadClassifies)
{
	/* The frames always match this rule, whatever else changes. */
	RuleBuilder keep;
	DstRule(keep, "10.0.0.1").Priority(3).Mark(7).Queue(1);
	ASSERT_TRUE(Must(keep));
	/* A rule that takes the frames before it while it exists. */
	RuleBuilder take;
	DportRule(take, 4242).Priority(1).Mark(8).Queue(2);

	std::vector<std::unique_ptr<struct rte_mbuf, rte_mbuf_deleter>> frames;
	for (unsigned i = 0; i < 8; i++)
		frames.emplace_back(Udp4("1.1.1.1", "10.0.0.1", static_cast<uint16_t>(1 + i), 4242)
					    .Build()
					    .release());
	std::atomic<bool> stop{false};
	std::atomic<uint64_t> bursts{0}, bad{0}, taken{0};
	std::thread reader([&] {
		struct rte_mbuf *pkts[8];
		uint16_t v[8];
		for (unsigned i = 0; i < 8; i++)
			pkts[i] = frames[i].get();
		while (!stop.load()) {
			for (auto *m : pkts)
				m->ol_flags = 0;
			zorv_flow_classify(port_.priv(), 4, pkts, 8, 0, v);
			for (unsigned i = 0; i < 8; i++) {
				const bool kept = v[i] == 1 && FlowPort::HasMark(pkts[i], 7);
				const bool took = v[i] == 2 && FlowPort::HasMark(pkts[i], 8);
				bad += !kept && !took;
				taken += took;
			}
			bursts++;
		}
	});
	while (bursts.load() < 10)
		rte_pause();
	for (unsigned round = 0; round < 30; round++) {
		std::vector<struct rte_flow *> fill;
		for (unsigned i = 0; i < kPerShape; i++) {
			RuleBuilder d;
			DstRule(d, Addr("10.2.0.", i).c_str()).Drop();
			fill.push_back(Must(d));
		}
		struct rte_flow *t = Must(take);
		for (auto *f : fill)
			ASSERT_EQ(port_.Destroy(f), 0);
		uint64_t seen = bursts.load();
		while (bursts.load() < seen + 2)
			rte_pause();
		ASSERT_EQ(port_.Destroy(t), 0);
	}
	uint64_t seen = bursts.load();
	while (bursts.load() < seen + 10)
		rte_pause();
	stop = true;
	reader.join();
	EXPECT_EQ(bad.load(), 0u) << "every frame saw one whole table";
	EXPECT_GT(taken.load(), 0u) << "the changing rule was seen while it existed";
	/* After the last delete only the kept rule is left. */
	for (auto &f : frames) {
		f->ol_flags = 0;
		EXPECT_EQ(port_.Verdict(f.get()), 1);
		EXPECT_TRUE(FlowPort::HasMark(f.get(), 7));
	}
}

} // namespace
