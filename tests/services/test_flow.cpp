/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: per-port flow resources and vNIC id, VXLAN port records, the
 * operation tables, and the life of rules through DPDK's rte_flow API on a
 * real port: validate, create, query, destroy, flush, isolate, attributes,
 * and the receive path's switch (zorv_flow_active).
 */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_errno.h>
#include <rte_flow.h>
#include <rte_flow_driver.h>
#include <rte_mtr.h>
#include <rte_mtr_driver.h>

#include "test_flow_helpers.h"
#include "zorv1_common.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"
#include "zorv_flow.h"
#include "zorv_fw.h"
#include "zorv_test_harness.h"

namespace {

using flow_test::ExpectRefused;
using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::RuleBuilder;

class FlowResourceTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(port_);
		saved_ops_ = port_.dev()->dev_ops;
		port_.dev()->dev_ops = &flow_test::kFlowEngineOps;
	}
	void TearDown() override
	{
		zorv_flow_resource_free(port_.dev());
		port_.dev()->dev_ops = saved_ops_;
	}

	struct zorv_flow_priv *priv() { return &port_.internal()->comm.flow_data; }

	zorv_test::FakePort port_{zorv_test::FakePort::Options{.nb_rx_queues = 2}};
	const struct eth_dev_ops *saved_ops_ = nullptr;
};

TEST_F(FlowResourceTest, InitGivesTheVnicIdAndAContextThatFreeReleases)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_EQ(priv()->priv_port, port_.port_id() + 1u);
	EXPECT_NE(priv()->priv_port, 0u);
	ASSERT_NE(priv()->ctx, nullptr);
	EXPECT_NE(priv()->flags & ZORV_FLOW_F_ACTIVE, 0u);
	EXPECT_EQ(static_cast<struct zorv_flow_ctx *>(priv()->ctx)->port_id, port_.port_id());
	EXPECT_FALSE(zorv_flow_active(priv())) << "no rule yet: the receive path does nothing";

	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
	EXPECT_EQ(priv()->ctx, nullptr);
	EXPECT_EQ(priv()->flags & ZORV_FLOW_F_ACTIVE, 0u);
	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0) << "a second free is harmless";
}

TEST_F(FlowResourceTest, VnicIdsOfLivePortsAreUnique)
{
	zorv_test::FakePort other;
	ASSERT_TRUE(other);
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	ASSERT_EQ(zorv_flow_resource_init(other.dev(), 1), 0);
	EXPECT_NE(priv()->priv_port, other.internal()->comm.flow_data.priv_port);
	EXPECT_EQ(zorv_flow_resource_free(other.dev()), 0);
}

TEST_F(FlowResourceTest, SecondInitKeepsTheContext)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	void *ctx = priv()->ctx;
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_EQ(priv()->ctx, ctx);
}

TEST_F(FlowResourceTest, InitWithoutEnableGivesOnlyTheVnicId)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 0), 0);
	EXPECT_EQ(priv()->priv_port, port_.port_id() + 1u);
	EXPECT_EQ(priv()->ctx, nullptr);
	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
}

TEST_F(FlowResourceTest, NewVnicStartsWithoutMtu)
{
	uint16_t vnic = static_cast<uint16_t>(zorv_flow_vnic_of_port(port_.port_id()));
	struct zorv1_internal other = {};
	struct zorv_cmd_mtu_set_info info = {vnic, vnic, 1500};
	ASSERT_EQ(zorv1_fw_set_dev_mtu(&other, E_CMD_OP_MTU_SET_VPORT, &info), 0);
	zorv_fw_count_mtu_drop(vnic);

	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_EQ(zorv_fw_get_vport_mtu(vnic), 0u);
	EXPECT_EQ(zorv_fw_get_mtu_drops(vnic), 0u);
}

