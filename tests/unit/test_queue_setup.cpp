/* SPDX-License-Identifier: BSD-3-Clause
 * Queue setup of the zorv1 port: the receive and transmit queue records,
 * their transport queue numbers, the receive ring, and what a failed setup
 * reports and leaves behind.
 *
 * Ports are made by the driver's own probe on the vdev bus and driven
 * through DPDK's ethdev API wherever DPDK lets an application reach the
 * case; the operations are called directly only where DPDK's layer would
 * not get there (an occupied slot, a port without a bus device).
 */
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <rte_ring.h>

#include <ethdev_driver.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_harness.h"
#include "zorv_test_vdev.h"

using ::testing::ElementsAre;
using zorv_fake::FakeEnv;
using zorv_fake::MqttMsg;
using zorv_fake::RingCreate;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

namespace {

/* ---------------------------------------------------------------- helpers */

/* A port made by the driver's probe on the vdev bus; removed at scope end. */
class VdevPort : public zorv_test::VdevPort {
public:
	VdevPort(const std::string &iface, unsigned queues)
		: zorv_test::VdevPort("net_zorv1_qs", iface, queues)
	{
	}
};

using zorv_test::CountersMoved;
using zorv_test::DpdkHeapUse;
using zorv_test::HeapUse;

/*
 * The socket id of an external heap that has no memory: every allocation
 * asked for on it fails, which is how a queue record allocation is made to
 * fail for real (without hugepages DPDK ignores ordinary socket ids).
 */
int EmptyHeapSocket()
{
	static const int socket = [] {
		if (rte_malloc_heap_create("zorv_qs_empty") != 0)
			return -1;
		return rte_malloc_heap_get_socket("zorv_qs_empty");
	}();
	return socket;
}

bool AllZero(const struct zorv1_vdev_stats &s)
{
	static const struct zorv1_vdev_stats zero {};
	return std::memcmp(&s, &zero, sizeof(s)) == 0;
}

class QueueSetupTest : public FakeEnv {
protected:
	/* Configure n receive and n transmit queues through DPDK. */
	static void Configure(const VdevPort &port, uint16_t n)
	{
		struct rte_eth_conf conf {};
		ASSERT_EQ(rte_eth_dev_configure(port.id(), n, n, &conf), 0);
	}
	struct rte_mempool *pool_ = zorv_test::SharedMbufPool();
};

/* ---------------------------------------------------------------- receive */

TEST_F(QueueSetupTest, RxSetupFillsTheRecordAndCreatesA512EntryRing)
{
	VdevPort port("qs_rx_fill", 4);
	ASSERT_TRUE(port);
	Configure(port, 4);
	f.calls.clear();

	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 3, 256, rte_socket_id(), nullptr, pool_), 0);
	struct zorv1_vdev_rxq *rxq = port.rxq(3);
	ASSERT_NE(rxq, nullptr);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(rxq) % RTE_CACHE_LINE_SIZE, 0u);
	EXPECT_EQ(rxq->virtqueue_id, 6);
	EXPECT_EQ(rxq->internal, port.internal());
	EXPECT_EQ(rxq->port, port.id());
	EXPECT_EQ(rxq->nb_rx_desc, 256);
	EXPECT_EQ(rxq->mb_pool, pool_);
	EXPECT_EQ(rte_atomic32_read(&rxq->allow_queuing), 0);
	EXPECT_EQ(rte_atomic32_read(&rxq->while_queuing), 0);
	EXPECT_TRUE(AllZero(rxq->stats));

	/* One real ring of 512 entries, whose id the record keeps. */
	ASSERT_THAT(f.rings.creates, ElementsAre(RingCreate{512, rxq->local_id}));
	ASSERT_EQ(f.rings.live.count(rxq->local_id), 1u);
	EXPECT_EQ(rte_ring_get_size(f.rings.live[rxq->local_id]), 512u);

	/* Only slot 3 is filled; nothing is locked or reported. */
	for (uint16_t q : {0, 1, 2})
		EXPECT_EQ(port.rxq(q), nullptr) << "rx slot " << q;
	EXPECT_TRUE(f.mqtt.msgs.empty());
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_ring_create"));

	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 0, 128, rte_socket_id(), nullptr, pool_), 0);
	ASSERT_NE(port.rxq(0), nullptr);
	EXPECT_EQ(port.rxq(0)->virtqueue_id, 0);
	EXPECT_EQ(port.rxq(0)->nb_rx_desc, 128);
	ASSERT_EQ(f.rings.creates.size(), 2u);
	EXPECT_EQ(port.rxq(0)->local_id, f.rings.creates[1].result);
	EXPECT_NE(port.rxq(0)->local_id, rxq->local_id);
}

