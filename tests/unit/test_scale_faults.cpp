/* SPDX-License-Identifier: BSD-3-Clause
 * The port driver at the device manager's full size, and its failure paths.
 *
 * Scale: every one of the 1024 slots of the device manager's table holds a
 * port (plain rte_eth_dev / rte_eth_dev_data / zorv1_internal records of
 * the test's own: the ethdev layer has only 32 ports), and the driver's
 * lookups by interface name, connection id (vid) and hardware function
 * (sfi) find each of them, before and while they are uninstalled one by
 * one, the same at the first, a middle and the last slot.
 *
 * This file builds two binaries. test_scale_faults links the fake family
 * services: the scale tests run against the fake device manager, and the
 * failure tests make the ring manager, the DPDK allocator and the flow
 * engine fail and check that nothing is left behind (the DPDK heap back to
 * its size, no ring alive in the fake ring manager, the table empty).
 * test_scale_dev_mgr (ZORV_TEST_REAL_SERVICES) links the real family
 * services and runs the same scale tests against the real device manager.
 */
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>

#include <ethdev_driver.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_test_harness.h"
#ifndef ZORV_TEST_REAL_SERVICES
#include "zorv_fakes.h"
#endif

namespace {

/* ======================================================================
 * Scale: a port in every slot of the device manager's table
 * ====================================================================== */

constexpr int kSlots = ZORV1_DEV_MAX;
constexpr uint16_t kQueuesPerPort = 2;

/* A port as the table and the lookups see it; the ethdev layer never does. */
struct TablePort {
	struct rte_eth_dev dev {};
	struct rte_eth_dev_data data {};
	struct zorv1_internal internal {};
	std::array<struct zorv1_vdev_rxq, kQueuesPerPort> rxq{};
	std::array<void *, kQueuesPerPort> rxqs{};
	std::string iface;

	explicit TablePort(int slot)
	{
		dev.data = &data;
		data.port_id = static_cast<uint16_t>(slot);
		snprintf(data.name, sizeof(data.name), "zorv_scale_%d", slot);
		data.dev_private = &internal;
		data.nb_rx_queues = kQueuesPerPort;
		data.rx_queues = rxqs.data();
		iface = "scale_if" + std::to_string(slot);
		internal.iface_name = iface.data();
		internal.vid = slot;                         /* vids 0..1023 */
		internal.sfi = static_cast<uint32_t>(slot) + 1; /* sfis 1..1024 */
		internal.max_queues = kQueuesPerPort;
		for (uint16_t q = 0; q < kQueuesPerPort; q++) {
			rxq[q].internal = &internal;
			rxq[q].port = data.port_id;
			rxq[q].local_id = LocalId(slot, q);
			rxq[q].virtqueue_id = static_cast<uint16_t>(q * ZORV1_QNUM);
			rte_atomic32_set(&rxq[q].allow_queuing, 1);
			rxqs[q] = &rxq[q];
		}
	}
	TablePort(const TablePort &) = delete;
	TablePort &operator=(const TablePort &) = delete;

	static int LocalId(int slot, int q) { return 10000 + slot * kQueuesPerPort + q; }
};

/* 1024 ports, port id = slot; uninstalls whatever is still installed at the end. */
class ScaleTest : public ::testing::Test {
protected:
	void SetUp() override
	{
#ifndef ZORV_TEST_REAL_SERVICES
		zorv_fake::fakes().Reset();
#endif
		for (int i = 0; i < kSlots; i++)
			ports_.push_back(std::make_unique<TablePort>(i));
	}

	void TearDown() override
	{
		zorv1_dev_mutex_lock();
		for (int i = 0; i < kSlots; i++)
			if (zorv1_dev_get_ethdev_internal(i) == &ports_[i]->dev)
				zorv1_dev_uninstall(static_cast<uint16_t>(i));
		zorv1_dev_mutex_unlock();
		for (int i = 0; i < kSlots; i++)
			EXPECT_EQ(zorv1_dev_get_ethdev_internal(i), nullptr) << "slot " << i;
	}

	TablePort &At(int slot) { return *ports_[slot]; }

	void Install(int slot)
	{
		zorv1_dev_mutex_lock();
		int ret = zorv1_dev_install(static_cast<uint16_t>(slot), &At(slot).dev);
		zorv1_dev_mutex_unlock();
		ASSERT_EQ(ret, 0) << "install of slot " << slot;
	}

