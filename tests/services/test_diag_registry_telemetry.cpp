/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics registry through DPDK's telemetry socket: the test connects
 * to its own process's /var/run/dpdk/<prefix>/dpdk_telemetry.v2 (unix
 * SOCK_SEQPACKET), sends the /zorv1/... commands and reads their JSON.
 *
 * The shared test harness starts EAL with --no-telemetry, so this binary
 * brings its own main() and EAL environment with telemetry on.
 */
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

#include <ethdev_driver.h>
#include <rte_bus_vdev.h>
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_ethdev.h>
#include <rte_mbuf.h>

#include "test_diag_registry_fake.h"
#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_vhost.h"
#include "zorv_diag_registry.h"

namespace {

/* ---- EAL with telemetry ---- */

std::string g_runtime_dir;

class TelemetryEal : public ::testing::Environment {
public:
	explicit TelemetryEal(std::string argv0) : argv0_(std::move(argv0)) {}

	void SetUp() override
	{
		std::vector<std::string> args = {
			argv0_,
			"-l", "0-1",
			"--no-huge",
			"--no-pci",
			"-m", "256",
			"--file-prefix=zorv_diag_tel_" + std::to_string(getpid()),
			"--log-level=lib.eal:warning",
		};
		std::vector<char *> argv;
		for (auto &a : args)
			argv.push_back(a.data());
		argv.push_back(nullptr);
		ASSERT_GE(rte_eal_init(static_cast<int>(args.size()), argv.data()), 0)
			<< "rte_eal_init: " << rte_strerror(rte_errno);
		g_runtime_dir = rte_eal_get_runtime_dir();
	}

