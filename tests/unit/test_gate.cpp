/* SPDX-License-Identifier: BSD-3-Clause
 * The queuing gate of the zorv1 port: the per-port update that follows the
 * started and binding state and drives the link, and the device-wide
 * transmit disable / enable / PCI hash update.
 */
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_ethdev.h>
#include <rte_malloc.h>

#include "zorv1_ethdev.h"
#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_ethdev.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using zorv_fake::FakeEnv;
using zorv_fake::PciHash;
using zorv_test::FakePort;
using zorv_test::LogCapture;

namespace {

using zorv_test::LscWatch;

using namespace std::chrono_literals;

constexpr const char *kUpdateFn = "zorv1_update_queuing_status";

int32_t Allow(const void *q)
{
	return __atomic_load_n(&static_cast<const rte_atomic32_t *>(q)->cnt, __ATOMIC_SEQ_CST);
}

int32_t Busy(const struct zorv1_vdev_rxq *q)
{
	return __atomic_load_n(&q->while_queuing.cnt, __ATOMIC_SEQ_CST);
}

int32_t Busy(const struct zorv1_vdev_txq *q)
{
	return __atomic_load_n(&q->while_queuing.cnt, __ATOMIC_SEQ_CST);
}

/*
 * A fake port with real, zeroed queue records hung into its queue arrays.
 * Queue records are the test's: freed after the port is released.
 */
class GatePort {
public:
	GatePort(uint16_t nb_rx, uint16_t nb_tx)
		: port_(FakePort::Options{.nb_rx_queues = nb_rx, .nb_tx_queues = nb_tx})
	{
		if (!port_)
			return;
		auto *in = port_.internal();
		in->vid = -1;
		in->sfi = INVALID_SFI;
		for (uint16_t i = 0; i < nb_rx; i++) {
			auto *q = static_cast<struct zorv1_vdev_rxq *>(
				rte_zmalloc("t2_rxq", sizeof(struct zorv1_vdev_rxq), RTE_CACHE_LINE_SIZE));
			q->internal = in;
			q->port = port_.port_id();
			q->virtqueue_id = 2 * i;
			q->mb_pool = zorv_test::SharedMbufPool();
			port_.data()->rx_queues[i] = q;
			rxqs_.push_back(q);
		}
		for (uint16_t i = 0; i < nb_tx; i++) {
			auto *q = static_cast<struct zorv1_vdev_txq *>(
				rte_zmalloc("t2_txq", sizeof(struct zorv1_vdev_txq), RTE_CACHE_LINE_SIZE));
			q->internal = in;
			q->port = port_.port_id();
			q->virtqueue_id = 2 * i + 1;
			port_.data()->tx_queues[i] = q;
			txqs_.push_back(q);
		}
	}

	~GatePort()
	{
		port_.Release();
		for (auto *q : rxqs_)
			rte_free(q);
		for (auto *q : txqs_)
			rte_free(q);
	}

	FakePort &port() { return port_; }
	struct rte_eth_dev *dev() { return port_.dev(); }
	struct zorv1_internal *internal() { return port_.internal(); }
	struct zorv1_vdev_rxq *rxq(size_t i) { return rxqs_.at(i); }
	struct zorv1_vdev_txq *txq(size_t i) { return txqs_.at(i); }
	const std::vector<struct zorv1_vdev_rxq *> &rxqs() const { return rxqs_; }
	const std::vector<struct zorv1_vdev_txq *> &txqs() const { return txqs_; }
	uint8_t link() { return static_cast<uint8_t>(port_.data()->dev_link.link_status); }

