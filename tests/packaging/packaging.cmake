# The shared library as others see it: its exported symbols.
add_test(NAME test_exports
  COMMAND python3 ${CMAKE_CURRENT_SOURCE_DIR}/packaging/test_exports.py
          $<TARGET_FILE:rte_net_zorv1>)
set_tests_properties(test_exports PROPERTIES LABELS packaging TIMEOUT 60)