	void TearDown() override
	{
		rte_eal_cleanup();
		if (g_runtime_dir.find(std::to_string(getpid())) != std::string::npos) {
			std::error_code ec;
			std::filesystem::remove_all(g_runtime_dir, ec);
		}
	}

private:
	std::string argv0_;
};

/* ---- telemetry client ---- */

struct JsonDeleter {
	void operator()(json_t *j) const { json_decref(j); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

class TelemetryClient {
public:
	~TelemetryClient()
	{
		if (fd_ >= 0)
			close(fd_);
	}

	::testing::AssertionResult Connect()
	{
		std::string path = g_runtime_dir + "/dpdk_telemetry.v2";
		fd_ = socket(AF_UNIX, SOCK_SEQPACKET, 0);
		if (fd_ < 0)
			return ::testing::AssertionFailure() << "socket: " << strerror(errno);
		struct sockaddr_un un = {};
		un.sun_family = AF_UNIX;
		if (path.size() >= sizeof(un.sun_path))
			return ::testing::AssertionFailure() << "path too long: " << path;
		memcpy(un.sun_path, path.c_str(), path.size() + 1);
		if (connect(fd_, reinterpret_cast<struct sockaddr *>(&un), sizeof(un)) != 0)
			return ::testing::AssertionFailure()
			       << "connect " << path << ": " << strerror(errno);
		hello_ = Receive();
		if (hello_ == nullptr)
			return ::testing::AssertionFailure() << "no greeting";
		return ::testing::AssertionSuccess();
	}

	json_t *hello() const { return hello_.get(); }

	/* The reply's value for the command (the part before the first comma). */
	JsonPtr Query(const std::string &cmd)
	{
		if (send(fd_, cmd.data(), cmd.size(), 0) != static_cast<ssize_t>(cmd.size())) {
			ADD_FAILURE() << "send: " << strerror(errno);
			return nullptr;
		}
		JsonPtr reply = Receive();
		if (reply == nullptr)
			return nullptr;
		std::string key = cmd.substr(0, cmd.find(','));
		json_t *v = json_object_get(reply.get(), key.c_str());
		if (v == nullptr) {
			ADD_FAILURE() << "reply without " << key << ": " << Dump(reply.get());
			return nullptr;
		}
		return JsonPtr(json_incref(v));
	}

	static std::string Dump(const json_t *j)
	{
		char *s = json_dumps(j, JSON_ENCODE_ANY);
		std::string out = s != nullptr ? s : "(null)";
		free(s);
		return out;
	}

private:
	JsonPtr Receive()
	{
		std::vector<char> buf(64 * 1024);
		ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
		if (n <= 0) {
			ADD_FAILURE() << "recv: " << (n == 0 ? "closed" : strerror(errno));
			return nullptr;
		}
		json_error_t err;
		JsonPtr j(json_loadb(buf.data(), static_cast<size_t>(n), 0, &err));
		if (j == nullptr)
			ADD_FAILURE() << "not JSON (" << err.text << "): "
				      << std::string(buf.data(), static_cast<size_t>(n));
		return j;
	}

	int fd_ = -1;
	JsonPtr hello_;
};

/* ---- JSON checks ---- */

int64_t Int(json_t *obj, const char *key)
{
	json_t *v = json_object_get(obj, key);
	EXPECT_TRUE(json_is_integer(v)) << key << " in " << TelemetryClient::Dump(obj);
	return json_is_integer(v) ? json_integer_value(v) : INT64_MIN;
}

std::string Str(json_t *obj, const char *key)
{
	json_t *v = json_object_get(obj, key);
	EXPECT_TRUE(json_is_string(v)) << key << " in " << TelemetryClient::Dump(obj);
	return json_is_string(v) ? json_string_value(v) : "";
}

std::set<std::string> Keys(json_t *obj)
{
	std::set<std::string> keys;
	const char *k;
	json_t *v;
	json_object_foreach(obj, k, v) keys.insert(k);
	return keys;
}

std::set<std::string> Strings(json_t *arr)
{
	std::set<std::string> out;
	size_t i;
	json_t *v;
	json_array_foreach(arr, i, v) out.insert(json_string_value(v));
	return out;
}

/* ---- ports in the device manager ---- */

/* An ethdev installed in the device manager's table under its port id. */
class InstalledPort {
public:
	explicit InstalledPort(const std::string &name)
	{
		dev_ = rte_eth_dev_allocate(name.c_str());
		EXPECT_NE(dev_, nullptr) << name;
		if (dev_ == nullptr)
			return;
		zorv1_dev_mutex_lock();
		EXPECT_EQ(zorv1_dev_install(dev_->data->port_id, dev_), 0);
		zorv1_dev_mutex_unlock();
	}
	~InstalledPort()
	{
		if (dev_ == nullptr)
			return;
		zorv1_dev_mutex_lock();
		zorv1_dev_uninstall(dev_->data->port_id);
		zorv1_dev_mutex_unlock();
		rte_eth_dev_release_port(dev_);
	}
	InstalledPort(const InstalledPort &) = delete;
	InstalledPort &operator=(const InstalledPort &) = delete;
	uint16_t port_id() const { return dev_->data->port_id; }

private:
	struct rte_eth_dev *dev_ = nullptr;
};

class DiagTelemetry : public ::testing::Test {
protected:
	void SetUp() override
	{
		diag_fake::Reset();
		ASSERT_TRUE(client_.Connect());
	}
	void TearDown() override
	{
		EXPECT_TRUE(diag_fake::TheWorld().record_problems.empty())
			<< diag_fake::TheWorld().record_problems.front();
	}

	static diag_fake::Port &AddPort(const std::string &name, int type, int qnum)
	{
		diag_fake::Port &p = diag_fake::TheWorld().ports[name];
		p.type = type;
		p.qnum = qnum;
		return p;
	}

	TelemetryClient client_;
};

TEST_F(DiagTelemetry, TheSocketGreetsAndListsTheFamilysCommands)
{
	EXPECT_EQ(Int(client_.hello(), "pid"), getpid());
	JsonPtr list = client_.Query("/");
	ASSERT_TRUE(json_is_array(list.get())) << TelemetryClient::Dump(list.get());
	std::set<std::string> cmds = Strings(list.get());
	for (const char *c : {"/zorv1/ports", "/zorv1/port_info", "/zorv1/qnum", "/zorv1/queue_info",
			      "/zorv1/queue_stats", "/zorv1/ring_info", "/zorv1/cp_stats", "/zorv1/card"})
		EXPECT_EQ(cmds.count(c), 1u) << c;

	JsonPtr help = client_.Query("/help,/zorv1/queue_info");
	ASSERT_TRUE(json_is_object(help.get())) << TelemetryClient::Dump(help.get());
	EXPECT_NE(Str(help.get(), "/zorv1/queue_info").find("qid"), std::string::npos);
}

TEST_F(DiagTelemetry, PortsListsTheInstalledPortsByName)
{
	JsonPtr none = client_.Query("/zorv1/ports");
	ASSERT_TRUE(json_is_array(none.get())) << TelemetryClient::Dump(none.get());
	EXPECT_EQ(json_array_size(none.get()), 0u);

	auto a = std::make_unique<InstalledPort>("zdiag_port_a");
	InstalledPort b("zdiag_port_b");
	JsonPtr two = client_.Query("/zorv1/ports");
	ASSERT_TRUE(json_is_array(two.get()));
	EXPECT_EQ(Strings(two.get()), (std::set<std::string>{"zdiag_port_a", "zdiag_port_b"}));
	EXPECT_EQ(json_array_size(two.get()), 2u);

	a.reset();
	JsonPtr one = client_.Query("/zorv1/ports");
	ASSERT_TRUE(json_is_array(one.get()));
	EXPECT_EQ(Strings(one.get()), (std::set<std::string>{"zdiag_port_b"}));

	/* Parameters are not accepted. */
	JsonPtr bad = client_.Query("/zorv1/ports,x");
	EXPECT_TRUE(json_is_null(bad.get())) << TelemetryClient::Dump(bad.get());
}

TEST_F(DiagTelemetry, PortInfoOfAVirtualDevicePort)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Port &p = AddPort("net_zorv1_5", ZORV1_DIAG_DPU_VDEV, 4);
	p.info.dpu_vdev_port_info.portid = 5;
	p.info.dpu_vdev_port_info.vid = static_cast<uint32_t>(-1);
	p.info.dpu_vdev_port_info.sfi = INVALID_SFI;
	p.info.dpu_vdev_port_info.start_flag = 1;
	strcpy(p.info.dpu_vdev_port_info.name, "net_zorv1_5");

	JsonPtr info = client_.Query("/zorv1/port_info,net_zorv1_5");
	ASSERT_TRUE(json_is_object(info.get())) << TelemetryClient::Dump(info.get());
	EXPECT_EQ(Keys(info.get()),
		  (std::set<std::string>{"type", "portid", "vid", "sfi", "start_flag", "name"}));
	EXPECT_EQ(Str(info.get(), "type"), "dpu_vdev");
	EXPECT_EQ(Int(info.get(), "portid"), 5);
	EXPECT_EQ(Int(info.get(), "vid"), -1);
	EXPECT_EQ(Int(info.get(), "sfi"), 0xFFFFFFFFLL);
	EXPECT_EQ(Int(info.get(), "start_flag"), 1);
	EXPECT_EQ(Str(info.get(), "name"), "net_zorv1_5");

	JsonPtr qnum = client_.Query("/zorv1/qnum,net_zorv1_5");
	ASSERT_TRUE(json_is_object(qnum.get())) << TelemetryClient::Dump(qnum.get());
	EXPECT_EQ(Int(qnum.get(), "qnum"), 4);
	EXPECT_EQ(Str(qnum.get(), "name"), "net_zorv1_5");
	EXPECT_EQ(Str(qnum.get(), "type"), "dpu_vdev");
}

TEST_F(DiagTelemetry, PortInfoOfOtherDeviceTypesUsesTheirRecords)
{
	diag_fake::Installed pci(ZORV1_DIAG_DPU_PCI, diag_fake::FullTable(ZORV1_DIAG_DPU_PCI));
	diag_fake::Installed snic(ZORV1_DIAG_SNIC_VDEV, diag_fake::FullTable(ZORV1_DIAG_SNIC_VDEV));
	diag_fake::Port &p = AddPort("pci0", ZORV1_DIAG_DPU_PCI, 2);
	p.info.dpu_pci_port_info.portid = 3;
	strcpy(p.info.dpu_pci_port_info.name, "pci0");
	diag_fake::Port &s = AddPort("snic0", ZORV1_DIAG_SNIC_VDEV, 2);
	s.info.snic_vdev_port_info.portid = 4;
	s.info.snic_vdev_port_info.sfi = 77;
	strcpy(s.info.snic_vdev_port_info.name, "snic0");

	JsonPtr pi = client_.Query("/zorv1/port_info,pci0");
	ASSERT_TRUE(json_is_object(pi.get())) << TelemetryClient::Dump(pi.get());
	EXPECT_EQ(Keys(pi.get()), (std::set<std::string>{"type", "portid", "name"}));
	EXPECT_EQ(Str(pi.get(), "type"), "dpu_pci");
	EXPECT_EQ(Int(pi.get(), "portid"), 3);
	EXPECT_EQ(Str(pi.get(), "name"), "pci0");

	JsonPtr si = client_.Query("/zorv1/port_info,snic0");
	ASSERT_TRUE(json_is_object(si.get())) << TelemetryClient::Dump(si.get());
	EXPECT_EQ(Keys(si.get()), (std::set<std::string>{"type", "portid", "sfi", "name"}));
	EXPECT_EQ(Str(si.get(), "type"), "snic_vdev");
	EXPECT_EQ(Int(si.get(), "sfi"), 77);
}

TEST_F(DiagTelemetry, QueueInfoNamesDirectionAndFieldsOfTheQueue)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Port &p = AddPort("net_zorv1_0", ZORV1_DIAG_DPU_VDEV, 8);
	zorv1_diag_vdev_qinfo &rx = p.qinfo[2].vdev_qinfo;
	rx = {.valid = 1, .vid = 3, .allow_queuing = 1, .while_queuing = 0, .port = 0,
	      .virtqueue_id = 2, .nb_rx_desc = 512, .local_id = 17, .pci_qid = 0};
	zorv1_diag_vdev_qinfo &tx = p.qinfo[5].vdev_qinfo;
	tx = {.valid = 1, .vid = 3, .allow_queuing = 0, .while_queuing = 1, .port = 0,
	      .virtqueue_id = 5, .nb_rx_desc = 0, .local_id = 0, .pci_qid = 11};

