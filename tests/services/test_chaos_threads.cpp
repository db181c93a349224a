/* SPDX-License-Identifier: BSD-3-Clause
 * Seeded random interleavings of the driver and the real card in one
 * process, with every thread the system has, for the ThreadSanitizer and
 * AddressSanitizer builds (and the normal one).
 *
 * Threads:
 *   - control (the test body): port stop/start, MTU, statistics resets,
 *     flow rules; queue-count changes and close + re-creation of the port;
 *     the peer (DPDK's virtio-user in this process) attached with a random
 *     queue count, packed ring on or off and mergeable buffers on or off,
 *     and detached;
 *   - poller: the application's polling thread, on both ports: the peer
 *     sends, the port loops what it receives back, the peer drains;
 *   - sibling: a family module's thread, calling the device-wide transmit
 *     operations (disable, then update of the PCI hash; enable) and the
 *     all-ports operation with the sfi re-binding callback;
 *   - reader: statistics, extended statistics and the diagnostics table;
 *   - and the vhost library's event thread, through the card.
 * The seed is printed first (ZORV_CHAOS_SEED replays it); ZORV_CHAOS_STEPS
 * sets the number of steps.
 *
 * DPDK's rule for ethdev calls holds here as in any application: a port's
 * queues are not set up, released or polled while it is closed or its
 * queues are set up again, so the poller and the reader pause around those
 * steps. The family's device-wide operations walk every configured port's
 * transmit queues and rely on them being set up, so the sibling pauses
 * around queue setup too.
 *
 * Checked after every step: no operation took longer than the bound
 * (ZORV_CHAOS_OP_BOUND_MS, default 2000), the port's counters never went
 * backwards except across a reset or new queues, and while the port is
 * started with the peer on, frames go round. At the end, with the threads
 * stopped and the ports closed: every mbuf back in its pool, the DPDK heap
 * and the open files as at the start.
 */
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ethdev_driver.h>
#include <rte_bus_vdev.h>
#include <rte_ethdev.h>
#include <rte_flow.h>
#include <rte_malloc.h>
#include <rte_memcpy.h>

#include "zorv1_diag.h"
#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_test_ethdev.h"
#include "zorv_test_harness.h"

std::vector<std::string> zorv_test::ExtraEalArgs()
{
	return {"--log-level=lib.vhost.*:error", "--log-level=pmd.net.virtio.*:error",
		"--log-level=pmd.net.zorv1.*:warning"};
}

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using zorv_test::LinkUp;
using zorv_test::StartPort;
using zorv_test::WaitFor;

unsigned long EnvNumber(const char *name, unsigned long dflt)
{
	const char *v = getenv(name);
	return v != nullptr && v[0] != '\0' ? strtoul(v, nullptr, 0) : dflt;
}

/* The peer lives in this process: a closed socket must fail with EPIPE. */
[[maybe_unused]] const bool g_sigpipe_ignored = [] {
	signal(SIGPIPE, SIG_IGN);
	return true;
}();

/* A worker the control thread can hold still between two of its rounds. */
class Worker {
public:
	template <typename F> void Start(F round)
	{
		thread_ = std::thread([this, round] {
			while (!stop_.load()) {
				if (pause_.load()) {
					paused_.store(true);
					while (pause_.load() && !stop_.load())
						std::this_thread::sleep_for(std::chrono::microseconds(100));
					paused_.store(false);
					continue;
				}
				round();
				rounds_.fetch_add(1);
			}
		});
	}
	void Pause()
	{
		pause_.store(true);
		while (!paused_.load() && !stop_.load() && thread_.joinable())
			std::this_thread::sleep_for(std::chrono::microseconds(100));
	}
	void Resume() { pause_.store(false); }
	void Stop()
	{
		stop_.store(true);
		if (thread_.joinable())
			thread_.join();
	}
	uint64_t rounds() const { return rounds_.load(); }
	~Worker() { Stop(); }

private:
	std::thread thread_;
	std::atomic<bool> stop_{false}, pause_{false}, paused_{false};
	std::atomic<uint64_t> rounds_{0};
};

/* Holds the given workers still for a scope. */
class Paused {
public:
	Paused(std::initializer_list<Worker *> w) : w_(w)
	{
		for (Worker *x : w_)
			x->Pause();
	}
	~Paused()
	{
		for (Worker *x : w_)
			x->Resume();
	}

private:
	std::vector<Worker *> w_;
};

struct FreeDeleter {
	void operator()(void *p) const { free(p); }
};

