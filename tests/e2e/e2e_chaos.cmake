# Seeded chaos (test_chaos.py): random interleavings of port control, peer
# connects/disconnects/kills with other queue counts and features, hostile
# peers and broker faults, with traffic both ways and invariants after every
# step. The seed is printed first; ZORV_CHAOS_SEED replays one.
# scripts/soak.sh runs the long form. In an Asan build the same chaos runs
# 300 steps (e2e_chaos_asan, label asan) with that build's driver loaded
# into Debian's dpdk-testpmd and the sanitizer runtime preloaded into it.
add_test(NAME e2e_chaos
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_chaos.py
          --lib $<TARGET_FILE:rte_net_zorv1> --steps 1000)
set_tests_properties(e2e_chaos PROPERTIES LABELS e2e TIMEOUT 1500
  RESOURCE_LOCK "zorv_cpus;zorv_hugepages")

if(CMAKE_BUILD_TYPE STREQUAL "Asan")
  # The runtime the driver was linked with; testpmd is not built with it, so
  # it comes first through LD_PRELOAD (the peers run without it).
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
    OUTPUT_VARIABLE ZORV_LIBASAN OUTPUT_STRIP_TRAILING_WHITESPACE)
  get_filename_component(ZORV_LIBASAN ${ZORV_LIBASAN} REALPATH)
  # No LeakSanitizer here: its scan at testpmd's exit faults on DPDK's
  # memory ("Tracer caught signal 11"). Leaks are looked for by the Asan
  # build of the service tests (the driver and the real card in one
  # process, LeakSanitizer on) and, here, by the chaos's own check that the
  # DPDK heap, the mbuf pool and the open files come back to their start.
  set(ZORV_E2E_ASAN_ENV
    "ZORV_E2E_PRELOAD=${ZORV_LIBASAN}"
    "ASAN_OPTIONS=detect_leaks=0:halt_on_error=1:abort_on_error=1"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
  add_test(NAME e2e_chaos_asan
    COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_chaos.py
            --lib $<TARGET_FILE:rte_net_zorv1> --steps 300 --sanitizer libasan)
  set_tests_properties(e2e_chaos_asan PROPERTIES LABELS asan TIMEOUT 1800
    RESOURCE_LOCK "zorv_cpus;zorv_hugepages" ENVIRONMENT "${ZORV_E2E_ASAN_ENV}")
  add_test(NAME e2e_hostile_peer_asan
    COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/e2e/test_hostile_peer.py
            --lib $<TARGET_FILE:rte_net_zorv1> --bound 1.0)
  set_tests_properties(e2e_hostile_peer_asan PROPERTIES LABELS asan TIMEOUT 900
    RESOURCE_LOCK zorv_cpus ENVIRONMENT "${ZORV_E2E_ASAN_ENV}")
endif()
