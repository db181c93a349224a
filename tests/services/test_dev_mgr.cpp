/* SPDX-License-Identifier: BSD-3-Clause
 * Device manager: the port table, its mutex, the lookups, the card's
 * sfi -> port map and the PCI queue hash.
 */
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_vhost.h"
#include "zorv_dev_mgr_internal.h"
#include "zorv_test_harness.h"

namespace {

using namespace std::chrono_literals;

/*
 * Threads started from the test inherit EAL's pinning of the main thread to
 * one CPU; let them run on every CPU so that they really run in parallel.
 */
void RunOnAllCpus()
{
	cpu_set_t set;
	CPU_ZERO(&set);
	long n = sysconf(_SC_NPROCESSORS_ONLN);
	for (long c = 0; c < n && c < CPU_SETSIZE; c++)
		CPU_SET(c, &set);
	pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

/*
 * A stand-in port: the manager only keeps the pointer and reads
 * data->name and the private record's sfi, so these need no ethdev slot
 * and can exist for every one of the 1024 table slots.
 */
struct StubPort {
	struct rte_eth_dev dev {};
	struct rte_eth_dev_data data {};
	struct zorv1_internal internal {};

	explicit StubPort(const std::string &name, uint32_t sfi = INVALID_SFI)
	{
		snprintf(data.name, sizeof(data.name), "%s", name.c_str());
		internal.sfi = sfi;
		internal.vid = -1;
		data.dev_private = &internal;
		dev.data = &data;
	}
};

class DevMgrTest : public ::testing::Test {
protected:
	void TearDown() override
	{
		/* Leave the table empty for the next test. */
		zorv1_dev_mutex_lock();
		for (int slot : installed_)
			zorv1_dev_uninstall(static_cast<uint16_t>(slot));
		zorv1_dev_mutex_unlock();
	}

	int Install(uint16_t port_id, struct rte_eth_dev *dev)
	{
		zorv1_dev_mutex_lock();
		int ret = zorv1_dev_install(port_id, dev);
		zorv1_dev_mutex_unlock();
		if (ret == 0)
			installed_.insert(port_id);
		return ret;
	}

	int Uninstall(uint16_t port_id)
	{
		zorv1_dev_mutex_lock();
		int ret = zorv1_dev_uninstall(port_id);
		zorv1_dev_mutex_unlock();
		installed_.erase(port_id);
		return ret;
	}

	std::set<int> installed_;
};

TEST_F(DevMgrTest, EverySlotHoldsThePortInstalledUnderItsPortId)
{
	std::vector<std::unique_ptr<StubPort>> ports;
	for (int i = 0; i < ZORV1_DEV_MAX; i++)
		ports.push_back(std::make_unique<StubPort>("stub" + std::to_string(i)));

	for (int i = 0; i < ZORV1_DEV_MAX; i++)
		ASSERT_EQ(Install(static_cast<uint16_t>(i), &ports[i]->dev), 0) << "slot " << i;

	for (int i = 0; i < ZORV1_DEV_MAX; i++) {
		EXPECT_EQ(zorv1_dev_get_ethdev(static_cast<uint16_t>(i)), &ports[i]->dev);
		EXPECT_EQ(zorv1_dev_get_ethdev_internal(i), &ports[i]->dev);
	}
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("stub1023"), &ports[1023]->dev);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("stub0"), &ports[0]->dev);

	for (int i = 0; i < ZORV1_DEV_MAX; i++)
		ASSERT_EQ(Uninstall(static_cast<uint16_t>(i)), 0);
	for (int i = 0; i < ZORV1_DEV_MAX; i++) {
		EXPECT_EQ(zorv1_dev_get_ethdev_internal(i), nullptr);
		EXPECT_EQ(zorv1_dev_get_ethdev(static_cast<uint16_t>(i)), nullptr);
	}
}

TEST_F(DevMgrTest, InstallRefusesOccupiedSlotPortIdBeyondTableAndNullPort)
{
	StubPort a("a"), b("b");

	ASSERT_EQ(Install(5, &a.dev), 0);
	EXPECT_NE(Install(5, &b.dev), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev(5), &a.dev) << "a refused install must not replace the port";

	EXPECT_NE(Install(ZORV1_DEV_MAX, &b.dev), 0);
	EXPECT_NE(Install(UINT16_MAX, &b.dev), 0);
	EXPECT_NE(Install(6, nullptr), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev(6), nullptr);
}

