/* SPDX-License-Identifier: BSD-3-Clause
 * Lookups of ports by interface name, connection id and hardware function,
 * queue ring ids, the binding of a connection's hardware function, the
 * event id table and the control-plane counters.
 *
 * Ports are fake ethdev ports placed directly into the fake device
 * manager's table; queue records are owned by the tests.
 */
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_log.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zorv_fake::FakeEnv;
using zorv_fake::SetDevPort;
using zorv_test::FakePort;
using zorv_test::LogCapture;

namespace {

/* A message of the control-path log type at `level` holds this line. */
::testing::AssertionResult HasCfgLine(const LogCapture &cap, int level, const std::string &func,
				      const std::string &msg)
{
	std::string dump;
	for (auto &e : cap.Entries()) {
		if (e.level == level && e.logtype == zorv1_vdev_logtype_cfg &&
		    zorv_test::MatchesZorvLine(e.text, func, msg))
			return ::testing::AssertionSuccess();
		dump += "<level " + std::to_string(e.level) + " type " + std::to_string(e.logtype) +
			"> " + e.text;
	}
	return ::testing::AssertionFailure()
	       << "no line \"[offload_smartnic] " << func << "-<line>: " << msg << "\" at level "
	       << level << " on pmd.net.zorv1.cfg; captured:\n"
	       << dump;
}

/* Number of lines of the driver family (with the common prefix) captured. */
int FamilyLines(const LogCapture &cap)
{
	int n = 0;
	for (auto &line : cap.Lines())
		n += line.rfind("[offload_smartnic] ", 0) == 0 ? 1 : 0;
	return n;
}

/* A port with an interface name (a heap copy, as creation makes it). */
struct NamedPort {
	FakePort port;
	std::string iface;

	NamedPort(const std::string &ifc, int vid, uint32_t sfi, uint16_t nb_rxq = 0)
	    : port(FakePort::Options{.nb_rx_queues = nb_rxq}), iface(ifc)
	{
		port.internal()->iface_name = iface.data();
		port.internal()->vid = vid;
		port.internal()->sfi = sfi;
	}
	~NamedPort()
	{
		if (port && port.internal() != nullptr)
			port.internal()->iface_name = nullptr;
	}
	struct rte_eth_dev *dev() const { return port.dev(); }
	struct zorv1_internal *internal() const { return port.internal(); }
};

/* Receive queue records owned by a test. */
struct RxQueues {
	std::vector<struct zorv1_vdev_rxq> q;

	explicit RxQueues(size_t n) : q(n)
	{
		for (size_t i = 0; i < n; i++) {
			std::memset(&q[i], 0, sizeof(q[i]));
			q[i].local_id = 100 + static_cast<int>(i);
			q[i].virtqueue_id = static_cast<uint16_t>(2 * i);
			rte_atomic32_set(&q[i].allow_queuing, 1);
		}
	}
	void HangInto(struct rte_eth_dev *dev)
	{
		for (size_t i = 0; i < q.size(); i++)
			dev->data->rx_queues[i] = &q[i];
	}
};

class Lookups : public FakeEnv {
protected:
	void SetUp() override { before_ = g_dpdk_cp_stat; }
	/* No lookup here changes a control-plane counter. */
	void ExpectCountersUnchanged()
	{
		EXPECT_EQ(std::memcmp(&before_, &g_dpdk_cp_stat, sizeof(before_)), 0)
			<< "a control-plane counter changed";
	}
	void ExpectMutexBalanced(unsigned walks)
	{
		EXPECT_EQ(f.dev.lock_count, walks);
		EXPECT_EQ(f.dev.unlock_count, walks);
		EXPECT_FALSE(f.dev.MutexHeld());
	}

	struct dpdk_cp_stat before_;
};

} // namespace

/* ------------------------------------------------ lookup by interface name */

