/* SPDX-License-Identifier: BSD-3-Clause
 * The small operations of the zorv1 port: device information, basic
 * statistics and their reset, MTU, link update, transmit-done cleanup and
 * the power-monitor address of a receive queue with its condition.
 *
 * Ports are made by the driver's own probe on the vdev bus and driven
 * through DPDK's ethdev API wherever DPDK lets an application reach the
 * case; the operations are called directly where DPDK's layer would not get
 * there (a closed port's record, a port without receive queue array, the
 * failure branch of the MTU set).
 */
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <rte_power_intrinsics.h>
#include <rte_ring.h>

#include <ethdev_driver.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_dev_cmds.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_harness.h"
#include "zorv_test_vdev.h"

using ::testing::ElementsAre;
using zorv_fake::FakeEnv;
using zorv_fake::FwSetMtu;
using zorv_fake::MqttMsg;
using zorv_test::CountLines;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

namespace {

/* ---------------------------------------------------------------- helpers */

/* A port made by the driver's probe on the vdev bus; removed at scope end. */
class VdevPort : public zorv_test::VdevPort {
public:
	VdevPort(const std::string &iface, unsigned queues)
		: zorv_test::VdevPort("net_zorv1_is", iface, queues)
	{
	}
};

using zorv_test::CountersMoved;

/*
 * One whole logged message (not split into lines) at `level` equals
 * "[offload_smartnic] <func>-<line>: <msg>": for messages that end in more
 * than one line feed.
 */
::testing::AssertionResult HasMessageAt(const LogCapture &cap, int level, const std::string &func,
					const std::string &msg)
{
	std::string dump;
	for (const auto &e : cap.Entries()) {
		if (e.level == level && zorv_test::MatchesZorvLine(e.text, func, msg))
			return ::testing::AssertionSuccess();
		dump += "<level " + std::to_string(e.level) + "> " + e.text;
	}
	return ::testing::AssertionFailure() << "no message \"[offload_smartnic] " << func
					     << "-<line>: " << msg << "\" at level " << level
					     << " in:\n"
					     << dump;
}

class InfoStatsTest : public FakeEnv {};

/* ---------------------------------------------------------------- device information */

TEST_F(InfoStatsTest, DeviceInfoThroughDpdkAdvertisesQueuesAndTransmitOffloadsOnly)
{
	VdevPort port("is_info", 3);
	ASSERT_TRUE(port);
	struct rte_eth_dev_info info;

	ASSERT_EQ(rte_eth_dev_info_get(port.id(), &info), 0);

	EXPECT_EQ(info.max_mac_addrs, 1u);
	EXPECT_EQ(info.max_rx_pktlen, 0xFFFFFFFFu);
	EXPECT_EQ(info.max_rx_queues, 3);
	EXPECT_EQ(info.max_tx_queues, 3);
	EXPECT_EQ(info.min_rx_bufsize, 0u);
	EXPECT_EQ(info.tx_offload_capa, 0x802Full);
	EXPECT_EQ(info.tx_offload_capa,
		  RTE_ETH_TX_OFFLOAD_VLAN_INSERT | RTE_ETH_TX_OFFLOAD_IPV4_CKSUM |
			  RTE_ETH_TX_OFFLOAD_UDP_CKSUM | RTE_ETH_TX_OFFLOAD_TCP_CKSUM |
			  RTE_ETH_TX_OFFLOAD_TCP_TSO | RTE_ETH_TX_OFFLOAD_MULTI_SEGS);
	EXPECT_EQ(info.rx_offload_capa, 0u);
	/* The MTU range is the one the card's firmware accepts. */
	EXPECT_EQ(info.min_mtu, 68);
	EXPECT_EQ(info.max_mtu, 9600);
	/* DPDK's other defaults are left as DPDK set them. */
	EXPECT_EQ(info.rx_desc_lim.nb_max, UINT16_MAX);
	EXPECT_EQ(info.rx_queue_offload_capa, 0u);
	EXPECT_EQ(info.flow_type_rss_offloads, 0u);
}

TEST_F(InfoStatsTest, DeviceInfoWritesExactlyItsSevenFieldsAndTheMtuRange)
{
	VdevPort port("is_info_fields", 5);
	ASSERT_TRUE(port);
	struct rte_eth_dev_info info, expected;
	std::memset(&info, 0xA5, sizeof(info));
	std::memcpy(&expected, &info, sizeof(info));
	expected.max_mac_addrs = 1;
	expected.max_rx_pktlen = 0xFFFFFFFF;
	expected.max_rx_queues = 5;
	expected.max_tx_queues = 5;
	expected.min_rx_bufsize = 0;
	expected.tx_offload_capa = 0x802F;
	expected.rx_offload_capa = 0;
	expected.min_mtu = 68;
	expected.max_mtu = 9600;

	ASSERT_EQ(eth_dev_info(port.dev(), &info), 0);
	EXPECT_EQ(std::memcmp(&info, &expected, sizeof(info)), 0)
		<< "eth_dev_info wrote a field other than its seven and the MTU range";
}

TEST_F(InfoStatsTest, DeviceInfoOfAClosedPortIsRefusedWithNoDevice)
{
	VdevPort port("is_info_closed", 2);
	ASSERT_TRUE(port);
	/* The driver's close without DPDK's release: the port is still there, its record is gone. */
	ASSERT_EQ(eth_dev_close(port.dev()), 0);
	ASSERT_EQ(port.internal(), nullptr);
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	struct rte_eth_dev_info info;

	EXPECT_EQ(eth_dev_info(port.dev(), &info), -ENODEV);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_dev_info", "Invalid device specified\n"));
	EXPECT_EQ(CountLines(cap, "eth_dev_info", "Invalid device specified\n"), 1);

	/* An application asking DPDK sees the same refusal. */
	EXPECT_EQ(rte_eth_dev_info_get(port.id(), &info), -ENODEV);
	EXPECT_EQ(CountLines(cap, "eth_dev_info", "Invalid device specified\n"), 2);
}

/* Because no receive offload is advertised, DPDK refuses any receive offload at configure. */
TEST_F(InfoStatsTest, ReceiveOffloadRequestIsRefusedByDpdkAndCapabilityStaysZero)
{
	VdevPort port("is_rx_offload", 1);
	ASSERT_TRUE(port);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	struct rte_eth_conf conf {};
	conf.rxmode.offloads = RTE_ETH_RX_OFFLOAD_IPV4_CKSUM;

	EXPECT_EQ(rte_eth_dev_configure(port.id(), 1, 1, &conf), -EINVAL);
	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_TRUE(CountersMoved(before, {}));
	struct rte_eth_dev_info info;
	ASSERT_EQ(rte_eth_dev_info_get(port.id(), &info), 0);
	EXPECT_EQ(info.rx_offload_capa, 0u);
}

/* ---------------------------------------------------------------- link and cleanup */

TEST_F(InfoStatsTest, LinkUpdateLeavesTheLinkAsItIs)
{
	VdevPort port("is_link", 1);
	ASSERT_TRUE(port);
	struct rte_eth_link *link = &port.dev()->data->dev_link;
	link->link_status = RTE_ETH_LINK_UP;
	link->link_speed = 1234;
	const struct rte_eth_link saved = *link;
	f.calls.clear();

	EXPECT_EQ(eth_link_update(port.dev(), 0), 0);
	EXPECT_EQ(eth_link_update(port.dev(), 1), 0);
	EXPECT_EQ(std::memcmp(link, &saved, sizeof(saved)), 0);

	struct rte_eth_link seen {};
	ASSERT_EQ(rte_eth_link_get_nowait(port.id(), &seen), 0);
	EXPECT_EQ(seen.link_status, RTE_ETH_LINK_UP);
	EXPECT_EQ(seen.link_speed, 1234u);
	EXPECT_TRUE(f.calls.empty());
}

TEST_F(InfoStatsTest, TransmitDoneCleanupDoesNothingAndSucceeds)
{
	VdevPort port("is_cleanup", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	port.txq(0)->stats.pkts = 3;
	f.calls.clear();

	EXPECT_EQ(rte_eth_tx_done_cleanup(port.id(), 0, 16), 0);
	EXPECT_EQ(eth_tx_done_cleanup(nullptr, 0), 0);
	EXPECT_EQ(port.txq(0)->stats.pkts, 3u);
	EXPECT_TRUE(f.calls.empty());
}

/* ---------------------------------------------------------------- statistics */

void FillStats(struct zorv1_vdev_stats *s, uint64_t pkts, uint64_t bytes, uint64_t missed)
{
	s->pkts = pkts;
	s->bytes = bytes;
	s->missed_pkts = missed;
	for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
		s->xstats[i] = pkts * 10 + i;
}

TEST_F(InfoStatsTest, StatsThroughDpdkReportEachQueueAndTheTotals)
{
	VdevPort port("is_stats", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	FillStats(&port.rxq(0)->stats, 10, 1000, 4);
	FillStats(&port.rxq(1)->stats, 20, 2500, 5);
	FillStats(&port.txq(0)->stats, 7, 700, 6);
	FillStats(&port.txq(1)->stats, 1, 64, 9);
	port.dev()->data->rx_mbuf_alloc_failed = 11;

	struct rte_eth_stats st;
	ASSERT_EQ(rte_eth_stats_get(port.id(), &st), 0);

	EXPECT_EQ(st.q_ipackets[0], 10u);
	EXPECT_EQ(st.q_ipackets[1], 20u);
	EXPECT_EQ(st.q_ibytes[0], 1000u);
	EXPECT_EQ(st.q_ibytes[1], 2500u);
	EXPECT_EQ(st.q_opackets[0], 7u);
	EXPECT_EQ(st.q_opackets[1], 1u);
	EXPECT_EQ(st.q_obytes[0], 700u);
	EXPECT_EQ(st.q_obytes[1], 64u);
	EXPECT_EQ(st.ipackets, 30u);
	EXPECT_EQ(st.ibytes, 3500u);
	EXPECT_EQ(st.opackets, 8u);
	EXPECT_EQ(st.obytes, 764u);
	/* Missed packets and errors are not reported; rx_nombuf is DPDK's own. */
	EXPECT_EQ(st.imissed, 0u);
	EXPECT_EQ(st.ierrors, 0u);
	EXPECT_EQ(st.oerrors, 0u);
	EXPECT_EQ(st.rx_nombuf, 11u);
	EXPECT_EQ(st.q_ipackets[2], 0u);
	EXPECT_EQ(st.q_errors[0], 0u);
}

TEST_F(InfoStatsTest, StatsLeaveFieldsTheyDoNotReportAsTheCallerSetThem)
{
	VdevPort port("is_stats_direct", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	FillStats(&port.rxq(0)->stats, 3, 300, 2);
	FillStats(&port.txq(0)->stats, 4, 400, 1);
	struct rte_eth_stats st;
	std::memset(&st, 0x5A, sizeof(st));
	const uint64_t pattern = st.imissed;

	ASSERT_EQ(eth_stats_get(port.dev(), &st), 0);
	EXPECT_EQ(st.ipackets, 3u);
	EXPECT_EQ(st.opackets, 4u);
	EXPECT_EQ(st.imissed, pattern);
	EXPECT_EQ(st.ierrors, pattern);
	EXPECT_EQ(st.oerrors, pattern);
	EXPECT_EQ(st.rx_nombuf, pattern);
	EXPECT_EQ(st.q_ipackets[1], pattern);
	EXPECT_EQ(st.q_errors[0], pattern);
}

TEST_F(InfoStatsTest, StatsSkipQueuesThatWereNeverSetUp)
{
	VdevPort port("is_stats_gap", 3);
	ASSERT_TRUE(port);
	port.Setup(3, {0, 2});
	ASSERT_EQ(port.rxq(1), nullptr);
	ASSERT_EQ(port.txq(1), nullptr);
	FillStats(&port.rxq(0)->stats, 1, 100, 0);
	FillStats(&port.rxq(2)->stats, 2, 200, 0);
	FillStats(&port.txq(0)->stats, 5, 500, 0);
	FillStats(&port.txq(2)->stats, 6, 600, 0);

	struct rte_eth_stats st;
	ASSERT_EQ(rte_eth_stats_get(port.id(), &st), 0);
	EXPECT_EQ(st.q_ipackets[1], 0u);
	EXPECT_EQ(st.q_ipackets[2], 2u);
	EXPECT_EQ(st.ipackets, 3u);
	EXPECT_EQ(st.ibytes, 300u);
	EXPECT_EQ(st.opackets, 11u);
	EXPECT_EQ(st.obytes, 1100u);

	ASSERT_EQ(rte_eth_stats_reset(port.id()), 0);
	EXPECT_EQ(port.rxq(2)->stats.pkts, 0u);
	EXPECT_EQ(port.txq(2)->stats.pkts, 0u);
}

TEST_F(InfoStatsTest, TotalsCoverTheFirstSixteenQueuesWhileResetClearsAllTwenty)
{
	static_assert(RTE_ETHDEV_QUEUE_STAT_CNTRS == 16);
	VdevPort port("is_stats_20", 20);
	ASSERT_TRUE(port);
	port.Setup(20);
	for (uint16_t q = 0; q < 20; q++) {
		FillStats(&port.rxq(q)->stats, q + 1, 100 * (q + 1), q);
		FillStats(&port.txq(q)->stats, 2 * (q + 1), 1000 * (q + 1), q);
	}

	struct rte_eth_stats st;
	ASSERT_EQ(rte_eth_stats_get(port.id(), &st), 0);
	for (uint16_t q = 0; q < 16; q++) {
		EXPECT_EQ(st.q_ipackets[q], q + 1u) << "rx queue " << q;
		EXPECT_EQ(st.q_ibytes[q], 100u * (q + 1)) << "rx queue " << q;
		EXPECT_EQ(st.q_opackets[q], 2u * (q + 1)) << "tx queue " << q;
		EXPECT_EQ(st.q_obytes[q], 1000u * (q + 1)) << "tx queue " << q;
	}
	/* 1 + ... + 16 = 136: queues 16 to 19 are counted nowhere. */
	EXPECT_EQ(st.ipackets, 136u);
	EXPECT_EQ(st.ibytes, 13600u);
	EXPECT_EQ(st.opackets, 272u);
	EXPECT_EQ(st.obytes, 136000u);

	ASSERT_EQ(rte_eth_stats_reset(port.id()), 0);
	for (uint16_t q = 0; q < 20; q++) {
		EXPECT_EQ(port.rxq(q)->stats.pkts, 0u) << "rx queue " << q;
		EXPECT_EQ(port.rxq(q)->stats.bytes, 0u) << "rx queue " << q;
		EXPECT_EQ(port.txq(q)->stats.pkts, 0u) << "tx queue " << q;
		EXPECT_EQ(port.txq(q)->stats.bytes, 0u) << "tx queue " << q;
	}
	ASSERT_EQ(rte_eth_stats_get(port.id(), &st), 0);
	EXPECT_EQ(st.ipackets + st.opackets + st.ibytes + st.obytes, 0u);
}

TEST_F(InfoStatsTest, ResetKeepsReceiveMissedPacketsAndClearsTransmitOnes)
{
	VdevPort port("is_reset", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	FillStats(&port.rxq(0)->stats, 8, 800, 5);
	FillStats(&port.txq(0)->stats, 9, 900, 6);
	const struct zorv1_vdev_stats rx_before = port.rxq(0)->stats;
	const struct zorv1_vdev_stats tx_before = port.txq(0)->stats;

	ASSERT_EQ(rte_eth_stats_reset(port.id()), 0);

	const struct zorv1_vdev_stats &rx = port.rxq(0)->stats;
	const struct zorv1_vdev_stats &tx = port.txq(0)->stats;
	EXPECT_EQ(rx.pkts, 0u);
	EXPECT_EQ(rx.bytes, 0u);
	EXPECT_EQ(rx.missed_pkts, 5u);
	EXPECT_EQ(tx.pkts, 0u);
	EXPECT_EQ(tx.bytes, 0u);
	EXPECT_EQ(tx.missed_pkts, 0u);
	/* Extended counters are not touched on either side. */
	EXPECT_EQ(std::memcmp(rx.xstats, rx_before.xstats, sizeof(rx.xstats)), 0);
	EXPECT_EQ(std::memcmp(tx.xstats, tx_before.xstats, sizeof(tx.xstats)), 0);
}

TEST_F(InfoStatsTest, PortWithoutReceiveQueueArrayReportsNothingNotEvenTransmit)
{
	zorv_test::FakePort port({.nb_rx_queues = 0, .nb_tx_queues = 2});
	ASSERT_TRUE(port);
	ASSERT_EQ(port.data()->rx_queues, nullptr);
	struct zorv1_vdev_txq txq[2] = {};
	txq[0].stats.pkts = 5;
	txq[0].stats.bytes = 500;
	txq[1].stats.pkts = 6;
	port.data()->tx_queues[0] = &txq[0];
	port.data()->tx_queues[1] = &txq[1];
	struct rte_eth_stats st, untouched;
	std::memset(&st, 0x3C, sizeof(st));
	std::memcpy(&untouched, &st, sizeof(st));

	EXPECT_EQ(eth_stats_get(port.dev(), &st), 0);
	EXPECT_EQ(std::memcmp(&st, &untouched, sizeof(st)), 0) << "stats written without receive queues";
	port.data()->tx_queues[0] = nullptr;
	port.data()->tx_queues[1] = nullptr;
}

/*
 * A port may hold one queue array and not the other: each direction is reset
 * over its own queues.
 */
TEST_F(InfoStatsTest, ResetClearsTransmitQueuesOfAPortWithoutReceiveQueueArray)
{
	zorv_test::FakePort port({.nb_rx_queues = 0, .nb_tx_queues = 2});
	ASSERT_TRUE(port);
	ASSERT_EQ(port.data()->rx_queues, nullptr);
	struct zorv1_vdev_txq txq[2] = {};
	FillStats(&txq[0].stats, 5, 500, 2);
	FillStats(&txq[1].stats, 6, 600, 3);
	port.data()->tx_queues[0] = &txq[0];
	port.data()->tx_queues[1] = &txq[1];

	EXPECT_EQ(eth_stats_reset(port.dev()), 0);

	for (const auto &q : txq) {
		EXPECT_EQ(q.stats.pkts, 0u);
		EXPECT_EQ(q.stats.bytes, 0u);
		EXPECT_EQ(q.stats.missed_pkts, 0u);
	}
	port.data()->tx_queues[0] = nullptr;
	port.data()->tx_queues[1] = nullptr;
}

TEST_F(InfoStatsTest, ResetClearsReceiveQueuesOfAPortWithoutTransmitQueueArray)
{
	zorv_test::FakePort port({.nb_rx_queues = 2, .nb_tx_queues = 0});
	ASSERT_TRUE(port);
	ASSERT_EQ(port.data()->tx_queues, nullptr);
	struct zorv1_vdev_rxq rxq[2] = {};
	FillStats(&rxq[0].stats, 5, 500, 2);
	FillStats(&rxq[1].stats, 6, 600, 3);
	port.data()->rx_queues[0] = &rxq[0];
	port.data()->rx_queues[1] = &rxq[1];

	EXPECT_EQ(eth_stats_reset(port.dev()), 0);

	EXPECT_EQ(rxq[0].stats.pkts, 0u);
	EXPECT_EQ(rxq[0].stats.bytes, 0u);
	EXPECT_EQ(rxq[0].stats.missed_pkts, 2u) << "receive missed packets are kept";
	EXPECT_EQ(rxq[1].stats.pkts, 0u);
	EXPECT_EQ(rxq[1].stats.bytes, 0u);
	port.data()->rx_queues[0] = nullptr;
	port.data()->rx_queues[1] = nullptr;
}

/*
 * A port that was created but not configured has queue counts and no queue
 * arrays yet; an application may still ask DPDK for its statistics and reset
 * them. Run in a child process so that a crash fails this test only.
 */
TEST_F(InfoStatsTest, StatsOfAPortThatWasNeverConfiguredCanBeReadAndReset)
{
	VdevPort port("is_stats_unconf", 2);
	ASSERT_TRUE(port);
	ASSERT_EQ(port.dev()->data->nb_rx_queues, 2);
	ASSERT_EQ(port.dev()->data->rx_queues, nullptr);
	ASSERT_EQ(port.dev()->data->tx_queues, nullptr);

	struct rte_eth_stats st;
	EXPECT_EQ(rte_eth_stats_get(port.id(), &st), 0);
	EXPECT_EQ(st.ipackets + st.opackets, 0u);

	const pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0)
		_exit(rte_eth_stats_reset(port.id()) == 0 ? 0 : 1);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
		<< "rte_eth_stats_reset on an unconfigured port "
		<< (WIFSIGNALED(status) ? "died of signal " + std::to_string(WTERMSIG(status))
					: "exited with " + std::to_string(WEXITSTATUS(status)));
}

/* ---------------------------------------------------------------- MTU */

class MtuTest : public InfoStatsTest, public ::testing::WithParamInterface<int> {};

/* Whatever the firmware answers, the MTU set succeeds and DPDK records the value. */
TEST_P(MtuTest, SetThroughDpdkSendsTheVportCommandAndSucceeds)
{
	VdevPort port("is_mtu", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.internal()->comm.flow_data.priv_port = 0x00051234; /* vNIC id: low 16 bits */
	f.fw.set_mtu_result = GetParam();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	struct zorv1_internal record_before;
	std::memcpy(&record_before, port.internal(), sizeof(record_before));
	f.calls.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 9000), 0);

	EXPECT_THAT(f.fw.set_mtu_calls, ElementsAre(FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT,
							     true, 0x1234, 0x1234, 9000}));
	EXPECT_TRUE(HasMessageAt(cap, RTE_LOG_INFO, "zorv1_mtu_set",
				 "set zorv1 port mac address success\n\n"));
	EXPECT_EQ(CountLines(cap, "zorv1_mtu_set", "Failed to set mtu\n"), 0);
	EXPECT_TRUE(f.mqtt.msgs.empty());
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_fw_set_dev_mtu"));
	EXPECT_TRUE(CountersMoved(before, {}));
	uint16_t mtu = 0;
	ASSERT_EQ(rte_eth_dev_get_mtu(port.id(), &mtu), 0);
	EXPECT_EQ(mtu, 9000);
	/* The port record does not keep the MTU. */
	EXPECT_EQ(std::memcmp(&record_before, port.internal(), sizeof(record_before)), 0);
}

INSTANTIATE_TEST_SUITE_P(FirmwareAnswers, MtuTest, ::testing::Values(0, -1, -EIO, 7));

/* The advertised range is the firmware's: DPDK refuses what the card would not apply. */
TEST_F(InfoStatsTest, DpdkRefusesMtusOutsideTheFirmwareRangeAndPassesItsEdges)
{
	VdevPort port("is_mtu_range", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	port.internal()->comm.flow_data.priv_port = 4;

	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 67), -EINVAL);
	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 9601), -EINVAL);
	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), UINT16_MAX), -EINVAL);
	EXPECT_TRUE(f.fw.set_mtu_calls.empty());
	uint16_t mtu = 0;
	ASSERT_EQ(rte_eth_dev_get_mtu(port.id(), &mtu), 0);
	EXPECT_EQ(mtu, RTE_ETHER_MTU) << "a refused MTU leaves the port's MTU as it was";

	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 68), 0);
	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 9600), 0);
	EXPECT_THAT(f.fw.set_mtu_calls,
		    ElementsAre(FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT, true, 4, 4, 68},
				FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT, true, 4, 4, 9600}));
	ASSERT_EQ(rte_eth_dev_get_mtu(port.id(), &mtu), 0);
	EXPECT_EQ(mtu, 9600);
}

