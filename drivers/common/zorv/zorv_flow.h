/* SPDX-License-Identifier: BSD-3-Clause
 * Flow engine internals: the per-port flow context behind
 * zorv_flow_priv.ctx and what the emulated card may read of it.
 *
 * The emulated card offloads no flow rules and no meters: the rte_flow and
 * rte_mtr operations of a port report "not supported". What a port does
 * keep is its vNIC id (zorv_flow_priv.priv_port) and the VXLAN UDP ports
 * the application announced.
 */
#ifndef ZORV_FLOW_H
#define ZORV_FLOW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct rte_eth_dev;

/* VXLAN UDP ports a port can announce. */
#define ZORV_FLOW_MAX_VXLAN_PORTS 4

/* zorv_flow_priv.flags: the port has a flow context. */
#define ZORV_FLOW_F_ACTIVE 0x1u

/* Per-port flow context (zorv_flow_priv.ctx), allocated zeroed. */
struct zorv_flow_ctx {
	uint16_t port_id;        /* ethdev port the context belongs to */
	uint16_t nb_vxlan_ports; /* entries used in vxlan_ports */
	uint16_t vxlan_ports[ZORV_FLOW_MAX_VXLAN_PORTS]; /* host byte order */
};

/* vNIC id of an ethdev port: 0 is never used, so a zeroed record has none. */
static inline uint32_t zorv_flow_vnic_of_port(uint16_t port_id)
{
	return (uint32_t)port_id + 1;
}

/*
 * Copy up to max announced VXLAN UDP ports of the port into ports; returns
 * how many the port has (0 without a flow context), -EINVAL for a bad
 * argument. Control path.
 */
int zorv_flow_get_vxlan_ports(struct rte_eth_dev *dev, uint16_t *ports, int max);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_FLOW_H */