TEST_F(Lookups, IfnameAbsentNameReturnsNoneWithoutTouchingTheMutex)
{
	NamedPort a("ifc0", -1, INVALID_SFI);
	f.dev.Place(0, a.dev());

	EXPECT_EQ(find_eth_dev_by_ifname(nullptr), nullptr);
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_EQ(f.dev.unlock_count, 0u);
	EXPECT_EQ(f.Count("zorv1_dev_mutex_lock"), 0u);
	EXPECT_EQ(f.dev.slot_reads, 0u);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, IfnameFindsThePortWithThatName)
{
	NamedPort a("ifc_a", -1, INVALID_SFI);
	NamedPort b("ifc_b", -1, INVALID_SFI);
	f.dev.Place(3, a.dev());
	f.dev.Place(9, b.dev());

	EXPECT_EQ(find_eth_dev_by_ifname("ifc_b"), b.dev());
	EXPECT_EQ(find_eth_dev_by_ifname("ifc_a"), a.dev());
	ExpectMutexBalanced(2);
	EXPECT_THAT(f.NamesOf({"zorv1_dev_mutex_lock", "zorv1_dev_mutex_unlock"}),
		    ElementsAre("zorv1_dev_mutex_lock", "zorv1_dev_mutex_unlock",
				"zorv1_dev_mutex_lock", "zorv1_dev_mutex_unlock"));
}

TEST_F(Lookups, IfnameComparisonIsExactAndCaseSensitive)
{
	NamedPort a("vhost-ifc1", -1, INVALID_SFI);
	f.dev.Place(0, a.dev());

	EXPECT_EQ(find_eth_dev_by_ifname("VHOST-IFC1"), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname("vhost-ifc"), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname("vhost-ifc12"), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname(""), nullptr);
	EXPECT_EQ(find_eth_dev_by_ifname("vhost-ifc1"), a.dev());
	ExpectMutexBalanced(5);
}

TEST_F(Lookups, IfnameLowestSlotWins)
{
	NamedPort high("same", -1, INVALID_SFI);
	NamedPort low("same", -1, INVALID_SFI);
	f.dev.Place(700, high.dev());
	f.dev.Place(4, low.dev());

	EXPECT_EQ(find_eth_dev_by_ifname("same"), low.dev());
}

TEST_F(Lookups, IfnameWalkHoldsTheMutexForEverySlotRead)
{
	NamedPort a("ifc_last", -1, INVALID_SFI);
	f.dev.Place(1023, a.dev());

	EXPECT_EQ(find_eth_dev_by_ifname("ifc_last"), a.dev());
	EXPECT_EQ(f.dev.slot_reads, 1024u) << "slots 0..1023 are scanned";
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u);
	ExpectMutexBalanced(1);
}

TEST_F(Lookups, IfnameUnknownNameReturnsNoneAndLogsNothing)
{
	NamedPort a("ifc0", -1, INVALID_SFI);
	f.dev.Place(0, a.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(find_eth_dev_by_ifname("nope"), nullptr);
	EXPECT_EQ(FamilyLines(cap), 0) << cap.Text();
	ExpectMutexBalanced(1);
	ExpectCountersUnchanged();
}

/* ------------------------------------------------- lookup by connection id */

TEST_F(Lookups, VidMinusOneReturnsTheLowestSlotNeverConnectedPort)
{
	NamedPort in5("ifc5", -1, INVALID_SFI);
	NamedPort in2("ifc2", -1, INVALID_SFI);
	f.dev.Place(5, in5.dev());
	f.dev.Place(2, in2.dev());

	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(-1), in2.dev());
	ExpectMutexBalanced(1);
}

TEST_F(Lookups, VidFindsTheConnectedPortAndReleasesTheMutex)
{
	NamedPort a("ifc_a", 3, 10);
	NamedPort b("ifc_b", 8, 11);
	f.dev.Place(0, a.dev());
	f.dev.Place(1, b.dev());

	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(8), b.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(3), a.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(4), nullptr);
	ExpectMutexBalanced(3);
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, VidComparisonIsPlainEqualityEvenForOldConnections)
{
	/* A port keeps its last vid after its connection went away (sfi unbound). */
	NamedPort a("ifc_a", 42, INVALID_SFI);
	f.dev.Place(17, a.dev());

	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(42), a.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(-1), nullptr);
}

TEST_F(Lookups, VidEmptyTableReturnsNone)
{
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(0), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_vid(-1), nullptr);
	EXPECT_EQ(f.dev.slot_reads, 2048u);
	ExpectMutexBalanced(2);
}

/* ------------------------------------------------------ queue ring id by vid */