	void Uninstall(int slot)
	{
		zorv1_dev_mutex_lock();
		zorv1_dev_uninstall(static_cast<uint16_t>(slot));
		zorv1_dev_mutex_unlock();
	}

	void InstallAll()
	{
		for (int i = 0; i < kSlots; i++) {
			Install(i);
			if (::testing::Test::HasFatalFailure())
				return;
		}
	}

	/* Every lookup of the driver finds the port of `slot`. */
	::testing::AssertionResult Found(int slot)
	{
		TablePort &p = At(slot);
		struct rte_eth_dev *dev = &p.dev;
		std::string where = "slot " + std::to_string(slot) + ": ";

		if (zorv1_dev_get_ethdev_internal(slot) != dev)
			return ::testing::AssertionFailure() << where << "not in its table slot";
		if (zorv1_dev_get_ethdev(p.data.port_id) != dev)
			return ::testing::AssertionFailure() << where << "not found by port id";
		if (find_eth_dev_by_ifname(p.iface.c_str()) != dev)
			return ::testing::AssertionFailure() << where << "not found by interface name";
		if (zorv1_vdev_get_ethdev_by_name(p.data.name) != dev)
			return ::testing::AssertionFailure() << where << "not found by device name";
		if (zorv1_dev_get_ethdev_by_vid(p.internal.vid) != dev)
			return ::testing::AssertionFailure() << where << "not found by vid";
		if (zorv1_get_internal_sfi(p.internal.vid) != p.internal.sfi)
			return ::testing::AssertionFailure() << where << "wrong sfi by vid";
		if (zorv1_dev_get_ethdev_by_sfi(p.internal.sfi) != dev)
			return ::testing::AssertionFailure() << where << "not found by sfi";
		/* The card's steering: the ring of receive queue rss % queues, found by sfi. */
		for (int rss = 0; rss < 2 * kQueuesPerPort; rss++) {
			int id = zorv1_get_cache_ring_local_id(static_cast<int>(p.internal.sfi), rss);
			if (id != TablePort::LocalId(slot, rss % kQueuesPerPort))
				return ::testing::AssertionFailure()
				       << where << "cache ring of rss " << rss << " is " << id;
		}
		/* Transport queue 2 is receive queue 1; 3 is its transmit twin. */
		if (zorv1_get_dev_queue_local_id(p.internal.vid, 2) != TablePort::LocalId(slot, 1) ||
		    zorv1_get_dev_queue_local_id(p.internal.vid, 3) != TablePort::LocalId(slot, 1))
			return ::testing::AssertionFailure() << where << "wrong queue ring by vid";
		return ::testing::AssertionSuccess();
	}

	/* No lookup of the driver finds the port of `slot`. */
	::testing::AssertionResult Gone(int slot)
	{
		zorv_test::LogCapture quiet; /* the misses log their own errors */
		TablePort &p = At(slot);
		std::string where = "slot " + std::to_string(slot) + ": ";

		if (zorv1_dev_get_ethdev_internal(slot) != nullptr)
			return ::testing::AssertionFailure() << where << "slot still taken";
		if (zorv1_dev_get_ethdev(p.data.port_id) != nullptr)
			return ::testing::AssertionFailure() << where << "found by port id";
		if (find_eth_dev_by_ifname(p.iface.c_str()) != nullptr)
			return ::testing::AssertionFailure() << where << "found by interface name";
		if (zorv1_vdev_get_ethdev_by_name(p.data.name) != nullptr)
			return ::testing::AssertionFailure() << where << "found by device name";
		if (zorv1_dev_get_ethdev_by_vid(p.internal.vid) != nullptr)
			return ::testing::AssertionFailure() << where << "found by vid";
		if (zorv1_get_internal_sfi(p.internal.vid) != INVALID_SFI)
			return ::testing::AssertionFailure() << where << "sfi found by vid";
		if (zorv1_dev_get_ethdev_by_sfi(p.internal.sfi) != nullptr)
			return ::testing::AssertionFailure() << where << "found by sfi";
		if (zorv1_get_cache_ring_local_id(static_cast<int>(p.internal.sfi), 0) != -1)
			return ::testing::AssertionFailure() << where << "cache ring found by sfi";
		if (zorv1_get_dev_queue_local_id(p.internal.vid, 0) != -1)
			return ::testing::AssertionFailure() << where << "queue ring found by vid";
		return ::testing::AssertionSuccess();
	}

