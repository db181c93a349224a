/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine: rte_mtr meters. Profiles (srTCM RFC 2697, trTCM RFC 2698),
 * policies, meters, colours given to frames by a METER rule at chosen TSC
 * times, red frames dropped and counted, statistics, enable/disable, and the
 * refusals (unsupported modes, objects in use).
 */
#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <rte_cycles.h>
#include <rte_flow.h>
#include <rte_mtr.h>

#include "test_flow_helpers.h"

namespace {

using flow_test::FlowPort;
using flow_test::Frame;
using flow_test::RuleBuilder;

constexpr uint16_t FRAME_LEN = 100;

class FlowMeterTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(port_);
		memset(&err_, 0, sizeof(err_));
	}

	int AddSrtcm(uint32_t id, uint64_t cir, uint64_t cbs, uint64_t ebs)
	{
		struct rte_mtr_meter_profile p = {};
		p.alg = RTE_MTR_SRTCM_RFC2697;
		p.srtcm_rfc2697.cir = cir;
		p.srtcm_rfc2697.cbs = cbs;
		p.srtcm_rfc2697.ebs = ebs;
		return rte_mtr_meter_profile_add(port_.id(), id, &p, &err_);
	}
	int AddTrtcm(uint32_t id, uint64_t cir, uint64_t pir, uint64_t cbs, uint64_t pbs)
	{
		struct rte_mtr_meter_profile p = {};
		p.alg = RTE_MTR_TRTCM_RFC2698;
		p.trtcm_rfc2698.cir = cir;
		p.trtcm_rfc2698.pir = pir;
		p.trtcm_rfc2698.cbs = cbs;
		p.trtcm_rfc2698.pbs = pbs;
		return rte_mtr_meter_profile_add(port_.id(), id, &p, &err_);
	}
	/* Policy dropping the colours given. */
	int AddPolicy(uint32_t id, bool drop_green, bool drop_yellow, bool drop_red)
	{
		static const struct rte_flow_action drop[] = {{RTE_FLOW_ACTION_TYPE_DROP, nullptr},
							      {RTE_FLOW_ACTION_TYPE_END, nullptr}};
		static const struct rte_flow_action pass[] = {{RTE_FLOW_ACTION_TYPE_VOID, nullptr},
							      {RTE_FLOW_ACTION_TYPE_END, nullptr}};
		struct rte_mtr_meter_policy_params pol = {};
		pol.actions[RTE_COLOR_GREEN] = drop_green ? drop : nullptr;
		pol.actions[RTE_COLOR_YELLOW] = drop_yellow ? drop : pass;
		pol.actions[RTE_COLOR_RED] = drop_red ? drop : pass;
		return rte_mtr_meter_policy_add(port_.id(), id, &pol, &err_);
	}
	int CreateMeter(uint32_t id, uint32_t profile, uint32_t policy, int shared = 0,
			int enable = 1)
	{
		struct rte_mtr_params mp = {};
		mp.meter_profile_id = profile;
		mp.meter_policy_id = policy;
		mp.meter_enable = enable;
		mp.stats_mask = RTE_MTR_STATS_N_PKTS_GREEN | RTE_MTR_STATS_N_PKTS_YELLOW |
				RTE_MTR_STATS_N_PKTS_RED | RTE_MTR_STATS_N_PKTS_DROPPED |
				RTE_MTR_STATS_N_BYTES_GREEN | RTE_MTR_STATS_N_BYTES_YELLOW |
				RTE_MTR_STATS_N_BYTES_RED | RTE_MTR_STATS_N_BYTES_DROPPED;
		return rte_mtr_create(port_.id(), id, &mp, shared, &err_);
	}
	struct rte_flow *MeterRule(uint32_t mtr, bool count_first = false, bool count_after = false)
	{
		RuleBuilder r;
		r.Item(RTE_FLOW_ITEM_TYPE_ETH).Item(RTE_FLOW_ITEM_TYPE_IPV4);
		if (count_first)
			r.Count();
		r.Meter(mtr);
		if (count_after)
			r.Count();
		r.Queue(1);
		struct rte_flow *f = port_.Create(r);
		EXPECT_NE(f, nullptr) << (port_.err.message ? port_.err.message : "");
		return f;
	}
	/* Send n frames at time now; count {passed (queue 1), dropped}. */
	std::pair<int, int> Send(int n, uint64_t now)
	{
		auto m = Frame().Eth().Ipv4("1.1.1.1", "2.2.2.2").Udp(1, 2).PadTo(FRAME_LEN).Build();
		int passed = 0, dropped = 0;
		for (int i = 0; i < n; i++) {
			uint16_t v = port_.VerdictAt(m.get(), now);
			passed += v == 1;
			dropped += v == ZORV_FLOW_VERDICT_DROP;
			EXPECT_TRUE(v == 1 || v == ZORV_FLOW_VERDICT_DROP) << v;
		}
		return {passed, dropped};
	}
	struct rte_mtr_stats Stats(uint32_t id, bool clear = false, uint64_t *mask = nullptr)
	{
		struct rte_mtr_stats st = {};
		uint64_t m = 0;
		EXPECT_EQ(rte_mtr_stats_read(port_.id(), id, &st, &m, clear ? 1 : 0, &err_), 0);
		if (mask != nullptr)
			*mask = m;
		return st;
	}
	void ExpectColours(uint32_t id, uint64_t g, uint64_t y, uint64_t r, uint64_t dropped)
	{
		struct rte_mtr_stats st = Stats(id);
		EXPECT_EQ(st.n_pkts[RTE_COLOR_GREEN], g);
		EXPECT_EQ(st.n_pkts[RTE_COLOR_YELLOW], y);
		EXPECT_EQ(st.n_pkts[RTE_COLOR_RED], r);
		EXPECT_EQ(st.n_pkts_dropped, dropped);
		EXPECT_EQ(st.n_bytes[RTE_COLOR_GREEN], g * FRAME_LEN);
		EXPECT_EQ(st.n_bytes[RTE_COLOR_YELLOW], y * FRAME_LEN);
		EXPECT_EQ(st.n_bytes[RTE_COLOR_RED], r * FRAME_LEN);
		EXPECT_EQ(st.n_bytes_dropped, dropped * FRAME_LEN);
	}
	void ExpectMtrError(int ret, int code, enum rte_mtr_error_type type, const char *part)
	{
		EXPECT_EQ(ret, -code);
		EXPECT_EQ(err_.type, type);
		ASSERT_NE(err_.message, nullptr);
		EXPECT_NE(strstr(err_.message, part), nullptr) << err_.message;
		memset(&err_, 0, sizeof(err_));
	}
	static uint64_t Ms(uint64_t ms) { return rte_get_tsc_hz() / 1000 * ms; }

	FlowPort port_{2};
	struct rte_mtr_error err_;
};

