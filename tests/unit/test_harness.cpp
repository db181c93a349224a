/* SPDX-License-Identifier: BSD-3-Clause
 * The unit-test harness and the fake family services, checked on their own.
 */
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <rte_cycles.h>
#include <rte_eal.h>
#include <rte_ethdev.h>
#include <rte_ring.h>

#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using zorv_fake::FakeEnv;
using zorv_fake::fakes;

/* This binary's extra EAL argument; its effect is checked below. */
std::vector<std::string> zorv_test::ExtraEalArgs()
{
	return {"--log-level=pmd.net.zorv1.perf:debug"};
}

namespace {

/* Logs through the family's macros; returns the source line of the macro. */
int log_set_sfi_line(int vid, uint32_t sfi)
{
	const int line = __LINE__ + 1;
	ZORV1_VDEV_LOG(INFO, "set_internal_sfi,vid=%d,sfi=%d\n", vid, sfi);
	return line;
}

void log_debug_line()
{
	ZORV1_VDEV_LOG(DEBUG, "debug detail %d\n", 5);
}

void log_err_line()
{
	ZORV1_VDEV_LOG(ERR, "device:vid=%d get list null\n", 9);
}

} // namespace

/* ------------------------------------------------------------------ EAL */

TEST(Eal, StartedOnceWithUnitTestArguments)
{
	ASSERT_TRUE(zorv_test::EalReady());
	EXPECT_EQ(rte_eal_process_type(), RTE_PROC_PRIMARY);
	EXPECT_EQ(rte_lcore_count(), 2u);
	EXPECT_FALSE(rte_eal_has_hugepages());
	EXPECT_FALSE(rte_eal_has_pci());

	auto args = zorv_test::EalArgs("/x/y/my_test");
	EXPECT_EQ(args[0], "/x/y/my_test");
	EXPECT_THAT(args, ::testing::Contains("--no-huge"));
	EXPECT_THAT(args, ::testing::Contains("--no-pci"));
	EXPECT_THAT(args, ::testing::Contains("--no-telemetry"));
	EXPECT_THAT(args, ::testing::Contains("--file-prefix=my_test_" + std::to_string(getpid())));
	EXPECT_EQ(args.back(), "--log-level=pmd.net.zorv1.perf:debug");
}

TEST(Eal, ArgumentsFromEnvironmentGoBeforeTheBinarysOwn)
{
	setenv("ZORV_TEST_EAL_ARGS", " --vdev=net_null0   -d  /nowhere ", 1);
	auto args = zorv_test::EalArgs("t");
	unsetenv("ZORV_TEST_EAL_ARGS");
	ASSERT_GE(args.size(), 5u);
	const size_t n = args.size();
	EXPECT_EQ(args[n - 4], "--vdev=net_null0");
	EXPECT_EQ(args[n - 3], "-d");
	EXPECT_EQ(args[n - 2], "/nowhere");
	EXPECT_EQ(args[n - 1], "--log-level=pmd.net.zorv1.perf:debug");
}

TEST(Eal, BinarysExtraArgumentsReachedEal)
{
	/* Set only by this binary's ExtraEalArgs(). */
	EXPECT_EQ(rte_log_get_level(zorv1_pci_logtype_perf), static_cast<int>(RTE_LOG_DEBUG));
}

/* ------------------------------------------------------------------ log types */

TEST(LogTypes, RegisteredUnderFamilyNamesAtInfo)
{
	const std::pair<const char *, int> types[] = {
		{"pmd.net.zorv1.cfg", zorv1_vdev_logtype_cfg},
		{"pmd.net.zorv1.rx", zorv1_vdev_logtype_rx},
		{"pmd.net.zorv1.tx", zorv1_vdev_logtype_tx},
		{"pmd.net.zorv1.perf", zorv1_pci_logtype_perf},
		{"pmd.net.zorv1.cmd", zorv1_snic_pci_logtype_cfg},
	};
	for (auto &[name, id] : types) {
		/* Registering an existing name returns its id. */
		EXPECT_EQ(rte_log_register_type_and_pick_level(name, RTE_LOG_EMERG), id) << name;
		EXPECT_GE(id, static_cast<int>(RTE_LOGTYPE_FIRST_EXT_ID)) << name;
	}
	EXPECT_EQ(rte_log_get_level(zorv1_vdev_logtype_cfg), static_cast<int>(RTE_LOG_INFO));
	EXPECT_EQ(rte_log_get_level(zorv1_vdev_logtype_rx), static_cast<int>(RTE_LOG_INFO));
	EXPECT_EQ(rte_log_get_level(zorv1_vdev_logtype_tx), static_cast<int>(RTE_LOG_INFO));
	EXPECT_EQ(rte_log_get_level(zorv1_snic_pci_logtype_cfg), static_cast<int>(RTE_LOG_INFO));
}

