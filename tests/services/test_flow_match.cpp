/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: matching of pattern items against received frames, with
 * spec/last/mask semantics, stacking rules, VXLAN, and the refusal of
 * everything the engine cannot match.
 */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <rte_flow.h>
#include <rte_ip.h>
#include <rte_mbuf.h>

#include "test_flow_helpers.h"

namespace {

using flow_test::ExpectRefused;
using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::Ip4;
using flow_test::Ip6;
using flow_test::RuleBuilder;

constexpr struct rte_ether_addr kMacA = {{0x02, 0, 0, 0, 0, 0xaa}};
constexpr struct rte_ether_addr kMacB = {{0x02, 0, 0, 0, 0, 0xbb}};

/* A rule under test steers what it matches to queue 1; the rest stays on 0. */
class FlowMatchTest : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_TRUE(port_); }

	void Install(RuleBuilder &r)
	{
		r.Queue(1);
		flow_ = port_.Create(r);
		ASSERT_NE(flow_, nullptr) << (port_.err.message ? port_.err.message : "(no message)");
	}
	bool Hits(const Frame &f)
	{
		auto m = f.Build();
		if (!m)
			return false;
		uint16_t v = port_.Verdict(m.get());
		EXPECT_TRUE(v == 0 || v == 1) << "verdict " << v;
		return v == 1;
	}
	void AddVxlanPort(uint16_t p)
	{
		struct rte_eth_udp_tunnel t = {};
		t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
		t.udp_port = p;
		ASSERT_EQ(rte_eth_dev_udp_tunnel_port_add(port_.id(), &t), 0);
	}

	FlowPort port_{2};
	struct rte_flow *flow_ = nullptr;
};

Frame Udp4(const char *src = "10.0.0.1", const char *dst = "10.0.0.2", uint16_t sp = 1000,
	   uint16_t dp = 2000)
{
	return Frame().Eth().Ipv4(src, dst).Udp(sp, dp).PadTo(64);
}

/* ---- ETH ---- */

TEST_F(FlowMatchTest, EthDefaultMaskComparesAddressesNotType)
{
	struct rte_flow_item_eth spec = {};
	spec.hdr.dst_addr = kMacA;
	spec.hdr.src_addr = kMacB;
	spec.hdr.ether_type = RTE_BE16(0x1234); /* ignored: not in the default mask */
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec);
	Install(r);

	EXPECT_TRUE(Hits(Frame().Eth(kMacA, kMacB).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_TRUE(Hits(Frame().Eth(kMacA, kMacB).Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth(kMacB, kMacA).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth(kMacA, zorv_test::kSourceMac).Type(0x0806).PadTo(64)));
}

TEST_F(FlowMatchTest, EthMaskSelectsBits)
{
	struct rte_flow_item_eth spec = {}, mask = {};
	spec.hdr.dst_addr = {{0x01, 0x00, 0x5e, 0, 0, 0}};
	mask.hdr.dst_addr = {{0xff, 0xff, 0xff, 0x80, 0, 0}}; /* IPv4 multicast MACs */
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth(zorv_test::kMulticastMac).Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth(zorv_test::kBroadcastMac).Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth(kMacA).Type(0x0806).PadTo(64)));
}

TEST_F(FlowMatchTest, EthTypeWithMaskMatchesTheOuterTypeOrTpid)
{
	struct rte_flow_item_eth spec = {}, mask = {};
	spec.hdr.ether_type = RTE_BE16(0x0806);
	mask.hdr.ether_type = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Udp4()));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(5).Type(0x0806).PadTo(64)))
		<< "a tagged frame's type field holds the TPID";
}

TEST_F(FlowMatchTest, EthTpidMatchesTaggedFramesOnly)
{
	struct rte_flow_item_eth spec = {}, mask = {};
	spec.hdr.ether_type = RTE_BE16(RTE_ETHER_TYPE_QINQ);
	mask.hdr.ether_type = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask).Item(RTE_FLOW_ITEM_TYPE_VLAN);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(7, RTE_ETHER_TYPE_QINQ).Vlan(8).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(7).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Udp4()));
}