	std::vector<int32_t> RxGates() const
	{
		std::vector<int32_t> v;
		for (auto *q : rxqs_)
			v.push_back(Allow(q));
		return v;
	}
	std::vector<int32_t> TxGates() const
	{
		std::vector<int32_t> v;
		for (auto *q : txqs_)
			v.push_back(Allow(q));
		return v;
	}
	void SetAllGates(int32_t value)
	{
		for (auto *q : rxqs_)
			rte_atomic32_set(&q->allow_queuing, value);
		for (auto *q : txqs_)
			rte_atomic32_set(&q->allow_queuing, value);
	}

private:
	FakePort port_;
	std::vector<struct zorv1_vdev_rxq *> rxqs_;
	std::vector<struct zorv1_vdev_txq *> txqs_;
};

/*
 * The wait-time lines of one direction ("rx" or "tx") with their
 * microseconds, in log order. Every captured line of the update that names
 * the direction's wait must match the whole format exactly, padding
 * included; otherwise the test fails.
 */
std::vector<unsigned long> WaitLines(const LogCapture &cap, const std::string &dir, uint16_t nb_q)
{
	const std::string head = std::string("[offload_smartnic] ") + kUpdateFn + "-";
	const std::string key = ": " + dir + "_queues_wait=";
	std::vector<unsigned long> out;
	for (const auto &e : cap.Entries()) {
		const size_t pos = e.text.find(key);
		if (e.text.rfind(head, 0) != 0 || pos == std::string::npos)
			continue;
		const char *num = e.text.c_str() + pos + key.size();
		if (!std::isdigit(static_cast<unsigned char>(*num))) {
			ADD_FAILURE() << "no number in \"" << e.text << "\"";
			continue;
		}
		const unsigned long us = std::strtoul(num, nullptr, 10);
		char expected[128];
		if (dir == "rx")
			snprintf(expected, sizeof(expected), "rx_queues_wait=%-6lu(us), nb_rx_q=%-2hu, \n",
				 us, nb_q);
		else
			snprintf(expected, sizeof(expected), "tx_queues_wait=%-6lu(us), nb_tx_q=%-2hu.\n",
				 us, nb_q);
		EXPECT_TRUE(zorv_test::MatchesZorvLine(e.text, kUpdateFn, expected))
			<< "got: \"" << e.text << "\"\nwant the message: \"" << expected << "\"";
		EXPECT_EQ(e.level, static_cast<int>(RTE_LOG_DEBUG)) << e.text;
		EXPECT_EQ(e.logtype, zorv1_vdev_logtype_cfg) << e.text;
		out.push_back(us);
	}
	return out;
}

/* The message with its "-<line>: " part replaced by "-#: ". */
std::string WithoutLineNumber(const std::string &text)
{
	const size_t dash = text.find('-');
	size_t end = dash + 1;
	while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])))
		end++;
	if (dash == std::string::npos || end == dash + 1 || text.compare(end, 2, ": ") != 0)
		return text;
	return text.substr(0, dash) + "-#" + text.substr(end);
}

/* Messages (whole rte_log messages, all their newlines included) of func. */
int CountMessages(const LogCapture &cap, int level, const std::string &func, const std::string &msg)
{
	int n = 0;
	for (const auto &e : cap.Entries())
		n += (e.level == level && e.logtype == zorv1_vdev_logtype_cfg &&
		      zorv_test::MatchesZorvLine(e.text, func, msg))
			     ? 1
			     : 0;
	return n;
}

std::string Msg(const char *fmt, int a, int b)
{
	char buf[128];
	snprintf(buf, sizeof(buf), fmt, a, b);
	return buf;
}

std::string Msg3(const char *fmt, int a, int b, int c)
{
	char buf[128];
	snprintf(buf, sizeof(buf), fmt, a, b, c);
	return buf;
}

/*
 * A transport handler that holds the burst inside the queue until released.
 * The destructor releases it and joins the burst's thread, so a failing
 * assertion never leaves a thread blocked.
 */
class HeldBurst {
public:
	HeldBurst() = default;
	~HeldBurst() { Finish(); }
	HeldBurst(const HeldBurst &) = delete;
	HeldBurst &operator=(const HeldBurst &) = delete;

	/* Transport handler body: mark inside, block, then hand back `give`. */
	uint16_t Hold(uint16_t give)
	{
		inside_ = true;
		while (!release_)
			std::this_thread::sleep_for(100us);
		inside_ = false;
		return give;
	}

	void Run(std::function<uint16_t()> burst)
	{
		thread_ = std::thread([this, burst] { result_ = burst(); done_ = true; });
	}

	bool WaitInside(std::chrono::milliseconds limit = 5000ms)
	{
		auto until = std::chrono::steady_clock::now() + limit;
		while (!inside_ && std::chrono::steady_clock::now() < until)
			std::this_thread::sleep_for(100us);
		return inside_;
	}

	void Release() { release_ = true; }
	void Finish()
	{
		release_ = true;
		if (thread_.joinable())
			thread_.join();
	}
	bool done() const { return done_; }
	uint16_t result() const { return result_; }

private:
	std::atomic<bool> inside_{false};
	std::atomic<bool> release_{false};
	std::atomic<bool> done_{false};
	std::atomic<uint16_t> result_{0};
	std::thread thread_;
};

/* Runs a control operation on its own thread; joined at scope end. */
class ControlThread {
public:
	explicit ControlThread(std::function<void()> op)
		: thread_([this, op] {
			  op();
			  returned_ = true;
		  })
	{
	}
	~ControlThread()
	{
		if (thread_.joinable())
			thread_.join();
	}
	bool returned() const { return returned_; }
	void Join() { thread_.join(); }

private:
	std::atomic<bool> returned_{false};
	std::thread thread_;
};

template <typename Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds limit = 5000ms)
{
	auto until = std::chrono::steady_clock::now() + limit;
	while (!pred()) {
		if (std::chrono::steady_clock::now() >= until)
			return false;
		std::this_thread::sleep_for(100us);
	}
	return true;
}

/* A link-change callback that takes 300 ms. */
int SlowLsc(uint16_t, enum rte_eth_event_type, void *, void *)
{
	std::this_thread::sleep_for(300ms);
	return 0;
}

