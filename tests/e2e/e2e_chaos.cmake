# Seeded chaos (test_chaos.py): random interleavings of port control, peer
# connects/disconnects/kills with other queue counts and features, hostile
# peers and broker faults, with traffic both ways and invariants after every
# step. The seed is printed first; ZORV_CHAOS_SEED replays one.
# scripts/soak.sh runs the long form; scripts/test.sh runs 300 steps with
# the driver built with AddressSanitizer (e2e_chaos_asan, label asan_e2e).
add_test(NAME e2e_chaos
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_chaos.py
          --lib $<TARGET_FILE:rte_net_zorv1> --steps 1000)
set_tests_properties(e2e_chaos PROPERTIES LABELS e2e TIMEOUT 1500
  RESOURCE_LOCK zorv_cpus)
