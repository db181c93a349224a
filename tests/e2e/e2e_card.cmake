# Scenarios of what the emulated card enforces, with testpmd and virtio-user
# peers: the MTU in both directions with its drop counters, and one peer per
# port's socket.

foreach(zorv_e2e_case mtu one_peer)
  add_test(NAME e2e_${zorv_e2e_case}
    COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_${zorv_e2e_case}.py
            --lib $<TARGET_FILE:rte_net_zorv1>)
  set_tests_properties(e2e_${zorv_e2e_case} PROPERTIES LABELS e2e TIMEOUT 300)
endforeach()
