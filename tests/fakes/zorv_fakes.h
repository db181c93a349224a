/* SPDX-License-Identifier: BSD-3-Clause
 * Link-time doubles of the zorv1 family services, for the driver's unit tests.
 *
 * ===========================================================================
 * How to use
 * ===========================================================================
 * A unit-test binary (zorv_unit_test in tests/CMakeLists.txt) links the
 * driver objects with the zorv_fakes library, which defines, with C linkage,
 * every service operation the driver calls:
 *   device manager   zorv1_dev_mutex_lock/unlock, zorv1_dev_install/uninstall,
 *                    zorv1_dev_get_ethdev, zorv1_dev_get_ethdev_internal,
 *                    zorv1_dev_get_ethdev_by_sfi, zorv1_vdev_get_ethdev_by_name,
 *                    zorv1_dev_sfi_unmap_port, zorv1_pci_get_idx_by_hash[_locked]
 *   transport        rte_zorv1_vhost_dequeue_burst/enqueue_burst,
 *                    zorv1_dpu_vdev_protocol_register/unregister,
 *                    zorv_get_ifname, zorv_set_dev_port
 *   rings            zorv1_ring_create/destroy, zorv1_get_ring_by_local_id
 *   flow engine      zorv_flow_resource_init/free, zorv_dev_udp_tunnel_port_add,
 *                    zorv_dev_flow_ops_get, zorv_mtr_ops_get
 *   firmware         zorv1_fw_set_dev_mtu
 *   agent            zorv1_mqtt_send_msg
 *   diagnostics      zorv1_diag_ops_install
 *   utilities        zorv1_calculate_time, zorv1_dump_pkt
 *   log types        zorv1_vdev_logtype_cfg/rx/tx, zorv1_pci_logtype_perf,
 *                    zorv1_snic_pci_logtype_cfg, registered as
 *                    pmd.net.zorv1.cfg/.rx/.tx/.perf/.cmd, default level INFO
 *   thread-local     g_timestap_cnt
 * (g_dpdk_cp_stat and g_zorv1_event_id are the driver's own.)
 *
 * Every fake forwards to one recorder, zorv_fake::fakes(). It is reset
 * automatically before every test (and EAL is up by then), so a test starts
 * from the defaults below and overrides only what it drives:
 *
 *   #include <gmock/gmock.h>
 *   #include "zorv_fakes.h"
 *   #include "zorv_test_harness.h"     // FakePort, LogCapture, mbuf helpers
 *   using ::testing::ElementsAre;
 *   using zorv_fake::FakeEnv;          // fixture: member `f` = fakes()
 *
 *   class ConfigureTest : public FakeEnv {};
 *   TEST_F(ConfigureTest, RegistersAfterInstall) {
 *           zorv_test::FakePort port;
 *           f.transport.register_result = 0;
 *           ... call the driver ...
 *           EXPECT_THAT(f.NamesOf({"zorv1_dev_mutex_lock", "zorv1_dev_install",
 *                                  "zorv1_dev_mutex_unlock",
 *                                  "zorv1_dpu_vdev_protocol_register"}),
 *                       ElementsAre("zorv1_dev_mutex_lock", "zorv1_dev_install",
 *                                   "zorv1_dev_mutex_unlock",
 *                                   "zorv1_dpu_vdev_protocol_register"));
 *           ASSERT_EQ(f.dev.installs.size(), 1u);
 *           EXPECT_EQ(f.dev.installs[0], (zorv_fake::DevInstall{port.port_id(), port.dev(), true}));
 *   }
 *
 * FakeEnv::TearDown fails the test when the device-manager mutex is still
 * held, and frees the mbufs the fake transport still holds (a fixture that
 * overrides TearDown calls FakeEnv::TearDown()). Plain TEST()s get the same
 * reset through zorv_fake::fakes(), without the end-of-test checks.
 * Failures the fakes report (ADD_FAILURE) can be expected with
 * EXPECT_NONFATAL_FAILURE from <gtest/gtest-spi.h>.
 *
 * ---------------------------------------------------------------------------
 * The call log (all services, in order)
 * ---------------------------------------------------------------------------
 *   f.calls                  std::vector<Call>; Call{fn, mutex_held}: fn is
 *                            the C name of the operation, mutex_held whether
 *                            the CALLING thread held the device-manager mutex.
 *   f.Names()                all fn, in order
 *   f.NamesOf({"a","b"})     only those fn, in order (the usual way to assert
 *                            a sequence across services)
 *   f.Count("fn")            number of calls of fn
 *   f.CallsOf("fn")          the Call records of fn
 * Not in the log, to keep sequences readable: zorv1_dev_get_ethdev_internal
 * (1024 calls per table walk; see f.dev.slot_reads) and zorv1_calculate_time
 * (see f.util.calc_times). Set f.log_everything = true to log them too.
 * Every operation also has typed records in its service below. All records
 * are plain structs with operator== (usable with ElementsAre) and <<.
 *
 * ---------------------------------------------------------------------------
 * f.dev: device manager
 * ---------------------------------------------------------------------------
 * State: slots (std::array<rte_eth_dev*, 1024>) is a real table.
 *   install(port_id, dev)    records DevInstall{port_id, dev, mutex_held};
 *                            returns install_result (default 0); on 0 puts
 *                            dev into slot port_id (% 1024).
 *   uninstall(port_id)       records DevUninstall{port_id, mutex_held};
 *                            clears every slot holding a port with that port
 *                            id; returns uninstall_result (default 0).
 *   get_ethdev(port_id)      records port_id in get_ethdev_calls; returns the
 *                            slotted port with that port id, or NULL.
 *   get_ethdev_internal(i)   slots[i]; i outside 0..1023 fails the test.
 *                            Counts slot_reads and slot_reads_unlocked (made
 *                            without the mutex held by the caller). Override
 *                            dev.get_ethdev_internal(i) answers instead of
 *                            slots[i] (e.g. a port that vanishes after some
 *                            walks); called without the recorder's lock.
 *   get_ethdev_by_sfi(sfi)   records by_sfi_calls; first slotted port whose
 *                            zorv1_internal.sfi == sfi (NULL dev_private
 *                            skipped).
 *   vdev_get_ethdev_by_name  records by_name_calls (string copies); first
 *                            slotted port whose data->name is equal.
 *   sfi_unmap_port(sfi)      records sfi_unmaps.
 *   pci_get_idx_by_hash[_locked](vid, q)
 *                            records PciHash{vid, queue, mutex_held} in
 *                            pci_hash_calls / pci_hash_locked_calls; returns
 *                            (uint32_t)(vid * 31 + q) % 16 by default.
 * Overrides (std::function; when set they replace the default behaviour,
 * recording still happens): dev.install, dev.uninstall, dev.get_ethdev,
 * dev.get_ethdev_internal, dev.by_sfi, dev.by_name, dev.pci_hash (used by
 * both hash variants).
 * Helpers: dev.Place(slot, dev) puts a port into any slot directly,
 * dev.ClearSlots(), dev.SlotOf(dev) (-1 if absent).
 * Mutex: a real non-recursive mutex (another thread blocks). Locking it
 * again from the holding thread, unlocking it while it is not held, or
 * unlocking it from a thread that does not hold it, adds a test failure
 * (ADD_FAILURE) instead of deadlocking or corrupting. In the call log,
 * mutex_held is the state when the call began (lock: false, unlock: true).
 * dev.MutexHeld(), dev.lock_count, dev.unlock_count.
 * Lock rules (dev.enforce_lock_rules, default true) add a failure when
 * install, uninstall or pci_get_idx_by_hash is called without the mutex,
 * or pci_get_idx_by_hash_locked with it.
 *
 * ---------------------------------------------------------------------------
 * f.transport
 * ---------------------------------------------------------------------------
 *   dequeue_burst(rxq, pkts, n)  records Burst{queue, pkts, count, result} in
 *                            dequeues. Default: moves up to n mbufs from the
 *                            deque rx_pending (empty by default: returns 0).
 *                            Override: transport.dequeue = fn(rxq, pkts, n).
 *   enqueue_burst(txq, pkts, n)  records Burst in enqueues. Default: accepts
 *                            none (returns 0). Override: transport.enqueue.
 *                            transport.AcceptAll(limit) installs a handler
 *                            that accepts min(n, limit) and keeps the
 *                            accepted mbufs in transport.sent (the transport
 *                            owns accepted mbufs).
 *   protocol_register(iface) / protocol_unregister(iface)
 *                            records copies in registers / unregisters;
 *                            returns register_result / unregister_result.
 *   zorv_get_ifname(vid, buf, len)  records GetIfname{vid, len}; copies
 *                            ifnames[vid] (std::map<int, std::string>) into
 *                            buf and returns 0; unknown vid: "" and -1.
 *   zorv_set_dev_port(dev, sfi)     records SetDevPort{dev, sfi}; returns
 *                            set_dev_port_result, or the set_dev_port
 *                            override's result.
 * Mbufs left in rx_pending and sent are freed at FakeEnv::TearDown and at
 * the next reset: allocate them from a pool that outlives the test
 * (zorv_test::SharedMbufPool() or a fixture member), or call
 * transport.FreeHeld() yourself before a test-local pool goes away;
 * transport.TakeSent() hands the accepted mbufs over to the test.
 *
 * ---------------------------------------------------------------------------
 * f.rings: ring manager
 * ---------------------------------------------------------------------------
 *   ring_create(size)        records RingCreate{size, result}. Default:
 *                            really creates an rte_ring of `size` entries and
 *                            returns increasing ids starting at rings.next_id
 *                            (1). rings.create_result = -1 (or any value)
 *                            forces that result without creating a ring;
 *                            rings.create overrides completely.
 *   ring_destroy(id)         records destroys; frees the ring if the fake
 *                            created it; destroying it twice fails the test.
 *   get_ring_by_local_id(id) records lookups; returns rings.live[id] or NULL;
 *                            override: rings.get.
 * rings.live (std::map<int, rte_ring*>) holds the rings created and not yet
 * destroyed; they are freed at reset.
 *
 * ---------------------------------------------------------------------------
 * f.flow, f.fw, f.mqtt, f.diag, f.util
 * ---------------------------------------------------------------------------
 *   flow.inits (FlowInit{dev, enable}), flow.frees (dev) with
 *   flow.init_result / flow.free_result (default 0); flow.udp_tunnel_calls,
 *   flow.flow_ops_get_calls, flow.mtr_ops_get_calls (dev): those three return
 *   -ENOTSUP.
 *   fw.set_mtu_calls (FwSetMtu{internal, op, has_info, svport_id, dvport_id,
 *   mtu}: a copy of the info record); fw.set_mtu_result (default 0).
 *   mqtt.msgs (MqttMsg{kind, err, dev_name, iface, queues}; dev_name and
 *   iface are std::optional<std::string>, nullopt for NULL);
 *   mqtt.send_result (default 0; non-zero = sending failed).
 *   diag.installs (DiagInstall{type, ops}); diag.install_result (default 0).
 *   util.calc_times (CalcTime{end, start, result}): zorv1_calculate_time is
 *   real, (end - start) in microseconds from rte_get_tsc_hz().
 *   util.dumps (DumpPkt{title, data, len}): zorv1_dump_pkt only records.
 */
