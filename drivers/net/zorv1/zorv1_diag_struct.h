/* SPDX-License-Identifier: BSD-3-Clause
 * Records exchanged between the diagnostics registry and the device types
 * of the zorv1 family. The three list records share one shape: a head
 * (num, the append cursor, and dev_type) and a flexible array of a union of
 * per-type elements, so every element has the stride of the largest member.
 */
#ifndef ZORV1_DIAG_STRUCT_H
#define ZORV1_DIAG_STRUCT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZORV1_DIAG_NAME_LEN 64

/* One ring as seen by the ring manager. */
struct zorv1_vnet_diag_ring_info {
	int vid;
	int qid;
	int local_id;
	int flags;         /* ring flags */
	uint32_t size;
	uint32_t capacity;
	uint32_t ct;       /* consumer tail */
	uint32_t ch;       /* consumer head */
	uint32_t pt;       /* producer tail */
	uint32_t ph;       /* producer head */
	uint32_t used;     /* entries in the ring */
	uint32_t avail;    /* free entries */
	char name[ZORV1_DIAG_NAME_LEN];
};

/* ---- port information ---- */
struct zorv1_vdev_dpu_port_data {
	uint32_t portid;
	uint32_t vid;
	uint32_t sfi;
	int start_flag;
	char name[ZORV1_DIAG_NAME_LEN];
};

struct zorv1_pci_dpu_port_data {
	uint32_t portid;
	char name[ZORV1_DIAG_NAME_LEN];
};

struct zorv1_vdev_snic_port_data {
	uint32_t portid;
	uint32_t sfi;
	char name[ZORV1_DIAG_NAME_LEN];
};

union zorv1_port_info_data {
	struct zorv1_vdev_dpu_port_data dpu_vdev_port_info;
	struct zorv1_pci_dpu_port_data dpu_pci_port_info;
	struct zorv1_vdev_snic_port_data snic_vdev_port_info;
};

struct zorv1_diag_port_info {
	int32_t num;   /* elements filled so far (append cursor) */
	int dev_type;  /* a zorv1_diag_type */
	union zorv1_port_info_data info[];
};

/* ---- queue statistics ---- */
struct zorv1_vdev_diag_stats {
	uint64_t pkts;
	uint64_t bytes;
	uint64_t missed_pkts;
	uint64_t pkt_undersize;
	uint64_t pkt_64;
	uint64_t pkt_65_to_127;
	uint64_t pkt_128_to_255;
	uint64_t pkt_256_to_511;
	uint64_t pkt_512_to_1023;
	uint64_t pkt_1024_to_1522;
	uint64_t pkt_1523_to_max;
	uint64_t broadcast_pkt;
	uint64_t multicast_pkt;
	uint64_t unicast_pkt;
	uint64_t valid; /* 1: holds a queue's counters; 0: the qid named no queue */
};

struct zorv1_rx_stats {
	uint64_t refill;
	uint64_t vlan_strip;
	uint64_t refill_failed;
	uint64_t pktmbuf_alloc_failed;
	uint64_t notify;
	uint64_t no_used_desc;
	uint64_t no_mbuf_cookie;
	uint64_t pp_total_rx_pkts;
	uint64_t pp_passthrough;
	uint64_t pp_enqueue;
	uint64_t pp_drop;
	uint64_t pp_retry;
	uint64_t pp_retry_failed;
};

struct zorv1_tx_stats {
	uint64_t cleanup;
	uint64_t no_free_desc;
	uint64_t notify;
	uint64_t send_err;
	uint64_t hdl_drop;
	uint64_t pp_total_tx_pkts;
};

struct zorv1_pci_diag_stats {
	uint64_t qid;
	uint64_t packets;
	uint64_t bytes;
	uint64_t errors;
	uint64_t multicast;
	uint64_t broadcast;
	uint64_t size_bins[8];
	union {
		struct zorv1_rx_stats rx_stats;
		struct zorv1_tx_stats tx_stats;
	};
};

union zorv1_diag_stats_data {
	struct zorv1_pci_diag_stats pci_stats;
	struct zorv1_vdev_diag_stats vdev_stats;
};

struct zorv1_diag_stats {
	int32_t num;
	int dev_type;
	union zorv1_diag_stats_data stats[];
};

/* ---- queue information ---- */
struct zorv1_diag_vdev_qinfo {
	int valid;
	int vid;
	int32_t allow_queuing;
	int32_t while_queuing;
	uint16_t port;
	uint16_t virtqueue_id;
	uint16_t nb_rx_desc;
	int local_id;
	uint32_t pci_qid;
};

struct zorv1_diag_pci_qinfo {
	uint16_t vq_used_cons_idx;
	uint16_t vq_nentries;
	uint16_t vq_free_cnt;
	uint16_t vq_avail_idx;
	uint16_t vq_free_thresh;
	uint16_t vq_desc_head_idx;
	uint16_t vq_desc_tail_idx;
	uint16_t vq_queue_index;
	unsigned int vq_ring_size;
	uint16_t mbuf_addr_offset;
};

union zorv1_diag_queue_info_data {
	struct zorv1_diag_pci_qinfo pci_qinfo;
	struct zorv1_diag_vdev_qinfo vdev_qinfo;
};

struct zorv1_diag_queue_info {
	int32_t num;
	int dev_type;
	union zorv1_diag_queue_info_data info[];
};

/* ---- PCI descriptors (not provided by the virtual-device port) ---- */
struct zorv1_diag_pci_desc_data {
	char type[8];
	uint32_t vq_nentries;
	int idx;
	union {
		struct {
			uint32_t used_wrap_counter;
			struct {
				uint64_t addr;
				uint32_t len;
				uint16_t id;
				uint16_t flags;
			} desc;
		} packed;
		struct {
			struct {
				uint16_t flags;
				uint16_t idx;
				uint16_t desc_idx;
			} avail;
			struct {
				uint64_t addr;
				uint32_t len;
				uint16_t flags;
				uint16_t next;
			} desc;
			struct {
				uint16_t flags;
				uint16_t idx;
				struct {
					uint32_t id;
					uint32_t len;
				} used_elem;
			} used;
		} split;
	};
};

struct zorv1_diag_pci_desc {
	int32_t num;
	int dev_type;
	struct zorv1_diag_pci_desc_data desc[];
};

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_DIAG_STRUCT_H */
