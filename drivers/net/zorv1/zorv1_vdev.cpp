/* SPDX-License-Identifier: BSD-3-Clause
 * net_zorv1: the host-facing virtio-style interfaces of the card as DPDK
 * Ethernet ports.
 *
 * Each --vdev net_zorv1,iface=<ifc>,queues=<n> becomes one ethdev port whose
 * private data is a struct zorv1_internal. The port is installed in the
 * family's device manager at its first configure; from then on the card's
 * transport reports connections (vid) for its interface and a sibling module
 * binds the connection's hardware function (sfi). Every queue has a two-word
 * gate that the control side closes and drains before it changes or frees
 * anything the bursts use, so the fast path takes no lock.
 */
#include <errno.h>
#include <limits.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <type_traits>

#include <rte_atomic.h>
#include <rte_bus_vdev.h>
#include <rte_cycles.h>
#include <rte_eal.h>
#include <rte_ether.h>
#include <rte_kvargs.h>
#include <rte_lcore.h>
#include <rte_log.h>
#include <rte_malloc.h>
#include <rte_mbuf.h>
#include <rte_net.h>
#include <rte_pause.h>
#include <rte_ring.h>

#include <bus_vdev_driver.h>
#include <ethdev_driver.h>
#include <ethdev_vdev.h>

#include "zorv1_common.h"
#include "zorv1_dev_mgr.h"
#include "zorv1_diag.h"
#include "zorv1_diag_struct.h"
#include "zorv1_ethdev.h"
#include "zorv1_logs.h"
#include "zorv1_rxtx.h"
#include "zorv1_vdev_internal.h"
#include "zorv1_vdev_mqtt.h"
#include "zorv1_vhost.h"
#include "zorv_dev_cmds.h"
#include "zorv_fw.h"

/* ========================================================================
 * Records and constants
 * ======================================================================== */

/* What the gate code and the other modules rely on in the records. */
static_assert(std::is_standard_layout_v<zorv1_internal>);
static_assert(std::is_standard_layout_v<zorv1_vdev_rxq>);
static_assert(std::is_standard_layout_v<zorv1_vdev_txq>);
static_assert(offsetof(zorv1_vdev_rxq, allow_queuing) == 0 &&
	      offsetof(zorv1_vdev_txq, allow_queuing) == 0,
	      "the gate leads both queue records");
static_assert(offsetof(zorv1_vdev_rxq, while_queuing) == offsetof(zorv1_vdev_txq, while_queuing),
	      "both queue records share the gate pair");
static_assert(offsetof(zorv1_internal, comm) == 0, "the family head comes first");
static_assert(sizeof(dpdk_cp_stat) == 45 * sizeof(uint32_t), "45 control-plane counters");
static_assert(offsetof(dpdk_cp_stat, dequeue_pmd) == 10 * sizeof(uint32_t));
static_assert(offsetof(dpdk_cp_stat, send_msg_fail) == 43 * sizeof(uint32_t));
static_assert(offsetof(dpdk_cp_stat, get_ethdev_fail) == 44 * sizeof(uint32_t));
static_assert(sizeof(zorv1_vdev_stats) == (3 + ZORV1_XSTATS_MAX) * sizeof(uint64_t));
static_assert(ZORV1_XSTATS_MAX == 11 && ZORV1_UNICAST_PKT == 10 && ZORV1_BROADCAST_PKT == 8);
static_assert(ZORV1_RXQ == 0 && ZORV1_TXQ == 1 && ZORV1_QNUM == 2);
static_assert(sizeof(zorv1_vdev_diag_stats) == 15 * sizeof(uint64_t));
static_assert(sizeof(zorv1_pci_diag_stats) == 27 * sizeof(uint64_t));
static_assert(sizeof(zorv1_diag_stats_data) == sizeof(zorv1_pci_diag_stats),
	      "the PCI member sets the statistics element stride");
static_assert(sizeof(zorv1_diag_queue_info_data) ==
	      std::max(sizeof(zorv1_diag_pci_qinfo), sizeof(zorv1_diag_vdev_qinfo)));
static_assert(offsetof(zorv1_diag_stats, stats) == 8 && offsetof(zorv1_diag_port_info, info) == 8);
static_assert(ZORV1_DIAG_DPU_VDEV == 0 && ZORV1_MAX_DEV_TYPE == 4);
static_assert(ZORV1_MSG_DEV_ADD_ERR == 3 && ZORV1_MSG_DEV_VHOST_ERR == 5 &&
	      ZORV1_MSG_QUE_SETUP_ERR == 8 && ZORV1_MSG_DEV_END == 10);
static_assert(ZORV1_ERR_DEV_PARSE == 1 && ZORV1_ERR_MEM_ALLOC == 5 && ZORV1_ERR_MTU_SET == 6 &&
	      ZORV1_ERR_DEV_NULL == 10 && ZORV1_ERR_CACHE_RING == 13 && ZORV1_ERR_QUEUE_INIT == 14);
static_assert(sizeof(zorv_cmd_mtu_set_info) == 8 && offsetof(zorv_cmd_mtu_set_info, mtu) == 4);
static_assert(E_CMD_OP_MTU_SET_MACPORT == 1 && E_CMD_OP_MTU_SET_VPORT == 2);
static_assert(RTE_ETH_DEV_INTR_LSC == 0x02 && RTE_ETH_DEV_AUTOFILL_QUEUE_XSTATS == 0x40);

#define ZORV1_MAX_QUEUES 1024
#define ZORV1_BURST_CHUNK 32 /* packets per transport call */
#define ZORV1_RXQ_RING_SIZE 512
#define ZORV1_IFNAME_LEN 4096
#define ZORV1_SFI_MAX 8191
#define ZORV1_TS_PERIOD 200000 /* time-stamp sampling period, in calls */
#define ZORV1_TS_SAMPLES 500   /* calls logged at the start of every period */

static constexpr uint64_t ZORV1_TX_OFFLOAD_CAPA =
	RTE_ETH_TX_OFFLOAD_VLAN_INSERT | RTE_ETH_TX_OFFLOAD_IPV4_CKSUM |
	RTE_ETH_TX_OFFLOAD_UDP_CKSUM | RTE_ETH_TX_OFFLOAD_TCP_CKSUM | RTE_ETH_TX_OFFLOAD_TCP_TSO |
	RTE_ETH_TX_OFFLOAD_MULTI_SEGS;
static_assert(ZORV1_TX_OFFLOAD_CAPA == 0x802F);

/* Link template of every new port: 10G, full duplex, fixed, down. */
static const struct rte_eth_link pmd_link = {
	.link_speed = RTE_ETH_SPEED_NUM_10G,
	.link_duplex = RTE_ETH_LINK_FULL_DUPLEX,
	.link_autoneg = RTE_ETH_LINK_FIXED,
	.link_status = RTE_ETH_LINK_DOWN,
};

/* "DVDEV": the first five bytes prefix every port's MAC address. */
static const struct rte_ether_addr base_eth_addr = {
	.addr_bytes = {0x44, 0x56, 0x44, 0x45, 0x56, 0x00},
};

static const char *const valid_arguments[] = {"iface", "queues", NULL};

extern "C" {
uint64_t g_zorv1_event_id[ZORV1_MAX_VID];
struct dpdk_cp_stat g_dpdk_cp_stat;
}

/* ========================================================================
 * Logging
 * ======================================================================== */

/*
 * Report a failure to the management agent. The report never changes the
 * caller's result; a report that cannot be sent is counted and logged under
 * the caller's function name and line.
 */
#define ZORV1_REPORT(kind, err, dev_name, iface, queues)                                  \
	do {                                                                             \
		const char *dn_ = (dev_name);                                            \
		const char *if_ = (iface);                                               \
		if (zorv1_mqtt_send_msg((kind), (err), dn_, if_, (queues)) != 0) {       \
			g_dpdk_cp_stat.send_msg_fail++;                                  \
			ZORV1_VDEV_LOG(ERR, "Send msg failed, %s-%s-%d-%d\n", dn_ ? dn_ : "", \
				       if_ ? if_ : "", (int)(kind), (int)(err));         \
		}                                                                        \
	} while (0)

static inline const char *zorv1_dev_name(const struct rte_eth_dev *dev)
{
	return dev->device != NULL ? dev->device->name : NULL;
}

static inline bool zorv1_log_debug_on(int logtype)
{
	return rte_log_get_level(logtype) > (int)RTE_LOG_INFO;
}

/* ========================================================================
 * Control-plane counters, event ids and lookups
 * ======================================================================== */

extern "C" struct dpdk_cp_stat *zorv1_get_dpdk_cp_stat(void)
{
	return &g_dpdk_cp_stat;
}

extern "C" uint64_t zorv1_get_eventid(int vid)
{
	return g_zorv1_event_id[vid];
}

extern "C" void zorv1_set_eventid(int vid, uint64_t eventid)
{
	g_zorv1_event_id[vid] = eventid;
}

static inline struct zorv1_internal *zorv1_dev_internal(const struct rte_eth_dev *dev)
{
	return static_cast<struct zorv1_internal *>(dev->data->dev_private);
}

/*
 * The port record's started, vid and sfi are written by the control thread
 * and the transport's threads and read by others (gate updates, lookups,
 * diagnostics) with no lock in common. They stay plain fields of the record;
 * once the port exists every access is a relaxed atomic one (a plain move on
 * x86), so that a reader sees whole values and the program has no data race.
 */