TEST_F(Lookups, QueueLocalIdUsesReceiveQueueQidHalf)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());

	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 5), 102);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 4), 102);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 0), 100);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 1), 100);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 7), 103);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, QueueLocalIdIgnoresTheGate)
{
	NamedPort p("ifc", 7, 12, 2);
	RxQueues rxq(2);
	rxq.HangInto(p.dev());
	rte_atomic32_set(&rxq.q[1].allow_queuing, 0);
	f.dev.Place(0, p.dev());

	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 3), 101);
}

TEST_F(Lookups, QueueLocalIdReturnsTheRingManagersFailureValueAsIs)
{
	NamedPort p("ifc", 7, 12, 1);
	RxQueues rxq(1);
	rxq.q[0].local_id = -1;
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());

	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 0), -1);
	EXPECT_EQ(FamilyLines(cap), 0) << cap.Text();
}

TEST_F(Lookups, QueueLocalIdUnknownVidLogsAndFails)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_dev_queue_local_id(9, 5), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "get local_id failed, vid 9 qid 5\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	ExpectMutexBalanced(1);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, QueueLocalIdEmptyQueueSlotLogsVqIsNull)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	p.dev()->data->rx_queues[2] = nullptr;
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 5), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "vq is null, vid 7 qid 5\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	ExpectCountersUnchanged();
}

TEST_F(Lookups, QueueLocalIdOutsideThePortsQueuesLogsVqIsNull)
{
	NamedPort p("ifc", 7, 12, 2);
	RxQueues rxq(2);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	/* qid 4 names receive queue 2; the port has queues 0 and 1 only. */
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 4), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "vq is null, vid 7 qid 4\n"));
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 2047), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "vq is null, vid 7 qid 2047\n"));
}

TEST_F(Lookups, QueueLocalIdPortWithoutQueuesLogsVqIsNull)
{
	NamedPort p("ifc", 7, 12, 0);
	ASSERT_EQ(p.dev()->data->rx_queues, nullptr);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, 0), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "vq is null, vid 7 qid 0\n"));
}

TEST_F(Lookups, QueueLocalIdNegativeQidDividesTowardZero)
{
	NamedPort p("ifc", 7, 12, 2);
	RxQueues rxq(2);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	/* -1 / 2 truncates to 0: receive queue 0. */
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, -1), 100);
	/* -3 / 2 is -1: no queue. */
	EXPECT_EQ(zorv1_get_dev_queue_local_id(7, -3), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id",
			       "vq is null, vid 7 qid -3\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
}

/* ----------------------------------------------- cache ring id by function */

TEST_F(Lookups, CacheRingRssTenOverFourQueuesUsesQueueTwo)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 10), 102);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 0), 100);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 7), 103);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 0x7FFFFFFF), 103);
	EXPECT_THAT(f.dev.by_sfi_calls, ElementsAre(12u, 12u, 12u, 12u));
	EXPECT_EQ(FamilyLines(cap), 0) << cap.Text();
	ExpectCountersUnchanged();
}

TEST_F(Lookups, CacheRingTakesNoLockOfItsOwn)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());

	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 10), 102);
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_EQ(f.dev.slot_reads, 0u);
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_dev_get_ethdev_by_sfi"));
}

TEST_F(Lookups, CacheRingClosedGateReturnsMinusOneSilently)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	rte_atomic32_set(&rxq.q[2].allow_queuing, 0);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 10), -1);
	EXPECT_EQ(cap.Text(), "");
	/* Other queues are unaffected by queue 2's gate. */
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 9), 101);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, CacheRingEmptyQueueSlotReturnsMinusOneSilently)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	p.dev()->data->rx_queues[2] = nullptr;
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 6), -1);
	EXPECT_EQ(cap.Text(), "");
}

TEST_F(Lookups, CacheRingUnknownFunctionLogsWarning)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_cache_ring_local_id(13, 10), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_WARNING, "zorv1_get_cache_ring_local_id",
			       "get local_id failed, sfi 13 rss 10\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	EXPECT_THAT(f.dev.by_sfi_calls, ElementsAre(13u));
	ExpectCountersUnchanged();
}