#ifndef ZORV_FAKES_H
#define ZORV_FAKES_H

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "zorv1_common.h"
#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_logs.h"
#include "zorv1_rxtx.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"

struct rte_mbuf;
struct rte_ring;

namespace zorv_fake {

/* One call of any fake, in call order. */
struct Call {
	std::string fn;  /* C name of the operation */
	bool mutex_held; /* the caller held the device-manager mutex */
	bool operator==(const Call &) const = default;
};

/* ---- device manager ---- */

struct DevInstall {
	uint16_t port_id;
	struct rte_eth_dev *dev;
	bool mutex_held;
	bool operator==(const DevInstall &) const = default;
};

struct DevUninstall {
	uint16_t port_id;
	bool mutex_held;
	bool operator==(const DevUninstall &) const = default;
};

struct PciHash {
	int vid;
	int queue;
	bool mutex_held;
	bool operator==(const PciHash &) const = default;
};

struct DevMgrFake {
	std::array<struct rte_eth_dev *, ZORV1_DEV_MAX> slots{};

	int install_result = 0;
	int uninstall_result = 0;
	bool enforce_lock_rules = true;

	std::function<int(uint16_t, struct rte_eth_dev *)> install;
	std::function<int(uint16_t)> uninstall;
	std::function<struct rte_eth_dev *(uint16_t)> get_ethdev;
	std::function<struct rte_eth_dev *(int slot)> get_ethdev_internal;
	std::function<struct rte_eth_dev *(uint32_t)> by_sfi;
	std::function<struct rte_eth_dev *(const char *)> by_name;
	std::function<uint32_t(int vid, int queue)> pci_hash;