/* A diagnostics record with room for one element, zeroed. */
template <typename Record, typename Element> std::unique_ptr<Record, FreeDeleter> OneElement()
{
	return std::unique_ptr<Record, FreeDeleter>(
		static_cast<Record *>(calloc(1, sizeof(Record) + sizeof(Element))));
}

size_t OpenFiles()
{
	size_t n = 0;
	DIR *d = opendir("/proc/self/fd");
	while (d != nullptr && readdir(d) != nullptr)
		n++;
	if (d != nullptr)
		closedir(d);
	return n;
}

struct HeapUse {
	size_t bytes = 0;
	unsigned count = 0;
	bool operator==(const HeapUse &o) const { return bytes == o.bytes && count == o.count; }
};

HeapUse Heap()
{
	struct rte_malloc_socket_stats st = {};
	rte_malloc_get_socket_stats(rte_socket_id(), &st);
	return {st.heap_allocsz_bytes, st.alloc_count};
}

/* The peer's configuration: queue pairs, packed ring, mergeable buffers. */
struct PeerCfg {
	uint16_t queues = 1;
	bool packed = false;
	bool mrg = true;
	std::string str() const
	{
		return "queues=" + std::to_string(queues) + ",packed_vq=" + (packed ? "1" : "0") +
		       ",mrg_rxbuf=" + (mrg ? "1" : "0");
	}
};

class ChaosThreads : public ::testing::Test {
protected:
	void SetUp() override
	{
		seed_ = EnvNumber("ZORV_CHAOS_SEED", static_cast<unsigned long>(
								 Clock::now().time_since_epoch().count() & 0x7fffffff));
		steps_ = EnvNumber("ZORV_CHAOS_STEPS", 300);
		bound_ = milliseconds(EnvNumber("ZORV_CHAOS_OP_BOUND_MS", 2000));
		printf("chaos seed %lu (replay: ZORV_CHAOS_SEED=%lu ZORV_CHAOS_STEPS=%lu)\n", seed_,
		       seed_, steps_);
		fflush(stdout);
		rnd_.seed(seed_);
		dir_ = "/tmp/zchaos_" + std::to_string(getpid());
		std::filesystem::create_directories(dir_);
		sock_ = dir_ + "/vhost0";
	}
	void TearDown() override
	{
		std::error_code ec;
		std::filesystem::remove_all(dir_, ec);
	}

	/* ---- the port ---- */
	void CreatePort(uint16_t queues)
	{
		port_name_ = "net_zorv1_chaos" + std::to_string(++seq_);
		std::string args = "iface=" + sock_ + ",queues=2";
		ASSERT_EQ(rte_vdev_init(port_name_.c_str(), args.c_str()), 0);
		ASSERT_EQ(rte_eth_dev_get_port_by_name(port_name_.c_str(), &port_), 0);
		ASSERT_EQ(StartPort(port_, queues, port_pool_->get()), 0);
		port_queues_ = queues;
		port_open_ = true;
		started_ = true;
		port_polled_ = true;
		flows_.clear();
		last_.reset();
	}
	void ClosePort()
	{
		if (!port_open_)
			return;
		port_open_ = false;
		port_polled_ = false;
		flows_.clear();
		ASSERT_EQ(rte_vdev_uninit(port_name_.c_str()), 0);
	}
	void SetQueues(uint16_t queues)
	{
		port_polled_ = false;
		ASSERT_EQ(rte_eth_dev_stop(port_), 0);
		ASSERT_EQ(StartPort(port_, queues, port_pool_->get()), 0);
		port_queues_ = queues;
		started_ = true;
		port_polled_ = true;
		last_.reset();
	}

	/* ---- the peer ---- */
	void AttachPeer(const PeerCfg &cfg)
	{
		peer_name_ = "net_virtio_user" + std::to_string(++seq_);
		std::string args = "path=" + sock_ + "," + cfg.str() + ",queue_size=256";
		ASSERT_EQ(rte_vdev_init(peer_name_.c_str(), args.c_str()), 0) << args;
		ASSERT_EQ(rte_eth_dev_get_port_by_name(peer_name_.c_str(), &peer_), 0);
		ASSERT_EQ(StartPort(peer_, cfg.queues, peer_pool_->get(), 0, 0, 256), 0);
		peer_cfg_ = cfg;
		peer_open_ = true;
	}
	void DetachPeer()
	{
		if (!peer_open_)
			return;
		peer_open_ = false;
		rte_eth_dev_stop(peer_);
		ASSERT_EQ(rte_vdev_uninit(peer_name_.c_str()), 0);
	}

