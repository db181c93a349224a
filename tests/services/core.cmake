# Tests of the family's core services: device manager, rings, utilities,
# log types, firmware and flow engine. They link the services' own objects
# (built with the same flags as zorv_common) and the harness, not the port
# driver, so they exercise each service on its own.
set(ZORV_CORE_SERVICE_SOURCES
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_dev_mgr.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_ring.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_utils.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_logs.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_fw.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_flow.cpp)
add_library(zorv_core_services OBJECT ${ZORV_CORE_SERVICE_SOURCES})
target_include_directories(zorv_core_services PUBLIC ${CMAKE_SOURCE_DIR}/drivers/net/zorv1
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv)
target_compile_options(zorv_core_services PRIVATE ${ZORV_WARNINGS} -fno-exceptions -fno-rtti)
target_link_libraries(zorv_core_services PUBLIC zorv_dpdk)

# zorv_core_service_test(<name> <sources>...)
function(zorv_core_service_test name)
  add_executable(${name} ${ARGN} $<TARGET_OBJECTS:zorv_core_services>)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/drivers/net/zorv1
    ${CMAKE_SOURCE_DIR}/drivers/common/zorv)
  target_compile_options(${name} PRIVATE ${ZORV_WARNINGS})
  target_link_libraries(${name} PRIVATE zorv_test_harness zorv_dpdk Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS service TIMEOUT 300)
endfunction()

zorv_core_service_test(test_core_dev_mgr services/test_dev_mgr.cpp)
zorv_core_service_test(test_core_ring services/test_ring.cpp)
zorv_core_service_test(test_core_utils_logs services/test_utils_logs.cpp)
zorv_core_service_test(test_core_fw services/test_fw.cpp)
zorv_core_service_test(test_core_flow services/test_flow.cpp)

# DPDK's inline ring code synchronises with plain barriers that
# ThreadSanitizer cannot see (Tsan build type only).
if(CMAKE_BUILD_TYPE STREQUAL "Tsan")
  set_tests_properties(test_core_ring PROPERTIES ENVIRONMENT
    "TSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/services/tsan_dpdk_ring.supp")
endif()
