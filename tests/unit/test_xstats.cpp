/* SPDX-License-Identifier: BSD-3-Clause
 * Extended statistics of the zorv1 port: the per-packet size bins and
 * destination classes, and the names / values / reset operations, called
 * directly and through DPDK's xstats API.
 */
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_ethdev.h>
#include <rte_malloc.h>

#include "zorv1_vdev_internal.h"
#include "zorv_fakes.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAreArray;
using zorv_fake::FakeEnv;
using zorv_test::FakePort;
using zorv_test::MbufPtr;

namespace {

constexpr int kNbXstats = 28;

/* The 14 counters in the order the port reports them, per direction. */
const std::array<const char *, 14> kRowNames = {
	"good_packets",           "total_bytes",
	"missed_pkts",            "broadcast_packets",
	"multicast_packets",      "unicast_packets",
	"undersize_packets",      "size_64_packets",
	"size_65_to_127_packets", "size_128_to_255_packets",
	"size_256_to_511_packets", "size_512_to_1023_packets",
	"size_1024_to_1522_packets", "size_1523_to_max_packets",
};

/* The counter behind each row, in the same order. */
uint64_t RowCounter(const struct zorv1_vdev_stats &s, size_t row)
{
	switch (row) {
	case 0: return s.pkts;
	case 1: return s.bytes;
	case 2: return s.missed_pkts;
	case 3: return s.xstats[ZORV1_BROADCAST_PKT];
	case 4: return s.xstats[ZORV1_MULTICAST_PKT];
	case 5: return s.xstats[ZORV1_UNICAST_PKT];
	case 6: return s.xstats[ZORV1_UNDERSIZE_PKT];
	case 7: return s.xstats[ZORV1_64_PKT];
	case 8: return s.xstats[ZORV1_65_TO_127_PKT];
	case 9: return s.xstats[ZORV1_128_TO_255_PKT];
	case 10: return s.xstats[ZORV1_256_TO_511_PKT];
	case 11: return s.xstats[ZORV1_512_TO_1023_PKT];
	case 12: return s.xstats[ZORV1_1024_TO_1522_PKT];
	case 13: return s.xstats[ZORV1_1523_TO_MAX_PKT];
	}
	ADD_FAILURE() << "row " << row;
	return 0;
}

std::vector<std::string> ExpectedNames()
{
	std::vector<std::string> v;
	for (auto *n : kRowNames)
		v.push_back(std::string("rx_") + n);
	for (auto *n : kRowNames)
		v.push_back(std::string("tx_") + n);
	return v;
}

/* Every counter of a record set to a value unique to (seed, field). */
void FillStats(struct zorv1_vdev_stats *s, uint64_t seed)
{
	s->pkts = seed + 1;
	s->bytes = seed + 2;
	s->missed_pkts = seed + 3;
	for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
		s->xstats[i] = seed + 10 + static_cast<uint64_t>(i) * 7;
}

bool StatsAllZero(const struct zorv1_vdev_stats &s)
{
	struct zorv1_vdev_stats zero = {};
	return memcmp(&s, &zero, sizeof(s)) == 0;
}

/* A fake port with its own zeroed queue records; records freed after the port. */
class StatsPort {
public:
	StatsPort(uint16_t nb_rx, uint16_t nb_tx)
		: port_(FakePort::Options{.nb_rx_queues = nb_rx, .nb_tx_queues = nb_tx})
	{
		if (!port_)
			return;
		for (uint16_t i = 0; i < nb_rx; i++) {
			auto *q = static_cast<struct zorv1_vdev_rxq *>(
				rte_zmalloc("t2_rxq", sizeof(struct zorv1_vdev_rxq), RTE_CACHE_LINE_SIZE));
			q->internal = port_.internal();
			q->port = port_.port_id();
			q->virtqueue_id = 2 * i;
			port_.data()->rx_queues[i] = q;
			rxqs_.push_back(q);
		}
		for (uint16_t i = 0; i < nb_tx; i++) {
			auto *q = static_cast<struct zorv1_vdev_txq *>(
				rte_zmalloc("t2_txq", sizeof(struct zorv1_vdev_txq), RTE_CACHE_LINE_SIZE));
			q->internal = port_.internal();
			q->port = port_.port_id();
			q->virtqueue_id = 2 * i + 1;
			port_.data()->tx_queues[i] = q;
			txqs_.push_back(q);
		}
	}
	~StatsPort()
	{
		if (port_)
			port_.dev()->dev_ops = saved_ops_ != nullptr ? saved_ops_ : port_.dev()->dev_ops;
		port_.Release();
		for (auto *q : rxqs_)
			rte_free(q);
		for (auto *q : txqs_)
			rte_free(q);
	}