TEST_F(DevMgrTest, SlotAccessorIsNullOutsideTheTable)
{
	StubPort a("a");
	ASSERT_EQ(Install(0, &a.dev), 0);

	EXPECT_EQ(zorv1_dev_get_ethdev_internal(-1), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(ZORV1_DEV_MAX), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(INT32_MIN), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev(ZORV1_DEV_MAX), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_internal(0), &a.dev);
}

TEST_F(DevMgrTest, UninstallEmptiesTheSlotForANewPort)
{
	StubPort a("a"), b("b");

	ASSERT_EQ(Install(7, &a.dev), 0);
	EXPECT_EQ(Uninstall(7), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev(7), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("a"), nullptr);
	EXPECT_NE(Uninstall(7), 0) << "uninstalling an empty slot reports it";
	EXPECT_NE(Uninstall(ZORV1_DEV_MAX), 0);

	ASSERT_EQ(Install(7, &b.dev), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev(7), &b.dev);
}

TEST_F(DevMgrTest, LookupBySfiFindsBoundPortAndNeverMatchesUnbound)
{
	StubPort bound("bound", 12), unbound("unbound", INVALID_SFI), other("other", 40);

	ASSERT_EQ(Install(3, &unbound.dev), 0);
	ASSERT_EQ(Install(9, &bound.dev), 0);
	ASSERT_EQ(Install(20, &other.dev), 0);

	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(12), &bound.dev);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(40), &other.dev);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(13), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(INVALID_SFI), nullptr)
		<< "an unbound port must not be found by the unbound marker";

	/* The lookup reads the record at call time. */
	bound.internal.sfi = 13;
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(12), nullptr);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(13), &bound.dev);

	ASSERT_EQ(Uninstall(9), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(13), nullptr);
}

TEST_F(DevMgrTest, LookupBySfiSkipsPortsWithoutRecordAndLowestSlotWins)
{
	StubPort closed("closed", 77), high("high", 77), low("low", 77);
	closed.data.dev_private = nullptr;

	ASSERT_EQ(Install(1, &closed.dev), 0);
	ASSERT_EQ(Install(30, &high.dev), 0);
	ASSERT_EQ(Install(4, &low.dev), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(77), &low.dev);
}

TEST_F(DevMgrTest, LookupByNameMatchesTheWholeNameExactly)
{
	StubPort a("net_zorv1_a"), ab("net_zorv1_ab");

	ASSERT_EQ(Install(11, &ab.dev), 0);
	ASSERT_EQ(Install(12, &a.dev), 0);

	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("net_zorv1_a"), &a.dev);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("net_zorv1_ab"), &ab.dev);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("net_zorv1_"), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("net_zorv1_abc"), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("NET_ZORV1_A"), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name(""), nullptr);
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name(nullptr), nullptr);
}

TEST_F(DevMgrTest, RealEthdevPortIsFoundByItsPortIdAndName)
{
	zorv_test::FakePort port("net_zorv1_mgrtest");
	ASSERT_TRUE(port);
	port.internal()->sfi = 5;

	ASSERT_EQ(Install(port.port_id(), port.dev()), 0);
	EXPECT_EQ(zorv1_dev_get_ethdev(port.port_id()), port.dev());
	EXPECT_EQ(zorv1_vdev_get_ethdev_by_name("net_zorv1_mgrtest"), port.dev());
	EXPECT_EQ(zorv1_dev_get_ethdev_by_sfi(5), port.dev());
	ASSERT_EQ(Uninstall(port.port_id()), 0);
}

/* Runs fn on another thread; true if it finished within `wait`. */
template <typename Fn> bool FinishesWithin(std::thread &t, std::atomic<bool> &done, Fn fn,
					    std::chrono::milliseconds wait)
{
	t = std::thread([&done, fn] {
		fn();
		done = true;
	});
	auto until = std::chrono::steady_clock::now() + wait;
	while (!done && std::chrono::steady_clock::now() < until)
		std::this_thread::sleep_for(5ms);
	return done;
}