template <typename T> static inline T shared_read(const T &field)
{
	return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename T> static inline void shared_write(T &field, T value)
{
	__atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

/*
 * The installed ports of the device manager's table, in slot order (0 to
 * ZORV1_DEV_MAX - 1), empty slots skipped, each slot read once:
 *	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_LOCK)) ...
 * ZORV1_WALK_LOCK holds the family mutex from the start of the loop to its
 * end, a return from inside included; ZORV1_WALK_HELD is for callers that
 * hold it already.
 */
enum zorv1_walk_lock { ZORV1_WALK_LOCK, ZORV1_WALK_HELD };

class zorv1_ports {
public:
	explicit zorv1_ports(enum zorv1_walk_lock how) : locked_(how == ZORV1_WALK_LOCK)
	{
		if (locked_)
			zorv1_dev_mutex_lock();
	}
	~zorv1_ports()
	{
		if (locked_)
			zorv1_dev_mutex_unlock();
	}
	zorv1_ports(const zorv1_ports &) = delete;
	zorv1_ports &operator=(const zorv1_ports &) = delete;

	class iterator {
	public:
		explicit iterator(int slot) : slot_(slot) { settle(); }
		struct rte_eth_dev *operator*() const { return dev_; }
		iterator &operator++()
		{
			slot_++;
			settle();
			return *this;
		}
		bool operator!=(const iterator &other) const { return slot_ != other.slot_; }

	private:
		void settle()
		{
			for (dev_ = NULL; slot_ < ZORV1_DEV_MAX; slot_++) {
				dev_ = zorv1_dev_get_ethdev_internal(slot_);
				if (dev_ != NULL)
					break;
			}
		}
		int slot_;
		struct rte_eth_dev *dev_;
	};
	iterator begin() const { return iterator(0); }
	iterator end() const { return iterator(ZORV1_DEV_MAX); }

private:
	bool locked_;
};

extern "C" struct rte_eth_dev *find_eth_dev_by_ifname(const char *ifname)
{
	if (ifname == NULL)
		return NULL;

	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_LOCK)) {
		struct zorv1_internal *internal = zorv1_dev_internal(dev);
		if (internal != NULL && internal->iface_name != NULL &&
		    strcmp(internal->iface_name, ifname) == 0)
			return dev;
	}
	return NULL;
}

extern "C" struct rte_eth_dev *zorv1_dev_get_ethdev_by_vid(int vid)
{
	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_LOCK)) {
		struct zorv1_internal *internal = zorv1_dev_internal(dev);
		if (internal != NULL && shared_read(internal->vid) == vid)
			return dev;
	}
	return NULL;
}

extern "C" int zorv1_get_dev_queue_local_id(int vid, int qid)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_vid(vid);

	if (dev == NULL) {
		ZORV1_VDEV_LOG(ERR, "get local_id failed, vid %d qid %d\n", vid, qid);
		return -1;
	}
	/* Both transport queues of a pair name the ring of its receive queue. */
	int index = qid / 2;
	struct zorv1_vdev_rxq *rxq = NULL;
	/* An index outside the port's queues names no queue (never read past the array). */
	if (dev->data->rx_queues != NULL && index >= 0 && index < dev->data->nb_rx_queues)
		rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[index]);
	if (rxq == NULL) {
		ZORV1_VDEV_LOG(ERR, "vq is null, vid %d qid %d\n", vid, qid);
		return -1;
	}
	return rxq->local_id;
}

extern "C" int zorv1_get_cache_ring_local_id(int sfi, int rss)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_sfi((uint32_t)sfi);

	if (dev == NULL || dev->data->nb_rx_queues == 0) {
		ZORV1_VDEV_LOG(WARNING, "get local_id failed, sfi %d rss %d\n", sfi, rss);
		return -1;
	}
	int index = rss % (int)dev->data->nb_rx_queues;
	if (index < 0 || dev->data->rx_queues == NULL)
		return -1;
	auto *rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[index]);
	if (rxq == NULL || rte_atomic32_read(&rxq->allow_queuing) == 0)
		return -1;
	return rxq->local_id;
}

extern "C" uint32_t zorv1_get_internal_sfi(int vid)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_vid(vid);

	if (dev == NULL) {
		ZORV1_VDEV_LOG(ERR, "device:vid=%d get list null\n", vid);
		return INVALID_SFI;
	}
	struct zorv1_internal *internal = zorv1_dev_internal(dev);
	if (internal == NULL) {
		ZORV1_VDEV_LOG(ERR, "device:vid=%d get internal null\n", vid);
		return INVALID_SFI;
	}
	return shared_read(internal->sfi);
}

extern "C" void zorv1_set_internal_sfi(int vid, uint32_t sfi)
{
	struct rte_eth_dev *dev = zorv1_dev_get_ethdev_by_vid(vid);

	if (dev == NULL) {
		ZORV1_VDEV_LOG(ERR, "device:vid=%d set list null\n", vid);
		return;
	}
	struct zorv1_internal *internal = zorv1_dev_internal(dev);
	if (internal == NULL) {
		ZORV1_VDEV_LOG(ERR, "device:vid=%d set internal null\n", vid);
		return;
	}
	ZORV1_VDEV_LOG(INFO, "set_internal_sfi,vid=%d,sfi=%d\n", vid, sfi);
	shared_write(internal->sfi, sfi);
	if (sfi != INVALID_SFI) {
		/* The binding is kept even when the flow engine refuses it. */
		int ret = zorv_set_dev_port(dev, sfi);
		if (ret != 0)
			ZORV1_VDEV_LOG(ERR, "device:vid=%d set port fail ret=%d\n", vid, ret);
	}
}

/* ========================================================================
 * Extended statistics: per-packet counting
 * ======================================================================== */

/*
 * Size bin of a length. The tests of the rule (exactly 64; 65..1023 by bit
 * length; under 64; up to 1522; longer) are written as selects rather than
 * branches, so a burst of mixed sizes costs no mispredictions: the bit length
 * minus 5 is already right for 65..1522, and the three other cases override
 * it. The power-of-two bins are computed, not looked up.
 */
static inline uint32_t zorv1_size_bin(uint32_t pkt_len)
{
	/* bit length - 5: 65..127 -> 2, ..., 512..1023 -> 5, 1024..1522 -> 6 */
	uint32_t bin = (32 - (uint32_t)__builtin_clz(pkt_len | 1)) - 5;

	bin = pkt_len > 1522 ? (uint32_t)ZORV1_1523_TO_MAX_PKT : bin;
	bin = pkt_len == 64 ? (uint32_t)ZORV1_64_PKT : bin;
	bin = pkt_len < 64 ? (uint32_t)ZORV1_UNDERSIZE_PKT : bin;
	return bin;
}

/* Size bin of one packet. */
extern "C" void zorv1_vdev_update_single_packet_xstats(struct zorv1_vdev_stats *pstats,
						       struct rte_mbuf *buf)
{
	pstats->xstats[zorv1_size_bin(buf->pkt_len)]++;
}

/* Destination class of one packet, from the first six bytes of its data. */
extern "C" void zorv1_vdev_count_xcast_packets(struct zorv1_vdev_stats *pstats,
					       struct rte_mbuf *mbuf)
{
	const auto *ea = rte_pktmbuf_mtod(mbuf, const struct rte_ether_addr *);

	if (!rte_is_multicast_ether_addr(ea))
		pstats->xstats[ZORV1_UNICAST_PKT]++;
	else if (rte_is_broadcast_ether_addr(ea))
		pstats->xstats[ZORV1_BROADCAST_PKT]++;
	else
		pstats->xstats[ZORV1_MULTICAST_PKT]++;
}

/*
 * Counters of one burst, kept in registers while the burst walks its packets
 * and added to the queue's counters once at the end. Adding the same memory
 * counter once per packet chains every packet to the previous one through a
 * store and a reload; these sums do not. The eight size bins are packed one
 * byte each into one word, so a run of at most ZORV1_PACKED_BIN_MAX packets
 * cannot carry one bin into the next; unicast is what is not multicast.
 */
#define ZORV1_PACKED_BIN_MAX 255u

struct zorv1_burst_counts {
	uint64_t bytes = 0;  /* sum of pkt_len */
	uint64_t bins = 0;   /* size bins 0..7, one byte each */
	uint32_t mcast = 0;  /* group bit set, broadcast included */
	uint32_t bcast = 0;  /* all six bytes 0xFF */
	uint32_t pkts = 0;   /* packets counted */
};

static_assert(ZORV1_1523_TO_MAX_PKT == 7 && ZORV1_UNDERSIZE_PKT == 0,
	      "the size bins are the first eight counters");

static inline void zorv1_count_one(struct zorv1_burst_counts *c, const struct rte_mbuf *m)
{
	uint32_t len = m->pkt_len;
	const auto *ea = rte_pktmbuf_mtod(m, const struct rte_ether_addr *);

	c->bytes += len;
	c->bins += 1ULL << (zorv1_size_bin(len) * 8);
	if (unlikely(rte_is_multicast_ether_addr(ea))) {
		c->mcast++;
		c->bcast += rte_is_broadcast_ether_addr(ea);
	}
}

/*
 * Add one run's size bins (at most ZORV1_PACKED_BIN_MAX packets) to the queue.
 * Only bins that counted something are written, as a per-packet count would.
 */
static inline void zorv1_flush_bins(struct zorv1_vdev_stats *st, uint64_t bins)
{
	while (bins != 0) {
		uint32_t shift = (uint32_t)__builtin_ctzll(bins) & ~7u;
		st->xstats[shift / 8] += (bins >> shift) & 0xff;
		bins &= ~(0xffULL << shift);
	}
}

/* Destination classes of the burst; the bytes stay with the caller. */
static inline void zorv1_flush_classes(struct zorv1_vdev_stats *st,
				       const struct zorv1_burst_counts *c)
{
	if (c->pkts != c->mcast)
		st->xstats[ZORV1_UNICAST_PKT] += c->pkts - c->mcast;
	if (c->bcast != 0)
		st->xstats[ZORV1_BROADCAST_PKT] += c->bcast;
	if (c->mcast != c->bcast)
		st->xstats[ZORV1_MULTICAST_PKT] += c->mcast - c->bcast;
}

/*
 * Count bufs[0..n-1] into the burst's sums; on receive also stamp each mbuf
 * with the port, clear its VLAN TCI and, with VLAN_STRIP, strip its tag
 * before it is counted. The strip setting is a template parameter so the
 * common loop carries no test for it.
 */
