/* SPDX-License-Identifier: BSD-3-Clause
 * The port, queue and counter records, the driver's globals, and the state
 * a port record carries from creation through a connection and its end.
 *
 * Layout: the family's other modules are built against these records, so
 * their field order, types and the counter positions are part of the
 * interface. Ports: created through the virtual-device bus
 * (rte_vdev_init("net_zorv1_<x>", "iface=...")), with the family services
 * faked.
 */
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_ether.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using zorv_fake::FakeEnv;
using zorv_test::FakePort;

namespace {

/*
 * The globals as they are when the binary is loaded, taken during static
 * initialisation: before main(), EAL and any test.
 */
const struct dpdk_cp_stat kCountersAtLoad = g_dpdk_cp_stat;
const std::vector<uint64_t> kEventIdsAtLoad(g_zorv1_event_id, g_zorv1_event_id + ZORV1_MAX_VID);

/* A port created through the bus; removed through the bus at scope end. */
class CreatedPort {
public:
	CreatedPort(std::string name, const std::string &args) : name_(std::move(name))
	{
		rc_ = rte_vdev_init(name_.c_str(), args.c_str());
	}
	~CreatedPort()
	{
		if (rc_ == 0)
			rte_vdev_uninit(name_.c_str());
	}
	CreatedPort(const CreatedPort &) = delete;
	CreatedPort &operator=(const CreatedPort &) = delete;

	int rc() const { return rc_; }
	struct rte_eth_dev *dev() const { return rte_eth_dev_allocated(name_.c_str()); }
	struct zorv1_internal *internal() const
	{
		return static_cast<struct zorv1_internal *>(dev()->data->dev_private);
	}
	uint16_t port_id() const { return dev()->data->port_id; }

private:
	std::string name_;
	int rc_;
};

bool AllZero(const void *p, size_t n)
{
	const auto *b = static_cast<const uint8_t *>(p);
	for (size_t i = 0; i < n; i++) {
		if (b[i] != 0)
			return false;
	}
	return true;
}

} // namespace

/* ===================================================== record layout */

TEST(RecordLayout, PortRecordFieldsInOrder)
{
	using R = struct zorv1_internal;
	EXPECT_EQ(offsetof(R, comm), 0u);
	EXPECT_LT(offsetof(R, comm), offsetof(R, rss));
	EXPECT_LT(offsetof(R, rss), offsetof(R, cmd));
	EXPECT_LT(offsetof(R, cmd), offsetof(R, iface_name));
	EXPECT_LT(offsetof(R, iface_name), offsetof(R, vid));
	EXPECT_LT(offsetof(R, vid), offsetof(R, started));
	EXPECT_LT(offsetof(R, started), offsetof(R, sfi));
	EXPECT_LT(offsetof(R, sfi), offsetof(R, vlan_strip));
	EXPECT_LT(offsetof(R, vlan_strip), offsetof(R, reserve));
	EXPECT_LT(offsetof(R, reserve), offsetof(R, max_queues));
	EXPECT_LT(offsetof(R, max_queues), offsetof(R, mac_addr));
	/* The scalar tail is packed as declared, without holes. */
	EXPECT_EQ(offsetof(R, started), offsetof(R, vid) + 4);
	EXPECT_EQ(offsetof(R, sfi), offsetof(R, started) + 4);
	EXPECT_EQ(offsetof(R, vlan_strip), offsetof(R, sfi) + 4);
	EXPECT_EQ(offsetof(R, reserve), offsetof(R, vlan_strip) + 1);
	EXPECT_EQ(offsetof(R, max_queues), offsetof(R, reserve) + 3);
	EXPECT_EQ(offsetof(R, mac_addr), offsetof(R, max_queues) + 2);
	EXPECT_TRUE(std::is_standard_layout_v<R>);
}

