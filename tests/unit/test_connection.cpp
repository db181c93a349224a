/* SPDX-License-Identifier: BSD-3-Clause
 * The connection entry points the transport and the sibling modules call:
 * new connection, queue setup and destroy, connection teardown, the port
 * re-binding callback and the all-ports operation. Ports are real ethdev
 * ports (FakePort) placed in the fake device manager's table.
 */
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_ethdev.h>

#include <ethdev_driver.h>

#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_ethdev.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zorv_fake::FakeEnv;
using zorv_fake::GetIfname;
using zorv_fake::MqttMsg;
using zorv_fake::PciHash;
using zorv_fake::SetDevPort;
using zorv_test::CountLines;
using zorv_test::FakePort;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

namespace {

/* ---------------------------------------------------------------- helpers */

using Changes = zorv_test::CpChanges;

using zorv_test::CounterDelta;
using zorv_test::Idx;

using LscWatcher = zorv_test::LscWatch;

/* A port as the device manager holds it after configure and queue setup. */
struct Port {
	FakePort port;
	std::string iface;
	std::vector<zorv1_vdev_rxq> rxq;
	std::vector<zorv1_vdev_txq> txq;

	Port(const char *ifname, uint16_t nb_rx, uint16_t nb_tx)
		: port(FakePort::Options{.nb_rx_queues = nb_rx, .nb_tx_queues = nb_tx}), iface(ifname),
		  rxq(nb_rx), txq(nb_tx)
	{
		struct zorv1_internal *in = port.internal();
		in->iface_name = iface.data();
		in->vid = -1;
		in->sfi = INVALID_SFI;
		in->max_queues = nb_rx > nb_tx ? nb_rx : nb_tx;
		for (uint16_t i = 0; i < nb_rx; i++) {
			rxq[i] = {};
			rxq[i].internal = in;
			rxq[i].port = port.port_id();
			rxq[i].virtqueue_id = static_cast<uint16_t>(2 * i);
			rxq[i].local_id = 100 + i;
			port.data()->rx_queues[i] = &rxq[i];
		}
		for (uint16_t i = 0; i < nb_tx; i++) {
			txq[i] = {};
			txq[i].internal = in;
			txq[i].port = port.port_id();
			txq[i].virtqueue_id = static_cast<uint16_t>(2 * i + 1);
			txq[i].pci_qid = 0xdead;
			port.data()->tx_queues[i] = &txq[i];
		}
	}
	~Port()
	{
		/* The records are the test's; never let the release see them. */
		if (port) {
			for (uint16_t i = 0; i < rxq.size(); i++)
				port.data()->rx_queues[i] = nullptr;
			for (uint16_t i = 0; i < txq.size(); i++)
				port.data()->tx_queues[i] = nullptr;
		}
	}

	struct rte_eth_dev *dev() const { return port.dev(); }
	struct zorv1_internal *in() const { return port.internal(); }

	void SetGates(int32_t allow)
	{
		for (auto &q : rxq)
			rte_atomic32_set(&q.allow_queuing, allow);
		for (auto &q : txq)
			rte_atomic32_set(&q.allow_queuing, allow);
	}
	bool AllGates(int32_t allow) const
	{
		for (auto &q : rxq) {
			if (rte_atomic32_read(&q.allow_queuing) != allow)
				return false;
		}
		for (auto &q : txq) {
			if (rte_atomic32_read(&q.allow_queuing) != allow)
				return false;
		}
		return true;
	}
};

class ConnectionTest : public FakeEnv {
protected:
	void TearDown() override
	{
		f.dev.ClearSlots();
		FakeEnv::TearDown();
	}
};

} // namespace

/* ---------------------------------------------------------------- teardown */

TEST_F(ConnectionTest, TeardownOfANegativeVidIsRefusedAfterOneSfiRead)
{
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(-1), -1);

	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev",
				 "zorv1 desconnect err,vid:-1.\n"));
	/* One read of the bound function: one walk, one "no port" line. */
	EXPECT_EQ(f.dev.lock_count, 1u);
	EXPECT_EQ(CountLines(cap, "zorv1_get_internal_sfi", "device:vid=-1 get list null\n"), 1);
	EXPECT_THAT(f.dev.sfi_unmaps, IsEmpty());
	EXPECT_THAT(f.transport.get_ifname_calls, IsEmpty());
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ConnectionTest, TeardownOfANeverConnectedPortsVidIsRefusedToo)
{
	/* vid -1 finds a never connected port; its sfi does not matter. */
	Port p("vhost0", 1, 1);
	p.in()->sfi = 12;
	f.dev.Place(0, p.dev());
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(-1), -1);

	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
	EXPECT_EQ(p.in()->sfi, 12u);
	EXPECT_THAT(f.dev.sfi_unmaps, IsEmpty());
}

