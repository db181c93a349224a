/* SPDX-License-Identifier: BSD-3-Clause
 * Creation of a net_zorv1 port (zorv1_dpu_dev_create and its name check),
 * called directly with a bus device of the test's own, the way probe calls
 * it once the arguments are parsed, with the fake family services behind it.
 *
 * The allocation failures are produced with the real DPDK heap: the test
 * fills the heap and leaves free exactly the room that the allocations
 * before the chosen one take, measured on this very heap, so that the chosen
 * allocation is the first to fail.
 */
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <rte_ethdev.h>
#include <rte_malloc.h>

#include <bus_vdev_driver.h>
#include <ethdev_driver.h>

#include "zorv1_diag.h"
#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_fakes.h"
#include "zorv_test_counters.h"
#include "zorv_test_harness.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zorv_fake::DiagInstall;
using zorv_fake::FakeEnv;
using zorv_fake::FlowInit;
using zorv_fake::MqttMsg;
using zorv_test::LogCapture;

namespace {

constexpr const char *kCreate = "zorv1_dpu_dev_create";
constexpr const char *kCheck = "zorv1_name_check_fail";

/* ---------------------------------------------------------------- helpers */

using Changes = zorv_test::CpChanges;

using zorv_test::CounterDelta;
using zorv_test::Idx;

/*
 * The message was logged by `func` at `level` on `logtype`, as one message
 * (so texts ending in "\n\n" match whole).
 */
::testing::AssertionResult Logged(const LogCapture &cap, int level, int logtype,
				  const std::string &func, const std::string &msg)
{
	std::string dump;
	for (auto &e : cap.Entries()) {
		if (e.level == level && e.logtype == logtype &&
		    zorv_test::MatchesZorvLine(e.text, func, msg))
			return ::testing::AssertionSuccess();
		dump += "<level " + std::to_string(e.level) + " type " + std::to_string(e.logtype) +
			"> " + e.text;
	}
	return ::testing::AssertionFailure() << "no message \"" << msg << "\" from " << func
					     << " at level " << level << " on type " << logtype
					     << "; captured:\n"
					     << dump;
}

/* Messages of the family (with the common prefix), in order. */
std::vector<std::string> ZorvMessages(const LogCapture &cap)
{
	std::vector<std::string> out;
	for (auto &e : cap.Entries()) {
		if (e.text.rfind("[offload_smartnic] ", 0) == 0)
			out.push_back(e.text);
	}
	return out;
}

/* Strips "[offload_smartnic] <func>-<line>: " from a message. */
std::string Body(const std::string &text)
{
	size_t pos = text.find(": ");
	return pos == std::string::npos ? text : text.substr(pos + 2);
}

/* A bus device as probe hands it to creation (numa node already fixed up). */
class TestVdev {
public:
	explicit TestVdev(std::string name, int numa = 0) : name_(std::move(name))
	{
		std::memset(&vdev_, 0, sizeof(vdev_));
		vdev_.device.name = name_.c_str();
		vdev_.device.numa_node = numa;
	}
	/* Removes the port if one was created for this device. */
	~TestVdev()
	{
		struct rte_eth_dev *dev = rte_eth_dev_allocated(name_.c_str());
		if (dev != nullptr && dev->device == &vdev_.device)
			(void)rte_pmd_zorv1_dpu_vdev_remove(&vdev_);
	}
	TestVdev(const TestVdev &) = delete;
	TestVdev &operator=(const TestVdev &) = delete;

