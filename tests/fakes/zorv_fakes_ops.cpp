/* SPDX-License-Identifier: BSD-3-Clause
 * The family's service operations as fakes: each records its call in the
 * recorder and answers what the current test asked for (zorv_fakes.h).
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <ethdev_driver.h>
#include <rte_cycles.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include "zorv_fakes.h"

using zorv_fake::fakes;
using Lock = std::unique_lock<std::mutex>;

namespace {

struct zorv1_internal *InternalOf(struct rte_eth_dev *dev)
{
	if (dev == nullptr || dev->data == nullptr)
		return nullptr;
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

void CheckLocked(bool held, const char *fn)
{
	if (!held && fakes().dev.enforce_lock_rules)
		ADD_FAILURE() << fn << " called without the device manager mutex held";
}

} // namespace

extern "C" {

/* ---------------------------------------------------------------- device manager */

void zorv1_dev_mutex_lock(void)
{
	fakes().MutexLock();
}

void zorv1_dev_mutex_unlock(void)
{
	fakes().MutexUnlock();
}

int zorv1_dev_install(uint16_t port_id, struct rte_eth_dev *dev)
{
	auto &f = fakes();
	Lock lk(f.mu);
	bool held = f.Record(__func__);
	f.dev.installs.push_back({port_id, dev, held});
	auto handler = f.dev.install;
	lk.unlock();
	CheckLocked(held, __func__);
	if (handler)
		return handler(port_id, dev);
	lk.lock();
	int ret = f.dev.install_result;
	if (ret == 0)
		f.dev.slots[port_id % ZORV1_DEV_MAX] = dev;
	return ret;
}

int zorv1_dev_uninstall(uint16_t port_id)
{
	auto &f = fakes();
	Lock lk(f.mu);
	bool held = f.Record(__func__);
	f.dev.uninstalls.push_back({port_id, held});
	auto handler = f.dev.uninstall;
	lk.unlock();
	CheckLocked(held, __func__);
	if (handler)
		return handler(port_id);
	lk.lock();
	for (auto &slot : f.dev.slots) {
		if (slot != nullptr && slot->data != nullptr && slot->data->port_id == port_id)
			slot = nullptr;
	}
	return f.dev.uninstall_result;
}

struct rte_eth_dev *zorv1_dev_get_ethdev(uint16_t port_id)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.dev.get_ethdev_calls.push_back(port_id);
	auto handler = f.dev.get_ethdev;
	lk.unlock();
	if (handler)
		return handler(port_id);
	lk.lock();
	for (auto *dev : f.dev.slots) {
		if (dev != nullptr && dev->data != nullptr && dev->data->port_id == port_id)
			return dev;
	}
	return nullptr;
}

struct rte_eth_dev *zorv1_dev_get_ethdev_internal(int slot)
{
	auto &f = fakes();
	Lock lk(f.mu);
	bool held = f.Record(__func__, true);
	f.dev.slot_reads++;
	if (!held)
		f.dev.slot_reads_unlocked++;
	if (slot < 0 || slot >= ZORV1_DEV_MAX) {
		lk.unlock();
		ADD_FAILURE() << "zorv1_dev_get_ethdev_internal: slot " << slot << " out of range";
		return nullptr;
	}
	auto handler = f.dev.get_ethdev_internal;
	if (handler) {
		lk.unlock();
		return handler(slot);
	}
	return f.dev.slots[slot];
}

struct rte_eth_dev *zorv1_dev_get_ethdev_by_sfi(uint32_t sfi)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.dev.by_sfi_calls.push_back(sfi);
	auto handler = f.dev.by_sfi;
	lk.unlock();
	if (handler)
		return handler(sfi);
	lk.lock();
	for (auto *dev : f.dev.slots) {
		struct zorv1_internal *internal = InternalOf(dev);
		if (internal != nullptr && internal->sfi == sfi)
			return dev;
	}
	return nullptr;
}

struct rte_eth_dev *zorv1_vdev_get_ethdev_by_name(const char *name)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.dev.by_name_calls.push_back(name != nullptr ? name : "");
	auto handler = f.dev.by_name;
	lk.unlock();
	if (handler)
		return handler(name);
	if (name == nullptr)
		return nullptr;
	lk.lock();
	for (auto *dev : f.dev.slots) {
		if (dev != nullptr && dev->data != nullptr && std::strcmp(dev->data->name, name) == 0)
			return dev;
	}
	return nullptr;
}

