/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: actions of matching rules (DROP, QUEUE, RSS, MARK, FLAG,
 * COUNT, JUMP, PASSTHRU), rule order by group and priority, and the
 * refusal of every action the engine cannot carry out.
 */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <rte_flow.h>
#include <rte_mbuf.h>
#include <rte_thash.h>

#include "test_flow_helpers.h"

namespace {

using flow_test::ExpectRefused;
using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::Ip4;
using flow_test::RuleBuilder;

class FlowActionTest : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_TRUE(port_); }

	struct rte_flow *Must(RuleBuilder &r)
	{
		struct rte_flow *f = port_.Create(r);
		EXPECT_NE(f, nullptr) << (port_.err.message ? port_.err.message : "(no message)");
		return f;
	}
	struct zorv_flow_stats Stats()
	{
		struct zorv_flow_stats st = {};
		EXPECT_EQ(zorv_flow_stats_get(port_.dev(), &st), 0);
		return st;
	}

	FlowPort port_{4};
};

Frame Udp4(const char *src, const char *dst, uint16_t sp = 1000, uint16_t dp = 2000)
{
	return Frame().Eth().Ipv4(src, dst).Udp(sp, dp).PadTo(64);
}

Frame Tcp4(const char *src, const char *dst, uint16_t sp = 1000, uint16_t dp = 2000)
{
	return Frame().Eth().Ipv4(src, dst).Tcp(sp, dp).PadTo(64);
}

/* Rule: IPv4 destination address. */
RuleBuilder &ToAddr(RuleBuilder &r, const char *dst)
{
	struct rte_flow_item_ipv4 spec = {}, mask = {};
	spec.hdr.dst_addr = Ip4(dst);
	mask.hdr.dst_addr = RTE_BE32(0xffffffff);
	return r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask);
}

/* ---- DROP, QUEUE ---- */

TEST_F(FlowActionTest, DropDropsMatchingFramesOnly)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.9").Drop();
	ASSERT_TRUE(Must(r));
	auto hit = Udp4("1.1.1.1", "10.0.0.9").Build();
	auto miss = Udp4("1.1.1.1", "10.0.0.8").Build();
	EXPECT_EQ(port_.Verdict(hit.get(), 2), ZORV_FLOW_VERDICT_DROP);
	EXPECT_EQ(port_.Verdict(miss.get(), 2), 2) << "unmatched frames stay on their queue";
	struct zorv_flow_stats st = Stats();
	EXPECT_EQ(st.classified, 2u);
	EXPECT_EQ(st.dropped, 1u);
}

TEST_F(FlowActionTest, QueueSteersAndClassifyCountsWhatMoves)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.3").Queue(3);
	ASSERT_TRUE(Must(r));
	auto a = Udp4("1.1.1.1", "10.0.0.3").Build();
	auto b = Udp4("1.1.1.1", "10.0.0.4").Build();
	auto c = Udp4("1.1.1.1", "10.0.0.3").Build();
	struct rte_mbuf *pkts[] = {a.get(), b.get(), c.get()};
	uint16_t v[3];
	EXPECT_EQ(zorv_flow_classify(port_.priv(), 4, pkts, 3, 1, v), 2);
	EXPECT_EQ(v[0], 3);
	EXPECT_EQ(v[1], 1);
	EXPECT_EQ(v[2], 3);
	/* A frame already on its target queue does not move. */
	EXPECT_EQ(zorv_flow_classify(port_.priv(), 4, pkts, 1, 3, v), 0);
	EXPECT_EQ(v[0], 3);
}

TEST_F(FlowActionTest, QueueBeyondTheReceiveQueuesIsRefused)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(4);
	ExpectRefused(port_.Validate(r), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF,
		      r.ActionAt(0)->conf, "QUEUE index beyond the port's receive queues");
	RuleBuilder n;
	n.Item(RTE_FLOW_ITEM_TYPE_ETH).Action(RTE_FLOW_ACTION_TYPE_QUEUE);
	ExpectRefused(port_.Validate(n), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF,
		      n.ActionAt(0), "QUEUE needs a configuration");
}

TEST_F(FlowActionTest, QueueThatNoLongerExistsKeepsTheFrame)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(3);
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	struct rte_mbuf *p = m.get();
	uint16_t v;
	/* The port now runs with two receive queues. */
	EXPECT_EQ(zorv_flow_classify(port_.priv(), 2, &p, 1, 1, &v), 0);
	EXPECT_EQ(v, 1);
}

