/* SPDX-License-Identifier: BSD-3-Clause
 * Device manager internals shared with the emulated card: the card's PCI
 * queue count and its map from hardware functions (sfi) to ports.
 */
#ifndef ZORV_DEV_MGR_INTERNAL_H
#define ZORV_DEV_MGR_INTERNAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* PCI queues of the emulated card; transmit queues hash onto 0..N-1. */
#define ZORV_CARD_PCI_QUEUES 16

/* Buckets of the sfi -> port map; at most this many functions are mapped. */
#define ZORV_SFI_MAP_SIZE 4096

/*
 * Map a hardware function to a port id. A function already mapped is moved
 * to the new port. 0 on success, -EINVAL for INVALID_SFI, -ENOSPC when the
 * map is full. Control path only (takes the map's own lock, never the
 * device manager's mutex, so it may be called with that mutex held).
 */
int zorv_dev_sfi_map_port(uint32_t sfi, uint16_t port_id);

/*
 * Port id mapped to a hardware function, or -1. Lock-free; safe on the data
 * path concurrently with map and unmap.
 */
int zorv_dev_sfi_lookup_port(uint32_t sfi);

/* Number of functions currently mapped (diagnostics and tests). */
uint32_t zorv_dev_sfi_mapped_count(void);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_DEV_MGR_INTERNAL_H */