	JsonPtr r = client_.Query("/zorv1/queue_info,net_zorv1_0,2");
	ASSERT_TRUE(json_is_object(r.get())) << TelemetryClient::Dump(r.get());
	EXPECT_EQ(Keys(r.get()),
		  (std::set<std::string>{"name", "type", "qid", "queue", "direction", "valid", "vid",
					 "allow_queuing", "while_queuing", "port", "virtqueue_id",
					 "nb_rx_desc", "local_id"}));
	EXPECT_EQ(Int(r.get(), "qid"), 2);
	EXPECT_EQ(Int(r.get(), "queue"), 1);
	EXPECT_EQ(Str(r.get(), "direction"), "rx");
	EXPECT_EQ(Int(r.get(), "valid"), 1);
	EXPECT_EQ(Int(r.get(), "vid"), 3);
	EXPECT_EQ(Int(r.get(), "allow_queuing"), 1);
	EXPECT_EQ(Int(r.get(), "while_queuing"), 0);
	EXPECT_EQ(Int(r.get(), "virtqueue_id"), 2);
	EXPECT_EQ(Int(r.get(), "nb_rx_desc"), 512);
	EXPECT_EQ(Int(r.get(), "local_id"), 17);

	JsonPtr t = client_.Query("/zorv1/queue_info,net_zorv1_0,5");
	ASSERT_TRUE(json_is_object(t.get())) << TelemetryClient::Dump(t.get());
	EXPECT_EQ(Keys(t.get()),
		  (std::set<std::string>{"name", "type", "qid", "queue", "direction", "valid", "vid",
					 "allow_queuing", "while_queuing", "port", "virtqueue_id",
					 "pci_qid"}));
	EXPECT_EQ(Int(t.get(), "queue"), 2);
	EXPECT_EQ(Str(t.get(), "direction"), "tx");
	EXPECT_EQ(Int(t.get(), "while_queuing"), 1);
	EXPECT_EQ(Int(t.get(), "pci_qid"), 11);

