/* SPDX-License-Identifier: BSD-3-Clause
 * The diagnostics operations the port installs for the family's
 * diagnostics registry: queue count, ring state, port information, queue
 * statistics and queue information, looked up by port name. Records are
 * allocated here the way the registry does: a zeroed head followed by room
 * for N elements of the union's size.
 */
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_ring.h>

#include <ethdev_driver.h>

#include "zorv1_diag.h"
#include "zorv1_diag_struct.h"
#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using zorv_fake::FakeEnv;
using zorv_test::FakePort;
using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

namespace {

/* A diagnostics record: zeroed head plus `n` elements of type Elem. */
template <typename Rec, typename Elem>
class DiagRecord {
public:
	explicit DiagRecord(size_t n)
		: bytes_(sizeof(Rec) + n * sizeof(Elem)),
		  words_(new uint64_t[(bytes_ + 7) / 8]())
	{
	}
	Rec *get() { return reinterpret_cast<Rec *>(words_.get()); }
	Rec *operator->() { return get(); }
	/* Element i, located by byte arithmetic on the union's size. */
	Elem *At(size_t i)
	{
		return reinterpret_cast<Elem *>(reinterpret_cast<char *>(words_.get()) + sizeof(Rec) +
						i * sizeof(Elem));
	}

private:
	size_t bytes_;
	std::unique_ptr<uint64_t[]> words_;
};

using QueueInfo = DiagRecord<zorv1_diag_queue_info, zorv1_diag_queue_info_data>;
using QueueStats = DiagRecord<zorv1_diag_stats, zorv1_diag_stats_data>;
using PortInfo = DiagRecord<zorv1_diag_port_info, zorv1_port_info_data>;

/* A port with queue records of its own, in the device manager's slot 3. */
class DiagTest : public FakeEnv {
protected:
	static constexpr const char *kName = "zorv_diag_port";

	void MakePort(uint16_t nb_rx, uint16_t nb_tx)
	{
		port_ = std::make_unique<FakePort>(
			FakePort::Options{.name = kName, .nb_rx_queues = nb_rx, .nb_tx_queues = nb_tx});
		struct zorv1_internal *in = port_->internal();
		in->vid = 5;
		in->sfi = 12;
		in->started = 1;
		rxq_.assign(nb_rx, zorv1_vdev_rxq{});
		txq_.assign(nb_tx, zorv1_vdev_txq{});
		for (uint16_t i = 0; i < nb_rx; i++) {
			auto &q = rxq_[i];
			q.internal = in;
			q.port = port_->port_id();
			q.virtqueue_id = static_cast<uint16_t>(2 * i);
			q.local_id = 40 + i;
			q.nb_rx_desc = static_cast<uint16_t>(256 + i);
			rte_atomic32_set(&q.allow_queuing, 1);
			rte_atomic32_set(&q.while_queuing, static_cast<int32_t>(i));
			FillStats(&q.stats, 1000 * (i + 1));
			port_->data()->rx_queues[i] = &q;
		}
		for (uint16_t i = 0; i < nb_tx; i++) {
			auto &q = txq_[i];
			q.internal = in;
			q.port = port_->port_id();
			q.virtqueue_id = static_cast<uint16_t>(2 * i + 1);
			q.pci_qid = 70 + i;
			rte_atomic32_set(&q.allow_queuing, static_cast<int32_t>(i % 2));
			rte_atomic32_set(&q.while_queuing, static_cast<int32_t>(10 + i));
			FillStats(&q.stats, 500000 + 1000 * i);
			port_->data()->tx_queues[i] = &q;
		}
		f.dev.Place(3, port_->dev());
	}

	/* Distinct counter values: base + position. */
	static void FillStats(zorv1_vdev_stats *s, uint64_t base)
	{
		s->pkts = base + 1;
		s->bytes = base + 2;
		s->missed_pkts = base + 3;
		for (int k = 0; k < ZORV1_XSTATS_MAX; k++)
			s->xstats[k] = base + 10 + static_cast<uint64_t>(k);
	}