TEST_F(ConnectionTest, TeardownRefusesSfiZero)
{
	Port p("vhost0", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 0;
	f.dev.Place(2, p.dev());
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), -1);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev", "zorv1 INVALID_SFI,vid:7.\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
	EXPECT_EQ(p.in()->sfi, 0u);
	EXPECT_EQ(p.in()->vid, 7);
	EXPECT_THAT(f.dev.sfi_unmaps, IsEmpty());
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ConnectionTest, TeardownAcceptsSfi8191)
{
	Port p("vhost0", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 8191;
	f.dev.Place(2, p.dev());
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), 0);

	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn), 1}}));
	EXPECT_EQ(p.in()->sfi, INVALID_SFI);
	EXPECT_THAT(f.dev.sfi_unmaps, ElementsAre(8191u));
}

TEST_F(ConnectionTest, TeardownRefusesSfi8192)
{
	Port p("vhost0", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 8192;
	f.dev.Place(2, p.dev());
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), -1);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev", "zorv1 INVALID_SFI,vid:7.\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
	EXPECT_EQ(p.in()->sfi, 8192u);
	EXPECT_THAT(f.dev.sfi_unmaps, IsEmpty());
}

TEST_F(ConnectionTest, TeardownRefusesAnUnboundPort)
{
	Port p("vhost0", 1, 1);
	p.in()->vid = 7;
	f.dev.Place(2, p.dev());
	CounterDelta delta;
	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), -1);
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
}

TEST_F(ConnectionTest, TeardownOfAVidWithoutPortEndsAtTheSfiCheck)
{
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(9), -1);

	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev", "zorv1 INVALID_SFI,vid:9.\n"));
	/* Every read of the bound function logs that the vid has no port. */
	EXPECT_GE(CountLines(cap, "zorv1_get_internal_sfi", "device:vid=9 get list null\n"), 2);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
	EXPECT_THAT(f.transport.get_ifname_calls, IsEmpty());
	EXPECT_EQ(CountLines(cap, "zorv1_dpu_vdev_destroy_dev", "Invalid device name: \n"), 0);
}

namespace {

/*
 * Teardown reads the bound function three times (once up front, twice in
 * its check) before it looks the port up; the port is in slot 0 for those
 * walks and gone from the fourth walk on.
 */
void VanishAfterThreeWalks(zorv_fake::Fakes &f, struct rte_eth_dev *dev, std::atomic<int> *walks)
{
	f.dev.get_ethdev_internal = [dev, walks](int slot) -> struct rte_eth_dev * {
		if (slot == 0)
			(*walks)++;
		return (slot == 0 && walks->load() <= 3) ? dev : nullptr;
	};
}

} // namespace

TEST_F(ConnectionTest, PortVanishingBeforeTheLookupIsReportedWithoutErrorCount)
{
	Port p("vhost7", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	f.transport.ifnames[7] = "vhost7";
	std::atomic<int> walks{0};
	VanishAfterThreeWalks(f, p.dev(), &walks);
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), -1);

	EXPECT_EQ(walks.load(), 4);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev", "Invalid device name: vhost7\n"));
	EXPECT_THAT(f.transport.get_ifname_calls, ElementsAre(GetIfname{7, 4096}));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL,
						     std::nullopt, "vhost7", 0}));
	EXPECT_THAT(delta.Get(), IsEmpty());
	EXPECT_EQ(CountLines(cap, "zorv1_dpu_vdev_destroy_dev", "zorv1 INVALID_SFI,vid:7.\n"), 0);
	EXPECT_EQ(p.in()->sfi, 12u);
	EXPECT_THAT(f.dev.sfi_unmaps, IsEmpty());
}

TEST_F(ConnectionTest, UnsentReportOfAVanishedPortIsCounted)
{
	Port p("vhost7", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	f.transport.ifnames[7] = "vhost7";
	f.mqtt.send_result = 1;
	std::atomic<int> walks{0};
	VanishAfterThreeWalks(f, p.dev(), &walks);
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), -1);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_destroy_dev", "Send msg failed, -vhost7-5-10\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
}