	std::vector<std::unique_ptr<TablePort>> ports_;
};

TEST_F(ScaleTest, EveryPortOfAFullTableIsFoundByEveryLookup)
{
	InstallAll();
	for (int i = 0; i < kSlots; i++)
		ASSERT_TRUE(Found(i));
}

TEST_F(ScaleTest, LookupsOfAFullTableMissWhatNoPortHas)
{
	InstallAll();
	zorv_test::LogCapture quiet; /* the misses log their own errors */
	EXPECT_EQ(find_eth_dev_by_ifname("scale_if1024"), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname("scale_if"), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname(""), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("zorv_scale_1024"), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(kSlots), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(-1), nullptr);
	EXPECT_EQ(zorv1_get_internal_sfi(kSlots), INVALID_SFI);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(kSlots + 1), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(INVALID_SFI), nullptr);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(kSlots + 1, 0), -1);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(kSlots, 0), -1);
	/* Queue 2 of a two-queue port names no ring. */
	EXPECT_EQ(zorv1_get_dev_queue_local_id(kSlots - 1, 4), -1);
}

TEST_F(ScaleTest, NameCheckSeesThePortInTheLastSlot)
{
	InstallAll();
	zorv_test::LogCapture quiet;
	EXPECT_TRUE(zorv1_name_check_fail("zorv_scale_1023", const_cast<char *>("fresh_if")));
	EXPECT_TRUE(zorv1_name_check_fail("fresh", const_cast<char *>("scale_if1023")));
	EXPECT_TRUE(zorv1_name_check_fail("fresh", const_cast<char *>("scale_if0")));
	EXPECT_FALSE(zorv1_name_check_fail("fresh", const_cast<char *>("fresh_if")));
}

std::vector<struct rte_eth_dev *> g_visited;

int RecordVisit(void *para)
{
	g_visited.push_back(static_cast<struct rte_eth_dev *>(para));
	return 0;
}

TEST_F(ScaleTest, AllPortOperationVisitsEachOfTheFullTableOnceInSlotOrder)
{
	InstallAll();
	g_visited.clear();
	zorv1_dev_all_port_op(RecordVisit);
	ASSERT_EQ(g_visited.size(), static_cast<size_t>(kSlots));
	for (int i = 0; i < kSlots; i++)
		EXPECT_EQ(g_visited[i], &At(i).dev) << "visit " << i;

	/* An unbound port is passed over. */
	At(511).internal.sfi = INVALID_SFI;
	g_visited.clear();
	zorv1_dev_all_port_op(RecordVisit);
	EXPECT_EQ(g_visited.size(), static_cast<size_t>(kSlots - 1));
	EXPECT_EQ(std::count(g_visited.begin(), g_visited.end(), &At(511).dev), 0);
}

TEST_F(ScaleTest, UninstallingOneByOneLeavesTheOthersFound)
{
	InstallAll();
	const std::array<int, 6> watch = {0, 1, 511, 512, 1022, 1023};
	for (int i = 0; i < kSlots; i++) {
		Uninstall(i);
		ASSERT_TRUE(Gone(i));
		for (int w : watch) {
			if (w > i) {
				ASSERT_TRUE(Found(w)) << "after uninstalling slot " << i;
			}
		}
	}
	for (int i = 0; i < kSlots; i++)
		EXPECT_EQ(zorv1_dev_get_ethdev_internal(i), nullptr) << "slot " << i;
	g_visited.clear();
	zorv1_dev_all_port_op(RecordVisit);
	EXPECT_TRUE(g_visited.empty());
}

/* The first, a middle and the last slot behave the same. */
class ScaleSlotTest : public ScaleTest, public ::testing::WithParamInterface<int> {};

TEST_P(ScaleSlotTest, PortAloneInTheTableIsFoundAndGoneAfterUninstall)
{
	int slot = GetParam();
	Install(slot);
	EXPECT_TRUE(Found(slot));
	for (int other : {0, 511, 1023}) {
		if (other != slot) {
			EXPECT_TRUE(Gone(other));
		}
	}
	Uninstall(slot);
	EXPECT_TRUE(Gone(slot));
}

