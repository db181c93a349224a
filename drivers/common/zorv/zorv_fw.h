/* SPDX-License-Identifier: BSD-3-Clause
 * Firmware state of the emulated card that its data path enforces: the MTU
 * of every virtual port (vNIC) and the frames dropped for exceeding it.
 */
#ifndef ZORV_FW_H
#define ZORV_FW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* MTUs the firmware accepts, in bytes. */
#define ZORV_FW_MTU_MIN 68
#define ZORV_FW_MTU_MAX 9600

/* MAC ports of the card whose MTU can be set (index = svport_id). */
#define ZORV_FW_MAC_PORTS 8

/* Ethernet header and VLAN tag added to the MTU to get the frame limit. */
#define ZORV_FW_ETH_HDR_LEN 14
#define ZORV_FW_VLAN_TAG_LEN 4

/* MTU set for a virtual port; 0 when none was set (no limit). Lock-free. */
uint32_t zorv_fw_get_vport_mtu(uint16_t vport);

/* MTU set for a MAC port; 0 when none was set or the port does not exist. */
uint32_t zorv_fw_get_macport_mtu(uint16_t macport);

/*
 * Longest frame (without FCS) the virtual port passes: MTU + 14, + 4 more
 * for a VLAN-tagged frame; 0 when the port has no MTU (no limit).
 */
static inline uint32_t zorv_fw_vport_frame_limit(uint16_t vport, int vlan_tagged)
{
	uint32_t mtu = zorv_fw_get_vport_mtu(vport);

	if (mtu == 0)
		return 0;
	return mtu + ZORV_FW_ETH_HDR_LEN + (vlan_tagged ? ZORV_FW_VLAN_TAG_LEN : 0);
}

/*
 * The MTU of a virtual port holds in both directions: frames from the peer
 * longer than it are dropped before the port receives them, frames the port
 * transmits longer than it are dropped before they reach the peer. Each
 * direction has its own drop count per virtual port, and a family-wide
 * total that a reset of a virtual port does not take back.
 */

/* Count a received frame dropped for exceeding the port's MTU; any thread. */
void zorv_fw_count_mtu_drop(uint16_t vport);

/* Received frames dropped for exceeding the MTU on the virtual port. */
uint64_t zorv_fw_get_mtu_drops(uint16_t vport);

/* Count a transmitted frame dropped for exceeding the port's MTU; any thread. */
void zorv_fw_count_tx_mtu_drop(uint16_t vport);

/* Transmitted frames dropped for exceeding the MTU on the virtual port. */
uint64_t zorv_fw_get_tx_mtu_drops(uint16_t vport);

/* Frames dropped for the MTU on every virtual port: received (tx == 0) or transmitted. */
uint64_t zorv_fw_mtu_drops_total(int tx);

/* Forget the MTU and the drop counts of a virtual port (a new vNIC). */
void zorv_fw_vport_reset(uint16_t vport);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_FW_H */
