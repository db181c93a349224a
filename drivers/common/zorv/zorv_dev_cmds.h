/* SPDX-License-Identifier: BSD-3-Clause
 * Command records exchanged with the card's firmware command channel.
 */
#ifndef ZORV_DEV_CMDS_H
#define ZORV_DEV_CMDS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct zorv1_internal;

/* Which MTU the firmware sets: a MAC port's or a virtual port's. */
enum e_cmd_mtu_op_type {
	E_CMD_OP_MTU_SET_MACPORT = 1,
	E_CMD_OP_MTU_SET_VPORT = 2,
};

/* Argument of the MTU command. */
struct zorv_cmd_mtu_set_info {
	uint16_t svport_id; /* source virtual port */
	uint16_t dvport_id; /* destination virtual port */
	uint32_t mtu;       /* requested MTU in bytes */
};

/* Firmware: apply an MTU to the port's virtual NIC. 0 on success. */
int zorv1_fw_set_dev_mtu(struct zorv1_internal *internal, enum e_cmd_mtu_op_type op,
			 struct zorv_cmd_mtu_set_info *info);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_DEV_CMDS_H */