	/* A qid that names no queue: the element comes back with valid 0. */
	JsonPtr none = client_.Query("/zorv1/queue_info,net_zorv1_0,7");
	ASSERT_TRUE(json_is_object(none.get())) << TelemetryClient::Dump(none.get());
	EXPECT_EQ(Keys(none.get()),
		  (std::set<std::string>{"name", "type", "qid", "queue", "direction", "valid"}));
	EXPECT_EQ(Int(none.get(), "valid"), 0);

	for (const char *bad : {"/zorv1/queue_info,net_zorv1_0", "/zorv1/queue_info,net_zorv1_0,-1",
				"/zorv1/queue_info,nope,0", "/zorv1/queue_info,net_zorv1_0,q"}) {
		JsonPtr e = client_.Query(bad);
		EXPECT_TRUE(json_is_null(e.get())) << bad << " -> " << TelemetryClient::Dump(e.get());
	}
}

TEST_F(DiagTelemetry, QueueStatsOfAVirtualDeviceQueue)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Port &p = AddPort("net_zorv1_0", ZORV1_DIAG_DPU_VDEV, 2);
	zorv1_vdev_diag_stats &s = p.stats[1].vdev_stats;
	s = {.pkts = 10, .bytes = 6400, .missed_pkts = 2, .pkt_undersize = 0, .pkt_64 = 4,
	     .pkt_65_to_127 = 3, .pkt_128_to_255 = 1, .pkt_256_to_511 = 1, .pkt_512_to_1023 = 1,
	     .pkt_1024_to_1522 = 0, .pkt_1523_to_max = 0, .broadcast_pkt = 5, .multicast_pkt = 2,
	     .unicast_pkt = 3, .valid = 1};
	s.bytes = (1ULL << 40) + 6400; /* 64-bit counters stay exact */

