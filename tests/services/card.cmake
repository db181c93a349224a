# Tests of the emulated card's transport: the driver and the real services in
# one process, with DPDK's virtio-user as the peer on the card's vhost-user
# socket.
zorv_service_test(test_card services/test_card.cpp)

# Seeded random interleavings of the control thread, a polling thread, a
# sibling module's thread, a reader and the card's event thread, with the
# real card and virtio-user in one process. Labelled tsan and asan too: the
# sanitizer stages of scripts/test.sh run it in those builds.
zorv_service_test(test_chaos_threads services/test_chaos_threads.cpp)
set_tests_properties(test_chaos_threads PROPERTIES LABELS "service;tsan;asan" TIMEOUT 900)
# Sanitizer builds run several times slower: fewer steps, a longer bound.
if(CMAKE_BUILD_TYPE STREQUAL "Tsan")
  set_tests_properties(test_chaos_threads PROPERTIES ENVIRONMENT
    "ZORV_CHAOS_STEPS=150;ZORV_CHAOS_OP_BOUND_MS=10000;TSAN_OPTIONS=halt_on_error=1 suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp")
elseif(CMAKE_BUILD_TYPE STREQUAL "Asan")
  set_tests_properties(test_chaos_threads PROPERTIES ENVIRONMENT
    "ZORV_CHAOS_STEPS=200;ZORV_CHAOS_OP_BOUND_MS=5000")
endif()