TEST(LogTypes, TimestampCounterIsPerThread)
{
	g_timestap_cnt = 41;
	g_timestap_cnt++;
	uint32_t other = 1;
	std::thread t([&] { other = g_timestap_cnt; });
	t.join();
	EXPECT_EQ(g_timestap_cnt, 42u);
	EXPECT_EQ(other, 0u);
}

/* ------------------------------------------------------------------ log capture */

TEST(LogCapture, SeesExactLineWithPrefixFunctionAndLine)
{
	zorv_test::LogCapture cap;
	const int line = log_set_sfi_line(1, 12);
	/* DPDK 22.11 adds nothing to a message written to a custom stream. */
	const std::string expected = "[offload_smartnic] log_set_sfi_line-" + std::to_string(line) +
				     ": set_internal_sfi,vid=1,sfi=12\n";
	EXPECT_EQ(cap.Text(), expected);
	EXPECT_THAT(cap.Lines(), ElementsAre(expected));
	EXPECT_TRUE(zorv_test::HasLogLine(cap, "log_set_sfi_line", "set_internal_sfi,vid=1,sfi=12\n"));
	EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_INFO, "log_set_sfi_line",
					    "set_internal_sfi,vid=1,sfi=12\n"));
	EXPECT_EQ(zorv_test::CountLines(cap, "log_set_sfi_line", "set_internal_sfi,vid=1,sfi=12\n"), 1);
	EXPECT_EQ(zorv_test::CountExactLines(cap, expected), 1);

	ASSERT_EQ(cap.Entries().size(), 1u);
	EXPECT_EQ(cap.Entries()[0].level, static_cast<int>(RTE_LOG_INFO));
	EXPECT_EQ(cap.Entries()[0].logtype, zorv1_vdev_logtype_cfg);
}

TEST(LogCapture, LineMatchingIsExact)
{
	zorv_test::LogCapture cap;
	log_set_sfi_line(1, 12);
	EXPECT_FALSE(zorv_test::HasLogLine(cap, "log_set_sfi", "set_internal_sfi,vid=1,sfi=12\n"));
	EXPECT_FALSE(zorv_test::HasLogLine(cap, "log_set_sfi_line", "set_internal_sfi,vid=1,sfi=1\n"));
	EXPECT_FALSE(zorv_test::HasLogLine(cap, "log_set_sfi_line", "set_internal_sfi,vid=1,sfi=12"));
	EXPECT_FALSE(zorv_test::HasLogLine(cap, "log_set_sfi_line", "vid=1,sfi=12\n"));
	EXPECT_FALSE(zorv_test::HasLogLineAt(cap, RTE_LOG_ERR, "log_set_sfi_line",
					     "set_internal_sfi,vid=1,sfi=12\n"));

	EXPECT_TRUE(zorv_test::MatchesZorvLine("[offload_smartnic] f-7: m\n", "f", "m\n"));
	EXPECT_FALSE(zorv_test::MatchesZorvLine("[offload_smartnic] f-: m\n", "f", "m\n"));
	EXPECT_FALSE(zorv_test::MatchesZorvLine("[offload_smartnic] f-7x: m\n", "f", "m\n"));
	EXPECT_FALSE(zorv_test::MatchesZorvLine("[offload_smartnic] f-7:m\n", "f", "m\n"));
	EXPECT_FALSE(zorv_test::MatchesZorvLine("x[offload_smartnic] f-7: m\n", "f", "m\n"));
	EXPECT_FALSE(zorv_test::MatchesZorvLine("[offload_smartnic] f-7: m\n\n", "f", "m\n"));
}