TEST_F(FlowMeterTest, CapabilitiesTellWhatTheMetersDo)
{
	struct rte_mtr_capabilities cap;
	ASSERT_EQ(rte_mtr_capabilities_get(port_.id(), &cap, &err_), 0);
	EXPECT_GT(cap.n_max, 0u);
	EXPECT_EQ(cap.meter_srtcm_rfc2697_n_max, cap.n_max);
	EXPECT_EQ(cap.meter_trtcm_rfc2698_n_max, cap.n_max);
	EXPECT_EQ(cap.meter_trtcm_rfc4115_n_max, 0u);
	EXPECT_EQ(cap.srtcm_rfc2697_byte_mode_supported, 1);
	EXPECT_EQ(cap.srtcm_rfc2697_packet_mode_supported, 0);
	EXPECT_EQ(cap.chaining_n_mtrs_per_flow_max, 1u);
	EXPECT_GT(cap.meter_policy_n_max, 0u);
	EXPECT_EQ(cap.stats_mask, 0xffu);
	EXPECT_EQ(cap.color_aware_srtcm_rfc2697_supported, 0);
}

TEST_F(FlowMeterTest, SrtcmColoursGreenThenYellowThenRedDropped)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(7, 1, 1), 0);
	ASSERT_TRUE(MeterRule(7));
	const uint64_t t0 = rte_rdtsc();

	/* Full buckets: CBS 1000 bytes green, EBS 500 yellow, the rest red. */
	auto r = Send(20, t0);
	EXPECT_EQ(r.first, 15);
	EXPECT_EQ(r.second, 5);
	ExpectColours(7, 10, 5, 5, 5);

	/* 2 ms at 1 MB/s bring 2000 bytes: C full again, the overflow fills E. */
	r = Send(20, t0 + Ms(2));
	EXPECT_EQ(r.first, 15);
	EXPECT_EQ(r.second, 5);
	ExpectColours(7, 20, 10, 10, 10);

	/* Nothing comes back without time passing. */
	r = Send(3, t0 + Ms(2));
	EXPECT_EQ(r.second, 3);

	struct zorv_flow_stats st = {};
	ASSERT_EQ(zorv_flow_stats_get(port_.dev(), &st), 0);
	EXPECT_EQ(st.dropped, 13u);
}