TEST_F(InfoStatsTest, MtuIsNotCheckedByTheDriver)
{
	VdevPort port("is_mtu_nocheck", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	port.internal()->comm.flow_data.priv_port = 3;

	/* DPDK refuses an MTU below its minimum before the driver is reached ... */
	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 10), -EINVAL);
	EXPECT_TRUE(f.fw.set_mtu_calls.empty());
	/* ... the operation itself passes any value on to the firmware. */
	EXPECT_EQ(zorv1_mtu_set(port.dev(), 10), 0);
	EXPECT_EQ(zorv1_mtu_set(port.dev(), UINT16_MAX), 0);
	EXPECT_THAT(f.fw.set_mtu_calls,
		    ElementsAre(FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT, true, 3, 3, 10},
				FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT, true, 3, 3,
					 UINT16_MAX}));
}

/* The failure branch of the MTU set: reached when the result it starts from is not 0. */
class MtuFailureTest : public InfoStatsTest {
protected:
	void TearDown() override
	{
		zorv1_mtu_set_initial_ret = 0;
		InfoStatsTest::TearDown();
	}
};

TEST_F(MtuFailureTest, FailureBranchLogsReportsAndAsksToRetry)
{
	VdevPort port("is_mtu_fail", 4);
	ASSERT_TRUE(port);
	port.internal()->comm.flow_data.priv_port = 9;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	zorv1_mtu_set_initial_ret = -1;

	EXPECT_EQ(zorv1_mtu_set(port.dev(), 1400), -EAGAIN);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_mtu_set", "Failed to set mtu\n"));
	EXPECT_EQ(CountLines(cap, "zorv1_mtu_set", "set zorv1 port mac address success\n"), 0);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_MTU_SET,
						    port.name(), "is_mtu_fail", 4}));
	/* The firmware command is issued before the result is looked at. */
	EXPECT_THAT(f.fw.set_mtu_calls,
		    ElementsAre(FwSetMtu{port.internal(), E_CMD_OP_MTU_SET_VPORT, true, 9, 9, 1400}));
	EXPECT_TRUE(CountersMoved(before, {}));
}