	void TearDown() override
	{
		f.dev.ClearSlots();
		if (port_) {
			for (size_t i = 0; i < rxq_.size(); i++)
				port_->data()->rx_queues[i] = nullptr;
			for (size_t i = 0; i < txq_.size(); i++)
				port_->data()->tx_queues[i] = nullptr;
			port_.reset();
		}
		FakeEnv::TearDown();
	}

	char *name() { return const_cast<char *>(kName); }

	std::unique_ptr<FakePort> port_;
	std::vector<zorv1_vdev_rxq> rxq_;
	std::vector<zorv1_vdev_txq> txq_;
};

/* The element the statistics operation must produce from a queue's counters. */
zorv1_vdev_diag_stats Expected(const zorv1_vdev_stats &s)
{
	zorv1_vdev_diag_stats e{};
	e.pkts = s.pkts;
	e.bytes = s.bytes;
	e.missed_pkts = s.missed_pkts;
	e.pkt_undersize = s.xstats[ZORV1_UNDERSIZE_PKT];
	e.pkt_64 = s.xstats[ZORV1_64_PKT];
	e.pkt_65_to_127 = s.xstats[ZORV1_65_TO_127_PKT];
	e.pkt_128_to_255 = s.xstats[ZORV1_128_TO_255_PKT];
	e.pkt_256_to_511 = s.xstats[ZORV1_256_TO_511_PKT];
	e.pkt_512_to_1023 = s.xstats[ZORV1_512_TO_1023_PKT];
	e.pkt_1024_to_1522 = s.xstats[ZORV1_1024_TO_1522_PKT];
	e.pkt_1523_to_max = s.xstats[ZORV1_1523_TO_MAX_PKT];
	e.broadcast_pkt = s.xstats[ZORV1_BROADCAST_PKT];
	e.multicast_pkt = s.xstats[ZORV1_MULTICAST_PKT];
	e.unicast_pkt = s.xstats[ZORV1_UNICAST_PKT];
	e.valid = 1;
	return e;
}

bool SameStats(const zorv1_vdev_diag_stats &a, const zorv1_vdev_diag_stats &b)
{
	return std::memcmp(&a, &b, sizeof(a)) == 0;
}

std::string Dump(const zorv1_vdev_diag_stats &s)
{
	const auto *w = reinterpret_cast<const uint64_t *>(&s);
	std::string out;
	for (size_t i = 0; i < sizeof(s) / 8; i++)
		out += std::to_string(w[i]) + " ";
	return out;
}

} // namespace

/* ---------------------------------------------------------------- the table */

TEST(DiagOpsTable, HoldsTheFiveOperationsAndNoPciDescriptors)
{
	EXPECT_EQ(zorv1_vdev_diag_ops.get_qnum_by_name, zorv1_vdev_get_qnum);
	EXPECT_EQ(zorv1_vdev_diag_ops.get_ring_info, zorv1_vnet_ring_info);
	EXPECT_EQ(zorv1_vdev_diag_ops.get_port_info, zorv1_diag_vdev_port_info);
	EXPECT_EQ(zorv1_vdev_diag_ops.get_queue_stats, zorv1_diag_get_queuestats);
	EXPECT_EQ(zorv1_vdev_diag_ops.get_queue_info, zorv1_diag_get_queueinfo);
	EXPECT_EQ(zorv1_vdev_diag_ops.get_pci_desc, nullptr);
}

TEST(DiagRecords, StatisticsElementsHaveTheStrideOfThePciMember)
{
	QueueStats rec(3);
	EXPECT_EQ(reinterpret_cast<char *>(&rec->stats[1]) - reinterpret_cast<char *>(rec.get()),
		  static_cast<ptrdiff_t>(8 + 27 * sizeof(uint64_t)));
	EXPECT_EQ(static_cast<void *>(&rec->stats[2]), static_cast<void *>(rec.At(2)));
}

/* ---------------------------------------------------------------- queue count */

TEST_F(DiagTest, QueueCountIsTwiceTheLargerQueueCount)
{
	MakePort(2, 4);
	EXPECT_EQ(zorv1_vdev_get_qnum(name()), 8);
	EXPECT_THAT(f.dev.by_name_calls, ElementsAre(kName));
}