	JsonPtr j = client_.Query("/zorv1/queue_stats,net_zorv1_0,1");
	ASSERT_TRUE(json_is_object(j.get())) << TelemetryClient::Dump(j.get());
	std::map<std::string, int64_t> want = {
		{"pkts", 10}, {"bytes", (1LL << 40) + 6400}, {"missed_pkts", 2}, {"pkt_undersize", 0},
		{"pkt_64", 4}, {"pkt_65_to_127", 3}, {"pkt_128_to_255", 1}, {"pkt_256_to_511", 1},
		{"pkt_512_to_1023", 1}, {"pkt_1024_to_1522", 0}, {"pkt_1523_to_max", 0},
		{"broadcast_pkt", 5}, {"multicast_pkt", 2}, {"unicast_pkt", 3}, {"valid", 1}};
	for (const auto &[k, v] : want)
		EXPECT_EQ(Int(j.get(), k.c_str()), v) << k;
	EXPECT_EQ(Str(j.get(), "direction"), "tx");
	EXPECT_EQ(Keys(j.get()).size(), want.size() + 5); /* + name, type, qid, queue, direction */

	JsonPtr none = client_.Query("/zorv1/queue_stats,net_zorv1_0,3");
	ASSERT_TRUE(json_is_object(none.get())) << TelemetryClient::Dump(none.get());
	EXPECT_EQ(Int(none.get(), "valid"), 0);
	EXPECT_EQ(json_object_get(none.get(), "pkts"), nullptr);
}

TEST_F(DiagTelemetry, QueueStatsOfAPciQueueUseThePciRecord)
{
	diag_fake::Installed pci(ZORV1_DIAG_DPU_PCI, diag_fake::FullTable(ZORV1_DIAG_DPU_PCI));
	diag_fake::Port &p = AddPort("pci0", ZORV1_DIAG_DPU_PCI, 2);
	zorv1_pci_diag_stats &rx = p.stats[0].pci_stats;
	rx.packets = 9;
	rx.bytes = 900;
	rx.errors = 1;
	for (int i = 0; i < 8; i++)
		rx.size_bins[i] = static_cast<uint64_t>(i) * 10;
	rx.rx_stats.refill = 4;
	rx.rx_stats.pp_retry_failed = 6; /* the last word of the union's largest member */
	zorv1_pci_diag_stats &tx = p.stats[1].pci_stats;
	tx.packets = 7;
	tx.tx_stats.hdl_drop = 2;
	tx.tx_stats.pp_total_tx_pkts = 8;

	JsonPtr r = client_.Query("/zorv1/queue_stats,pci0,0");
	ASSERT_TRUE(json_is_object(r.get())) << TelemetryClient::Dump(r.get());
	EXPECT_EQ(Int(r.get(), "packets"), 9);
	EXPECT_EQ(Int(r.get(), "bytes"), 900);
	EXPECT_EQ(Int(r.get(), "errors"), 1);
	EXPECT_EQ(Int(r.get(), "refill"), 4);
	EXPECT_EQ(Int(r.get(), "pp_retry_failed"), 6);
	EXPECT_EQ(json_object_get(r.get(), "hdl_drop"), nullptr);
	json_t *bins = json_object_get(r.get(), "size_bins");
	ASSERT_TRUE(json_is_array(bins));
	ASSERT_EQ(json_array_size(bins), 8u);
	for (size_t i = 0; i < 8; i++)
		EXPECT_EQ(json_integer_value(json_array_get(bins, i)), static_cast<int64_t>(i) * 10);

	JsonPtr t = client_.Query("/zorv1/queue_stats,pci0,1");
	ASSERT_TRUE(json_is_object(t.get())) << TelemetryClient::Dump(t.get());
	EXPECT_EQ(Int(t.get(), "packets"), 7);
	EXPECT_EQ(Int(t.get(), "hdl_drop"), 2);
	EXPECT_EQ(Int(t.get(), "pp_total_tx_pkts"), 8);
	EXPECT_EQ(json_object_get(t.get(), "refill"), nullptr);
}

