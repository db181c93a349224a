/* SPDX-License-Identifier: BSD-3-Clause
 * Firmware MTU command of the emulated card and the MTU drop counters its
 * data path keeps.
 */
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <rte_log.h>

#include "zorv1_logs.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"
#include "zorv_fw.h"
#include "zorv_test_harness.h"

namespace {

using zorv_test::HasLogLineAt;
using zorv_test::LogCapture;

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

class FwMtuTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		internal_.iface_name = iface_;
		for (uint16_t v : {kVport, kOtherVport})
			zorv_fw_vport_reset(v);
	}
	void TearDown() override
	{
		for (uint16_t v : {kVport, kOtherVport})
			zorv_fw_vport_reset(v);
	}

	int SetVport(uint16_t vport, uint32_t mtu)
	{
		struct zorv_cmd_mtu_set_info info = {};
		info.svport_id = vport;
		info.dvport_id = vport;
		info.mtu = mtu;
		return zorv1_fw_set_dev_mtu(&internal_, E_CMD_OP_MTU_SET_VPORT, &info);
	}

	static constexpr uint16_t kVport = 100;
	static constexpr uint16_t kOtherVport = 101;
	char iface_[16] = "fwtest0";
	struct zorv1_internal internal_ = {};
};

TEST_F(FwMtuTest, KeepsTheMtuOfEachVirtualPort)
{
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 0u) << "no MTU until one is set";

	ASSERT_EQ(SetVport(kVport, 1500), 0);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 1500u);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kOtherVport), 0u);

	ASSERT_EQ(SetVport(kOtherVport, 9000), 0);
	ASSERT_EQ(SetVport(kVport, 1280), 0);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 1280u);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kOtherVport), 9000u);
}

TEST_F(FwMtuTest, AcceptsTheLimitsOfTheRange)
{
	EXPECT_EQ(SetVport(kVport, ZORV_FW_MTU_MIN), 0);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), static_cast<uint32_t>(ZORV_FW_MTU_MIN));
	EXPECT_EQ(SetVport(kVport, ZORV_FW_MTU_MAX), 0);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), static_cast<uint32_t>(ZORV_FW_MTU_MAX));
}

TEST_F(FwMtuTest, RejectsMtuOutsideTheRangeAndKeepsThePreviousOne)
{
	ASSERT_EQ(SetVport(kVport, 1500), 0);
	for (uint32_t bad : {0u, 67u, 9601u, 65535u, 0xFFFFFFFFu}) {
		EXPECT_EQ(SetVport(kVport, bad), -EINVAL) << bad;
		EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 1500u) << bad;
	}
}

TEST_F(FwMtuTest, RejectsUnknownOperationsAndMissingArguments)
{
	struct zorv_cmd_mtu_set_info info = {kVport, kVport, 1500};
	EXPECT_EQ(zorv1_fw_set_dev_mtu(&internal_, static_cast<enum e_cmd_mtu_op_type>(0), &info),
		  -EINVAL);
	EXPECT_EQ(zorv1_fw_set_dev_mtu(&internal_, static_cast<enum e_cmd_mtu_op_type>(3), &info),
		  -EINVAL);
	EXPECT_EQ(zorv1_fw_set_dev_mtu(&internal_, E_CMD_OP_MTU_SET_VPORT, nullptr), -EINVAL);
	EXPECT_EQ(zorv1_fw_set_dev_mtu(nullptr, E_CMD_OP_MTU_SET_VPORT, &info), -EINVAL);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 0u);
}

TEST_F(FwMtuTest, MacPortMtuIsKeptApartFromVirtualPorts)
{
	struct zorv_cmd_mtu_set_info info = {2, 2, 9000};
	uint32_t vport2_before = zorv_fw_get_vport_mtu(2);

	ASSERT_EQ(zorv1_fw_set_dev_mtu(&internal_, E_CMD_OP_MTU_SET_MACPORT, &info), 0);
	EXPECT_EQ(zorv_fw_get_macport_mtu(2), 9000u);
	EXPECT_EQ(zorv_fw_get_vport_mtu(2), vport2_before);

	info.svport_id = ZORV_FW_MAC_PORTS;
	EXPECT_EQ(zorv1_fw_set_dev_mtu(&internal_, E_CMD_OP_MTU_SET_MACPORT, &info), -EINVAL);
	EXPECT_EQ(zorv_fw_get_macport_mtu(ZORV_FW_MAC_PORTS), 0u);
}

TEST_F(FwMtuTest, LogsTheAppliedMtuAtInfo)
{
	LogCapture cap(zorv1_vdev_logtype_cfg, RTE_LOG_INFO);
	ASSERT_EQ(SetVport(kVport, 1500), 0);
	EXPECT_TRUE(HasLogLineAt(cap, RTE_LOG_INFO, "zorv1_fw_set_dev_mtu",
				 "fwtest0: vport 100 mtu 1500 applied\n"));

	cap.Clear();
	EXPECT_NE(SetVport(kVport, 10), 0);
	EXPECT_EQ(cap.Text().find("applied"), std::string::npos) << "a refused MTU is not applied";
}

TEST_F(FwMtuTest, FrameLimitAddsEthernetHeaderAndVlanTag)
{
	EXPECT_EQ(zorv_fw_vport_frame_limit(kVport, 0), 0u) << "no MTU: no limit";
	ASSERT_EQ(SetVport(kVport, 1500), 0);
	EXPECT_EQ(zorv_fw_vport_frame_limit(kVport, 0), 1514u);
	EXPECT_EQ(zorv_fw_vport_frame_limit(kVport, 1), 1518u);
}

TEST_F(FwMtuTest, CountsDropsPerVirtualPortAndResetForgetsThem)
{
	EXPECT_EQ(zorv_fw_get_mtu_drops(kVport), 0u);
	for (int i = 0; i < 3; i++)
		zorv_fw_count_mtu_drop(kVport);
	EXPECT_EQ(zorv_fw_get_mtu_drops(kVport), 3u);
	EXPECT_EQ(zorv_fw_get_mtu_drops(kOtherVport), 0u);

	ASSERT_EQ(SetVport(kVport, 1500), 0);
	zorv_fw_vport_reset(kVport);
	EXPECT_EQ(zorv_fw_get_mtu_drops(kVport), 0u);
	EXPECT_EQ(zorv_fw_get_vport_mtu(kVport), 0u);
}

TEST_F(FwMtuTest, DropsCountedFromSeveralThreadsAreAllKept)
{
	constexpr int kPerThread = 100000;
	std::vector<std::thread> threads;
	for (int t = 0; t < 3; t++)
		threads.emplace_back([] {
			RunOnAllCpus();
			for (int i = 0; i < kPerThread; i++)
				zorv_fw_count_mtu_drop(kVport);
		});
	for (auto &t : threads)
		t.join();
	EXPECT_EQ(zorv_fw_get_mtu_drops(kVport), 3u * kPerThread);
}

} // namespace