TEST(RecordLayout, PortRecordFieldTypes)
{
	using R = struct zorv1_internal;
	EXPECT_TRUE((std::is_same_v<decltype(R::comm), struct zorv1_common>));
	EXPECT_TRUE((std::is_same_v<decltype(R::rss), struct zorv1_rss>));
	EXPECT_TRUE((std::is_same_v<decltype(R::cmd), struct zorv1_cmd_transport_mem>));
	EXPECT_TRUE((std::is_same_v<decltype(R::iface_name), char *>));
	EXPECT_TRUE((std::is_same_v<decltype(R::vid), int32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(R::started), int32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(R::sfi), uint32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(R::vlan_strip), uint8_t>));
	EXPECT_TRUE((std::is_same_v<decltype(R::reserve), uint8_t[3]>));
	EXPECT_TRUE((std::is_same_v<decltype(R::max_queues), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(R::mac_addr), uint8_t[6]>));
}

TEST(RecordLayout, CommonHeadRssAndCommandBuffers)
{
	EXPECT_EQ(offsetof(struct zorv1_common, flag), 0u);
	EXPECT_TRUE((std::is_same_v<decltype(zorv1_common::flag), uint32_t>));
	EXPECT_LT(offsetof(struct zorv1_common, flag), offsetof(struct zorv1_common, flow_data));
	EXPECT_TRUE((std::is_same_v<decltype(zorv1_common::flow_data), struct zorv_flow_priv>));
	/* The one member of the flow engine's record the port reads (MTU). */
	EXPECT_TRUE((std::is_same_v<decltype(zorv_flow_priv::priv_port), uint32_t>));

	using S = struct zorv1_rss;
	EXPECT_EQ(offsetof(S, rss_hash_types), 0u);
	EXPECT_EQ(offsetof(S, rss_rx_queues), 8u);
	EXPECT_EQ(offsetof(S, rss_htype), 10u);
	EXPECT_EQ(offsetof(S, reserve), 11u);
	EXPECT_TRUE((std::is_same_v<decltype(S::rss_hash_types), uint64_t>));
	EXPECT_TRUE((std::is_same_v<decltype(S::rss_rx_queues), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(S::rss_htype), uint8_t>));
	EXPECT_TRUE((std::is_same_v<decltype(S::reserve), uint8_t[1]>));

	using C = struct zorv1_cmd_transport_mem;
	EXPECT_EQ(offsetof(C, in_mem), 0u);
	EXPECT_EQ(offsetof(C, out_mem), sizeof(void *));
	EXPECT_TRUE((std::is_same_v<decltype(C::in_mem), void *>));
	EXPECT_TRUE((std::is_same_v<decltype(C::out_mem), void *>));
	EXPECT_EQ(ZORV1_CMD_MEM_SIZE, 1024);
}

TEST(RecordLayout, ReceiveQueueFieldsInOrder)
{
	using Q = struct zorv1_vdev_rxq;
	EXPECT_EQ(sizeof(rte_atomic32_t), 4u);
	EXPECT_EQ(offsetof(Q, allow_queuing), 0u);
	EXPECT_EQ(offsetof(Q, while_queuing), 4u);
	EXPECT_EQ(offsetof(Q, internal), 8u);
	EXPECT_LT(offsetof(Q, internal), offsetof(Q, mb_pool));
	EXPECT_LT(offsetof(Q, mb_pool), offsetof(Q, port));
	EXPECT_LT(offsetof(Q, port), offsetof(Q, local_id));
	EXPECT_LT(offsetof(Q, local_id), offsetof(Q, virtqueue_id));
	EXPECT_LT(offsetof(Q, virtqueue_id), offsetof(Q, stats));
	EXPECT_LT(offsetof(Q, stats), offsetof(Q, nb_rx_desc));
	EXPECT_TRUE((std::is_same_v<decltype(Q::allow_queuing), rte_atomic32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::while_queuing), rte_atomic32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::internal), struct zorv1_internal *>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::mb_pool), struct rte_mempool *>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::port), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::local_id), int32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::virtqueue_id), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::stats), struct zorv1_vdev_stats>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::nb_rx_desc), uint16_t>));
	EXPECT_TRUE(std::is_standard_layout_v<Q>);
}

