# The port driver at the device manager's full size (1024 installed ports)
# and its failure paths. One source, two binaries: with the fake family
# services (scale against the fake device manager, plus ring manager,
# allocator and flow engine failures), and with the real services (the same
# scale tests against the real device manager).

zorv_unit_test(test_scale_faults unit/test_scale_faults.cpp)

zorv_service_test(test_scale_dev_mgr unit/test_scale_faults.cpp)
target_compile_definitions(test_scale_dev_mgr PRIVATE ZORV_TEST_REAL_SERVICES)
