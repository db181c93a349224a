/* SPDX-License-Identifier: BSD-3-Clause
 * A new net_zorv1 port as an application sees it through DPDK's ethdev API,
 * right after the bus probed it (before configure).
 */
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>

#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAreArray;
using zorv_fake::FakeEnv;

namespace {

/* The driver's own extended statistics, in their order. */
const std::vector<std::string> kDriverXstats = {
	"rx_good_packets",
	"rx_total_bytes",
	"rx_missed_pkts",
	"rx_broadcast_packets",
	"rx_multicast_packets",
	"rx_unicast_packets",
	"rx_undersize_packets",
	"rx_size_64_packets",
	"rx_size_65_to_127_packets",
	"rx_size_128_to_255_packets",
	"rx_size_256_to_511_packets",
	"rx_size_512_to_1023_packets",
	"rx_size_1024_to_1522_packets",
	"rx_size_1523_to_max_packets",
	"tx_good_packets",
	"tx_total_bytes",
	"tx_missed_pkts",
	"tx_broadcast_packets",
	"tx_multicast_packets",
	"tx_unicast_packets",
	"tx_undersize_packets",
	"tx_size_64_packets",
	"tx_size_65_to_127_packets",
	"tx_size_128_to_255_packets",
	"tx_size_256_to_511_packets",
	"tx_size_512_to_1023_packets",
	"tx_size_1024_to_1522_packets",
	"tx_size_1523_to_max_packets",
};

class PortAppearance : public FakeEnv {
protected:
	void Probe(const char *name, const char *args)
	{
		name_ = name;
		ASSERT_EQ(rte_vdev_init(name, args), 0);
		ASSERT_EQ(rte_eth_dev_get_port_by_name(name, &port_id_), 0);
	}
	void TearDown() override
	{
		if (!name_.empty()) {
			EXPECT_EQ(rte_vdev_uninit(name_.c_str()), 0);
		}
		FakeEnv::TearDown();
	}

	std::string name_;
	uint16_t port_id_ = RTE_MAX_ETHPORTS;
};

} // namespace

TEST_F(PortAppearance, DriverNameAndDeviceInformation)
{
	Probe("net_zorv1_app", "iface=vhost_app");
	struct rte_eth_dev_info info {};
	ASSERT_EQ(rte_eth_dev_info_get(port_id_, &info), 0);
	EXPECT_STREQ(info.driver_name, "net_zorv1");
	ASSERT_NE(info.dev_flags, nullptr);
	EXPECT_EQ(*info.dev_flags, static_cast<uint32_t>(RTE_ETH_DEV_INTR_LSC |
							  RTE_ETH_DEV_AUTOFILL_QUEUE_XSTATS));
	EXPECT_EQ(info.tx_offload_capa, 0x802Fu);
	EXPECT_EQ(info.tx_offload_capa,
		  RTE_ETH_TX_OFFLOAD_VLAN_INSERT | RTE_ETH_TX_OFFLOAD_IPV4_CKSUM |
			  RTE_ETH_TX_OFFLOAD_UDP_CKSUM | RTE_ETH_TX_OFFLOAD_TCP_CKSUM |
			  RTE_ETH_TX_OFFLOAD_TCP_TSO | RTE_ETH_TX_OFFLOAD_MULTI_SEGS);
	EXPECT_EQ(info.rx_offload_capa, 0u);
	EXPECT_EQ(info.max_rx_queues, 1);
	EXPECT_EQ(info.max_tx_queues, 1);
	EXPECT_EQ(info.nb_rx_queues, 1);
	EXPECT_EQ(info.nb_tx_queues, 1);
	EXPECT_EQ(rte_eth_dev_socket_id(port_id_), static_cast<int>(rte_socket_id()));
	EXPECT_TRUE(rte_eth_dev_is_valid_port(port_id_));
}

TEST_F(PortAppearance, MaximumQueuesFollowTheQueuesArgument)
{
	Probe("net_zorv1_app", "iface=vhost_app,queues=3");
	struct rte_eth_dev_info info {};
	ASSERT_EQ(rte_eth_dev_info_get(port_id_, &info), 0);
	EXPECT_EQ(info.max_rx_queues, 3);
	EXPECT_EQ(info.max_tx_queues, 3);
}

TEST_F(PortAppearance, MacAddressEndsInThePortId)
{
	Probe("net_zorv1_app", "iface=vhost_app");
	struct rte_ether_addr mac {};
	ASSERT_EQ(rte_eth_macaddr_get(port_id_, &mac), 0);
	char text[RTE_ETHER_ADDR_FMT_SIZE];
	rte_ether_format_addr(text, sizeof(text), &mac);
	char want[RTE_ETHER_ADDR_FMT_SIZE];
	std::snprintf(want, sizeof(want), "44:56:44:45:56:%02X", port_id_ & 0xff);
	EXPECT_STREQ(text, want);
}

TEST_F(PortAppearance, LinkIsTenGigFullDuplexFixedAndDown)
{
	Probe("net_zorv1_app", "iface=vhost_app");
	struct rte_eth_link link {};
	ASSERT_EQ(rte_eth_link_get_nowait(port_id_, &link), 0);
	EXPECT_EQ(link.link_speed, RTE_ETH_SPEED_NUM_10G);
	EXPECT_EQ(link.link_duplex, RTE_ETH_LINK_FULL_DUPLEX);
	EXPECT_EQ(link.link_autoneg, RTE_ETH_LINK_FIXED);
	EXPECT_EQ(link.link_status, RTE_ETH_LINK_DOWN);
}

TEST_F(PortAppearance, PromiscuousAndAllMulticastAreOn)
{
	Probe("net_zorv1_app", "iface=vhost_app");
	EXPECT_EQ(rte_eth_promiscuous_get(port_id_), 1);
	EXPECT_EQ(rte_eth_allmulticast_get(port_id_), 1);
}

TEST_F(PortAppearance, DriverExtendedStatisticsFollowDpdksGenericOnes)
{
	Probe("net_zorv1_app", "iface=vhost_app");
	int n = rte_eth_xstats_get_names(port_id_, nullptr, 0);
	ASSERT_GT(n, static_cast<int>(kDriverXstats.size()));
	std::vector<struct rte_eth_xstat_name> names(static_cast<size_t>(n));
	ASSERT_EQ(rte_eth_xstats_get_names(port_id_, names.data(), static_cast<unsigned>(n)), n);

	std::vector<std::string> all;
	for (auto &x : names)
		all.emplace_back(x.name);
	/* DPDK's own come first: basic statistics, then per queue. */
	EXPECT_EQ(all.front(), "rx_good_packets");
	EXPECT_NE(std::find(all.begin(), all.end(), "rx_q0_packets"), all.end());
	std::vector<std::string> tail(all.end() - static_cast<long>(kDriverXstats.size()), all.end());
	EXPECT_THAT(tail, ElementsAreArray(kDriverXstats));
	/* The driver's block is exactly the last 28. */
	std::vector<std::string> head(all.begin(), all.end() - static_cast<long>(kDriverXstats.size()));
	EXPECT_EQ(std::find(head.begin(), head.end(), "rx_total_bytes"), head.end());
}