TEST(LogCapture, LevelControlsWhatIsCapturedAndIsRestored)
{
	ASSERT_EQ(rte_log_get_level(zorv1_vdev_logtype_cfg), static_cast<int>(RTE_LOG_INFO));
	{
		zorv_test::LogCapture cap;
		log_debug_line();
		EXPECT_EQ(cap.Text(), "");
		cap.SetLevel(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		EXPECT_EQ(rte_log_get_level(zorv1_vdev_logtype_cfg), static_cast<int>(RTE_LOG_DEBUG));
		log_debug_line();
		EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_DEBUG, "log_debug_line",
						    "debug detail 5\n"));
		cap.SetLevel(zorv1_vdev_logtype_cfg, RTE_LOG_ERR);
		cap.Clear();
		log_set_sfi_line(1, 2);
		log_err_line();
		EXPECT_EQ(cap.Lines().size(), 1u);
		EXPECT_TRUE(zorv_test::HasLogLineAt(cap, RTE_LOG_ERR, "log_err_line",
						    "device:vid=9 get list null\n"));
	}
	/* The level from before the first SetLevel comes back. */
	EXPECT_EQ(rte_log_get_level(zorv1_vdev_logtype_cfg), static_cast<int>(RTE_LOG_INFO));
}

TEST(LogCapture, GlobalLevelIsRaisedForTheScopeAndRestored)
{
	const uint32_t global = rte_log_get_global_level();
	rte_log_set_global_level(RTE_LOG_NOTICE);
	{
		zorv_test::LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
		log_debug_line();
		EXPECT_EQ(zorv_test::CountLines(cap, "log_debug_line", "debug detail 5\n"), 1);
	}
	EXPECT_EQ(rte_log_get_global_level(), static_cast<uint32_t>(RTE_LOG_NOTICE));
	rte_log_set_global_level(global);
}

TEST(LogCapture, StreamIsRestoredAndCapturesNest)
{
	FILE *before = rte_log_get_stream();
	{
		zorv_test::LogCapture outer;
		FILE *outer_stream = rte_log_get_stream();
		EXPECT_NE(outer_stream, before);
		{
			zorv_test::LogCapture inner;
			log_err_line();
			EXPECT_EQ(inner.Lines().size(), 1u);
		}
		EXPECT_EQ(rte_log_get_stream(), outer_stream);
		log_err_line();
		log_err_line();
		EXPECT_EQ(zorv_test::CountLines(outer, "log_err_line", "device:vid=9 get list null\n"), 2);
	}
	EXPECT_EQ(rte_log_get_stream(), before);
}

TEST(LogCapture, CapturesOtherThreads)
{
	zorv_test::LogCapture cap;
	std::thread t(log_err_line);
	t.join();
	EXPECT_EQ(zorv_test::CountLines(cap, "log_err_line", "device:vid=9 get list null\n"), 1);
}

/* ------------------------------------------------------------------ fake ports, mbufs */

TEST(FakePort, IsARealPortWithZeroedPrivateArea)
{
	std::string name;
	uint16_t port_id;
	{
		zorv_test::FakePort port({.name = "zorv_harness_p0", .nb_rx_queues = 3, .nb_tx_queues = 2});
		ASSERT_TRUE(port);
		name = port.name();
		port_id = port.port_id();
		EXPECT_EQ(name, "zorv_harness_p0");
		EXPECT_EQ(rte_eth_dev_allocated("zorv_harness_p0"), port.dev());
		EXPECT_TRUE(rte_eth_dev_is_valid_port(port_id));
		EXPECT_EQ(&rte_eth_devices[port_id], port.dev());

		ASSERT_NE(port.internal(), nullptr);
		const auto *bytes = reinterpret_cast<const unsigned char *>(port.internal());
		for (size_t i = 0; i < sizeof(struct zorv1_internal); i++)
			ASSERT_EQ(bytes[i], 0u) << "byte " << i;

		ASSERT_EQ(port.data()->nb_rx_queues, 3);
		ASSERT_EQ(port.data()->nb_tx_queues, 2);
		for (int i = 0; i < 3; i++)
			EXPECT_EQ(port.data()->rx_queues[i], nullptr);
		for (int i = 0; i < 2; i++)
			EXPECT_EQ(port.data()->tx_queues[i], nullptr);

		struct rte_eth_dev_info info;
		EXPECT_EQ(rte_eth_dev_info_get(port_id, &info), -ENOTSUP);
	}
	EXPECT_EQ(rte_eth_dev_allocated(name.c_str()), nullptr);
	EXPECT_FALSE(rte_eth_dev_is_valid_port(port_id));
}

