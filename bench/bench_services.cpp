/* SPDX-License-Identifier: BSD-3-Clause
 * The family services as the burst benchmark needs them: every symbol the
 * port driver's object refers to, kept as small as possible so that what the
 * benchmark times is the driver and not a service.
 *
 * The transport is the only part that the timed loops reach. It moves mbuf
 * pointers, never packet bytes: a dequeue hands out pointers from a stock of
 * ready-made frames, an enqueue accepts every packet and keeps its pointer
 * (it neither frees nor copies). The control-side services exist so that the
 * driver links and its load-time registration works; the benchmark does not
 * create ports through them.
 */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include <rte_common.h>
#include <rte_cycles.h>
#include <rte_ethdev.h>
#include <rte_log.h>
#include <rte_mbuf.h>
#include <rte_ring.h>

#include <ethdev_driver.h>

#include "zorv1_common.h"
#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_logs.h"
#include "zorv1_rxtx.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"

/* ---- Log types: registered at INFO, so every DEBUG-only path is off ---- */

RTE_LOG_REGISTER(zorv1_vdev_logtype_cfg, pmd.net.zorv1.cfg, INFO);
RTE_LOG_REGISTER(zorv1_vdev_logtype_rx, pmd.net.zorv1.rx, INFO);
RTE_LOG_REGISTER(zorv1_vdev_logtype_tx, pmd.net.zorv1.tx, INFO);
RTE_LOG_REGISTER(zorv1_pci_logtype_perf, pmd.net.zorv1.perf, INFO);
RTE_LOG_REGISTER(zorv1_snic_pci_logtype_cfg, pmd.net.zorv1.cmd, INFO);

extern "C" {
__thread uint32_t g_timestap_cnt;
}

/* ---- Transport: pointer passing only ---- */

/*
 * Helpers of the benchmark's own (C++ linkage, so that a mismatch with the
 * declarations in bench_burst.cpp fails at link time).
 */
namespace bench {
void transport_fill(struct rte_mbuf *const *mbufs, unsigned int n);
uint64_t transport_dequeued(void);
uint64_t transport_enqueued(void);
struct rte_mbuf *transport_last_enqueued(void);
void transport_copy_frames(const void *frame, uint16_t len);
} // namespace bench

namespace {

/* Entries of each pointer array; more than the largest burst of the benchmark. */
constexpr unsigned int BENCH_TRANSPORT_SLOTS = 512;

/* Both arrays hold a power of two of entries; indexes wrap with the mask. */
struct bench_transport {
	std::array<struct rte_mbuf *, BENCH_TRANSPORT_SLOTS> stock; /* handed out by dequeue */
	std::array<struct rte_mbuf *, BENCH_TRANSPORT_SLOTS> sink;  /* filled by enqueue */
	uint64_t dequeued; /* pointers handed out so far */
	uint64_t enqueued; /* pointers taken so far */
	/* Copying mode: dequeue writes this frame into each mbuf, enqueue reads it out. */
	uint16_t copy_len;
	alignas(RTE_CACHE_LINE_SIZE) uint8_t frame[RTE_CACHE_LINE_SIZE];
	alignas(RTE_CACHE_LINE_SIZE) uint8_t out[RTE_CACHE_LINE_SIZE];
};
static_assert((BENCH_TRANSPORT_SLOTS & (BENCH_TRANSPORT_SLOTS - 1)) == 0);

alignas(RTE_CACHE_LINE_SIZE) bench_transport g_transport;

constexpr uint32_t SLOT_MASK = BENCH_TRANSPORT_SLOTS - 1;

} // namespace

namespace bench {

/* The stock cycles through the n given frames. */
void transport_fill(struct rte_mbuf *const *mbufs, unsigned int n)
{
	for (unsigned int i = 0; i < BENCH_TRANSPORT_SLOTS; i++)
		g_transport.stock[i] = mbufs[i % n];
	g_transport.sink.fill(nullptr);
	g_transport.dequeued = 0;
	g_transport.enqueued = 0;
}

/*
 * From now on behave like a transport that copies packet bytes (as the
 * vhost library does between mbufs and the guest's buffers): a dequeue
 * writes the frame (len <= 64 bytes) and its lengths into every mbuf it hands
 * out, an enqueue reads every mbuf's length and bytes. The mbufs' header and
 * first data line are then in the cache when the driver's burst sees them,
 * as they are behind a real transport. len 0 goes back to pointers only.
 */
void transport_copy_frames(const void *frame, uint16_t len)
{
	g_transport.copy_len = RTE_MIN(len, (uint16_t)sizeof(g_transport.frame));
	memcpy(g_transport.frame, frame, g_transport.copy_len);
}

uint64_t transport_dequeued(void)
{
	return g_transport.dequeued;
}

uint64_t transport_enqueued(void)
{
	return g_transport.enqueued;
}

struct rte_mbuf *transport_last_enqueued(void)
{
	if (g_transport.enqueued == 0)
		return nullptr;
	return g_transport.sink[(g_transport.enqueued - 1) & SLOT_MASK];
}

} // namespace bench