class GateTest : public FakeEnv {};
class DeviceWideTxqTest : public FakeEnv {};

} // namespace

/* ------------------------------------------------------------------ per-port update */

TEST_F(GateTest, StartWithoutBoundSfiKeepsGatesClosedThenBindingOpensThemAndLinkUp)
{
	GatePort p(2, 2);
	ASSERT_TRUE(p.port());
	p.internal()->vid = 9;
	f.dev.Place(p.port().port_id(), p.dev());
	LscWatch lsc(p.port().port_id());

	ASSERT_EQ(eth_dev_start(p.dev()), 0);
	EXPECT_EQ(p.internal()->started, 1);
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0));
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	/* The link event ran in this thread before start returned. */
	auto ev = lsc.events();
	ASSERT_EQ(ev.size(), 1u);
	EXPECT_EQ(ev[0].thread, std::this_thread::get_id());
	EXPECT_EQ(ev[0].link_status, RTE_ETH_LINK_DOWN);

	/* The connection's hardware function is bound, then its queues are ready. */
	zorv1_set_internal_sfi(9, 17);
	ASSERT_EQ(p.internal()->sfi, 17u);
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0)) << "binding alone does not open the gate";
	ASSERT_EQ(zorv1_dpu_dev_queue_setup(9), 0);

	EXPECT_THAT(p.RxGates(), ElementsAre(1, 1));
	EXPECT_THAT(p.TxGates(), ElementsAre(1, 1));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_UP);
	ev = lsc.events();
	ASSERT_EQ(ev.size(), 2u);
	EXPECT_EQ(ev[1].thread, std::this_thread::get_id());
	EXPECT_EQ(ev[1].link_status, RTE_ETH_LINK_UP);
}

TEST_F(GateTest, OnlyStartedAndBoundSfiOpenTheGateTheConnectionIdDoesNot)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	LscWatch lsc(p.port().port_id());
	struct Case {
		int started;
		uint32_t sfi;
		int vid;
		int32_t want;
	} cases[] = {
		{0, INVALID_SFI, -1, 0}, {1, INVALID_SFI, 4, 0}, {0, 3, 4, 0},
		{1, 3, -1, 1},           {1, 0, 4, 1},           {1, 0xFFFFFFFEu, 4, 1},
	};
	size_t n = 0;
	for (const auto &c : cases) {
		/* Start from the opposite state so that every store shows. */
		p.SetAllGates(1 - c.want);
		p.port().data()->dev_link.link_status = 1 - c.want;
		p.internal()->started = c.started;
		p.internal()->sfi = c.sfi;
		p.internal()->vid = c.vid;
		zorv1_update_queuing_status(p.dev(), false);
		n++;
		EXPECT_THAT(p.RxGates(), ElementsAre(c.want)) << c.started << " " << c.sfi << " " << c.vid;
		EXPECT_THAT(p.TxGates(), ElementsAre(c.want)) << c.started << " " << c.sfi << " " << c.vid;
		EXPECT_EQ(p.link(), c.want);
		EXPECT_EQ(lsc.count(), n);
	}
}

TEST_F(GateTest, StopWaitsForReceiveBurstInsideThenReportsLinkDownAndLogsWaitTimes)
{
	GatePort p(2, 2);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 5;
	zorv1_update_queuing_status(p.dev(), false);
	ASSERT_THAT(p.RxGates(), ElementsAre(1, 1));
	ASSERT_EQ(p.link(), RTE_ETH_LINK_UP);
	LscWatch lsc(p.port().port_id());

	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	struct rte_mbuf *bufs[4];
	/* Declared before the held burst so that, on an early return, the burst
	 * is released before the stop's thread is joined. */
	std::optional<ControlThread> stop;
	HeldBurst held;
	f.transport.dequeue = [&](struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t) {
		return held.Hold(0);
	};
	held.Run([&] { return eth_vhost_rx(p.rxq(0), bufs, 4); });
	ASSERT_TRUE(held.WaitInside());
	ASSERT_EQ(Busy(p.rxq(0)), 1);

	const auto t0 = std::chrono::steady_clock::now();
	stop.emplace([&] { eth_dev_stop(p.dev()); });
	ASSERT_TRUE(WaitFor([&] { return Allow(p.rxq(0)) == 0; })) << "stop never closed the gate";
	std::this_thread::sleep_for(300ms);
	EXPECT_FALSE(stop->returned()) << "stop returned while a burst was inside the queue";
	EXPECT_FALSE(held.done());
	/* Still draining the first queue: the link has not been touched yet. */
	EXPECT_EQ(p.link(), RTE_ETH_LINK_UP);
	EXPECT_EQ(lsc.count(), 0u);

	held.Release();
	stop->Join();
	const auto waited_us = std::chrono::duration_cast<std::chrono::microseconds>(
				       std::chrono::steady_clock::now() - t0)
				       .count();
	held.Finish();
	EXPECT_TRUE(stop->returned());
	EXPECT_EQ(held.result(), 0);
	EXPECT_EQ(Busy(p.rxq(0)), 0);
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0));
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	auto ev = lsc.events();
	ASSERT_EQ(ev.size(), 1u);
	EXPECT_EQ(ev[0].link_status, RTE_ETH_LINK_DOWN);

	auto rx = WaitLines(cap, "rx", 2);
	auto tx = WaitLines(cap, "tx", 2);
	ASSERT_EQ(rx.size(), 1u) << cap.Text();
	ASSERT_EQ(tx.size(), 1u) << cap.Text();
	/* The receive phase contains the whole hold; the transmit phase none of it. */
	EXPECT_GE(rx[0], 250000u);
	EXPECT_LE(rx[0], static_cast<unsigned long>(waited_us) + 1000);
	EXPECT_LT(tx[0], 250000u);
	/* The receive line comes first. */
	auto lines = cap.Lines();
	ASSERT_EQ(lines.size(), 2u) << cap.Text();
	EXPECT_NE(lines[0].find("rx_queues_wait="), std::string::npos);
	EXPECT_NE(lines[1].find("tx_queues_wait="), std::string::npos);
}