TEST(FakePort, UniqueNamesAndMove)
{
	zorv_test::FakePort a;
	zorv_test::FakePort b;
	ASSERT_TRUE(a);
	ASSERT_TRUE(b);
	EXPECT_STRNE(a.name(), b.name());
	struct rte_eth_dev *dev = a.dev();
	zorv_test::FakePort c(std::move(a));
	EXPECT_FALSE(a);
	EXPECT_EQ(c.dev(), dev);
	c.Release();
	EXPECT_FALSE(c);
	EXPECT_EQ(dev->state, RTE_ETH_DEV_UNUSED);
}

TEST(Mbuf, FrameHasExactLengthDestinationAndTag)
{
	zorv_test::MbufPool pool(63);
	ASSERT_NE(pool.get(), nullptr);
	{
		zorv_test::MbufPtr m(zorv_test::MakeFrame(pool, 64, zorv_test::kBroadcastMac));
		ASSERT_TRUE(m);
		EXPECT_EQ(m->pkt_len, 64u);
		EXPECT_EQ(m->data_len, 64);
		EXPECT_EQ(m->nb_segs, 1);
		auto *eth = rte_pktmbuf_mtod(m.get(), struct rte_ether_hdr *);
		EXPECT_TRUE(rte_is_broadcast_ether_addr(&eth->dst_addr));
		EXPECT_EQ(rte_be_to_cpu_16(eth->ether_type), RTE_ETHER_TYPE_IPV4);

		zorv_test::MbufPtr t(zorv_test::MakeFrame(pool, 68, zorv_test::kMulticastMac, 0x0123));
		ASSERT_TRUE(t);
		EXPECT_EQ(t->pkt_len, 68u);
		auto *teth = rte_pktmbuf_mtod(t.get(), struct rte_ether_hdr *);
		EXPECT_TRUE(rte_is_multicast_ether_addr(&teth->dst_addr));
		EXPECT_EQ(rte_be_to_cpu_16(teth->ether_type), RTE_ETHER_TYPE_VLAN);
		/* Stripping gives back a 64-byte frame and the tag. */
		EXPECT_EQ(rte_vlan_strip(t.get()), 0);
		EXPECT_EQ(t->pkt_len, 64u);
		EXPECT_EQ(t->vlan_tci, 0x0123);

		zorv_test::MbufPtr u(zorv_test::MakeFrame(pool, 100, zorv_test::kUnicastMac));
		zorv_test::RequestVlanInsert(u.get(), 7);
		EXPECT_TRUE(u->ol_flags & RTE_MBUF_F_TX_VLAN);
		EXPECT_EQ(u->vlan_tci, 7);
		EXPECT_EQ(pool.InUse(), 3u);
	}
	EXPECT_EQ(pool.InUse(), 0u);
	EXPECT_NONFATAL_FAILURE(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 17,
						     zorv_test::kUnicastMac, 1),
				"below header");
}

/* ------------------------------------------------------------------ device manager fake */

class DevMgrFake : public FakeEnv {};

TEST_F(DevMgrFake, RecordsCallSequenceAcrossServices)
{
	zorv_test::FakePort port;
	zorv1_dev_mutex_lock();
	EXPECT_EQ(zorv1_dev_install(port.port_id(), port.dev()), 0);
	zorv1_dev_mutex_unlock();
	char iface[] = "ifc0";
	EXPECT_EQ(zorv1_dpu_vdev_protocol_register(iface), 0);

	EXPECT_THAT(f.Names(), ElementsAre("zorv1_dev_mutex_lock", "zorv1_dev_install",
					   "zorv1_dev_mutex_unlock", "zorv1_dpu_vdev_protocol_register"));
	EXPECT_THAT(f.calls, ElementsAre(zorv_fake::Call{"zorv1_dev_mutex_lock", false},
					 zorv_fake::Call{"zorv1_dev_install", true},
					 zorv_fake::Call{"zorv1_dev_mutex_unlock", true},
					 zorv_fake::Call{"zorv1_dpu_vdev_protocol_register", false}));
	EXPECT_THAT(f.dev.installs,
		    ElementsAre(zorv_fake::DevInstall{port.port_id(), port.dev(), true}));
	EXPECT_THAT(f.transport.registers, ElementsAre("ifc0"));
	EXPECT_EQ(f.dev.lock_count, 1u);
	EXPECT_EQ(f.dev.unlock_count, 1u);
	EXPECT_THAT(f.NamesOf({"zorv1_dev_install", "zorv1_dpu_vdev_protocol_register"}),
		    ElementsAre("zorv1_dev_install", "zorv1_dpu_vdev_protocol_register"));
	EXPECT_EQ(f.Count("zorv1_dev_mutex_lock"), 1u);
}