	/* ---- the threads ---- */
	void PollRound()
	{
		struct rte_mbuf *b[32];
		if (peer_open_) {
			for (uint16_t q = 0; q < peer_cfg_.queues; q++) {
				if (rte_pktmbuf_alloc_bulk(tx_pool_->get(), b, 8) != 0)
					break;
				for (int i = 0; i < 8; i++) {
					/* 64 bytes: unicast to 02:..:02 from 02:..:01, IPv4 type. */
					static const uint8_t frame[64] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0,
									  0, 1, 8, 0};
					b[i]->data_len = b[i]->pkt_len = sizeof(frame);
					rte_memcpy(rte_pktmbuf_mtod(b[i], void *), frame, sizeof(frame));
				}
				uint16_t n = rte_eth_tx_burst(peer_, q, b, 8);
				rte_pktmbuf_free_bulk(b + n, 8 - n);
			}
		}
		/*
		 * ethdev swaps a stopped port's bursts for stubs that complain; the
		 * flag is read before each burst, so a stop still lands in the
		 * middle of bursts.
		 */
		if (port_open_) {
			for (uint16_t q = 0; q < port_queues_ && port_polled_.load(); q++) {
				uint16_t n = rte_eth_rx_burst(port_, q, b, 32);
				uint16_t s = rte_eth_tx_burst(port_, q, b, n);
				rte_pktmbuf_free_bulk(b + s, n - s);
			}
		}
		if (peer_open_) {
			for (uint16_t q = 0; q < peer_cfg_.queues; q++) {
				uint16_t n = rte_eth_rx_burst(peer_, q, b, 32);
				rte_pktmbuf_free_bulk(b, n);
			}
		}
	}
	void SiblingRound(std::mt19937 &r)
	{
		switch (r() % 3) {
		case 0:
			zorv1_dev_disable_all_txq_queuing();
			std::this_thread::sleep_for(std::chrono::microseconds(r() % 500));
			zorv1_dev_update_pci_hash();
			break;
		case 1:
			zorv1_dev_all_port_op(zorv1_set_dev_port_callback);
			break;
		default:
			zorv1_dev_enable_all_txq_queuing();
			break;
		}
		std::this_thread::sleep_for(std::chrono::microseconds(r() % 3000));
	}
	void ReadRound()
	{
		if (port_open_) {
			struct rte_eth_stats st;
			rte_eth_stats_get(port_, &st);
			struct rte_eth_xstat xs[128];
			rte_eth_xstats_get(port_, xs, 128);
			char name[RTE_ETH_NAME_MAX_LEN];
			snprintf(name, sizeof(name), "%s", port_name_.c_str());
			/* As the registry asks: a zeroed record with room for one element. */
			int qnum = zorv1_vdev_diag_ops.get_qnum_by_name(name);
			for (int qid = 0; qid < qnum; qid++) {
				auto ds = OneElement<zorv1_diag_stats, zorv1_diag_stats_data>();
				zorv1_vdev_diag_ops.get_queue_stats(name, qid, ds.get());
				auto qi = OneElement<zorv1_diag_queue_info, zorv1_diag_queue_info_data>();
				zorv1_vdev_diag_ops.get_queue_info(name, qid, qi.get());
				struct zorv1_vnet_diag_ring_info ri = {};
				zorv1_vdev_diag_ops.get_ring_info(name, qid, &ri);
			}
			auto pi = OneElement<zorv1_diag_port_info, zorv1_port_info_data>();
			zorv1_vdev_diag_ops.get_port_info(name, pi.get());
		}
		std::this_thread::sleep_for(std::chrono::microseconds(500));
	}

	/* ---- checks ---- */
	uint64_t PortPackets(bool rx)
	{
		struct rte_eth_stats st = {};
		rte_eth_stats_get(port_, &st);
		return rx ? st.ipackets : st.opackets;
	}
	void CheckCounters()
	{
		struct rte_eth_stats st = {};
		ASSERT_EQ(rte_eth_stats_get(port_, &st), 0);
		if (last_) {
			EXPECT_GE(st.ipackets, last_->ipackets) << "step " << step_;
			EXPECT_GE(st.opackets, last_->opackets) << "step " << step_;
			EXPECT_GE(st.ibytes, last_->ibytes) << "step " << step_;
		}
		last_ = st;
	}
	void CheckTraffic()
	{
		if (!(port_open_ && peer_open_ && started_))
			return;
		uint64_t rx = PortPackets(true), tx = PortPackets(false);
		bool moved = WaitFor(
			[&] { return PortPackets(true) >= rx + 16 && PortPackets(false) >= tx + 16; },
			10000);
		EXPECT_TRUE(moved) << "step " << step_ << ": started with the peer on ("
				   << peer_cfg_.str() << ", port queues " << port_queues_
				   << ") but no frames went round";
		traffic_checks_++;
	}

	/* Run one timed operation. */
	void Timed(const char *what, const std::function<void()> &op)
	{
		auto t0 = Clock::now();
		op();
		auto dt = Clock::now() - t0;
		EXPECT_LE(dt, bound_) << "step " << step_ << ": " << what << " took "
				      << std::chrono::duration_cast<milliseconds>(dt).count() << " ms";
		worst_ = std::max(worst_, dt);
		ops_[what]++;
	}

	PeerCfg RandomPeer()
	{
		PeerCfg c;
		c.queues = static_cast<uint16_t>(1 + rnd_() % 2);
		c.packed = rnd_() % 2 != 0;
		c.mrg = rnd_() % 2 != 0;
		return c;
	}

	void Step(Worker &poller, Worker &sibling, Worker &reader)
	{
		switch (rnd_() % 12) {
		case 0:
		case 1:
			Timed("stop/start", [&] {
				port_polled_ = false;
				ASSERT_EQ(rte_eth_dev_stop(port_), 0);
				started_ = false;
				if (rnd_() % 5 != 0) {
					ASSERT_EQ(rte_eth_dev_start(port_), 0);
					started_ = true;
					port_polled_ = true;
				}
			});
			break;
		case 2:
			Timed("queues", [&] {
				Paused p({&poller, &sibling, &reader});
				SetQueues(static_cast<uint16_t>(1 + rnd_() % 2));
			});
			break;
		case 3:
			Timed("re-create", [&] {
				Paused p({&poller, &sibling, &reader});
				/* Closed under a connected peer: the close ends its connection. */
				ClosePort();
				DetachPeer();
				CreatePort(static_cast<uint16_t>(1 + rnd_() % 2));
			});
			break;
		case 4:
		case 5:
			Timed("peer attach", [&] {
				Paused p({&poller});
				DetachPeer();
				AttachPeer(RandomPeer());
			});
			break;
		case 6:
			Timed("peer detach", [&] {
				Paused p({&poller});
				DetachPeer();
			});
			break;
		case 7:
			Timed("mtu", [&] {
				static const uint16_t mtus[] = {1500, 1400, 9000};
				EXPECT_EQ(rte_eth_dev_set_mtu(port_, mtus[rnd_() % 3]), 0);
			});
			break;
		case 8:
			Timed("reset", [&] {
				if (rnd_() % 2)
					EXPECT_EQ(rte_eth_stats_reset(port_), 0);
				else
					EXPECT_EQ(rte_eth_xstats_reset(port_), 0);
				last_.reset();
			});
			break;
		case 9:
			Timed("flow", [&] { FlowStep(); });
			break;
		default:
			if (!started_)
				Timed("start", [&] {
					ASSERT_EQ(rte_eth_dev_start(port_), 0);
					started_ = true;
					port_polled_ = true;
				});
			else if (!peer_open_)
				Timed("peer attach", [&] {
					Paused p({&poller});
					AttachPeer(RandomPeer());
				});
			break;
		}
	}

	void FlowStep()
	{
		struct rte_flow_error err;
		if (!flows_.empty() && rnd_() % 2) {
			struct rte_flow *f = flows_.back();
			flows_.pop_back();
			EXPECT_EQ(rte_flow_destroy(port_, f, &err), 0);
			return;
		}
		struct rte_flow_attr attr = {};
		attr.ingress = 1;
		struct rte_flow_item_udp udp = {}, mask = {};
		udp.hdr.dst_port = rte_cpu_to_be_16(static_cast<uint16_t>(1000 + rnd_() % 1000));
		mask.hdr.dst_port = 0xffff;
		struct rte_flow_item pattern[] = {
			{.type = RTE_FLOW_ITEM_TYPE_ETH, .spec = nullptr, .last = nullptr, .mask = nullptr},
			{.type = RTE_FLOW_ITEM_TYPE_IPV4, .spec = nullptr, .last = nullptr, .mask = nullptr},
			{.type = RTE_FLOW_ITEM_TYPE_UDP, .spec = &udp, .last = nullptr, .mask = &mask},
			{.type = RTE_FLOW_ITEM_TYPE_END, .spec = nullptr, .last = nullptr, .mask = nullptr},
		};
		struct rte_flow_action_queue queue = {.index = 0};
		struct rte_flow_action actions[] = {
			{.type = RTE_FLOW_ACTION_TYPE_QUEUE, .conf = &queue},
			{.type = RTE_FLOW_ACTION_TYPE_END, .conf = nullptr},
		};
		struct rte_flow *f = rte_flow_create(port_, &attr, pattern, actions, &err);
		EXPECT_NE(f, nullptr) << (err.message != nullptr ? err.message : "");
		if (f != nullptr)
			flows_.push_back(f);
	}

	unsigned long seed_ = 0, steps_ = 0;
	unsigned long step_ = 0;
	Clock::duration bound_{};
	Clock::duration worst_{};
	std::mt19937 rnd_;
	std::string dir_, sock_, port_name_, peer_name_;
	std::optional<zorv_test::MbufPool> port_pool_, peer_pool_, tx_pool_;
	/* Written by the control thread only while the poller and reader are paused. */
	uint16_t port_ = 0, peer_ = 0, port_queues_ = 1;
	bool port_open_ = false, peer_open_ = false;
	PeerCfg peer_cfg_;
	/* The control thread's own. */
	bool started_ = false;
	/* The poller polls the port while set; cleared before a stop. */
	std::atomic<bool> port_polled_{false};
	std::vector<struct rte_flow *> flows_;
	std::optional<struct rte_eth_stats> last_;
	std::map<std::string, unsigned> ops_;
	unsigned traffic_checks_ = 0;
	int seq_ = 0;
};