TEST_F(QueueSetupTest, RingRefusalFreesTheRecordAndReportsTheCacheRing)
{
	VdevPort port("qs_ring_fail", 4);
	ASSERT_TRUE(port);
	Configure(port, 4);
	port.internal()->vid = 9; /* the connection id the port last had */
	/* A queue index that differs from the port id, so the line tells which is printed. */
	const uint16_t q = port.id() == 2 ? 3 : 2;
	f.rings.create_result = -1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	const HeapUse heap = DpdkHeapUse();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_rx_queue_setup(port.id(), q, 0, rte_socket_id(), nullptr, pool_), -1);

	EXPECT_EQ(DpdkHeapUse(), heap) << "the queue record was not freed";
	EXPECT_EQ(port.rxq(q), nullptr);
	EXPECT_THAT(f.rings.creates, ElementsAre(RingCreate{512, -1}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "create zorv1 ring failed,dev=9,q=" + std::to_string(port.id()) + "\n"));
	EXPECT_EQ(zorv_test::CountLines(cap, "eth_rx_queue_setup",
					"create zorv1 ring failed,dev=9,q=" + std::to_string(q) + "\n"),
		  0);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING,
						    port.name(), "qs_ring_fail", 4}));
	EXPECT_TRUE(CountersMoved(before, {}));
}

TEST_F(QueueSetupTest, RingRefusalOnANeverConnectedPortPrintsVidMinusOne)
{
	VdevPort port("qs_ring_fail_nc", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	f.rings.create_result = -1;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_rx_queue_setup(port.id(), 1, 0, rte_socket_id(), nullptr, pool_), -1);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "create zorv1 ring failed,dev=-1,q=" + std::to_string(port.id()) + "\n"));
	EXPECT_EQ(port.rxq(1), nullptr);
}

TEST_F(QueueSetupTest, RingRefusalWhoseReportCannotBeSentIsCountedAndStillMinusOne)
{
	VdevPort port("qs_ring_nosend", 3);
	ASSERT_TRUE(port);
	Configure(port, 3);
	f.rings.create_result = -1;
	f.mqtt.send_result = 1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_rx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr, pool_), -1);

	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING,
						    port.name(), "qs_ring_nosend", 3}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "Send msg failed, " + port.name() + "-qs_ring_nosend-8-13\n"));
	EXPECT_TRUE(CountersMoved(before, {{"send_msg_fail", 1}}));
	EXPECT_EQ(port.rxq(0), nullptr);
}

/* Only -1 means failure: every other ring id, negative ones included, is kept. */
class OtherRingIdTest : public QueueSetupTest, public ::testing::WithParamInterface<int> {};

TEST_P(OtherRingIdTest, IsTakenAsTheQueuesRingId)
{
	VdevPort port("qs_ring_id", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	f.rings.create_result = GetParam();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 1, 0, rte_socket_id(), nullptr, pool_), 0);
	ASSERT_NE(port.rxq(1), nullptr);
	EXPECT_EQ(port.rxq(1)->local_id, GetParam());
	EXPECT_TRUE(f.mqtt.msgs.empty());
	EXPECT_EQ(cap.Text(), "");

	/* The port's removal hands that id back to the ring manager. */
	port.Remove();
	EXPECT_THAT(f.rings.destroys, ElementsAre(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Values, OtherRingIdTest, ::testing::Values(-2, -1000, INT_MIN, 0, 77));

TEST_F(QueueSetupTest, RxRecordAllocationFailureReportsMemAllocAndCreatesNoRing)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	/* The heap really has nothing to give. */
	ASSERT_EQ(rte_zmalloc_socket(nullptr, sizeof(struct zorv1_vdev_rxq), RTE_CACHE_LINE_SIZE,
				     EmptyHeapSocket()),
		  nullptr);
	VdevPort port("qs_rx_nomem", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	f.calls.clear();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_rx_queue_setup(port.id(), 1, 0, EmptyHeapSocket(), nullptr, pool_), -ENOMEM);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "Failed to allocate memory for rx queue\n"));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC,
						    port.name(), "qs_rx_nomem", 2}));
	EXPECT_TRUE(f.rings.creates.empty());
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_mqtt_send_msg"));
	EXPECT_EQ(port.rxq(1), nullptr);
	EXPECT_TRUE(CountersMoved(before, {}));
}