	std::vector<DevInstall> installs;
	std::vector<DevUninstall> uninstalls;
	std::vector<uint16_t> get_ethdev_calls;
	std::vector<uint32_t> by_sfi_calls;
	std::vector<std::string> by_name_calls;
	std::vector<uint32_t> sfi_unmaps;
	std::vector<PciHash> pci_hash_calls;
	std::vector<PciHash> pci_hash_locked_calls;
	uint64_t slot_reads = 0;
	uint64_t slot_reads_unlocked = 0;
	unsigned lock_count = 0;
	unsigned unlock_count = 0;

	void Place(int slot, struct rte_eth_dev *dev);
	void ClearSlots();
	int SlotOf(const struct rte_eth_dev *dev) const;
	/* Whether any thread holds the mutex now. */
	bool MutexHeld() const;
};

/* ---- transport ---- */

struct Burst {
	void *queue; /* the zorv1_vdev_rxq / zorv1_vdev_txq passed */
	struct rte_mbuf **pkts;
	uint16_t count;
	uint16_t result;
	bool operator==(const Burst &) const = default;
};

struct GetIfname {
	int vid;
	size_t len;
	bool operator==(const GetIfname &) const = default;
};

struct SetDevPort {
	struct rte_eth_dev *dev;
	uint32_t sfi;
	bool operator==(const SetDevPort &) const = default;
};

struct TransportFake {
	std::function<uint16_t(struct zorv1_vdev_rxq *, struct rte_mbuf **, uint16_t)> dequeue;
	std::function<uint16_t(struct zorv1_vdev_txq *, struct rte_mbuf **, uint16_t)> enqueue;
	std::deque<struct rte_mbuf *> rx_pending; /* default dequeue source */
	std::vector<struct rte_mbuf *> sent;      /* kept by AcceptAll */