	/* Let DPDK's API reach the port's operations. */
	void UseDriverOps()
	{
		saved_ops_ = port_.dev()->dev_ops;
		port_.dev()->dev_ops = &zorv1_dpu_dev_ops;
	}

	FakePort &port() { return port_; }
	struct rte_eth_dev *dev() { return port_.dev(); }
	struct zorv1_vdev_rxq *rxq(size_t i) { return rxqs_.at(i); }
	struct zorv1_vdev_txq *txq(size_t i) { return txqs_.at(i); }
	void OpenAll()
	{
		for (auto *q : rxqs_)
			rte_atomic32_set(&q->allow_queuing, 1);
		for (auto *q : txqs_)
			rte_atomic32_set(&q->allow_queuing, 1);
	}

private:
	FakePort port_;
	const struct eth_dev_ops *saved_ops_ = nullptr;
	std::vector<struct zorv1_vdev_rxq *> rxqs_;
	std::vector<struct zorv1_vdev_txq *> txqs_;
};

class XstatsTest : public FakeEnv {};

struct BinCase {
	uint16_t len;
	int bin;
};

class SizeBinTest : public ::testing::TestWithParam<BinCase> {};

} // namespace

/* ------------------------------------------------------------------ per packet */

TEST_P(SizeBinTest, PacketLandsInExactlyOneSizeBin)
{
	const BinCase c = GetParam();
	MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), c.len, zorv_test::kUnicastMac));
	ASSERT_TRUE(m);
	ASSERT_EQ(m->pkt_len, c.len);
	struct zorv1_vdev_stats s = {};
	zorv1_vdev_update_single_packet_xstats(&s, m.get());
	for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
		EXPECT_EQ(s.xstats[i], i == c.bin ? 1u : 0u) << "length " << c.len << " bin " << i;
	EXPECT_EQ(s.pkts, 0u);
	EXPECT_EQ(s.bytes, 0u);
	EXPECT_EQ(s.missed_pkts, 0u);
}

INSTANTIATE_TEST_SUITE_P(
	Lengths, SizeBinTest,
	::testing::Values(BinCase{14, 0}, BinCase{63, 0}, BinCase{64, 1}, BinCase{65, 2},
			  BinCase{127, 2}, BinCase{128, 3}, BinCase{255, 3}, BinCase{256, 4},
			  BinCase{511, 4}, BinCase{512, 5}, BinCase{1023, 5}, BinCase{1024, 6},
			  BinCase{1522, 6}, BinCase{1523, 7}, BinCase{2000, 7}),
	[](const ::testing::TestParamInfo<BinCase> &info) {
		return "Len" + std::to_string(info.param.len);
	});

TEST(SizeBin, OnlyThePacketLengthCountsNotTheFirstSegment)
{
	MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, zorv_test::kUnicastMac));
	ASSERT_TRUE(m);
	/* A chained packet: the whole length decides, not data_len. */
	m->pkt_len = 1600;
	struct zorv1_vdev_stats s = {};
	zorv1_vdev_update_single_packet_xstats(&s, m.get());
	EXPECT_EQ(s.xstats[ZORV1_1523_TO_MAX_PKT], 1u);
	EXPECT_EQ(s.xstats[ZORV1_64_PKT], 0u);
	m->pkt_len = 64;
}