TEST_F(ChaosThreads, RandomInterleavingsKeepEveryInvariant)
{
	port_pool_.emplace(4095);
	peer_pool_.emplace(4095);
	tx_pool_.emplace(2047);
	/* What the first connection and traffic allocate once. */
	ASSERT_NO_FATAL_FAILURE(CreatePort(1));
	ASSERT_NO_FATAL_FAILURE(AttachPeer(PeerCfg{}));
	ASSERT_TRUE(WaitFor([&] { return LinkUp(port_); }));
	DetachPeer();
	ClosePort();
	const HeapUse heap0 = Heap();
	const size_t files0 = OpenFiles();

	ASSERT_NO_FATAL_FAILURE(CreatePort(1));
	Worker poller, sibling, reader;
	std::mt19937 sibling_rnd(static_cast<unsigned>(seed_ + 1));
	poller.Start([this] { PollRound(); });
	sibling.Start([this, &sibling_rnd] { SiblingRound(sibling_rnd); });
	reader.Start([this] { ReadRound(); });

	auto t0 = Clock::now();
	for (step_ = 1; step_ <= steps_ && !HasFatalFailure(); step_++) {
		Step(poller, sibling, reader);
		if (port_open_) {
			CheckCounters();
			CheckTraffic();
		}
		if (HasFailure())
			break;
	}

	poller.Stop();
	sibling.Stop();
	reader.Stop();
	DetachPeer();
	ClosePort();

	const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
	printf("chaos done: seed %lu, %lu steps in %.1f s, worst operation %.0f ms, %u traffic "
	       "checks, poller rounds %" PRIu64 ", sibling rounds %" PRIu64 ", reader rounds %" PRIu64
	       "\n",
	       seed_, step_ - 1, secs,
	       std::chrono::duration<double, std::milli>(worst_).count(), traffic_checks_,
	       poller.rounds(), sibling.rounds(), reader.rounds());
	for (const auto &[what, n] : ops_)
		printf("  %-12s %u\n", what.c_str(), n);

	EXPECT_TRUE(WaitFor([&] { return port_pool_->InUse() == 0 && peer_pool_->InUse() == 0 &&
					   tx_pool_->InUse() == 0; }))
		<< "mbufs still out: port pool " << port_pool_->InUse() << ", peer pool "
		<< peer_pool_->InUse() << ", transmit pool " << tx_pool_->InUse();
	HeapUse heap1{};
	EXPECT_TRUE(WaitFor([&] { return (heap1 = Heap()) == heap0; }))
		<< "DPDK heap: " << heap1.bytes << " bytes in " << heap1.count << " blocks, at start "
		<< heap0.bytes << " in " << heap0.count;
	EXPECT_TRUE(WaitFor([&] { return OpenFiles() == files0; }))
		<< "open files: " << OpenFiles() << ", at start " << files0;
}

} // namespace
