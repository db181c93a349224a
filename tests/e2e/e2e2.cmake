# Scenarios with real peers, part 2: the Linux kernel through TAP interfaces
# in network namespaces, and dpdk-proc-info as a secondary process. Both need
# root; a platform that cannot run them makes the script print "SKIP: <why>"
# and exit with 77.

add_test(NAME e2e_kernel_tap
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_kernel_tap.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
# The namespaces and interfaces have fixed names: one run at a time.
set_tests_properties(e2e_kernel_tap PROPERTIES LABELS e2e TIMEOUT 300
  SKIP_RETURN_CODE 77 RESOURCE_LOCK zorv_netns)

add_test(NAME e2e_proc_info
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_proc_info.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
# The hugepage reservation is changed and put back: one run at a time.
set_tests_properties(e2e_proc_info PROPERTIES LABELS e2e TIMEOUT 300
  SKIP_RETURN_CODE 77 RESOURCE_LOCK zorv_hugepages)

# DPDK's example applications (l2fwd, l3fwd-power), built from Debian's
# dpdk-doc sources, forwarding on net_zorv1 ports with testpmd peers.
add_test(NAME e2e_dpdk_examples
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_dpdk_examples.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(e2e_dpdk_examples PROPERTIES LABELS e2e TIMEOUT 600
  SKIP_RETURN_CODE 77 RESOURCE_LOCK zorv_cpus)