TEST(DestinationClass, BroadcastMulticastAndUnicastAreCountedApart)
{
	const struct {
		struct rte_ether_addr dst;
		int cls;
	} cases[] = {
		{{{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}}, ZORV1_BROADCAST_PKT},
		{{{0x01, 0x00, 0x5e, 0x00, 0x00, 0x01}}, ZORV1_MULTICAST_PKT},
		{{{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}}, ZORV1_UNICAST_PKT},
		/* the group bit alone makes a multicast; all ones but one is not broadcast */
		{{{0x33, 0x33, 0x00, 0x00, 0x00, 0x01}}, ZORV1_MULTICAST_PKT},
		{{{0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}}, ZORV1_MULTICAST_PKT},
		{{{0xfe, 0xff, 0xff, 0xff, 0xff, 0xff}}, ZORV1_UNICAST_PKT},
	};
	for (const auto &c : cases) {
		MbufPtr m(zorv_test::MakeFrame(zorv_test::SharedMbufPool(), 64, c.dst));
		ASSERT_TRUE(m);
		struct zorv1_vdev_stats s = {};
		zorv1_vdev_count_xcast_packets(&s, m.get());
		for (int i = 0; i < ZORV1_XSTATS_MAX; i++)
			EXPECT_EQ(s.xstats[i], i == c.cls ? 1u : 0u)
				<< "destination " << std::hex << int(c.dst.addr_bytes[0]) << ".."
				<< int(c.dst.addr_bytes[5]) << std::dec << " counter " << i;
		EXPECT_EQ(s.pkts + s.bytes + s.missed_pkts, 0u);
	}
}

TEST(DestinationClass, ReadsTheFirstSixBytesOfDataWithoutCheckingTheLength)
{
	struct rte_mbuf *raw = rte_pktmbuf_alloc(zorv_test::SharedMbufPool());
	ASSERT_NE(raw, nullptr);
	MbufPtr m(raw);
	/* Only the destination address, shorter than any Ethernet header. */
	auto *p = reinterpret_cast<uint8_t *>(rte_pktmbuf_append(raw, 6));
	ASSERT_NE(p, nullptr);
	memset(p, 0xff, 6);
	struct zorv1_vdev_stats s = {};
	zorv1_vdev_count_xcast_packets(&s, raw);
	EXPECT_EQ(s.xstats[ZORV1_BROADCAST_PKT], 1u);

	/* The address is taken at buf_addr + data_off, wherever data starts. */
	ASSERT_NE(rte_pktmbuf_prepend(raw, 6), nullptr);
	memcpy(rte_pktmbuf_mtod(raw, uint8_t *), zorv_test::kUnicastMac.addr_bytes, 6);
	zorv1_vdev_count_xcast_packets(&s, raw);
	EXPECT_EQ(s.xstats[ZORV1_UNICAST_PKT], 1u);
	EXPECT_EQ(s.xstats[ZORV1_BROADCAST_PKT], 1u);
}

/* ------------------------------------------------------------------ names */

TEST_F(XstatsTest, NamesWithNullArrayReportTwentyEight)
{
	StatsPort p(1, 1);
	ASSERT_TRUE(p.port());
	EXPECT_EQ(zorv1_vdev_xstats_get_names(p.dev(), nullptr, 0), kNbXstats);
	EXPECT_EQ(zorv1_vdev_xstats_get_names(p.dev(), nullptr, 100), kNbXstats);
}

TEST_F(XstatsTest, NamesAreWrittenInFullWhateverTheLimit)
{
	StatsPort p(1, 1);
	ASSERT_TRUE(p.port());
	const auto want = ExpectedNames();
	ASSERT_EQ(want.size(), static_cast<size_t>(kNbXstats));
	ASSERT_EQ(want.front(), "rx_good_packets");
	ASSERT_EQ(want.back(), "tx_size_1523_to_max_packets");

	for (unsigned limit : {5u, 0u, 28u}) {
		/* Two guard entries after the 28 must stay untouched. */
		std::array<struct rte_eth_xstat_name, kNbXstats + 2> names;
		memset(names.data(), 0x5a, sizeof(names));
		EXPECT_EQ(zorv1_vdev_xstats_get_names(p.dev(), names.data(), limit), kNbXstats);
		std::vector<std::string> got;
		for (int i = 0; i < kNbXstats; i++)
			got.emplace_back(names[i].name);
		EXPECT_THAT(got, ElementsAreArray(want)) << "limit " << limit;
		for (int i = kNbXstats; i < kNbXstats + 2; i++)
			for (char c : names[i].name)
				ASSERT_EQ(c, 0x5a) << "entry " << i << " written";
	}
}

/* ------------------------------------------------------------------ values */

