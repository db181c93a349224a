/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: per-port flow resources and vNIC id, VXLAN port records, and
 * flow rules and meters refused as unsupported, both by direct calls and
 * through DPDK's rte_flow / rte_mtr / ethdev API on a real port.
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

#include "zorv1_common.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"
#include "zorv_flow.h"
#include "zorv_fw.h"
#include "zorv_test_harness.h"

namespace {

/* The three flow-engine slots, as a port of the family fills them. */
const struct eth_dev_ops kFlowEngineOps = {
	.udp_tunnel_port_add = zorv_dev_udp_tunnel_port_add,
	.flow_ops_get = zorv_dev_flow_ops_get,
	.mtr_ops_get = zorv_mtr_ops_get,
};

class FlowTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(port_);
		saved_ops_ = port_.dev()->dev_ops;
		port_.dev()->dev_ops = &kFlowEngineOps;
	}
	void TearDown() override
	{
		zorv_flow_resource_free(port_.dev());
		port_.dev()->dev_ops = saved_ops_;
	}

	struct zorv_flow_priv *priv() { return &port_.internal()->comm.flow_data; }

	zorv_test::FakePort port_;
	const struct eth_dev_ops *saved_ops_ = nullptr;
};

TEST_F(FlowTest, InitGivesTheVnicIdAndAContextThatFreeReleases)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_EQ(priv()->priv_port, port_.port_id() + 1u);
	EXPECT_NE(priv()->priv_port, 0u);
	ASSERT_NE(priv()->ctx, nullptr);
	EXPECT_NE(priv()->flags & ZORV_FLOW_F_ACTIVE, 0u);
	EXPECT_EQ(static_cast<struct zorv_flow_ctx *>(priv()->ctx)->port_id, port_.port_id());

	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
	EXPECT_EQ(priv()->ctx, nullptr);
	EXPECT_EQ(priv()->flags & ZORV_FLOW_F_ACTIVE, 0u);
	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0) << "a second free is harmless";
}

TEST_F(FlowTest, VnicIdsOfLivePortsAreUnique)
{
	zorv_test::FakePort other;
	ASSERT_TRUE(other);
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	ASSERT_EQ(zorv_flow_resource_init(other.dev(), 1), 0);
	EXPECT_NE(priv()->priv_port, other.internal()->comm.flow_data.priv_port);
	EXPECT_EQ(zorv_flow_resource_free(other.dev()), 0);
}

TEST_F(FlowTest, SecondInitKeepsTheContext)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	void *ctx = priv()->ctx;
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_EQ(priv()->ctx, ctx);
}

TEST_F(FlowTest, InitWithoutEnableGivesOnlyTheVnicId)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 0), 0);
	EXPECT_EQ(priv()->priv_port, port_.port_id() + 1u);
	EXPECT_EQ(priv()->ctx, nullptr);
	EXPECT_EQ(zorv_flow_resource_free(port_.dev()), 0);
}

TEST_F(FlowTest, NewVnicStartsWithoutMtu)
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

TEST_F(FlowTest, PortWithoutRecordIsRefused)
{
	EXPECT_NE(zorv_flow_resource_init(nullptr, 1), 0);
	EXPECT_NE(zorv_flow_resource_free(nullptr), 0);

	void *saved = port_.data()->dev_private;
	port_.data()->dev_private = nullptr;
	EXPECT_NE(zorv_flow_resource_init(port_.dev(), 1), 0);
	EXPECT_NE(zorv_flow_resource_free(port_.dev()), 0);
	port_.data()->dev_private = saved;
}

/* The error record and rte_errno say "not supported". */
void ExpectFlowNotSupportedError(const struct rte_flow_error &err)
{
	EXPECT_EQ(rte_errno, ENOTSUP);
	EXPECT_EQ(err.type, RTE_FLOW_ERROR_TYPE_UNSPECIFIED);
	ASSERT_NE(err.message, nullptr);
	EXPECT_NE(std::strstr(err.message, "not supported"), nullptr) << err.message;
}

void ExpectFlowNotSupported(int ret, const struct rte_flow_error &err)
{
	EXPECT_EQ(ret, -ENOTSUP);
	ExpectFlowNotSupportedError(err);
}