TEST_P(ScaleSlotTest, PortLeavesAndRejoinsAFullTable)
{
	int slot = GetParam();
	InstallAll();
	Uninstall(slot);
	EXPECT_TRUE(Gone(slot));
	for (int n : {slot - 1, slot + 1}) {
		if (n >= 0 && n < kSlots) {
			EXPECT_TRUE(Found(n));
		}
	}
	g_visited.clear();
	zorv1_dev_all_port_op(RecordVisit);
	EXPECT_EQ(g_visited.size(), static_cast<size_t>(kSlots - 1));

	Install(slot);
	EXPECT_TRUE(Found(slot));
	g_visited.clear();
	zorv1_dev_all_port_op(RecordVisit);
	EXPECT_EQ(g_visited.size(), static_cast<size_t>(kSlots));
}

INSTANTIATE_TEST_SUITE_P(FirstMiddleLast, ScaleSlotTest, ::testing::Values(0, 511, 1023),
			 [](const ::testing::TestParamInfo<int> &info) {
				 return "slot" + std::to_string(info.param);
			 });

#ifdef ZORV_TEST_REAL_SERVICES

/* The real table: one slot per port id, nothing beyond 1023, no port twice. */
TEST_F(ScaleTest, RealTableRefusesPortIdsBeyondItsSlotsAndATakenSlot)
{
	InstallAll();
	zorv_test::LogCapture quiet;
	TablePort extra(kSlots);
	zorv1_dev_mutex_lock();
	EXPECT_NE(zorv1_dev_install(static_cast<uint16_t>(kSlots), &extra.dev), 0);
	EXPECT_NE(zorv1_dev_install(511, &extra.dev), 0);
	zorv1_dev_mutex_unlock();
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(511), &At(511).dev);
	EXPECT_EQ(find_eth_dev_by_ifname(extra.iface.c_str()), nullptr);
}

#else /* fakes: the failure paths */

/* ======================================================================
 * Failures leave nothing behind
 * ====================================================================== */

using zorv_fake::FakeEnv;
using zorv_fake::MqttMsg;
using zorv_test::LogCapture;

uint64_t HeapAllocated()
{
	uint64_t total = 0;
	for (unsigned int i = 0; i < rte_socket_count(); i++) {
		struct rte_malloc_socket_stats st = {};
		if (rte_malloc_get_socket_stats(rte_socket_id_by_idx(i), &st) == 0)
			total += st.heap_allocsz_bytes;
	}
	return total;
}

/*
 * Takes the whole DPDK heap but one hole of about `spare` bytes: the hole is
 * allocated first, the heap filled with ever smaller blocks until not even
 * the smallest allocation fits, then the hole is given back. Everything is
 * freed again at destruction.
 */
class HeapHog {
public:
	explicit HeapHog(size_t spare)
	{
		void *hole = spare != 0 ? rte_malloc("zorv_test_hole", spare, 0) : nullptr;
		if (spare != 0 && hole == nullptr)
			ADD_FAILURE() << "no room for a hole of " << spare << " bytes";
		for (size_t sz = size_t(1) << 30; sz >= 8; sz /= 2)
			while (void *p = rte_malloc("zorv_test_hog", sz, 0))
				blocks_.push_back(p);
		if (void *p = rte_malloc(nullptr, 1, 0)) {
			blocks_.push_back(p);
			ADD_FAILURE() << "the DPDK heap could not be filled";
		}
		rte_free(hole);
	}
	~HeapHog()
	{
		for (void *p : blocks_)
			rte_free(p);
	}
	HeapHog(const HeapHog &) = delete;
	HeapHog &operator=(const HeapHog &) = delete;

private:
	std::vector<void *> blocks_;
};

class FaultTest : public FakeEnv {
protected:
	static constexpr const char *kName = "net_zorv1_fault";

	void SetUp() override
	{
		FakeEnv::SetUp();
		/* The ethdev layer sets up its shared data with the first port ever. */
		ASSERT_EQ(rte_vdev_init("net_zorv1_fault_warmup", "iface=fault_warmup"), 0);
		ASSERT_EQ(rte_vdev_uninit("net_zorv1_fault_warmup"), 0);
		f.Reset();
		pool_ = zorv_test::SharedMbufPool(); /* created once, never freed */
		baseline_ = HeapAllocated();
	}