TEST_F(FlowMatchTest, EthHasVlanSelectsTaggedOrUntagged)
{
	struct rte_flow_item_eth spec = {}, mask = {};
	spec.has_vlan = 1;
	mask.has_vlan = 1;
	RuleBuilder tagged;
	tagged.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask).Item(RTE_FLOW_ITEM_TYPE_IPV4);
	Install(tagged);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(3).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_FALSE(Hits(Udp4()));
	ASSERT_EQ(port_.Destroy(flow_), 0);

	spec.has_vlan = 0;
	RuleBuilder untagged;
	untagged.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask).Item(RTE_FLOW_ITEM_TYPE_IPV4);
	Install(untagged);
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(3).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_TRUE(Hits(Udp4()));
}

TEST_F(FlowMatchTest, EthWithoutTypeOrHasVlanMatchesTaggedAndUntagged)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4);
	Install(r);
	EXPECT_TRUE(Hits(Udp4()));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(3).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(3).Vlan(4).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth().Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(1, 2)));
}

/* ---- VLAN ---- */

TEST_F(FlowMatchTest, VlanDefaultMaskComparesTheVidOnly)
{
	struct rte_flow_item_vlan spec = {};
	spec.hdr.vlan_tci = RTE_BE16(0xe00a); /* PCP 7, VID 10 */
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_VLAN, &spec);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(0x000a).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(0x200a).Type(0x0806).PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(0x000b).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Udp4())) << "a VLAN item needs a tag";
}

TEST_F(FlowMatchTest, VlanPcpByMaskAndInnerTypeAndRange)
{
	struct rte_flow_item_vlan spec = {}, last = {}, mask = {};
	spec.hdr.vlan_tci = RTE_BE16(100);
	last.hdr.vlan_tci = RTE_BE16(199);
	mask.hdr.vlan_tci = RTE_BE16(0x0fff);
	spec.hdr.eth_proto = RTE_BE16(RTE_ETHER_TYPE_IPV6);
	mask.hdr.eth_proto = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_VLAN, &spec, &mask, &last);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(100).Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(0x7000 | 150).Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(199).Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(99).Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(200).Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(150).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
}

TEST_F(FlowMatchTest, TwoVlanItemsMatchQinQ)
{
	struct rte_flow_item_vlan outer = {}, inner = {};
	outer.hdr.vlan_tci = RTE_BE16(100);
	inner.hdr.vlan_tci = RTE_BE16(200);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_VLAN, &outer)
		.Item(RTE_FLOW_ITEM_TYPE_VLAN, &inner)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(100, RTE_ETHER_TYPE_QINQ).Vlan(200).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(200, RTE_ETHER_TYPE_QINQ).Vlan(100).Ipv4("1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(100).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
}

TEST_F(FlowMatchTest, VlanHasMoreVlanTellsSingleFromDoubleTags)
{
	struct rte_flow_item_vlan spec = {}, mask = {};
	mask.has_more_vlan = 1;
	spec.has_more_vlan = 0;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_VLAN, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(5).Ipv4("1.1.1.1", "2.2.2.2").PadTo(64)));
	EXPECT_FALSE(Hits(Frame().Eth().Vlan(5, RTE_ETHER_TYPE_QINQ).Vlan(6).Ipv4("1.1.1.1", "2.2.2.2")));
}

/* ---- IPv4 ---- */

TEST_F(FlowMatchTest, Ipv4DefaultMaskComparesAddresses)
{
	struct rte_flow_item_ipv4 spec = {};
	spec.hdr.src_addr = Ip4("10.0.0.1");
	spec.hdr.dst_addr = Ip4("10.0.0.2");
	spec.hdr.time_to_live = 9; /* not in the default mask */
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec);
	Install(r);
	EXPECT_TRUE(Hits(Udp4("10.0.0.1", "10.0.0.2")));
	EXPECT_FALSE(Hits(Udp4("10.0.0.2", "10.0.0.1")));
	EXPECT_FALSE(Hits(Udp4("10.0.0.1", "10.0.0.3")));
}

TEST_F(FlowMatchTest, Ipv4PrefixMaskAndOtherFields)
{
	struct rte_flow_item_ipv4 spec = {}, mask = {};
	spec.hdr.dst_addr = Ip4("192.168.0.0");
	mask.hdr.dst_addr = Ip4("255.255.0.0");
	spec.hdr.type_of_service = 0xb8; /* DSCP EF */
	mask.hdr.type_of_service = 0xfc;
	spec.hdr.next_proto_id = IPPROTO_UDP;
	mask.hdr.next_proto_id = 0xff;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv4("1.2.3.4", "192.168.77.1", 0xb9).Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.2.3.4", "192.169.77.1", 0xb8).Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.2.3.4", "192.168.77.1", 0x00).Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.2.3.4", "192.168.77.1", 0xb8).Tcp(1, 2)));
}

