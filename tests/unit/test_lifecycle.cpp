/* SPDX-License-Identifier: BSD-3-Clause
 * Life of a zorv1 port: the operations table, configure (installation in
 * the device manager and registration with the transport), start, stop,
 * queue release and close, and that a whole life gives back every byte.
 *
 * Ports are made by the driver's own probe on the vdev bus and driven
 * through DPDK's ethdev API wherever DPDK lets an application reach the
 * case; the operations are called directly where DPDK's layer would not get
 * there (a VLAN-strip bit in the configuration, a secondary process, a
 * second close of the same record).
 */
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_bus_vdev.h>
#include <rte_eal.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <rte_malloc.h>

#include <ethdev_driver.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_harness.h"
#include "zorv_test_vdev.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using zorv_fake::DevInstall;
using zorv_fake::DevUninstall;
using zorv_fake::FakeEnv;
using zorv_fake::fakes;
using zorv_test::CountLines;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

/* ---------------------------------------------------------------- process type */

/*
 * This binary answers rte_eal_process_type() itself so that a test can let
 * the driver believe it runs in a secondary process (a real secondary needs
 * a primary on hugepages). Outside such a test the EAL's own answer is
 * returned, to the driver and to DPDK's libraries alike.
 */
namespace {
std::atomic<bool> g_pretend_secondary{false};
}

extern "C" enum rte_proc_type_t rte_eal_process_type(void)
{
	using real_fn = enum rte_proc_type_t (*)(void);
	static const real_fn real =
		reinterpret_cast<real_fn>(dlsym(RTLD_NEXT, "rte_eal_process_type"));
	if (g_pretend_secondary.load())
		return RTE_PROC_SECONDARY;
	return real != nullptr ? real() : RTE_PROC_INVALID;
}

namespace {

class PretendSecondary {
public:
	PretendSecondary() { g_pretend_secondary = true; }
	~PretendSecondary() { g_pretend_secondary = false; }
	PretendSecondary(const PretendSecondary &) = delete;
	PretendSecondary &operator=(const PretendSecondary &) = delete;
};

/* ---------------------------------------------------------------- helpers */

/* A port made by the driver's probe on the vdev bus; removed at scope end. */
class VdevPort : public zorv_test::VdevPort {
public:
	VdevPort(const std::string &iface, unsigned queues)
		: zorv_test::VdevPort("net_zorv1_lc", iface, queues)
	{
	}

	/* The transport announces connection `vid` and a sibling binds function `sfi`. */
	void Connect(int vid, uint32_t sfi)
	{
		fakes().transport.ifnames[vid] = iface();
		ASSERT_EQ(zorv1_dpu_vdev_new_conn(vid), 0);
		zorv1_set_internal_sfi(vid, sfi);
		ASSERT_EQ(internal()->sfi, sfi);
	}