TEST(RecordLayout, TransmitQueueFieldsInOrder)
{
	using Q = struct zorv1_vdev_txq;
	EXPECT_EQ(offsetof(Q, allow_queuing), 0u);
	EXPECT_EQ(offsetof(Q, while_queuing), 4u);
	EXPECT_EQ(offsetof(Q, internal), 8u);
	EXPECT_LT(offsetof(Q, internal), offsetof(Q, port));
	EXPECT_LT(offsetof(Q, port), offsetof(Q, pci_qid));
	EXPECT_LT(offsetof(Q, pci_qid), offsetof(Q, virtqueue_id));
	EXPECT_LT(offsetof(Q, virtqueue_id), offsetof(Q, stats));
	EXPECT_TRUE((std::is_same_v<decltype(Q::allow_queuing), rte_atomic32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::while_queuing), rte_atomic32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::internal), struct zorv1_internal *>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::port), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::pci_qid), uint32_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::virtqueue_id), uint16_t>));
	EXPECT_TRUE((std::is_same_v<decltype(Q::stats), struct zorv1_vdev_stats>));
	EXPECT_TRUE(std::is_standard_layout_v<Q>);
}

TEST(RecordLayout, BothQueueKindsShareTheGatePairAndOwner)
{
	EXPECT_EQ(offsetof(struct zorv1_vdev_rxq, allow_queuing),
		  offsetof(struct zorv1_vdev_txq, allow_queuing));
	EXPECT_EQ(offsetof(struct zorv1_vdev_rxq, while_queuing),
		  offsetof(struct zorv1_vdev_txq, while_queuing));
	EXPECT_EQ(offsetof(struct zorv1_vdev_rxq, internal),
		  offsetof(struct zorv1_vdev_txq, internal));
}

TEST(RecordLayout, QueueCountersInOrder)
{
	using S = struct zorv1_vdev_stats;
	EXPECT_EQ(offsetof(S, pkts), 0u);
	EXPECT_EQ(offsetof(S, bytes), 8u);
	EXPECT_EQ(offsetof(S, missed_pkts), 16u);
	EXPECT_EQ(offsetof(S, xstats), 24u);
	EXPECT_TRUE((std::is_same_v<decltype(S::xstats), uint64_t[11]>));
	EXPECT_EQ(sizeof(S), 14u * sizeof(uint64_t));
}

TEST(RecordLayout, ExtendedCounterIndexes)
{
	EXPECT_EQ(sizeof(enum zorv1_vdev_xstats), 4u);
	EXPECT_EQ(ZORV1_UNDERSIZE_PKT, 0);
	EXPECT_EQ(ZORV1_64_PKT, 1);
	EXPECT_EQ(ZORV1_65_TO_127_PKT, 2);
	EXPECT_EQ(ZORV1_128_TO_255_PKT, 3);
	EXPECT_EQ(ZORV1_256_TO_511_PKT, 4);
	EXPECT_EQ(ZORV1_512_TO_1023_PKT, 5);
	EXPECT_EQ(ZORV1_1024_TO_1522_PKT, 6);
	EXPECT_EQ(ZORV1_1523_TO_MAX_PKT, 7);
	EXPECT_EQ(ZORV1_BROADCAST_PKT, 8);
	EXPECT_EQ(ZORV1_MULTICAST_PKT, 9);
	EXPECT_EQ(ZORV1_UNICAST_PKT, 10);
	EXPECT_EQ(ZORV1_XSTATS_MAX, 11);
}

TEST(RecordLayout, QueueKinds)
{
	EXPECT_EQ(sizeof(ZORV1_RXQ), 4u);
	EXPECT_EQ(ZORV1_RXQ, 0);
	EXPECT_EQ(ZORV1_TXQ, 1);
	EXPECT_EQ(ZORV1_QNUM, 2);
}

TEST(RecordLayout, UnboundFunctionAndTableSizes)
{
	EXPECT_EQ(INVALID_SFI, 0xFFFFFFFFu);
	EXPECT_EQ(ZORV1_MAX_VID, 1024);
	EXPECT_EQ(sizeof(g_zorv1_event_id), 1024u * sizeof(uint64_t));
	EXPECT_TRUE((std::is_same_v<std::remove_extent_t<decltype(g_zorv1_event_id)>, uint64_t>));
	EXPECT_TRUE((std::is_same_v<decltype(g_dpdk_cp_stat), struct dpdk_cp_stat>));
}