TEST_F(Lookups, CacheRingPortWithoutReceiveQueuesLogsWarning)
{
	NamedPort p("ifc", 7, 12, 0);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, 3), -1);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_WARNING, "zorv1_get_cache_ring_local_id",
			       "get local_id failed, sfi 12 rss 3\n"));
}

TEST_F(Lookups, CacheRingNegativeRssReturnsMinusOne)
{
	NamedPort p("ifc", 7, 12, 4);
	RxQueues rxq(4);
	rxq.HangInto(p.dev());
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	/* -1 % 4 is -1 and -6 % 4 is -2: no queue. -8 % 4 is 0: queue 0. */
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, -1), -1);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, -6), -1);
	EXPECT_EQ(zorv1_get_cache_ring_local_id(12, -8), 100);
	EXPECT_EQ(FamilyLines(cap), 0) << cap.Text();
}

/* ------------------------------------------------------- function index get */

TEST_F(Lookups, InternalSfiUnknownVidReturnsAllOnesWithError)
{
	NamedPort p("ifc", 7, 12);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_internal_sfi(5), 0xFFFFFFFFu);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_get_internal_sfi",
			       "device:vid=5 get list null\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	ExpectMutexBalanced(1);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, InternalSfiReturnsTheBoundFunction)
{
	NamedPort a("ifc_a", 7, 12);
	NamedPort b("ifc_b", 8, INVALID_SFI);
	f.dev.Place(0, a.dev());
	f.dev.Place(1, b.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(zorv1_get_internal_sfi(7), 12u);
	EXPECT_EQ(zorv1_get_internal_sfi(8), 0xFFFFFFFFu);
	EXPECT_EQ(FamilyLines(cap), 0) << cap.Text();
	ExpectMutexBalanced(2);
}

/* ------------------------------------------------------- function index set */

TEST_F(Lookups, SetSfiAllOnesStoresWithoutTellingTheFlowEngine)
{
	NamedPort p("ifc", 7, 12);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_set_internal_sfi(7, INVALID_SFI);
	EXPECT_EQ(p.internal()->sfi, 0xFFFFFFFFu);
	EXPECT_THAT(f.transport.set_dev_port_calls, IsEmpty());
	EXPECT_EQ(f.Count("zorv_set_dev_port"), 0u);
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_INFO, "zorv1_set_internal_sfi",
			       "set_internal_sfi,vid=7,sfi=-1\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	ExpectCountersUnchanged();
}

TEST_F(Lookups, SetSfiTwelveStoresAndTellsTheFlowEngineOnce)
{
	NamedPort p("ifc", 7, INVALID_SFI);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_set_internal_sfi(7, 12);
	EXPECT_EQ(p.internal()->sfi, 12u);
	EXPECT_THAT(f.transport.set_dev_port_calls, ElementsAre(SetDevPort{p.dev(), 12}));
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_INFO, "zorv1_set_internal_sfi",
			       "set_internal_sfi,vid=7,sfi=12\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	/* The flow engine is told outside the device-manager mutex. */
	ASSERT_EQ(f.CallsOf("zorv_set_dev_port").size(), 1u);
	EXPECT_FALSE(f.CallsOf("zorv_set_dev_port")[0].mutex_held);
	ExpectMutexBalanced(1);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, SetSfiRefusedByTheFlowEngineIsLoggedAndKept)
{
	NamedPort p("ifc", 7, INVALID_SFI);
	f.dev.Place(0, p.dev());
	f.transport.set_dev_port_result = -5;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_set_internal_sfi(7, 12);
	EXPECT_EQ(p.internal()->sfi, 12u);
	EXPECT_THAT(f.transport.set_dev_port_calls, ElementsAre(SetDevPort{p.dev(), 12}));
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_INFO, "zorv1_set_internal_sfi",
			       "set_internal_sfi,vid=7,sfi=12\n"));
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_set_internal_sfi",
			       "device:vid=7 set port fail ret=-5\n"));
	EXPECT_EQ(FamilyLines(cap), 2) << cap.Text();
	/* The binding is still read back. */
	EXPECT_EQ(zorv1_get_internal_sfi(7), 12u);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, SetSfiLogsBeforeTellingTheFlowEngine)
{
	NamedPort p("ifc", 7, INVALID_SFI);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	bool logged_first = false;
	uint32_t stored = 0;
	f.transport.set_dev_port = [&](struct rte_eth_dev *dev, uint32_t) {
		logged_first = zorv_test::CountLines(cap, "zorv1_set_internal_sfi",
						     "set_internal_sfi,vid=7,sfi=99\n") == 1;
		stored = static_cast<struct zorv1_internal *>(dev->data->dev_private)->sfi;
		return 0;
	};

	zorv1_set_internal_sfi(7, 99);
	EXPECT_TRUE(logged_first);
	EXPECT_EQ(stored, 99u) << "the function is stored before the flow engine is told";
}