TEST_F(DiagTest, QueueCountWithMoreReceiveQueues)
{
	MakePort(3, 1);
	EXPECT_EQ(zorv1_vdev_get_qnum(name()), 6);
}

TEST_F(DiagTest, QueueCountOfAnUnknownPortIsMinusOne)
{
	MakePort(2, 2);
	char other[] = "zorv_nobody";
	EXPECT_EQ(zorv1_vdev_get_qnum(other), -1);
}

/* ---------------------------------------------------------------- queue information */

TEST_F(DiagTest, QueueIdsMapToReceiveAndTransmitQueues)
{
	MakePort(3, 3);
	QueueInfo rec(3);

	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 0, rec.get()), 0);
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 1, rec.get()), 0);
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 5, rec.get()), 0);
	EXPECT_EQ(rec->num, 3);

	const zorv1_diag_vdev_qinfo &rx0 = rec->info[0].vdev_qinfo;
	EXPECT_EQ(rx0.valid, 1);
	EXPECT_EQ(rx0.vid, 5);
	EXPECT_EQ(rx0.allow_queuing, 1);
	EXPECT_EQ(rx0.while_queuing, 0);
	EXPECT_EQ(rx0.port, port_->port_id());
	EXPECT_EQ(rx0.virtqueue_id, 0);
	EXPECT_EQ(rx0.nb_rx_desc, 256);
	EXPECT_EQ(rx0.local_id, 40);
	EXPECT_EQ(rx0.pci_qid, 0u);

	const zorv1_diag_vdev_qinfo &tx0 = rec->info[1].vdev_qinfo;
	EXPECT_EQ(tx0.valid, 1);
	EXPECT_EQ(tx0.vid, 5);
	EXPECT_EQ(tx0.allow_queuing, 0);
	EXPECT_EQ(tx0.while_queuing, 10);
	EXPECT_EQ(tx0.virtqueue_id, 1);
	EXPECT_EQ(tx0.pci_qid, 70u);

	const zorv1_diag_vdev_qinfo &tx2 = rec->info[2].vdev_qinfo;
	EXPECT_EQ(tx2.valid, 1);
	EXPECT_EQ(tx2.allow_queuing, 0);
	EXPECT_EQ(tx2.while_queuing, 12);
	EXPECT_EQ(tx2.virtqueue_id, 5);
	EXPECT_EQ(tx2.pci_qid, 72u);
}

TEST_F(DiagTest, QueueInformationReportsTheVidOfTheQueuesOwnPort)
{
	MakePort(1, 1);
	zorv1_internal other{};
	other.vid = 77;
	txq_[0].internal = &other;
	QueueInfo rec(1);
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 1, rec.get()), 0);
	EXPECT_EQ(rec->info[0].vdev_qinfo.vid, 77);
}

TEST_F(DiagTest, QueueIdsBeyondOneDirectionAppendInvalidElements)
{
	MakePort(2, 4);
	ASSERT_EQ(zorv1_vdev_get_qnum(name()), 8);
	QueueInfo rec(2);

	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 6, rec.get()), 0); /* rx 3 of 2 */
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 7, rec.get()), 0); /* tx 3 of 4 */

	EXPECT_EQ(rec->num, 2);
	EXPECT_EQ(rec->info[0].vdev_qinfo.valid, 0);
	EXPECT_EQ(rec->info[1].vdev_qinfo.valid, 1);
	EXPECT_EQ(rec->info[1].vdev_qinfo.pci_qid, 73u);
	EXPECT_EQ(rec->info[1].vdev_qinfo.virtqueue_id, 7);
}

TEST_F(DiagTest, InvalidQueueInformationWritesOnlyTheValidFlag)
{
	MakePort(1, 1);
	QueueInfo rec(1);
	zorv1_diag_vdev_qinfo &e = rec->info[0].vdev_qinfo;
	e.valid = 9;
	e.vid = 123;
	e.local_id = 456;
	e.pci_qid = 789;
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 40, rec.get()), 0);
	EXPECT_EQ(rec->num, 1);
	EXPECT_EQ(e.valid, 0);
	EXPECT_EQ(e.vid, 123);
	EXPECT_EQ(e.local_id, 456);
	EXPECT_EQ(e.pci_qid, 789u);
}

