# Tests of the agent report service (MQTT, against a real mosquitto broker
# the test starts on loopback) and of the diagnostics registry (directly and
# through DPDK's telemetry socket).
pkg_check_modules(JANSSON REQUIRED IMPORTED_TARGET jansson)

zorv_service_test(test_mqtt services/test_mqtt.cpp)
target_link_libraries(test_mqtt PRIVATE PkgConfig::JANSSON)
# Starts and stops brokers and waits for reconnects.
set_tests_properties(test_mqtt PROPERTIES TIMEOUT 120)

zorv_service_test(test_diag_registry services/test_diag_registry.cpp
  services/test_diag_registry_fake.cpp)

# The registry through DPDK's telemetry socket. The shared harness starts EAL
# with --no-telemetry, so this binary has its own main() and EAL start-up; it
# links what zorv_service_test links, minus the harness.
add_executable(test_diag_registry_telemetry services/test_diag_registry_telemetry.cpp
  services/test_diag_registry_fake.cpp
  $<TARGET_OBJECTS:zorv1_driver> $<TARGET_OBJECTS:zorv_common>)
target_include_directories(test_diag_registry_telemetry PRIVATE
  ${CMAKE_SOURCE_DIR}/drivers/net/zorv1 ${CMAKE_SOURCE_DIR}/drivers/common/zorv)
target_compile_options(test_diag_registry_telemetry PRIVATE ${ZORV_WARNINGS})
target_link_libraries(test_diag_registry_telemetry PRIVATE zorv_dpdk rte_vhost GTest::gtest
  Threads::Threads PkgConfig::JANSSON)
if(MOSQUITTO_FOUND)
  target_link_libraries(test_diag_registry_telemetry PRIVATE PkgConfig::MOSQUITTO)
endif()
add_test(NAME test_diag_registry_telemetry COMMAND test_diag_registry_telemetry)
set_tests_properties(test_diag_registry_telemetry PROPERTIES LABELS service TIMEOUT 300)