TEST_F(XstatsTest, TooSmallArrayGetsTheCountAndIsLeftAlone)
{
	StatsPort p(1, 1);
	ASSERT_TRUE(p.port());
	FillStats(&p.rxq(0)->stats, 100);
	std::array<struct rte_eth_xstat, kNbXstats> xs;
	memset(xs.data(), 0xa5, sizeof(xs));
	EXPECT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), 27), kNbXstats);
	EXPECT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), 0), kNbXstats);
	for (const auto &x : xs) {
		EXPECT_EQ(x.id, 0xa5a5a5a5a5a5a5a5ull);
		EXPECT_EQ(x.value, 0xa5a5a5a5a5a5a5a5ull);
	}
}

TEST_F(XstatsTest, PortWithoutReceiveQueueArrayReportsNothing)
{
	StatsPort p(0, 1);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.port().data()->rx_queues, nullptr);
	FillStats(&p.txq(0)->stats, 5);
	std::array<struct rte_eth_xstat, kNbXstats> xs;
	memset(xs.data(), 0xa5, sizeof(xs));
	EXPECT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), kNbXstats), 0);
	for (const auto &x : xs)
		EXPECT_EQ(x.value, 0xa5a5a5a5a5a5a5a5ull);
}

/* A port may hold one queue array and not the other: each direction is reset over its own. */
TEST_F(XstatsTest, ResetClearsTransmitQueuesOfAPortWithoutReceiveQueueArray)
{
	StatsPort p(0, 2);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.port().data()->rx_queues, nullptr);
	FillStats(&p.txq(0)->stats, 5);
	FillStats(&p.txq(1)->stats, 9);
	EXPECT_EQ(zorv1_vdev_xstats_reset(p.dev()), 0);
	const struct zorv1_vdev_stats zero = {};
	for (uint16_t q = 0; q < 2; q++)
		EXPECT_EQ(memcmp(&p.txq(q)->stats, &zero, sizeof(zero)), 0) << "transmit queue " << q;
}

TEST_F(XstatsTest, ResetClearsReceiveQueuesOfAPortWithoutTransmitQueueArray)
{
	StatsPort p(2, 0);
	ASSERT_TRUE(p.port());
	ASSERT_EQ(p.port().data()->tx_queues, nullptr);
	FillStats(&p.rxq(0)->stats, 5);
	FillStats(&p.rxq(1)->stats, 9);
	EXPECT_EQ(zorv1_vdev_xstats_reset(p.dev()), 0);
	const struct zorv1_vdev_stats zero = {};
	for (uint16_t q = 0; q < 2; q++)
		EXPECT_EQ(memcmp(&p.rxq(q)->stats, &zero, sizeof(zero)), 0) << "receive queue " << q;
}

TEST_F(XstatsTest, EveryValueIsItsCounterSummedOverTheQueuesOfItsDirection)
{
	StatsPort p(2, 3);
	ASSERT_TRUE(p.port());
	FillStats(&p.rxq(0)->stats, 1000);
	FillStats(&p.rxq(1)->stats, 200000);
	FillStats(&p.txq(0)->stats, 30000000);
	FillStats(&p.txq(1)->stats, 4000000000);
	FillStats(&p.txq(2)->stats, 500000000000);

	std::array<struct rte_eth_xstat, kNbXstats + 1> xs;
	memset(xs.data(), 0xa5, sizeof(xs));
	ASSERT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), kNbXstats + 1), kNbXstats);
	for (size_t row = 0; row < 14; row++) {
		EXPECT_EQ(xs[row].id, row);
		EXPECT_EQ(xs[row].value,
			  RowCounter(p.rxq(0)->stats, row) + RowCounter(p.rxq(1)->stats, row))
			<< "rx_" << kRowNames[row];
		EXPECT_EQ(xs[14 + row].id, 14 + row);
		EXPECT_EQ(xs[14 + row].value, RowCounter(p.txq(0)->stats, row) +
						      RowCounter(p.txq(1)->stats, row) +
						      RowCounter(p.txq(2)->stats, row))
			<< "tx_" << kRowNames[row];
	}
	EXPECT_EQ(xs[kNbXstats].value, 0xa5a5a5a5a5a5a5a5ull) << "wrote past 28";
}