TEST_F(ConnectionTest, SuccessfulTeardownUnbindsUnmapsAndClosesTheGate)
{
	Port p("vhost7", 2, 2);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	p.in()->started = 1;
	p.SetGates(1);
	p.port.data()->dev_link.link_status = RTE_ETH_LINK_UP;
	f.dev.Place(4, p.dev());
	LscWatcher lsc(p.port.port_id());
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_destroy_dev(7), 0);

	EXPECT_EQ(p.in()->sfi, INVALID_SFI);
	EXPECT_EQ(p.in()->vid, 7); /* kept on purpose */
	EXPECT_THAT(f.dev.sfi_unmaps, ElementsAre(12u));
	/* Unbinding does not go to the flow engine. */
	EXPECT_THAT(f.transport.set_dev_port_calls, IsEmpty());
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, "zorv1_set_internal_sfi", "set_internal_sfi,vid=7,sfi=-1\n"));
	EXPECT_TRUE(p.AllGates(0));
	EXPECT_EQ(p.port.data()->dev_link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 1);
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn), 1}}));
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
	/* Unbind, then unmap, then the gate (which looks the port up again). */
	EXPECT_THAT(f.NamesOf({"zorv1_dev_sfi_unmap_port", "zorv_get_ifname"}),
		    ElementsAre("zorv1_dev_sfi_unmap_port"));
}

TEST_F(ConnectionTest, TeardownWaitsForBurstsStillInsideAQueue)
{
	Port p("vhost7", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	p.in()->started = 1;
	p.SetGates(1);
	rte_atomic32_set(&p.txq[0].while_queuing, 1); /* a burst is inside */
	f.dev.Place(4, p.dev());

	std::atomic<bool> done{false};
	std::atomic<int> ret{99};
	std::thread t([&] {
		ret = zorv1_dpu_vdev_destroy_dev(7);
		done = true;
	});
	/* The gate closes first, then teardown waits for the burst to leave. */
	auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
	while (rte_atomic32_read(&p.txq[0].allow_queuing) != 0 && std::chrono::steady_clock::now() < deadline)
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	EXPECT_EQ(rte_atomic32_read(&p.txq[0].allow_queuing), 0);
	std::this_thread::sleep_for(std::chrono::milliseconds(100));
	EXPECT_FALSE(done.load());
	rte_atomic32_set(&p.txq[0].while_queuing, 0); /* the burst leaves */
	t.join();
	EXPECT_TRUE(done.load());
	EXPECT_EQ(ret.load(), 0);
}

TEST_F(ConnectionTest, DestroyConnTearsDownLikeDestroyDev)
{
	Port p("vhost7", 1, 1);
	p.in()->vid = 7;
	p.in()->sfi = 40;
	p.in()->started = 1;
	p.SetGates(1);
	f.dev.Place(4, p.dev());
	CounterDelta delta;

	zorv1_dpu_vdev_destroy_conn(7);

	EXPECT_EQ(p.in()->sfi, INVALID_SFI);
	EXPECT_THAT(f.dev.sfi_unmaps, ElementsAre(40u));
	EXPECT_TRUE(p.AllGates(0));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn), 1}}));
}

TEST_F(ConnectionTest, DestroyConnOfARefusedVidOnlyCountsTheError)
{
	CounterDelta delta;
	zorv1_dpu_vdev_destroy_conn(-3);
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::del_conn_err), 1}}));
}

/* ---------------------------------------------------------------- new connection */

TEST_F(ConnectionTest, NewConnectionForAnUnknownInterfaceIsReportedUncounted)
{
	Port p("vhost_other", 1, 1);
	f.dev.Place(0, p.dev());
	f.transport.ifnames[5] = "vhost_nobody";
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_new_conn(5), -1);

	EXPECT_THAT(f.transport.get_ifname_calls, ElementsAre(GetIfname{5, 4096}));
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_new_conn", "Invalid device name: vhost_nobody\n"));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL,
						     std::nullopt, "vhost_nobody", 0}));
	/* Neither new_conn nor new_conn_err. */
	EXPECT_THAT(delta.Get(), IsEmpty());
	EXPECT_EQ(p.in()->vid, -1);
}