TEST_F(GateTest, StopWaitsForTransmitBurstInsideAndCountsItInTheTransmitWait)
{
	GatePort p(1, 3);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 5;
	zorv1_update_queuing_status(p.dev(), false);

	struct rte_mbuf *m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64,
						  zorv_test::kUnicastMac);
	ASSERT_NE(m, nullptr);
	zorv_test::MbufPtr owner(m);
	struct rte_mbuf *bufs[1] = {m};
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	std::optional<ControlThread> stop;
	HeldBurst held;
	f.transport.enqueue = [&](struct zorv1_vdev_txq *, struct rte_mbuf **, uint16_t) {
		return held.Hold(0);
	};
	held.Run([&] { return eth_vhost_tx(p.txq(1), bufs, 1); });
	ASSERT_TRUE(held.WaitInside());

	stop.emplace([&] { eth_dev_stop(p.dev()); });
	ASSERT_TRUE(WaitFor([&] { return Allow(p.txq(1)) == 0; }));
	std::this_thread::sleep_for(300ms);
	EXPECT_FALSE(stop->returned());
	/* Receive queues were closed first; queue 0 was closed before queue 1,
	 * queue 2 is only closed once queue 1 has drained. */
	EXPECT_THAT(p.RxGates(), ElementsAre(0));
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0, 1));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_UP);

	held.Release();
	stop->Join();
	held.Finish();
	EXPECT_EQ(held.result(), 0);
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(Busy(p.txq(1)), 0);

	auto rx = WaitLines(cap, "rx", 1);
	auto tx = WaitLines(cap, "tx", 3);
	ASSERT_EQ(rx.size(), 1u) << cap.Text();
	ASSERT_EQ(tx.size(), 1u) << cap.Text();
	EXPECT_LT(rx[0], 250000u);
	EXPECT_GE(tx[0], 250000u);
}

TEST_F(GateTest, StopWaitsForEveryBurstInsideTheQueueNotJustOne)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 5;
	zorv1_update_queuing_status(p.dev(), false);

	struct rte_mbuf *bufs_a[2], *bufs_b[2];
	std::optional<ControlThread> stop;
	HeldBurst a, b;
	std::atomic<int> order{0};
	f.transport.dequeue = [&](struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t) {
		return (order.fetch_add(1) == 0 ? a : b).Hold(0);
	};
	a.Run([&] { return eth_vhost_rx(p.rxq(0), bufs_a, 2); });
	ASSERT_TRUE(a.WaitInside());
	b.Run([&] { return eth_vhost_rx(p.rxq(0), bufs_b, 2); });
	ASSERT_TRUE(b.WaitInside());
	ASSERT_EQ(Busy(p.rxq(0)), 2);

	stop.emplace([&] { eth_dev_stop(p.dev()); });
	ASSERT_TRUE(WaitFor([&] { return Allow(p.rxq(0)) == 0; }));
	a.Finish();
	EXPECT_EQ(Busy(p.rxq(0)), 1);
	std::this_thread::sleep_for(200ms);
	EXPECT_FALSE(stop->returned()) << "stop returned while a second burst was still inside";

	b.Release();
	stop->Join();
	EXPECT_EQ(Busy(p.rxq(0)), 0);
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
}