template <bool RECEIVE, bool VLAN_STRIP>
static inline void zorv1_count_burst(struct zorv1_vdev_stats *st, struct rte_mbuf **bufs,
				     uint16_t n, uint16_t port, struct zorv1_burst_counts *c)
{
	for (uint16_t first = 0; first < n;) {
		uint16_t last = (uint16_t)RTE_MIN((uint32_t)n, first + ZORV1_PACKED_BIN_MAX);
		c->bins = 0;
		for (uint16_t i = first; i < last; i++) {
			struct rte_mbuf *m = bufs[i];
			if (RECEIVE) {
				m->port = port;
				m->vlan_tci = 0;
				if (VLAN_STRIP)
					(void)rte_vlan_strip(m);
			}
			zorv1_count_one(c, m);
		}
		zorv1_flush_bins(st, c->bins);
		first = last;
	}
	c->pkts += n;
	zorv1_flush_classes(st, c);
}

/* ========================================================================
 * Queuing gate
 *
 * The data side enters a queue by reading allow_queuing, incrementing
 * while_queuing with a locked instruction and reading allow_queuing again;
 * it leaves by a locked decrement. The control side stores allow_queuing,
 * fences, and waits for while_queuing to drain. The accessors below are the
 * same instructions as rte_atomic32_read/set/inc/dec on x86 (plain load,
 * plain store, lock inc, lock dec), written as compiler atomics so that
 * thread sanitizers understand them.
 * ======================================================================== */

static inline int32_t gate_read(const rte_atomic32_t *v)
{
	return __atomic_load_n(&v->cnt, __ATOMIC_RELAXED);
}

static inline void gate_set(rte_atomic32_t *v, int32_t value)
{
	__atomic_store_n(&v->cnt, value, __ATOMIC_RELAXED);
}

static inline void gate_enter(rte_atomic32_t *v)
{
	__atomic_fetch_add(&v->cnt, 1, __ATOMIC_SEQ_CST);
}

static inline void gate_leave(rte_atomic32_t *v)
{
	__atomic_fetch_sub(&v->cnt, 1, __ATOMIC_SEQ_CST);
}

/*
 * Close or open one queue. The fence after the store must order it before
 * the loads of while_queuing; on x86 only a full fence orders a store before
 * a later load, so a full barrier (which includes the read barrier) is used.
 */
static inline void gate_store_and_drain(rte_atomic32_t *allow, rte_atomic32_t *busy,
					int32_t value, bool need_waiting)
{
	gate_set(allow, value);
	rte_mb();
	if (need_waiting) {
		while (gate_read(busy) != 0)
			rte_pause();
	}
}

extern "C" void zorv1_update_queuing_status(struct rte_eth_dev *dev, bool need_waiting)
{
	struct zorv1_internal *internal = zorv1_dev_internal(dev);
	struct rte_eth_dev_data *data = dev->data;

	if (data->rx_queues == NULL || data->tx_queues == NULL)
		return;

	/* A bound hardware function, not the connection id, is what counts. */
	int32_t allow_queuing =
		(shared_read(internal->started) != 0 && shared_read(internal->sfi) != INVALID_SFI) ? 1 : 0;

	uint64_t tsc1 = rte_rdtsc();
	for (uint16_t i = 0; i < data->nb_rx_queues; i++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(data->rx_queues[i]);
		if (rxq == NULL)
			continue;
		gate_store_and_drain(&rxq->allow_queuing, &rxq->while_queuing, allow_queuing,
				     need_waiting);
	}
	uint64_t tsc2 = rte_rdtsc();
	for (uint16_t i = 0; i < data->nb_tx_queues; i++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(data->tx_queues[i]);
		if (txq == NULL)
			continue;
		gate_store_and_drain(&txq->allow_queuing, &txq->while_queuing, allow_queuing,
				     need_waiting);
	}

	/* One word, as ethdev reads it: the control and event threads both update it. */
	struct rte_eth_link link;
	rte_eth_linkstatus_get(dev, &link);
	link.link_status = allow_queuing;
	rte_eth_linkstatus_set(dev, &link);
	rte_eth_dev_callback_process(dev, RTE_ETH_EVENT_INTR_LSC, NULL);

	uint64_t tsc3 = rte_rdtsc();
	uint64_t t1 = zorv1_calculate_time(tsc2, tsc1);
	uint64_t t2 = zorv1_calculate_time(tsc3, tsc2);
	ZORV1_VDEV_LOG(DEBUG, "rx_queues_wait=%-6lu(us), nb_rx_q=%-2hu, \n", t1, data->nb_rx_queues);
	ZORV1_VDEV_LOG(DEBUG, "tx_queues_wait=%-6lu(us), nb_tx_q=%-2hu.\n", t2, data->nb_tx_queues);
}

extern "C" void zorv1_dev_disable_all_txq_queuing(void)
{
	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_LOCK)) {
		for (uint16_t j = 0; j < dev->data->nb_tx_queues; j++) {
			auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[j]);
			gate_store_and_drain(&txq->allow_queuing, &txq->while_queuing, 0, true);
			ZORV1_VDEV_LOG(DEBUG, "disable vid %d txq %d.\n\n", shared_read(txq->internal->vid), j);
		}
	}
}

/* Runs without the mutex of its own: zorv1_dev_update_pci_hash calls it under it. */
extern "C" void zorv1_dev_enable_all_txq_queuing(void)
{
	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_HELD)) {
		for (uint16_t j = 0; j < dev->data->nb_tx_queues; j++) {
			auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[j]);
			gate_set(&txq->allow_queuing, 1);
			ZORV1_VDEV_LOG(DEBUG, "enable vid %d txq %d.\n\n",
				       shared_read(zorv1_dev_internal(dev)->vid), j);
		}
	}
}

extern "C" void zorv1_dev_update_pci_hash(void)
{
	zorv1_dev_mutex_lock();
	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_HELD)) {
		struct zorv1_internal *internal = zorv1_dev_internal(dev);
		for (uint16_t j = 0; j < dev->data->nb_tx_queues; j++) {
			auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[j]);
			int vid = shared_read(internal->vid);
			txq->pci_qid = zorv1_pci_get_idx_by_hash(vid, j);
			ZORV1_VDEV_LOG(DEBUG, "update vid %d txq %d  hash to q %d.\n", vid, j,
				       txq->pci_qid);
		}
	}
	zorv1_dev_enable_all_txq_queuing();
	zorv1_dev_mutex_unlock();
}

/* ========================================================================
 * Receive and transmit bursts
 * ======================================================================== */

/* Sampled receive latency: the first 500 calls of every 200000 per thread. */
extern "C" void zorv1_eth_ts_log(uint64_t tsc1, struct zorv1_vdev_rxq *r, struct rte_mbuf *buf)
{
	if (g_timestap_cnt % ZORV1_TS_PERIOD < ZORV1_TS_SAMPLES) {
		uint64_t tsc2 = rte_rdtsc();
		uint64_t t1 = zorv1_calculate_time(tsc2, tsc1);
		if (zorv1_log_debug_on(zorv1_pci_logtype_perf))
			rte_log(RTE_LOG_DEBUG, zorv1_pci_logtype_perf,
				ZORV1_LOG_PREFIX "zorv1-ts: [%d] eth_rx:%3luus, %lu, %p, %3d, %3d, %2d\n",
				g_timestap_cnt, t1, tsc2, buf->buf_addr, shared_read(r->internal->sfi),
				shared_read(r->internal->vid), r->virtqueue_id);
	}
	g_timestap_cnt++;
}

extern "C" uint16_t eth_vhost_rx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs)
{
	auto *r = static_cast<struct zorv1_vdev_rxq *>(q);
	uint16_t nb_rx = 0;
	uint64_t tsc1 = 0;
	bool dump;

	if (unlikely(gate_read(&r->allow_queuing) == 0))
		return 0;
	gate_enter(&r->while_queuing);
	if (unlikely(gate_read(&r->allow_queuing) == 0))
		goto out;

	/* Below DEBUG now, no packet of this burst is dumped or asks again. */
	dump = zorv1_log_debug_on(zorv1_vdev_logtype_rx);

	if (zorv1_get_ts_flag())
		tsc1 = rte_rdtsc();

	g_dpdk_cp_stat.dequeue_pmd++;

	for (uint16_t nb_receive = nb_bufs; nb_receive > 0;) {
		uint16_t num = RTE_MIN(nb_receive, (uint16_t)ZORV1_BURST_CHUNK);
		uint16_t nb_pkts = rte_zorv1_vhost_dequeue_burst(r, &bufs[nb_rx], num);
		nb_rx += nb_pkts;
		nb_receive -= nb_pkts;
		if (nb_pkts < num)
			break;
	}

	r->stats.pkts += nb_rx;

	if (unlikely(dump)) {
		/* DEBUG at the start of the burst: the level is asked per packet. */
		for (uint16_t i = 0; i < nb_rx; i++) {
			struct rte_mbuf *m = bufs[i];
			m->port = r->port;
			m->vlan_tci = 0;
			if (r->internal->vlan_strip)
				(void)rte_vlan_strip(m);
			r->stats.bytes += m->pkt_len;
			zorv1_vdev_update_single_packet_xstats(&r->stats, m);
			zorv1_vdev_count_xcast_packets(&r->stats, m);
			if (zorv1_log_debug_on(zorv1_vdev_logtype_rx))
				zorv1_dump_pkt("vdev rx", rte_pktmbuf_mtod(m, const uint8_t *),
					       m->data_len);
		}
	} else if (nb_rx != 0) {
		struct zorv1_burst_counts c;
		if (r->internal->vlan_strip)
			zorv1_count_burst<true, true>(&r->stats, bufs, nb_rx, r->port, &c);
		else
			zorv1_count_burst<true, false>(&r->stats, bufs, nb_rx, r->port, &c);
		r->stats.bytes += c.bytes;
	}

	if (nb_rx != 0 && zorv1_get_ts_flag())
		zorv1_eth_ts_log(tsc1, r, bufs[0]);

out:
	gate_leave(&r->while_queuing);
	return nb_rx;
}

