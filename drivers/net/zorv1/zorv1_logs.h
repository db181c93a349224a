/* SPDX-License-Identifier: BSD-3-Clause
 * Log types of the zorv1 family and the driver's log macros.
 */
#ifndef ZORV1_LOGS_H
#define ZORV1_LOGS_H

#include <rte_log.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Registered with DPDK's log subsystem by the family's log module. */
extern int zorv1_vdev_logtype_cfg;      /* pmd.net.zorv1.cfg: port control path */
extern int zorv1_vdev_logtype_rx;       /* pmd.net.zorv1.rx: receive dumps */
extern int zorv1_vdev_logtype_tx;       /* pmd.net.zorv1.tx: transmit dumps */
extern int zorv1_pci_logtype_perf;      /* pmd.net.zorv1.perf: receive time stamps */
extern int zorv1_snic_pci_logtype_cfg;  /* pmd.net.zorv1.cmd: command buffers */

#define ZORV1_LOG_PREFIX "[offload_smartnic] "

/* Every line carries the prefix, the calling function and the line number. */
#define ZORV1_LOG_TYPE(type, level, fmt, ...)                                    \
	rte_log(RTE_LOG_##level, (type), ZORV1_LOG_PREFIX "%s-%d: " fmt, __func__, \
		__LINE__, ##__VA_ARGS__)

#define ZORV1_VDEV_LOG(level, fmt, ...) \
	ZORV1_LOG_TYPE(zorv1_vdev_logtype_cfg, level, fmt, ##__VA_ARGS__)
#define ZORV1_SNIC_LOG(level, fmt, ...) \
	ZORV1_LOG_TYPE(zorv1_snic_pci_logtype_cfg, level, fmt, ##__VA_ARGS__)

#ifdef __cplusplus
}
#endif

#endif /* ZORV1_LOGS_H */