	int register_result = 0;
	int unregister_result = 0;
	int set_dev_port_result = 0;
	std::function<int(struct rte_eth_dev *, uint32_t)> set_dev_port;
	std::map<int, std::string> ifnames;

	std::vector<Burst> dequeues;
	std::vector<Burst> enqueues;
	std::vector<std::string> registers;
	std::vector<std::string> unregisters;
	std::vector<GetIfname> get_ifname_calls;
	std::vector<SetDevPort> set_dev_port_calls;

	/* Accept up to `limit` mbufs per call and keep them in `sent`. */
	void AcceptAll(uint16_t limit = UINT16_MAX);
	/* Free the mbufs in rx_pending and sent. */
	void FreeHeld();
	/* The accepted mbufs, now owned by the caller. */
	std::vector<struct rte_mbuf *> TakeSent();
};

/* ---- rings ---- */

struct RingCreate {
	uint32_t size;
	int result;
	bool operator==(const RingCreate &) const = default;
};

struct RingsFake {
	int next_id = 1;
	std::optional<int> create_result;
	std::function<int(uint32_t)> create;
	std::function<struct rte_ring *(int)> get;

	std::map<int, struct rte_ring *> live;
	std::vector<RingCreate> creates;
	std::vector<int> destroys;
	std::vector<int> lookups;
	std::vector<int> destroyed; /* ids of fake-created rings already freed */
};

/* ---- flow engine, firmware, agent, diagnostics, utilities ---- */

struct FlowInit {
	struct rte_eth_dev *dev;
	int enable;
	bool operator==(const FlowInit &) const = default;
};

struct FlowFake {
	int init_result = 0;
	int free_result = 0;
	std::vector<FlowInit> inits;
	std::vector<struct rte_eth_dev *> frees;
	std::vector<struct rte_eth_dev *> udp_tunnel_calls;
	std::vector<struct rte_eth_dev *> flow_ops_get_calls;
	std::vector<struct rte_eth_dev *> mtr_ops_get_calls;
};

struct FwSetMtu {
	struct zorv1_internal *internal;
	int op; /* enum e_cmd_mtu_op_type */
	bool has_info;
	uint16_t svport_id;
	uint16_t dvport_id;
	uint32_t mtu;
	bool operator==(const FwSetMtu &) const = default;
};

struct FwFake {
	int set_mtu_result = 0;
	std::vector<FwSetMtu> set_mtu_calls;
};

struct MqttMsg {
	int kind;
	int err;
	std::optional<std::string> dev_name;
	std::optional<std::string> iface;
	int queues;
	bool operator==(const MqttMsg &) const = default;
};

struct MqttFake {
	int send_result = 0;
	std::vector<MqttMsg> msgs;
};

struct DiagInstall {
	int type; /* enum zorv1_diag_type */
	const struct zorv1_diag_ops *ops;
	bool operator==(const DiagInstall &) const = default;
};

struct DiagFake {
	int install_result = 0;
	std::vector<DiagInstall> installs;
};

struct CalcTime {
	uint64_t end;
	uint64_t start;
	uint64_t result;
	bool operator==(const CalcTime &) const = default;
};

struct DumpPkt {
	std::string title;
	const uint8_t *data;
	uint32_t len;
	bool operator==(const DumpPkt &) const = default;
};

struct UtilFake {
	std::vector<CalcTime> calc_times;
	std::vector<DumpPkt> dumps;
};

/* ---- the recorder ---- */

class Fakes {
public:
	DevMgrFake dev;
	TransportFake transport;
	RingsFake rings;
	FlowFake flow;
	FwFake fw;
	MqttFake mqtt;
	DiagFake diag;
	UtilFake util;