/* ---- MARK, FLAG ---- */

TEST_F(FlowActionTest, MarkSetsTheFdirIdAndFlagsAndKeepsTheQueue)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.7").Mark(0xbeef);
	ASSERT_TRUE(Must(r));
	auto hit = Udp4("1.1.1.1", "10.0.0.7").Build();
	auto miss = Udp4("1.1.1.1", "10.0.0.6").Build();
	EXPECT_EQ(port_.Verdict(hit.get(), 2), 2) << "no fate action: the frame stays";
	EXPECT_TRUE(FlowPort::HasMark(hit.get(), 0xbeef));
	EXPECT_EQ(port_.Verdict(miss.get(), 2), 2);
	EXPECT_EQ(miss->ol_flags & (RTE_MBUF_F_RX_FDIR | RTE_MBUF_F_RX_FDIR_ID), 0u);
}

TEST_F(FlowActionTest, FlagSetsFdirWithoutAnId)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.7").Flag().Queue(1);
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "10.0.0.7").Build();
	m->hash.fdir.hi = 0x1234;
	EXPECT_EQ(port_.Verdict(m.get()), 1);
	EXPECT_NE(m->ol_flags & RTE_MBUF_F_RX_FDIR, 0u);
	EXPECT_EQ(m->ol_flags & RTE_MBUF_F_RX_FDIR_ID, 0u);
	EXPECT_EQ(m->hash.fdir.hi, 0x1234u) << "FLAG carries no value";
}

TEST_F(FlowActionTest, MarkWithQueueAndFlagTogether)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.7").Flag().Mark(7).Queue(2);
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "10.0.0.7").Build();
	EXPECT_EQ(port_.Verdict(m.get()), 2);
	EXPECT_TRUE(FlowPort::HasMark(m.get(), 7));
}

TEST_F(FlowActionTest, DroppedFramesAreNotMarked)
{
	RuleBuilder r;
	ToAddr(r, "10.0.0.7").Mark(9).Drop();
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "10.0.0.7").Build();
	EXPECT_EQ(port_.Verdict(m.get()), ZORV_FLOW_VERDICT_DROP);
	EXPECT_EQ(m->ol_flags & RTE_MBUF_F_RX_FDIR, 0u);
}

/* ---- COUNT ---- */

TEST_F(FlowActionTest, CountCountsHitsAndBytesOfItsRuleOnly)
{
	RuleBuilder a, b;
	ToAddr(a, "10.0.0.1").Count().Queue(1);
	ToAddr(b, "10.0.0.2").Count(5).Drop();
	struct rte_flow *fa = Must(a);
	struct rte_flow *fb = Must(b);
	ASSERT_TRUE(fa && fb);
	auto m1 = Frame().Eth().Ipv4("9.9.9.9", "10.0.0.1").Udp(1, 2).PadTo(128).Build();
	auto m2 = Frame().Eth().Ipv4("9.9.9.9", "10.0.0.2").Udp(1, 2).PadTo(70).Build();
	auto m3 = Frame().Eth().Ipv4("9.9.9.9", "10.0.0.3").Udp(1, 2).PadTo(70).Build();
	for (int i = 0; i < 3; i++)
		port_.Verdict(m1.get());
	for (int i = 0; i < 2; i++)
		port_.Verdict(m2.get());
	port_.Verdict(m3.get());
	EXPECT_EQ(port_.Count(fa), std::make_pair(uint64_t{3}, uint64_t{384}));
	EXPECT_EQ(port_.Count(fb), std::make_pair(uint64_t{2}, uint64_t{140}))
		<< "frames a rule drops are counted";
}

TEST_F(FlowActionTest, CountersOfManyQueuesAddUp)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Count();
	struct rte_flow *f = Must(r);
	ASSERT_TRUE(f);
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	for (uint16_t q = 0; q < 4; q++)
		EXPECT_EQ(port_.Verdict(m.get(), q), q);
	EXPECT_EQ(port_.Count(f).first, 4u);
}

/* ---- priorities, groups, JUMP, PASSTHRU ---- */

TEST_F(FlowActionTest, LowerPriorityValueWinsWhateverTheCreationOrder)
{
	RuleBuilder general, specific;
	general.Priority(5).Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Queue(1);
	ToAddr(specific, "10.0.0.5").Priority(1).Queue(2);
	ASSERT_TRUE(Must(general));
	ASSERT_TRUE(Must(specific));
	auto s = Udp4("1.1.1.1", "10.0.0.5").Build();
	auto g = Udp4("1.1.1.1", "10.0.0.6").Build();
	EXPECT_EQ(port_.Verdict(s.get()), 2);
	EXPECT_EQ(port_.Verdict(g.get()), 1);
}