TEST_F(FlowMatchTest, Ipv4LastMakesARangeUnderTheMask)
{
	/* 10.1.2.3 .. 10.3.4.5 under 255.255.0.0: 10.1.0.0 .. 10.3.255.255. */
	struct rte_flow_item_ipv4 spec = {}, last = {}, mask = {};
	spec.hdr.dst_addr = Ip4("10.1.2.3");
	last.hdr.dst_addr = Ip4("10.3.4.5");
	mask.hdr.dst_addr = Ip4("255.255.0.0");
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, &mask, &last);
	Install(r);
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "10.1.0.0")));
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "10.2.200.1")));
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "10.3.255.255")));
	EXPECT_FALSE(Hits(Udp4("1.1.1.1", "10.0.255.255")));
	EXPECT_FALSE(Hits(Udp4("1.1.1.1", "10.4.0.0")));
}

TEST_F(FlowMatchTest, LastOfZeroOrEqualToSpecIsNoRange)
{
	struct rte_flow_item_ipv4 spec = {}, last = {};
	spec.hdr.src_addr = Ip4("10.0.0.1");
	spec.hdr.dst_addr = Ip4("10.0.0.9");
	last.hdr.src_addr = Ip4("10.0.0.1"); /* equal */
	last.hdr.dst_addr = 0;               /* zero */
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4, &spec, static_cast<const struct rte_flow_item_ipv4 *>(nullptr),
	       &last);
	Install(r);
	EXPECT_TRUE(Hits(Udp4("10.0.0.1", "10.0.0.9")));
	EXPECT_FALSE(Hits(Udp4("10.0.0.1", "10.0.0.8")));
	EXPECT_FALSE(Hits(Udp4("10.0.0.2", "10.0.0.9")));
}

TEST_F(FlowMatchTest, NonFirstFragmentsHaveNoL4)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_UDP);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2", 0, 64, 0x2000).Udp(1, 2)))
		<< "the first fragment (MF, offset 0) carries the UDP header";
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2", 0, 64, 0x0010).Udp(1, 2)));
}

/* ---- IPv6 ---- */

TEST_F(FlowMatchTest, Ipv6AddressesAndPrefix)
{
	struct rte_flow_item_ipv6 spec = {}, mask = {};
	Ip6("2001:db8::", spec.hdr.dst_addr);
	Ip6("ffff:ffff::", mask.hdr.dst_addr);
	spec.hdr.proto = IPPROTO_TCP;
	mask.hdr.proto = 0xff;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV6, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("fe80::1", "2001:db8::42").Tcp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("fe80::1", "2001:db9::42").Tcp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("fe80::1", "2001:db8::42").Udp(1, 2)));
	EXPECT_FALSE(Hits(Udp4()));
}

TEST_F(FlowMatchTest, Ipv6DefaultMaskAndHopLimitRange)
{
	struct rte_flow_item_ipv6 spec = {}, last = {}, mask = {};
	Ip6("::1", spec.hdr.src_addr);
	memset(mask.hdr.src_addr, 0xff, 16);
	spec.hdr.hop_limits = 10;
	last.hdr.hop_limits = 20;
	mask.hdr.hop_limits = 0xff;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV6, &spec, &mask, &last);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2", {}, 10).Udp(1, 2)));
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::3", {}, 20).Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2", {}, 21).Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::5", "::2", {}, 15).Udp(1, 2)));
}

TEST_F(FlowMatchTest, Ipv6ExtensionHeadersAreWalkedAndFlagged)
{
	struct rte_flow_item_ipv6 spec = {}, mask = {};
	spec.has_frag_ext = 1;
	mask.has_frag_ext = 1;
	struct rte_flow_item_udp uspec = {};
	uspec.hdr.dst_port = RTE_BE16(53);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV6, &spec, &mask)
		.Item(RTE_FLOW_ITEM_TYPE_UDP, &uspec); /* default mask: source port 0 too */
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2", {0, 44}).Udp(0, 53)))
		<< "UDP found behind hop-by-hop and fragment headers";
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2", {44, 60}).Udp(0, 53)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2", {0, 43}).Udp(0, 53))) << "no fragment header";
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(0, 53)));
}