	struct rte_vdev_device *get() { return &vdev_; }
	const char *name() const { return name_.c_str(); }
	struct rte_eth_dev *port() const { return rte_eth_dev_allocated(name_.c_str()); }

private:
	std::string name_;
	struct rte_vdev_device vdev_;
};

struct zorv1_internal *InternalOf(struct rte_eth_dev *dev)
{
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

int Create(TestVdev &v, const char *iface, int16_t queues)
{
	std::string copy = iface; /* probe passes a pointer into its argument list */
	return zorv1_dpu_dev_create(v.get(), copy.data(), queues);
}

struct rte_malloc_socket_stats HeapStats()
{
	struct rte_malloc_socket_stats st {};
	rte_malloc_get_socket_stats(0, &st);
	return st;
}

/*
 * Leaves exactly `room` bytes of the heap free as one block and nothing
 * else usable, until destruction.
 */
class HeapSqueeze {
public:
	/* Heap bytes one allocation takes, measured on the free heap. */
	static size_t Cost(size_t size, unsigned align)
	{
		size_t before = HeapStats().heap_freesz_bytes;
		void *p = rte_malloc_socket("zorv_test_cost", size, align, 0);
		size_t after = HeapStats().heap_freesz_bytes;
		rte_free(p);
		return p == nullptr ? 0 : before - after;
	}

	explicit HeapSqueeze(size_t room)
	{
		void *hole = nullptr;
		if (room > 0) {
			const size_t header = Cost(64, 0) - 64;
			size_t before = HeapStats().heap_freesz_bytes;
			hole = rte_malloc_socket("zorv_test_hole", room - header, 0, 0);
			size_t taken = before - HeapStats().heap_freesz_bytes;
			if (hole == nullptr || taken != room) {
				ADD_FAILURE() << "hole of " << room << " bytes took " << taken;
				rte_free(hole);
				return;
			}
		}
		for (size_t sz = size_t{1} << 30; sz >= 1; sz >>= 1) {
			while (void *p = rte_malloc_socket("zorv_test_fill", sz, 0, SOCKET_ID_ANY))
				blocks_.push_back(p);
		}
		rte_free(hole);
		ok_ = true;
	}
	~HeapSqueeze() { Release(); }
	HeapSqueeze(const HeapSqueeze &) = delete;
	HeapSqueeze &operator=(const HeapSqueeze &) = delete;