extern "C" uint16_t eth_vhost_tx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs)
{
	auto *r = static_cast<struct zorv1_vdev_txq *>(q);
	uint16_t nb_tx = 0;
	uint16_t nb_send = 0;
	uint64_t nb_bytes = 0;
	bool dump;

	if (unlikely(gate_read(&r->allow_queuing) == 0))
		return 0;
	gate_enter(&r->while_queuing);
	if (unlikely(gate_read(&r->allow_queuing) == 0))
		goto out;

	/* Below DEBUG now, no packet of this burst is dumped or asks again. */
	dump = zorv1_log_debug_on(zorv1_vdev_logtype_tx);

	/*
	 * Insert requested VLAN tags; a packet whose insert fails is dropped
	 * here and the array is compacted. Up to the first packet that asks for
	 * a tag the array stays as it is, so it is only read.
	 */
	while (nb_send < nb_bufs && !(bufs[nb_send]->ol_flags & RTE_MBUF_F_TX_VLAN)) {
		rte_prefetch0(rte_pktmbuf_mtod(bufs[nb_send], const void *));
		nb_send++;
	}
	for (uint16_t i = nb_send; i < nb_bufs; i++) {
		struct rte_mbuf *m = bufs[i];
		if (m->ol_flags & RTE_MBUF_F_TX_VLAN) {
			if (rte_vlan_insert(&m) != 0) {
				rte_pktmbuf_free(m);
				continue;
			}
		}
		bufs[nb_send++] = m;
	}

	while (nb_send > 0) {
		uint16_t num = RTE_MIN(nb_send, (uint16_t)ZORV1_BURST_CHUNK);
		uint16_t nb_pkts = rte_zorv1_vhost_enqueue_burst(r, &bufs[nb_tx], num);
		/* The dump counts from the start of the burst's array on every chunk. */
		if (unlikely(dump)) {
			for (uint16_t j = 0; j < nb_pkts; j++) {
				if (zorv1_log_debug_on(zorv1_vdev_logtype_tx))
					zorv1_dump_pkt("vdev tx",
						       rte_pktmbuf_mtod(bufs[j], const uint8_t *),
						       bufs[j]->data_len);
			}
		}
		nb_tx += nb_pkts;
		nb_send -= nb_pkts;
		if (nb_pkts < num)
			break;
	}

	/* The transport keeps accepted mbufs readable until this burst returns. */
	if (nb_tx != 0) {
		struct zorv1_burst_counts c;
		zorv1_count_burst<false, false>(&r->stats, bufs, nb_tx, 0, &c);
		nb_bytes = c.bytes;
	}

	r->stats.pkts += nb_tx;
	r->stats.bytes += nb_bytes;
	r->stats.missed_pkts += (uint16_t)(nb_bufs - nb_tx);

out:
	gate_leave(&r->while_queuing);
	return nb_tx;
}

/* ========================================================================
 * Ethernet device operations: extended statistics
 * ======================================================================== */

#define ZORV1_XSTAT(name, queue, member) {name, offsetof(queue, stats.member)}
#define ZORV1_XSTAT_ROWS(queue)                                                         \
	{{                                                                             \
		ZORV1_XSTAT("good_packets", queue, pkts),                              \
		ZORV1_XSTAT("total_bytes", queue, bytes),                              \
		ZORV1_XSTAT("missed_pkts", queue, missed_pkts),                        \
		ZORV1_XSTAT("broadcast_packets", queue, xstats[ZORV1_BROADCAST_PKT]),  \
		ZORV1_XSTAT("multicast_packets", queue, xstats[ZORV1_MULTICAST_PKT]),  \
		ZORV1_XSTAT("unicast_packets", queue, xstats[ZORV1_UNICAST_PKT]),      \
		ZORV1_XSTAT("undersize_packets", queue, xstats[ZORV1_UNDERSIZE_PKT]),  \
		ZORV1_XSTAT("size_64_packets", queue, xstats[ZORV1_64_PKT]),           \
		ZORV1_XSTAT("size_65_to_127_packets", queue, xstats[ZORV1_65_TO_127_PKT]), \
		ZORV1_XSTAT("size_128_to_255_packets", queue, xstats[ZORV1_128_TO_255_PKT]), \
		ZORV1_XSTAT("size_256_to_511_packets", queue, xstats[ZORV1_256_TO_511_PKT]), \
		ZORV1_XSTAT("size_512_to_1023_packets", queue, xstats[ZORV1_512_TO_1023_PKT]), \
		ZORV1_XSTAT("size_1024_to_1522_packets", queue, xstats[ZORV1_1024_TO_1522_PKT]), \
		ZORV1_XSTAT("size_1523_to_max_packets", queue, xstats[ZORV1_1523_TO_MAX_PKT]), \
	}}

static constexpr std::array<zorv1_vdev_xstats_name_off, 14> zorv1_vdev_rxport_stat_strings =
	ZORV1_XSTAT_ROWS(zorv1_vdev_rxq);
static constexpr std::array<zorv1_vdev_xstats_name_off, 14> zorv1_vdev_txport_stat_strings =
	ZORV1_XSTAT_ROWS(zorv1_vdev_txq);
static_assert(zorv1_vdev_rxport_stat_strings.size() + zorv1_vdev_txport_stat_strings.size() ==
	      ZORV1_VDEV_NB_XSTATS);

/* limit is not consulted: the caller always gives room for all 28 names. */
extern "C" int zorv1_vdev_xstats_get_names(struct rte_eth_dev *dev,
					   struct rte_eth_xstat_name *xstats_names,
					   unsigned int limit)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(limit);
	unsigned int count = 0;

	if (xstats_names == NULL)
		return ZORV1_VDEV_NB_XSTATS;
	for (const auto &row : zorv1_vdev_rxport_stat_strings)
		snprintf(xstats_names[count++].name, RTE_ETH_XSTATS_NAME_SIZE, "rx_%.60s", row.name);
	for (const auto &row : zorv1_vdev_txport_stat_strings)
		snprintf(xstats_names[count++].name, RTE_ETH_XSTATS_NAME_SIZE, "tx_%.60s", row.name);
	return ZORV1_VDEV_NB_XSTATS;
}

static inline uint64_t zorv1_queue_counter(const void *queue, uint64_t offset)
{
	return *reinterpret_cast<const uint64_t *>(static_cast<const char *>(queue) + offset);
}

extern "C" int zorv1_vdev_xstats_get(struct rte_eth_dev *dev, struct rte_eth_xstat *xstats,
				     unsigned int n)
{
	unsigned int count = 0;

	if (n < ZORV1_VDEV_NB_XSTATS)
		return ZORV1_VDEV_NB_XSTATS;
	if (dev->data->rx_queues == NULL)
		return 0;

	for (const auto &row : zorv1_vdev_rxport_stat_strings) {
		xstats[count].value = 0;
		for (uint16_t i = 0; i < dev->data->nb_rx_queues; i++) {
			if (dev->data->rx_queues[i] != NULL)
				xstats[count].value += zorv1_queue_counter(dev->data->rx_queues[i],
									   row.offset);
		}
		xstats[count].id = count;
		count++;
	}
	for (const auto &row : zorv1_vdev_txport_stat_strings) {
		xstats[count].value = 0;
		for (uint16_t i = 0; i < dev->data->nb_tx_queues; i++) {
			if (dev->data->tx_queues[i] != NULL)
				xstats[count].value += zorv1_queue_counter(dev->data->tx_queues[i],
									   row.offset);
		}
		xstats[count].id = count;
		count++;
	}
	return (int)count;
}

/*
 * Clears the whole counter record of every queue, basic counters included.
 * A port that was never configured has its queue counts but no queue arrays.
 */
/* Each direction over its own queues: a port may hold one queue array and not the other. */
extern "C" int zorv1_vdev_xstats_reset(struct rte_eth_dev *dev)
{
	for (uint16_t i = 0; dev->data->rx_queues != NULL && i < dev->data->nb_rx_queues; i++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[i]);
		if (rxq != NULL)
			memset(&rxq->stats, 0, sizeof(rxq->stats));
	}
	for (uint16_t i = 0; dev->data->tx_queues != NULL && i < dev->data->nb_tx_queues; i++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[i]);
		if (txq != NULL)
			memset(&txq->stats, 0, sizeof(txq->stats));
	}
	return 0;
}

/* ========================================================================
 * Ethernet device operations: queue setup
 * ======================================================================== */

extern "C" int eth_rx_queue_setup(struct rte_eth_dev *dev, uint16_t rx_queue_id,
				  uint16_t nb_rx_desc, unsigned int socket_id,
				  const struct rte_eth_rxconf *rx_conf,
				  struct rte_mempool *mb_pool)
{
	RTE_SET_USED(rx_conf);
	struct zorv1_internal *internal = zorv1_dev_internal(dev);

	auto *rxq = static_cast<struct zorv1_vdev_rxq *>(
		rte_zmalloc_socket(NULL, sizeof(struct zorv1_vdev_rxq), RTE_CACHE_LINE_SIZE,
				   (int)socket_id));
	if (rxq == NULL) {
		ZORV1_VDEV_LOG(ERR, "Failed to allocate memory for rx queue\n");
		ZORV1_REPORT(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC, zorv1_dev_name(dev),
			     internal->iface_name, internal->max_queues);
		return -ENOMEM;
	}

	rxq->virtqueue_id = rx_queue_id * ZORV1_QNUM + ZORV1_RXQ;
	rxq->internal = internal;
	rxq->port = dev->data->port_id;
	rxq->nb_rx_desc = nb_rx_desc;
	rxq->mb_pool = mb_pool;
	rxq->local_id = zorv1_ring_create(ZORV1_RXQ_RING_SIZE);
	if (rxq->local_id == -1) {
		/* Prints the connection id and the port id. */
		ZORV1_VDEV_LOG(ERR, "create zorv1 ring failed,dev=%d,q=%d\n", shared_read(internal->vid),
			       rxq->port);
		ZORV1_REPORT(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_CACHE_RING, zorv1_dev_name(dev),
			     internal->iface_name, internal->max_queues);
		rte_free(rxq);
		return -1;
	}

	dev->data->rx_queues[rx_queue_id] = rxq;
	return 0;
}