TEST_F(FlowActionTest, EqualPrioritiesGoByCreationOrder)
{
	RuleBuilder first, second;
	first.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(3);
	second.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(2);
	struct rte_flow *f1 = Must(first);
	ASSERT_TRUE(Must(second));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	EXPECT_EQ(port_.Verdict(m.get()), 3);
	ASSERT_EQ(port_.Destroy(f1), 0);
	EXPECT_EQ(port_.Verdict(m.get()), 2) << "the next rule takes over";
}

TEST_F(FlowActionTest, PassthruAppliesAndLetsLaterRulesDecide)
{
	RuleBuilder tag, steer;
	tag.Priority(0).Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(11).Count().Passthru();
	ToAddr(steer, "10.0.0.5").Priority(1).Queue(2);
	struct rte_flow *ft = Must(tag);
	ASSERT_TRUE(ft);
	ASSERT_TRUE(Must(steer));
	auto s = Udp4("1.1.1.1", "10.0.0.5").Build();
	auto o = Udp4("1.1.1.1", "10.0.0.6").Build();
	EXPECT_EQ(port_.Verdict(s.get()), 2);
	EXPECT_TRUE(FlowPort::HasMark(s.get(), 11));
	EXPECT_EQ(port_.Verdict(o.get(), 3), 3) << "no later rule: the frame stays";
	EXPECT_TRUE(FlowPort::HasMark(o.get(), 11));
	EXPECT_EQ(port_.Count(ft).first, 2u);
}

TEST_F(FlowActionTest, ALaterMarkReplacesAPassthruMark)
{
	RuleBuilder tag, steer;
	tag.Priority(0).Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(1).Passthru();
	steer.Priority(1).Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(2).Queue(1);
	ASSERT_TRUE(Must(tag));
	ASSERT_TRUE(Must(steer));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	EXPECT_EQ(port_.Verdict(m.get()), 1);
	EXPECT_TRUE(FlowPort::HasMark(m.get(), 2));
}

TEST_F(FlowActionTest, JumpContinuesInTheTargetGroup)
{
	RuleBuilder jump, udp, tcp, skipped;
	jump.Group(0).Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Mark(3).Jump(5);
	udp.Group(5).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_UDP).Queue(1);
	tcp.Group(5).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_TCP).Drop();
	/* Group 9 is never jumped to: its rules never see a frame. */
	skipped.Group(9).Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(3);
	ASSERT_TRUE(Must(jump));
	ASSERT_TRUE(Must(udp));
	ASSERT_TRUE(Must(tcp));
	ASSERT_TRUE(Must(skipped));

	auto u = Udp4("1.1.1.1", "2.2.2.2").Build();
	auto t = Tcp4("1.1.1.1", "2.2.2.2").Build();
	auto v6 = Frame().Eth().Ipv6("::1", "::2").Udp(1, 2).Build();
	EXPECT_EQ(port_.Verdict(u.get()), 1);
	EXPECT_TRUE(FlowPort::HasMark(u.get(), 3)) << "the jumping rule's mark stays";
	EXPECT_EQ(port_.Verdict(t.get()), ZORV_FLOW_VERDICT_DROP);
	EXPECT_EQ(port_.Verdict(v6.get(), 2), 2);
}

TEST_F(FlowActionTest, JumpToAGroupWithoutAMatchLeavesTheFrame)
{
	RuleBuilder jump, other;
	jump.Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(4).Jump(8);
	other.Group(8).Item(RTE_FLOW_ITEM_TYPE_IPV6).Queue(1);
	ASSERT_TRUE(Must(jump));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	EXPECT_EQ(port_.Verdict(m.get(), 2), 2) << "empty target group";
	ASSERT_TRUE(Must(other));
	EXPECT_EQ(port_.Verdict(m.get(), 2), 2) << "no match in the target group";
	EXPECT_TRUE(FlowPort::HasMark(m.get(), 4));
}

TEST_F(FlowActionTest, JumpOnlyGoesToHigherGroups)
{
	RuleBuilder self, down;
	self.Group(3).Item(RTE_FLOW_ITEM_TYPE_ETH).Jump(3);
	ExpectRefused(port_.Validate(self), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF,
		      self.ActionAt(0)->conf, "JUMP must go to a higher group");
	down.Group(3).Item(RTE_FLOW_ITEM_TYPE_ETH).Jump(1);
	ExpectRefused(port_.Validate(down), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION_CONF,
		      down.ActionAt(0)->conf, "JUMP must go to a higher group");
}