TEST_F(GateTest, ReceiveQueuesAreClosedAndDrainedOneAfterAnother)
{
	GatePort p(3, 1);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 1;
	zorv1_update_queuing_status(p.dev(), false);

	struct rte_mbuf *bufs[2];
	std::optional<ControlThread> update;
	HeldBurst held;
	f.transport.dequeue = [&](struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t) {
		return held.Hold(0);
	};
	held.Run([&] { return eth_vhost_rx(p.rxq(1), bufs, 2); });
	ASSERT_TRUE(held.WaitInside());

	p.internal()->started = 0;
	update.emplace([&] { zorv1_update_queuing_status(p.dev(), true); });
	ASSERT_TRUE(WaitFor([&] { return Allow(p.rxq(1)) == 0; }));
	std::this_thread::sleep_for(100ms);
	EXPECT_FALSE(update->returned());
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0, 1));
	EXPECT_THAT(p.TxGates(), ElementsAre(1));

	held.Release();
	update->Join();
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0, 0));
	EXPECT_THAT(p.TxGates(), ElementsAre(0));
}

TEST_F(GateTest, UpdateWithoutWaitingClosesButDoesNotWaitForBurstInside)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 1;
	zorv1_update_queuing_status(p.dev(), false);

	struct rte_mbuf *bufs[2];
	HeldBurst held;
	f.transport.dequeue = [&](struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t) {
		return held.Hold(0);
	};
	held.Run([&] { return eth_vhost_rx(p.rxq(0), bufs, 2); });
	ASSERT_TRUE(held.WaitInside());

	/* Not started any more, but the caller does not ask to wait. */
	p.internal()->started = 0;
	zorv1_update_queuing_status(p.dev(), false);
	EXPECT_FALSE(held.done());
	EXPECT_EQ(Busy(p.rxq(0)), 1);
	EXPECT_THAT(p.RxGates(), ElementsAre(0));
	EXPECT_THAT(p.TxGates(), ElementsAre(0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	held.Finish();
	EXPECT_EQ(Busy(p.rxq(0)), 0);
}

TEST_F(GateTest, WaitTimesAreLoggedEvenWhenNothingIsAwaited)
{
	GatePort p(2, 11);
	ASSERT_TRUE(p.port());
	p.internal()->sfi = 2;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	ASSERT_EQ(eth_dev_start(p.dev()), 0);
	auto rx = WaitLines(cap, "rx", 2);
	auto tx = WaitLines(cap, "tx", 11);
	ASSERT_EQ(rx.size(), 1u) << cap.Text();
	ASSERT_EQ(tx.size(), 1u) << cap.Text();
	/* Nothing to wait for: well under a second each. */
	EXPECT_LT(rx[0], 1000000u);
	EXPECT_LT(tx[0], 1000000u);
	/* Both phases are timed with the utilities' clock, later reading first. */
	ASSERT_EQ(f.util.calc_times.size(), 2u);
	EXPECT_EQ(f.util.calc_times[0].result, rx[0]);
	EXPECT_EQ(f.util.calc_times[1].result, tx[0]);
	EXPECT_EQ(f.util.calc_times[0].end, f.util.calc_times[1].start)
		<< "the transmit phase starts where the receive phase ends";
	EXPECT_GE(f.util.calc_times[0].end, f.util.calc_times[0].start);
	EXPECT_GE(f.util.calc_times[1].end, f.util.calc_times[1].start);
	EXPECT_EQ(cap.Entries().size(), 2u) << cap.Text();
}

TEST_F(GateTest, TransmitWaitTimeIncludesTheLinkCallbacks)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 1;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	const uint16_t port_id = p.port().port_id();
	ASSERT_EQ(rte_eth_dev_callback_register(port_id, RTE_ETH_EVENT_INTR_LSC, &SlowLsc, nullptr), 0);
	zorv1_update_queuing_status(p.dev(), false);
	rte_eth_dev_callback_unregister(port_id, RTE_ETH_EVENT_INTR_LSC, &SlowLsc, nullptr);

	auto rx = WaitLines(cap, "rx", 1);
	auto tx = WaitLines(cap, "tx", 1);
	ASSERT_EQ(rx.size(), 1u) << cap.Text();
	ASSERT_EQ(tx.size(), 1u) << cap.Text();
	/* Microseconds come from the TSC rate, an estimate: leave a margin. */
	EXPECT_LT(rx[0], 100000u);
	EXPECT_GE(tx[0], 250000u) << "the 300 ms callback belongs to the transmit phase";
}

TEST_F(GateTest, WaitTimesAreNotLoggedAtInfo)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);
	zorv1_update_queuing_status(p.dev(), true);
	EXPECT_EQ(cap.Text(), "");
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
}

TEST_F(GateTest, PortWithoutReceiveQueueArrayIsLeftAlone)
{
	GatePort p(0, 2);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.port().data()->rx_queues, nullptr);
	p.internal()->started = 1;
	p.internal()->sfi = 4;
	p.port().data()->dev_link.link_status = RTE_ETH_LINK_DOWN;
	LscWatch lsc(p.port().port_id());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_update_queuing_status(p.dev(), false);
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 0u);
	EXPECT_EQ(cap.Text(), "");
	EXPECT_TRUE(f.util.calc_times.empty());

	/* The same for a stop: the link keeps whatever it was. */
	p.port().data()->dev_link.link_status = RTE_ETH_LINK_UP;
	p.SetAllGates(1);
	zorv1_update_queuing_status(p.dev(), true);
	EXPECT_THAT(p.TxGates(), ElementsAre(1, 1));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_UP);
	EXPECT_EQ(lsc.count(), 0u);
	EXPECT_EQ(cap.Text(), "");
}

