/* SPDX-License-Identifier: BSD-3-Clause
 * Device manager of the zorv1 family: the table of installed ports
 * (1024 slots under one family-wide, non-recursive mutex) and the hash of
 * transmit queues onto the card's PCI queues.
 */
#ifndef ZORV1_DEV_MGR_H
#define ZORV1_DEV_MGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct rte_eth_dev;

#define ZORV1_DEV_MAX 1024

/* An operation run over ports; the argument is a struct rte_eth_dev *. */
typedef int (*zorv1_common_op_callback)(void *para);

void zorv1_dev_mutex_lock(void);
void zorv1_dev_mutex_unlock(void);

/* Install / uninstall a port; called with the mutex held. 0 on success. */
int zorv1_dev_install(uint16_t port_id, struct rte_eth_dev *dev);
int zorv1_dev_uninstall(uint16_t port_id);

/* The installed port with this port id, or NULL. */
struct rte_eth_dev *zorv1_dev_get_ethdev(uint16_t port_id);
/* The port in table slot 0..1023, or NULL. */
struct rte_eth_dev *zorv1_dev_get_ethdev_internal(int slot);
/* The installed port bound to this hardware function, or NULL. */
struct rte_eth_dev *zorv1_dev_get_ethdev_by_sfi(uint32_t sfi);
/* The port of this family with this device name, or NULL. */
struct rte_eth_dev *zorv1_vdev_get_ethdev_by_name(const char *name);
/* Forget the card's mapping of a hardware function to its port. */
void zorv1_dev_sfi_unmap_port(uint32_t sfi);

/* PCI queue a transmit queue of a connection hashes to; mutex held. */
uint32_t zorv1_pci_get_idx_by_hash(int vid, int queue);
/* The same for callers that do not hold the mutex. */
uint32_t zorv1_pci_get_idx_by_hash_locked(int vid, int queue);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_DEV_MGR_H */