void zorv1_dev_sfi_unmap_port(uint32_t sfi)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.dev.sfi_unmaps.push_back(sfi);
}

static uint32_t PciHashOf(int vid, int queue)
{
	std::function<uint32_t(int, int)> handler;
	{
		Lock lk(fakes().mu);
		handler = fakes().dev.pci_hash;
	}
	if (handler)
		return handler(vid, queue);
	return (static_cast<uint32_t>(vid) * 31u + static_cast<uint32_t>(queue)) % 16u;
}

uint32_t zorv1_pci_get_idx_by_hash(int vid, int queue)
{
	auto &f = fakes();
	Lock lk(f.mu);
	bool held = f.Record(__func__);
	f.dev.pci_hash_calls.push_back({vid, queue, held});
	lk.unlock();
	CheckLocked(held, __func__);
	return PciHashOf(vid, queue);
}

uint32_t zorv1_pci_get_idx_by_hash_locked(int vid, int queue)
{
	auto &f = fakes();
	Lock lk(f.mu);
	bool held = f.Record(__func__);
	f.dev.pci_hash_locked_calls.push_back({vid, queue, held});
	lk.unlock();
	if (held && f.dev.enforce_lock_rules)
		ADD_FAILURE() << __func__ << " called with the device manager mutex held "
				 "(it takes the mutex itself)";
	return PciHashOf(vid, queue);
}

/* ---------------------------------------------------------------- transport */

uint16_t rte_zorv1_vhost_dequeue_burst(struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts,
				       uint16_t count)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	size_t idx = f.transport.dequeues.size();
	f.transport.dequeues.push_back({rxq, pkts, count, 0});
	auto handler = f.transport.dequeue;
	uint16_t n = 0;
	if (handler) {
		lk.unlock();
		n = handler(rxq, pkts, count);
		lk.lock();
	} else {
		while (n < count && !f.transport.rx_pending.empty()) {
			pkts[n++] = f.transport.rx_pending.front();
			f.transport.rx_pending.pop_front();
		}
	}
	if (idx < f.transport.dequeues.size())
		f.transport.dequeues[idx].result = n;
	return n;
}

uint16_t rte_zorv1_vhost_enqueue_burst(struct zorv1_vdev_txq *txq, struct rte_mbuf **pkts,
				       uint16_t count)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	size_t idx = f.transport.enqueues.size();
	f.transport.enqueues.push_back({txq, pkts, count, 0});
	auto handler = f.transport.enqueue;
	uint16_t n = 0;
	if (handler) {
		lk.unlock();
		n = handler(txq, pkts, count);
		lk.lock();
	}
	if (idx < f.transport.enqueues.size())
		f.transport.enqueues[idx].result = n;
	return n;
}

int zorv1_dpu_vdev_protocol_register(char *iface_name)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.transport.registers.push_back(iface_name != nullptr ? iface_name : "");
	return f.transport.register_result;
}

int zorv1_dpu_vdev_protocol_unregister(char *iface_name)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.transport.unregisters.push_back(iface_name != nullptr ? iface_name : "");
	return f.transport.unregister_result;
}

int zorv_get_ifname(int vid, char *buf, size_t len)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.transport.get_ifname_calls.push_back({vid, len});
	if (buf == nullptr || len == 0)
		return -1;
	auto it = f.transport.ifnames.find(vid);
	if (it == f.transport.ifnames.end()) {
		buf[0] = '\0';
		return -1;
	}
	size_t n = std::min(it->second.size(), len - 1);
	std::memcpy(buf, it->second.data(), n);
	buf[n] = '\0';
	return 0;
}

int zorv_set_dev_port(struct rte_eth_dev *dev, uint32_t sfi)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.transport.set_dev_port_calls.push_back({dev, sfi});
	auto handler = f.transport.set_dev_port;
	lk.unlock();
	if (handler)
		return handler(dev, sfi);
	lk.lock();
	return f.transport.set_dev_port_result;
}

/* ---------------------------------------------------------------- rings */

int zorv1_ring_create(uint32_t size)
{
	static unsigned name_seq; /* ring names stay unique across tests */
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	size_t idx = f.rings.creates.size();
	f.rings.creates.push_back({size, -1});
	auto handler = f.rings.create;
	int id;
	if (handler) {
		lk.unlock();
		id = handler(size);
		lk.lock();
	} else if (f.rings.create_result) {
		id = *f.rings.create_result;
	} else {
		char name[RTE_RING_NAMESIZE];
		std::snprintf(name, sizeof(name), "zorv_fake_r%u", name_seq++);
		unsigned flags = rte_is_power_of_2(size) ? 0 : RING_F_EXACT_SZ;
		struct rte_ring *r = rte_ring_create(name, size, SOCKET_ID_ANY, flags);
		if (r == nullptr) {
			id = -1;
		} else {
			id = f.rings.next_id++;
			f.rings.live[id] = r;
		}
	}
	if (idx < f.rings.creates.size())
		f.rings.creates[idx].result = id;
	return id;
}