	/* Every gate of every set-up queue reads `value`. */
	::testing::AssertionResult GatesAre(int32_t value) const
	{
		const struct rte_eth_dev_data *d = dev()->data;
		for (uint16_t q = 0; q < d->nb_rx_queues; q++)
			if (rxq(q) != nullptr && rte_atomic32_read(&rxq(q)->allow_queuing) != value)
				return ::testing::AssertionFailure() << "rx queue " << q << " gate is "
								     << rte_atomic32_read(&rxq(q)->allow_queuing);
		for (uint16_t q = 0; q < d->nb_tx_queues; q++)
			if (txq(q) != nullptr && rte_atomic32_read(&txq(q)->allow_queuing) != value)
				return ::testing::AssertionFailure() << "tx queue " << q << " gate is "
								     << rte_atomic32_read(&txq(q)->allow_queuing);
		return ::testing::AssertionSuccess();
	}
};

using zorv_test::CountersMoved;
using zorv_test::DpdkHeapUse;
using zorv_test::HeapUse;

/*
 * One whole life of a port before a heap baseline is taken, so that what
 * DPDK allocates once per process (the shared port data, the mbuf pool) is
 * already there.
 */
void WarmUp()
{
	static bool done;
	if (done)
		return;
	done = true;
	zorv_test::SharedMbufPool();
	VdevPort port("lc_warmup", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
	ASSERT_EQ(rte_eth_dev_close(port.id()), 0);
	port.Remove();
	/* The tests look at their own calls only. */
	fakes().Reset();
}

/* The DEBUG line of a timed operation, with the microseconds the utility returned. */
std::string Timed(const char *fmt, uint64_t us)
{
	char buf[128];
	std::snprintf(buf, sizeof(buf), fmt, static_cast<unsigned long>(us));
	return buf;
}

/* No line of the driver family in the capture. */
::testing::AssertionResult NoDriverLine(const LogCapture &cap)
{
	for (const auto &line : cap.Lines())
		if (line.rfind("[offload_smartnic]", 0) == 0)
			return ::testing::AssertionFailure() << "driver logged: " << line;
	return ::testing::AssertionSuccess();
}

/*
 * Watches the link-state events of one port: each event (raised by the
 * queuing gate update of start and stop) is put into the fakes' call log as
 * "link_state_event", with what the port looked like at that moment.
 */
class LinkEventProbe {
public:
	struct Seen {
		int started;
		uint16_t link_status;
		bool gates_closed;
		bool gates_open;
		unsigned queues_present;
	};

	explicit LinkEventProbe(const VdevPort &port) : port_(port)
	{
		/* For every port, so that unregistering works after DPDK released the port. */
		EXPECT_EQ(rte_eth_dev_callback_register(RTE_ETH_ALL, RTE_ETH_EVENT_INTR_LSC, OnEvent, this),
			  0);
	}
	~LinkEventProbe()
	{
		rte_eth_dev_callback_unregister(RTE_ETH_ALL, RTE_ETH_EVENT_INTR_LSC, OnEvent, this);
	}
	LinkEventProbe(const LinkEventProbe &) = delete;
	LinkEventProbe &operator=(const LinkEventProbe &) = delete;

	std::vector<Seen> seen;

private:
	static int OnEvent(uint16_t port_id, enum rte_eth_event_type, void *arg, void *)
	{
		auto *self = static_cast<LinkEventProbe *>(arg);
		if (port_id != self->port_.id())
			return 0;
		{
			std::lock_guard<std::mutex> lk(fakes().mu);
			fakes().Record("link_state_event");
		}
		const struct rte_eth_dev_data *d = self->port_.dev()->data;
		Seen s{};
		s.started = self->port_.internal() != nullptr ? self->port_.internal()->started : -1;
		s.link_status = d->dev_link.link_status;
		s.gates_closed = true;
		s.gates_open = true;
		for (uint16_t q = 0; q < d->nb_rx_queues; q++) {
			auto *rxq = self->port_.rxq(q);
			if (rxq == nullptr)
				continue;
			s.queues_present++;
			const int32_t g = rte_atomic32_read(&rxq->allow_queuing);
			s.gates_closed &= g == 0;
			s.gates_open &= g == 1;
		}
		for (uint16_t q = 0; q < d->nb_tx_queues; q++) {
			auto *txq = self->port_.txq(q);
			if (txq == nullptr)
				continue;
			s.queues_present++;
			const int32_t g = rte_atomic32_read(&txq->allow_queuing);
			s.gates_closed &= g == 0;
			s.gates_open &= g == 1;
		}
		self->seen.push_back(s);
		return 0;
	}

	const VdevPort &port_;
};

class LifecycleTest : public FakeEnv {};

/* ---------------------------------------------------------------- operations table */

TEST_F(LifecycleTest, OperationsTableServesExactlyItsTwentyOneSlots)
{
	static_assert(std::is_const_v<std::remove_reference_t<decltype(zorv1_dpu_dev_ops)>>);
	const struct eth_dev_ops &ops = zorv1_dpu_dev_ops;
	EXPECT_EQ(ops.dev_configure, &eth_dev_configure);
	EXPECT_EQ(ops.dev_start, &eth_dev_start);
	EXPECT_EQ(ops.dev_stop, &eth_dev_stop);
	EXPECT_EQ(ops.dev_close, &eth_dev_close);
	EXPECT_EQ(ops.link_update, &eth_link_update);
	EXPECT_EQ(ops.mtu_set, &zorv1_mtu_set);
	EXPECT_EQ(ops.stats_get, &eth_stats_get);
	EXPECT_EQ(ops.stats_reset, &eth_stats_reset);
	EXPECT_EQ(ops.xstats_get, &zorv1_vdev_xstats_get);
	EXPECT_EQ(ops.xstats_reset, &zorv1_vdev_xstats_reset);
	EXPECT_EQ(ops.xstats_get_names, &zorv1_vdev_xstats_get_names);
	EXPECT_EQ(ops.dev_infos_get, &eth_dev_info);
	EXPECT_EQ(ops.rx_queue_setup, &eth_rx_queue_setup);
	EXPECT_EQ(ops.rx_queue_release, &eth_rx_queue_release);
	EXPECT_EQ(ops.tx_queue_setup, &eth_tx_queue_setup);
	EXPECT_EQ(ops.tx_queue_release, &eth_tx_queue_release);
	EXPECT_EQ(ops.tx_done_cleanup, &eth_tx_done_cleanup);
	EXPECT_EQ(ops.udp_tunnel_port_add, &zorv_dev_udp_tunnel_port_add);
	EXPECT_EQ(ops.flow_ops_get, &zorv_dev_flow_ops_get);
	EXPECT_EQ(ops.mtr_ops_get, &zorv_mtr_ops_get);
	EXPECT_EQ(ops.get_monitor_addr, &zorv1_vdev_get_monitor_addr);

	/* The table holds function pointers only: every slot but those 21 is empty. */
	static_assert(sizeof(struct eth_dev_ops) % sizeof(void *) == 0);
	constexpr size_t kSlots = sizeof(struct eth_dev_ops) / sizeof(void *);
	void *slots[kSlots];
	std::memcpy(slots, &ops, sizeof(slots));
	EXPECT_EQ(std::count_if(slots, slots + kSlots, [](void *p) { return p != nullptr; }), 21);
	EXPECT_EQ(ops.dev_set_link_up, nullptr);
	EXPECT_EQ(ops.dev_set_link_down, nullptr);
	EXPECT_EQ(ops.dev_reset, nullptr);
	EXPECT_EQ(ops.promiscuous_enable, nullptr);
	EXPECT_EQ(ops.allmulticast_enable, nullptr);
	EXPECT_EQ(ops.mac_addr_set, nullptr);
	EXPECT_EQ(ops.queue_stats_mapping_set, nullptr);
	EXPECT_EQ(ops.rxq_info_get, nullptr);
	EXPECT_EQ(ops.txq_info_get, nullptr);
	EXPECT_EQ(ops.vlan_offload_set, nullptr);
	EXPECT_EQ(ops.rx_queue_start, nullptr);
	EXPECT_EQ(ops.rx_queue_intr_enable, nullptr);
	EXPECT_EQ(ops.flow_ctrl_get, nullptr);
	EXPECT_EQ(ops.reta_update, nullptr);
	EXPECT_EQ(ops.udp_tunnel_port_del, nullptr);
	EXPECT_EQ(ops.timesync_enable, nullptr);
	EXPECT_EQ(ops.tm_ops_get, nullptr);
	EXPECT_EQ(ops.rx_hairpin_queue_setup, nullptr);
	EXPECT_EQ(ops.cman_info_get, nullptr);
	EXPECT_EQ(ops.cman_config_get, nullptr);
}

TEST_F(LifecycleTest, EveryPortSharesTheTableAndDpdkRefusesTheEmptySlots)
{
	VdevPort a("lc_ops_a", 1), b("lc_ops_b", 2);
	ASSERT_TRUE(a);
	ASSERT_TRUE(b);
	EXPECT_EQ(a.dev()->dev_ops, &zorv1_dpu_dev_ops);
	EXPECT_EQ(b.dev()->dev_ops, &zorv1_dpu_dev_ops);
	EXPECT_EQ(rte_eth_dev_set_link_up(a.id()), -ENOTSUP);
	EXPECT_EQ(rte_eth_dev_set_link_down(a.id()), -ENOTSUP);
	EXPECT_EQ(rte_eth_dev_reset(a.id()), -ENOTSUP);
	struct rte_eth_rxq_info qinfo;
	a.Setup(1);
	EXPECT_EQ(rte_eth_rx_queue_info_get(a.id(), 0, &qinfo), -ENOTSUP);
}

/* ---------------------------------------------------------------- configure */

TEST_F(LifecycleTest, FirstConfigureInstallsThePortThenRegistersItsInterface)
{
	VdevPort port("lc_cfg_first", 2);
	ASSERT_TRUE(port);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	f.util.calc_times.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	struct rte_eth_conf conf {};

	ASSERT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), 0);