TEST_F(QueueSetupTest, RxRecordAllocationFailureWhoseReportCannotBeSentIsCounted)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	VdevPort port("qs_rx_nomem_ns", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	f.mqtt.send_result = -1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_rx_queue_setup(port.id(), 0, 0, EmptyHeapSocket(), nullptr, pool_), -ENOMEM);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "Send msg failed, " + port.name() + "-qs_rx_nomem_ns-8-5\n"));
	EXPECT_TRUE(CountersMoved(before, {{"send_msg_fail", 1}}));
}

/* ---------------------------------------------------------------- transmit */

TEST_F(QueueSetupTest, TxSetupFillsTheRecordWithoutARing)
{
	VdevPort port("qs_tx_fill", 4);
	ASSERT_TRUE(port);
	Configure(port, 4);
	f.calls.clear();

	ASSERT_EQ(rte_eth_tx_queue_setup(port.id(), 3, 512, rte_socket_id(), nullptr), 0);
	struct zorv1_vdev_txq *txq = port.txq(3);
	ASSERT_NE(txq, nullptr);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(txq) % RTE_CACHE_LINE_SIZE, 0u);
	EXPECT_EQ(txq->virtqueue_id, 7);
	EXPECT_EQ(txq->internal, port.internal());
	EXPECT_EQ(txq->port, port.id());
	EXPECT_EQ(txq->pci_qid, 0u);
	EXPECT_EQ(rte_atomic32_read(&txq->allow_queuing), 0);
	EXPECT_EQ(rte_atomic32_read(&txq->while_queuing), 0);
	EXPECT_TRUE(AllZero(txq->stats));
	for (uint16_t q : {0, 1, 2})
		EXPECT_EQ(port.txq(q), nullptr) << "tx slot " << q;

	ASSERT_EQ(rte_eth_tx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr), 0);
	ASSERT_NE(port.txq(0), nullptr);
	EXPECT_EQ(port.txq(0)->virtqueue_id, 1);
	EXPECT_EQ(port.txq(0)->pci_qid, 0u);

	/* No ring, no lock, no report: transmit setup calls no service at all. */
	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_TRUE(f.rings.creates.empty());
}

TEST_F(QueueSetupTest, TxRecordAllocationFailureReportsMemAlloc)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	VdevPort port("qs_tx_nomem", 3);
	ASSERT_TRUE(port);
	Configure(port, 3);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_tx_queue_setup(port.id(), 2, 0, EmptyHeapSocket(), nullptr), -ENOMEM);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_tx_queue_setup",
				 "Failed to allocate memory for tx queue\n"));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC,
						    port.name(), "qs_tx_nomem", 3}));
	EXPECT_EQ(port.txq(2), nullptr);
	EXPECT_TRUE(CountersMoved(before, {}));
}

TEST_F(QueueSetupTest, TxRecordAllocationFailureWhoseReportCannotBeSentIsCounted)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	VdevPort port("qs_tx_nomem_ns", 1);
	ASSERT_TRUE(port);
	Configure(port, 1);
	f.mqtt.send_result = 3;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_tx_queue_setup(port.id(), 0, 0, EmptyHeapSocket(), nullptr), -ENOMEM);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_tx_queue_setup",
				 "Send msg failed, " + port.name() + "-qs_tx_nomem_ns-8-5\n"));
	EXPECT_TRUE(CountersMoved(before, {{"send_msg_fail", 1}}));
}

/* ---------------------------------------------------------------- slots */

TEST_F(QueueSetupTest, SettingUpAQueueAgainThroughDpdkReleasesTheOldOneFirst)
{
	VdevPort port("qs_again", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 1, 0, rte_socket_id(), nullptr, pool_), 0);
	const int old_id = port.rxq(1)->local_id;
	f.calls.clear();

	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 1, 0, rte_socket_id(), nullptr, pool_), 0);

	EXPECT_THAT(f.Names(), ElementsAre("zorv1_ring_destroy", "zorv1_ring_create"));
	EXPECT_THAT(f.rings.destroys, ElementsAre(old_id));
	EXPECT_EQ(f.rings.live.count(old_id), 0u);
	ASSERT_NE(port.rxq(1), nullptr);
	EXPECT_NE(port.rxq(1)->local_id, old_id);
	EXPECT_EQ(f.rings.live.count(port.rxq(1)->local_id), 1u);
}

