# libFuzzer targets of the port driver, linked with the fake family services.
#
# In a build tree configured with clang and -DZORV_FUZZ=ON (scripts/fuzz.sh
# makes one):
#   fuzz_probe_args   device-argument strings through probe and remove
#   fuzz_diag_ops     the diagnostics operations with any port name and qid
#   fuzz_card_tx      the emulated card's software transmit offloads with any
#                     frame, request, peer features and mbuf chain
# and one test per target (label fuzz) that runs it for
# ZORV_FUZZ_SMOKE_SECONDS from its seed corpus (tests/fuzz/corpus/<name>).
# New inputs go to <build>/fuzz-corpus/<name>, crash inputs to
# <build>/fuzz-artifacts/.
#
# In any other build tree, one test (label fuzz) runs scripts/fuzz.sh with
# ZORV_FUZZ_SMOKE_SECONDS per target in a clang tree of its own under this
# build tree, so that the normal test run covers the targets too.

set(ZORV_FUZZ_SMOKE_SECONDS 20 CACHE STRING "Seconds each fuzz target runs as a test")
set(ZORV_FUZZ_DIR ${CMAKE_SOURCE_DIR}/tests/fuzz)
set(ZORV_FUZZ_TARGETS probe_args diag_ops card_tx)

if(ZORV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ZORV_FUZZ needs clang (libFuzzer): configure with -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang")
  endif()
  find_package(GTest REQUIRED)
  find_package(Threads REQUIRED)

  # Coverage for libFuzzer and the sanitizers on everything the targets run.
  set(ZORV_FUZZ_CFLAGS -fsanitize=fuzzer-no-link,address,undefined
    -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1)
  set(ZORV_FUZZ_LDFLAGS -fsanitize=fuzzer,address,undefined)

  # The driver and the fakes, rebuilt with those flags. The fakes' reset hook
  # is served by zorv_fuzz_env.cpp instead of the unit-test harness, whose
  # main() would replace libFuzzer's.
  add_library(zorv_fuzz_driver OBJECT ${CMAKE_SOURCE_DIR}/drivers/net/zorv1/zorv1_vdev.cpp)
  target_include_directories(zorv_fuzz_driver PUBLIC
    ${CMAKE_SOURCE_DIR}/drivers/net/zorv1 ${CMAKE_SOURCE_DIR}/drivers/common/zorv)
  target_compile_options(zorv_fuzz_driver PRIVATE ${ZORV_WARNINGS} -fno-exceptions -fno-rtti
    ${ZORV_FUZZ_CFLAGS})
  target_link_libraries(zorv_fuzz_driver PUBLIC zorv_dpdk)

  add_library(zorv_fuzz_support OBJECT
    ${CMAKE_SOURCE_DIR}/tests/fakes/zorv_fakes.cpp
    ${CMAKE_SOURCE_DIR}/tests/fakes/zorv_fakes_ops.cpp
    ${ZORV_FUZZ_DIR}/zorv_fuzz_env.cpp)
  target_include_directories(zorv_fuzz_support PUBLIC
    ${CMAKE_SOURCE_DIR}/drivers/net/zorv1 ${CMAKE_SOURCE_DIR}/drivers/common/zorv
    ${CMAKE_SOURCE_DIR}/tests/fakes ${CMAKE_SOURCE_DIR}/tests/harness ${ZORV_FUZZ_DIR})
  target_compile_options(zorv_fuzz_support PRIVATE ${ZORV_WARNINGS} ${ZORV_FUZZ_CFLAGS})
  target_link_libraries(zorv_fuzz_support PUBLIC zorv_dpdk GTest::gtest Threads::Threads)

  # The card's software transmit offloads alone, built as the services are,
  # for fuzz_card_tx: pure functions over a frame, with no link into the port,
  # the firmware or the vhost library; the target takes only the fakes'
  # registry (log types) and the shared start-up.
  add_library(zorv_fuzz_card OBJECT ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_card_offload.cpp)
  target_include_directories(zorv_fuzz_card PUBLIC
    ${CMAKE_SOURCE_DIR}/drivers/net/zorv1 ${CMAKE_SOURCE_DIR}/drivers/common/zorv)
  target_compile_options(zorv_fuzz_card PRIVATE ${ZORV_WARNINGS} -fno-exceptions -fno-rtti
    ${ZORV_FUZZ_CFLAGS})
  target_link_libraries(zorv_fuzz_card PUBLIC zorv_dpdk)

  add_library(zorv_fuzz_env OBJECT
    ${CMAKE_SOURCE_DIR}/tests/fakes/zorv_fakes.cpp ${ZORV_FUZZ_DIR}/zorv_fuzz_env.cpp)
  target_include_directories(zorv_fuzz_env PUBLIC
    ${CMAKE_SOURCE_DIR}/drivers/net/zorv1 ${CMAKE_SOURCE_DIR}/drivers/common/zorv
    ${CMAKE_SOURCE_DIR}/tests/fakes ${CMAKE_SOURCE_DIR}/tests/harness ${ZORV_FUZZ_DIR})
  target_compile_options(zorv_fuzz_env PRIVATE ${ZORV_WARNINGS} ${ZORV_FUZZ_CFLAGS})
  target_link_libraries(zorv_fuzz_env PUBLIC zorv_dpdk GTest::gtest Threads::Threads)

  # What each target links besides its own source.
  set(zorv_fuzz_objs_probe_args $<TARGET_OBJECTS:zorv_fuzz_driver> $<TARGET_OBJECTS:zorv_fuzz_support>)
  set(zorv_fuzz_libs_probe_args zorv_fuzz_support)
  set(zorv_fuzz_objs_diag_ops ${zorv_fuzz_objs_probe_args})
  set(zorv_fuzz_libs_diag_ops zorv_fuzz_support)
  set(zorv_fuzz_objs_card_tx $<TARGET_OBJECTS:zorv_fuzz_card> $<TARGET_OBJECTS:zorv_fuzz_env>)
  set(zorv_fuzz_libs_card_tx zorv_fuzz_env)

  foreach(t ${ZORV_FUZZ_TARGETS})
    add_executable(fuzz_${t} ${ZORV_FUZZ_DIR}/fuzz_${t}.cpp ${zorv_fuzz_objs_${t}})
    target_compile_options(fuzz_${t} PRIVATE ${ZORV_WARNINGS} ${ZORV_FUZZ_CFLAGS})
    target_link_options(fuzz_${t} PRIVATE ${ZORV_FUZZ_LDFLAGS})
    target_link_libraries(fuzz_${t} PRIVATE ${zorv_fuzz_libs_${t}})
    # At the top of the build tree, where scripts/fuzz.sh runs them.
    set_target_properties(fuzz_${t} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/fuzz-corpus/${t} ${CMAKE_BINARY_DIR}/fuzz-artifacts)
    add_test(NAME fuzz_${t}
      COMMAND fuzz_${t} -max_total_time=${ZORV_FUZZ_SMOKE_SECONDS} -timeout=10
              -rss_limit_mb=4096 -print_final_stats=1
              -artifact_prefix=${CMAKE_BINARY_DIR}/fuzz-artifacts/${t}-
              ${CMAKE_BINARY_DIR}/fuzz-corpus/${t} ${ZORV_FUZZ_DIR}/corpus/${t})
    math(EXPR zorv_fuzz_timeout "${ZORV_FUZZ_SMOKE_SECONDS} + 120")
    set_tests_properties(fuzz_${t} PROPERTIES LABELS fuzz TIMEOUT ${zorv_fuzz_timeout}
      ENVIRONMENT "ASAN_OPTIONS=detect_leaks=1:abort_on_error=1;UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
  endforeach()
else()
  find_program(ZORV_FUZZ_CLANGXX clang++)
  if(ZORV_FUZZ_CLANGXX)
    add_test(NAME fuzz_smoke COMMAND ${CMAKE_SOURCE_DIR}/scripts/fuzz.sh ${ZORV_FUZZ_SMOKE_SECONDS})
    # Configures and builds a clang tree first (a few minutes on two cores).
    set_tests_properties(fuzz_smoke PROPERTIES LABELS fuzz TIMEOUT 1800
      ENVIRONMENT "ZORV_FUZZ_BUILD=${CMAKE_BINARY_DIR}/fuzz;ZORV_SDK_INCLUDE=${ZORV_SDK_INCLUDE}")
  endif()
endif()
