/* SPDX-License-Identifier: BSD-3-Clause
 * The recorder behind the fake family services, the fake log types and the
 * per-thread time-stamp counter.
 */
#include "zorv_fakes.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include <rte_common.h>
#include <rte_log.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include "zorv_test_eal.h"

/* Log types of the family, as the real log module registers them. */
extern "C" {
int zorv1_vdev_logtype_cfg;
int zorv1_vdev_logtype_rx;
int zorv1_vdev_logtype_tx;
int zorv1_pci_logtype_perf;
int zorv1_snic_pci_logtype_cfg;

__thread uint32_t g_timestap_cnt;
}

namespace {

int RegisterLogType(const char *name)
{
	int type = rte_log_register_type_and_pick_level(name, RTE_LOG_INFO);
	return type < 0 ? RTE_LOGTYPE_EAL : type;
}

} // namespace

RTE_INIT(zorv_fake_logtypes_init)
{
	zorv1_vdev_logtype_cfg = RegisterLogType("pmd.net.zorv1.cfg");
	zorv1_vdev_logtype_rx = RegisterLogType("pmd.net.zorv1.rx");
	zorv1_vdev_logtype_tx = RegisterLogType("pmd.net.zorv1.tx");
	zorv1_pci_logtype_perf = RegisterLogType("pmd.net.zorv1.perf");
	zorv1_snic_pci_logtype_cfg = RegisterLogType("pmd.net.zorv1.cmd");
}