	void Release()
	{
		for (void *p : blocks_)
			rte_free(p);
		blocks_.clear();
	}
	bool ok() const { return ok_; }

private:
	std::vector<void *> blocks_;
	bool ok_ = false;
};

class CreateTest : public FakeEnv {
protected:
	static void SetUpTestSuite()
	{
		/* The ethdev layer reserves its shared data at the first port; do it
		 * now so that no test's heap accounting sees it. */
		zorv_test::FakePort warm;
	}
	void SetUp() override { ASSERT_EQ(rte_eth_dev_count_total(), 0u) << "a port leaked"; }
};

} // namespace

/* ---------------------------------------------------------------- success */

TEST_F(CreateTest, NewPortIsProbedButNotConfigured)
{
	TestVdev v("net_zorv1_c");
	LogCapture cap;
	CounterDelta delta;

	ASSERT_EQ(Create(v, "vhost_c", 4), 0);

	struct rte_eth_dev *dev = v.port();
	ASSERT_NE(dev, nullptr);
	struct rte_eth_dev_data *data = dev->data;
	struct zorv1_internal *in = InternalOf(dev);
	ASSERT_NE(in, nullptr);
	EXPECT_EQ(dev->state, RTE_ETH_DEV_ATTACHED);
	EXPECT_EQ(dev->device, &v.get()->device);
	EXPECT_EQ(data->nb_rx_queues, 4);
	EXPECT_EQ(data->nb_tx_queues, 4);
	EXPECT_EQ(in->max_queues, 4);
	EXPECT_EQ(in->vid, -1);
	EXPECT_EQ(in->sfi, INVALID_SFI);
	EXPECT_EQ(in->started, 0);
	EXPECT_EQ(in->vlan_strip, 0);
	EXPECT_EQ(in->comm.flag, 0u);
	EXPECT_EQ(in->rss.rss_hash_types, 0u);
	EXPECT_EQ(in->rss.rss_rx_queues, 0);
	EXPECT_EQ(in->rss.rss_htype, 0);
	const uint8_t zero_mac[6] = {};
	EXPECT_EQ(std::memcmp(in->mac_addr, zero_mac, 6), 0);
	EXPECT_STREQ(in->iface_name, "vhost_c");
	EXPECT_NE(in->cmd.in_mem, nullptr);
	EXPECT_NE(in->cmd.out_mem, nullptr);
	EXPECT_NE(in->cmd.in_mem, in->cmd.out_mem);

	EXPECT_EQ(data->dev_link.link_speed, RTE_ETH_SPEED_NUM_10G);
	EXPECT_EQ(data->dev_link.link_duplex, RTE_ETH_LINK_FULL_DUPLEX);
	EXPECT_EQ(data->dev_link.link_autoneg, RTE_ETH_LINK_FIXED);
	EXPECT_EQ(data->dev_link.link_status, RTE_ETH_LINK_DOWN);
	EXPECT_EQ(data->dev_flags, 0x42u);
	EXPECT_EQ(data->promiscuous, 1);
	EXPECT_EQ(data->all_multicast, 1);
	EXPECT_EQ(dev->dev_ops, &zorv1_dpu_dev_ops);
	EXPECT_EQ(dev->rx_pkt_burst, eth_vhost_rx);
	EXPECT_EQ(dev->tx_pkt_burst, eth_vhost_tx);
	/* No queue records before queue setup. */
	EXPECT_EQ(data->rx_queues, nullptr);
	EXPECT_EQ(data->tx_queues, nullptr);

	EXPECT_THAT(f.flow.inits, ElementsAre(FlowInit{dev, 1}));
	EXPECT_THAT(f.diag.installs, ElementsAre(DiagInstall{ZORV1_DIAG_DPU_VDEV, &zorv1_vdev_diag_ops}));
	EXPECT_THAT(f.NamesOf({"zorv_flow_resource_init", "zorv1_diag_ops_install"}),
		    ElementsAre("zorv_flow_resource_init", "zorv1_diag_ops_install"));
	/* Not installed in the device manager: that is configure's job. */
	EXPECT_EQ(f.dev.SlotOf(dev), -1);
	EXPECT_THAT(f.dev.installs, IsEmpty());
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
	EXPECT_TRUE(Logged(cap, RTE_LOG_INFO, zorv1_vdev_logtype_cfg, kCreate,
			   "zorv1 dpu dev numa socket 0\n"));
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(CreateTest, NamesAreCheckedDeviceNameFirstThenInterfaceUnderTheMutex)
{
	TestVdev v("net_zorv1_c");
	ASSERT_EQ(Create(v, "vhost_c", 1), 0);
	EXPECT_THAT(f.dev.by_name_calls, ElementsAre("net_zorv1_c"));
	EXPECT_THAT(f.NamesOf({"zorv1_vdev_get_ethdev_by_name", "zorv1_dev_mutex_lock",
			       "zorv1_dev_mutex_unlock", "zorv_flow_resource_init"}),
		    ElementsAre("zorv1_vdev_get_ethdev_by_name", "zorv1_dev_mutex_lock",
				"zorv1_dev_mutex_unlock", "zorv_flow_resource_init"));
	/* The interface walk looked at every slot, with the mutex held. */
	EXPECT_EQ(f.dev.slot_reads, static_cast<uint64_t>(ZORV1_DEV_MAX));
	EXPECT_EQ(f.dev.slot_reads_unlocked, 0u);
}

TEST_F(CreateTest, InterfaceNameIsCopied)
{
	TestVdev v("net_zorv1_c");
	char iface[] = "vhost_copy";
	ASSERT_EQ(zorv1_dpu_dev_create(v.get(), iface, 1), 0);
	struct zorv1_internal *in = InternalOf(v.port());
	ASSERT_NE(in->iface_name, nullptr);
	EXPECT_NE(in->iface_name, iface);
	iface[0] = 'X';
	EXPECT_STREQ(in->iface_name, "vhost_copy");
}

TEST_F(CreateTest, FirstPortGetsMacAddressEndingInZero)
{
	ASSERT_EQ(rte_eth_dev_count_total(), 0u);
	TestVdev v("net_zorv1_c");
	ASSERT_EQ(Create(v, "vhost_c", 1), 0);
	struct rte_eth_dev *dev = v.port();
	ASSERT_EQ(dev->data->port_id, 0);
	ASSERT_NE(dev->data->mac_addrs, nullptr);
	const uint8_t want[6] = {0x44, 0x56, 0x44, 0x45, 0x56, 0x00};
	EXPECT_EQ(std::memcmp(dev->data->mac_addrs[0].addr_bytes, want, 6), 0);
}

/*
 * The last byte is the port id's low byte. Port ids above 255 (where the
 * address would wrap, e.g. 257 -> :01) cannot exist here: DPDK is built for
 * 32 ports. The ids reachable are checked one by one.
 */
TEST_F(CreateTest, MacAddressLastByteIsThePortIdsLowByte)
{
	std::vector<zorv_test::FakePort> taken;
	taken.reserve(8);
	for (uint16_t id = 0; id < 7; id++) {
		TestVdev v("net_zorv1_mac");
		ASSERT_EQ(Create(v, "vhost_mac", 1), 0);
		struct rte_eth_dev *dev = v.port();
		ASSERT_EQ(dev->data->port_id, id);
		const uint8_t want[6] = {0x44, 0x56, 0x44, 0x45, 0x56, static_cast<uint8_t>(id & 0xff)};
		EXPECT_EQ(std::memcmp(dev->data->mac_addrs[0].addr_bytes, want, 6), 0) << "port " << id;
		EXPECT_EQ(std::memcmp(InternalOf(dev)->mac_addr, "\0\0\0\0\0\0", 6), 0);
		/* Free the id and occupy it, so that the next port gets the next one. */
		(void)rte_pmd_zorv1_dpu_vdev_remove(v.get());
		taken.emplace_back();
		ASSERT_EQ(taken.back().port_id(), id);
	}
}

TEST_F(CreateTest, QueueCountIsSetBeforeAnyQueueExists)
{
	TestVdev v("net_zorv1_c");
	ASSERT_EQ(Create(v, "vhost_c", 4), 0);
	struct rte_eth_dev *dev = v.port();
	EXPECT_EQ(dev->data->nb_rx_queues, 4);
	EXPECT_EQ(dev->data->nb_tx_queues, 4);
	EXPECT_EQ(InternalOf(dev)->max_queues, 4);
	/* The device bus of this test has no driver record: ask the operation itself. */
	struct rte_eth_dev_info info {};
	ASSERT_EQ(eth_dev_info(dev, &info), 0);
	EXPECT_EQ(info.max_rx_queues, 4);
	EXPECT_EQ(info.max_tx_queues, 4);
}

/* ---------------------------------------------------------------- name check */

TEST_F(CreateTest, InterfaceOfAConfiguredPortCannotBeTakenAgain)
{
	TestVdev first("net_zorv1_b");
	ASSERT_EQ(Create(first, "vhost0", 1), 0);
	/* Configure installs the port in the device manager's table. */
	ASSERT_EQ(eth_dev_configure(first.port()), 0);
	ASSERT_NE(f.dev.SlotOf(first.port()), -1);
	const uint16_t ports = rte_eth_dev_count_total();
	f.calls.clear();
	f.flow.inits.clear();
	f.diag.installs.clear();
	LogCapture cap;
	CounterDelta delta;

	TestVdev v("net_zorv1_a");
	EXPECT_EQ(Create(v, "vhost0", 2), -1);

	EXPECT_EQ(v.port(), nullptr);
	EXPECT_EQ(rte_eth_dev_count_total(), ports);
	auto msgs = ZorvMessages(cap);
	ASSERT_EQ(msgs.size(), 3u) << cap.Text();
	EXPECT_EQ(Body(msgs[0]), "zorv1 dpu dev numa socket 0\n");
	EXPECT_TRUE(zorv_test::MatchesZorvLine(msgs[1], kCheck, "iface_name(vhost0) already exists.\n\n"));
	EXPECT_TRUE(zorv_test::MatchesZorvLine(msgs[2], kCreate, "name(net_zorv1_a-vhost0) check fail!!!.\n\n"));
	EXPECT_TRUE(Logged(cap, RTE_LOG_WARNING, zorv1_vdev_logtype_cfg, kCheck,
			   "iface_name(vhost0) already exists.\n\n"));
	EXPECT_TRUE(Logged(cap, RTE_LOG_WARNING, zorv1_vdev_logtype_cfg, kCreate,
			   "name(net_zorv1_a-vhost0) check fail!!!.\n\n"));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_CHECK,
						     "net_zorv1_a", "vhost0", 2}));
	EXPECT_THAT(f.flow.inits, IsEmpty());
	EXPECT_THAT(f.diag.installs, IsEmpty());
	EXPECT_THAT(delta.Get(), IsEmpty());
}

