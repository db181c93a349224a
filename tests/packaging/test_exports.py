#!/usr/bin/env python3
"""The shared library exports exactly its public surface.

The list below is the reference: the driver's entry points for the family's
modules and for DPDK, and the family services those modules call. Everything
else (the operations DPDK reaches through the port's tables, the services'
own helpers) must stay local. Adding or dropping a name is a deliberate
change of the list and of drivers/net/zorv1/version.map together.
"""
import subprocess
import sys

PUBLIC = {
    # lookups and connection state
    "zorv1_get_dpdk_cp_stat", "zorv1_get_eventid", "zorv1_set_eventid",
    "zorv1_dev_get_ethdev_by_vid", "zorv1_get_dev_queue_local_id",
    "zorv1_get_cache_ring_local_id", "zorv1_get_internal_sfi", "zorv1_set_internal_sfi",
    # counters and event ids
    "g_dpdk_cp_stat", "g_zorv1_event_id",
    # device-wide transmit-queue operations
    "zorv1_dev_disable_all_txq_queuing", "zorv1_dev_enable_all_txq_queuing",
    "zorv1_dev_update_pci_hash",
    # connection entry points and the all-ports operation
    "zorv1_dpu_dev_queue_setup", "zorv1_dpu_dev_queue_destroy", "zorv1_dpu_vdev_new_conn",
    "zorv1_dpu_vdev_destroy_dev", "zorv1_dpu_vdev_destroy_conn", "zorv1_set_dev_port_callback",
    "zorv1_dev_all_port_op",
    # diagnostics table, bursts, probe and remove
    "zorv1_vdev_diag_ops", "eth_vhost_rx", "eth_vhost_tx",
    "rte_pmd_zorv1_dpu_vdev_probe", "rte_pmd_zorv1_dpu_vdev_remove",
    # family services: device manager
    "zorv1_dev_mutex_lock", "zorv1_dev_mutex_unlock", "zorv1_dev_install", "zorv1_dev_uninstall",
    "zorv1_dev_get_ethdev", "zorv1_dev_get_ethdev_internal", "zorv1_dev_get_ethdev_by_sfi",
    "zorv1_vdev_get_ethdev_by_name", "zorv1_dev_sfi_unmap_port", "zorv1_pci_get_idx_by_hash",
    "zorv1_pci_get_idx_by_hash_locked",
    # transport
    "rte_zorv1_vhost_dequeue_burst", "rte_zorv1_vhost_enqueue_burst",
    "zorv1_dpu_vdev_protocol_register", "zorv1_dpu_vdev_protocol_unregister",
    "zorv_get_ifname", "zorv_set_dev_port",
    # rings
    "zorv1_ring_create", "zorv1_ring_destroy", "zorv1_get_ring_by_local_id",
    # flow engine
    "zorv_flow_resource_init", "zorv_flow_resource_free", "zorv_dev_udp_tunnel_port_add",
    "zorv_dev_flow_ops_get", "zorv_mtr_ops_get",
    # firmware, agent, diagnostics registry
    "zorv1_fw_set_dev_mtu", "zorv1_mqtt_send_msg", "zorv1_diag_ops_install",
    # utilities and log types
    "zorv1_calculate_time", "zorv1_dump_pkt", "g_timestap_cnt",
    "zorv1_vdev_logtype_cfg", "zorv1_vdev_logtype_rx", "zorv1_vdev_logtype_tx",
    "zorv1_pci_logtype_perf", "zorv1_snic_pci_logtype_cfg",
}


def exported(lib):
    out = subprocess.run(["nm", "-D", "--defined-only", lib], check=True,
                         stdout=subprocess.PIPE).stdout.decode()
    return {line.split()[-1] for line in out.splitlines() if line.strip()}


def main():
    lib = sys.argv[1]
    got = exported(lib)
    extra = sorted(got - PUBLIC)
    missing = sorted(PUBLIC - got)
    for name in extra:
        print("exported but not public: %s" % name)
    for name in missing:
        print("public but not exported: %s" % name)
    if extra or missing:
        print("FAIL: %s exports %d names, %d unexpected, %d missing"
              % (lib, len(got), len(extra), len(missing)))
        return 1
    print("PASS: %s exports exactly its %d public names" % (lib, len(PUBLIC)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