TEST_F(DevMgrTest, WalkingLookupsWaitForTheMutexHolder)
{
	StubPort a("walk", 21);
	ASSERT_EQ(Install(2, &a.dev), 0);

	struct {
		const char *what;
		std::function<bool()> call;
	} lookups[] = {
		{"by name", [&] { return zorv1_vdev_get_ethdev_by_name("walk") == &a.dev; }},
		{"by sfi", [&] { return zorv1_dev_get_ethdev_by_sfi(21) == &a.dev; }},
		{"pci hash locked", [] { return zorv1_pci_get_idx_by_hash_locked(1, 0) < ZORV_CARD_PCI_QUEUES; }},
	};
	for (auto &l : lookups) {
		std::atomic<bool> done{false};
		std::atomic<bool> ok{false};
		std::thread t;

		zorv1_dev_mutex_lock();
		bool early = FinishesWithin(t, done, [&] { ok = l.call(); }, 150ms);
		zorv1_dev_mutex_unlock();
		t.join();
		EXPECT_FALSE(early) << l.what << " ran while another thread held the mutex";
		EXPECT_TRUE(done) << l.what;
		EXPECT_TRUE(ok) << l.what;
	}
}

TEST_F(DevMgrTest, SlotReadsAndUnlockedHashDoNotTakeTheMutex)
{
	StubPort a("free");
	ASSERT_EQ(Install(8, &a.dev), 0);

	std::atomic<bool> done{false};
	std::atomic<bool> ok{false};
	std::thread t;
	zorv1_dev_mutex_lock();
	bool finished = FinishesWithin(t, done, [&] {
		ok = zorv1_dev_get_ethdev_internal(8) == &a.dev && zorv1_dev_get_ethdev(8) == &a.dev &&
		     zorv1_pci_get_idx_by_hash(3, 1) < ZORV_CARD_PCI_QUEUES;
	}, 2000ms);
	zorv1_dev_mutex_unlock();
	t.join();
	EXPECT_TRUE(finished);
	EXPECT_TRUE(ok);
}

/*
 * The mutex is a plain one: the same thread locking it twice blocks for
 * good (so nothing in the family may nest it). Shown in a child process that
 * is killed afterwards.
 */
TEST_F(DevMgrTest, MutexIsNotRecursive)
{
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		zorv1_dev_mutex_lock();
		zorv1_dev_mutex_lock();
		_exit(0);
	}

	int status = 0;
	pid_t got = 0;
	for (int i = 0; i < 60 && got == 0; i++) {
		std::this_thread::sleep_for(5ms);
		got = waitpid(child, &status, WNOHANG);
	}
	EXPECT_EQ(got, 0) << "a second lock by the holder returned";
	if (got == 0) {
		kill(child, SIGKILL);
		waitpid(child, &status, 0);
	}
}

TEST(PciHash, IsStableAndInRange)
{
	for (int vid = -1; vid < 1024; vid++) {
		for (int q = 0; q < 64; q++) {
			uint32_t idx = zorv1_pci_get_idx_by_hash(vid, q);
			ASSERT_LT(idx, static_cast<uint32_t>(ZORV_CARD_PCI_QUEUES)) << vid << "/" << q;
			ASSERT_EQ(idx, zorv1_pci_get_idx_by_hash(vid, q));
			ASSERT_EQ(idx, zorv1_pci_get_idx_by_hash_locked(vid, q));
		}
	}
}

TEST(PciHash, QueuesOfOneConnectionUseDifferentPciQueues)
{
	for (int vid : {0, 1, 7, 100, 1023}) {
		std::set<uint32_t> used;
		for (int q = 0; q < ZORV_CARD_PCI_QUEUES; q++)
			used.insert(zorv1_pci_get_idx_by_hash(vid, q));
		EXPECT_EQ(used.size(), static_cast<size_t>(ZORV_CARD_PCI_QUEUES)) << "vid " << vid;
	}
}

TEST(PciHash, ConnectionsSpreadOverAllPciQueues)
{
	std::array<int, ZORV_CARD_PCI_QUEUES> hits{};
	for (int vid = 0; vid < 1024; vid++)
		hits[zorv1_pci_get_idx_by_hash(vid, 0)]++;
	/* 64 per queue on average; none starved, none overloaded. */
	for (int i = 0; i < ZORV_CARD_PCI_QUEUES; i++) {
		EXPECT_GE(hits[i], 40) << "pci queue " << i;
		EXPECT_LE(hits[i], 90) << "pci queue " << i;
	}

	std::set<uint32_t> first_ports;
	for (int vid = 0; vid < 8; vid++)
		first_ports.insert(zorv1_pci_get_idx_by_hash(vid, 0));
	EXPECT_GE(first_ports.size(), 4u) << "the first eight connections crowd onto few queues";
}

class SfiMapTest : public ::testing::Test {
protected:
	void TearDown() override
	{
		for (uint32_t sfi : mapped_)
			zorv1_dev_sfi_unmap_port(sfi);
		EXPECT_EQ(zorv_dev_sfi_mapped_count(), 0u);
	}