TEST_F(FlowResourceTest, PortWithoutRecordIsRefused)
{
	EXPECT_NE(zorv_flow_resource_init(nullptr, 1), 0);
	EXPECT_NE(zorv_flow_resource_free(nullptr), 0);

	void *saved = port_.data()->dev_private;
	port_.data()->dev_private = nullptr;
	EXPECT_NE(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_NE(zorv_flow_resource_free(port_.dev()), 0);
	port_.data()->dev_private = saved;
}

TEST_F(FlowResourceTest, FreeTakesRulesAndMetersWithIt)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	struct rte_flow_error err;
	ASSERT_NE(rte_flow_create(port_.port_id(), &r.Attr(), r.Pattern(), r.Actions(), &err),
		  nullptr);
	EXPECT_TRUE(zorv_flow_active(priv()));
	struct rte_mtr_meter_profile prof = {};
	prof.alg = RTE_MTR_SRTCM_RFC2697;
	prof.srtcm_rfc2697 = {1000000, 2000, 2000};
	struct rte_mtr_error merr;
	ASSERT_EQ(rte_mtr_meter_profile_add(port_.port_id(), 1, &prof, &merr), 0);

	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
	EXPECT_FALSE(zorv_flow_active(priv()));
	EXPECT_EQ(priv()->flags, 0u);
	EXPECT_EQ(priv()->ctx, nullptr);
}

TEST_F(FlowResourceTest, OperationsWithoutContextSayNoDevice)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 0), 0);
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	struct rte_flow_error err;
	memset(&err, 0, sizeof(err));
	EXPECT_EQ(rte_flow_validate(port_.port_id(), &r.Attr(), r.Pattern(), r.Actions(), &err),
		  -ENODEV);
	ASSERT_NE(err.message, nullptr);
	EXPECT_NE(strstr(err.message, "no flow context"), nullptr);
	struct rte_mtr_capabilities cap;
	struct rte_mtr_error merr;
	EXPECT_EQ(rte_mtr_capabilities_get(port_.port_id(), &cap, &merr), -ENODEV);
}

/* ---- VXLAN ports ---- */

TEST_F(FlowResourceTest, VxlanUdpPortsAreRecordedOnce)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 4789;

	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), 0);
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), 0);
	uint16_t ports[ZORV_FLOW_MAX_VXLAN_PORTS] = {};
	ASSERT_EQ(zorv_flow_get_vxlan_ports(port_.dev(), ports, ZORV_FLOW_MAX_VXLAN_PORTS), 1);
	EXPECT_EQ(ports[0], 4789);

	/* Through the ethdev API. */
	t.udp_port = 8472;
	EXPECT_EQ(rte_eth_dev_udp_tunnel_port_add(port_.port_id(), &t), 0);
	ASSERT_EQ(zorv_flow_get_vxlan_ports(port_.dev(), ports, ZORV_FLOW_MAX_VXLAN_PORTS), 2);
	EXPECT_EQ(ports[1], 8472);
}

TEST_F(FlowResourceTest, OtherTunnelsAndBadArgumentsAreRefused)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	struct rte_eth_udp_tunnel t = {};
	t.udp_port = 6081;

	t.prot_type = RTE_ETH_TUNNEL_TYPE_GENEVE;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -EINVAL);
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN_GPE;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -EINVAL);
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 0;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -EINVAL);
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), nullptr), -EINVAL);
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(nullptr, &t), -EINVAL);
	EXPECT_EQ(zorv_flow_get_vxlan_ports(port_.dev(), nullptr, 0), 0) << "nothing recorded";
}

TEST_F(FlowResourceTest, VxlanPortTableHasLimitedRoom)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	for (int i = 0; i < ZORV_FLOW_MAX_VXLAN_PORTS; i++) {
		t.udp_port = static_cast<uint16_t>(4789 + i);
		ASSERT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), 0);
	}
	t.udp_port = 5000;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -ENOSPC);
	EXPECT_EQ(zorv_flow_get_vxlan_ports(port_.dev(), nullptr, 0), ZORV_FLOW_MAX_VXLAN_PORTS);
}

TEST_F(FlowResourceTest, PortWithoutFlowContextCannotRecordTunnels)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 0), 0);
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 4789;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -ENODEV);
}

/* ---- operation tables ---- */

