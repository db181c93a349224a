/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics registry of the zorv1 family: the installed operations tables
 * and the telemetry commands that answer from them.
 *
 * Telemetry commands (params after the first comma):
 *   /zorv1/ports                        names of the installed ports
 *   /zorv1/port_info,<name>             port record of the port's device type
 *   /zorv1/qnum,<name>                  qid count (2 x queues)
 *   /zorv1/queue_info,<name>,<qid>      queue record of qid (2 x index + dir)
 *   /zorv1/queue_stats,<name>,<qid>     queue counters of qid
 *   /zorv1/ring_info,<name>,<qid>       receive ring behind qid
 *   /zorv1/cp_stats                     control-plane counters by name, then
 *                                       the card's totals: rx_mtu_drops,
 *                                       tx_mtu_drops, peers_refused
 *   /zorv1/card,<name>                  the card's side of the port: socket,
 *                                       sfi, vid, peers_refused, the virtual
 *                                       port's mtu (0: none), mtu_min,
 *                                       mtu_max, rx_mtu_drops, tx_mtu_drops
 * A bad or missing parameter, an unknown port or a failed operation makes
 * the command answer with an error.
 */
#ifndef ZORV_DIAG_REGISTRY_H
#define ZORV_DIAG_REGISTRY_H

#include "zorv1_diag.h"

#ifdef __cplusplus
extern "C" {
#endif

struct rte_tel_data;

/* The table installed for a device type, or NULL. */
const struct zorv1_diag_ops *zorv1_diag_ops_get(enum zorv1_diag_type type);

/*
 * Remove a type's table if it is still ops (a later install wins).
 * 0 when removed, -ENOENT when another table or none is installed,
 * -EINVAL for a bad type.
 */
int zorv1_diag_ops_uninstall(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops);

/* Short name of a device type ("dpu_vdev", ...), or NULL. */
const char *zorv1_diag_type_name(enum zorv1_diag_type type);

/* The telemetry handlers, as registered (telemetry_cb shape). */
int zorv1_diag_tel_ports(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_port_info(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_qnum(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_queue_info(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_queue_stats(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_ring_info(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_cp_stats(const char *cmd, const char *params, struct rte_tel_data *d);
int zorv1_diag_tel_card(const char *cmd, const char *params, struct rte_tel_data *d);

#ifdef __cplusplus
}
#endif

#endif /* ZORV_DIAG_REGISTRY_H */