	int Map(uint32_t sfi, uint16_t port)
	{
		int ret = zorv_dev_sfi_map_port(sfi, port);
		if (ret == 0)
			mapped_.insert(sfi);
		return ret;
	}

	std::set<uint32_t> mapped_;
};

TEST_F(SfiMapTest, MapLookupRemapAndUnmap)
{
	EXPECT_EQ(zorv_dev_sfi_lookup_port(12), -1);
	ASSERT_EQ(Map(12, 3), 0);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(12), 3);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(13), -1);
	EXPECT_EQ(zorv_dev_sfi_mapped_count(), 1u);

	ASSERT_EQ(Map(12, 4), 0) << "a function moves to its new port";
	EXPECT_EQ(zorv_dev_sfi_lookup_port(12), 4);
	EXPECT_EQ(zorv_dev_sfi_mapped_count(), 1u);

	ASSERT_EQ(Map(0, 65535), 0);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(0), 65535);

	zorv1_dev_sfi_unmap_port(12);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(12), -1);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(0), 65535);
	zorv1_dev_sfi_unmap_port(12); /* twice: nothing happens */
	EXPECT_EQ(zorv_dev_sfi_mapped_count(), 1u);
}

TEST_F(SfiMapTest, UnboundMarkerIsNeverMapped)
{
	EXPECT_EQ(zorv_dev_sfi_map_port(INVALID_SFI, 1), -EINVAL);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(INVALID_SFI), -1);
	zorv1_dev_sfi_unmap_port(INVALID_SFI);
	EXPECT_EQ(zorv_dev_sfi_mapped_count(), 0u);
}

TEST_F(SfiMapTest, FullMapRefusesAndEntriesSurviveRemovalOfTheirNeighbours)
{
	for (uint32_t i = 0; i < ZORV_SFI_MAP_SIZE; i++)
		ASSERT_EQ(Map(i * 7 + 1, static_cast<uint16_t>(i)), 0) << i;
	EXPECT_EQ(zorv_dev_sfi_map_port(0xABCDEF, 1), -ENOSPC);
	EXPECT_EQ(zorv_dev_sfi_lookup_port(0xABCDEF), -1);

	/* Remove every other function: the rest must still be found through the holes. */
	for (uint32_t i = 0; i < ZORV_SFI_MAP_SIZE; i += 2) {
		zorv1_dev_sfi_unmap_port(i * 7 + 1);
		mapped_.erase(i * 7 + 1);
	}
	for (uint32_t i = 0; i < ZORV_SFI_MAP_SIZE; i++) {
		int want = (i % 2) ? static_cast<int>(i) : -1;
		ASSERT_EQ(zorv_dev_sfi_lookup_port(i * 7 + 1), want) << i;
	}
	EXPECT_EQ(zorv_dev_sfi_mapped_count(), static_cast<uint32_t>(ZORV_SFI_MAP_SIZE / 2));

	/* Freed buckets are reused. */
	for (uint32_t i = 0; i < ZORV_SFI_MAP_SIZE / 2; i++)
		ASSERT_EQ(Map(0x100000 + i, static_cast<uint16_t>(i)), 0) << i;
	EXPECT_EQ(zorv_dev_sfi_map_port(0xABCDEF, 1), -ENOSPC);
	for (uint32_t i = 0; i < ZORV_SFI_MAP_SIZE / 2; i++)
		ASSERT_EQ(zorv_dev_sfi_lookup_port(0x100000 + i), static_cast<int>(i));
}

TEST_F(SfiMapTest, LockFreeLookupSeesStableEntryWhileOthersChurn)
{
	ASSERT_EQ(Map(500, 9), 0);
	std::atomic<bool> stop{false};
	std::atomic<long> misses{0};
	std::atomic<long> reads{0};

	std::thread reader([&] {
		RunOnAllCpus();
		while (!stop) {
			if (zorv_dev_sfi_lookup_port(500) != 9)
				misses++;
			reads++;
		}
	});
	for (int round = 0; round < 200; round++) {
		for (uint32_t s = 0; s < 64; s++)
			ASSERT_EQ(zorv_dev_sfi_map_port(1000 + s, 1), 0);
		for (uint32_t s = 0; s < 64; s++)
			zorv1_dev_sfi_unmap_port(1000 + s);
	}
	stop = true;
	reader.join();
	EXPECT_GT(reads.load(), 0);
	EXPECT_EQ(misses.load(), 0);
}

} // namespace