TEST_F(FlowTest, EveryFlowOperationReportsNotSupported)
{
	const struct rte_flow_ops *ops = nullptr;
	ASSERT_EQ(zorv_dev_flow_ops_get(port_.dev(), &ops), 0);
	ASSERT_NE(ops, nullptr);
	ASSERT_NE(ops->validate, nullptr);
	ASSERT_NE(ops->create, nullptr);
	ASSERT_NE(ops->destroy, nullptr);
	ASSERT_NE(ops->flush, nullptr);
	ASSERT_NE(ops->query, nullptr);
	ASSERT_NE(ops->isolate, nullptr);

	struct rte_flow_attr attr = {};
	attr.ingress = 1;
	struct rte_flow_item pattern[] = {{.type = RTE_FLOW_ITEM_TYPE_ETH}, {.type = RTE_FLOW_ITEM_TYPE_END}};
	struct rte_flow_action actions[] = {{.type = RTE_FLOW_ACTION_TYPE_DROP},
					    {.type = RTE_FLOW_ACTION_TYPE_END}};
	struct rte_flow_error err;

	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(ops->validate(port_.dev(), &attr, pattern, actions, &err), err);

	std::memset(&err, 0, sizeof(err));
	rte_errno = 0;
	EXPECT_EQ(ops->create(port_.dev(), &attr, pattern, actions, &err), nullptr);
	ExpectFlowNotSupportedError(err);

	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(ops->destroy(port_.dev(), nullptr, &err), err);
	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(ops->flush(port_.dev(), &err), err);
	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(ops->query(port_.dev(), nullptr, &actions[0], nullptr, &err), err);
	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(ops->isolate(port_.dev(), 1, &err), err);

	/* A caller that passes no error record still gets the errno. */
	EXPECT_EQ(ops->validate(port_.dev(), &attr, pattern, actions, nullptr), -ENOTSUP);
}

TEST_F(FlowTest, RteFlowOnThePortIsRefusedAsNotSupported)
{
	uint16_t pid = port_.port_id();
	struct rte_flow_attr attr = {};
	attr.ingress = 1;
	struct rte_flow_item pattern[] = {{.type = RTE_FLOW_ITEM_TYPE_ETH}, {.type = RTE_FLOW_ITEM_TYPE_END}};
	struct rte_flow_action actions[] = {{.type = RTE_FLOW_ACTION_TYPE_DROP},
					    {.type = RTE_FLOW_ACTION_TYPE_END}};
	struct rte_flow_error err;

	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(rte_flow_validate(pid, &attr, pattern, actions, &err), err);
	std::memset(&err, 0, sizeof(err));
	EXPECT_EQ(rte_flow_create(pid, &attr, pattern, actions, &err), nullptr);
	ExpectFlowNotSupportedError(err);
	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(rte_flow_flush(pid, &err), err);
	std::memset(&err, 0, sizeof(err));
	ExpectFlowNotSupported(rte_flow_isolate(pid, 1, &err), err);
}

void ExpectMtrNotSupported(int ret, const struct rte_mtr_error &err)
{
	EXPECT_EQ(ret, -ENOTSUP);
	EXPECT_EQ(err.type, RTE_MTR_ERROR_TYPE_UNSPECIFIED);
	ASSERT_NE(err.message, nullptr);
	EXPECT_NE(std::strstr(err.message, "not supported"), nullptr) << err.message;
}

TEST_F(FlowTest, MetersAreRefusedAsNotSupported)
{
	struct rte_mtr_ops *ops = nullptr;
	ASSERT_EQ(zorv_mtr_ops_get(port_.dev(), &ops), 0);
	ASSERT_NE(ops, nullptr);
	ASSERT_NE(ops->capabilities_get, nullptr);

	struct rte_mtr_capabilities cap;
	struct rte_mtr_error err;
	std::memset(&err, 0, sizeof(err));
	ExpectMtrNotSupported(ops->capabilities_get(port_.dev(), &cap, &err), err);

	/* And through DPDK's meter API on the port. */
	uint16_t pid = port_.port_id();
	std::memset(&err, 0, sizeof(err));
	ExpectMtrNotSupported(rte_mtr_capabilities_get(pid, &cap, &err), err);

	struct rte_mtr_meter_profile profile = {};
	profile.alg = RTE_MTR_SRTCM_RFC2697;
	std::memset(&err, 0, sizeof(err));
	ExpectMtrNotSupported(rte_mtr_meter_profile_add(pid, 1, &profile, &err), err);

	struct rte_mtr_params params = {};
	std::memset(&err, 0, sizeof(err));
	ExpectMtrNotSupported(rte_mtr_create(pid, 1, &params, 0, &err), err);
	std::memset(&err, 0, sizeof(err));
	ExpectMtrNotSupported(rte_mtr_destroy(pid, 1, &err), err);
}

TEST_F(FlowTest, VxlanUdpPortsAreRecordedOnce)
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

TEST_F(FlowTest, OtherTunnelsAndBadArgumentsAreRefused)
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

TEST_F(FlowTest, VxlanPortTableHasLimitedRoom)
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

TEST_F(FlowTest, PortWithoutFlowContextCannotRecordTunnels)
{
	ASSERT_EQ(zorv_flow_resource_init(port_.dev(), 0), 0);
	struct rte_eth_udp_tunnel t = {};
	t.prot_type = RTE_ETH_TUNNEL_TYPE_VXLAN;
	t.udp_port = 4789;
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port_.dev(), &t), -ENODEV);
}

} // namespace