TEST(FlowOpsTables, FlowAndMeterTablesServeTheEngine)
{
	const struct rte_flow_ops *ops = nullptr;
	ASSERT_EQ(zorv_dev_flow_ops_get(nullptr, &ops), 0);
	ASSERT_NE(ops, nullptr);
	EXPECT_NE(ops->validate, nullptr);
	EXPECT_NE(ops->create, nullptr);
	EXPECT_NE(ops->destroy, nullptr);
	EXPECT_NE(ops->flush, nullptr);
	EXPECT_NE(ops->query, nullptr);
	EXPECT_NE(ops->isolate, nullptr);
	EXPECT_EQ(zorv_dev_flow_ops_get(nullptr, nullptr), -EINVAL);

	struct rte_mtr_ops *mops = nullptr;
	ASSERT_EQ(zorv_mtr_ops_get(nullptr, &mops), 0);
	ASSERT_NE(mops, nullptr);
	EXPECT_NE(mops->capabilities_get, nullptr);
	EXPECT_NE(mops->meter_profile_add, nullptr);
	EXPECT_NE(mops->meter_profile_delete, nullptr);
	EXPECT_NE(mops->create, nullptr);
	EXPECT_NE(mops->destroy, nullptr);
	EXPECT_NE(mops->meter_enable, nullptr);
	EXPECT_NE(mops->meter_disable, nullptr);
	EXPECT_NE(mops->stats_read, nullptr);
	EXPECT_NE(mops->meter_policy_add, nullptr);
	EXPECT_EQ(zorv_mtr_ops_get(nullptr, nullptr), -EINVAL);
}

/* ---- rule life through rte_flow ---- */

class FlowApiTest : public ::testing::Test {
protected:
	void SetUp() override { ASSERT_TRUE(port_); }
	FlowPort port_{4};
};

TEST_F(FlowApiTest, ValidateChecksWithoutInstalling)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Queue(1);
	EXPECT_EQ(port_.Validate(r), 0);
	EXPECT_FALSE(zorv_flow_active(port_.priv()));
	EXPECT_EQ(port_.ctx()->nb_rules, 0u);
	auto m = Frame().Eth().Ipv4("10.0.0.1", "10.0.0.2").Udp(1, 2).Build();
	EXPECT_EQ(port_.Verdict(m.get()), 0) << "a validated rule does nothing";
}

TEST_F(FlowApiTest, CreateInstallsDestroyRemoves)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4).Queue(3);
	struct rte_flow *f = port_.Create(r);
	ASSERT_NE(f, nullptr) << (port_.err.message ? port_.err.message : "");
	EXPECT_TRUE(zorv_flow_active(port_.priv()));
	auto m = Frame().Eth().Ipv4("10.0.0.1", "10.0.0.2").Udp(1, 2).Build();
	EXPECT_EQ(port_.Verdict(m.get()), 3);

	EXPECT_EQ(port_.Destroy(f), 0);
	EXPECT_FALSE(zorv_flow_active(port_.priv())) << "the last rule gone: the path costs nothing";
	EXPECT_EQ(port_.Verdict(m.get()), 0);
}

TEST_F(FlowApiTest, DestroyOfAnUnknownHandleIsRefused)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	struct rte_flow *f = port_.Create(r);
	ASSERT_NE(f, nullptr);
	ASSERT_EQ(port_.Destroy(f), 0);
	ExpectRefused(port_.Destroy(f), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_HANDLE, f,
		      "no such flow rule");

	/* A rule of another port is not this port's. */
	FlowPort other(1);
	struct rte_flow *g = other.Create(r);
	ASSERT_NE(g, nullptr);
	ExpectRefused(port_.Destroy(g), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_HANDLE, g,
		      "no such flow rule");
	EXPECT_EQ(other.Destroy(g), 0);
}

TEST_F(FlowApiTest, FlushRemovesEveryRule)
{
	for (uint16_t q = 0; q < 3; q++) {
		RuleBuilder r;
		r.Priority(q).Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(q);
		ASSERT_NE(port_.Create(r), nullptr);
	}
	EXPECT_EQ(port_.ctx()->nb_rules, 3u);
	EXPECT_EQ(port_.Flush(), 0);
	EXPECT_EQ(port_.ctx()->nb_rules, 0u);
	EXPECT_FALSE(zorv_flow_active(port_.priv()));
	EXPECT_EQ(port_.Flush(), 0) << "flushing nothing is fine";
}