TEST_F(FlowMeterTest, SrtcmRefillsAtTheCommittedRate)
{
	/* 100 kB/s: 0.5 ms brings 50 bytes, not enough for a 100-byte frame. */
	ASSERT_EQ(AddSrtcm(1, 100000, 100, 1), 0);
	ASSERT_EQ(AddPolicy(1, false, true, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1), 0);
	ASSERT_TRUE(MeterRule(1));
	const uint64_t t0 = rte_rdtsc();
	EXPECT_EQ(Send(2, t0), std::make_pair(1, 1));
	const uint64_t half = rte_get_tsc_hz() / 2000;
	EXPECT_EQ(Send(1, t0 + half), std::make_pair(0, 1));
	EXPECT_EQ(Send(1, t0 + 3 * half), std::make_pair(1, 0)) << "1.5 ms: 150 bytes in C";
	ExpectColours(1, 2, 0, 2, 2);
}

TEST_F(FlowMeterTest, TrtcmColoursByPeakThenCommittedBuckets)
{
	ASSERT_EQ(AddTrtcm(2, 1000000, 2000000, 1000, 2000), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(3, 2, 1), 0);
	ASSERT_TRUE(MeterRule(3));
	const uint64_t t0 = rte_rdtsc();

	/* P 2000 / C 1000: 10 green, 10 yellow (P only), then red. */
	auto r = Send(25, t0);
	EXPECT_EQ(r, std::make_pair(20, 5));
	ExpectColours(3, 10, 10, 5, 5);

	/* 1 ms: P gets 2000 bytes (full), C 1000 (full). */
	r = Send(25, t0 + Ms(1));
	EXPECT_EQ(r, std::make_pair(20, 5));
	ExpectColours(3, 20, 20, 10, 10);
}

TEST_F(FlowMeterTest, PolicyDecidesWhichColoursAreDropped)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(4, false, true, true), 0);  /* yellow dropped too */
	ASSERT_EQ(AddPolicy(5, false, false, false), 0); /* colour only */
	ASSERT_EQ(CreateMeter(1, 1, 4), 0);
	ASSERT_TRUE(MeterRule(1));
	const uint64_t t0 = rte_rdtsc();
	EXPECT_EQ(Send(20, t0), std::make_pair(10, 10));
	ExpectColours(1, 10, 5, 5, 10);

	ASSERT_EQ(rte_mtr_meter_policy_update(port_.id(), 1, 5, &err_), 0);
	EXPECT_EQ(Send(5, t0), std::make_pair(5, 0)) << "red frames pass with the new policy";
	ExpectColours(1, 10, 5, 10, 10);
}

TEST_F(FlowMeterTest, DisabledMeterPassesEverythingGreenAndStillCounts)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1, 0, 0), 0) << "created disabled";
	ASSERT_TRUE(MeterRule(1));
	const uint64_t t0 = rte_rdtsc();
	EXPECT_EQ(Send(30, t0), std::make_pair(30, 0));
	ExpectColours(1, 30, 0, 0, 0);

	ASSERT_EQ(rte_mtr_meter_enable(port_.id(), 1, &err_), 0);
	EXPECT_EQ(Send(20, t0), std::make_pair(15, 5));
	ASSERT_EQ(rte_mtr_meter_disable(port_.id(), 1, &err_), 0);
	EXPECT_EQ(Send(5, t0), std::make_pair(5, 0));
	ExpectColours(1, 45, 5, 5, 5);
}

TEST_F(FlowMeterTest, StatsReadClearsOnRequestAndReportsTheMask)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1), 0);
	ASSERT_TRUE(MeterRule(1));
	Send(12, rte_rdtsc());
	uint64_t mask = 0;
	struct rte_mtr_stats st = Stats(1, true, &mask);
	EXPECT_EQ(mask, 0xffu);
	EXPECT_EQ(st.n_pkts[RTE_COLOR_GREEN], 10u);
	EXPECT_EQ(st.n_pkts[RTE_COLOR_YELLOW], 2u);
	ExpectColours(1, 0, 0, 0, 0);

	ASSERT_EQ(rte_mtr_stats_update(port_.id(), 1, RTE_MTR_STATS_N_PKTS_DROPPED, &err_), 0);
	Stats(1, false, &mask);
	EXPECT_EQ(mask, static_cast<uint64_t>(RTE_MTR_STATS_N_PKTS_DROPPED));
	ExpectMtrError(rte_mtr_stats_update(port_.id(), 1, 1u << 12, &err_), EINVAL,
		       RTE_MTR_ERROR_TYPE_STATS_MASK, "unknown statistics counters");
}