TEST_F(MtuFailureTest, FailureWhoseReportCannotBeSentIsCounted)
{
	VdevPort port("is_mtu_nosend", 2);
	ASSERT_TRUE(port);
	f.mqtt.send_result = 1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	zorv1_mtu_set_initial_ret = -1;

	EXPECT_EQ(zorv1_mtu_set(port.dev(), 1400), -EAGAIN);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_mtu_set",
				 "Send msg failed, " + port.name() + "-is_mtu_nosend-3-6\n"));
	EXPECT_EQ(f.mqtt.msgs.size(), 1u);
	EXPECT_TRUE(CountersMoved(before, {{"send_msg_fail", 1}}));
}

TEST_F(MtuFailureTest, FailureThroughDpdkLeavesTheMtuAsItWas)
{
	VdevPort port("is_mtu_dpdk", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	uint16_t mtu_before = 0;
	ASSERT_EQ(rte_eth_dev_get_mtu(port.id(), &mtu_before), 0);
	zorv1_mtu_set_initial_ret = -1;

	EXPECT_EQ(rte_eth_dev_set_mtu(port.id(), 9000), -EAGAIN);

	uint16_t mtu = 0;
	ASSERT_EQ(rte_eth_dev_get_mtu(port.id(), &mtu), 0);
	EXPECT_EQ(mtu, mtu_before);
}

/* ---------------------------------------------------------------- power monitor */

TEST_F(InfoStatsTest, MonitorConditionSleepsWhileTheMaskedWordEqualsTheValue)
{
	const uint64_t sleep_if_equal[RTE_POWER_MONITOR_OPAQUE_SZ] = {5, 0xFF, 0, 0};
	EXPECT_EQ(zorv1_monitor_callback(0x105, sleep_if_equal), 0);
	EXPECT_EQ(zorv1_monitor_callback(0x106, sleep_if_equal), -1);
	EXPECT_EQ(zorv1_monitor_callback(0x5, sleep_if_equal), 0);

	const uint64_t sleep_if_different[RTE_POWER_MONITOR_OPAQUE_SZ] = {5, 0xFF, 1, 0};
	EXPECT_EQ(zorv1_monitor_callback(0x105, sleep_if_different), -1);
	EXPECT_EQ(zorv1_monitor_callback(0x106, sleep_if_different), 0);

	/* The value is compared unmasked: a value above the mask never matches. */
	const uint64_t big_value[RTE_POWER_MONITOR_OPAQUE_SZ] = {0x105, 0xFF, 0, 0};
	EXPECT_EQ(zorv1_monitor_callback(0x105, big_value), -1);
}

TEST_F(InfoStatsTest, MonitorAddressOfAConnectedQueueWatchesItsRingConsumerTail)
{
	VdevPort port("is_mon_ok", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	f.transport.ifnames[7] = "is_mon_ok";
	ASSERT_EQ(zorv1_dpu_vdev_new_conn(7), 0);
	ASSERT_EQ(port.internal()->vid, 7);
	const int ring_id = port.rxq(1)->local_id;
	ASSERT_EQ(f.rings.live.count(ring_id), 1u);
	struct rte_ring *ring = f.rings.live[ring_id];
	/* Move the ring's consumer: 5 in, 3 out. */
	void *objs[5] = {};
	ASSERT_EQ(rte_ring_enqueue_bulk(ring, objs, 5, nullptr), 5u);
	ASSERT_EQ(rte_ring_dequeue_bulk(ring, objs, 3, nullptr), 3u);
	f.rings.lookups.clear();
	struct rte_power_monitor_cond pmc;
	std::memset(&pmc, 0, sizeof(pmc));
	pmc.opaque[3] = 0xDEAD;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	ASSERT_EQ(rte_eth_get_monitor_addr(port.id(), 1, &pmc), 0);

	EXPECT_EQ(pmc.addr, static_cast<volatile void *>(&ring->cons.tail));
	EXPECT_EQ(pmc.size, 4);
	EXPECT_EQ(pmc.fn, &zorv1_monitor_callback);
	EXPECT_EQ(pmc.opaque[0], 3u);
	EXPECT_EQ(pmc.opaque[1], 511u);
	EXPECT_EQ(pmc.opaque[1], ring->mask);
	EXPECT_EQ(pmc.opaque[2], 0u);
	EXPECT_EQ(pmc.opaque[3], 0xDEADu);
	EXPECT_THAT(f.rings.lookups, ElementsAre(ring_id));
	EXPECT_EQ(cap.Text(), "");

	/* The condition as DPDK would evaluate it: sleep until a consumer moves the tail. */
	auto watched = [&] { return static_cast<uint64_t>(*static_cast<volatile uint32_t *>(pmc.addr)); };
	EXPECT_EQ(pmc.fn(watched(), pmc.opaque), 0);
	ASSERT_EQ(rte_ring_dequeue_bulk(ring, objs, 1, nullptr), 1u);
	EXPECT_EQ(pmc.fn(watched(), pmc.opaque), -1);
}

TEST_F(InfoStatsTest, MonitorAddressOfANeverConnectedPortIsInvalidWithoutALine)
{
	VdevPort port("is_mon_nc", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	ASSERT_EQ(port.internal()->vid, -1);
	f.calls.clear();
	struct rte_power_monitor_cond pmc, untouched;
	std::memset(&pmc, 0x77, sizeof(pmc));
	std::memcpy(&untouched, &pmc, sizeof(pmc));
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 0, &pmc), -EINVAL);
	EXPECT_EQ(cap.Text(), "");
	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_EQ(std::memcmp(&pmc, &untouched, sizeof(pmc)), 0);
}

TEST_F(InfoStatsTest, MonitorAddressWithAConnectionIdOutsideTheTableIsInvalidWithoutALine)
{
	VdevPort port("is_mon_1024", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	struct rte_power_monitor_cond pmc {};
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	f.calls.clear();

	for (int vid : {1024, 5000, -2}) {
		port.internal()->vid = vid;
		EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 0, &pmc), -EINVAL) << "vid " << vid;
	}
	EXPECT_EQ(cap.Text(), "");
	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());

	/* 1023 is still a connection id: the ring is looked up. */
	port.internal()->vid = 1023;
	EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 0, &pmc), 0);
	EXPECT_EQ(f.rings.lookups.size(), 1u);
}