TEST_F(DevMgrFake, TableAndLookups)
{
	zorv_test::FakePort a({.name = "zorv_harness_a"});
	zorv_test::FakePort b({.name = "zorv_harness_b"});
	a.internal()->sfi = 12;
	b.internal()->sfi = INVALID_SFI;

	zorv1_dev_mutex_lock();
	ASSERT_EQ(zorv1_dev_install(a.port_id(), a.dev()), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(a.port_id()), a.dev());
	zorv1_dev_mutex_unlock();
	f.dev.Place(700, b.dev());

	EXPECT_EQ(f.dev.SlotOf(a.dev()), a.port_id());
	EXPECT_EQ(zorv1_dev_get_ethdev(a.port_id()), a.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev(b.port_id()), b.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(700), b.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(701), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(12), a.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(INVALID_SFI), b.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(13), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("zorv_harness_b"), b.dev());
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("zorv_harness"), nullptr);
	EXPECT_THAT(f.dev.by_name_calls, ElementsAre("zorv_harness_b", "zorv_harness"));
	EXPECT_THAT(f.dev.by_sfi_calls, ElementsAre(12u, INVALID_SFI, 13u));
	EXPECT_EQ(f.dev.slot_reads, 3u);
	EXPECT_EQ(f.dev.slot_reads_unlocked, 2u);
	EXPECT_EQ(f.Count("zorv1_dev_get_ethdev_internal"), 0u);

	EXPECT_NONFATAL_FAILURE(zorv1_dev_get_ethdev_internal(1024), "out of range");

	zorv1_dev_mutex_lock();
	zorv1_dev_uninstall(a.port_id());
	zorv1_dev_mutex_unlock();
	EXPECT_EQ(zorv1_dev_get_ethdev(a.port_id()), nullptr);
	EXPECT_EQ(f.dev.SlotOf(a.dev()), -1);
	EXPECT_THAT(f.dev.uninstalls, ElementsAre(zorv_fake::DevUninstall{a.port_id(), true}));
}

TEST_F(DevMgrFake, OverriddenResults)
{
	zorv_test::FakePort port;
	f.dev.install_result = -5;
	zorv1_dev_mutex_lock();
	EXPECT_EQ(zorv1_dev_install(port.port_id(), port.dev()), -5);
	zorv1_dev_mutex_unlock();
	EXPECT_EQ(f.dev.SlotOf(port.dev()), -1);

	f.dev.get_ethdev = [&](uint16_t) { return port.dev(); };
	EXPECT_EQ(zorv1_dev_get_ethdev(3), port.dev());
	EXPECT_THAT(f.dev.get_ethdev_calls, ElementsAre(3));

	f.dev.install = [](uint16_t, struct rte_eth_dev *) { return 77; };
	zorv1_dev_mutex_lock();
	EXPECT_EQ(zorv1_dev_install(1, nullptr), 77);
	zorv1_dev_mutex_unlock();
}

TEST_F(DevMgrFake, PciHashDefaultAndOverride)
{
	zorv1_dev_mutex_lock();
	EXPECT_EQ(zorv1_pci_get_idx_by_hash(1, 2), (1u * 31 + 2) % 16);
	zorv1_dev_mutex_unlock();
	EXPECT_EQ(zorv1_pci_get_idx_by_hash_locked(3, 1), (3u * 31 + 1) % 16);
	f.dev.pci_hash = [](int vid, int q) { return static_cast<uint32_t>(vid * 100 + q); };
	EXPECT_EQ(zorv1_pci_get_idx_by_hash_locked(3, 1), 301u);
	EXPECT_THAT(f.dev.pci_hash_calls, ElementsAre(zorv_fake::PciHash{1, 2, true}));
	EXPECT_THAT(f.dev.pci_hash_locked_calls,
		    ElementsAre(zorv_fake::PciHash{3, 1, false}, zorv_fake::PciHash{3, 1, false}));
	zorv1_dev_sfi_unmap_port(44);
	EXPECT_THAT(f.dev.sfi_unmaps, ElementsAre(44u));
}

TEST_F(DevMgrFake, MutexFlagsRecursiveLock)
{
	zorv1_dev_mutex_lock();
	EXPECT_NONFATAL_FAILURE(zorv1_dev_mutex_lock(), "recursive lock");
	EXPECT_TRUE(f.dev.MutexHeld());
	zorv1_dev_mutex_unlock();
	EXPECT_FALSE(f.dev.MutexHeld());
}