TEST_F(FlowMatchTest, Ipv6WithoutExtensionFlagsMatchesBehindExtensions)
{
	struct rte_flow_item_tcp tspec = {}, tmask = {};
	tspec.hdr.dst_port = RTE_BE16(443);
	tmask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_IPV6).Item(RTE_FLOW_ITEM_TYPE_TCP, &tspec, &tmask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2", {51, 60}).Tcp(9, 443)));
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2").Tcp(9, 443)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2", {43}).Tcp(9, 444)));
}

TEST_F(FlowMatchTest, UnsupportedIpv6ExtensionFlagsAreRefused)
{
	struct rte_flow_item_ipv6 spec = {}, mask = {};
	mask.has_esp_ext = 1;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV6, &spec, &mask).Queue(1);
	ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM_MASK,
		      r.ItemAt(1), "IPv6 ESP, mobility, HIP and shim6 extension flags not supported");
}

/* ---- UDP and TCP ---- */

TEST_F(FlowMatchTest, UdpPortsDefaultMaskAndRange)
{
	struct rte_flow_item_udp spec = {}, last = {}, mask = {};
	spec.hdr.dst_port = RTE_BE16(1000);
	last.hdr.dst_port = RTE_BE16(2000);
	mask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_UDP,
									 &spec, &mask, &last);
	Install(r);
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "2.2.2.2", 7, 1000)));
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "2.2.2.2", 7, 1500)));
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "2.2.2.2", 7, 2000)));
	EXPECT_FALSE(Hits(Udp4("1.1.1.1", "2.2.2.2", 7, 999)));
	EXPECT_FALSE(Hits(Udp4("1.1.1.1", "2.2.2.2", 7, 2001)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(7, 1500)));
}

TEST_F(FlowMatchTest, UdpSpecWithDefaultMaskComparesBothPorts)
{
	struct rte_flow_item_udp spec = {};
	spec.hdr.src_port = RTE_BE16(5);
	spec.hdr.dst_port = RTE_BE16(6);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_UDP, &spec);
	Install(r);
	EXPECT_TRUE(Hits(Udp4("1.1.1.1", "2.2.2.2", 5, 6)));
	EXPECT_FALSE(Hits(Udp4("1.1.1.1", "2.2.2.2", 6, 5)));
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(5, 6))) << "UDP over any L3";
}

TEST_F(FlowMatchTest, TcpFlagsUnderMask)
{
	struct rte_flow_item_tcp spec = {}, mask = {};
	spec.hdr.tcp_flags = RTE_TCP_SYN_FLAG;
	mask.hdr.tcp_flags = RTE_TCP_SYN_FLAG | RTE_TCP_ACK_FLAG;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_TCP,
									 &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 80, RTE_TCP_SYN_FLAG)));
	EXPECT_TRUE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 80, RTE_TCP_SYN_FLAG | RTE_TCP_PSH_FLAG)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 80, RTE_TCP_SYN_FLAG | RTE_TCP_ACK_FLAG)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Udp(1, 80)));
}

TEST_F(FlowMatchTest, ItemsWithoutSpecMatchPresenceOnly)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_VOID)
		.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_VOID)
		.Item(RTE_FLOW_ITEM_TYPE_IPV6)
		.Item(RTE_FLOW_ITEM_TYPE_TCP);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2").Tcp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(1, 2)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 2)));
}

TEST_F(FlowMatchTest, EmptyPatternMatchesEverything)
{
	RuleBuilder r;
	Install(r);
	EXPECT_TRUE(Hits(Udp4()));
	EXPECT_TRUE(Hits(Frame().Eth().Type(0x88cc).PadTo(60)));
}

TEST_F(FlowMatchTest, TruncatedHeadersDoNotMatchAndDoNotCrash)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_TCP);
	Install(r);
	Frame full = Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 2);
	EXPECT_TRUE(Hits(full));
	for (size_t cut : {0, 10, 14, 20, 33, 34, 40, 53}) {
		std::vector<uint8_t> b(full.Bytes().begin(), full.Bytes().begin() + cut);
		auto m = Frame().Build();
		ASSERT_TRUE(m);
		if (cut > 0)
			memcpy(rte_pktmbuf_append(m.get(), static_cast<uint16_t>(cut)), b.data(), cut);
		EXPECT_EQ(port_.Verdict(m.get()), 0) << "frame cut at " << cut;
	}
}