TEST_F(InfoStatsTest, MonitorAddressOfAMissingQueueOrPortRecordIsInvalid)
{
	struct rte_power_monitor_cond pmc {};
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_vdev_get_monitor_addr(nullptr, &pmc), -EINVAL);
	struct zorv1_vdev_rxq orphan {};
	orphan.virtqueue_id = 2;
	EXPECT_EQ(zorv1_vdev_get_monitor_addr(&orphan, &pmc), -EINVAL);

	/* Through DPDK: a configured queue that was never set up. */
	VdevPort port("is_mon_noq", 2);
	ASSERT_TRUE(port);
	port.Setup(2, {0});
	port.internal()->vid = 4;
	cap.Clear();
	EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 1, &pmc), -EINVAL);
	EXPECT_EQ(cap.Text(), "");
}

TEST_F(InfoStatsTest, MonitorAddressWithoutARingLogsTheConnectionAndQueue)
{
	VdevPort port("is_mon_noring", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.internal()->vid = 5;
	f.rings.get = [](int) -> struct rte_ring * { return nullptr; };
	struct rte_power_monitor_cond pmc {};
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 1, &pmc), -EINVAL);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_vdev_get_monitor_addr",
				 "get rte_ring fail. vid=5 qid=2.\n"));
	/* The port holds vid 5, so the lookup itself found the queue's ring id. */
	EXPECT_THAT(f.rings.lookups, ElementsAre(port.rxq(1)->local_id));
	EXPECT_EQ(cap.Lines().size(), 1u) << cap.Text();
}

TEST_F(InfoStatsTest, MonitorAddressForAConnectionNoPortHoldsLogsTheLookupFirst)
{
	VdevPort port("is_mon_noport", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.internal()->vid = 5;
	/* The port is no longer in the device manager's table, so no port holds vid 5. */
	f.dev.ClearSlots();
	struct rte_power_monitor_cond pmc {};
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_get_monitor_addr(port.id(), 1, &pmc), -EINVAL);

	const auto lines = cap.Lines();
	ASSERT_EQ(lines.size(), 2u) << cap.Text();
	EXPECT_TRUE(zorv_test::MatchesZorvLine(lines[0], "zorv1_get_dev_queue_local_id",
					       "get local_id failed, vid 5 qid 2\n"))
		<< lines[0];
	EXPECT_TRUE(zorv_test::MatchesZorvLine(lines[1], "zorv1_vdev_get_monitor_addr",
					       "get rte_ring fail. vid=5 qid=2.\n"))
		<< lines[1];
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_vdev_get_monitor_addr",
				 "get rte_ring fail. vid=5 qid=2.\n"));
	EXPECT_THAT(f.rings.lookups, ElementsAre(-1));
}

} // namespace