TEST_F(FlowMeterTest, CountBeforeTheMeterSeesDropsCountAfterDoesNot)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1, 1), 0);
	ASSERT_EQ(CreateMeter(2, 1, 1, 1), 0);
	struct rte_flow *before = MeterRule(1, true, false);
	ASSERT_TRUE(before);
	const uint64_t t0 = rte_rdtsc();
	Send(20, t0);
	EXPECT_EQ(port_.Count(before).first, 20u);
	ASSERT_EQ(port_.Destroy(before), 0);

	struct rte_flow *after = MeterRule(2, false, true);
	ASSERT_TRUE(after);
	Send(20, t0);
	EXPECT_EQ(port_.Count(after).first, 15u);
}

TEST_F(FlowMeterTest, ProfileUpdateTakesNewRates)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddSrtcm(2, 1000000, 3000, 0), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1), 0);
	ASSERT_TRUE(MeterRule(1));
	ASSERT_EQ(rte_mtr_meter_profile_update(port_.id(), 1, 2, &err_), 0);
	EXPECT_EQ(Send(35, rte_rdtsc()), std::make_pair(30, 5));
	ExpectMtrError(rte_mtr_meter_profile_delete(port_.id(), 2, &err_), EBUSY,
		       RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, "used by a meter");
	EXPECT_EQ(rte_mtr_meter_profile_delete(port_.id(), 1, &err_), 0)
		<< "the old profile is free again";
}

TEST_F(FlowMeterTest, ObjectsInUseCannotBeDeleted)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1), 0);
	struct rte_flow *f = MeterRule(1);
	ASSERT_TRUE(f);

	ExpectMtrError(rte_mtr_destroy(port_.id(), 1, &err_), EBUSY, RTE_MTR_ERROR_TYPE_MTR_ID,
		       "meter is used by a flow rule");
	ExpectMtrError(rte_mtr_meter_profile_delete(port_.id(), 1, &err_), EBUSY,
		       RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, "used by a meter");
	ExpectMtrError(rte_mtr_meter_policy_delete(port_.id(), 1, &err_), EBUSY,
		       RTE_MTR_ERROR_TYPE_METER_POLICY_ID, "used by a meter");

	ASSERT_EQ(port_.Destroy(f), 0);
	EXPECT_EQ(rte_mtr_destroy(port_.id(), 1, &err_), 0);
	EXPECT_EQ(rte_mtr_meter_profile_delete(port_.id(), 1, &err_), 0);
	EXPECT_EQ(rte_mtr_meter_policy_delete(port_.id(), 1, &err_), 0);
	ExpectMtrError(rte_mtr_destroy(port_.id(), 1, &err_), EINVAL, RTE_MTR_ERROR_TYPE_MTR_ID,
		       "no meter with this id");
}

TEST_F(FlowMeterTest, AnUnsharedMeterServesOneRule)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1, 0), 0);
	ASSERT_EQ(CreateMeter(2, 1, 1, 1), 0);
	ASSERT_TRUE(MeterRule(1));
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Meter(1).Queue(1);
	EXPECT_EQ(port_.Create(r), nullptr);
	EXPECT_EQ(port_.err.type, RTE_FLOW_ERROR_TYPE_ACTION_CONF);
	EXPECT_NE(strstr(port_.err.message, "meter is not shared"), nullptr);

	ASSERT_TRUE(MeterRule(2));
	ASSERT_TRUE(MeterRule(2)) << "a shared meter serves several rules";
}

TEST_F(FlowMeterTest, MeterActionNeedsAnExistingMeter)
{
	RuleBuilder r;
	r.Item(RTE_FLOW_ITEM_TYPE_ETH).Meter(99).Queue(1);
	flow_test::ExpectRefused(port_.Validate(r), port_.err, EINVAL,
				 RTE_FLOW_ERROR_TYPE_ACTION_CONF, r.ActionAt(0)->conf,
				 "METER names no meter of the port");
	RuleBuilder two;
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1, 1), 0);
	two.Item(RTE_FLOW_ITEM_TYPE_ETH).Meter(1).Meter(1);
	flow_test::ExpectRefused(port_.Validate(two), port_.err, ENOTSUP,
				 RTE_FLOW_ERROR_TYPE_ACTION, two.ActionAt(1),
				 "only one METER per rule");
}