TEST_F(GateTest, PortWithoutTransmitQueueArrayIsLeftAlone)
{
	GatePort p(2, 0);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.port().data()->tx_queues, nullptr);
	p.internal()->started = 1;
	p.internal()->sfi = 4;
	p.port().data()->dev_link.link_status = RTE_ETH_LINK_DOWN;
	LscWatch lsc(p.port().port_id());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_update_queuing_status(p.dev(), false);
	EXPECT_THAT(p.RxGates(), ElementsAre(0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 0u);
	EXPECT_EQ(cap.Text(), "");
}

TEST_F(GateTest, NullReceiveSlotIsSkippedAndTheOthersAreUpdated)
{
	GatePort p(3, 2);
	ASSERT_TRUE(p.port());
	p.port().data()->rx_queues[1] = nullptr;
	p.internal()->started = 1;
	p.internal()->sfi = 8;
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_update_queuing_status(p.dev(), false);
	EXPECT_EQ(Allow(p.rxq(0)), 1);
	EXPECT_EQ(Allow(p.rxq(1)), 0) << "the record outside the array is not reached";
	EXPECT_EQ(Allow(p.rxq(2)), 1);
	EXPECT_THAT(p.TxGates(), ElementsAre(1, 1));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_UP);
	/* The count printed is the array's size, null slot included. */
	EXPECT_EQ(WaitLines(cap, "rx", 3).size(), 1u) << cap.Text();

	p.internal()->started = 0;
	zorv1_update_queuing_status(p.dev(), true);
	EXPECT_EQ(Allow(p.rxq(0)), 0);
	EXPECT_EQ(Allow(p.rxq(2)), 0);
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
}

TEST_F(GateTest, ClosedGateShutsBurstsOutAndReopenedGateLetsThemIn)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	f.transport.AcceptAll();
	f.transport.rx_pending.push_back(
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	struct rte_mbuf *bufs[4] = {};

	EXPECT_EQ(eth_vhost_rx(p.rxq(0), bufs, 4), 0);
	EXPECT_TRUE(f.transport.dequeues.empty());

	p.internal()->started = 1;
	p.internal()->sfi = 3;
	zorv1_update_queuing_status(p.dev(), false);
	ASSERT_EQ(eth_vhost_rx(p.rxq(0), bufs, 4), 1);
	ASSERT_EQ(eth_vhost_tx(p.txq(0), bufs, 1), 1);

	p.internal()->started = 0;
	zorv1_update_queuing_status(p.dev(), true);
	struct rte_mbuf *m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64,
						  zorv_test::kUnicastMac);
	zorv_test::MbufPtr owner(m);
	bufs[0] = m;
	EXPECT_EQ(eth_vhost_tx(p.txq(0), bufs, 1), 0);
	EXPECT_EQ(f.transport.enqueues.size(), 1u);
}

/* ------------------------------------------------------------------ device-wide */

TEST_F(DeviceWideTxqTest, DisableClosesEveryTransmitGateWhileReceiveKeepsWorking)
{
	GatePort a(2, 2), b(1, 3);
	ASSERT_TRUE(a.port());
	ASSERT_TRUE(b.port());
	a.internal()->vid = 6;
	a.internal()->started = 1;
	a.internal()->sfi = 60;
	zorv1_update_queuing_status(a.dev(), false);
	/* b is stopped and unbound; its gates were opened by someone else. */
	b.internal()->vid = 7;
	b.SetAllGates(1);
	b.port().data()->dev_link.link_status = RTE_ETH_LINK_DOWN;
	f.dev.Place(3, a.dev());
	f.dev.Place(700, b.dev());
	LscWatch lsc(a.port().port_id());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_dev_disable_all_txq_queuing();

	EXPECT_THAT(a.TxGates(), ElementsAre(0, 0));
	EXPECT_THAT(b.TxGates(), ElementsAre(0, 0, 0));
	EXPECT_THAT(a.RxGates(), ElementsAre(1, 1));
	EXPECT_THAT(b.RxGates(), ElementsAre(1));
	/* The link follows the per-port update only. */
	EXPECT_EQ(a.link(), RTE_ETH_LINK_UP);
	EXPECT_EQ(b.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 0u);
	/* One walk over the table, under the device manager's mutex. */
	EXPECT_EQ(f.dev.lock_count, 1u);
	EXPECT_EQ(f.dev.unlock_count, 1u);
	EXPECT_EQ(f.dev.slot_reads, 1024u);
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u);
	const char *fn = "zorv1_dev_disable_all_txq_queuing";
	EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, "disable vid 6 txq 0.\n\n"), 1) << cap.Text();
	EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, "disable vid 6 txq 1.\n\n"), 1) << cap.Text();
	for (int j = 0; j < 3; j++)
		EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, Msg("disable vid %d txq %d.\n\n", 7, j)),
			  1)
			<< cap.Text();
	EXPECT_EQ(cap.Entries().size(), 5u) << cap.Text();

	/* Transmit bursts are shut out; receive bursts still run. */
	f.transport.AcceptAll();
	struct rte_mbuf *m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64,
						  zorv_test::kUnicastMac);
	zorv_test::MbufPtr owner(m);
	struct rte_mbuf *tx[1] = {m};
	EXPECT_EQ(eth_vhost_tx(a.txq(0), tx, 1), 0);
	EXPECT_EQ(eth_vhost_tx(b.txq(2), tx, 1), 0);
	EXPECT_TRUE(f.transport.enqueues.empty());
	EXPECT_EQ(a.txq(0)->stats.missed_pkts, 0u);

	f.transport.rx_pending.push_back(
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	struct rte_mbuf *rx[4] = {};
	ASSERT_EQ(eth_vhost_rx(a.rxq(1), rx, 4), 1);
	zorv_test::MbufPtr got(rx[0]);
	EXPECT_EQ(f.transport.dequeues.size(), 1u);
}