	EXPECT_THAT(f.calls, ElementsAre(zorv_fake::Call{"zorv1_dev_get_ethdev", false},
					 zorv_fake::Call{"zorv1_dev_mutex_lock", false},
					 zorv_fake::Call{"zorv1_dev_install", true},
					 zorv_fake::Call{"zorv1_dev_mutex_unlock", true},
					 zorv_fake::Call{"zorv1_dpu_vdev_protocol_register", false}));
	EXPECT_THAT(f.dev.get_ethdev_calls, ElementsAre(port.id()));
	EXPECT_THAT(f.dev.installs, ElementsAre(DevInstall{port.id(), port.dev(), true}));
	EXPECT_THAT(f.transport.registers, ElementsAre("lc_cfg_first"));
	EXPECT_EQ(f.dev.SlotOf(port.dev()), port.id());
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_EQ(port.internal()->vlan_strip, 0);
	EXPECT_TRUE(CountersMoved(before, {{"vhost_driver_setup", 1}, {"eth_dev_configure", 1}}));
	ASSERT_EQ(f.util.calc_times.size(), 1u);
	EXPECT_GE(f.util.calc_times[0].end, f.util.calc_times[0].start);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_DEBUG, "zorv1_vhost_driver_setup",
				 Timed("vhost_setup=%-6lu(us).\n", f.util.calc_times[0].result)));
	EXPECT_TRUE(f.mqtt.msgs.empty());
}

TEST_F(LifecycleTest, SecondConfigureOnlyCountsAndRereadsTheVlanBit)
{
	VdevPort port("lc_cfg_again", 2);
	ASSERT_TRUE(port);
	struct rte_eth_conf conf {};
	ASSERT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), 0);
	ASSERT_EQ(f.dev.installs.size(), 1u);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	f.dev.installs.clear();
	f.transport.registers.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	ASSERT_EQ(rte_eth_dev_configure(port.id(), 1, 1, &conf), 0);

	EXPECT_THAT(f.Names(), ElementsAre("zorv1_dev_get_ethdev"));
	EXPECT_EQ(f.dev.installs.size(), 0u);
	EXPECT_TRUE(f.transport.registers.empty());
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_configure", 1}}));
	EXPECT_TRUE(NoDriverLine(cap));

	/* The bit is read again on every configure (set here as DPDK would never let it be). */
	port.dev()->data->dev_conf.rxmode.offloads = RTE_ETH_RX_OFFLOAD_VLAN_STRIP;
	ASSERT_EQ(eth_dev_configure(port.dev()), 0);
	EXPECT_EQ(port.internal()->vlan_strip, 1);
	port.dev()->data->dev_conf.rxmode.offloads = 0;
	ASSERT_EQ(eth_dev_configure(port.dev()), 0);
	EXPECT_EQ(port.internal()->vlan_strip, 0);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_configure", 3}}));
	EXPECT_EQ(f.dev.installs.size(), 0u);
}

