/* SPDX-License-Identifier: BSD-3-Clause
 * Operations of the zorv1 virtual-device port that DPDK reaches through the
 * port's tables rather than by name. They have C linkage so that the unit
 * tests can drive each one directly; the shared library keeps them local.
 */
#ifndef ZORV1_VDEV_INTERNAL_H
#define ZORV1_VDEV_INTERNAL_H

#include <stdbool.h>
#include <stdint.h>

#include <rte_ethdev.h>
#include <rte_power_intrinsics.h>

#include "zorv1_diag.h"
#include "zorv1_vhost.h"

#ifdef __cplusplus
extern "C" {
#endif

struct rte_vdev_device;

/* Name and position of one extended counter inside a queue record. */
struct zorv1_vdev_xstats_name_off {
	char name[RTE_ETH_XSTATS_NAME_SIZE];
	uint64_t offset;
};

#define ZORV1_VDEV_NB_XSTATS 28

/* Lookups */
struct rte_eth_dev *find_eth_dev_by_ifname(const char *ifname);

/* Extended statistics */
void zorv1_vdev_update_single_packet_xstats(struct zorv1_vdev_stats *pstats,
					    struct rte_mbuf *buf);
void zorv1_vdev_count_xcast_packets(struct zorv1_vdev_stats *pstats, struct rte_mbuf *mbuf);
int zorv1_vdev_xstats_get_names(struct rte_eth_dev *dev, struct rte_eth_xstat_name *xstats_names,
				unsigned int limit);
int zorv1_vdev_xstats_get(struct rte_eth_dev *dev, struct rte_eth_xstat *xstats, unsigned int n);
int zorv1_vdev_xstats_reset(struct rte_eth_dev *dev);

/* Queuing gate */
void zorv1_update_queuing_status(struct rte_eth_dev *dev, bool need_waiting);

/* Bursts */
uint16_t eth_vhost_rx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs);
uint16_t eth_vhost_tx(void *q, struct rte_mbuf **bufs, uint16_t nb_bufs);
void zorv1_eth_ts_log(uint64_t tsc1, struct zorv1_vdev_rxq *r, struct rte_mbuf *buf);

/* Ethernet device operations */
int eth_rx_queue_setup(struct rte_eth_dev *dev, uint16_t rx_queue_id, uint16_t nb_rx_desc,
		       unsigned int socket_id, const struct rte_eth_rxconf *rx_conf,
		       struct rte_mempool *mb_pool);
int eth_tx_queue_setup(struct rte_eth_dev *dev, uint16_t tx_queue_id, uint16_t nb_tx_desc,
		       unsigned int socket_id, const struct rte_eth_txconf *tx_conf);
int eth_dev_info(struct rte_eth_dev *dev, struct rte_eth_dev_info *dev_info);
int eth_stats_get(struct rte_eth_dev *dev, struct rte_eth_stats *stats);
int eth_stats_reset(struct rte_eth_dev *dev);
int eth_tx_done_cleanup(void *txq, uint32_t free_cnt);
int eth_link_update(struct rte_eth_dev *dev, int wait_to_complete);
int zorv1_mtu_set(struct rte_eth_dev *dev, uint16_t mtu);
/* The result zorv1_mtu_set starts from: 0, unless a unit test sets it. */
extern int zorv1_mtu_set_initial_ret;
int zorv1_vdev_get_monitor_addr(void *rx_queue, struct rte_power_monitor_cond *pmc);
int zorv1_monitor_callback(const uint64_t value, const uint64_t opaque[RTE_POWER_MONITOR_OPAQUE_SZ]);
int zorv1_vhost_driver_setup(struct rte_eth_dev *eth_dev);
int eth_dev_configure(struct rte_eth_dev *dev);
int eth_dev_start(struct rte_eth_dev *eth_dev);
int eth_dev_stop(struct rte_eth_dev *dev);
void eth_rx_queue_release(struct rte_eth_dev *dev, uint16_t qid);
void eth_tx_queue_release(struct rte_eth_dev *dev, uint16_t qid);
void zorv1_queue_release(struct rte_eth_dev *dev);
int eth_dev_close(struct rte_eth_dev *dev);
extern const struct eth_dev_ops zorv1_dpu_dev_ops;

/* Diagnostics */
int zorv1_vdev_get_qnum(char *name);
int zorv1_vnet_ring_info(char *name, int qid, struct zorv1_vnet_diag_ring_info *info);
int zorv1_collect_vdev_port_info(struct rte_eth_dev *port, struct zorv1_diag_port_info *info);
int zorv1_diag_vdev_port_info(char *name, struct zorv1_diag_port_info *info);
void zorv1_diag_set_queuestats(struct zorv1_vdev_diag_stats *dst,
			       const struct zorv1_vdev_stats *src);
int zorv1_diag_get_queuestats(char *name, int qid, struct zorv1_diag_stats *stats);
int zorv1_diag_get_queueinfo(char *name, int qid, struct zorv1_diag_queue_info *info);
extern const struct zorv1_diag_ops zorv1_vdev_diag_ops;

/* Creation, probe and remove */
bool zorv1_name_check_fail(const char *name, char *iface_name);
int zorv1_dpu_dev_create(struct rte_vdev_device *dev, char *iface_name, int16_t queues);
int open_iface(const char *key, const char *value, void *extra_args);
int open_int(const char *key, const char *value, void *extra_args);
int rte_pmd_zorv1_dpu_vdev_probe(struct rte_vdev_device *dev);
int rte_pmd_zorv1_dpu_vdev_remove(struct rte_vdev_device *dev);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_VDEV_INTERNAL_H */
