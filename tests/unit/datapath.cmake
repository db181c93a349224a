# Data path of the zorv1 port: queuing gate, extended statistics, bursts,
# and the gate under concurrent polling threads (also run under TSAN).

zorv_unit_test(test_gate unit/test_gate.cpp)
zorv_unit_test(test_xstats unit/test_xstats.cpp)
zorv_unit_test(test_bursts unit/test_bursts.cpp)

# The gate under concurrent polling threads. Labelled tsan as well: build
# with -DCMAKE_BUILD_TYPE=Tsan to run it under ThreadSanitizer; the
# suppressions (tests/tsan.supp) explain every accepted report.
zorv_unit_test(test_gate_concurrency unit/test_gate_concurrency.cpp)
set_tests_properties(test_gate_concurrency PROPERTIES LABELS "unit;tsan"
  ENVIRONMENT "TSAN_OPTIONS=halt_on_error=1 suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp")