TEST_F(ConnectionTest, UnsentReportOfAnUnknownInterfaceIsCounted)
{
	f.transport.ifnames[5] = "vhost_nobody";
	f.mqtt.send_result = 1;
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_new_conn(5), -1);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_new_conn",
				 "Send msg failed, -vhost_nobody-5-10\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
}

TEST_F(ConnectionTest, NewConnectionRecordsVidAndMapsEachPresentTransmitQueue)
{
	Port p("vhost3", 2, 3);
	p.port.data()->tx_queues[1] = nullptr; /* the second was never set up */
	f.dev.Place(6, p.dev());
	f.transport.ifnames[11] = "vhost3";
	f.dev.pci_hash = [](int vid, int q) { return static_cast<uint32_t>(1000 + vid * 10 + q); };
	p.SetGates(0);
	LscWatcher lsc(p.port.port_id());
	LogCapture cap;
	CounterDelta delta;

	EXPECT_EQ(zorv1_dpu_vdev_new_conn(11), 0);

	EXPECT_EQ(p.in()->vid, 11);
	EXPECT_EQ(p.txq[0].pci_qid, 1110u);
	EXPECT_EQ(p.txq[1].pci_qid, 0xdeadu); /* not reachable from the port */
	EXPECT_EQ(p.txq[2].pci_qid, 1112u);
	/* The variant for callers that do not hold the manager's mutex. */
	EXPECT_THAT(f.dev.pci_hash_locked_calls, ElementsAre(PciHash{11, 0, false}, PciHash{11, 2, false}));
	EXPECT_THAT(f.dev.pci_hash_calls, IsEmpty());
	EXPECT_EQ(CountLines(cap, "zorv1_dpu_vdev_new_conn", "txq null,vid=11,qid=1.\n"), 1);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dpu_vdev_new_conn", "txq null,vid=11,qid=1.\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::new_conn), 1}}));
	/* No gate change, no event, receive queues untouched. */
	EXPECT_TRUE(p.AllGates(0));
	EXPECT_EQ(lsc.count(), 0);
	EXPECT_EQ(p.rxq[0].local_id, 100);
	EXPECT_EQ(p.rxq[1].local_id, 101);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(ConnectionTest, NewConnectionPicksThePortOfTheInterface)
{
	Port a("vhost_a", 1, 1), b("vhost_b", 1, 1);
	f.dev.Place(1, a.dev());
	f.dev.Place(2, b.dev());
	f.transport.ifnames[21] = "vhost_b";
	EXPECT_EQ(zorv1_dpu_vdev_new_conn(21), 0);
	EXPECT_EQ(a.in()->vid, -1);
	EXPECT_EQ(b.in()->vid, 21);
	/* A later connection overwrites the vid. */
	f.transport.ifnames[22] = "vhost_b";
	EXPECT_EQ(zorv1_dpu_vdev_new_conn(22), 0);
	EXPECT_EQ(b.in()->vid, 22);
}

/* ---------------------------------------------------------------- queue events */

TEST_F(ConnectionTest, QueueSetupOpensTheGatesOfAStartedBoundPort)
{
	Port p("vhost7", 2, 2);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	p.in()->started = 1;
	f.dev.Place(4, p.dev());
	LscWatcher lsc(p.port.port_id());

	EXPECT_EQ(zorv1_dpu_dev_queue_setup(7), 0);

	EXPECT_TRUE(p.AllGates(1));
	EXPECT_EQ(p.port.data()->dev_link.link_status, RTE_ETH_LINK_UP);
	EXPECT_EQ(lsc.count(), 1);
}

TEST_F(ConnectionTest, QueueSetupKeepsTheGatesOfAnUnboundPortClosed)
{
	Port p("vhost7", 1, 1);
	p.in()->vid = 7;
	p.in()->started = 1;
	f.dev.Place(4, p.dev());

	EXPECT_EQ(zorv1_dpu_dev_queue_setup(7), 0);

	EXPECT_TRUE(p.AllGates(0));
	EXPECT_EQ(p.port.data()->dev_link.link_status, RTE_ETH_LINK_DOWN);
}

TEST_F(ConnectionTest, QueueDestroyClosesTheGates)
{
	Port p("vhost7", 2, 1);
	p.in()->vid = 7;
	p.in()->sfi = 12;
	p.in()->started = 0;
	p.SetGates(1);
	p.port.data()->dev_link.link_status = RTE_ETH_LINK_UP;
	f.dev.Place(4, p.dev());
	LscWatcher lsc(p.port.port_id());

	EXPECT_EQ(zorv1_dpu_dev_queue_destroy(7), 0);

	EXPECT_TRUE(p.AllGates(0));
	EXPECT_EQ(p.port.data()->dev_link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 1);
}

