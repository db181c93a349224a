/* SPDX-License-Identifier: BSD-3-Clause
 * Utilities (elapsed time, packet dumps, per-thread time-stamp counter) and
 * the family's log types.
 */
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_cycles.h>
#include <rte_log.h>

#include "zorv1_logs.h"
#include "zorv1_rxtx.h"
#include "zorv1_vhost.h"
#include "zorv_test_harness.h"

namespace {

using zorv_test::HasLogLine;
using zorv_test::LogCapture;

TEST(CalculateTime, ConvertsCyclesToMicroseconds)
{
	const uint64_t hz = rte_get_tsc_hz();
	ASSERT_GT(hz, 0u);
	const uint64_t start = rte_rdtsc();

	EXPECT_EQ(zorv1_calculate_time(start + hz, start), 1000000u);
	EXPECT_EQ(zorv1_calculate_time(start + hz / 1000, start), 1000u);
	EXPECT_EQ(zorv1_calculate_time(start + 3 * hz + hz / 2, start), 3500000u);
	EXPECT_EQ(zorv1_calculate_time(start, start), 0u);
	/* Truncated, never rounded up. */
	EXPECT_EQ(zorv1_calculate_time(start + hz / 1000000 - 1, start), 0u);
}

TEST(CalculateTime, EarlierEndGivesZero)
{
	const uint64_t hz = rte_get_tsc_hz();
	EXPECT_EQ(zorv1_calculate_time(5, 6), 0u);
	EXPECT_EQ(zorv1_calculate_time(0, hz), 0u);
}

TEST(CalculateTime, LongIntervalsDoNotOverflow)
{
	const uint64_t hz = rte_get_tsc_hz();
	const uint64_t year = 365ull * 24 * 3600;
	EXPECT_EQ(zorv1_calculate_time(hz * year, 0), year * 1000000u);
}

TEST(CalculateTime, MeasuresASleep)
{
	uint64_t t0 = rte_rdtsc();
	rte_delay_us_sleep(20000);
	uint64_t us = zorv1_calculate_time(rte_rdtsc(), t0);
	EXPECT_GE(us, 20000u);
	EXPECT_LT(us, 2000000u);
}

TEST(TimestampCounter, IsPerThread)
{
	g_timestap_cnt = 5;
	uint32_t other_start = 99;
	uint32_t other_end = 99;
	std::thread t([&] {
		other_start = g_timestap_cnt;
		g_timestap_cnt += 3;
		other_end = g_timestap_cnt;
	});
	t.join();
	EXPECT_EQ(other_start, 0u);
	EXPECT_EQ(other_end, 3u);
	EXPECT_EQ(g_timestap_cnt, 5u);
	g_timestap_cnt = 0;
}

std::vector<uint8_t> Bytes(size_t n)
{
	std::vector<uint8_t> v(n);
	for (size_t i = 0; i < n; i++)
		v[i] = static_cast<uint8_t>(i);
	return v;
}

TEST(DumpPkt, WritesHeaderAndSixteenBytesPerLineAtDebug)
{
	LogCapture cap(zorv1_vdev_logtype_rx, RTE_LOG_DEBUG);
	auto data = Bytes(40);
	zorv1_dump_pkt("vdev rx", data.data(), 40);

	auto lines = cap.Lines();
	ASSERT_EQ(lines.size(), 4u) << cap.Text();
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt", "vdev rx: 40 bytes\n"));
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt",
			       "00000000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f\n"));
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt",
			       "00000010: 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f\n"));
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt", "00000020: 20 21 22 23 24 25 26 27\n"));
	/* The header comes first. */
	EXPECT_TRUE(zorv_test::MatchesZorvLine(lines[0], "zorv1_dump_pkt", "vdev rx: 40 bytes\n"));
	for (auto &e : cap.Entries()) {
		EXPECT_EQ(e.logtype, zorv1_vdev_logtype_rx);
		EXPECT_EQ(e.level, static_cast<int>(RTE_LOG_DEBUG));
	}
}

