# Reliability under churn and faults, with traffic through the port the whole
# time: a virtio-user peer in a second dpdk-testpmd process reconnects and
# the port stops and starts hundreds of times (test_churn.py), and the
# agent's broker is absent, started, killed, frozen and restarted
# (test_broker_faults.py). scripts/soak.sh runs the long form.

add_test(NAME e2e_churn
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_churn.py
          --lib $<TARGET_FILE:rte_net_zorv1> --reconnects 200 --restarts 200 --deadline 780)
add_test(NAME e2e_broker_faults
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_broker_faults.py
          --lib $<TARGET_FILE:rte_net_zorv1> --rounds 2)
# The churn fails by itself before the timeout, so that it cleans up its
# processes (they run in sessions of their own).
# Two busy-polling processes each, placed on both CPUs: one scenario at a time.
set_tests_properties(e2e_churn e2e_broker_faults PROPERTIES LABELS e2e TIMEOUT 900
  RESOURCE_LOCK zorv_cpus)