TEST_F(DevMgrFake, MutexFlagsUnlockWhileUnlocked)
{
	EXPECT_NONFATAL_FAILURE(zorv1_dev_mutex_unlock(), "not locked");
}

TEST_F(DevMgrFake, LockRulesAreEnforced)
{
	EXPECT_NONFATAL_FAILURE(zorv1_dev_install(1, nullptr), "without the device manager mutex");
	EXPECT_NONFATAL_FAILURE(zorv1_dev_uninstall(1), "without the device manager mutex");
	EXPECT_NONFATAL_FAILURE(zorv1_pci_get_idx_by_hash(1, 1), "without the device manager mutex");
	zorv1_dev_mutex_lock();
	EXPECT_NONFATAL_FAILURE(zorv1_pci_get_idx_by_hash_locked(1, 1), "mutex held");
	zorv1_dev_mutex_unlock();
	f.dev.enforce_lock_rules = false;
	EXPECT_EQ(zorv1_dev_install(1, nullptr), 0);
}

TEST_F(DevMgrFake, MutexExcludesOtherThreads)
{
	std::atomic<bool> got{false};
	zorv1_dev_mutex_lock();
	std::thread t([&] {
		zorv1_dev_mutex_lock();
		got = true;
		zorv1_dev_mutex_unlock();
	});
	usleep(50 * 1000);
	EXPECT_FALSE(got.load());
	zorv1_dev_mutex_unlock();
	t.join();
	EXPECT_TRUE(got.load());
	EXPECT_EQ(f.dev.lock_count, 2u);
	EXPECT_EQ(f.dev.unlock_count, 2u);
}

TEST_F(DevMgrFake, TearDownFlagsMutexLeftLocked)
{
	zorv1_dev_mutex_lock();
	EXPECT_NONFATAL_FAILURE(FakeEnv::TearDown(), "still locked");
	zorv1_dev_mutex_unlock();
}

/* Two tests in a row: the second sees nothing of the first. */
static bool g_dirty_test_ran;

TEST(FakesReset, A_LeavesStateBehind)
{
	auto &f = fakes();
	f.dev.install_result = -1;
	f.dev.Place(5, reinterpret_cast<struct rte_eth_dev *>(0x1000));
	f.mqtt.send_result = 1;
	ASSERT_GT(zorv1_ring_create(64), 0);
	zorv1_dev_mutex_lock(); /* left locked on purpose */
	g_dirty_test_ran = true;
}

TEST(FakesReset, B_StartsFromDefaults)
{
	if (!g_dirty_test_ran)
		GTEST_SKIP() << "runs after FakesReset.A_LeavesStateBehind only";
	auto &f = fakes();
	EXPECT_TRUE(f.calls.empty());
	EXPECT_EQ(f.dev.install_result, 0);
	EXPECT_EQ(f.dev.SlotOf(reinterpret_cast<struct rte_eth_dev *>(0x1000)), -1);
	EXPECT_EQ(f.mqtt.send_result, 0);
	EXPECT_TRUE(f.rings.live.empty());
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_EQ(zorv1_ring_create(64), 1);
}

/* ------------------------------------------------------------------ transport fake */

class TransportFake : public FakeEnv {};

TEST_F(TransportFake, DequeueDefaultsToNothingThenDeliversPending)
{
	struct zorv1_vdev_rxq rxq = {};
	struct rte_mbuf *pkts[32] = {};
	EXPECT_EQ(rte_zorv1_vhost_dequeue_burst(&rxq, pkts, 32), 0);

	struct rte_mempool *pool = zorv_test::SharedMbufPool();
	for (int i = 0; i < 3; i++)
		f.transport.rx_pending.push_back(zorv_test::MakeFrame(pool, 60, zorv_test::kUnicastMac));
	EXPECT_EQ(rte_zorv1_vhost_dequeue_burst(&rxq, pkts, 2), 2);
	EXPECT_EQ(rte_zorv1_vhost_dequeue_burst(&rxq, pkts + 2, 32), 1);
	EXPECT_THAT(f.transport.dequeues,
		    ElementsAre(zorv_fake::Burst{&rxq, pkts, 32, 0}, zorv_fake::Burst{&rxq, pkts, 2, 2},
				zorv_fake::Burst{&rxq, pkts + 2, 32, 1}));
	for (int i = 0; i < 3; i++)
		rte_pktmbuf_free(pkts[i]);

	f.transport.dequeue = [](struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t n) {
		return static_cast<uint16_t>(n / 2);
	};
	EXPECT_EQ(rte_zorv1_vhost_dequeue_burst(&rxq, pkts, 32), 16);
	EXPECT_EQ(f.transport.dequeues.back().result, 16);
}