TEST_F(DiagTest, TransmitElementLeavesReceiveFieldsAndTheReverse)
{
	MakePort(1, 1);
	QueueInfo rec(2);
	/* Marks where the caller's zeroes would be. */
	rec->info[0].vdev_qinfo.local_id = 0x5a5a;
	rec->info[0].vdev_qinfo.nb_rx_desc = 0x3c3c;
	rec->info[1].vdev_qinfo.pci_qid = 0x7e7e;

	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 1, rec.get()), 0); /* tx 0 */
	ASSERT_EQ(zorv1_diag_get_queueinfo(name(), 0, rec.get()), 0); /* rx 0 */

	EXPECT_EQ(rec->info[0].vdev_qinfo.valid, 1);
	EXPECT_EQ(rec->info[0].vdev_qinfo.pci_qid, 70u);
	EXPECT_EQ(rec->info[0].vdev_qinfo.local_id, 0x5a5a);
	EXPECT_EQ(rec->info[0].vdev_qinfo.nb_rx_desc, 0x3c3c);
	EXPECT_EQ(rec->info[1].vdev_qinfo.valid, 1);
	EXPECT_EQ(rec->info[1].vdev_qinfo.local_id, 40);
	EXPECT_EQ(rec->info[1].vdev_qinfo.nb_rx_desc, 256);
	EXPECT_EQ(rec->info[1].vdev_qinfo.pci_qid, 0x7e7eu);
}

TEST_F(DiagTest, QueueInformationForAnUnknownPortLeavesTheRecord)
{
	MakePort(1, 1);
	QueueInfo rec(2);
	rec->num = 1;
	rec->info[1].vdev_qinfo.valid = 42;
	char other[] = "zorv_nobody";
	EXPECT_EQ(zorv1_diag_get_queueinfo(other, 0, rec.get()), -1);
	EXPECT_EQ(rec->num, 1);
	EXPECT_EQ(rec->info[1].vdev_qinfo.valid, 42);
}

/* ---------------------------------------------------------------- queue statistics */

TEST_F(DiagTest, QueueStatisticsCopyEachCounterIntoItsField)
{
	MakePort(2, 2);
	QueueStats rec(3);

	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 2, rec.get()), 0); /* rx 1 */
	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 1, rec.get()), 0); /* tx 0 */
	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 3, rec.get()), 0); /* tx 1 */

	EXPECT_EQ(rec->num, 3);
	EXPECT_TRUE(SameStats(rec->stats[0].vdev_stats, Expected(rxq_[1].stats)))
		<< Dump(rec->stats[0].vdev_stats);
	EXPECT_TRUE(SameStats(rec->stats[1].vdev_stats, Expected(txq_[0].stats)))
		<< Dump(rec->stats[1].vdev_stats);
	EXPECT_TRUE(SameStats(rec->stats[2].vdev_stats, Expected(txq_[1].stats)))
		<< Dump(rec->stats[2].vdev_stats);
	/* Elements sit one union apart, beyond the vdev member's own size. */
	EXPECT_EQ(rec.At(1)->vdev_stats.pkts, txq_[0].stats.pkts);
}

TEST_F(DiagTest, QueueStatisticsAddToWhatTheElementHeld)
{
	MakePort(1, 1);
	QueueStats rec(1);
	zorv1_vdev_diag_stats &e = rec->stats[0].vdev_stats;
	auto *w = reinterpret_cast<uint64_t *>(&e);
	for (size_t i = 0; i < sizeof(e) / 8; i++)
		w[i] = 7 + i;

	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 0, rec.get()), 0);

	zorv1_vdev_diag_stats want = Expected(rxq_[0].stats);
	auto *ww = reinterpret_cast<uint64_t *>(&want);
	for (size_t i = 0; i + 1 < sizeof(want) / 8; i++) /* all but valid */
		ww[i] += 7 + i;
	EXPECT_TRUE(SameStats(e, want)) << Dump(e);
	EXPECT_EQ(e.valid, 1u);
}

