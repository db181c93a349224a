# Flow rules and meters of a port through dpdk-testpmd's flow and meter
# commands, then with traffic from a virtio-user peer through the card's
# receive path, where the flow classifier runs.
add_test(NAME e2e_flow_testpmd
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_flow_testpmd.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(e2e_flow_testpmd PROPERTIES LABELS e2e TIMEOUT 300)