TEST_F(TransportFake, EnqueueAcceptsNoneUnlessTold)
{
	struct zorv1_vdev_txq txq = {};
	struct rte_mempool *pool = zorv_test::SharedMbufPool();
	struct rte_mbuf *pkts[4];
	for (auto &m : pkts)
		m = zorv_test::MakeFrame(pool, 64, zorv_test::kUnicastMac);
	EXPECT_EQ(rte_zorv1_vhost_enqueue_burst(&txq, pkts, 4), 0);

	f.transport.AcceptAll(3);
	EXPECT_EQ(rte_zorv1_vhost_enqueue_burst(&txq, pkts, 4), 3);
	EXPECT_THAT(f.transport.sent, ElementsAre(pkts[0], pkts[1], pkts[2]));
	EXPECT_THAT(f.transport.enqueues,
		    ElementsAre(zorv_fake::Burst{&txq, pkts, 4, 0}, zorv_fake::Burst{&txq, pkts, 4, 3}));
	rte_pktmbuf_free(pkts[3]);
	/* The three accepted mbufs are the transport's: freed at TearDown. */
}

TEST_F(TransportFake, ControlOperations)
{
	f.transport.ifnames[4] = "ifc4";
	char buf[4096];
	EXPECT_EQ(zorv_get_ifname(4, buf, sizeof(buf)), 0);
	EXPECT_STREQ(buf, "ifc4");
	EXPECT_EQ(zorv_get_ifname(5, buf, sizeof(buf)), -1);
	EXPECT_STREQ(buf, "");
	EXPECT_THAT(f.transport.get_ifname_calls,
		    ElementsAre(zorv_fake::GetIfname{4, 4096}, zorv_fake::GetIfname{5, 4096}));

	f.transport.set_dev_port_result = -3;
	EXPECT_EQ(zorv_set_dev_port(nullptr, 12), -3);
	f.transport.set_dev_port = [](struct rte_eth_dev *, uint32_t sfi) { return static_cast<int>(sfi); };
	EXPECT_EQ(zorv_set_dev_port(nullptr, 9), 9);
	EXPECT_THAT(f.transport.set_dev_port_calls,
		    ElementsAre(zorv_fake::SetDevPort{nullptr, 12}, zorv_fake::SetDevPort{nullptr, 9}));

	char ifc[] = "ifc9";
	f.transport.register_result = -1;
	EXPECT_EQ(zorv1_dpu_vdev_protocol_register(ifc), -1);
	zorv1_dpu_vdev_protocol_unregister(ifc);
	EXPECT_THAT(f.transport.unregisters, ElementsAre("ifc9"));
}

/* ------------------------------------------------------------------ ring fake */

class RingFake : public FakeEnv {};

TEST_F(RingFake, CreatesRealRings)
{
	int id1 = zorv1_ring_create(512);
	int id2 = zorv1_ring_create(512);
	EXPECT_EQ(id1, 1);
	EXPECT_EQ(id2, 2);
	struct rte_ring *r = zorv1_get_ring_by_local_id(id1);
	ASSERT_NE(r, nullptr);
	EXPECT_NE(r, zorv1_get_ring_by_local_id(id2));
	EXPECT_EQ(rte_ring_get_size(r), 512u);
	int obj = 0;
	EXPECT_EQ(rte_ring_enqueue(r, &obj), 0);
	EXPECT_EQ(rte_ring_count(r), 1u);
	void *out = nullptr;
	EXPECT_EQ(rte_ring_dequeue(r, &out), 0);
	EXPECT_EQ(out, &obj);

	zorv1_ring_destroy(id1);
	EXPECT_EQ(zorv1_get_ring_by_local_id(id1), nullptr);
	EXPECT_NONFATAL_FAILURE(zorv1_ring_destroy(id1), "destroyed twice");
	EXPECT_THAT(f.rings.creates,
		    ElementsAre(zorv_fake::RingCreate{512, 1}, zorv_fake::RingCreate{512, 2}));
	EXPECT_THAT(f.rings.lookups, ElementsAre(id1, id2, id1));
}