extern "C" uint16_t rte_zorv1_vhost_dequeue_burst(struct zorv1_vdev_rxq *rxq,
						  struct rte_mbuf **pkts, uint16_t count)
{
	RTE_SET_USED(rxq);
	uint64_t head = g_transport.dequeued;

	for (uint16_t i = 0; i < count; i++)
		pkts[i] = g_transport.stock[(head + i) & SLOT_MASK];
	if (g_transport.copy_len != 0) {
		const uint16_t len = g_transport.copy_len;
		for (uint16_t i = 0; i < count; i++) {
			struct rte_mbuf *m = pkts[i];
			m->data_len = len;
			m->pkt_len = len;
			memcpy(rte_pktmbuf_mtod(m, void *), g_transport.frame, len);
		}
	}
	g_transport.dequeued = head + count;
	return count;
}

extern "C" uint16_t rte_zorv1_vhost_enqueue_burst(struct zorv1_vdev_txq *txq,
						  struct rte_mbuf **pkts, uint16_t count)
{
	RTE_SET_USED(txq);
	uint64_t tail = g_transport.enqueued;

	for (uint16_t i = 0; i < count; i++)
		g_transport.sink[(tail + i) & SLOT_MASK] = pkts[i];
	if (g_transport.copy_len != 0) {
		for (uint16_t i = 0; i < count; i++) {
			const struct rte_mbuf *m = pkts[i];
			memcpy(g_transport.out, rte_pktmbuf_mtod(m, const void *),
			       RTE_MIN(m->data_len, (uint16_t)sizeof(g_transport.out)));
		}
		asm volatile("" : : "r"(g_transport.out) : "memory");
	}
	g_transport.enqueued = tail + count;
	return count;
}

extern "C" int zorv1_dpu_vdev_protocol_register(char *iface_name)
{
	RTE_SET_USED(iface_name);
	return 0;
}

extern "C" int zorv1_dpu_vdev_protocol_unregister(char *iface_name)
{
	RTE_SET_USED(iface_name);
	return 0;
}

extern "C" int zorv_get_ifname(int vid, char *buf, size_t len)
{
	RTE_SET_USED(vid);
	RTE_SET_USED(buf);
	RTE_SET_USED(len);
	return -1; /* no connections in the benchmark */
}

extern "C" int zorv_set_dev_port(struct rte_eth_dev *dev, uint32_t sfi)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(sfi);
	return 0;
}

/* ---- Device manager: the slot table under one mutex ---- */

namespace {

pthread_mutex_t g_dev_mutex = PTHREAD_MUTEX_INITIALIZER;
std::array<struct rte_eth_dev *, ZORV1_DEV_MAX> g_dev_table;

} // namespace

extern "C" void zorv1_dev_mutex_lock(void)
{
	pthread_mutex_lock(&g_dev_mutex);
}

extern "C" void zorv1_dev_mutex_unlock(void)
{
	pthread_mutex_unlock(&g_dev_mutex);
}

extern "C" int zorv1_dev_install(uint16_t port_id, struct rte_eth_dev *dev)
{
	if (port_id >= ZORV1_DEV_MAX || dev == NULL)
		return -EINVAL;
	g_dev_table[port_id] = dev;
	return 0;
}

extern "C" int zorv1_dev_uninstall(uint16_t port_id)
{
	if (port_id >= ZORV1_DEV_MAX)
		return -EINVAL;
	g_dev_table[port_id] = NULL;
	return 0;
}

extern "C" struct rte_eth_dev *zorv1_dev_get_ethdev(uint16_t port_id)
{
	return port_id < ZORV1_DEV_MAX ? g_dev_table[port_id] : NULL;
}

extern "C" struct rte_eth_dev *zorv1_dev_get_ethdev_internal(int slot)
{
	return (slot >= 0 && slot < ZORV1_DEV_MAX) ? g_dev_table[slot] : NULL;
}

extern "C" struct rte_eth_dev *zorv1_dev_get_ethdev_by_sfi(uint32_t sfi)
{
	for (struct rte_eth_dev *dev : g_dev_table) {
		if (dev == NULL || dev->data == NULL || dev->data->dev_private == NULL)
			continue;
		if (static_cast<struct zorv1_internal *>(dev->data->dev_private)->sfi == sfi)
			return dev;
	}
	return NULL;
}

