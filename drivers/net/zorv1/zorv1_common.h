/* SPDX-License-Identifier: BSD-3-Clause
 * Head shared by every port kind of the zorv1 family, command buffers,
 * and the flow engine's contract.
 */
#ifndef ZORV1_COMMON_H
#define ZORV1_COMMON_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct rte_eth_dev;
struct rte_eth_udp_tunnel;
struct rte_flow_ops;

/*
 * The flow engine's per-port record. The port reserves it in its head; the
 * flow engine fills it in zorv_flow_resource_init() and empties it in
 * zorv_flow_resource_free(). Only priv_port is read outside the flow engine.
 */
struct zorv_flow_priv {
	uint32_t priv_port; /* the port's virtual NIC id on the card */
	uint32_t flags;     /* flow engine state bits */
	void *ctx;          /* flow engine's own state (rules, meters, tunnels) */
};

/* Head common to all port kinds of the family. */
struct zorv1_common {
	uint32_t flag;                  /* owned by the family's other modules */
	struct zorv_flow_priv flow_data; /* the flow engine's per-port record */
};

/* Receive-side-scaling settings; kept for the family's other modules. */
struct zorv1_rss {
	uint64_t rss_hash_types; /* hash types requested */
	uint16_t rss_rx_queues;  /* queues taking part */
	uint8_t rss_htype;       /* hash type selector */
	uint8_t reserve[1];
};

/* The port's firmware command buffers, 1024 bytes each. */
struct zorv1_cmd_transport_mem {
	void *in_mem;
	void *out_mem;
};

#define ZORV1_CMD_MEM_SIZE 1024

/* Flow engine. */
int zorv_flow_resource_init(struct rte_eth_dev *dev, int enable);
int zorv_flow_resource_free(struct rte_eth_dev *dev);
int zorv_dev_udp_tunnel_port_add(struct rte_eth_dev *dev, struct rte_eth_udp_tunnel *tunnel);
int zorv_dev_flow_ops_get(struct rte_eth_dev *dev, const struct rte_flow_ops **ops);
int zorv_mtr_ops_get(struct rte_eth_dev *dev, void *ops);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_COMMON_H */