	void TearDown() override
	{
		if (rte_eth_dev_allocated(kName) != nullptr)
			rte_vdev_uninit(kName);
		FakeEnv::TearDown();
	}

	/* Nothing of a port is left: heap, rings, table, registrations. */
	void ExpectNothingLeft(const std::string &when)
	{
		EXPECT_EQ(HeapAllocated(), baseline_) << when;
		EXPECT_TRUE(f.rings.live.empty()) << when << ": " << f.rings.live.size()
						  << " ring(s) alive";
		for (int i = 0; i < ZORV1_DEV_MAX; i++)
			ASSERT_EQ(f.dev.slots[i], nullptr) << when << ": table slot " << i;
		EXPECT_EQ(f.transport.registers.size(), f.transport.unregisters.size()) << when;
		EXPECT_EQ(rte_eth_dev_allocated(kName), nullptr) << when;
	}

	/* A created and configured port with `queues` receive and transmit queues. */
	struct rte_eth_dev *ConfiguredPort(uint16_t queues)
	{
		std::string args = "iface=fault0,queues=" + std::to_string(queues);
		if (rte_vdev_init(kName, args.c_str()) != 0) {
			ADD_FAILURE() << "rte_vdev_init(" << args << ") failed";
			return nullptr;
		}
		struct rte_eth_dev *dev = rte_eth_dev_allocated(kName);
		struct rte_eth_conf conf = {};
		if (dev == nullptr ||
		    rte_eth_dev_configure(dev->data->port_id, queues, queues, &conf) != 0) {
			ADD_FAILURE() << "configure failed";
			return nullptr;
		}
		return dev;
	}

	static bool Has(const LogCapture &cap, const char *text)
	{
		return cap.Text().find(text) != std::string::npos;
	}

	struct rte_mempool *pool_ = nullptr;
	uint64_t baseline_ = 0;
};

/*
 * Probe and creation with every amount of free heap from none up to what
 * creation needs: each allocation of creation fails in turn (its ERR line),
 * every failure is reported once with the matching error code, and whether
 * or not the agent takes the report, nothing of the port stays.
 */
TEST_F(FaultTest, CreationFailingAtEveryAllocationLeavesNothing)
{
	struct Step {
		const char *line;
		int err;
		int seen;
	};
	std::array<Step, 5> steps = {{
		{"eth alloc fail!", ZORV1_ERR_MEM_ALLOC, 0},
		{"eth_addr alloc fail!", ZORV1_ERR_MEM_ALLOC, 0},
		{"iface_name alloc fail!", ZORV1_ERR_MEM_ALLOC, 0},
		{"reserve mem for cmd in_mem fail!", ZORV1_ERR_NONE, 0},
		{"reserve mem for cmd out_mem fail!", ZORV1_ERR_NONE, 0},
	}};
	bool created = false;
	int attempts = 0;

	for (size_t spare = 0; spare <= 8192 && !created; spare += 32, attempts++) {
		f.mqtt.msgs.clear();
		f.mqtt.send_result = attempts % 2; /* every other report cannot be sent */
		uint32_t send_fail = g_dpdk_cp_stat.send_msg_fail;
		LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		int ret;
		{
			HeapHog hog(spare);
			ret = rte_vdev_init(kName, "iface=fault0,queues=2");
		}
		std::string when = "with " + std::to_string(spare) + " bytes free";
		if (ret == 0) {
			created = true;
			EXPECT_NE(rte_eth_dev_allocated(kName), nullptr) << when;
			EXPECT_TRUE(f.mqtt.msgs.empty()) << when;
			ASSERT_EQ(rte_vdev_uninit(kName), 0);
			ExpectNothingLeft(when + ", created and removed");
			break;
		}
		int matched = 0;
		for (Step &s : steps) {
			if (!Has(cap, s.line))
				continue;
			matched++;
			s.seen++;
			ASSERT_EQ(f.mqtt.msgs.size(), 1u) << when;
			EXPECT_EQ(f.mqtt.msgs[0], (MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, s.err, std::string(kName),
							   std::string("fault0"), 2}))
				<< when;
		}
		EXPECT_EQ(matched, 1) << when << ": " << cap.Text();
		EXPECT_EQ(g_dpdk_cp_stat.send_msg_fail - send_fail, f.mqtt.send_result ? 1u : 0u)
			<< when;
		ExpectNothingLeft(when);
	}
	EXPECT_TRUE(created) << "creation never succeeded within 8 KiB of free heap";
	for (const Step &s : steps)
		EXPECT_GT(s.seen, 0) << "no attempt failed at \"" << s.line << "\"";
}