TEST_F(FlowMatchTest, HeadersSpanningSegmentsAreMatched)
{
	struct rte_flow_item_udp spec = {}, mask = {};
	spec.hdr.dst_port = RTE_BE16(4242);
	mask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Item(RTE_FLOW_ITEM_TYPE_UDP,
									 &spec, &mask);
	Install(r);
	const std::vector<uint8_t> bytes = Udp4("1.1.1.1", "2.2.2.2", 1, 4242).Bytes();
	/* First segment ends inside the IPv4 header. */
	struct rte_mbuf *a = rte_pktmbuf_alloc(zorv_test::SharedMbufPool());
	struct rte_mbuf *b = rte_pktmbuf_alloc(zorv_test::SharedMbufPool());
	ASSERT_TRUE(a && b);
	memcpy(rte_pktmbuf_append(a, 20), bytes.data(), 20);
	memcpy(rte_pktmbuf_append(b, static_cast<uint16_t>(bytes.size() - 20)), bytes.data() + 20,
	       bytes.size() - 20);
	ASSERT_EQ(rte_pktmbuf_chain(a, b), 0);
	zorv_test::MbufPtr chain(a);
	EXPECT_EQ(port_.Verdict(chain.get()), 1);
}

/* ---- pattern stacking ---- */

TEST_F(FlowMatchTest, LowerLayersMayBeLeftOutAtTheBottom)
{
	struct rte_flow_item_tcp spec = {}, mask = {};
	spec.hdr.dst_port = RTE_BE16(22);
	mask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_TCP, &spec, &mask);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 22)));
	EXPECT_TRUE(Hits(Frame().Eth().Vlan(9).Ipv6("::1", "::2").Tcp(1, 22)));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Tcp(1, 23)));
}

TEST_F(FlowMatchTest, GapsInTheMiddleOfTheStackAreRefused)
{
	struct Case {
		std::vector<enum rte_flow_item_type> items;
		size_t bad;
		const char *msg;
	};
	const Case cases[] = {
		{{RTE_FLOW_ITEM_TYPE_ETH, RTE_FLOW_ITEM_TYPE_UDP}, 1, "UDP item must follow IPV4 or IPV6"},
		{{RTE_FLOW_ITEM_TYPE_ETH, RTE_FLOW_ITEM_TYPE_TCP}, 1, "TCP item must follow IPV4 or IPV6"},
		{{RTE_FLOW_ITEM_TYPE_IPV4, RTE_FLOW_ITEM_TYPE_ETH}, 1, "ETH item must come first"},
		{{RTE_FLOW_ITEM_TYPE_IPV4, RTE_FLOW_ITEM_TYPE_IPV6}, 1, "IPV6 item must follow ETH or VLAN"},
		{{RTE_FLOW_ITEM_TYPE_IPV4, RTE_FLOW_ITEM_TYPE_VLAN}, 1, "VLAN item must follow ETH or VLAN"},
		{{RTE_FLOW_ITEM_TYPE_ETH, RTE_FLOW_ITEM_TYPE_VLAN, RTE_FLOW_ITEM_TYPE_VLAN,
		  RTE_FLOW_ITEM_TYPE_VLAN},
		 3, "at most two VLAN items"},
		{{RTE_FLOW_ITEM_TYPE_IPV4, RTE_FLOW_ITEM_TYPE_TCP, RTE_FLOW_ITEM_TYPE_VXLAN}, 2,
		 "VXLAN item must follow UDP"},
		{{RTE_FLOW_ITEM_TYPE_UDP, RTE_FLOW_ITEM_TYPE_UDP}, 1, "UDP item must follow IPV4 or IPV6"},
	};
	for (const Case &c : cases) {
		RuleBuilder r;
		for (auto t : c.items)
			r.Item(t);
		r.Queue(1);
		SCOPED_TRACE(c.msg);
		ExpectRefused(port_.Validate(r), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM,
			      r.ItemAt(c.bad), c.msg);
	}
}