TEST_F(DiagTest, QueueStatisticsBeyondTheQueuesWriteOnlyTheValidFlag)
{
	MakePort(2, 1);
	QueueStats rec(2);
	rec->stats[0].vdev_stats.pkts = 11;
	rec->stats[0].vdev_stats.valid = 5;

	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 3, rec.get()), 0); /* tx 1 of 1 */
	ASSERT_EQ(zorv1_diag_get_queuestats(name(), 2, rec.get()), 0); /* rx 1 of 2 */

	EXPECT_EQ(rec->num, 2);
	EXPECT_EQ(rec->stats[0].vdev_stats.valid, 0u);
	EXPECT_EQ(rec->stats[0].vdev_stats.pkts, 11u);
	EXPECT_EQ(rec->stats[1].vdev_stats.valid, 1u);
}

TEST_F(DiagTest, QueueStatisticsRefuseAnUnknownPortOrNoRecord)
{
	MakePort(1, 1);
	QueueStats rec(1);
	rec->num = 0;
	char other[] = "zorv_nobody";
	EXPECT_EQ(zorv1_diag_get_queuestats(other, 0, rec.get()), -1);
	EXPECT_EQ(rec->num, 0);
	EXPECT_EQ(rec->stats[0].vdev_stats.valid, 0u);
	EXPECT_EQ(zorv1_diag_get_queuestats(name(), 0, nullptr), -1);
	EXPECT_EQ(zorv1_diag_get_queuestats(other, 0, nullptr), -1);
}

TEST(DiagCounters, SetQueueStatsAddsEveryCounterAndMarksValid)
{
	zorv1_vdev_stats s{};
	s.pkts = 1;
	s.bytes = 2;
	s.missed_pkts = 3;
	for (int k = 0; k < ZORV1_XSTATS_MAX; k++)
		s.xstats[k] = 100 + static_cast<uint64_t>(k);
	zorv1_vdev_diag_stats d{};
	d.bytes = 1000;
	zorv1_diag_set_queuestats(&d, &s);
	zorv1_vdev_diag_stats want = Expected(s);
	want.bytes += 1000;
	EXPECT_TRUE(SameStats(d, want)) << Dump(d);
}

/* ---------------------------------------------------------------- port information */

TEST_F(DiagTest, PortInformationAppendsOneElementPerCall)
{
	MakePort(1, 1);
	PortInfo rec(2);

	ASSERT_EQ(zorv1_diag_vdev_port_info(name(), rec.get()), 0);
	port_->internal()->vid = -1;
	port_->internal()->sfi = INVALID_SFI;
	port_->internal()->started = 0;
	ASSERT_EQ(zorv1_diag_vdev_port_info(name(), rec.get()), 0);

	EXPECT_EQ(rec->num, 2);
	EXPECT_EQ(rec->dev_type, 0);
	const zorv1_vdev_dpu_port_data &a = rec->info[0].dpu_vdev_port_info;
	EXPECT_EQ(a.portid, port_->port_id());
	EXPECT_EQ(a.vid, 5u);
	EXPECT_EQ(a.sfi, 12u);
	EXPECT_EQ(a.start_flag, 1);
	EXPECT_STREQ(a.name, kName);
	const zorv1_vdev_dpu_port_data &b = rec->info[1].dpu_vdev_port_info;
	EXPECT_EQ(b.vid, 0xFFFFFFFFu);
	EXPECT_EQ(b.sfi, INVALID_SFI);
	EXPECT_EQ(b.start_flag, 0);
	EXPECT_STREQ(b.name, kName);
}

TEST_F(DiagTest, PortInformationOfAnUnknownPortLeavesTheRecord)
{
	MakePort(1, 1);
	PortInfo rec(1);
	char other[] = "zorv_nobody";
	EXPECT_EQ(zorv1_diag_vdev_port_info(other, rec.get()), -1);
	EXPECT_EQ(rec->num, 0);
	EXPECT_EQ(rec->info[0].dpu_vdev_port_info.name[0], '\0');
}

/* ---------------------------------------------------------------- ring information */

