# Scenarios with real peers: dpdk-testpmd with the driver loaded by -d, a
# virtio-user peer in the same process, dpdk-telemetry.py and a mosquitto
# broker. Each is a Python script that exits non-zero on failure.

foreach(zorv_e2e_case testpmd_port virtio_user telemetry mqtt_agent)
  add_test(NAME e2e_${zorv_e2e_case}
    COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_${zorv_e2e_case}.py
            --lib $<TARGET_FILE:rte_net_zorv1>)
  set_tests_properties(e2e_${zorv_e2e_case} PROPERTIES LABELS e2e TIMEOUT 300)
endforeach()