TEST_F(DiagTelemetry, RingInfoReportsTheRingRecord)
{
	diag_fake::Installed vdev(ZORV1_DIAG_DPU_VDEV, diag_fake::FullTable(ZORV1_DIAG_DPU_VDEV));
	diag_fake::Port &p = AddPort("net_zorv1_0", ZORV1_DIAG_DPU_VDEV, 4);
	zorv1_vnet_diag_ring_info &ring = p.rings[3];
	ring = {.vid = 2, .qid = 3, .local_id = 12, .flags = 3, .size = 512, .capacity = 511,
		.ct = 100, .ch = 101, .pt = 130, .ph = 131, .used = 30, .avail = 481, .name = {}};
	strcpy(ring.name, "zorv1_ring_12");

	JsonPtr j = client_.Query("/zorv1/ring_info,net_zorv1_0,3");
	ASSERT_TRUE(json_is_object(j.get())) << TelemetryClient::Dump(j.get());
	std::map<std::string, int64_t> want = {{"vid", 2}, {"qid", 3}, {"local_id", 12},
					       {"flags", 3}, {"size", 512}, {"capacity", 511},
					       {"ct", 100}, {"ch", 101}, {"pt", 130}, {"ph", 131},
					       {"used", 30}, {"avail", 481}};
	for (const auto &[k, v] : want)
		EXPECT_EQ(Int(j.get(), k.c_str()), v) << k;
	EXPECT_EQ(Str(j.get(), "ring"), "zorv1_ring_12");
	EXPECT_EQ(Str(j.get(), "name"), "net_zorv1_0");

	JsonPtr missing = client_.Query("/zorv1/ring_info,net_zorv1_0,2");
	EXPECT_TRUE(json_is_null(missing.get())) << TelemetryClient::Dump(missing.get());
}

TEST_F(DiagTelemetry, CpStatsReportsEveryControlPlaneCounterByName)
{
	const dpdk_cp_stat saved = g_dpdk_cp_stat;
	g_dpdk_cp_stat.set_owner_fail = 1;
	g_dpdk_cp_stat.vhost_driver_setup = 36;
	g_dpdk_cp_stat.send_msg_fail = 44;
	g_dpdk_cp_stat.get_ethdev_fail = 0xFFFFFFFFu;

	JsonPtr j = client_.Query("/zorv1/cp_stats");
	g_dpdk_cp_stat = saved;
	ASSERT_TRUE(json_is_object(j.get())) << TelemetryClient::Dump(j.get());
	EXPECT_EQ(json_object_size(j.get()), 55u);
	const std::set<std::string> names = {
		"set_owner_fail", "set_owner_suc", "cache_start_flag_err", "enqueue_dev_null",
		"enqueue_queue_fail", "enqueue_vhost_len_fail", "enqueue_fail", "dequeue_dev_null",
		"dequeue_queue_fail", "dequeue_rarp_null", "dequeue_pmd", "pre_msg_path_fail",
		"post_msg_path_fail", "new_conn_err", "new_conn", "del_conn_err", "del_conn",
		"vring_state_fail", "vring_state_chg", "del_device_null", "del_device_suc",
		"add_device_null", "add_device_vq_no_ready", "add_device_install_err",
		"queue_setup_ignore", "queue_destroy_ignore", "add_device_success",
		"vhost_setup_fail", "eth_dev_configure", "vhost_list_null", "vhost_vring_state_null",
		"vhost_regist_fail", "vhost_vsocket_null", "vhost_callback_null",
		"vhost_driver_start_err", "vhost_driver_setup", "close_dev_null", "eth_dev_close",
		"eth_dev_stop", "flow_start_fail", "flow_close_fail", "start_dev_intr",
		"eth_dev_start", "send_msg_fail", "get_ethdev_fail",
		/* the card's totals */
		"rx_mtu_drops", "tx_mtu_drops", "peers_refused", "peers_cut", "rx_csum_completed",
		"rx_gso_frames",
		"rx_gso_segments", "rx_offload_bad", "rx_offload_nombuf", "rx_ring_full"};
	EXPECT_EQ(Keys(j.get()), names);
	EXPECT_EQ(Int(j.get(), "set_owner_fail"), 1);
	EXPECT_EQ(Int(j.get(), "vhost_driver_setup"), 36);
	EXPECT_EQ(Int(j.get(), "send_msg_fail"), 44);
	EXPECT_EQ(Int(j.get(), "get_ethdev_fail"), 0xFFFFFFFFLL);
	EXPECT_EQ(Int(j.get(), "eth_dev_close"), saved.eth_dev_close);
}

