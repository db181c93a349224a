/* SPDX-License-Identifier: BSD-3-Clause
 * Diagnostics registry of the zorv1 family: one operations table per
 * device type, asked by port name.
 */
#ifndef ZORV1_DIAG_H
#define ZORV1_DIAG_H

#include "zorv1_diag_struct.h"

#ifdef __cplusplus
extern "C" {
#endif

enum zorv1_diag_type {
	ZORV1_DIAG_DPU_VDEV = 0,
	ZORV1_DIAG_DPU_PCI = 1,
	ZORV1_DIAG_SNIC_VDEV = 2,
	ZORV1_DIAG_SNIC_PCI = 3,
	ZORV1_MAX_DEV_TYPE = 4,
};

struct zorv1_diag_ops {
	int (*get_qnum_by_name)(char *name);
	int (*get_ring_info)(char *name, int qid, struct zorv1_vnet_diag_ring_info *info);
	int (*get_port_info)(char *name, struct zorv1_diag_port_info *info);
	int (*get_queue_stats)(char *name, int qid, struct zorv1_diag_stats *stats);
	int (*get_queue_info)(char *name, int qid, struct zorv1_diag_queue_info *info);
	int (*get_pci_desc)(char *name, int qid, int start, int num,
			    struct zorv1_diag_pci_desc *desc);
};

/* Install the table of a device type; the result is informational. */
int zorv1_diag_ops_install(enum zorv1_diag_type type, const struct zorv1_diag_ops *ops);

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_DIAG_H */