TEST_F(CreateTest, InterfaceOfAPortThatIsOnlyCreatedIsStillFree)
{
	TestVdev first("net_zorv1_b");
	ASSERT_EQ(Create(first, "vhost0", 1), 0);
	TestVdev v("net_zorv1_a");
	EXPECT_EQ(Create(v, "vhost0", 1), 0);
	ASSERT_NE(v.port(), nullptr);
	EXPECT_STREQ(InternalOf(v.port())->iface_name, "vhost0");
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(CreateTest, TakenDeviceNameIsRefusedBeforeTheInterfaceIsLookedAt)
{
	zorv_test::FakePort other({.name = "net_zorv1_a"});
	auto *ifc = static_cast<char *>(rte_malloc(nullptr, 8, 0));
	std::strcpy(ifc, "vhost0");
	other.internal()->iface_name = ifc;
	/* Both the name and the interface are taken. */
	f.dev.Place(3, other.dev());
	LogCapture cap;

	TestVdev v("net_zorv1_a");
	EXPECT_EQ(zorv1_dpu_dev_create(v.get(), ifc, 2), -1);

	EXPECT_TRUE(Logged(cap, RTE_LOG_WARNING, zorv1_vdev_logtype_cfg, kCheck,
			   "eth_dev(net_zorv1_a) already exists..\n\n"));
	EXPECT_TRUE(Logged(cap, RTE_LOG_WARNING, zorv1_vdev_logtype_cfg, kCreate,
			   "name(net_zorv1_a-vhost0) check fail!!!.\n\n"));
	EXPECT_EQ(ZorvMessages(cap).size(), 3u) << cap.Text();
	/* The interface walk never ran. */
	EXPECT_EQ(f.dev.lock_count, 0u);
	EXPECT_EQ(f.dev.slot_reads, 0u);
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_CHECK,
						     "net_zorv1_a", "vhost0", 2}));
	/* The existing port is untouched. */
	EXPECT_EQ(rte_eth_dev_allocated("net_zorv1_a"), other.dev());
	EXPECT_EQ(other.internal()->iface_name, ifc);

	f.dev.ClearSlots();
	other.Release();
	rte_free(ifc);
}