TEST_F(FlowMatchTest, UnsupportedItemsAreRefusedByName)
{
	const std::pair<enum rte_flow_item_type, const char *> cases[] = {
		{RTE_FLOW_ITEM_TYPE_ICMP, "item type ICMP not supported"},
		{RTE_FLOW_ITEM_TYPE_SCTP, "item type SCTP not supported"},
		{RTE_FLOW_ITEM_TYPE_ANY, "item type ANY not supported"},
		{RTE_FLOW_ITEM_TYPE_RAW, "item type RAW not supported"},
		{RTE_FLOW_ITEM_TYPE_INVERT, "item type INVERT not supported"},
		{RTE_FLOW_ITEM_TYPE_GENEVE, "item type GENEVE not supported"},
		{RTE_FLOW_ITEM_TYPE_MARK, "item type MARK not supported"},
		{RTE_FLOW_ITEM_TYPE_PORT_ID, "item type PORT_ID not supported"},
	};
	for (const auto &c : cases) {
		RuleBuilder r;
		r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(c.first).Queue(1);
		SCOPED_TRACE(c.second);
		ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM,
			      r.ItemAt(1), c.second);
		EXPECT_EQ(port_.Create(r), nullptr);
	}
	EXPECT_EQ(port_.ctx()->nb_rules, 0u);
}

TEST_F(FlowMatchTest, MaskOrLastWithoutSpecIsRefused)
{
	struct rte_flow_item_ipv4 mask = {};
	mask.hdr.dst_addr = RTE_BE32(0xffffffff);
	struct rte_flow_item it[3] = {};
	it[0].type = RTE_FLOW_ITEM_TYPE_IPV4;
	it[0].mask = &mask;
	it[1].type = RTE_FLOW_ITEM_TYPE_END;
	struct rte_flow_attr attr = {};
	attr.ingress = 1;
	struct rte_flow_action_queue q = {1};
	struct rte_flow_action act[2] = {};
	act[0].type = RTE_FLOW_ACTION_TYPE_QUEUE;
	act[0].conf = &q;
	struct rte_flow_error err;
	memset(&err, 0, sizeof(err));
	ExpectRefused(rte_flow_validate(port_.id(), &attr, it, act, &err), err, EINVAL,
		      RTE_FLOW_ERROR_TYPE_ITEM_SPEC, &it[0], "mask or last given without spec");
	it[0].mask = nullptr;
	it[0].last = &mask;
	memset(&err, 0, sizeof(err));
	ExpectRefused(rte_flow_validate(port_.id(), &attr, it, act, &err), err, EINVAL,
		      RTE_FLOW_ERROR_TYPE_ITEM_SPEC, &it[0], "mask or last given without spec");
}

TEST_F(FlowMatchTest, LastBelowSpecIsRefused)
{
	struct rte_flow_item_udp spec = {}, last = {}, mask = {};
	spec.hdr.dst_port = RTE_BE16(2000);
	last.hdr.dst_port = RTE_BE16(1000);
	mask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_UDP, &spec, &mask, &last).Queue(1);
	ExpectRefused(port_.Validate(r), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_LAST,
		      r.ItemAt(0), "last is below spec");
}

TEST_F(FlowMatchTest, ReservedFlagBitsAreRefused)
{
	struct rte_flow_item_eth spec = {}, mask = {};
	mask.reserved = 1;
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH, &spec, &mask).Queue(1);
	ExpectRefused(port_.Validate(r), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ITEM_MASK,
		      r.ItemAt(0), "reserved bits of the ETH item must be zero");
}

/* ---- VXLAN ---- */

TEST_F(FlowMatchTest, VxlanNeedsAnAnnouncedUdpPort)
{
	struct rte_flow_item_vxlan spec = {};
	spec.hdr.vx_vni = RTE_BE32(42 << 8);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Item(RTE_FLOW_ITEM_TYPE_UDP)
		.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &spec)
		.Queue(1);
	ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, r.ItemAt(3),
		      "VXLAN needs a UDP port announced with rte_eth_dev_udp_tunnel_port_add");

	AddVxlanPort(4789);
	EXPECT_EQ(port_.Validate(r), 0);

	/* A UDP item that pins another destination port cannot carry VXLAN. */
	struct rte_flow_item_udp uspec = {}, umask = {};
	uspec.hdr.dst_port = RTE_BE16(9999);
	umask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r2;
	r2.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Item(RTE_FLOW_ITEM_TYPE_UDP, &uspec, &umask)
		.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &spec)
		.Queue(1);
	ExpectRefused(port_.Validate(r2), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ITEM, r2.ItemAt(3),
		      "not an announced VXLAN port");
	uspec.hdr.dst_port = RTE_BE16(4789);
	RuleBuilder r3;
	r3.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Item(RTE_FLOW_ITEM_TYPE_UDP, &uspec, &umask)
		.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &spec)
		.Queue(1);
	EXPECT_EQ(port_.Validate(r3), 0);
}

