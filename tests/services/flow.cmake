# Tests of the flow engine: rule checking and compiling, the receive
# classifier (matching, actions, counters, groups), the moving of frames to
# other receive queues' rings, meters, and rule changes while queues
# classify. The engine's sources beyond zorv_flow.cpp join the core services
# that test_core_flow (core.cmake) links.
target_sources(zorv_core_services PRIVATE
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_flow_parse.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_flow_classify.cpp
  ${CMAKE_SOURCE_DIR}/drivers/common/zorv/zorv_flow_mtr.cpp)

zorv_core_service_test(test_flow_engine
  services/test_flow_match.cpp
  services/test_flow_actions.cpp
  services/test_flow_mtr.cpp
  services/test_flow_dispatch.cpp
  services/test_flow_tuples.cpp)

# Rule changes on one thread while others classify; run it also in a Tsan
# build (cmake -DCMAKE_BUILD_TYPE=Tsan).
zorv_core_service_test(test_flow_rcu services/test_flow_rcu.cpp)