TEST_F(Lookups, SetSfiUnknownVidChangesNothing)
{
	NamedPort p("ifc", 7, 12);
	f.dev.Place(0, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_set_internal_sfi(6, 30);
	EXPECT_EQ(p.internal()->sfi, 12u);
	EXPECT_EQ(p.internal()->vid, 7);
	EXPECT_THAT(f.transport.set_dev_port_calls, IsEmpty());
	EXPECT_TRUE(HasCfgLine(cap, RTE_LOG_ERR, "zorv1_set_internal_sfi",
			       "device:vid=6 set list null\n"));
	EXPECT_EQ(FamilyLines(cap), 1) << cap.Text();
	ExpectMutexBalanced(1);
	ExpectCountersUnchanged();
}

TEST_F(Lookups, SetSfiOnlyTouchesThePortOfThatVid)
{
	NamedPort a("ifc_a", 7, INVALID_SFI);
	NamedPort b("ifc_b", 8, INVALID_SFI);
	f.dev.Place(0, a.dev());
	f.dev.Place(1, b.dev());

	zorv1_set_internal_sfi(8, 21);
	EXPECT_EQ(a.internal()->sfi, INVALID_SFI);
	EXPECT_EQ(b.internal()->sfi, 21u);
	EXPECT_THAT(f.transport.set_dev_port_calls, ElementsAre(SetDevPort{b.dev(), 21}));
}

/* ---------------------------------------------------------------- event ids */

TEST_F(Lookups, EventIdRoundTripAtBothEndsOfTheTable)
{
	const uint64_t saved0 = zorv1_get_eventid(0);
	const uint64_t saved1023 = zorv1_get_eventid(1023);

	zorv1_set_eventid(0, 0x1122334455667788ull);
	zorv1_set_eventid(1023, UINT64_MAX);
	EXPECT_EQ(zorv1_get_eventid(0), 0x1122334455667788ull);
	EXPECT_EQ(zorv1_get_eventid(1023), UINT64_MAX);
	/* The table is the exported array, indexed directly by vid. */
	EXPECT_EQ(g_zorv1_event_id[0], 0x1122334455667788ull);
	EXPECT_EQ(g_zorv1_event_id[1023], UINT64_MAX);

	zorv1_set_eventid(0, 5);
	EXPECT_EQ(zorv1_get_eventid(0), 5u);
	EXPECT_EQ(zorv1_get_eventid(1023), UINT64_MAX) << "entries are independent";

	/* No lock and no service call. */
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_THAT(f.calls, IsEmpty());

	zorv1_set_eventid(0, saved0);
	zorv1_set_eventid(1023, saved1023);
}

TEST_F(Lookups, EventIdSetChangesOnlyItsOwnEntry)
{
	std::vector<uint64_t> saved(g_zorv1_event_id, g_zorv1_event_id + ZORV1_MAX_VID);

	zorv1_set_eventid(511, 0xABCDEFull);
	for (int vid = 0; vid < ZORV1_MAX_VID; vid++) {
		if (vid == 511)
			EXPECT_EQ(zorv1_get_eventid(vid), 0xABCDEFull);
		else
			EXPECT_EQ(zorv1_get_eventid(vid), saved[vid]) << "vid " << vid;
	}
	zorv1_set_eventid(511, saved[511]);
}

/* ----------------------------------------------------------------- counters */

TEST_F(Lookups, CountersAreTheExportedRecord)
{
	EXPECT_EQ(zorv1_get_dpdk_cp_stat(), &g_dpdk_cp_stat);
	EXPECT_EQ(zorv1_get_dpdk_cp_stat(), zorv1_get_dpdk_cp_stat());
	EXPECT_THAT(f.calls, IsEmpty());
}