namespace zorv_fake {

Fakes &fakes()
{
	/* Never destroyed: fakes may still be called while the process exits. */
	static Fakes *f = new Fakes();
	return *f;
}

namespace {

/* Reset before every test of any binary that links the fakes. */
const bool g_reset_hook = [] {
	zorv_test::OnEachTestStart([] { fakes().Reset(); });
	return true;
}();

} // namespace

/* ---- call log ---- */

bool Fakes::Record(const char *fn, bool quiet)
{
	bool held = MutexHeldByCaller();
	if (!quiet || log_everything)
		calls.push_back(Call{fn, held});
	return held;
}

std::vector<std::string> Fakes::Names() const
{
	std::vector<std::string> out;
	for (auto &c : calls)
		out.push_back(c.fn);
	return out;
}

std::vector<std::string> Fakes::NamesOf(std::initializer_list<std::string_view> fns) const
{
	std::vector<std::string> out;
	for (auto &c : calls) {
		for (auto fn : fns) {
			if (c.fn == fn) {
				out.push_back(c.fn);
				break;
			}
		}
	}
	return out;
}

size_t Fakes::Count(std::string_view fn) const
{
	size_t n = 0;
	for (auto &c : calls)
		n += c.fn == fn ? 1 : 0;
	return n;
}

std::vector<Call> Fakes::CallsOf(std::string_view fn) const
{
	std::vector<Call> out;
	for (auto &c : calls) {
		if (c.fn == fn)
			out.push_back(c);
	}
	return out;
}

/* ---- the device-manager mutex ---- */

void Fakes::MutexLock()
{
	const auto me = std::this_thread::get_id();
	{
		std::lock_guard<std::mutex> lk(mu);
		Record("zorv1_dev_mutex_lock");
	}
	std::unique_lock<std::mutex> lk(mstate_mu_);
	if (mheld_ && mowner_ == me) {
		lk.unlock();
		ADD_FAILURE() << "zorv1_dev_mutex_lock: recursive lock of the device manager mutex "
				 "(it is not recursive; this would deadlock)";
		return;
	}
	bool warned = false;
	while (mheld_) {
		if (!mstate_cv_.wait_for(lk, std::chrono::seconds(10), [this] { return !mheld_; }) &&
		    !warned) {
			warned = true;
			std::fprintf(stderr, "zorv_fake: device manager mutex held by another "
					     "thread for more than 10 s\n");
		}
	}
	mheld_ = true;
	mowner_ = me;
	lk.unlock();
	std::lock_guard<std::mutex> rl(mu);
	dev.lock_count++;
}

void Fakes::MutexUnlock()
{
	const auto me = std::this_thread::get_id();
	{
		std::lock_guard<std::mutex> lk(mu);
		Record("zorv1_dev_mutex_unlock");
	}
	std::unique_lock<std::mutex> lk(mstate_mu_);
	if (!mheld_) {
		lk.unlock();
		ADD_FAILURE() << "zorv1_dev_mutex_unlock: the device manager mutex is not locked";
		return;
	}
	const bool foreign = mowner_ != me;
	mheld_ = false;
	mowner_ = std::thread::id();
	lk.unlock();
	mstate_cv_.notify_all();
	if (foreign)
		ADD_FAILURE() << "zorv1_dev_mutex_unlock: mutex released by a thread that does not hold it";
	std::lock_guard<std::mutex> rl(mu);
	dev.unlock_count++;
}

bool Fakes::MutexHeldByCaller() const
{
	std::lock_guard<std::mutex> lk(mstate_mu_);
	return mheld_ && mowner_ == std::this_thread::get_id();
}

bool Fakes::MutexHeldByAnyone() const
{
	std::lock_guard<std::mutex> lk(mstate_mu_);
	return mheld_;
}

/* ---- reset ---- */

void Fakes::Reset()
{
	transport.FreeHeld();
	std::lock_guard<std::mutex> lk(mu);
	for (auto &[id, ring] : rings.live)
		rte_ring_free(ring);
	dev = DevMgrFake{};
	transport = TransportFake{};
	rings = RingsFake{};
	flow = FlowFake{};
	fw = FwFake{};
	mqtt = MqttFake{};
	diag = DiagFake{};
	util = UtilFake{};
	calls.clear();
	log_everything = false;
	{
		std::lock_guard<std::mutex> ml(mstate_mu_);
		mheld_ = false;
		mowner_ = std::thread::id();
	}
	mstate_cv_.notify_all();
}

void FakeEnv::TearDown()
{
	if (f.MutexHeldByAnyone())
		ADD_FAILURE() << "the device manager mutex is still locked at the end of the test";
	f.transport.FreeHeld();
}

/* ---- device manager helpers ---- */

void DevMgrFake::Place(int slot, struct rte_eth_dev *d)
{
	if (slot < 0 || slot >= ZORV1_DEV_MAX) {
		ADD_FAILURE() << "DevMgrFake::Place: slot " << slot << " out of range";
		return;
	}
	slots[slot] = d;
}

void DevMgrFake::ClearSlots()
{
	slots.fill(nullptr);
}

int DevMgrFake::SlotOf(const struct rte_eth_dev *d) const
{
	for (int i = 0; i < ZORV1_DEV_MAX; i++) {
		if (slots[i] == d)
			return i;
	}
	return -1;
}

bool DevMgrFake::MutexHeld() const
{
	return fakes().MutexHeldByAnyone();
}

/* ---- transport helpers ---- */

void TransportFake::AcceptAll(uint16_t limit)
{
	enqueue = [this, limit](struct zorv1_vdev_txq *, struct rte_mbuf **pkts, uint16_t n) {
		uint16_t k = n < limit ? n : limit;
		std::lock_guard<std::mutex> lk(fakes().mu);
		for (uint16_t i = 0; i < k; i++)
			sent.push_back(pkts[i]);
		return k;
	};
}

void TransportFake::FreeHeld()
{
	std::vector<struct rte_mbuf *> drop;
	{
		std::lock_guard<std::mutex> lk(fakes().mu);
		drop.assign(rx_pending.begin(), rx_pending.end());
		drop.insert(drop.end(), sent.begin(), sent.end());
		rx_pending.clear();
		sent.clear();
	}
	for (auto *m : drop)
		rte_pktmbuf_free(m);
}

std::vector<struct rte_mbuf *> TransportFake::TakeSent()
{
	std::lock_guard<std::mutex> lk(fakes().mu);
	std::vector<struct rte_mbuf *> out;
	out.swap(sent);
	return out;
}

/* ---- printers, for readable assertion failures ---- */

std::ostream &operator<<(std::ostream &os, const Call &c)
{
	return os << c.fn << (c.mutex_held ? "[locked]" : "");
}

std::ostream &operator<<(std::ostream &os, const DevInstall &c)
{
	return os << "install{port " << c.port_id << ", dev " << c.dev << ", locked " << c.mutex_held
		  << "}";
}

std::ostream &operator<<(std::ostream &os, const DevUninstall &c)
{
	return os << "uninstall{port " << c.port_id << ", locked " << c.mutex_held << "}";
}

std::ostream &operator<<(std::ostream &os, const PciHash &c)
{
	return os << "pci_hash{vid " << c.vid << ", queue " << c.queue << ", locked "
		  << c.mutex_held << "}";
}

std::ostream &operator<<(std::ostream &os, const Burst &c)
{
	return os << "burst{queue " << c.queue << ", pkts " << static_cast<void *>(c.pkts)
		  << ", count " << c.count << ", result " << c.result << "}";
}

std::ostream &operator<<(std::ostream &os, const GetIfname &c)
{
	return os << "get_ifname{vid " << c.vid << ", len " << c.len << "}";
}

std::ostream &operator<<(std::ostream &os, const SetDevPort &c)
{
	return os << "set_dev_port{dev " << c.dev << ", sfi " << c.sfi << "}";
}

std::ostream &operator<<(std::ostream &os, const RingCreate &c)
{
	return os << "ring_create{size " << c.size << ", result " << c.result << "}";
}

std::ostream &operator<<(std::ostream &os, const FlowInit &c)
{
	return os << "flow_init{dev " << c.dev << ", enable " << c.enable << "}";
}

std::ostream &operator<<(std::ostream &os, const FwSetMtu &c)
{
	os << "fw_set_mtu{internal " << c.internal << ", op " << c.op;
	if (c.has_info)
		os << ", svport " << c.svport_id << ", dvport " << c.dvport_id << ", mtu " << c.mtu;
	else
		os << ", no info";
	return os << "}";
}

std::ostream &operator<<(std::ostream &os, const MqttMsg &c)
{
	return os << "mqtt{kind " << c.kind << ", err " << c.err << ", dev "
		  << (c.dev_name ? "\"" + *c.dev_name + "\"" : "NULL") << ", iface "
		  << (c.iface ? "\"" + *c.iface + "\"" : "NULL") << ", queues " << c.queues << "}";
}

std::ostream &operator<<(std::ostream &os, const DiagInstall &c)
{
	return os << "diag_install{type " << c.type << ", ops " << c.ops << "}";
}

std::ostream &operator<<(std::ostream &os, const CalcTime &c)
{
	return os << "calc_time{end " << c.end << ", start " << c.start << ", result " << c.result
		  << "}";
}

std::ostream &operator<<(std::ostream &os, const DumpPkt &c)
{
	return os << "dump_pkt{\"" << c.title << "\", data " << static_cast<const void *>(c.data)
		  << ", len " << c.len << "}";
}

} // namespace zorv_fake