TEST_F(DiagTest, RingInformationOfQid3DescribesTheRingOfReceiveQueue1)
{
	MakePort(2, 2);
	const int id0 = zorv1_ring_create(512);
	const int id1 = zorv1_ring_create(512);
	ASSERT_GT(id0, 0);
	ASSERT_GT(id1, 0);
	rxq_[0].local_id = id0;
	rxq_[1].local_id = id1;
	struct rte_ring *ring = f.rings.live.at(id1);
	/* Move the indexes: 9 in, 4 out. */
	void *objs[9];
	for (int i = 0; i < 9; i++)
		objs[i] = reinterpret_cast<void *>(static_cast<uintptr_t>(i + 1));
	ASSERT_EQ(rte_ring_enqueue_bulk(ring, objs, 9, nullptr), 9u);
	void *out[4];
	ASSERT_EQ(rte_ring_dequeue_bulk(ring, out, 4, nullptr), 4u);

	zorv1_vnet_diag_ring_info info;
	std::memset(&info, 0xee, sizeof(info));
	ASSERT_EQ(zorv1_vnet_ring_info(name(), 3, &info), 0);

	EXPECT_EQ(info.vid, 5);
	EXPECT_EQ(info.qid, 3);
	EXPECT_EQ(info.local_id, id1);
	EXPECT_STREQ(info.name, ring->name);
	EXPECT_EQ(info.flags, static_cast<int>(ring->flags));
	EXPECT_EQ(info.size, 512u);
	EXPECT_EQ(info.capacity, 511u);
	EXPECT_EQ(info.ph, ring->prod.head);
	EXPECT_EQ(info.pt, ring->prod.tail);
	EXPECT_EQ(info.ch, ring->cons.head);
	EXPECT_EQ(info.ct, ring->cons.tail);
	EXPECT_EQ(info.pt - info.ct, 5u);
	EXPECT_EQ(info.used, 5u);
	EXPECT_EQ(info.avail, 506u);
	EXPECT_THAT(f.rings.lookups, ElementsAre(id1));

	/* qid 2 names the same ring; qid 1 the ring of receive queue 0. */
	zorv1_vnet_diag_ring_info same{};
	ASSERT_EQ(zorv1_vnet_ring_info(name(), 2, &same), 0);
	EXPECT_EQ(same.local_id, id1);
	EXPECT_EQ(same.qid, 2);
	zorv1_vnet_diag_ring_info first{};
	ASSERT_EQ(zorv1_vnet_ring_info(name(), 1, &first), 0);
	EXPECT_EQ(first.local_id, id0);
	EXPECT_EQ(first.used, 0u);
	EXPECT_EQ(first.avail, 511u);
}

TEST_F(DiagTest, RingInformationFailsForAnUnknownPort)
{
	MakePort(1, 1);
	zorv1_vnet_diag_ring_info info{};
	char other[] = "zorv_nobody";
	EXPECT_EQ(zorv1_vnet_ring_info(other, 0, &info), -1);
	EXPECT_TRUE(f.rings.lookups.empty());
}

TEST_F(DiagTest, RingInformationFailsWithoutALocalId)
{
	MakePort(1, 1);
	rxq_[0].local_id = -1;
	zorv1_vnet_diag_ring_info info{};
	EXPECT_EQ(zorv1_vnet_ring_info(name(), 0, &info), -1);
	EXPECT_TRUE(f.rings.lookups.empty());
}

TEST_F(DiagTest, RingInformationFailsWithoutARing)
{
	MakePort(1, 1);
	rxq_[0].local_id = 99; /* no such ring */
	zorv1_vnet_diag_ring_info info{};
	EXPECT_EQ(zorv1_vnet_ring_info(name(), 0, &info), -1);
	EXPECT_THAT(f.rings.lookups, ElementsAre(99));
}

TEST_F(DiagTest, RingInformationFailsForAQidBeyondTheQueues)
{
	MakePort(1, 1);
	LogCapture cap;
	zorv1_vnet_diag_ring_info info{};
	EXPECT_EQ(zorv1_vnet_ring_info(name(), 2, &info), -1);
	/* The local id lookup logs its own failure. */
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_ERR, "zorv1_get_dev_queue_local_id", "vq is null, vid 5 qid 2\n"));
}