/* DPDK clears a slot before setup; called directly, a failed setup leaves an occupant alone. */
TEST_F(QueueSetupTest, FailedSetupLeavesAnOccupiedSlotUnchanged)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	VdevPort port("qs_occupied", 2);
	ASSERT_TRUE(port);
	Configure(port, 2);
	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr, pool_), 0);
	ASSERT_EQ(rte_eth_tx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr), 0);
	struct zorv1_vdev_rxq *rxq = port.rxq(0);
	struct zorv1_vdev_txq *txq = port.txq(0);
	const int ring_id = rxq->local_id;

	f.rings.create_result = -1;
	EXPECT_EQ(eth_rx_queue_setup(port.dev(), 0, 0, rte_socket_id(), nullptr, pool_), -1);
	EXPECT_EQ(eth_rx_queue_setup(port.dev(), 0, 0, EmptyHeapSocket(), nullptr, pool_), -ENOMEM);
	EXPECT_EQ(eth_tx_queue_setup(port.dev(), 0, 0, EmptyHeapSocket(), nullptr), -ENOMEM);

	EXPECT_EQ(port.rxq(0), rxq);
	EXPECT_EQ(port.txq(0), txq);
	EXPECT_EQ(rxq->local_id, ring_id);
	EXPECT_EQ(f.rings.live.count(ring_id), 1u);
	EXPECT_TRUE(f.rings.destroys.empty());
}

/* Setup itself never releases what occupies the slot; that is DPDK's job. */
TEST_F(QueueSetupTest, DirectSetupOverAnOccupiedSlotDoesNotReleaseTheOccupant)
{
	VdevPort port("qs_overwrite", 1);
	ASSERT_TRUE(port);
	Configure(port, 1);
	ASSERT_EQ(rte_eth_rx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr, pool_), 0);
	ASSERT_EQ(rte_eth_tx_queue_setup(port.id(), 0, 0, rte_socket_id(), nullptr), 0);
	struct zorv1_vdev_rxq *old_rxq = port.rxq(0);
	struct zorv1_vdev_txq *old_txq = port.txq(0);
	const int old_id = old_rxq->local_id;
	f.rings.create_result = 99; /* an id without a ring: only records are on the heap */
	const HeapUse heap = DpdkHeapUse();

	ASSERT_EQ(eth_rx_queue_setup(port.dev(), 0, 0, rte_socket_id(), nullptr, pool_), 0);
	ASSERT_EQ(eth_tx_queue_setup(port.dev(), 0, 0, rte_socket_id(), nullptr), 0);

	EXPECT_NE(port.rxq(0), old_rxq);
	EXPECT_NE(port.txq(0), old_txq);
	EXPECT_TRUE(f.rings.destroys.empty());
	EXPECT_EQ(f.rings.live.count(old_id), 1u);
	/* Two more records and none freed: the old records are still allocated. */
	EXPECT_EQ(DpdkHeapUse().count, heap.count + 2);

	/* The test owns the displaced records now. */
	zorv1_ring_destroy(old_id);
	rte_free(old_rxq);
	rte_free(old_txq);
}

/* ---------------------------------------------------------------- no device name */

TEST_F(QueueSetupTest, ReportOfAPortWithoutDeviceNamePrintsAnEmptyName)
{
	ASSERT_GE(EmptyHeapSocket(), 0);
	zorv_test::FakePort port({.nb_rx_queues = 1, .nb_tx_queues = 1});
	ASSERT_TRUE(port);
	ASSERT_EQ(port.dev()->device, nullptr);
	char iface[] = "qs_noname";
	port.internal()->iface_name = iface;
	port.internal()->max_queues = 1;
	port.internal()->vid = -1;
	f.rings.create_result = -1;
	f.mqtt.send_result = 1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(eth_rx_queue_setup(port.dev(), 0, 0, rte_socket_id(), nullptr, pool_), -1);
	EXPECT_EQ(eth_tx_queue_setup(port.dev(), 0, 0, EmptyHeapSocket(), nullptr), -ENOMEM);

	EXPECT_THAT(f.mqtt.msgs,
		    ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING, std::nullopt,
					"qs_noname", 1},
				MqttMsg{ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC, std::nullopt,
					"qs_noname", 1}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_rx_queue_setup",
				 "Send msg failed, -qs_noname-8-13\n"));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_tx_queue_setup",
				 "Send msg failed, -qs_noname-8-5\n"));
	EXPECT_TRUE(CountersMoved(before, {{"send_msg_fail", 2}}));
	EXPECT_EQ(port.data()->rx_queues[0], nullptr);
	EXPECT_EQ(port.data()->tx_queues[0], nullptr);
}

} // namespace