	std::vector<Call> calls;
	bool log_everything = false;

	std::vector<std::string> Names() const;
	std::vector<std::string> NamesOf(std::initializer_list<std::string_view> fns) const;
	size_t Count(std::string_view fn) const;
	std::vector<Call> CallsOf(std::string_view fn) const;

	/* Back to the defaults: frees held mbufs and live rings, unlocks the mutex. */
	void Reset();

	/* ---- used by the fake operations ---- */
	std::mutex mu; /* guards every record above against concurrent fakes */
	/* Append to calls (mu held); quiet calls only with log_everything.
	 * Returns whether the caller holds the device-manager mutex. */
	bool Record(const char *fn, bool quiet = false);
	void MutexLock();
	void MutexUnlock();
	bool MutexHeldByCaller() const;
	bool MutexHeldByAnyone() const;

private:
	/* State of the device-manager mutex; Reset() forces it unlocked. */
	mutable std::mutex mstate_mu_;
	std::condition_variable mstate_cv_;
	bool mheld_ = false;
	std::thread::id mowner_;
};

/* The one recorder every fake forwards to. */
Fakes &fakes();

/* Fixture base: `f` is the recorder; checks the mutex is free at the end. */
class FakeEnv : public ::testing::Test {
protected:
	Fakes &f = fakes();
	void TearDown() override;
};

std::ostream &operator<<(std::ostream &os, const Call &c);
std::ostream &operator<<(std::ostream &os, const DevInstall &c);
std::ostream &operator<<(std::ostream &os, const DevUninstall &c);
std::ostream &operator<<(std::ostream &os, const PciHash &c);
std::ostream &operator<<(std::ostream &os, const Burst &c);
std::ostream &operator<<(std::ostream &os, const GetIfname &c);
std::ostream &operator<<(std::ostream &os, const SetDevPort &c);
std::ostream &operator<<(std::ostream &os, const RingCreate &c);
std::ostream &operator<<(std::ostream &os, const FlowInit &c);
std::ostream &operator<<(std::ostream &os, const FwSetMtu &c);
std::ostream &operator<<(std::ostream &os, const MqttMsg &c);
std::ostream &operator<<(std::ostream &os, const DiagInstall &c);
std::ostream &operator<<(std::ostream &os, const CalcTime &c);
std::ostream &operator<<(std::ostream &os, const DumpPkt &c);

} // namespace zorv_fake

#endif /* ZORV_FAKES_H */