/*
 * Queue events are only reported for connected vids: for a vid without a
 * port the gate is handed no port at all, and the process does not survive.
 */
TEST_F(ConnectionTest, QueueEventForAVidWithoutPortIsNotGuarded)
{
	GTEST_FLAG_SET(death_test_style, "fast");
	EXPECT_DEATH(zorv1_dpu_dev_queue_setup(999), "");
}

/* ---------------------------------------------------------------- all ports */

namespace {

struct Visit {
	struct rte_eth_dev *dev;
	bool mutex_held;
	bool operator==(const Visit &) const = default;
};
std::ostream &operator<<(std::ostream &os, const Visit &v)
{
	return os << "visit{" << v.dev << ", locked " << v.mutex_held << "}";
}

std::vector<Visit> g_visits;

int RecordVisit(void *para)
{
	g_visits.push_back({static_cast<struct rte_eth_dev *>(para),
			    zorv_fake::fakes().MutexHeldByCaller()});
	return -4; /* ignored by the caller */
}

} // namespace

TEST_F(ConnectionTest, AllPortOpVisitsOnlyBoundPortsUnderTheMutex)
{
	Port a("vhost_a", 1, 1), b("vhost_b", 1, 1), c("vhost_c", 1, 1);
	a.in()->sfi = 5;
	c.in()->sfi = 7;
	f.dev.Place(1, a.dev());
	f.dev.Place(4, b.dev()); /* unbound: INVALID_SFI */
	f.dev.Place(9, c.dev());
	g_visits.clear();

	zorv1_dev_all_port_op(RecordVisit);

	EXPECT_THAT(g_visits, ElementsAre(Visit{a.dev(), true}, Visit{c.dev(), true}));
	EXPECT_EQ(f.dev.lock_count, 1u);
	EXPECT_EQ(f.dev.unlock_count, 1u);
	EXPECT_EQ(f.dev.slot_reads, static_cast<uint64_t>(ZORV1_DEV_MAX));
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u);
	EXPECT_FALSE(f.dev.MutexHeld());
}

TEST_F(ConnectionTest, AllPortOpWithTheRebindingCallbackReappliesEverySfi)
{
	Port a("vhost_a", 1, 1), b("vhost_b", 1, 1), c("vhost_c", 1, 1);
	a.in()->sfi = 5;
	c.in()->sfi = 0; /* bound to function 0: still visited */
	f.dev.Place(1, a.dev());
	f.dev.Place(4, b.dev());
	f.dev.Place(9, c.dev());

	zorv1_dev_all_port_op(zorv1_set_dev_port_callback);

	EXPECT_THAT(f.transport.set_dev_port_calls, ElementsAre(SetDevPort{a.dev(), 5}, SetDevPort{c.dev(), 0}));
	for (auto &call : f.CallsOf("zorv_set_dev_port"))
		EXPECT_TRUE(call.mutex_held);
}

TEST_F(ConnectionTest, AllPortOpWithoutCallbackOnlyLogs)
{
	LogCapture cap;
	zorv1_dev_all_port_op(nullptr);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_dev_all_port_op", "para null!\n"));
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_EQ(f.dev.slot_reads, 0u);
}

TEST_F(ConnectionTest, RebindingCallbackReturnsTheFlowEnginesAnswer)
{
	Port p("vhost_a", 1, 1);
	p.in()->sfi = 33;
	f.transport.set_dev_port_result = -7;
	EXPECT_EQ(zorv1_set_dev_port_callback(p.dev()), -7);
	EXPECT_THAT(f.transport.set_dev_port_calls, ElementsAre(SetDevPort{p.dev(), 33}));
	f.transport.set_dev_port_result = 0;
	EXPECT_EQ(zorv1_set_dev_port_callback(p.dev()), 0);
}

TEST_F(ConnectionTest, RebindingCallbackWithoutPortLogsAndFails)
{
	LogCapture cap;
	EXPECT_EQ(zorv1_set_dev_port_callback(nullptr), -1);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_set_dev_port_callback", "para null!\n"));
	EXPECT_THAT(f.transport.set_dev_port_calls, IsEmpty());
}
