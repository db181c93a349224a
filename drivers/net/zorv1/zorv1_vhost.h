/* SPDX-License-Identifier: BSD-3-Clause
 * Port, queue and counter records of the zorv1 virtual-device port, the
 * control-plane counters, and the transport, ring and utility services the
 * port runs on.
 */
#ifndef ZORV1_VHOST_H
#define ZORV1_VHOST_H

#include <stddef.h>
#include <stdint.h>

#include <rte_atomic.h>
#include <rte_ring.h>

#include "zorv1_common.h"

#ifdef __cplusplus
extern "C" {
#endif

struct rte_mbuf;
struct rte_mempool;
struct rte_eth_dev;

/* sfi of a connection that has no hardware function bound. */
#define INVALID_SFI 0xFFFFFFFFu

/* Number of connection ids (and event ids) the family tracks. */
#define ZORV1_MAX_VID 1024

/* Index of the per-queue extended counters. */
enum zorv1_vdev_xstats {
	ZORV1_UNDERSIZE_PKT = 0,
	ZORV1_64_PKT = 1,
	ZORV1_65_TO_127_PKT = 2,
	ZORV1_128_TO_255_PKT = 3,
	ZORV1_256_TO_511_PKT = 4,
	ZORV1_512_TO_1023_PKT = 5,
	ZORV1_1024_TO_1522_PKT = 6,
	ZORV1_1523_TO_MAX_PKT = 7,
	ZORV1_BROADCAST_PKT = 8,
	ZORV1_MULTICAST_PKT = 9,
	ZORV1_UNICAST_PKT = 10,
	ZORV1_XSTATS_MAX = 11,
};

/* Queue kinds; queue pair i uses transport queues 2i (rx) and 2i+1 (tx). */
enum {
	ZORV1_RXQ = 0,
	ZORV1_TXQ = 1,
	ZORV1_QNUM = 2,
};

/* Per-queue counters, kept by the lcore that polls the queue. */
struct zorv1_vdev_stats {
	uint64_t pkts;        /* packets passed */
	uint64_t bytes;       /* bytes passed */
	uint64_t missed_pkts; /* packets that could not be passed on */
	uint64_t xstats[ZORV1_XSTATS_MAX]; /* size bins and destination classes */
};

/* Private record of a port (the ethdev's dev_private). */
struct zorv1_internal {
	struct zorv1_common comm;           /* family head; flow engine's record */
	struct zorv1_rss rss;               /* RSS settings of the family */
	struct zorv1_cmd_transport_mem cmd; /* firmware command buffers */
	char *iface_name;   /* interface name (private heap copy) */
	int vid;            /* connection id; -1 until the first connection */
	int started;        /* 1 between start and stop */
	uint32_t sfi;       /* bound hardware function; INVALID_SFI if none */
	uint8_t vlan_strip; /* receive VLAN strip requested at configure */
	uint8_t reserve[3];
	uint16_t max_queues; /* queues argument: rx and tx queue count */
	uint8_t mac_addr[6]; /* reserved; the port's address is in mac_addrs */
};

/* Receive queue. The gate pair leads both queue records. */
struct zorv1_vdev_rxq {
	rte_atomic32_t allow_queuing;     /* gate: 1 while bursts may enter */
	rte_atomic32_t while_queuing;     /* bursts currently inside */
	struct zorv1_internal *internal;  /* owning port */
	struct rte_mempool *mb_pool;      /* pool the transport allocates from */
	uint16_t port;                    /* ethdev port id */
	int local_id;                     /* ring manager id of this queue's ring */
	uint16_t virtqueue_id;            /* transport queue: 2 x queue index */
	struct zorv1_vdev_stats stats;    /* counters */
	uint16_t nb_rx_desc;              /* descriptors asked for at setup */
};

/* Transmit queue. */
struct zorv1_vdev_txq {
	rte_atomic32_t allow_queuing;     /* gate: 1 while bursts may enter */
	rte_atomic32_t while_queuing;     /* bursts currently inside */
	struct zorv1_internal *internal;  /* owning port */
	uint16_t port;                    /* ethdev port id */
	uint32_t pci_qid;                 /* hardware queue this queue hashes to */
	uint16_t virtqueue_id;            /* transport queue: 2 x queue index + 1 */
	struct zorv1_vdev_stats stats;    /* counters */
};

/* Control-plane event counters of the family (plain, wrapping uint32). */
struct dpdk_cp_stat {
	uint32_t set_owner_fail;
	uint32_t set_owner_suc;
	uint32_t cache_start_flag_err;
	uint32_t enqueue_dev_null;
	uint32_t enqueue_queue_fail;
	uint32_t enqueue_vhost_len_fail;
	uint32_t enqueue_fail;
	uint32_t dequeue_dev_null;
	uint32_t dequeue_queue_fail;
	uint32_t dequeue_rarp_null;
	uint32_t dequeue_pmd;
	uint32_t pre_msg_path_fail;
	uint32_t post_msg_path_fail;
	uint32_t new_conn_err;
	uint32_t new_conn;
	uint32_t del_conn_err;
	uint32_t del_conn;
	uint32_t vring_state_fail;
	uint32_t vring_state_chg;
	uint32_t del_device_null;
	uint32_t del_device_suc;
	uint32_t add_device_null;
	uint32_t add_device_vq_no_ready;
	uint32_t add_device_install_err;
	uint32_t queue_setup_ignore;
	uint32_t queue_destroy_ignore;
	uint32_t add_device_success;
	uint32_t vhost_setup_fail;
	uint32_t eth_dev_configure;
	uint32_t vhost_list_null;
	uint32_t vhost_vring_state_null;
	uint32_t vhost_regist_fail;
	uint32_t vhost_vsocket_null;
	uint32_t vhost_callback_null;
	uint32_t vhost_driver_start_err;
	uint32_t vhost_driver_setup;
	uint32_t close_dev_null;
	uint32_t eth_dev_close;
	uint32_t eth_dev_stop;
	uint32_t flow_start_fail;
	uint32_t flow_close_fail;
	uint32_t start_dev_intr;
	uint32_t eth_dev_start;
	uint32_t send_msg_fail;
	uint32_t get_ethdev_fail;
};

extern struct dpdk_cp_stat g_dpdk_cp_stat;
extern uint64_t g_zorv1_event_id[ZORV1_MAX_VID];

/* ---- Transport to the card (connection id = vid) ---- */

/* Receive up to count (<= 32) packets of the queue's connection. */
uint16_t rte_zorv1_vhost_dequeue_burst(struct zorv1_vdev_rxq *rxq, struct rte_mbuf **pkts,
				       uint16_t count);
/*
 * Send up to count (<= 32) packets; returns how many were accepted. Accepted
 * mbufs stay readable until the calling burst returns.
 */
uint16_t rte_zorv1_vhost_enqueue_burst(struct zorv1_vdev_txq *txq, struct rte_mbuf **pkts,
				       uint16_t count);
/* Serve / stop serving an interface to its peer. 0 on success. */
int zorv1_dpu_vdev_protocol_register(char *iface_name);
int zorv1_dpu_vdev_protocol_unregister(char *iface_name);
/* Interface name of a connection. */
int zorv_get_ifname(int vid, char *buf, size_t len);
/* Tell the flow engine the port's hardware function. 0 on success. */
int zorv_set_dev_port(struct rte_eth_dev *dev, uint32_t sfi);

/* ---- Ring manager ---- */

/* Create a ring; returns its device-wide local id, or -1. */
int zorv1_ring_create(uint32_t size);
void zorv1_ring_destroy(int local_id);
struct rte_ring *zorv1_get_ring_by_local_id(int local_id);

/* ---- Utilities ---- */

/* Microseconds between two TSC readings, the later one first. */
uint64_t zorv1_calculate_time(uint64_t tsc_end, uint64_t tsc_start);
/* Hex dump of a packet's first bytes to the log. */
void zorv1_dump_pkt(const char *title, const uint8_t *data, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_VHOST_H */
