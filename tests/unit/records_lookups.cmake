# Port records and the driver's globals, the lookups and connection state,
# and the P4 helper routines.

zorv_unit_test(test_records unit/test_records.cpp)
zorv_unit_test(test_lookups unit/test_lookups.cpp)

# The P4 helpers are header-only: this binary needs neither the driver nor
# the fakes, only the harness (EAL start-up and main()).
add_executable(test_p4_utils unit/test_p4_utils.cpp)
target_include_directories(test_p4_utils PRIVATE ${CMAKE_SOURCE_DIR}/drivers/net/zorv1)
target_compile_options(test_p4_utils PRIVATE ${ZORV_WARNINGS})
target_link_libraries(test_p4_utils PRIVATE zorv_test_harness zorv_dpdk)
add_test(NAME test_p4_utils COMMAND test_p4_utils)
set_tests_properties(test_p4_utils PROPERTIES LABELS unit TIMEOUT 300)