void zorv1_ring_destroy(int local_id)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.rings.destroys.push_back(local_id);
	auto it = f.rings.live.find(local_id);
	if (it != f.rings.live.end()) {
		rte_ring_free(it->second);
		f.rings.live.erase(it);
		f.rings.destroyed.push_back(local_id);
		return;
	}
	for (int id : f.rings.destroyed) {
		if (id == local_id) {
			lk.unlock();
			ADD_FAILURE() << "zorv1_ring_destroy: ring " << local_id << " destroyed twice";
			return;
		}
	}
}

struct rte_ring *zorv1_get_ring_by_local_id(int local_id)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.rings.lookups.push_back(local_id);
	auto handler = f.rings.get;
	if (handler) {
		lk.unlock();
		return handler(local_id);
	}
	auto it = f.rings.live.find(local_id);
	return it == f.rings.live.end() ? nullptr : it->second;
}

/* ---------------------------------------------------------------- flow engine */

int zorv_flow_resource_init(struct rte_eth_dev *dev, int enable)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.flow.inits.push_back({dev, enable});
	return f.flow.init_result;
}

int zorv_flow_resource_free(struct rte_eth_dev *dev)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.flow.frees.push_back(dev);
	return f.flow.free_result;
}

int zorv_dev_udp_tunnel_port_add(struct rte_eth_dev *dev, struct rte_eth_udp_tunnel *)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.flow.udp_tunnel_calls.push_back(dev);
	return -ENOTSUP;
}

int zorv_dev_flow_ops_get(struct rte_eth_dev *dev, const struct rte_flow_ops **)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.flow.flow_ops_get_calls.push_back(dev);
	return -ENOTSUP;
}

int zorv_mtr_ops_get(struct rte_eth_dev *dev, void *)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.flow.mtr_ops_get_calls.push_back(dev);
	return -ENOTSUP;
}

/* ---------------------------------------------------------------- firmware */

int zorv1_fw_set_dev_mtu(struct zorv1_internal *internal, enum e_cmd_mtu_op_type op,
			 struct zorv_cmd_mtu_set_info *info)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	zorv_fake::FwSetMtu rec{internal, static_cast<int>(op), info != nullptr, 0, 0, 0};
	if (info != nullptr) {
		rec.svport_id = info->svport_id;
		rec.dvport_id = info->dvport_id;
		rec.mtu = info->mtu;
	}
	f.fw.set_mtu_calls.push_back(rec);
	return f.fw.set_mtu_result;
}

/* ---------------------------------------------------------------- agent */

int zorv1_mqtt_send_msg(int msg_type, int err_code, const char *dev_name, const char *iface_name,
			int queues)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	zorv_fake::MqttMsg msg{msg_type, err_code, std::nullopt, std::nullopt, queues};
	if (dev_name != nullptr)
		msg.dev_name = dev_name;
	if (iface_name != nullptr)
		msg.iface = iface_name;
	f.mqtt.msgs.push_back(std::move(msg));
	return f.mqtt.send_result;
}

/* ---------------------------------------------------------------- diagnostics */

int zorv1_diag_ops_install(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.diag.installs.push_back({static_cast<int>(type), ops});
	return f.diag.install_result;
}

/* ---------------------------------------------------------------- utilities */

uint64_t zorv1_calculate_time(uint64_t tsc_end, uint64_t tsc_start)
{
	const uint64_t hz = rte_get_tsc_hz();
	const uint64_t d = tsc_end - tsc_start;
	/* Split so that d * 10^6 cannot overflow. */
	const uint64_t us = hz == 0 ? 0 : (d / hz) * 1000000u + (d % hz) * 1000000u / hz;
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__, true);
	f.util.calc_times.push_back({tsc_end, tsc_start, us});
	return us;
}

void zorv1_dump_pkt(const char *title, const uint8_t *data, uint32_t len)
{
	auto &f = fakes();
	Lock lk(f.mu);
	f.Record(__func__);
	f.util.dumps.push_back({title != nullptr ? title : "", data, len});
}

} /* extern "C" */