extern "C" int eth_tx_queue_setup(struct rte_eth_dev *dev, uint16_t tx_queue_id,
				  uint16_t nb_tx_desc, unsigned int socket_id,
				  const struct rte_eth_txconf *tx_conf)
{
	RTE_SET_USED(nb_tx_desc);
	RTE_SET_USED(tx_conf);
	struct zorv1_internal *internal = zorv1_dev_internal(dev);

	auto *txq = static_cast<struct zorv1_vdev_txq *>(
		rte_zmalloc_socket(NULL, sizeof(struct zorv1_vdev_txq), RTE_CACHE_LINE_SIZE,
				   (int)socket_id));
	if (txq == NULL) {
		ZORV1_VDEV_LOG(ERR, "Failed to allocate memory for tx queue\n");
		ZORV1_REPORT(ZORV1_MSG_QUE_SETUP_ERR, ZORV1_ERR_MEM_ALLOC, zorv1_dev_name(dev),
			     internal->iface_name, internal->max_queues);
		return -ENOMEM;
	}

	txq->internal = internal;
	txq->port = dev->data->port_id;
	txq->virtqueue_id = tx_queue_id * ZORV1_QNUM + ZORV1_TXQ;
	dev->data->tx_queues[tx_queue_id] = txq;
	return 0;
}

/* ========================================================================
 * Ethernet device operations: information, statistics, MTU, monitor
 * ======================================================================== */

extern "C" int eth_dev_info(struct rte_eth_dev *dev, struct rte_eth_dev_info *dev_info)
{
	struct zorv1_internal *internal = zorv1_dev_internal(dev);

	if (internal == NULL) {
		ZORV1_VDEV_LOG(ERR, "Invalid device specified\n");
		return -ENODEV;
	}
	dev_info->max_mac_addrs = 1;
	dev_info->max_rx_pktlen = (uint32_t)-1;
	dev_info->max_rx_queues = internal->max_queues;
	dev_info->max_tx_queues = internal->max_queues;
	dev_info->min_rx_bufsize = 0;
	dev_info->tx_offload_capa = ZORV1_TX_OFFLOAD_CAPA;
	/* No receive offload is advertised, VLAN strip included. */
	dev_info->rx_offload_capa = 0;
	/* The MTUs the card's firmware accepts: DPDK refuses any other before mtu_set. */
	dev_info->min_mtu = ZORV_FW_MTU_MIN;
	dev_info->max_mtu = ZORV_FW_MTU_MAX;
	return 0;
}

/* Totals cover the first RTE_ETHDEV_QUEUE_STAT_CNTRS queues, as the per-queue arrays do. */
extern "C" int eth_stats_get(struct rte_eth_dev *dev, struct rte_eth_stats *stats)
{
	uint64_t rx_total = 0, rx_total_bytes = 0;
	uint64_t tx_total = 0, tx_total_bytes = 0;

	if (dev->data->rx_queues == NULL)
		return 0;

	for (unsigned int i = 0; i < RTE_ETHDEV_QUEUE_STAT_CNTRS && i < dev->data->nb_rx_queues; i++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[i]);
		if (rxq == NULL)
			continue;
		stats->q_ipackets[i] = rxq->stats.pkts;
		stats->q_ibytes[i] = rxq->stats.bytes;
		rx_total += rxq->stats.pkts;
		rx_total_bytes += rxq->stats.bytes;
	}
	for (unsigned int i = 0; i < RTE_ETHDEV_QUEUE_STAT_CNTRS && i < dev->data->nb_tx_queues; i++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[i]);
		if (txq == NULL)
			continue;
		stats->q_opackets[i] = txq->stats.pkts;
		stats->q_obytes[i] = txq->stats.bytes;
		tx_total += txq->stats.pkts;
		tx_total_bytes += txq->stats.bytes;
	}
	stats->ipackets = rx_total;
	stats->opackets = tx_total;
	stats->ibytes = rx_total_bytes;
	stats->obytes = tx_total_bytes;
	return 0;
}

/*
 * Receive queues keep missed_pkts across a reset, transmit queues do not.
 * A port that was never configured has its queue counts but no queue arrays.
 */
/* Each direction over its own queues: a port may hold one queue array and not the other. */
extern "C" int eth_stats_reset(struct rte_eth_dev *dev)
{
	for (uint16_t i = 0; dev->data->rx_queues != NULL && i < dev->data->nb_rx_queues; i++) {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[i]);
		if (rxq == NULL)
			continue;
		rxq->stats.pkts = 0;
		rxq->stats.bytes = 0;
	}
	for (uint16_t i = 0; dev->data->tx_queues != NULL && i < dev->data->nb_tx_queues; i++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[i]);
		if (txq == NULL)
			continue;
		txq->stats.pkts = 0;
		txq->stats.bytes = 0;
		txq->stats.missed_pkts = 0;
	}
	return 0;
}

extern "C" int eth_tx_done_cleanup(void *txq, uint32_t free_cnt)
{
	RTE_SET_USED(txq);
	RTE_SET_USED(free_cnt);
	return 0;
}

/* The link follows the queuing gate; there is nothing to poll. */
extern "C" int eth_link_update(struct rte_eth_dev *dev, int wait_to_complete)
{
	RTE_SET_USED(dev);
	RTE_SET_USED(wait_to_complete);
	return 0;
}

/*
 * The result the MTU set starts from. Nothing in the driver writes it, so it
 * stays 0 and the operation always succeeds; the unit tests set it to drive
 * the failure branch (not exported from the shared library).
 */
int zorv1_mtu_set_initial_ret = 0;

/*
 * The firmware applies the MTU to the port's virtual NIC. Its answer does
 * not decide the operation's result: the MTU set counts as done once the
 * command was issued, and DPDK records the new MTU.
 */
extern "C" int zorv1_mtu_set(struct rte_eth_dev *dev, uint16_t mtu)
{
	struct zorv1_internal *hw = zorv1_dev_internal(dev);
	struct zorv_flow_priv *common_priv = &hw->comm.flow_data;
	uint16_t vnic_id = (uint16_t)common_priv->priv_port;
	struct zorv_cmd_mtu_set_info mtu_info;
	int ret = zorv1_mtu_set_initial_ret;

	memset(&mtu_info, 0, sizeof(mtu_info));
	mtu_info.mtu = mtu;
	mtu_info.svport_id = vnic_id;
	mtu_info.dvport_id = vnic_id;
	(void)zorv1_fw_set_dev_mtu(hw, E_CMD_OP_MTU_SET_VPORT, &mtu_info);

	if (ret == 0) {
		ZORV1_VDEV_LOG(INFO, "set zorv1 port mac address success\n\n");
		return 0;
	}
	ZORV1_VDEV_LOG(ERR, "Failed to set mtu\n");
	ZORV1_REPORT(ZORV1_MSG_DEV_ADD_ERR, ZORV1_ERR_MTU_SET, zorv1_dev_name(dev), hw->iface_name,
		     hw->max_queues);
	return -EAGAIN;
}

/*
 * Sleep condition: c == 0 sleeps while (value & m) == v; c != 0 sleeps while
 * it differs. The watched tail is masked, the head taken at setup is not.
 */
extern "C" int zorv1_monitor_callback(const uint64_t value,
				      const uint64_t opaque[RTE_POWER_MONITOR_OPAQUE_SZ])
{
	const uint64_t v = opaque[0];
	const uint64_t m = opaque[1];
	const uint64_t c = opaque[2];

	if (c != 0)
		return (value & m) == v ? -1 : 0;
	return (value & m) == v ? 0 : -1;
}

extern "C" int zorv1_vdev_get_monitor_addr(void *rx_queue, struct rte_power_monitor_cond *pmc)
{
	auto *rxq = static_cast<struct zorv1_vdev_rxq *>(rx_queue);

	if (rxq == NULL || rxq->internal == NULL)
		return -EINVAL;
	int vid = shared_read(rxq->internal->vid);
	if (vid < 0 || vid >= ZORV1_MAX_VID)
		return -EINVAL;

	int local_id = zorv1_get_dev_queue_local_id(vid, rxq->virtqueue_id);
	struct rte_ring *ring = zorv1_get_ring_by_local_id(local_id);
	if (ring == NULL) {
		ZORV1_VDEV_LOG(ERR, "get rte_ring fail. vid=%u qid=%d.\n", vid, rxq->virtqueue_id);
		return -EINVAL;
	}

	pmc->addr = &ring->cons.tail;
	pmc->opaque[0] = ring->cons.head;
	pmc->opaque[1] = ring->mask;
	pmc->opaque[2] = 0;
	pmc->fn = zorv1_monitor_callback;
	pmc->size = sizeof(uint32_t);
	return 0;
}

/* ========================================================================
 * Ethernet device operations: lifecycle
 * ======================================================================== */

/* Install the port and register its interface; only the first time. */
extern "C" int zorv1_vhost_driver_setup(struct rte_eth_dev *eth_dev)
{
	struct zorv1_internal *internal = zorv1_dev_internal(eth_dev);
	uint16_t port_id = eth_dev->data->port_id;
	int err = ZORV1_ERR_NONE;

	if (zorv1_dev_get_ethdev(port_id) != NULL)
		return 0;

	uint64_t tsc1 = rte_rdtsc();

	zorv1_dev_mutex_lock();
	if (zorv1_dev_install(port_id, eth_dev) != 0) {
		err = ZORV1_ERR_DEV_INSTALL;
		g_dpdk_cp_stat.vhost_list_null++;
		zorv1_dev_mutex_unlock();
		RTE_SET_USED(err);
		return -1;
	}
	zorv1_dev_mutex_unlock();

	/* Outside the mutex: the transport may call back into the port at once. */
	if (zorv1_dpu_vdev_protocol_register(internal->iface_name) != 0) {
		err = ZORV1_ERR_VHOST_REG;
		zorv1_dev_mutex_lock();
		zorv1_dev_uninstall(port_id);
		zorv1_dev_mutex_unlock();
		RTE_SET_USED(err);
		return -1;
	}

	uint64_t tsc2 = rte_rdtsc();
	ZORV1_VDEV_LOG(DEBUG, "vhost_setup=%-6lu(us).\n", zorv1_calculate_time(tsc2, tsc1));
	g_dpdk_cp_stat.vhost_driver_setup++;
	return 0;
}