/* Every control-plane counter is a uint32 at its index. */
#define ZORV1_CP_COUNTERS(X)                                                                    \
	X(0, set_owner_fail) X(1, set_owner_suc) X(2, cache_start_flag_err)                     \
	X(3, enqueue_dev_null) X(4, enqueue_queue_fail) X(5, enqueue_vhost_len_fail)            \
	X(6, enqueue_fail) X(7, dequeue_dev_null) X(8, dequeue_queue_fail)                      \
	X(9, dequeue_rarp_null) X(10, dequeue_pmd) X(11, pre_msg_path_fail)                     \
	X(12, post_msg_path_fail) X(13, new_conn_err) X(14, new_conn) X(15, del_conn_err)       \
	X(16, del_conn) X(17, vring_state_fail) X(18, vring_state_chg) X(19, del_device_null)   \
	X(20, del_device_suc) X(21, add_device_null) X(22, add_device_vq_no_ready)              \
	X(23, add_device_install_err) X(24, queue_setup_ignore) X(25, queue_destroy_ignore)     \
	X(26, add_device_success) X(27, vhost_setup_fail) X(28, eth_dev_configure)               \
	X(29, vhost_list_null) X(30, vhost_vring_state_null) X(31, vhost_regist_fail)           \
	X(32, vhost_vsocket_null) X(33, vhost_callback_null) X(34, vhost_driver_start_err)      \
	X(35, vhost_driver_setup) X(36, close_dev_null) X(37, eth_dev_close)                    \
	X(38, eth_dev_stop) X(39, flow_start_fail) X(40, flow_close_fail) X(41, start_dev_intr) \
	X(42, eth_dev_start) X(43, send_msg_fail) X(44, get_ethdev_fail)

TEST(RecordLayout, FortyFiveControlPlaneCountersInOrder)
{
	EXPECT_EQ(sizeof(struct dpdk_cp_stat), 45u * sizeof(uint32_t));
	int n = 0;
#define ZORV1_CHECK_COUNTER(idx, field)                                                       \
	EXPECT_EQ(offsetof(struct dpdk_cp_stat, field), (idx) * sizeof(uint32_t)) << #field;  \
	EXPECT_TRUE((std::is_same_v<decltype(dpdk_cp_stat::field), uint32_t>)) << #field;     \
	n++;
	ZORV1_CP_COUNTERS(ZORV1_CHECK_COUNTER)
#undef ZORV1_CHECK_COUNTER
	EXPECT_EQ(n, 45);
}

/* ======================================================= globals */

TEST(Globals, CountersAreZeroAtLoad)
{
	EXPECT_TRUE(AllZero(&kCountersAtLoad, sizeof(kCountersAtLoad)));
#define ZORV1_CHECK_ZERO(idx, field) EXPECT_EQ(kCountersAtLoad.field, 0u) << #field;
	ZORV1_CP_COUNTERS(ZORV1_CHECK_ZERO)
#undef ZORV1_CHECK_ZERO
}

TEST(Globals, EventIdsAreZeroAtLoad)
{
	ASSERT_EQ(kEventIdsAtLoad.size(), 1024u);
	for (size_t vid = 0; vid < kEventIdsAtLoad.size(); vid++)
		EXPECT_EQ(kEventIdsAtLoad[vid], 0u) << "vid " << vid;
}

/* ================================================ port record state */

class PortRecord : public FakeEnv {};

