# The shared library as others see it: its exported symbols.
add_test(NAME test_exports
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/packaging/test_exports.py
          $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(test_exports PROPERTIES LABELS packaging TIMEOUT 60)

# The driver installed into DPDK's plugin directory (cmake --install, and
# the Debian package cpack makes) and DPDK's tools on its ports without -d:
# dpdk-dumpcap, dpdk-pdump, dpdk-proc-info. In a mount namespace of its own
# where the plugin directory and dpkg's database are overlays: the machine
# is left as it was.
add_test(NAME e2e_installed
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_installed.py
          --lib $<TARGET_FILE:rte_net_zorv1> --build ${CMAKE_BINARY_DIR})
set_tests_properties(e2e_installed PROPERTIES LABELS "e2e;packaging" TIMEOUT 900
  SKIP_RETURN_CODE 77 RESOURCE_LOCK "zorv_cpus;zorv_plugin_dir;zorv_hugepages")