/*
 * Receive queue setup with every amount of free heap up to what it needs:
 * the queue record or the queue's ring fails, the failure is reported
 * (MEM_ALLOC or CACHE_RING), the record is freed and no ring stays.
 */
TEST_F(FaultTest, ReceiveQueueSetupFailingLeavesNoRecordAndNoRing)
{
	struct rte_eth_dev *dev = ConfiguredPort(2);
	ASSERT_NE(dev, nullptr);
	uint64_t port_heap = HeapAllocated();
	bool record_failed = false, ring_failed = false, set_up = false;

	for (size_t spare = 0; spare <= 65536 && !set_up; spare += 64) {
		f.mqtt.msgs.clear();
		LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		int ret;
		{
			HeapHog hog(spare);
			ret = eth_rx_queue_setup(dev, 0, 512, rte_socket_id(), nullptr, pool_);
		}
		std::string when = "with " + std::to_string(spare) + " bytes free";
		if (ret == 0) {
			set_up = true;
			EXPECT_NE(dev->data->rx_queues[0], nullptr);
			EXPECT_EQ(f.rings.live.size(), 1u);
			break;
		}
		EXPECT_EQ(dev->data->rx_queues[0], nullptr) << when;
		EXPECT_EQ(HeapAllocated(), port_heap) << when;
		EXPECT_TRUE(f.rings.live.empty()) << when;
		ASSERT_EQ(f.mqtt.msgs.size(), 1u) << when;
		if (ret == -ENOMEM) {
			record_failed = true;
			EXPECT_TRUE(Has(cap, "Failed to allocate memory for rx queue")) << when;
			EXPECT_EQ(f.mqtt.msgs[0].err, ZORV1_ERR_MEM_ALLOC) << when;
		} else {
			ring_failed = true;
			EXPECT_EQ(ret, -1) << when;
			EXPECT_TRUE(Has(cap, "create zorv1 ring failed")) << when;
			EXPECT_EQ(f.mqtt.msgs[0].err, ZORV1_ERR_CACHE_RING) << when;
		}
		EXPECT_EQ(f.mqtt.msgs[0].kind, ZORV1_MSG_QUE_SETUP_ERR) << when;
	}
	EXPECT_TRUE(record_failed) << "the queue record never failed";
	EXPECT_TRUE(ring_failed) << "the ring never failed";
	EXPECT_TRUE(set_up) << "the queue was never set up";

	ASSERT_EQ(rte_vdev_uninit(kName), 0);
	ExpectNothingLeft("after close");
}

TEST_F(FaultTest, TransmitQueueSetupWithoutHeapLeavesNoRecord)
{
	struct rte_eth_dev *dev = ConfiguredPort(2);
	ASSERT_NE(dev, nullptr);
	uint64_t port_heap = HeapAllocated();
	int ret;
	{
		LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		HeapHog hog(0);
		ret = eth_tx_queue_setup(dev, 1, 512, rte_socket_id(), nullptr);
	}
	EXPECT_EQ(ret, -ENOMEM);
	EXPECT_EQ(dev->data->tx_queues[1], nullptr);
	EXPECT_EQ(HeapAllocated(), port_heap);
	EXPECT_THAT(f.mqtt.msgs, ::testing::ElementsAre(MqttMsg{ZORV1_MSG_QUE_SETUP_ERR,
								 ZORV1_ERR_MEM_ALLOC, std::string(kName),
								 std::string("fault0"), 2}));
	ASSERT_EQ(rte_vdev_uninit(kName), 0);
	ExpectNothingLeft("after close");
}