extern "C" int eth_dev_configure(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = zorv1_dev_internal(dev);

	if (zorv1_vhost_driver_setup(dev) < 0) {
		g_dpdk_cp_stat.vhost_setup_fail++;
		return -1;
	}
	internal->vlan_strip =
		(dev->data->dev_conf.rxmode.offloads & RTE_ETH_RX_OFFLOAD_VLAN_STRIP) ? 1 : 0;
	g_dpdk_cp_stat.eth_dev_configure++;
	return 0;
}

/*
 * Every configured queue follows the port: there is no per-queue start or
 * stop, so the states that DPDK reports (rte_eth_rx_queue_info_get, the
 * ethdev telemetry, testpmd) are those of the port.
 */
static void zorv1_set_queue_states(struct rte_eth_dev *dev, uint8_t state)
{
	for (uint16_t i = 0; i < dev->data->nb_rx_queues; i++)
		dev->data->rx_queue_state[i] = state;
	for (uint16_t i = 0; i < dev->data->nb_tx_queues; i++)
		dev->data->tx_queue_state[i] = state;
}

extern "C" int eth_dev_start(struct rte_eth_dev *eth_dev)
{
	struct zorv1_internal *internal = zorv1_dev_internal(eth_dev);

	shared_write(internal->started, 1); /* read by the gate update */
	zorv1_update_queuing_status(eth_dev, false);
	zorv1_set_queue_states(eth_dev, RTE_ETH_QUEUE_STATE_STARTED);
	g_dpdk_cp_stat.eth_dev_start++;
	return 0;
}

extern "C" int eth_dev_stop(struct rte_eth_dev *dev)
{
	struct zorv1_internal *internal = zorv1_dev_internal(dev);

	shared_write(internal->started, 0); /* read by the gate update */
	zorv1_update_queuing_status(dev, true);
	zorv1_set_queue_states(dev, RTE_ETH_QUEUE_STATE_STOPPED);
	g_dpdk_cp_stat.eth_dev_stop++;
	return 0;
}

extern "C" void eth_rx_queue_release(struct rte_eth_dev *dev, uint16_t qid)
{
	auto *rxq = static_cast<struct zorv1_vdev_rxq *>(dev->data->rx_queues[qid]);

	zorv1_ring_destroy(rxq->local_id);
	rte_free(rxq);
}

extern "C" void eth_tx_queue_release(struct rte_eth_dev *dev, uint16_t qid)
{
	auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[qid]);

	txq->pci_qid = 0;
	rte_free(txq);
}

/*
 * Release every queue of a closing port, receive queues first. A queue that
 * the application configured but never set up leaves an empty slot; it has
 * nothing to release, so it is passed over rather than handed to the release
 * operations, which expect a queue. Released slots are cleared so that the
 * port data never points at freed records.
 */
extern "C" void zorv1_queue_release(struct rte_eth_dev *dev)
{
	struct rte_eth_dev_data *data = dev->data;

	for (uint16_t i = 0; i < data->nb_rx_queues; i++) {
		if (data->rx_queues == NULL || data->rx_queues[i] == NULL)
			continue;
		eth_rx_queue_release(dev, i);
		data->rx_queues[i] = NULL;
	}
	for (uint16_t i = 0; i < data->nb_tx_queues; i++) {
		if (data->tx_queues == NULL || data->tx_queues[i] == NULL)
			continue;
		eth_tx_queue_release(dev, i);
		data->tx_queues[i] = NULL;
	}
}

extern "C" int eth_dev_close(struct rte_eth_dev *dev)
{
	uint64_t tsc1 = rte_rdtsc();

	/* A secondary process never tears a port down. */
	if (rte_eal_process_type() != RTE_PROC_PRIMARY)
		return 0;

	uint16_t port_id = dev->data->port_id;
	struct zorv1_internal *internal = zorv1_dev_internal(dev);
	if (internal == NULL) {
		g_dpdk_cp_stat.close_dev_null++;
		return 0;
	}

	eth_dev_stop(dev);

	if (zorv_flow_resource_free(dev) != 0) {
		ZORV1_VDEV_LOG(ERR, "zorv1 flow resource free failed,port_id=%u.\n", port_id);
		g_dpdk_cp_stat.flow_close_fail++;
	}

	if (zorv1_dev_get_ethdev(port_id) != NULL) {
		zorv1_dev_mutex_lock();
		zorv1_dpu_vdev_protocol_unregister(internal->iface_name);
		zorv1_dev_uninstall(port_id);
		zorv1_dev_mutex_unlock();
	}

	if (internal->cmd.in_mem != NULL) {
		rte_free(internal->cmd.in_mem);
		internal->cmd.in_mem = NULL;
	}
	if (internal->cmd.out_mem != NULL) {
		rte_free(internal->cmd.out_mem);
		internal->cmd.out_mem = NULL;
	}

	zorv1_queue_release(dev);

	rte_free(internal->iface_name);
	rte_free(internal);
	dev->data->dev_private = NULL;

	g_dpdk_cp_stat.eth_dev_close++;
	uint64_t tsc2 = rte_rdtsc();
	ZORV1_VDEV_LOG(DEBUG, "zorv1 dev port remove=%-6lu(us).\n", zorv1_calculate_time(tsc2, tsc1));
	return 0;
}

/* ========================================================================
 * The operations table
 * ======================================================================== */

extern "C" const struct eth_dev_ops zorv1_dpu_dev_ops = {
	.dev_configure = eth_dev_configure,
	.dev_start = eth_dev_start,
	.dev_stop = eth_dev_stop,
	.dev_close = eth_dev_close,
	.link_update = eth_link_update,
	.mtu_set = zorv1_mtu_set,
	.stats_get = eth_stats_get,
	.stats_reset = eth_stats_reset,
	.xstats_get = zorv1_vdev_xstats_get,
	.xstats_reset = zorv1_vdev_xstats_reset,
	.xstats_get_names = zorv1_vdev_xstats_get_names,
	.dev_infos_get = eth_dev_info,
	.rx_queue_setup = eth_rx_queue_setup,
	.rx_queue_release = eth_rx_queue_release,
	.tx_queue_setup = eth_tx_queue_setup,
	.tx_queue_release = eth_tx_queue_release,
	.tx_done_cleanup = eth_tx_done_cleanup,
	.udp_tunnel_port_add = zorv_dev_udp_tunnel_port_add,
	.flow_ops_get = zorv_dev_flow_ops_get,
	.mtr_ops_get = zorv_mtr_ops_get,
	.get_monitor_addr = zorv1_vdev_get_monitor_addr,
};

/* ========================================================================
 * Diagnostics
 * ======================================================================== */

extern "C" int zorv1_vdev_get_qnum(char *name)
{
	struct rte_eth_dev *dev = zorv1_vdev_get_ethdev_by_name(name);

	if (dev == NULL)
		return -1;
	return ZORV1_QNUM * RTE_MAX(dev->data->nb_rx_queues, dev->data->nb_tx_queues);
}

extern "C" int zorv1_vnet_ring_info(char *name, int qid, struct zorv1_vnet_diag_ring_info *info)
{
	struct rte_eth_dev *dev = zorv1_vdev_get_ethdev_by_name(name);
	int local_id = -1;

	if (dev != NULL)
		local_id = zorv1_get_dev_queue_local_id(shared_read(zorv1_dev_internal(dev)->vid), qid);
	if (dev == NULL || local_id < 0)
		return -1;
	struct rte_ring *ring = zorv1_get_ring_by_local_id(local_id);
	if (ring == NULL)
		return -1;

	info->vid = shared_read(zorv1_dev_internal(dev)->vid);
	info->qid = qid;
	info->local_id = local_id;
	snprintf(info->name, sizeof(info->name), "%s", ring->name);
	info->flags = ring->flags;
	info->size = ring->size;
	info->capacity = ring->capacity;
	info->ct = ring->cons.tail;
	info->ch = ring->cons.head;
	info->pt = ring->prod.tail;
	info->ph = ring->prod.head;
	info->used = rte_ring_count(ring);
	info->avail = rte_ring_free_count(ring);
	return 0;
}

extern "C" int zorv1_collect_vdev_port_info(struct rte_eth_dev *port,
					    struct zorv1_diag_port_info *info)
{
	struct zorv1_vdev_dpu_port_data *elem = &info->info[info->num].dpu_vdev_port_info;
	struct zorv1_internal *internal = zorv1_dev_internal(port);

	elem->portid = port->data->port_id;
	elem->vid = (uint32_t)shared_read(internal->vid);
	elem->sfi = shared_read(internal->sfi);
	elem->start_flag = shared_read(internal->started);
	snprintf(elem->name, sizeof(elem->name), "%s", port->data->name);
	info->num++;
	return 0;
}

extern "C" int zorv1_diag_vdev_port_info(char *name, struct zorv1_diag_port_info *info)
{
	struct rte_eth_dev *dev = zorv1_vdev_get_ethdev_by_name(name);

	if (dev == NULL)
		return -1;
	return zorv1_collect_vdev_port_info(dev, info);
}

/* Adds, not assigns: the caller hands over a zeroed record. */
extern "C" void zorv1_diag_set_queuestats(struct zorv1_vdev_diag_stats *dst,
					  const struct zorv1_vdev_stats *src)
{
	dst->bytes += src->bytes;
	dst->missed_pkts += src->missed_pkts;
	dst->pkts += src->pkts;
	dst->pkt_undersize += src->xstats[ZORV1_UNDERSIZE_PKT];
	dst->pkt_64 += src->xstats[ZORV1_64_PKT];
	dst->pkt_65_to_127 += src->xstats[ZORV1_65_TO_127_PKT];
	dst->pkt_128_to_255 += src->xstats[ZORV1_128_TO_255_PKT];
	dst->pkt_256_to_511 += src->xstats[ZORV1_256_TO_511_PKT];
	dst->pkt_512_to_1023 += src->xstats[ZORV1_512_TO_1023_PKT];
	dst->pkt_1024_to_1522 += src->xstats[ZORV1_1024_TO_1522_PKT];
	dst->pkt_1523_to_max += src->xstats[ZORV1_1523_TO_MAX_PKT];
	dst->broadcast_pkt += src->xstats[ZORV1_BROADCAST_PKT];
	dst->multicast_pkt += src->xstats[ZORV1_MULTICAST_PKT];
	dst->unicast_pkt += src->xstats[ZORV1_UNICAST_PKT];
	dst->valid = 1;
}