TEST_F(PortRecord, NewPortIsNeverConnectedAndUnbound)
{
	CreatedPort p("net_zorv1_rec_fresh", "iface=ifc_fresh,queues=3");
	ASSERT_EQ(p.rc(), 0);
	ASSERT_NE(p.dev(), nullptr);
	struct zorv1_internal *in = p.internal();
	ASSERT_NE(in, nullptr);

	EXPECT_EQ(in->vid, -1);
	EXPECT_EQ(in->sfi, 0xFFFFFFFFu);
	EXPECT_EQ(in->started, 0);
	EXPECT_EQ(in->vlan_strip, 0);
	EXPECT_EQ(in->max_queues, 3);
	EXPECT_TRUE(AllZero(in->reserve, sizeof(in->reserve)));
	EXPECT_TRUE(AllZero(in->mac_addr, sizeof(in->mac_addr)));
	EXPECT_TRUE(AllZero(&in->rss, sizeof(in->rss)));
	EXPECT_EQ(in->comm.flag, 0u);
	/* The interface name is a private, NUL-terminated copy. */
	ASSERT_NE(in->iface_name, nullptr);
	EXPECT_STREQ(in->iface_name, "ifc_fresh");
	/* Both command buffers exist. */
	EXPECT_NE(in->cmd.in_mem, nullptr);
	EXPECT_NE(in->cmd.out_mem, nullptr);
	EXPECT_NE(in->cmd.in_mem, in->cmd.out_mem);
}

TEST_F(PortRecord, NewPortReportsTheLinkTemplate)
{
	CreatedPort p("net_zorv1_rec_link", "iface=ifc_link");
	ASSERT_EQ(p.rc(), 0);
	const struct rte_eth_link &link = p.dev()->data->dev_link;
	EXPECT_EQ(link.link_speed, 10000u);
	EXPECT_EQ(link.link_speed, RTE_ETH_SPEED_NUM_10G);
	EXPECT_EQ(link.link_duplex, RTE_ETH_LINK_FULL_DUPLEX);
	EXPECT_EQ(link.link_autoneg, RTE_ETH_LINK_FIXED);
	EXPECT_EQ(link.link_status, RTE_ETH_LINK_DOWN);

	/* The same through the ethdev API. */
	struct rte_eth_link api = {};
	ASSERT_EQ(rte_eth_link_get_nowait(p.port_id(), &api), 0);
	EXPECT_EQ(api.link_speed, 10000u);
	EXPECT_EQ(api.link_duplex, 1);
	EXPECT_EQ(api.link_autoneg, 0);
	EXPECT_EQ(api.link_status, 0);
}