TEST_F(RingFake, ForcedResult)
{
	f.rings.create_result = -1;
	EXPECT_EQ(zorv1_ring_create(512), -1);
	EXPECT_TRUE(f.rings.live.empty());
	f.rings.create_result = 40;
	EXPECT_EQ(zorv1_ring_create(512), 40);
	EXPECT_EQ(zorv1_get_ring_by_local_id(40), nullptr);
	f.rings.create_result.reset();
	EXPECT_EQ(zorv1_ring_create(100), 1); /* not a power of two: exact size */
	EXPECT_EQ(rte_ring_get_capacity(zorv1_get_ring_by_local_id(1)), 100u);
}

/* ------------------------------------------------------------------ other services */

class ServiceFakes : public FakeEnv {};

TEST_F(ServiceFakes, FlowEngine)
{
	zorv_test::FakePort port;
	EXPECT_EQ(zorv_flow_resource_init(port.dev(), 1), 0);
	f.flow.free_result = -7;
	EXPECT_EQ(zorv_flow_resource_free(port.dev()), -7);
	EXPECT_THAT(f.flow.inits, ElementsAre(zorv_fake::FlowInit{port.dev(), 1}));
	EXPECT_THAT(f.flow.frees, ElementsAre(port.dev()));

	const struct rte_flow_ops *ops = nullptr;
	EXPECT_EQ(zorv_dev_flow_ops_get(port.dev(), &ops), -ENOTSUP);
	EXPECT_EQ(zorv_mtr_ops_get(port.dev(), nullptr), -ENOTSUP);
	EXPECT_EQ(zorv_dev_udp_tunnel_port_add(port.dev(), nullptr), -ENOTSUP);
	EXPECT_EQ(f.flow.flow_ops_get_calls.size(), 1u);
	EXPECT_EQ(f.flow.mtr_ops_get_calls.size(), 1u);
	EXPECT_EQ(f.flow.udp_tunnel_calls.size(), 1u);
}

TEST_F(ServiceFakes, FirmwareKeepsACopyOfTheMtuRecord)
{
	struct zorv1_internal internal = {};
	struct zorv_cmd_mtu_set_info info = {5, 5, 9000};
	f.fw.set_mtu_result = -1;
	EXPECT_EQ(zorv1_fw_set_dev_mtu(&internal, E_CMD_OP_MTU_SET_VPORT, &info), -1);
	info.mtu = 1;
	EXPECT_THAT(f.fw.set_mtu_calls,
		    ElementsAre(zorv_fake::FwSetMtu{&internal, E_CMD_OP_MTU_SET_VPORT, true, 5, 5, 9000}));
}

TEST_F(ServiceFakes, AgentMessages)
{
	std::string iface = "ifc1";
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL, nullptr,
				      iface.c_str(), 0),
		  0);
	f.mqtt.send_result = 1;
	EXPECT_EQ(zorv1_mqtt_send_msg(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING, "net_zorv1_a",
				      iface.c_str(), 4),
		  1);
	iface = "changed";
	EXPECT_THAT(f.mqtt.msgs,
		    ElementsAre(zorv_fake::MqttMsg{5, 10, std::nullopt, "ifc1", 0},
				zorv_fake::MqttMsg{8, 13, "net_zorv1_a", "ifc1", 4}));
}

TEST_F(ServiceFakes, DiagnosticsAndUtilities)
{
	static const struct zorv1_diag_ops table = {};
	zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, &table);
	EXPECT_THAT(f.diag.installs, ElementsAre(zorv_fake::DiagInstall{ZORV1_DIAG_DPU_VDEV, &table}));

	const uint64_t hz = rte_get_tsc_hz();
	ASSERT_GT(hz, 0u);
	EXPECT_EQ(zorv1_calculate_time(1000 + hz, 1000), 1000000u);
	EXPECT_EQ(zorv1_calculate_time(hz / 1000, 0), 1000u);
	EXPECT_EQ(zorv1_calculate_time(5, 5), 0u);
	EXPECT_EQ(f.util.calc_times.size(), 3u);
	EXPECT_EQ(f.Count("zorv1_calculate_time"), 0u);

	const uint8_t bytes[4] = {1, 2, 3, 4};
	zorv1_dump_pkt("vdev rx", bytes, 4);
	EXPECT_THAT(f.util.dumps, ElementsAre(zorv_fake::DumpPkt{"vdev rx", bytes, 4}));
	EXPECT_THAT(f.Names(), ElementsAre("zorv1_diag_ops_install", "zorv1_dump_pkt"));
}