TEST_F(XstatsTest, NullQueueSlotContributesNothingAndIsSkippedByReset)
{
	StatsPort p(3, 2);
	ASSERT_TRUE(p.port());
	FillStats(&p.rxq(0)->stats, 10);
	FillStats(&p.rxq(1)->stats, 1000);
	FillStats(&p.rxq(2)->stats, 100000);
	FillStats(&p.txq(0)->stats, 7);
	FillStats(&p.txq(1)->stats, 700);
	p.port().data()->rx_queues[1] = nullptr;
	p.port().data()->tx_queues[0] = nullptr;

	std::array<struct rte_eth_xstat, kNbXstats> xs;
	ASSERT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), kNbXstats), kNbXstats);
	for (size_t row = 0; row < 14; row++) {
		EXPECT_EQ(xs[row].value,
			  RowCounter(p.rxq(0)->stats, row) + RowCounter(p.rxq(2)->stats, row))
			<< "rx_" << kRowNames[row];
		EXPECT_EQ(xs[14 + row].value, RowCounter(p.txq(1)->stats, row))
			<< "tx_" << kRowNames[row];
	}

	EXPECT_EQ(zorv1_vdev_xstats_reset(p.dev()), 0);
	EXPECT_TRUE(StatsAllZero(p.rxq(0)->stats));
	EXPECT_TRUE(StatsAllZero(p.rxq(2)->stats));
	EXPECT_TRUE(StatsAllZero(p.txq(1)->stats));
	/* The records out of the arrays were not reached. */
	EXPECT_EQ(p.rxq(1)->stats.pkts, 1001u);
	EXPECT_EQ(p.txq(0)->stats.pkts, 8u);
}

TEST_F(XstatsTest, ResetClearsEveryCounterBasicOnesIncluded)
{
	StatsPort p(2, 2);
	ASSERT_TRUE(p.port());
	FillStats(&p.rxq(0)->stats, 1);
	FillStats(&p.rxq(1)->stats, 2);
	FillStats(&p.txq(0)->stats, 3);
	FillStats(&p.txq(1)->stats, 4);
	/* Neighbours of the counters in the records are not part of the reset. */
	p.rxq(1)->nb_rx_desc = 512;
	p.rxq(1)->local_id = 77;
	p.txq(1)->pci_qid = 9;

	EXPECT_EQ(zorv1_vdev_xstats_reset(p.dev()), 0);
	EXPECT_TRUE(StatsAllZero(p.rxq(0)->stats));
	EXPECT_TRUE(StatsAllZero(p.rxq(1)->stats));
	EXPECT_TRUE(StatsAllZero(p.txq(0)->stats));
	EXPECT_TRUE(StatsAllZero(p.txq(1)->stats));
	EXPECT_EQ(p.rxq(1)->nb_rx_desc, 512);
	EXPECT_EQ(p.rxq(1)->local_id, 77);
	EXPECT_EQ(p.txq(1)->pci_qid, 9u);

	struct rte_eth_stats st = {};
	ASSERT_EQ(eth_stats_get(p.dev(), &st), 0);
	EXPECT_EQ(st.ipackets, 0u);
	EXPECT_EQ(st.opackets, 0u);
	EXPECT_EQ(st.ibytes, 0u);
	EXPECT_EQ(st.obytes, 0u);
}

