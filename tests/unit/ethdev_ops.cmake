# Ethernet device operations of the port: queue setup, information,
# statistics, MTU and power monitor, and the lifecycle with the operations
# table. Each binary is one process with its own EAL.

zorv_unit_test(test_queue_setup unit/test_queue_setup.cpp)
zorv_unit_test(test_info_stats_mtu unit/test_info_stats_mtu.cpp)
# Answers rte_eal_process_type() itself (looked up with dlsym) to play a
# secondary process.
zorv_unit_test(test_lifecycle unit/test_lifecycle.cpp)
target_link_libraries(test_lifecycle PRIVATE ${CMAKE_DL_LIBS})