TEST_F(CreateTest, NameCheckAnswersFalseWhenBothAreFree)
{
	char ifc[] = "vhost_free";
	LogCapture cap;
	EXPECT_FALSE(zorv1_name_check_fail("net_zorv1_free", ifc));
	EXPECT_TRUE(ZorvMessages(cap).empty()) << cap.Text();
}

TEST_F(CreateTest, UnsentReportIsCountedAndCreationStillFailsCleanly)
{
	zorv_test::FakePort other({.name = "net_zorv1_a"});
	f.dev.by_name = [&](const char *) { return other.dev(); };
	f.mqtt.send_result = 7;
	LogCapture cap;
	CounterDelta delta;

	TestVdev v("net_zorv1_a2");
	EXPECT_EQ(Create(v, "vhost0", 3), -1);

	EXPECT_EQ(f.mqtt.msgs.size(), 1u);
	EXPECT_TRUE(Logged(cap, RTE_LOG_ERR, zorv1_vdev_logtype_cfg, kCreate,
			   "Send msg failed, net_zorv1_a2-vhost0-5-4\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
	EXPECT_EQ(v.port(), nullptr);
}

/* ---------------------------------------------------------------- flow engine */

TEST_F(CreateTest, FlowResourceFailureStillLeavesAWorkingPort)
{
	f.flow.init_result = -5;
	LogCapture cap;
	CounterDelta delta;

	TestVdev v("net_zorv1_c");
	EXPECT_EQ(Create(v, "vhost_c", 2), 0);

	struct rte_eth_dev *dev = v.port();
	ASSERT_NE(dev, nullptr);
	EXPECT_EQ(dev->state, RTE_ETH_DEV_ATTACHED);
	EXPECT_EQ(dev->dev_ops, &zorv1_dpu_dev_ops);
	EXPECT_TRUE(Logged(cap, RTE_LOG_ERR, zorv1_vdev_logtype_cfg, kCreate,
			   "flow resource init failed,port_id=" + std::to_string(dev->data->port_id) +
				   ".\n"));
	int errs = 0;
	for (auto &e : cap.Entries())
		errs += e.level == RTE_LOG_ERR;
	EXPECT_EQ(errs, 1) << cap.Text();
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::flow_start_fail), 1}}));
	EXPECT_THAT(f.diag.installs, ElementsAre(DiagInstall{ZORV1_DIAG_DPU_VDEV, &zorv1_vdev_diag_ops}));
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
	/* Usable: configure and start work. */
	EXPECT_EQ(eth_dev_configure(dev), 0);
	EXPECT_EQ(eth_dev_start(dev), 0);
}