/* The ring manager refusing every ring: each receive queue fails alone. */
TEST_F(FaultTest, RingManagerRefusingRingsLeavesNoQueueRecord)
{
	struct rte_eth_dev *dev = ConfiguredPort(4);
	ASSERT_NE(dev, nullptr);
	uint64_t port_heap = HeapAllocated();
	f.rings.create_result = -1;
	{
		LogCapture quiet;
		for (uint16_t q = 0; q < 4; q++)
			EXPECT_EQ(eth_rx_queue_setup(dev, q, 512, rte_socket_id(), nullptr, pool_), -1);
	}
	EXPECT_EQ(HeapAllocated(), port_heap);
	EXPECT_EQ(f.rings.creates.size(), 4u);
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_EQ(f.mqtt.msgs.size(), 4u);
	for (const MqttMsg &m : f.mqtt.msgs)
		EXPECT_EQ(m.err, ZORV1_ERR_CACHE_RING);
	ASSERT_EQ(rte_vdev_uninit(kName), 0);
	ExpectNothingLeft("after close");
}

/* The third ring fails: the two queues set up before it are released at close with their rings. */
TEST_F(FaultTest, RingFailingMidwayLeavesOnlyWhatCloseReleases)
{
	struct rte_eth_dev *dev = ConfiguredPort(4);
	ASSERT_NE(dev, nullptr);
	int creates = 0;
	f.rings.create = [&creates](uint32_t size) -> int {
		if (++creates == 3)
			return -1;
		char name[RTE_RING_NAMESIZE];
		snprintf(name, sizeof(name), "zorv_fault_ring%d", creates);
		struct rte_ring *r = rte_ring_create(name, size, SOCKET_ID_ANY, 0);
		if (r == nullptr)
			return -1;
		zorv_fake::fakes().rings.live[creates] = r;
		return creates;
	};
	{
		LogCapture quiet;
		for (uint16_t q = 0; q < 4; q++) {
			int ret = eth_rx_queue_setup(dev, q, 512, rte_socket_id(), nullptr, pool_);
			EXPECT_EQ(ret, q == 2 ? -1 : 0) << "queue " << q;
			EXPECT_EQ(dev->data->rx_queues[q] == nullptr, q == 2) << "queue " << q;
			EXPECT_EQ(eth_tx_queue_setup(dev, q, 512, rte_socket_id(), nullptr), 0);
		}
	}
	EXPECT_EQ(f.rings.live.size(), 3u);
	ASSERT_EQ(rte_vdev_uninit(kName), 0);
	EXPECT_THAT(f.rings.destroys, ::testing::UnorderedElementsAre(1, 2, 4));
	ExpectNothingLeft("after close");
}

/* A flow engine failing at creation and at close changes nothing of what is freed. */
TEST_F(FaultTest, FlowEngineFailingKeepsThePortAndFreesItAll)
{
	f.flow.init_result = -1;
	uint32_t start_fail = g_dpdk_cp_stat.flow_start_fail;
	uint32_t close_fail = g_dpdk_cp_stat.flow_close_fail;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	struct rte_eth_dev *dev = ConfiguredPort(2);
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(g_dpdk_cp_stat.flow_start_fail - start_fail, 1u);
	EXPECT_TRUE(Has(cap, "flow resource init failed,port_id="));
	for (uint16_t q = 0; q < 2; q++) {
		ASSERT_EQ(eth_rx_queue_setup(dev, q, 512, rte_socket_id(), nullptr, pool_), 0);
		ASSERT_EQ(eth_tx_queue_setup(dev, q, 512, rte_socket_id(), nullptr), 0);
	}
	ASSERT_EQ(f.rings.live.size(), 2u);
	ASSERT_EQ(f.dev.SlotOf(dev), dev->data->port_id);

	f.flow.free_result = -1;
	ASSERT_EQ(rte_vdev_uninit(kName), 0);
	EXPECT_EQ(g_dpdk_cp_stat.flow_close_fail - close_fail, 1u);
	EXPECT_TRUE(Has(cap, "zorv1 flow resource free failed,port_id="));
	EXPECT_EQ(f.flow.frees.size(), 1u);
	EXPECT_THAT(f.transport.unregisters, ::testing::ElementsAre("fault0"));
	ExpectNothingLeft("after close");
}

#endif /* ZORV_TEST_REAL_SERVICES */

} // namespace