TEST_F(FlowActionTest, RulesOutsideGroupZeroNeedAJump)
{
	RuleBuilder r;
	r.Group(2).Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	EXPECT_EQ(port_.Verdict(m.get()), 0);
}

/* ---- RSS ---- */

/* Well-known Toeplitz results with the usual 40-byte key (the default one). */
struct rss_vector {
	const char *src, *dst;
	uint16_t sport, dport;
	uint32_t hash_l3, hash_l4;
};
constexpr rss_vector kRssV4[] = {
	{"66.9.149.187", "161.142.100.80", 2794, 1766, 0x323e8fc2, 0x51ccc178},
	{"199.92.111.2", "65.69.140.83", 14230, 4739, 0xd718262a, 0xc626b0ea},
	{"24.19.198.95", "12.22.207.184", 12898, 38024, 0xd2d0a5de, 0x5c2b394a},
	{"38.27.205.30", "209.142.163.6", 48228, 2217, 0x82989176, 0xafc7327f},
	{"153.39.163.191", "202.188.127.2", 44251, 1303, 0x5d1809c5, 0x10e828a2},
};

TEST_F(FlowActionTest, RssHashesTheFourTupleWithToeplitz)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Rss({0, 1, 2, 3}, RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_NONFRAG_IPV4_TCP);
	ASSERT_TRUE(Must(r));
	for (const auto &v : kRssV4) {
		SCOPED_TRACE(v.src);
		auto t = Tcp4(v.src, v.dst, v.sport, v.dport).Build();
		uint16_t q = port_.Verdict(t.get(), 0);
		EXPECT_NE(t->ol_flags & RTE_MBUF_F_RX_RSS_HASH, 0u);
		EXPECT_EQ(t->hash.rss, v.hash_l4);
		EXPECT_EQ(q, v.hash_l4 % 4);
		/* UDP is not among the types: addresses only. */
		auto u = Udp4(v.src, v.dst, v.sport, v.dport).Build();
		q = port_.Verdict(u.get(), 0);
		EXPECT_EQ(u->hash.rss, v.hash_l3);
		EXPECT_EQ(q, v.hash_l3 % 4);
	}
}

TEST_F(FlowActionTest, RssIndexesTheGivenQueueList)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4).Rss({3, 1}, RTE_ETH_RSS_NONFRAG_IPV4_TCP);
	ASSERT_TRUE(Must(r));
	for (const auto &v : kRssV4) {
		auto t = Tcp4(v.src, v.dst, v.sport, v.dport).Build();
		const uint16_t list[2] = {3, 1};
		EXPECT_EQ(port_.Verdict(t.get(), 0), list[v.hash_l4 % 2]);
	}
}

TEST_F(FlowActionTest, RssWithoutQueuesSpreadsOverTheWholePort)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4).Rss({}, RTE_ETH_RSS_IPV4);
	ASSERT_TRUE(Must(r));
	auto t = Tcp4(kRssV4[1].src, kRssV4[1].dst).Build();
	EXPECT_EQ(port_.Verdict(t.get()), kRssV4[1].hash_l3 % 4);
	struct rte_mbuf *p = t.get();
	uint16_t v;
	zorv_flow_classify(port_.priv(), 3, &p, 1, 0, &v);
	EXPECT_EQ(v, kRssV4[1].hash_l3 % 3) << "follows the port's current queue count";
}

TEST_F(FlowActionTest, RssOfFramesOutsideTheTypesGoesToTheFirstQueue)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({2, 3}, RTE_ETH_RSS_IPV6);
	ASSERT_TRUE(Must(r));
	auto v4 = Udp4("1.2.3.4", "5.6.7.8").Build();
	auto arp = Frame().Eth().Type(0x0806).PadTo(60).Build();
	EXPECT_EQ(port_.Verdict(v4.get()), 2);
	EXPECT_EQ(v4->hash.rss, 0u);
	EXPECT_EQ(port_.Verdict(arp.get()), 2);
}