TEST_F(LifecycleTest, VlanStripFollowsBitZeroOfTheReceiveOffloadsOnly)
{
	VdevPort port("lc_vlan_bit", 1);
	ASSERT_TRUE(port);
	uint64_t &offloads = port.dev()->data->dev_conf.rxmode.offloads;

	/* First configure with the bit: installs and sets the flag. */
	offloads = RTE_ETH_RX_OFFLOAD_VLAN_STRIP;
	ASSERT_EQ(eth_dev_configure(port.dev()), 0);
	EXPECT_EQ(port.internal()->vlan_strip, 1);
	EXPECT_EQ(f.dev.installs.size(), 1u);

	offloads = RTE_ETH_RX_OFFLOAD_IPV4_CKSUM | RTE_ETH_RX_OFFLOAD_VLAN_FILTER;
	ASSERT_EQ(eth_dev_configure(port.dev()), 0);
	EXPECT_EQ(port.internal()->vlan_strip, 0);

	offloads = RTE_ETH_RX_OFFLOAD_VLAN_STRIP | RTE_ETH_RX_OFFLOAD_IPV4_CKSUM;
	ASSERT_EQ(eth_dev_configure(port.dev()), 0);
	EXPECT_EQ(port.internal()->vlan_strip, 1);
	offloads = 0;
}

/* No receive offload is advertised, so DPDK stops a VLAN-strip request before the driver. */
TEST_F(LifecycleTest, VlanStripRequestThroughDpdkNeverReachesTheDriver)
{
	VdevPort port("lc_vlan_api", 1);
	ASSERT_TRUE(port);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	struct rte_eth_conf conf {};
	conf.rxmode.offloads = RTE_ETH_RX_OFFLOAD_VLAN_STRIP;

	EXPECT_EQ(rte_eth_dev_configure(port.id(), 1, 1, &conf), -EINVAL);

	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_EQ(port.internal()->vlan_strip, 0);
	EXPECT_TRUE(CountersMoved(before, {}));
	struct rte_eth_dev_info info;
	ASSERT_EQ(rte_eth_dev_info_get(port.id(), &info), 0);
	EXPECT_EQ(info.rx_offload_capa, 0u);
}

TEST_F(LifecycleTest, InstallRefusalFailsConfigureQuietlyAndCountsVhostListNull)
{
	VdevPort port("lc_cfg_noinst", 2);
	ASSERT_TRUE(port);
	port.internal()->vlan_strip = 1; /* left as it was by a failed configure */
	f.dev.install_result = 1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	struct rte_eth_conf conf {};

	EXPECT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), -1);

	EXPECT_THAT(f.Names(), ElementsAre("zorv1_dev_get_ethdev", "zorv1_dev_mutex_lock",
					   "zorv1_dev_install", "zorv1_dev_mutex_unlock"));
	EXPECT_TRUE(f.transport.registers.empty());
	EXPECT_EQ(f.dev.SlotOf(port.dev()), -1);
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_TRUE(CountersMoved(before, {{"vhost_list_null", 1}, {"vhost_setup_fail", 1}}));
	EXPECT_TRUE(NoDriverLine(cap));
	EXPECT_TRUE(f.mqtt.msgs.empty());
	EXPECT_EQ(port.internal()->vlan_strip, 1);
	/* DPDK rolled the queues back: nothing configured. */
	EXPECT_EQ(port.dev()->data->dev_configured, 0);

	/* The next configure tries again from the start. */
	f.dev.install_result = 0;
	f.calls.clear();
	ASSERT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), 0);
	EXPECT_EQ(f.Count("zorv1_dev_install"), 1u);
	EXPECT_EQ(f.Count("zorv1_dpu_vdev_protocol_register"), 1u);
	EXPECT_EQ(port.internal()->vlan_strip, 0);
}

TEST_F(LifecycleTest, RegistrationRefusalUninstallsAgainAndFailsConfigureQuietly)
{
	VdevPort port("lc_cfg_noreg", 2);
	ASSERT_TRUE(port);
	f.transport.register_result = -1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	struct rte_eth_conf conf {};

	EXPECT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), -1);

	EXPECT_THAT(f.calls, ElementsAre(zorv_fake::Call{"zorv1_dev_get_ethdev", false},
					 zorv_fake::Call{"zorv1_dev_mutex_lock", false},
					 zorv_fake::Call{"zorv1_dev_install", true},
					 zorv_fake::Call{"zorv1_dev_mutex_unlock", true},
					 zorv_fake::Call{"zorv1_dpu_vdev_protocol_register", false},
					 zorv_fake::Call{"zorv1_dev_mutex_lock", false},
					 zorv_fake::Call{"zorv1_dev_uninstall", true},
					 zorv_fake::Call{"zorv1_dev_mutex_unlock", true}));
	EXPECT_THAT(f.dev.uninstalls, ElementsAre(DevUninstall{port.id(), true}));
	EXPECT_EQ(f.dev.SlotOf(port.dev()), -1);
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_TRUE(CountersMoved(before, {{"vhost_setup_fail", 1}}));
	EXPECT_TRUE(NoDriverLine(cap));
	EXPECT_TRUE(f.mqtt.msgs.empty());

	/* Left uninstalled, so the next configure runs the whole sequence again. */
	f.transport.register_result = 0;
	f.calls.clear();
	ASSERT_EQ(rte_eth_dev_configure(port.id(), 2, 2, &conf), 0);
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_dev_get_ethdev", "zorv1_dev_mutex_lock",
					   "zorv1_dev_install", "zorv1_dev_mutex_unlock",
					   "zorv1_dpu_vdev_protocol_register"));
	EXPECT_EQ(f.dev.SlotOf(port.dev()), port.id());
	EXPECT_TRUE(CountersMoved(before, {{"vhost_setup_fail", 1},
					   {"vhost_driver_setup", 1},
					   {"eth_dev_configure", 1}}));
}

