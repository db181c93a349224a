# As many net_zorv1 ports as one testpmd holds: 16 ports with a virtio-user
# peer each (traffic through all, then everything closed and the process back
# to its footprint before them), 32 ports without peers, and the refusals of
# a taken interface name and of a 33rd port, with their agent reports.

add_test(NAME e2e_scale
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_scale.py
          --lib $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(e2e_scale PROPERTIES LABELS e2e TIMEOUT 600)