TEST_F(DeviceWideTxqTest, DisableWaitsForTransmitBurstInside)
{
	GatePort p(1, 2);
	ASSERT_TRUE(p.port());
	p.internal()->started = 1;
	p.internal()->sfi = 1;
	zorv1_update_queuing_status(p.dev(), false);
	f.dev.Place(5, p.dev());

	struct rte_mbuf *m = zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64,
						  zorv_test::kUnicastMac);
	zorv_test::MbufPtr owner(m);
	struct rte_mbuf *bufs[1] = {m};
	std::optional<ControlThread> disable;
	HeldBurst held;
	f.transport.enqueue = [&](struct zorv1_vdev_txq *, struct rte_mbuf **, uint16_t) {
		return held.Hold(0);
	};
	held.Run([&] { return eth_vhost_tx(p.txq(0), bufs, 1); });
	ASSERT_TRUE(held.WaitInside());

	disable.emplace([] { zorv1_dev_disable_all_txq_queuing(); });
	ASSERT_TRUE(WaitFor([&] { return Allow(p.txq(0)) == 0; }));
	std::this_thread::sleep_for(200ms);
	EXPECT_FALSE(disable->returned());
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 1)) << "queue 1 waits for queue 0 to drain";
	EXPECT_TRUE(f.dev.MutexHeld());

	held.Release();
	disable->Join();
	held.Finish();
	EXPECT_THAT(p.TxGates(), ElementsAre(0, 0));
	EXPECT_EQ(Busy(p.txq(0)), 0);
	EXPECT_FALSE(f.dev.MutexHeld());
	EXPECT_THAT(p.RxGates(), ElementsAre(1));
}

TEST_F(DeviceWideTxqTest, EnableOpensEveryTransmitGateWhateverThePortStateWithoutLock)
{
	GatePort a(1, 2), b(2, 1);
	ASSERT_TRUE(a.port());
	ASSERT_TRUE(b.port());
	/* a: stopped, never connected; b: started but unbound. */
	b.internal()->vid = 12;
	b.internal()->started = 1;
	f.dev.Place(0, a.dev());
	f.dev.Place(1023, b.dev());
	LscWatch lsc(a.port().port_id());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_dev_enable_all_txq_queuing();

	EXPECT_THAT(a.TxGates(), ElementsAre(1, 1));
	EXPECT_THAT(b.TxGates(), ElementsAre(1));
	EXPECT_THAT(a.RxGates(), ElementsAre(0));
	EXPECT_THAT(b.RxGates(), ElementsAre(0, 0));
	EXPECT_EQ(a.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(b.link(), RTE_ETH_LINK_DOWN);
	EXPECT_EQ(lsc.count(), 0u);
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_EQ(f.dev.slot_reads, 1024u);
	const char *fn = "zorv1_dev_enable_all_txq_queuing";
	EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, "enable vid -1 txq 0.\n\n"), 1) << cap.Text();
	EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, "enable vid -1 txq 1.\n\n"), 1) << cap.Text();
	EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, fn, "enable vid 12 txq 0.\n\n"), 1) << cap.Text();
	EXPECT_EQ(cap.Entries().size(), 3u) << cap.Text();

	/* Open means open: a transmit burst on the stopped port goes through. */
	f.transport.AcceptAll();
	struct rte_mbuf *bufs[1] = {
		zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac)};
	EXPECT_EQ(eth_vhost_tx(a.txq(1), bufs, 1), 1);
}