/* ---------------------------------------------------------------- start and stop */

TEST_F(LifecycleTest, StartOpensTheGatesOfABoundPortAndStopDrainsAndClosesThem)
{
	VdevPort port("lc_start", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.Connect(3, 12);
	ASSERT_TRUE(port.GatesAre(0));
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	struct rte_eth_link link;

	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	EXPECT_EQ(port.internal()->started, 1);
	EXPECT_TRUE(port.GatesAre(1));
	ASSERT_EQ(rte_eth_link_get_nowait(port.id(), &link), 0);
	EXPECT_EQ(link.link_status, RTE_ETH_LINK_UP);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_start", 1}}));

	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
	EXPECT_EQ(port.internal()->started, 0);
	EXPECT_TRUE(port.GatesAre(0));
	ASSERT_EQ(rte_eth_link_get_nowait(port.id(), &link), 0);
	EXPECT_EQ(link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_start", 1}, {"eth_dev_stop", 1}}));

	/* Restart: reopened, each counter one more. */
	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	EXPECT_EQ(port.internal()->started, 1);
	EXPECT_TRUE(port.GatesAre(1));
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_start", 2}, {"eth_dev_stop", 1}}));
	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_start", 2}, {"eth_dev_stop", 2}}));
	EXPECT_TRUE(f.mqtt.msgs.empty());
}

TEST_F(LifecycleTest, StartWithoutABoundFunctionKeepsTheGatesClosed)
{
	VdevPort port("lc_start_unbound", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;

	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	EXPECT_EQ(port.internal()->started, 1);
	EXPECT_TRUE(port.GatesAre(0));
	struct rte_eth_link link;
	ASSERT_EQ(rte_eth_link_get_nowait(port.id(), &link), 0);
	EXPECT_EQ(link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_start", 1}}));
	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
}

/* DPDK reports the queues' states from the port's data; they follow start and stop. */
TEST_F(LifecycleTest, StartMarksEveryConfiguredQueueStartedAndStopMarksThemStopped)
{
	VdevPort port("lc_qstate", 3);
	ASSERT_TRUE(port);
	port.Setup(3);
	port.Connect(5, 30);
	const struct rte_eth_dev_data *d = port.dev()->data;
	auto states_are = [d](uint8_t want) -> ::testing::AssertionResult {
		for (uint16_t q = 0; q < 3; q++) {
			if (d->rx_queue_state[q] != want)
				return ::testing::AssertionFailure()
				       << "rx queue " << q << " state " << int(d->rx_queue_state[q]);
			if (d->tx_queue_state[q] != want)
				return ::testing::AssertionFailure()
				       << "tx queue " << q << " state " << int(d->tx_queue_state[q]);
		}
		return ::testing::AssertionSuccess();
	};
	ASSERT_TRUE(states_are(RTE_ETH_QUEUE_STATE_STOPPED));

	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	EXPECT_TRUE(states_are(RTE_ETH_QUEUE_STATE_STARTED));
	/* Only the configured queues: the slot after the last stays as it was. */
	EXPECT_EQ(d->rx_queue_state[3], RTE_ETH_QUEUE_STATE_STOPPED);
	EXPECT_EQ(d->tx_queue_state[3], RTE_ETH_QUEUE_STATE_STOPPED);

	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
	EXPECT_TRUE(states_are(RTE_ETH_QUEUE_STATE_STOPPED));

	/* A restart marks them again; close (through stop) leaves them stopped. */
	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	EXPECT_TRUE(states_are(RTE_ETH_QUEUE_STATE_STARTED));
	ASSERT_EQ(eth_dev_close(port.dev()), 0);
	EXPECT_TRUE(states_are(RTE_ETH_QUEUE_STATE_STOPPED));
}

/* The flag is written before the gate update, which reads it. */
TEST_F(LifecycleTest, StartAndStopSetTheFlagBeforeTheGateUpdate)
{
	VdevPort port("lc_flag_order", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.Connect(4, 21);
	LinkEventProbe probe(port);

	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);

	ASSERT_EQ(probe.seen.size(), 2u);
	EXPECT_EQ(probe.seen[0].started, 1);
	EXPECT_TRUE(probe.seen[0].gates_open);
	EXPECT_EQ(probe.seen[0].link_status, RTE_ETH_LINK_UP);
	EXPECT_EQ(probe.seen[1].started, 0);
	EXPECT_TRUE(probe.seen[1].gates_closed);
	EXPECT_EQ(probe.seen[1].link_status, RTE_ETH_LINK_DOWN);
}

TEST_F(LifecycleTest, StopWaitsForABurstStillInsideAQueue)
{
	VdevPort port("lc_drain", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	port.Connect(5, 30);
	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	struct zorv1_vdev_rxq *rxq = port.rxq(0);
	ASSERT_EQ(rte_atomic32_read(&rxq->allow_queuing), 1);
	/* A receive burst has entered the queue. */
	rte_atomic32_inc(&rxq->while_queuing);
	std::atomic<bool> left{false};
	std::atomic<int32_t> gate_while_waiting{-1};
	std::thread burst([&] {
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
		while (rte_atomic32_read(&rxq->allow_queuing) != 0 &&
		       std::chrono::steady_clock::now() < deadline)
			std::this_thread::yield();
		std::this_thread::sleep_for(std::chrono::milliseconds(50));
		gate_while_waiting = rte_atomic32_read(&rxq->allow_queuing);
		left = true;
		rte_atomic32_dec(&rxq->while_queuing);
	});

	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
	const bool left_before_stop_returned = left.load();
	burst.join();

	EXPECT_TRUE(left_before_stop_returned) << "stop returned while a burst was in the queue";
	EXPECT_EQ(gate_while_waiting.load(), 0);
	EXPECT_EQ(port.internal()->started, 0);
}

/* ---------------------------------------------------------------- queue release */

TEST_F(LifecycleTest, ReleaseOperationsFreeTheRecordAndLeaveTheSlotToTheCaller)
{
	VdevPort port("lc_release", 1);
	ASSERT_TRUE(port);
	f.rings.create_result = 42; /* an id without a ring: only the record is on the heap */
	port.Setup(1);
	struct zorv1_vdev_rxq *rxq = port.rxq(0);
	struct zorv1_vdev_txq *txq = port.txq(0);
	ASSERT_EQ(rxq->local_id, 42);
	f.calls.clear();
	const HeapUse with_both = DpdkHeapUse();

	eth_rx_queue_release(port.dev(), 0);
	EXPECT_THAT(f.rings.destroys, ElementsAre(42));
	EXPECT_EQ(port.dev()->data->rx_queues[0], static_cast<void *>(rxq));
	const HeapUse with_tx = DpdkHeapUse();
	EXPECT_EQ(with_tx.count + 1, with_both.count);
	EXPECT_GE(with_both.bytes - with_tx.bytes, sizeof(struct zorv1_vdev_rxq));

	eth_tx_queue_release(port.dev(), 0);
	EXPECT_EQ(port.dev()->data->tx_queues[0], static_cast<void *>(txq));
	const HeapUse without = DpdkHeapUse();
	EXPECT_EQ(without.count + 1, with_tx.count);
	EXPECT_GE(with_tx.bytes - without.bytes, sizeof(struct zorv1_vdev_txq));
	/* A transmit queue has no ring of its own. */
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_ring_destroy"));

	/* Clearing the slots is the caller's part, as DPDK does after a release. */
	port.dev()->data->rx_queues[0] = nullptr;
	port.dev()->data->tx_queues[0] = nullptr;
}

TEST_F(LifecycleTest, QueueReleaseOfAPortPassesOverEmptySlotsAndClearsTheOthers)
{
	VdevPort port("lc_qrelease", 3);
	ASSERT_TRUE(port);
	port.Setup(3, {0, 2});
	const int id0 = port.rxq(0)->local_id;
	const int id2 = port.rxq(2)->local_id;
	f.calls.clear();

	zorv1_queue_release(port.dev());

	EXPECT_THAT(f.rings.destroys, ElementsAre(id0, id2));
	EXPECT_TRUE(f.rings.live.empty());
	for (uint16_t q = 0; q < 3; q++) {
		EXPECT_EQ(port.rxq(q), nullptr) << "rx slot " << q;
		EXPECT_EQ(port.txq(q), nullptr) << "tx slot " << q;
	}
}

/* ---------------------------------------------------------------- close */

TEST_F(LifecycleTest, CloseStopsFreesFlowsUnregistersAndUninstallsUnderOneLockThenReleasesQueues)
{
	VdevPort port("lc_close_order", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	port.Connect(6, 40);
	ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
	ASSERT_EQ(rte_eth_dev_stop(port.id()), 0); /* DPDK closes stopped ports only */
	const int id0 = port.rxq(0)->local_id;
	const int id1 = port.rxq(1)->local_id;
	const uint16_t port_id = port.id();
	struct rte_eth_dev *dev = port.dev();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LinkEventProbe probe(port);
	f.calls.clear();
	f.util.calc_times.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	ASSERT_EQ(rte_eth_dev_close(port.id()), 0);

	EXPECT_THAT(f.calls, ElementsAre(zorv_fake::Call{"link_state_event", false},
					 zorv_fake::Call{"zorv_flow_resource_free", false},
					 zorv_fake::Call{"zorv1_dev_get_ethdev", false},
					 zorv_fake::Call{"zorv1_dev_mutex_lock", false},
					 zorv_fake::Call{"zorv1_dpu_vdev_protocol_unregister", true},
					 zorv_fake::Call{"zorv1_dev_uninstall", true},
					 zorv_fake::Call{"zorv1_dev_mutex_unlock", true},
					 zorv_fake::Call{"zorv1_ring_destroy", false},
					 zorv_fake::Call{"zorv1_ring_destroy", false}));
	/* At stop's gate update inside close, the queues are still there and closed. */
	ASSERT_EQ(probe.seen.size(), 1u);
	EXPECT_EQ(probe.seen[0].started, 0);
	EXPECT_TRUE(probe.seen[0].gates_closed);
	EXPECT_EQ(probe.seen[0].queues_present, 4u);
	EXPECT_THAT(f.flow.frees, ElementsAre(dev));
	EXPECT_THAT(f.transport.unregisters, ElementsAre("lc_close_order"));
	EXPECT_THAT(f.dev.uninstalls, ElementsAre(DevUninstall{port_id, true}));
	EXPECT_THAT(f.rings.destroys, ElementsAre(id0, id1));
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_EQ(f.dev.SlotOf(dev), -1);
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
	ASSERT_FALSE(f.util.calc_times.empty());
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_DEBUG, "eth_dev_close",
				 Timed("zorv1 dev port remove=%-6lu(us).\n",
				       f.util.calc_times.back().result)));
	EXPECT_TRUE(f.mqtt.msgs.empty());
	/* DPDK released the port after the driver's close. */
	uint16_t found;
	EXPECT_NE(rte_eth_dev_get_port_by_name(port.name().c_str(), &found), 0);
}

TEST_F(LifecycleTest, CloseFreesTheRecordItsNameBuffersAndQueuesAndClearsThePrivateData)
{
	VdevPort port("lc_close_free", 2);
	ASSERT_TRUE(port);
	/* Ring ids without rings, so that only the driver's own allocations are counted. */
	int next_id = 100;
	f.rings.create = [&next_id](uint32_t) { return next_id++; };
	port.Setup(2);
	struct zorv1_internal *internal = port.internal();
	ASSERT_NE(internal->cmd.in_mem, nullptr);
	ASSERT_NE(internal->cmd.out_mem, nullptr);
	ASSERT_NE(internal->iface_name, nullptr);
	const HeapUse heap = DpdkHeapUse();
	struct rte_ether_addr *mac = port.dev()->data->mac_addrs;

	/* The driver's operation alone, so that the port data can be looked at afterwards. */
	ASSERT_EQ(eth_dev_close(port.dev()), 0);

	EXPECT_EQ(port.dev()->data->dev_private, nullptr);
	for (uint16_t q = 0; q < 2; q++) {
		EXPECT_EQ(port.rxq(q), nullptr);
		EXPECT_EQ(port.txq(q), nullptr);
	}
	/* The record, its name, two command buffers and four queue records; the MAC stays. */
	const HeapUse after = DpdkHeapUse();
	EXPECT_EQ(after.count + 8, heap.count);
	EXPECT_GE(heap.bytes - after.bytes, sizeof(struct zorv1_internal) + 2 * ZORV1_CMD_MEM_SIZE +
						    2 * sizeof(struct zorv1_vdev_rxq) +
						    2 * sizeof(struct zorv1_vdev_txq));
	EXPECT_EQ(port.dev()->data->mac_addrs, mac);
	EXPECT_EQ(mac->addr_bytes[0], 0x44);
	EXPECT_THAT(f.rings.destroys, ElementsAre(100, 101));
}

TEST_F(LifecycleTest, CloseOfANeverConfiguredPortSkipsUnregisterAndUninstallAndFreesTheRest)
{
	WarmUp();
	const HeapUse heap = DpdkHeapUse();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	{
		VdevPort port("lc_close_unconf", 4);
		ASSERT_TRUE(port);
		f.calls.clear();
		const unsigned locks = f.dev.lock_count;

		ASSERT_EQ(rte_eth_dev_close(port.id()), 0);

		EXPECT_THAT(f.Names(), ElementsAre("zorv_flow_resource_free", "zorv1_dev_get_ethdev"));
		EXPECT_TRUE(f.transport.unregisters.empty());
		EXPECT_TRUE(f.dev.uninstalls.empty());
		EXPECT_EQ(f.dev.lock_count, locks);
	}
	EXPECT_EQ(DpdkHeapUse(), heap);
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
}

TEST_F(LifecycleTest, CloseWithAConfiguredQueueThatWasNeverSetUpFreesTheOthers)
{
	WarmUp();
	const HeapUse heap = DpdkHeapUse();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	std::vector<int> ids;
	{
		VdevPort port("lc_close_gap", 3);
		ASSERT_TRUE(port);
		port.Setup(3, {0, 2});
		ASSERT_EQ(port.rxq(1), nullptr);
		ASSERT_EQ(port.txq(1), nullptr);
		ids = {port.rxq(0)->local_id, port.rxq(2)->local_id};

		ASSERT_EQ(rte_eth_dev_close(port.id()), 0);
	}
	EXPECT_THAT(f.rings.destroys, ElementsAreArray(ids));
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_EQ(DpdkHeapUse(), heap);
	EXPECT_TRUE(CountersMoved(before, {{"vhost_driver_setup", 1},
					   {"eth_dev_configure", 1},
					   {"eth_dev_stop", 1},
					   {"eth_dev_close", 1}}));
}

TEST_F(LifecycleTest, FlowReleaseFailureIsLoggedAndCountedAndCloseStillCompletes)
{
	VdevPort port("lc_close_flow", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	const uint16_t port_id = port.id();
	f.flow.free_result = -5;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(rte_eth_dev_close(port.id()), 0);

	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "eth_dev_close",
				 "zorv1 flow resource free failed,port_id=" + std::to_string(port_id) +
					 ".\n"));
	EXPECT_TRUE(CountersMoved(before,
				  {{"flow_close_fail", 1}, {"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
	EXPECT_THAT(f.transport.unregisters, ElementsAre("lc_close_flow"));
	EXPECT_EQ(f.dev.uninstalls.size(), 1u);
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_TRUE(f.mqtt.msgs.empty());
}

TEST_F(LifecycleTest, CloseDoesNotLookAtTheUnregisterAndUninstallResults)
{
	VdevPort port("lc_close_results", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	f.transport.unregister_result = -1;
	f.dev.uninstall_result = -1;
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);

	EXPECT_EQ(rte_eth_dev_close(port.id()), 0);

	EXPECT_EQ(f.Count("zorv1_dev_uninstall"), 1u);
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
	EXPECT_TRUE(NoDriverLine(cap));
}

TEST_F(LifecycleTest, CloseInASecondaryProcessTearsNothingDown)
{
	VdevPort port("lc_close_sec", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	struct zorv1_internal *internal = port.internal();
	struct zorv1_vdev_rxq *rxq0 = port.rxq(0);
	const HeapUse heap = DpdkHeapUse();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	f.calls.clear();

	{
		PretendSecondary secondary;
		ASSERT_EQ(rte_eal_process_type(), RTE_PROC_SECONDARY);
		EXPECT_EQ(eth_dev_close(port.dev()), 0);
	}
	ASSERT_EQ(rte_eal_process_type(), RTE_PROC_PRIMARY);

	EXPECT_EQ(port.internal(), internal);
	EXPECT_EQ(port.rxq(0), rxq0);
	EXPECT_NE(internal->iface_name, nullptr);
	EXPECT_NE(internal->cmd.in_mem, nullptr);
	EXPECT_EQ(DpdkHeapUse(), heap);
	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_EQ(f.dev.SlotOf(port.dev()), port.id());
	EXPECT_TRUE(CountersMoved(before, {}));

	/* The primary's close still does the whole job afterwards. */
	EXPECT_EQ(rte_eth_dev_close(port.id()), 0);
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
}

TEST_F(LifecycleTest, SecondCloseFindsNoRecordAndOnlyCounts)
{
	VdevPort port("lc_close_twice", 1);
	ASSERT_TRUE(port);
	port.Setup(1);
	ASSERT_EQ(eth_dev_close(port.dev()), 0);
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	const HeapUse heap = DpdkHeapUse();
	f.calls.clear();
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	EXPECT_EQ(eth_dev_close(port.dev()), 0);

	EXPECT_TRUE(f.calls.empty()) << ::testing::PrintToString(f.Names());
	EXPECT_TRUE(CountersMoved(before, {{"close_dev_null", 1}}));
	EXPECT_EQ(DpdkHeapUse(), heap);
	EXPECT_TRUE(NoDriverLine(cap));

	/* The bus removal closes once more (finding nothing) and releases the port. */
	port.Remove();
	EXPECT_TRUE(CountersMoved(before, {{"close_dev_null", 2}}));
	uint16_t found;
	EXPECT_NE(rte_eth_dev_get_port_by_name(port.name().c_str(), &found), 0);
}

TEST_F(LifecycleTest, RemovalFromTheBusClosesAndReleasesThePort)
{
	WarmUp();
	const HeapUse heap = DpdkHeapUse();
	VdevPort port("lc_remove", 2);
	ASSERT_TRUE(port);
	port.Setup(2);
	struct rte_eth_dev *dev = port.dev();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;

	port.Remove();

	EXPECT_THAT(f.flow.frees, ElementsAre(dev));
	EXPECT_THAT(f.transport.unregisters, ElementsAre("lc_remove"));
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_TRUE(CountersMoved(before, {{"eth_dev_stop", 1}, {"eth_dev_close", 1}}));
	uint16_t found;
	EXPECT_NE(rte_eth_dev_get_port_by_name(port.name().c_str(), &found), 0);
	EXPECT_EQ(DpdkHeapUse(), heap);
}

/* ---------------------------------------------------------------- a whole life */

TEST_F(LifecycleTest, AWholeLifeThroughDpdkGivesBackEveryAllocation)
{
	WarmUp();
	const HeapUse heap = DpdkHeapUse();
	const struct dpdk_cp_stat before = g_dpdk_cp_stat;
	std::vector<int> created;
	{
		VdevPort port("lc_life", 3);
		ASSERT_TRUE(port);
		port.Setup(3);
		for (uint16_t q = 0; q < 3; q++)
			created.push_back(port.rxq(q)->local_id);
		port.Connect(8, 50);
		ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
		EXPECT_TRUE(port.GatesAre(1));
		ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
		EXPECT_TRUE(port.GatesAre(0));
		ASSERT_EQ(rte_eth_dev_start(port.id()), 0);
		EXPECT_TRUE(port.GatesAre(1));
		ASSERT_EQ(rte_eth_dev_stop(port.id()), 0);
		ASSERT_EQ(rte_eth_dev_close(port.id()), 0);
	}
	EXPECT_EQ(DpdkHeapUse(), heap);
	EXPECT_TRUE(f.rings.live.empty());
	std::vector<int> destroyed = f.rings.destroys;
	std::sort(destroyed.begin(), destroyed.end());
	std::sort(created.begin(), created.end());
	EXPECT_EQ(destroyed, created);
	EXPECT_TRUE(CountersMoved(before, {{"vhost_driver_setup", 1},
					   {"eth_dev_configure", 1},
					   {"new_conn", 1},
					   {"eth_dev_start", 2},
					   {"eth_dev_stop", 3},
					   {"eth_dev_close", 1}}));
	EXPECT_TRUE(f.mqtt.msgs.empty());
	EXPECT_FALSE(f.dev.MutexHeld());
}

} // namespace
