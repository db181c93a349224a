# The test harness and the fakes, checked on their own: this binary links
# the fakes and the harness but not the driver.

add_executable(test_harness unit/test_harness.cpp)
target_compile_options(test_harness PRIVATE ${ZORV_WARNINGS})
target_link_libraries(test_harness PRIVATE zorv_fakes zorv_test_harness zorv_dpdk)
add_test(NAME test_harness COMMAND test_harness)
set_tests_properties(test_harness PROPERTIES LABELS unit TIMEOUT 300)