TEST_F(PortRecord, TwoPortsGetIndependentLinkCopies)
{
	CreatedPort a("net_zorv1_rec_la", "iface=ifc_la");
	CreatedPort b("net_zorv1_rec_lb", "iface=ifc_lb");
	ASSERT_EQ(a.rc(), 0);
	ASSERT_EQ(b.rc(), 0);
	/* A change of one port's link must not reach the template or the other port. */
	a.dev()->data->dev_link.link_status = RTE_ETH_LINK_UP;
	a.dev()->data->dev_link.link_speed = 1;
	CreatedPort c("net_zorv1_rec_lc", "iface=ifc_lc");
	ASSERT_EQ(c.rc(), 0);
	EXPECT_EQ(b.dev()->data->dev_link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_EQ(c.dev()->data->dev_link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_EQ(c.dev()->data->dev_link.link_speed, 10000u);
}

TEST_F(PortRecord, PortIdThreeGetsMacEndingInThree)
{
	/* Occupy the lower free port ids so that the created port gets id 3. */
	std::vector<FakePort> fillers;
	for (uint16_t id = 0; id < 3; id++) {
		if (rte_eth_devices[id].state == RTE_ETH_DEV_UNUSED)
			fillers.emplace_back();
	}
	ASSERT_EQ(rte_eth_devices[3].state, RTE_ETH_DEV_UNUSED)
		<< "port id 3 is taken by a port of another test";

	CreatedPort p("net_zorv1_rec_mac3", "iface=ifc_mac3");
	ASSERT_EQ(p.rc(), 0);
	ASSERT_EQ(p.port_id(), 3);

	const struct rte_ether_addr *mac = p.dev()->data->mac_addrs;
	ASSERT_NE(mac, nullptr);
	const uint8_t expect[6] = {0x44, 0x56, 0x44, 0x45, 0x56, 0x03};
	EXPECT_EQ(std::memcmp(mac->addr_bytes, expect, 6), 0)
		<< std::hex << int(mac->addr_bytes[0]) << ":" << int(mac->addr_bytes[1]) << ":"
		<< int(mac->addr_bytes[2]) << ":" << int(mac->addr_bytes[3]) << ":"
		<< int(mac->addr_bytes[4]) << ":" << int(mac->addr_bytes[5]);

	struct rte_ether_addr api = {};
	ASSERT_EQ(rte_eth_macaddr_get(3, &api), 0);
	EXPECT_EQ(std::memcmp(api.addr_bytes, expect, 6), 0);

	/* The reserved copy inside the port record stays zero. */
	EXPECT_TRUE(AllZero(p.internal()->mac_addr, sizeof(p.internal()->mac_addr)));
}

TEST_F(PortRecord, MacLastByteIsThePortId)
{
	CreatedPort a("net_zorv1_rec_maca", "iface=ifc_maca");
	CreatedPort b("net_zorv1_rec_macb", "iface=ifc_macb");
	ASSERT_EQ(a.rc(), 0);
	ASSERT_EQ(b.rc(), 0);
	ASSERT_NE(a.port_id(), b.port_id());
	for (const CreatedPort *p : {&a, &b}) {
		const uint8_t *m = p->dev()->data->mac_addrs[0].addr_bytes;
		EXPECT_EQ(m[0], 0x44);
		EXPECT_EQ(m[1], 0x56);
		EXPECT_EQ(m[2], 0x44);
		EXPECT_EQ(m[3], 0x45);
		EXPECT_EQ(m[4], 0x56);
		EXPECT_EQ(m[5], p->port_id() & 0xff);
		EXPECT_TRUE(AllZero(p->internal()->mac_addr, 6));
	}
}

TEST_F(PortRecord, ConnectionKeepsVidAfterItEndsAndUnbindsSfi)
{
	CreatedPort p("net_zorv1_rec_conn", "iface=ifc_conn,queues=1");
	ASSERT_EQ(p.rc(), 0);
	const uint16_t port_id = p.port_id();

	/* Configure installs the port in the device manager; give it queues. */
	struct rte_eth_conf conf = {};
	ASSERT_EQ(rte_eth_dev_configure(port_id, 1, 1, &conf), 0);
	ASSERT_EQ(f.dev.SlotOf(p.dev()), port_id);
	ASSERT_EQ(rte_eth_rx_queue_setup(port_id, 0, 256, 0, nullptr, zorv_test::SharedMbufPool()),
		  0);
	ASSERT_EQ(rte_eth_tx_queue_setup(port_id, 0, 256, 0, nullptr), 0);
	EXPECT_EQ(p.internal()->vid, -1);

	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.transport.ifnames[7] = "ifc_conn";

	ASSERT_EQ(zorv1_dpu_vdev_new_conn(7), 0);
	EXPECT_EQ(p.internal()->vid, 7);
	EXPECT_EQ(p.internal()->sfi, 0xFFFFFFFFu) << "a connection alone binds no function";

	zorv1_set_internal_sfi(7, 12);
	EXPECT_EQ(p.internal()->sfi, 12u);

	ASSERT_EQ(zorv1_dpu_vdev_destroy_dev(7), 0);
	EXPECT_EQ(p.internal()->vid, 7);
	EXPECT_EQ(p.internal()->sfi, 0xFFFFFFFFu);
	EXPECT_THAT(f.dev.sfi_unmaps, ElementsAre(12u));

	EXPECT_EQ(g_dpdk_cp_stat.new_conn, before.new_conn + 1);
	EXPECT_EQ(g_dpdk_cp_stat.del_conn, before.del_conn + 1);
	EXPECT_EQ(g_dpdk_cp_stat.del_conn_err, before.del_conn_err);

	/* The old connection id still finds the port. */
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(7), p.dev());
	EXPECT_EQ(zorv1_get_internal_sfi(7), 0xFFFFFFFFu);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(-1), nullptr);
}