TEST_F(CreateTest, DiagnosticsTableIsInstalledForEveryPort)
{
	TestVdev a("net_zorv1_c1"), b("net_zorv1_c2");
	ASSERT_EQ(Create(a, "vhost_c1", 1), 0);
	ASSERT_EQ(Create(b, "vhost_c2", 1), 0);
	EXPECT_THAT(f.diag.installs,
		    ElementsAre(DiagInstall{ZORV1_DIAG_DPU_VDEV, &zorv1_vdev_diag_ops},
				DiagInstall{ZORV1_DIAG_DPU_VDEV, &zorv1_vdev_diag_ops}));
}

/* ---------------------------------------------------------------- allocations */

namespace {

/* The five allocations of creation, in order, and their heap cost here. */
struct AllocCosts {
	size_t c[5];
	explicit AllocCosts(const char *iface)
	{
		c[0] = HeapSqueeze::Cost(sizeof(struct zorv1_internal), RTE_CACHE_LINE_SIZE);
		c[1] = HeapSqueeze::Cost(sizeof(struct rte_ether_addr), 0);
		c[2] = HeapSqueeze::Cost(std::strlen(iface) + 1, 0);
		c[3] = HeapSqueeze::Cost(ZORV1_CMD_MEM_SIZE, 0);
		c[4] = HeapSqueeze::Cost(ZORV1_CMD_MEM_SIZE, 0);
	}
	/* Room that lets the allocations before `failing` (0-based) succeed. */
	size_t RoomBefore(int failing) const
	{
		size_t room = 0;
		for (int i = 0; i < failing; i++)
			room += c[i];
		return room;
	}
};

struct FailureCase {
	int failing;      /* index of the allocation that fails */
	int logtype_is_cmd; /* logged on the command-buffer type */
	const char *message;
	int err;
};

class CreateAllocTest : public CreateTest, public ::testing::WithParamInterface<FailureCase> {};

std::string AllocationName(const ::testing::TestParamInfo<FailureCase> &info)
{
	static const char *const names[] = {"PrivateArea", "MacAddress", "InterfaceName",
					    "CommandInput", "CommandOutput"};
	return names[info.param.failing];
}

} // namespace

