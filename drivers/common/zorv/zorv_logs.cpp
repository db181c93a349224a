/* SPDX-License-Identifier: BSD-3-Clause
 * Log types of the zorv1 family, registered with DPDK's log subsystem when
 * the library is loaded. Their levels can be changed with
 * --log-level=pmd.net.zorv1.<suffix>:<level>.
 */
#include <rte_log.h>

#include "zorv1_logs.h"

/* Port control path: setup, connections, errors. */
RTE_LOG_REGISTER(zorv1_vdev_logtype_cfg, pmd.net.zorv1.cfg, INFO);
/* Receive burst packet dumps. */
RTE_LOG_REGISTER(zorv1_vdev_logtype_rx, pmd.net.zorv1.rx, NOTICE);
/* Transmit burst packet dumps. */
RTE_LOG_REGISTER(zorv1_vdev_logtype_tx, pmd.net.zorv1.tx, NOTICE);
/* Sampled receive time stamps. */
RTE_LOG_REGISTER(zorv1_pci_logtype_perf, pmd.net.zorv1.perf, NOTICE);
/* Command buffer and firmware command failures. */
RTE_LOG_REGISTER(zorv1_snic_pci_logtype_cfg, pmd.net.zorv1.cmd, INFO);