TEST_F(XstatsTest, TrafficOnTwoReceiveQueuesSumsUpAndResetClearsIt)
{
	StatsPort p(2, 1);
	ASSERT_TRUE(p.port());
	p.OpenAll();
	auto *pool = zorv_test::SharedMbufPool();
	/* queue 0: 3 packets, queue 1: 2 packets */
	f.transport.rx_pending = {
		zorv_test::MakeFrame(pool, 64, zorv_test::kBroadcastMac),
		zorv_test::MakeFrame(pool, 100, zorv_test::kUnicastMac),
		zorv_test::MakeFrame(pool, 1500, zorv_test::kUnicastMac),
	};
	struct rte_mbuf *bufs[8] = {};
	ASSERT_EQ(eth_vhost_rx(p.rxq(0), bufs, 8), 3);
	for (int i = 0; i < 3; i++)
		rte_pktmbuf_free(bufs[i]);
	f.transport.rx_pending = {
		zorv_test::MakeFrame(pool, 60, zorv_test::kMulticastMac),
		zorv_test::MakeFrame(pool, 300, zorv_test::kUnicastMac),
	};
	ASSERT_EQ(eth_vhost_rx(p.rxq(1), bufs, 8), 2);
	for (int i = 0; i < 2; i++)
		rte_pktmbuf_free(bufs[i]);

	std::array<struct rte_eth_xstat, kNbXstats> xs;
	ASSERT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), kNbXstats), kNbXstats);
	EXPECT_EQ(p.rxq(0)->stats.pkts, 3u);
	EXPECT_EQ(p.rxq(1)->stats.pkts, 2u);
	const uint64_t want[14] = {5, 64 + 100 + 1500 + 60 + 300, 0, 1, 1, 3, 1, 1, 1, 0, 1, 0, 1, 0};
	for (size_t row = 0; row < 14; row++)
		EXPECT_EQ(xs[row].value, want[row]) << "rx_" << kRowNames[row];
	struct rte_eth_stats st = {};
	ASSERT_EQ(eth_stats_get(p.dev(), &st), 0);
	EXPECT_EQ(st.ipackets, 5u);

	ASSERT_EQ(zorv1_vdev_xstats_reset(p.dev()), 0);
	ASSERT_EQ(zorv1_vdev_xstats_get(p.dev(), xs.data(), kNbXstats), kNbXstats);
	for (const auto &x : xs)
		EXPECT_EQ(x.value, 0u) << x.id;
	st = {};
	ASSERT_EQ(eth_stats_get(p.dev(), &st), 0);
	EXPECT_EQ(st.ipackets, 0u);
	EXPECT_EQ(st.ibytes, 0u);
	EXPECT_EQ(st.q_ipackets[0], 0u);
	EXPECT_EQ(st.q_ipackets[1], 0u);
}

/* ------------------------------------------------------------------ through DPDK's API */

TEST_F(XstatsTest, DpdkListsItsGenericCountersFollowedByThePortsTwentyEight)
{
	StatsPort p(2, 2);
	ASSERT_TRUE(p.port());
	p.UseDriverOps();
	const uint16_t port_id = p.port().port_id();
	FillStats(&p.rxq(0)->stats, 1000);
	FillStats(&p.rxq(1)->stats, 2000);
	FillStats(&p.txq(0)->stats, 3000);
	FillStats(&p.txq(1)->stats, 4000);

	const int total = rte_eth_xstats_get_names(port_id, nullptr, 0);
	ASSERT_GT(total, kNbXstats);
	const int generic = total - kNbXstats;

	std::vector<struct rte_eth_xstat_name> names(total);
	ASSERT_EQ(rte_eth_xstats_get_names(port_id, names.data(), total), total);
	/* DPDK's own first: its generic rx_good_packets comes from the basic stats. */
	EXPECT_STREQ(names[0].name, "rx_good_packets");
	std::vector<std::string> ours;
	for (int i = generic; i < total; i++)
		ours.emplace_back(names[i].name);
	EXPECT_THAT(ours, ElementsAreArray(ExpectedNames()));

	std::vector<struct rte_eth_xstat> xs(total);
	ASSERT_EQ(rte_eth_xstats_get(port_id, xs.data(), total), total);
	EXPECT_EQ(xs[0].value, 1001u + 2001u) << "generic rx_good_packets from the basic stats";
	for (size_t row = 0; row < 14; row++) {
		const auto &rx = xs[generic + row];
		const auto &tx = xs[generic + 14 + row];
		EXPECT_EQ(rx.id, static_cast<uint64_t>(generic + row));
		EXPECT_EQ(rx.value,
			  RowCounter(p.rxq(0)->stats, row) + RowCounter(p.rxq(1)->stats, row))
			<< "rx_" << kRowNames[row];
		EXPECT_EQ(tx.id, static_cast<uint64_t>(generic + 14 + row));
		EXPECT_EQ(tx.value,
			  RowCounter(p.txq(0)->stats, row) + RowCounter(p.txq(1)->stats, row))
			<< "tx_" << kRowNames[row];
	}

	ASSERT_EQ(rte_eth_xstats_reset(port_id), 0);
	ASSERT_EQ(rte_eth_xstats_get(port_id, xs.data(), total), total);
	for (const auto &x : xs)
		EXPECT_EQ(x.value, 0u) << "id " << x.id;
	struct rte_eth_stats st;
	ASSERT_EQ(rte_eth_stats_get(port_id, &st), 0);
	EXPECT_EQ(st.ipackets, 0u);
	EXPECT_EQ(st.opackets, 0u);
}
