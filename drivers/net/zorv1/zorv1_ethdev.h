/* SPDX-License-Identifier: BSD-3-Clause
 * Entry points of the zorv1 virtual-device port for the family's other
 * modules: lookups, connection state, queuing gates and connection events.
 */
#ifndef ZORV1_ETHDEV_H
#define ZORV1_ETHDEV_H

#include <stdint.h>

#include "zorv1_dev_mgr.h"
#include "zorv1_vhost.h"

#ifdef __cplusplus
extern "C" {
#endif

struct rte_eth_dev;

/* Control-plane counters. */
struct dpdk_cp_stat *zorv1_get_dpdk_cp_stat(void);

/* Event id per connection id; vid must be 0..1023. */
uint64_t zorv1_get_eventid(int vid);
void zorv1_set_eventid(int vid, uint64_t eventid);

/* Lookups. */
struct rte_eth_dev *zorv1_dev_get_ethdev_by_vid(int vid);
int zorv1_get_dev_queue_local_id(int vid, int qid);
int zorv1_get_cache_ring_local_id(int sfi, int rss);
uint32_t zorv1_get_internal_sfi(int vid);
void zorv1_set_internal_sfi(int vid, uint32_t sfi);

/* Device-wide transmit gates around a change of the PCI queue mapping. */
void zorv1_dev_disable_all_txq_queuing(void);
void zorv1_dev_enable_all_txq_queuing(void);
void zorv1_dev_update_pci_hash(void);

/* Connection events from the transport. */
int zorv1_dpu_dev_queue_setup(int vid);
int zorv1_dpu_dev_queue_destroy(int vid);
int zorv1_dpu_vdev_new_conn(int vid);
int zorv1_dpu_vdev_destroy_dev(int vid);
void zorv1_dpu_vdev_destroy_conn(int vid);

/* Run an operation over every port with a bound hardware function. */
int zorv1_set_dev_port_callback(void *para);
void zorv1_dev_all_port_op(zorv1_common_op_callback cb);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_ETHDEV_H */