TEST_P(CreateAllocTest, FailedAllocationIsReportedAndEverythingIsFreed)
{
	const FailureCase &fc = GetParam();
	const char *iface = "vhost_alloc";
	AllocCosts costs(iface);
	for (size_t c : costs.c)
		ASSERT_GE(c, 128u);
	const auto heap_before = HeapStats();
	TestVdev v("net_zorv1_m");
	int ret;
	LogCapture cap;
	CounterDelta delta;
	{
		HeapSqueeze squeeze(costs.RoomBefore(fc.failing));
		ASSERT_TRUE(squeeze.ok());
		ret = Create(v, iface, 3);
	}

	EXPECT_EQ(ret, -1);
	EXPECT_EQ(v.port(), nullptr);
	EXPECT_EQ(rte_eth_dev_count_total(), 0u);
	const int logtype = fc.logtype_is_cmd ? zorv1_snic_pci_logtype_cfg : zorv1_vdev_logtype_cfg;
	EXPECT_TRUE(Logged(cap, RTE_LOG_ERR, logtype, kCreate, fc.message));
	EXPECT_THAT(f.mqtt.msgs, ElementsAre(MqttMsg{ZORV1_MSG_DEV_VHOST_ERR, fc.err, "net_zorv1_m",
						     "vhost_alloc", 3}));
	EXPECT_THAT(f.flow.inits, IsEmpty());
	EXPECT_THAT(f.diag.installs, IsEmpty());
	EXPECT_THAT(delta.Get(), IsEmpty());
	/* Nothing of the port is left on the heap. */
	const auto heap_after = HeapStats();
	EXPECT_EQ(heap_after.alloc_count, heap_before.alloc_count);
	EXPECT_EQ(heap_after.heap_allocsz_bytes, heap_before.heap_allocsz_bytes);
}

INSTANTIATE_TEST_SUITE_P(
	EachAllocation, CreateAllocTest,
	::testing::Values(
		FailureCase{0, 0, "name(net_zorv1_m-vhost_alloc) eth alloc fail!.\n\n", ZORV1_ERR_MEM_ALLOC},
		FailureCase{1, 0, "name(net_zorv1_m-vhost_alloc) eth_addr alloc fail!.\n\n",
			    ZORV1_ERR_MEM_ALLOC},
		FailureCase{2, 0, "name(net_zorv1_m-vhost_alloc) iface_name alloc fail!.\n\n",
			    ZORV1_ERR_MEM_ALLOC},
		FailureCase{3, 1, "reserve mem for cmd in_mem fail!\n", ZORV1_ERR_NONE},
		FailureCase{4, 1, "reserve mem for cmd out_mem fail!\n", ZORV1_ERR_NONE}),
	AllocationName);

/* The squeeze itself: with the room of all five the creation goes through. */
TEST_F(CreateTest, RoomForAllFiveAllocationsIsEnough)
{
	const char *iface = "vhost_alloc";
	AllocCosts costs(iface);
	TestVdev v("net_zorv1_m");
	int ret;
	{
		HeapSqueeze squeeze(costs.RoomBefore(5));
		ASSERT_TRUE(squeeze.ok());
		ret = Create(v, iface, 3);
	}
	EXPECT_EQ(ret, 0);
	EXPECT_NE(v.port(), nullptr);
	EXPECT_THAT(f.mqtt.msgs, IsEmpty());
}

TEST_F(CreateTest, UnsentReportOfAnAllocationFailureIsCounted)
{
	const char *iface = "vhost_alloc";
	AllocCosts costs(iface);
	f.mqtt.send_result = 1;
	TestVdev v("net_zorv1_m");
	LogCapture cap;
	CounterDelta delta;
	int ret;
	{
		HeapSqueeze squeeze(costs.RoomBefore(4));
		ASSERT_TRUE(squeeze.ok());
		ret = Create(v, iface, 3);
	}
	EXPECT_EQ(ret, -1);
	EXPECT_TRUE(Logged(cap, RTE_LOG_ERR, zorv1_vdev_logtype_cfg, kCreate,
			   "Send msg failed, net_zorv1_m-vhost_alloc-5-0\n"));
	EXPECT_EQ(delta.Get(), (Changes{{Idx(&dpdk_cp_stat::send_msg_fail), 1}}));
	EXPECT_EQ(v.port(), nullptr);
}