extern "C" struct rte_eth_dev *zorv1_vdev_get_ethdev_by_name(const char *name)
{
	return name != NULL ? rte_eth_dev_allocated(name) : NULL;
}

extern "C" void zorv1_dev_sfi_unmap_port(uint32_t sfi)
{
	RTE_SET_USED(sfi);
}

extern "C" uint32_t zorv1_pci_get_idx_by_hash(int vid, int queue)
{
	RTE_SET_USED(vid);
	return (uint32_t)queue;
}

extern "C" uint32_t zorv1_pci_get_idx_by_hash_locked(int vid, int queue)
{
	return zorv1_pci_get_idx_by_hash(vid, queue);
}

/* ---- Ring manager: rings by a process-wide id ---- */

namespace {

constexpr int BENCH_MAX_RINGS = 64;
std::array<struct rte_ring *, BENCH_MAX_RINGS> g_rings;
unsigned int g_ring_serial;

} // namespace

extern "C" int zorv1_ring_create(uint32_t size)
{
	for (int id = 0; id < BENCH_MAX_RINGS; id++) {
		if (g_rings[id] != NULL)
			continue;
		char name[RTE_RING_NAMESIZE];
		snprintf(name, sizeof(name), "bench_ring_%u", g_ring_serial++);
		g_rings[id] = rte_ring_create(name, size, SOCKET_ID_ANY,
					      RING_F_SP_ENQ | RING_F_SC_DEQ);
		return g_rings[id] != NULL ? id : -1;
	}
	return -1;
}

extern "C" void zorv1_ring_destroy(int local_id)
{
	if (local_id < 0 || local_id >= BENCH_MAX_RINGS)
		return;
	rte_ring_free(g_rings[local_id]);
	g_rings[local_id] = NULL;
}

extern "C" struct rte_ring *zorv1_get_ring_by_local_id(int local_id)
{
	if (local_id < 0 || local_id >= BENCH_MAX_RINGS)
		return NULL;
	return g_rings[local_id];
}

/* ---- Flow engine, firmware, agent, diagnostics: nothing to do here ---- */

extern "C" int zorv_flow_resource_init(struct rte_eth_dev *dev, int enable)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(enable);
	return 0;
}

extern "C" int zorv_flow_resource_free(struct rte_eth_dev *dev)
{
	RTE_SET_USED(dev);
	return 0;
}

extern "C" int zorv_dev_udp_tunnel_port_add(struct rte_eth_dev *dev,
					    struct rte_eth_udp_tunnel *tunnel)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(tunnel);
	return -ENOTSUP;
}

extern "C" int zorv_dev_flow_ops_get(struct rte_eth_dev *dev, const struct rte_flow_ops **ops)
{
	RTE_SET_USED(dev);
	if (ops != NULL)
		*ops = NULL;
	return -ENOTSUP;
}

extern "C" int zorv_mtr_ops_get(struct rte_eth_dev *dev, void *ops)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(ops);
	return -ENOTSUP;
}

extern "C" int zorv1_fw_set_dev_mtu(struct zorv1_internal *internal, enum e_cmd_mtu_op_type op,
				    struct zorv_cmd_mtu_set_info *info)
{
	RTE_SET_USED(internal);
	RTE_SET_USED(op);
	RTE_SET_USED(info);
	return 0;
}

extern "C" int zorv1_mqtt_send_msg(int msg_type, int err_code, const char *dev_name,
				   const char *iface_name, int queues)
{
	RTE_SET_USED(msg_type);
	RTE_SET_USED(err_code);
	RTE_SET_USED(dev_name);
	RTE_SET_USED(iface_name);
	RTE_SET_USED(queues);
	return 0; /* no agent: reports are dropped */
}

extern "C" int zorv1_diag_ops_install(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops)
{
	RTE_SET_USED(type);
	RTE_SET_USED(ops);
	return 0;
}

/* ---- Utilities ---- */

extern "C" uint64_t zorv1_calculate_time(uint64_t tsc_end, uint64_t tsc_start)
{
	uint64_t hz = rte_get_tsc_hz();

	if (tsc_end < tsc_start || hz == 0)
		return 0;
	uint64_t cycles = tsc_end - tsc_start;
	return (cycles / hz) * 1000000u + (cycles % hz) * 1000000u / hz;
}

extern "C" void zorv1_dump_pkt(const char *title, const uint8_t *data, uint32_t len)
{
	RTE_SET_USED(data);
	rte_log(RTE_LOG_DEBUG, zorv1_vdev_logtype_cfg, ZORV1_LOG_PREFIX "%s len %u\n",
		title != NULL ? title : "", len);
}