/*
 * Queue named by a diagnostics qid (2 x index + direction), or NULL when the
 * index is beyond the direction's queue count (or negative) or the queue
 * was never set up.
 */
static void *zorv1_diag_queue(struct rte_eth_dev *dev, int qid, bool *is_tx)
{
	int index = qid / ZORV1_QNUM;

	*is_tx = (qid & 1) != 0;
	if (index < 0)
		return NULL;
	if (*is_tx)
		return index < (int)dev->data->nb_tx_queues ? dev->data->tx_queues[index] : NULL;
	return index < (int)dev->data->nb_rx_queues ? dev->data->rx_queues[index] : NULL;
}

extern "C" int zorv1_diag_get_queuestats(char *name, int qid, struct zorv1_diag_stats *stats)
{
	struct rte_eth_dev *dev = zorv1_vdev_get_ethdev_by_name(name);
	bool is_tx;

	if (dev == NULL || stats == NULL)
		return -1;
	struct zorv1_vdev_diag_stats *elem = &stats->stats[stats->num].vdev_stats;
	void *queue = zorv1_diag_queue(dev, qid, &is_tx);
	if (queue == NULL)
		elem->valid = 0;
	else if (is_tx)
		zorv1_diag_set_queuestats(elem, &static_cast<struct zorv1_vdev_txq *>(queue)->stats);
	else
		zorv1_diag_set_queuestats(elem, &static_cast<struct zorv1_vdev_rxq *>(queue)->stats);
	stats->num++;
	return 0;
}

extern "C" int zorv1_diag_get_queueinfo(char *name, int qid, struct zorv1_diag_queue_info *info)
{
	struct zorv1_diag_vdev_qinfo *elem = &info->info[info->num].vdev_qinfo;
	struct rte_eth_dev *dev = zorv1_vdev_get_ethdev_by_name(name);
	bool is_tx;

	if (dev == NULL)
		return -1;
	void *queue = zorv1_diag_queue(dev, qid, &is_tx);
	if (queue == NULL) {
		elem->valid = 0;
	} else if (is_tx) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(queue);
		elem->vid = shared_read(txq->internal->vid);
		elem->allow_queuing = gate_read(&txq->allow_queuing);
		elem->while_queuing = gate_read(&txq->while_queuing);
		elem->port = txq->port;
		elem->virtqueue_id = txq->virtqueue_id;
		elem->pci_qid = txq->pci_qid;
		elem->valid = 1;
	} else {
		auto *rxq = static_cast<struct zorv1_vdev_rxq *>(queue);
		elem->vid = shared_read(rxq->internal->vid);
		elem->allow_queuing = gate_read(&rxq->allow_queuing);
		elem->while_queuing = gate_read(&rxq->while_queuing);
		elem->port = rxq->port;
		elem->virtqueue_id = rxq->virtqueue_id;
		elem->nb_rx_desc = rxq->nb_rx_desc;
		elem->local_id = rxq->local_id;
		elem->valid = 1;
	}
	info->num++;
	return 0;
}

extern "C" const struct zorv1_diag_ops zorv1_vdev_diag_ops = {
	.get_qnum_by_name = zorv1_vdev_get_qnum,
	.get_ring_info = zorv1_vnet_ring_info,
	.get_port_info = zorv1_diag_vdev_port_info,
	.get_queue_stats = zorv1_diag_get_queuestats,
	.get_queue_info = zorv1_diag_get_queueinfo,
	.get_pci_desc = NULL,
};

/* ========================================================================
 * Connection events
 * ======================================================================== */

extern "C" int zorv1_dpu_dev_queue_setup(int vid)
{
	zorv1_update_queuing_status(zorv1_dev_get_ethdev_by_vid(vid), false);
	return 0;
}

extern "C" int zorv1_dpu_dev_queue_destroy(int vid)
{
	zorv1_update_queuing_status(zorv1_dev_get_ethdev_by_vid(vid), true);
	return 0;
}

extern "C" int zorv1_dpu_vdev_new_conn(int vid)
{
	char ifname[ZORV1_IFNAME_LEN] = {0};

	zorv_get_ifname(vid, ifname, sizeof(ifname));
	struct rte_eth_dev *dev = find_eth_dev_by_ifname(ifname);
	if (dev == NULL) {
		ZORV1_VDEV_LOG(ERR, "Invalid device name: %s\n", ifname);
		ZORV1_REPORT(ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL, NULL, ifname, 0);
		return -1;
	}

	struct zorv1_internal *internal = zorv1_dev_internal(dev);
	shared_write(internal->vid, vid);
	for (uint16_t i = 0; i < dev->data->nb_tx_queues; i++) {
		auto *txq = static_cast<struct zorv1_vdev_txq *>(dev->data->tx_queues[i]);
		if (txq == NULL) {
			ZORV1_VDEV_LOG(ERR, "txq null,vid=%d,qid=%d.\n", vid, i);
			continue;
		}
		txq->pci_qid = zorv1_pci_get_idx_by_hash_locked(shared_read(internal->vid), i);
	}
	g_dpdk_cp_stat.new_conn++;
	return 0;
}

/* Unbind a connection; the port keeps its last vid. */
extern "C" int zorv1_dpu_vdev_destroy_dev(int vid)
{
	uint32_t sfi = zorv1_get_internal_sfi(vid);

	if (vid < 0) {
		g_dpdk_cp_stat.del_conn_err++;
		ZORV1_VDEV_LOG(ERR, "zorv1 desconnect err,vid:%d.\n", vid);
		return -1;
	}
	/* Valid functions are 1..8191; 0 counts as unbound, as does all ones. */
	if (zorv1_get_internal_sfi(vid) > ZORV1_SFI_MAX || zorv1_get_internal_sfi(vid) == 0) {
		g_dpdk_cp_stat.del_conn_err++;
		ZORV1_VDEV_LOG(ERR, "zorv1 INVALID_SFI,vid:%d.\n", vid);
		return -1;
	}
	if (zorv1_dev_get_ethdev_by_vid(vid) == NULL) {
		char ifname[ZORV1_IFNAME_LEN] = {0};
		zorv_get_ifname(vid, ifname, sizeof(ifname));
		ZORV1_VDEV_LOG(ERR, "Invalid device name: %s\n", ifname);
		ZORV1_REPORT(ZORV1_MSG_DEV_VHOST_ERR, ZORV1_ERR_DEV_NULL, NULL, ifname, 0);
		return -1;
	}

	zorv1_set_internal_sfi(vid, INVALID_SFI);
	zorv1_dev_sfi_unmap_port(sfi);
	zorv1_dpu_dev_queue_destroy(vid);
	g_dpdk_cp_stat.del_conn++;
	return 0;
}

extern "C" void zorv1_dpu_vdev_destroy_conn(int vid)
{
	(void)zorv1_dpu_vdev_destroy_dev(vid);
}

/* Re-apply a port's hardware function; the shape of zorv1_common_op_callback. */
extern "C" int zorv1_set_dev_port_callback(void *para)
{
	auto *port = static_cast<struct rte_eth_dev *>(para);

	if (port == NULL) {
		ZORV1_VDEV_LOG(ERR, "para null!\n");
		return -1;
	}
	struct zorv1_internal *internal = zorv1_dev_internal(port);
	return zorv_set_dev_port(port, shared_read(internal->sfi));
}

/* Run cb over every installed port with a bound function, under the mutex. */
extern "C" void zorv1_dev_all_port_op(zorv1_common_op_callback cb)
{
	if (cb == NULL) {
		ZORV1_VDEV_LOG(ERR, "para null!\n");
		return;
	}
	for (struct rte_eth_dev *dev : zorv1_ports(ZORV1_WALK_LOCK)) {
		struct zorv1_internal *internal = zorv1_dev_internal(dev);
		if (internal != NULL && shared_read(internal->sfi) != INVALID_SFI)
			(void)cb(dev);
	}
}

/* ========================================================================
 * Port creation
 * ======================================================================== */

extern "C" bool zorv1_name_check_fail(const char *name, char *iface_name)
{
	if (zorv1_vdev_get_ethdev_by_name(name) != NULL) {
		ZORV1_VDEV_LOG(WARNING, "eth_dev(%s) already exists..\n\n", name);
		return true;
	}
	if (find_eth_dev_by_ifname(iface_name) != NULL) {
		ZORV1_VDEV_LOG(WARNING, "iface_name(%s) already exists.\n\n", iface_name);
		return true;
	}
	return false;
}