TEST_F(DeviceWideTxqTest, UpdatePciHashOnUnconnectedPortHashesWithVidMinusOneAndOpensGates)
{
	GatePort p(1, 3);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.internal()->vid, -1);
	f.dev.Place(42, p.dev());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_dev_update_pci_hash();

	EXPECT_THAT(f.dev.pci_hash_calls,
		    ElementsAre(PciHash{-1, 0, true}, PciHash{-1, 1, true}, PciHash{-1, 2, true}));
	EXPECT_TRUE(f.dev.pci_hash_locked_calls.empty());
	/* The fake's default hash: (uint32_t)(vid * 31 + queue) % 16. */
	for (int j = 0; j < 3; j++) {
		const uint32_t want = static_cast<uint32_t>(-31 + j) % 16;
		EXPECT_EQ(p.txq(j)->pci_qid, want) << j;
		EXPECT_EQ(CountMessages(cap, RTE_LOG_DEBUG, "zorv1_dev_update_pci_hash",
					Msg3("update vid %d txq %d  hash to q %d.\n", -1, j,
					     static_cast<int>(want))),
			  1)
			<< cap.Text();
	}
	EXPECT_THAT(p.TxGates(), ElementsAre(1, 1, 1));
	EXPECT_THAT(p.RxGates(), ElementsAre(0));
	EXPECT_EQ(p.link(), RTE_ETH_LINK_DOWN);
}

TEST_F(DeviceWideTxqTest, UpdatePciHashStoresEveryQueuesHashThenEnablesUnderTheMutex)
{
	GatePort a(1, 2), b(1, 1);
	ASSERT_TRUE(a.port());
	ASSERT_TRUE(b.port());
	a.internal()->vid = 3;
	b.internal()->vid = 250;
	f.dev.Place(10, a.dev());
	f.dev.Place(11, b.dev());
	f.dev.pci_hash = [](int vid, int q) { return static_cast<uint32_t>(1000 + vid * 10 + q); };
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);

	zorv1_dev_update_pci_hash();

	EXPECT_EQ(a.txq(0)->pci_qid, 1030u);
	EXPECT_EQ(a.txq(1)->pci_qid, 1031u);
	EXPECT_EQ(b.txq(0)->pci_qid, 3500u);
	EXPECT_THAT(a.TxGates(), ElementsAre(1, 1));
	EXPECT_THAT(b.TxGates(), ElementsAre(1));
	/* One lock around the hash walk and the enable walk. */
	EXPECT_EQ(f.dev.lock_count, 1u);
	EXPECT_EQ(f.dev.unlock_count, 1u);
	EXPECT_EQ(f.dev.slot_reads, 2048u);
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u) << "the enable walk ran without the mutex";
	EXPECT_THAT(f.NamesOf({"zorv1_dev_mutex_lock", "zorv1_pci_get_idx_by_hash",
			       "zorv1_dev_mutex_unlock"}),
		    ElementsAre("zorv1_dev_mutex_lock", "zorv1_pci_get_idx_by_hash",
				"zorv1_pci_get_idx_by_hash", "zorv1_pci_get_idx_by_hash",
				"zorv1_dev_mutex_unlock"));

	/* Hash lines of every queue first, then the enable lines. */
	std::vector<std::string> want = {
		"[offload_smartnic] zorv1_dev_update_pci_hash-#: update vid 3 txq 0  hash to q 1030.\n",
		"[offload_smartnic] zorv1_dev_update_pci_hash-#: update vid 3 txq 1  hash to q 1031.\n",
		"[offload_smartnic] zorv1_dev_update_pci_hash-#: update vid 250 txq 0  hash to q 3500.\n",
		"[offload_smartnic] zorv1_dev_enable_all_txq_queuing-#: enable vid 3 txq 0.\n\n",
		"[offload_smartnic] zorv1_dev_enable_all_txq_queuing-#: enable vid 3 txq 1.\n\n",
		"[offload_smartnic] zorv1_dev_enable_all_txq_queuing-#: enable vid 250 txq 0.\n\n",
	};
	std::vector<std::string> got;
	for (const auto &e : cap.Entries()) {
		EXPECT_EQ(e.level, static_cast<int>(RTE_LOG_DEBUG)) << e.text;
		got.push_back(WithoutLineNumber(e.text));
	}
	EXPECT_THAT(got, ElementsAreArray(want));
}

TEST_F(DeviceWideTxqTest, EmptyTableChangesNothingAndLogsNothing)
{
	GatePort p(1, 1);
	ASSERT_TRUE(p.port());
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_DEBUG);
	zorv1_dev_update_pci_hash();
	zorv1_dev_enable_all_txq_queuing();
	EXPECT_THAT(p.TxGates(), ElementsAre(0));
	p.SetAllGates(1);
	zorv1_dev_disable_all_txq_queuing();
	EXPECT_THAT(p.TxGates(), ElementsAre(1));
	EXPECT_EQ(cap.Text(), "");
	EXPECT_TRUE(f.dev.pci_hash_calls.empty());
}