/* ---- the real driver ---- */

struct MempoolFree {
	void operator()(struct rte_mempool *mp) const { rte_mempool_free(mp); }
};

TEST_F(DiagTelemetry, ARealPortAnswersThroughTheDriversTable)
{
	char dir_tmpl[] = "/tmp/zdiagXXXXXX";
	ASSERT_NE(mkdtemp(dir_tmpl), nullptr);
	std::string dir = dir_tmpl;
	setenv("ZORV1_VHOST_DIR", dir.c_str(), 1);
	std::unique_ptr<struct rte_mempool, MempoolFree> pool(
		rte_pktmbuf_pool_create("zdiag_pool", 1023, 0, 0, RTE_MBUF_DEFAULT_BUF_SIZE,
					static_cast<int>(rte_socket_id())));
	ASSERT_NE(pool, nullptr);

	const char *name = "net_zorv1_diag0";
	ASSERT_EQ(rte_vdev_init(name, "iface=diag0,queues=4"), 0);
	uint16_t port;
	ASSERT_EQ(rte_eth_dev_get_port_by_name(name, &port), 0);
	EXPECT_NE(zorv1_diag_ops_get(ZORV1_DIAG_DPU_VDEV), nullptr)
		<< "creation installs the driver's table";

	struct rte_eth_conf conf = {};
	ASSERT_EQ(rte_eth_dev_configure(port, 2, 3, &conf), 0);
	for (uint16_t q = 0; q < 2; q++)
		ASSERT_EQ(rte_eth_rx_queue_setup(port, q, 256, rte_socket_id(), nullptr, pool.get()),
			  0);
	for (uint16_t q = 0; q < 3; q++)
		ASSERT_EQ(rte_eth_tx_queue_setup(port, q, 256, rte_socket_id(), nullptr), 0);

	JsonPtr ports = client_.Query("/zorv1/ports");
	ASSERT_TRUE(json_is_array(ports.get())) << TelemetryClient::Dump(ports.get());
	EXPECT_EQ(Strings(ports.get()).count(name), 1u) << TelemetryClient::Dump(ports.get());

	JsonPtr info = client_.Query(std::string("/zorv1/port_info,") + name);
	ASSERT_TRUE(json_is_object(info.get())) << TelemetryClient::Dump(info.get());
	EXPECT_EQ(Str(info.get(), "type"), "dpu_vdev");
	EXPECT_EQ(Int(info.get(), "portid"), port);
	EXPECT_EQ(Int(info.get(), "vid"), -1) << "never connected";
	EXPECT_EQ(Int(info.get(), "sfi"), 0xFFFFFFFFLL) << "unbound";
	EXPECT_EQ(Int(info.get(), "start_flag"), 0);
	EXPECT_EQ(Str(info.get(), "name"), name);

	/* 2 receive and 3 transmit queues: qids 0..5, qid 4 names no queue. */
	JsonPtr qnum = client_.Query(std::string("/zorv1/qnum,") + name);
	ASSERT_TRUE(json_is_object(qnum.get())) << TelemetryClient::Dump(qnum.get());
	EXPECT_EQ(Int(qnum.get(), "qnum"), 6);

	JsonPtr rxq = client_.Query(std::string("/zorv1/queue_info,") + name + ",2");
	ASSERT_TRUE(json_is_object(rxq.get())) << TelemetryClient::Dump(rxq.get());
	EXPECT_EQ(Int(rxq.get(), "valid"), 1);
	EXPECT_EQ(Str(rxq.get(), "direction"), "rx");
	EXPECT_EQ(Int(rxq.get(), "port"), port);
	EXPECT_GE(Int(rxq.get(), "local_id"), 0);
	JsonPtr txq = client_.Query(std::string("/zorv1/queue_info,") + name + ",5");
	ASSERT_TRUE(json_is_object(txq.get())) << TelemetryClient::Dump(txq.get());
	EXPECT_EQ(Int(txq.get(), "valid"), 1);
	EXPECT_EQ(Str(txq.get(), "direction"), "tx");
	JsonPtr none = client_.Query(std::string("/zorv1/queue_info,") + name + ",4");
	ASSERT_TRUE(json_is_object(none.get())) << TelemetryClient::Dump(none.get());
	EXPECT_EQ(Int(none.get(), "valid"), 0);

	JsonPtr stats = client_.Query(std::string("/zorv1/queue_stats,") + name + ",0");
	ASSERT_TRUE(json_is_object(stats.get())) << TelemetryClient::Dump(stats.get());
	EXPECT_EQ(Int(stats.get(), "valid"), 1);
	EXPECT_EQ(Int(stats.get(), "pkts"), 0);

	/* qid 3 reports the ring of receive queue 1. */
	JsonPtr ring = client_.Query(std::string("/zorv1/ring_info,") + name + ",3");
	ASSERT_TRUE(json_is_object(ring.get())) << TelemetryClient::Dump(ring.get());
	EXPECT_EQ(Int(ring.get(), "local_id"), Int(rxq.get(), "local_id"));
	EXPECT_EQ(Int(ring.get(), "qid"), 3);
	EXPECT_EQ(Int(ring.get(), "used"), 0);
	EXPECT_EQ(Int(ring.get(), "used") + Int(ring.get(), "avail"), Int(ring.get(), "capacity"));

	JsonPtr cp = client_.Query("/zorv1/cp_stats");
	ASSERT_TRUE(json_is_object(cp.get()));
	EXPECT_GE(Int(cp.get(), "eth_dev_configure"), 1);

	/* The card's side: served, not connected, no MTU until one is set. */
	JsonPtr card = client_.Query(std::string("/zorv1/card,") + name);
	ASSERT_TRUE(json_is_object(card.get())) << TelemetryClient::Dump(card.get());
	EXPECT_EQ(Str(card.get(), "iface"), "diag0");
	EXPECT_EQ(Str(card.get(), "socket"), dir + "/diag0");
	EXPECT_EQ(Int(card.get(), "portid"), port);
	EXPECT_GE(Int(card.get(), "sfi"), 1);
	EXPECT_EQ(Int(card.get(), "vid"), -1);
	EXPECT_EQ(Int(card.get(), "peers_refused"), 0);
	EXPECT_EQ(Int(card.get(), "peers_cut"), 0);
	EXPECT_EQ(Int(card.get(), "mtu"), 0);
	EXPECT_EQ(Int(card.get(), "mtu_min"), 68);
	EXPECT_EQ(Int(card.get(), "mtu_max"), 9600);
	EXPECT_EQ(Int(card.get(), "rx_mtu_drops"), 0);
	EXPECT_EQ(Int(card.get(), "tx_mtu_drops"), 0);
	ASSERT_EQ(rte_eth_dev_set_mtu(port, 1234), 0);
	card = client_.Query(std::string("/zorv1/card,") + name);
	ASSERT_TRUE(json_is_object(card.get())) << TelemetryClient::Dump(card.get());
	EXPECT_EQ(Int(card.get(), "mtu"), 1234);
	EXPECT_EQ(Int(card.get(), "vport"),
		  static_cast<uint16_t>(static_cast<struct zorv1_internal *>(
						rte_eth_devices[port].data->dev_private)
						->comm.flow_data.priv_port));
	for (const char *bad : {"/zorv1/card", "/zorv1/card,nosuch", "/zorv1/card,net_zorv1_diag0,1"}) {
		JsonPtr r = client_.Query(bad);
		EXPECT_TRUE(json_is_null(r.get())) << bad << ": " << TelemetryClient::Dump(r.get());
	}

	EXPECT_EQ(rte_eth_dev_close(port), 0);
	EXPECT_EQ(rte_vdev_uninit(name), 0);
	JsonPtr after = client_.Query("/zorv1/ports");
	ASSERT_TRUE(json_is_array(after.get()));
	EXPECT_EQ(Strings(after.get()).count(name), 0u);
	JsonPtr gone = client_.Query(std::string("/zorv1/qnum,") + name);
	EXPECT_TRUE(json_is_null(gone.get())) << TelemetryClient::Dump(gone.get());

	unsetenv("ZORV1_VHOST_DIR");
	std::error_code ec;
	std::filesystem::remove_all(dir, ec);
}

} // namespace

int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	::testing::AddGlobalTestEnvironment(new TelemetryEal(argv[0]));
	return RUN_ALL_TESTS();
}