extern "C" int zorv1_dpu_dev_create(struct rte_vdev_device *dev, char *iface_name, int16_t queues)
{
	const char *name = rte_vdev_device_name(dev);
	int numa_node = dev->device.numa_node;
	struct rte_eth_dev *eth_dev = NULL;
	struct zorv1_internal *internal = NULL;
	struct rte_ether_addr *eth_addr = NULL;
	int err = ZORV1_ERR_NONE;

	ZORV1_VDEV_LOG(INFO, "zorv1 dpu dev numa socket %u\n", numa_node);

	if (zorv1_name_check_fail(name, iface_name)) {
		ZORV1_VDEV_LOG(WARNING, "name(%s-%s) check fail!!!.\n\n", name, iface_name);
		err = ZORV1_ERR_DEV_CHECK;
		goto error;
	}

	eth_dev = rte_eth_vdev_allocate(dev, sizeof(struct zorv1_internal));
	if (eth_dev == NULL) {
		ZORV1_VDEV_LOG(ERR, "name(%s-%s) eth alloc fail!.\n\n", name, iface_name);
		err = ZORV1_ERR_MEM_ALLOC;
		goto error;
	}

	eth_addr = static_cast<struct rte_ether_addr *>(
		rte_zmalloc_socket(name, sizeof(*eth_addr), 0, numa_node));
	if (eth_addr == NULL) {
		ZORV1_VDEV_LOG(ERR, "name(%s-%s) eth_addr alloc fail!.\n\n", name, iface_name);
		err = ZORV1_ERR_MEM_ALLOC;
		goto error;
	}
	eth_dev->data->mac_addrs = eth_addr;
	*eth_addr = base_eth_addr;
	eth_addr->addr_bytes[RTE_ETHER_ADDR_LEN - 1] = (uint8_t)eth_dev->data->port_id;

	internal = zorv1_dev_internal(eth_dev);
	internal->iface_name =
		static_cast<char *>(rte_malloc_socket(name, strlen(iface_name) + 1, 0, numa_node));
	if (internal->iface_name == NULL) {
		ZORV1_VDEV_LOG(ERR, "name(%s-%s) iface_name alloc fail!.\n\n", name, iface_name);
		err = ZORV1_ERR_MEM_ALLOC;
		goto error;
	}
	strcpy(internal->iface_name, iface_name);

	internal->cmd.in_mem = rte_malloc("zorv_vdev_cmd_in", ZORV1_CMD_MEM_SIZE, 0);
	if (internal->cmd.in_mem == NULL) {
		ZORV1_SNIC_LOG(ERR, "reserve mem for cmd in_mem fail!\n");
		goto error;
	}
	internal->cmd.out_mem = rte_malloc("zorv_vdev_cmd_out", ZORV1_CMD_MEM_SIZE, 0);
	if (internal->cmd.out_mem == NULL) {
		ZORV1_SNIC_LOG(ERR, "reserve mem for cmd out_mem fail!\n");
		goto error;
	}

	eth_dev->data->nb_rx_queues = (uint16_t)queues;
	eth_dev->data->nb_tx_queues = (uint16_t)queues;
	internal->vid = -1;
	internal->sfi = INVALID_SFI;
	internal->max_queues = (uint16_t)queues;

	eth_dev->data->dev_link = pmd_link;
	eth_dev->data->dev_flags = RTE_ETH_DEV_INTR_LSC | RTE_ETH_DEV_AUTOFILL_QUEUE_XSTATS;
	eth_dev->data->promiscuous = 1;
	eth_dev->data->all_multicast = 1;

	eth_dev->dev_ops = &zorv1_dpu_dev_ops;
	eth_dev->rx_pkt_burst = eth_vhost_rx;
	eth_dev->tx_pkt_burst = eth_vhost_tx;

	/* A port without flow resources still carries traffic. */
	if (zorv_flow_resource_init(eth_dev, 1) != 0) {
		ZORV1_VDEV_LOG(ERR, "flow resource init failed,port_id=%u.\n", eth_dev->data->port_id);
		g_dpdk_cp_stat.flow_start_fail++;
	}

	zorv1_diag_ops_install(ZORV1_DIAG_DPU_VDEV, &zorv1_vdev_diag_ops);
	rte_eth_dev_probing_finish(eth_dev);
	return 0;

error:
	ZORV1_REPORT(ZORV1_MSG_DEV_VHOST_ERR, err, name, iface_name, queues);
	if (internal != NULL) {
		if (internal->iface_name != NULL)
			rte_free(internal->iface_name);
		if (internal->cmd.in_mem != NULL)
			rte_free(internal->cmd.in_mem);
		if (internal->cmd.out_mem != NULL)
			rte_free(internal->cmd.out_mem);
	}
	/* Also frees the private area and the MAC address; refuses an absent port. */
	rte_eth_dev_release_port(eth_dev);
	return -1;
}

/* ========================================================================
 * Probe and remove
 * ======================================================================== */

/* Keeps a pointer into the argument list; creation copies the text. */
extern "C" int open_iface(const char *key, const char *value, void *extra_args)
{
	RTE_SET_USED(key);
	auto **iface_name = static_cast<const char **>(extra_args);

	if (value == NULL)
		return -1;
	*iface_name = value;
	return 0;
}

/*
 * Only an overflow of the unsigned long conversion is an error here; values
 * that do not fit 16 bits wrap, and probe checks the range.
 */
extern "C" int open_int(const char *key, const char *value, void *extra_args)
{
	RTE_SET_USED(key);
	auto *n = static_cast<uint16_t *>(extra_args);

	if (value == NULL || extra_args == NULL)
		return -EINVAL;
	*n = (uint16_t)strtoul(value, NULL, 0);
	if (*n == USHRT_MAX && errno == ERANGE)
		return -1;
	return 0;
}

extern "C" int rte_pmd_zorv1_dpu_vdev_probe(struct rte_vdev_device *dev)
{
	const char *name = rte_vdev_device_name(dev);
	uint64_t tsc1 = rte_rdtsc();
	struct rte_kvargs *kvlist = NULL;
	const char *iface_name = NULL;
	uint16_t queues = 0;
	int ret = 0;
	int err = ZORV1_ERR_NONE;

	if (rte_eal_process_type() == RTE_PROC_SECONDARY) {
		struct rte_eth_dev *eth_dev = rte_eth_dev_attach_secondary(name);
		if (eth_dev == NULL) {
			ZORV1_VDEV_LOG(ERR, "Failed to probe %s\n", name);
			ret = -1;
			goto out;
		}
		eth_dev->rx_pkt_burst = eth_vhost_rx;
		eth_dev->tx_pkt_burst = eth_vhost_tx;
		eth_dev->dev_ops = &zorv1_dpu_dev_ops;
		if (dev->device.numa_node == SOCKET_ID_ANY)
			dev->device.numa_node = rte_socket_id();
		eth_dev->device = &dev->device;
		rte_eth_dev_probing_finish(eth_dev);
		ret = 0;
		goto out;
	}

	kvlist = rte_kvargs_parse(rte_vdev_device_args(dev), valid_arguments);
	if (kvlist == NULL) {
		ZORV1_VDEV_LOG(ERR, "kvlist is NULL.\n");
		ret = -1;
		err = ZORV1_ERR_DEV_PARSE;
		goto report;
	}

	if (rte_kvargs_count(kvlist, "iface") == 1) {
		ret = rte_kvargs_process(kvlist, "iface", open_iface, &iface_name);
		if (ret < 0) {
			err = ZORV1_ERR_DEV_PARSE;
			goto report;
		}
	} else {
		ret = -1;
		err = ZORV1_ERR_DEV_PARSE;
		goto report;
	}

	if (rte_kvargs_count(kvlist, "queues") == 1) {
		ret = rte_kvargs_process(kvlist, "queues", open_int, &queues);
		/* Above the limit: reported, no port, yet the bus sees success. */
		if (ret < 0 || queues > ZORV1_MAX_QUEUES) {
			err = ZORV1_ERR_DEV_PARSE;
			goto report;
		}
	} else {
		queues = 1;
	}

	if (dev->device.numa_node == SOCKET_ID_ANY)
		dev->device.numa_node = rte_socket_id();

	ZORV1_VDEV_LOG(INFO, "Initializing zorv1_dpu_dev for %s\n", name);
	ret = zorv1_dpu_dev_create(dev, const_cast<char *>(iface_name), (int16_t)queues);
	if (ret == -1)
		ZORV1_VDEV_LOG(ERR, "Failed to create %s\n", name);

report:
	if (err != ZORV1_ERR_NONE)
		ZORV1_REPORT(ZORV1_MSG_DEV_ADD_ERR, err, name, iface_name, queues);
out: {
	uint64_t tsc2 = rte_rdtsc();
	ZORV1_VDEV_LOG(DEBUG, "zorv1 dev port probe=%-6lu(us)\n", zorv1_calculate_time(tsc2, tsc1));
}
	rte_kvargs_free(kvlist);
	return ret;
}

extern "C" int rte_pmd_zorv1_dpu_vdev_remove(struct rte_vdev_device *dev)
{
	const char *name = rte_vdev_device_name(dev);

	ZORV1_VDEV_LOG(INFO, "Un-Initializing zorv1_dpu_dev for %s\n", name);
	struct rte_eth_dev *eth_dev = rte_eth_dev_allocated(name);
	if (eth_dev == NULL)
		return 0;
	eth_dev_close(eth_dev);
	rte_eth_dev_release_port(eth_dev);
	return 0;
}

/* ========================================================================
 * Registration
 * ======================================================================== */

static struct rte_vdev_driver pmd_zorv1_dpu_vdev_drv = {
	.next = {},
	.driver = {},
	.probe = rte_pmd_zorv1_dpu_vdev_probe,
	.remove = rte_pmd_zorv1_dpu_vdev_remove,
	.dma_map = NULL,
	.dma_unmap = NULL,
	.drv_flags = 0,
};

/*
 * What RTE_PMD_REGISTER_VDEV with RTE_PMD_REGISTER_ALIAS expand to, written
 * out because the pair declares the alias twice, which C++ does not allow:
 * a load-time constructor names the driver, gives its alias and registers it
 * with the virtual-device bus before the EAL scans the bus.
 */
static const char *vdrvinit_net_zorv1_alias = "eth_zorv1";
RTE_INIT(vdrvinitfn_pmd_zorv1_dpu_vdev_drv)
{
	pmd_zorv1_dpu_vdev_drv.driver.name = "net_zorv1";
	pmd_zorv1_dpu_vdev_drv.driver.alias = vdrvinit_net_zorv1_alias;
	rte_vdev_register(&pmd_zorv1_dpu_vdev_drv);
}
/*
 * Driver metadata for DPDK's tooling, under the plain symbol names that
 * RTE_PMD_EXPORT_NAME and RTE_PMD_REGISTER_PARAM_STRING give in C (a C++
 * static would otherwise carry a mangled name the tools do not look for).
 */
static const char this_pmd_name0[] __asm__("this_pmd_name0") __rte_used = "net_zorv1";
static const char __net_zorv1_param_string_export[] __asm__(
	"__net_zorv1_param_string_export") __rte_used = "iface=<ifc> queues=<int> ";