TEST_F(FlowMeterTest, ProfilesTheMetersCannotRunAreRefused)
{
	struct rte_mtr_meter_profile p = {};
	p.alg = RTE_MTR_SRTCM_RFC2697;
	p.srtcm_rfc2697 = {1000, 100, 100};
	p.packet_mode = 1;
	ExpectMtrError(rte_mtr_meter_profile_add(port_.id(), 1, &p, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_METER_PROFILE_PACKET_MODE, "packet mode not supported");
	p.packet_mode = 0;
	p.alg = RTE_MTR_TRTCM_RFC4115;
	p.trtcm_rfc4115 = {1000, 1000, 100, 100};
	ExpectMtrError(rte_mtr_meter_profile_add(port_.id(), 1, &p, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_METER_PROFILE, "trTCM RFC 4115 not supported");
	ExpectMtrError(AddSrtcm(1, 0, 100, 100), EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE,
		       "invalid srTCM profile");
	ExpectMtrError(AddTrtcm(1, 2000, 1000, 100, 100), EINVAL, RTE_MTR_ERROR_TYPE_METER_PROFILE,
		       "invalid trTCM profile");
	ASSERT_EQ(AddSrtcm(1, 1000, 100, 100), 0);
	ExpectMtrError(AddSrtcm(1, 1000, 100, 100), EEXIST, RTE_MTR_ERROR_TYPE_METER_PROFILE_ID,
		       "already in use");
}

TEST_F(FlowMeterTest, PoliciesWithOtherActionsAreRefused)
{
	struct rte_flow_action_queue q = {1};
	const struct rte_flow_action queue[] = {{RTE_FLOW_ACTION_TYPE_QUEUE, &q},
						{RTE_FLOW_ACTION_TYPE_END, nullptr}};
	struct rte_mtr_meter_policy_params pol = {};
	pol.actions[RTE_COLOR_RED] = queue;
	ExpectMtrError(rte_mtr_meter_policy_validate(port_.id(), &pol, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_POLICER_ACTION_RED, "action type QUEUE not supported");
	pol.actions[RTE_COLOR_RED] = nullptr;
	pol.actions[RTE_COLOR_YELLOW] = queue;
	ExpectMtrError(rte_mtr_meter_policy_add(port_.id(), 1, &pol, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_POLICER_ACTION_YELLOW, "action type QUEUE not supported");
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	ExpectMtrError(AddPolicy(1, false, false, true), EEXIST, RTE_MTR_ERROR_TYPE_METER_POLICY_ID,
		       "already in use");
}

TEST_F(FlowMeterTest, MeterParametersTheEngineCannotHonourAreRefused)
{
	ASSERT_EQ(AddSrtcm(1, 1000000, 1000, 500), 0);
	ASSERT_EQ(AddPolicy(1, false, false, true), 0);
	struct rte_mtr_params mp = {};
	mp.meter_profile_id = 1;
	mp.meter_policy_id = 1;
	mp.use_prev_mtr_color = 1;
	ExpectMtrError(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_MTR_PARAMS, "meter chaining");
	mp.use_prev_mtr_color = 0;
	enum rte_color dscp[64];
	for (auto &c : dscp)
		c = RTE_COLOR_GREEN;
	dscp[10] = RTE_COLOR_RED;
	mp.dscp_table = dscp;
	ExpectMtrError(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), ENOTSUP,
		       RTE_MTR_ERROR_TYPE_MTR_PARAMS, "colour-aware metering not supported");
	dscp[10] = RTE_COLOR_GREEN;
	mp.meter_profile_id = 9;
	ExpectMtrError(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), EINVAL,
		       RTE_MTR_ERROR_TYPE_METER_PROFILE_ID, "no meter profile with this id");
	mp.meter_profile_id = 1;
	mp.meter_policy_id = 9;
	ExpectMtrError(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), EINVAL,
		       RTE_MTR_ERROR_TYPE_METER_POLICY_ID, "no meter policy with this id");
	mp.meter_policy_id = 1;
	EXPECT_EQ(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), 0) << "an all-green table is blind";
	ExpectMtrError(rte_mtr_create(port_.id(), 1, &mp, 0, &err_), EEXIST,
		       RTE_MTR_ERROR_TYPE_MTR_ID, "meter id already in use");
}

TEST_F(FlowMeterTest, PassThroughProfileColoursEverythingGreen)
{
	struct rte_mtr_meter_profile p = {};
	p.alg = RTE_MTR_NONE;
	ASSERT_EQ(rte_mtr_meter_profile_add(port_.id(), 1, &p, &err_), 0);
	ASSERT_EQ(AddPolicy(1, false, true, true), 0);
	ASSERT_EQ(CreateMeter(1, 1, 1), 0);
	ASSERT_TRUE(MeterRule(1));
	EXPECT_EQ(Send(50, rte_rdtsc()), std::make_pair(50, 0));
	ExpectColours(1, 50, 0, 0, 0);
}

} // namespace