TEST_F(FlowMatchTest, VxlanVniAndInnerHeadersMatch)
{
	AddVxlanPort(4789);
	struct rte_flow_item_vxlan vspec = {};
	vspec.hdr.vx_vni = RTE_BE32(42 << 8);
	struct rte_flow_item_ipv4 ispec = {}, imask = {};
	ispec.hdr.dst_addr = Ip4("172.16.0.9");
	imask.hdr.dst_addr = RTE_BE32(0xffffffff);
	struct rte_flow_item_tcp tspec = {}, tmask = {};
	tspec.hdr.dst_port = RTE_BE16(80);
	tmask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4)
		.Item(RTE_FLOW_ITEM_TYPE_UDP)
		.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &vspec)
		.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_IPV4, &ispec, &imask)
		.Item(RTE_FLOW_ITEM_TYPE_TCP, &tspec, &tmask);
	Install(r);

	auto tunnel = [](uint16_t port, uint32_t vni, const char *inner_dst, uint16_t inner_dport) {
		return Frame()
			.Eth()
			.Ipv4("10.0.0.1", "10.0.0.2")
			.Udp(5555, port)
			.Vxlan(vni)
			.Eth(kMacA, kMacB)
			.Ipv4("172.16.0.1", inner_dst)
			.Tcp(1234, inner_dport);
	};
	EXPECT_TRUE(Hits(tunnel(4789, 42, "172.16.0.9", 80)));
	EXPECT_FALSE(Hits(tunnel(4789, 43, "172.16.0.9", 80)));
	EXPECT_FALSE(Hits(tunnel(4789, 42, "172.16.0.8", 80)));
	EXPECT_FALSE(Hits(tunnel(4789, 42, "172.16.0.9", 81)));
	EXPECT_FALSE(Hits(tunnel(4790, 42, "172.16.0.9", 80))) << "not a VXLAN port: no tunnel";

	/* A port announced later is parsed from then on. */
	AddVxlanPort(4790);
	EXPECT_TRUE(Hits(tunnel(4790, 42, "172.16.0.9", 80)));
}

TEST_F(FlowMatchTest, VxlanAloneAndInnerVlan)
{
	AddVxlanPort(8472);
	struct rte_flow_item_vxlan vspec = {};
	vspec.hdr.vx_vni = RTE_BE32(7 << 8);
	struct rte_flow_item_vlan ivlan = {};
	ivlan.hdr.vlan_tci = RTE_BE16(33);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_VXLAN, &vspec)
		.Item(RTE_FLOW_ITEM_TYPE_ETH)
		.Item(RTE_FLOW_ITEM_TYPE_VLAN, &ivlan);
	Install(r);
	EXPECT_TRUE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(1, 8472).Vxlan(7).Eth().Vlan(33).Ipv4(
		"1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(1, 8472).Vxlan(7).Eth().Vlan(34).Ipv4(
		"1.1.1.1", "2.2.2.2")));
	EXPECT_FALSE(Hits(Frame().Eth().Ipv6("::1", "::2").Udp(1, 8472).Vxlan(7).Eth().Ipv4(
		"1.1.1.1", "2.2.2.2")));
}

TEST_F(FlowMatchTest, OuterItemsDoNotLookIntoTheTunnel)
{
	AddVxlanPort(4789);
	struct rte_flow_item_tcp tspec = {}, tmask = {};
	tspec.hdr.dst_port = RTE_BE16(80);
	tmask.hdr.dst_port = RTE_BE16(0xffff);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_TCP, &tspec, &tmask);
	Install(r);
	EXPECT_FALSE(Hits(Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Udp(1, 4789).Vxlan(1).Eth().Ipv4(
		"3.3.3.3", "4.4.4.4").Tcp(1, 80)))
		<< "a pattern without VXLAN matches the outer headers";
}

} // namespace