TEST_F(FlowApiTest, IsolateIsRefusedClearly)
{
	struct rte_flow_error err;
	memset(&err, 0, sizeof(err));
	EXPECT_EQ(rte_flow_isolate(port_.id(), 1, &err), -ENOTSUP);
	EXPECT_EQ(rte_errno, ENOTSUP);
	ASSERT_NE(err.message, nullptr);
	EXPECT_NE(strstr(err.message, "isolated mode is not supported"), nullptr) << err.message;
}

TEST_F(FlowApiTest, EgressTransferAndMissingIngressAreRefusedAsAttributes)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
	r.Attr().egress = 1;
	ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ATTR_EGRESS,
		      &r.Attr(), "egress rules are not supported");
	EXPECT_EQ(port_.Create(r), nullptr);
	EXPECT_EQ(port_.err.type, RTE_FLOW_ERROR_TYPE_ATTR_EGRESS);

	/* DPDK itself refuses transfer together with a direction: transfer alone. */
	r.Attr().egress = 0;
	r.Attr().ingress = 0;
	r.Attr().transfer = 1;
	ExpectRefused(port_.Validate(r), port_.err, ENOTSUP, RTE_FLOW_ERROR_TYPE_ATTR_TRANSFER,
		      &r.Attr(), "transfer rules are not supported");

	r.Attr().transfer = 0;
	ExpectRefused(port_.Validate(r), port_.err, EINVAL, RTE_FLOW_ERROR_TYPE_ATTR_INGRESS,
		      &r.Attr(), "ingress must be set");
	EXPECT_EQ(port_.ctx()->nb_rules, 0u);
}

TEST_F(FlowApiTest, QueryCountsAndResets)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Count().Queue(1);
	struct rte_flow *f = port_.Create(r);
	ASSERT_NE(f, nullptr);
	auto m = Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").PadTo(100).Build();
	for (int i = 0; i < 5; i++)
		EXPECT_EQ(port_.Verdict(m.get()), 1);
	EXPECT_EQ(port_.Count(f), std::make_pair(uint64_t{5}, uint64_t{500}));
	EXPECT_EQ(port_.Count(f, true), std::make_pair(uint64_t{5}, uint64_t{500}));
	EXPECT_EQ(port_.Count(f), std::make_pair(uint64_t{0}, uint64_t{0})) << "reset by the query";
}

TEST_F(FlowApiTest, QueryOfOtherActionsOrWithoutCountIsRefused)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Queue(1);
	struct rte_flow *f = port_.Create(r);
	ASSERT_NE(f, nullptr);
	struct rte_flow_query_count q = {};
	struct rte_flow_action a = {};
	a.type = RTE_FLOW_ACTION_TYPE_COUNT;
	struct rte_flow_error err;
	memset(&err, 0, sizeof(err));
	ExpectRefused(rte_flow_query(port_.id(), f, &a, &q, &err), err, EINVAL,
		      RTE_FLOW_ERROR_TYPE_ACTION, &a, "the rule has no COUNT action");
	a.type = RTE_FLOW_ACTION_TYPE_QUEUE;
	memset(&err, 0, sizeof(err));
	ExpectRefused(rte_flow_query(port_.id(), f, &a, &q, &err), err, ENOTSUP,
		      RTE_FLOW_ERROR_TYPE_ACTION, &a, "only COUNT can be queried");
}

TEST_F(FlowApiTest, ReceivePathSwitchFollowsTheRuleCount)
{
	/* The switch follows the rule count exactly, through create and destroy. */
	std::vector<struct rte_flow *> flows;
	for (int i = 0; i < 4; i++) {
		RuleBuilder r;
		r.Priority(i).Item(RTE_FLOW_ITEM_TYPE_ETH).Drop();
		flows.push_back(port_.Create(r));
		ASSERT_NE(flows.back(), nullptr);
		EXPECT_TRUE(zorv_flow_active(port_.priv()));
	}
	for (size_t i = 0; i < flows.size(); i++) {
		EXPECT_TRUE(zorv_flow_active(port_.priv()));
		EXPECT_EQ(port_.Destroy(flows[i]), 0);
	}
	EXPECT_FALSE(zorv_flow_active(port_.priv()));
}

} // namespace