TEST_F(FlowActionTest, RssOverIpv6AndSourceOnly)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV6)
		.Rss({0, 1, 2, 3}, RTE_ETH_RSS_IPV6 | RTE_ETH_RSS_NONFRAG_IPV6_TCP);
	ASSERT_TRUE(Must(r));
	/* Well-known IPv6 vector of the same key. */
	auto t = Frame().Eth().Ipv6("3ffe:2501:200:1fff::7", "3ffe:2501:200:3::1").Tcp(2794, 1766).Build();
	port_.Verdict(t.get());
	EXPECT_EQ(t->hash.rss, 0x40207d3du);
	auto u = Frame().Eth().Ipv6("3ffe:2501:200:1fff::7", "3ffe:2501:200:3::1").Udp(2794, 1766).Build();
	port_.Verdict(u.get());
	EXPECT_EQ(u->hash.rss, 0x2cc18cd5u);
	ASSERT_EQ(port_.Flush(), 0);

	RuleBuilder s;
	s.Item(RTE_FLOW_ITEM_TYPE_IPV4).Rss({0, 1, 2, 3}, RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_L3_SRC_ONLY);
	ASSERT_TRUE(Must(s));
	auto a = Udp4("66.9.149.187", "1.1.1.1").Build();
	auto b = Udp4("66.9.149.187", "2.2.2.2").Build();
	port_.Verdict(a.get());
	port_.Verdict(b.get());
	EXPECT_EQ(a->hash.rss, b->hash.rss) << "destination left out";
	/* The rule brings no key: the default one, with the destination as zero. */
	uint32_t tuple[2] = {rte_be_to_cpu_32(Ip4("66.9.149.187")), 0};
	const uint8_t default_key[40] = {
		0x6d, 0x5a, 0x56, 0xda, 0x25, 0x5b, 0x0e, 0xc2, 0x41, 0x67, 0x25, 0x3d, 0x43, 0xa3,
		0x8f, 0xb0, 0xd0, 0xca, 0x2b, 0xcb, 0xae, 0x7b, 0x30, 0xb4, 0x77, 0xcb, 0x2d, 0xa3,
		0x80, 0x30, 0xf2, 0x0c, 0x6a, 0x42, 0xb7, 0x3b, 0xbe, 0xac, 0x01, 0xfa};
	EXPECT_EQ(a->hash.rss, rte_softrss(tuple, 2, default_key));
}

TEST_F(FlowActionTest, RssWithTheApplicationsKey)
{
	uint8_t key[40];
	for (int i = 0; i < 40; i++)
		key[i] = static_cast<uint8_t>(i * 7 + 1);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4).Rss({0, 1}, RTE_ETH_RSS_IPV4, 0, key, 40,
					   RTE_ETH_HASH_FUNCTION_TOEPLITZ);
	ASSERT_TRUE(Must(r));
	auto m = Udp4("10.1.2.3", "10.4.5.6").Build();
	port_.Verdict(m.get());
	uint32_t tuple[2] = {rte_be_to_cpu_32(Ip4("10.1.2.3")), rte_be_to_cpu_32(Ip4("10.4.5.6"))};
	EXPECT_EQ(m->hash.rss, rte_softrss(tuple, 2, key));
}

TEST_F(FlowActionTest, RssLevelTwoHashesTheVxlanInnerFrame)
{
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 4789;
	ASSERT_EQ(rte_eth_dev_udp_tunnel_port_add(port_.id(), &t), 0);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Rss({0, 1, 2, 3}, RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_NONFRAG_IPV4_TCP, 2);
	ASSERT_TRUE(Must(r));
	const rss_vector &v = kRssV4[0];
	auto m = Frame()
			 .Eth()
			 .Ipv4("192.0.2.1", "192.0.2.2")
			 .Udp(40000, 4789)
			 .Vxlan(5)
			 .Eth()
			 .Ipv4(v.src, v.dst)
			 .Tcp(v.sport, v.dport)
			 .Build();
	EXPECT_EQ(port_.Verdict(m.get()), v.hash_l4 % 4);
	EXPECT_EQ(m->hash.rss, v.hash_l4);
	auto plain = Tcp4(v.src, v.dst, v.sport, v.dport).Build();
	port_.Verdict(plain.get());
	EXPECT_EQ(plain->hash.rss, v.hash_l4) << "a frame without a tunnel hashes its own headers";
}