TEST(DumpPkt, CoversTheWholeSegment)
{
	LogCapture cap(zorv1_vdev_logtype_tx, RTE_LOG_DEBUG);
	auto data = Bytes(1514);
	zorv1_dump_pkt("vdev tx", data.data(), 1514);

	auto lines = cap.Lines();
	ASSERT_EQ(lines.size(), 1u + (1514 + 15) / 16) << "header + 95 lines";
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt", "vdev tx: 1514 bytes\n"));
	/* 1514 = 94 * 16 + 10: the last line holds bytes 1504..1513. */
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt",
			       "000005e0: e0 e1 e2 e3 e4 e5 e6 e7 e8 e9\n"));
	for (auto &e : cap.Entries())
		EXPECT_EQ(e.logtype, zorv1_vdev_logtype_tx);
}

TEST(DumpPkt, GoesToTheDirectionsOwnLogType)
{
	LogCapture cap;
	cap.SetLevel(zorv1_vdev_logtype_rx, RTE_LOG_NOTICE);
	cap.SetLevel(zorv1_vdev_logtype_tx, RTE_LOG_DEBUG);
	auto data = Bytes(4);

	zorv1_dump_pkt("vdev rx", data.data(), 4);
	EXPECT_TRUE(cap.Text().empty()) << "rx is at NOTICE: " << cap.Text();

	zorv1_dump_pkt("vdev tx", data.data(), 4);
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt", "vdev tx: 4 bytes\n"));
	EXPECT_TRUE(HasLogLine(cap, "zorv1_dump_pkt", "00000000: 00 01 02 03\n"));
}

TEST(DumpPkt, EmptyOrMissingDataGivesOnlyTheHeader)
{
	LogCapture cap(zorv1_vdev_logtype_rx, RTE_LOG_DEBUG);
	zorv1_dump_pkt("vdev rx", nullptr, 64);
	zorv1_dump_pkt("vdev rx", reinterpret_cast<const uint8_t *>("x"), 0);
	EXPECT_EQ(cap.Lines().size(), 2u) << cap.Text();
	EXPECT_EQ(zorv_test::CountLines(cap, "zorv1_dump_pkt", "vdev rx: 0 bytes\n"), 2);
}

struct LogTypeCase {
	const int *type;
	const char *name;
	uint32_t level;
};

TEST(LogTypes, AreRegisteredUnderTheFamilyNamesWithTheirDefaultLevels)
{
	const LogTypeCase cases[] = {
		{&zorv1_vdev_logtype_cfg, "pmd.net.zorv1.cfg", RTE_LOG_INFO},
		{&zorv1_vdev_logtype_rx, "pmd.net.zorv1.rx", RTE_LOG_NOTICE},
		{&zorv1_vdev_logtype_tx, "pmd.net.zorv1.tx", RTE_LOG_NOTICE},
		{&zorv1_pci_logtype_perf, "pmd.net.zorv1.perf", RTE_LOG_NOTICE},
		{&zorv1_snic_pci_logtype_cfg, "pmd.net.zorv1.cmd", RTE_LOG_INFO},
	};
	std::set<int> ids;
	for (auto &c : cases) {
		/* Registering an existing name gives back its id. */
		EXPECT_EQ(rte_log_register(c.name), *c.type) << c.name;
		EXPECT_GE(*c.type, static_cast<int>(RTE_LOGTYPE_FIRST_EXT_ID)) << c.name;
		/* The harness sets no level for these types. */
		EXPECT_EQ(rte_log_get_level(*c.type), static_cast<int>(c.level)) << c.name;
		ids.insert(*c.type);
	}
	EXPECT_EQ(ids.size(), 5u);

	char *buf = nullptr;
	size_t len = 0;
	FILE *f = open_memstream(&buf, &len);
	ASSERT_NE(f, nullptr);
	rte_log_list_types(f, "pmd.net.zorv1.");
	fclose(f);
	std::string listed(buf, len);
	free(buf);
	for (auto &c : cases)
		EXPECT_NE(listed.find(std::string(c.name) + "\n"), std::string::npos)
			<< c.name << " missing from:\n"
			<< listed;
}

TEST(LogTypes, FamilyMacrosWriteThePrefixedLine)
{
	LogCapture cap(zorv1_snic_pci_logtype_cfg, RTE_LOG_INFO);
	ZORV1_SNIC_LOG(ERR, "cmd %d\n", 7);
	EXPECT_TRUE(HasLogLine(cap, __func__, "cmd 7\n"));
	auto entries = cap.Entries();
	ASSERT_EQ(entries.size(), 1u);
	EXPECT_EQ(entries[0].logtype, zorv1_snic_pci_logtype_cfg);
	EXPECT_EQ(entries[0].level, static_cast<int>(RTE_LOG_ERR));
}

} // namespace