TEST_F(FlowActionTest, RssSettingsTheEngineCannotHonourAreRefused)
{
	RuleBuilder xr, lv, ty, kl, qn, qr;
	xr.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 1}, 0, 0, nullptr, 0, RTE_ETH_HASH_FUNCTION_SIMPLE_XOR);
	lv.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 1}, 0, 3);
	ty.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 1}, RTE_ETH_RSS_IPV4 | RTE_ETH_RSS_ETH);
	uint8_t key[52] = {};
	kl.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 1}, 0, 0, key, 52);
	qr.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 4});
	qn.Item(RTE_FLOW_ITEM_TYPE_ETH).Rss({0, 1, 2, 3, 0});
	const std::pair<RuleBuilder *, const char *> cases[] = {
		{&xr, "RSS hash function not supported (Toeplitz only)"},
		{&lv, "RSS level above 2"},
		{&ty, "RSS hash types other than IPv4, IPv6, TCP and UDP not supported"},
		{&kl, "RSS key must be 40 bytes long"},
		{&qr, "RSS queue index beyond the port's receive queues"},
		{&qn, "RSS lists more queues than the port has"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.second);
		int ret = port_.Validate(*c.first);
		EXPECT_LT(ret, 0);
		EXPECT_EQ(port_.err.type, RTE_FLOW_ERROR_TYPE_ACTION_CONF);
		EXPECT_EQ(port_.err.cause, c.first->ActionAt(0)->conf);
		ASSERT_NE(port_.err.message, nullptr);
		EXPECT_NE(strstr(port_.err.message, c.second), nullptr) << port_.err.message;
	}
}

/* ---- refused action lists ---- */

TEST_F(FlowActionTest, UnsupportedActionsAreRefusedByName)
{
	const std::pair<enum rte_flow_action_type, const char *> cases[] = {
		{RTE_FLOW_ACTION_TYPE_PORT_ID, "action type PORT_ID not supported"},
		{RTE_FLOW_ACTION_TYPE_RAW_ENCAP, "action type RAW_ENCAP not supported"},
		{RTE_FLOW_ACTION_TYPE_SET_TAG, "action type SET_TAG not supported"},
		{RTE_FLOW_ACTION_TYPE_AGE, "action type AGE not supported"},
		{RTE_FLOW_ACTION_TYPE_OF_POP_VLAN, "action type OF_POP_VLAN not supported"},
		{RTE_FLOW_ACTION_TYPE_SECURITY, "action type SECURITY not supported"},
	};
	for (const auto &c : cases) {
		RuleBuilder r;
		r.Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(1).Action(c.first);
		SCOPED_TRACE(c.second);
		ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
			      r.ActionAt(1), c.second);
	}
}

TEST_F(FlowActionTest, ConflictingOrRepeatedActionsAreRefused)
{
	RuleBuilder fates, passq, marks, counts, flags;
	fates.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop().Queue(1);
	passq.Item(RTE_FLOW_ITEM_TYPE_ETH).Passthru().Queue(1);
	marks.Item(RTE_FLOW_ITEM_TYPE_ETH).Mark(1).Mark(2);
	counts.Item(RTE_FLOW_ITEM_TYPE_ETH).Count().Count(1);
	flags.Item(RTE_FLOW_ITEM_TYPE_ETH).Flag().Flag();
	ExpectRefused(port_.Validate(fates), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
		      fates.ActionAt(1), "only one of DROP, QUEUE, RSS, JUMP, PASSTHRU per rule");
	ExpectRefused(port_.Validate(passq), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
		      passq.ActionAt(1), "only one of DROP, QUEUE, RSS, JUMP, PASSTHRU per rule");
	ExpectRefused(port_.Validate(marks), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
		      marks.ActionAt(1), "only one MARK per rule");
	ExpectRefused(port_.Validate(counts), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
		      counts.ActionAt(1), "only one COUNT per rule");
	ExpectRefused(port_.Validate(flags), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ACTION,
		      flags.ActionAt(1), "only one FLAG per rule");

	RuleBuilder nomark;
	nomark.Item(RTE_FLOW_ITEM_TYPE_ETH).Action(RTE_FLOW_ACTION_TYPE_MARK);
	ExpectRefused(port_.Validate(nomark), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ACTION_CONF,
		      nomark.ActionAt(0), "MARK needs a configuration");
	EXPECT_EQ(port_.ctx()->nb_rules, 0u);
}

TEST_F(FlowActionTest, VoidActionsAreIgnored)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Action(RTE_FLOW_ACTION_TYPE_VOID)
		.Queue(2)
		.Action(RTE_FLOW_ACTION_TYPE_VOID);
	ASSERT_TRUE(Must(r));
	auto m = Udp4("1.1.1.1", "2.2.2.2").Build();
	EXPECT_EQ(port_.Verdict(m.get()), 2);
}

} // namespace
